// Signals as notes: handlers only record what arrived and wake the main
// thread through a pipe; the main thread acts on them at its safe points.
// Every other thread runs with these signals blocked.
#pragma once
#include <pthread.h>
#include <signal.h>
#include <stdint.h>

extern volatile sig_atomic_t g_sig_stop;     // SIGINT/SIGTERM number; 0 = none
extern volatile sig_atomic_t g_sig_usr1;     // SIGUSR1 seen and not yet handled
extern volatile sig_atomic_t g_sig_alarm;    // SIGALRM seen and not yet handled
extern volatile sig_atomic_t g_sig_cut_fd;   // socket the SIGALRM handler shuts down; -1 = none

// Installs `note` for SIGINT, SIGTERM and SIGUSR1 (no restart of interrupted
// calls, so a blocked main thread returns to a safe point), a no-op SIGPIPE
// handler (reset to default in every child at exec), and the wake-up pipe.
// Remembers the calling thread as the main thread, and `act` as what its
// safe points run.
void sig_install(void (*note)(int), void (*act)(void));
// Installs `note` for SIGALRM (interrupted calls restart: the handler cuts
// the socket instead).
void sig_install_alarm(void (*note)(int));
// Async-signal-safe: one byte into the wake-up pipe.
void sig_wake(void);
// Read end of the wake-up pipe (-1 before sig_install); drains it.
int32_t sig_wake_fd(void);
void sig_drain(void);
// 1 on the thread that called sig_install.
int32_t sig_on_main(void);
// Acts on noted signals: runs `act` on the main thread; does nothing on any
// other thread or before sig_install. Called where the main thread holds no
// lock and is inside no TLS call. `act` is not nested, except that a stop
// goes ahead inside the handling of another note (a SIGUSR1's command).
void sig_safe_point(void);
// A safe point for a noted stop only: where the main thread waits for a
// command or reads frames, other notes wait for the caller's next safe point.
void sig_stop_point(void);
// Milliseconds of a clock that setting the date does not move (CLOCK_MONOTONIC).
int64_t now_ms(void);
// Sleeps ms milliseconds, acting on signals as they arrive.
void nap_ms(int32_t ms);
// pthread_create for a detached thread that starts with the noted signals
// blocked. Returns 0 or the error number.
int32_t sig_thread_create(pthread_t *tid, void *(*fn)(void *), void *arg);
