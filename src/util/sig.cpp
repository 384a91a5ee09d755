#include "util/sig.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

volatile sig_atomic_t g_sig_stop;
volatile sig_atomic_t g_sig_usr1;
volatile sig_atomic_t g_sig_alarm;
volatile sig_atomic_t g_sig_cut_fd = -1;

static int sig_pipe[2] = {-1, -1};
static pthread_t sig_main;
static int sig_main_set;
static void (*sig_act)(void);

static void sig_ignore(int) {}

static void sig_set(int sig, void (*fn)(int), int flags)
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = fn;
    sa.sa_flags = flags;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
}

void sig_install(void (*note)(int), void (*act)(void))
{
    sig_main = pthread_self();
    sig_main_set = 1;
    sig_act = act;
    if (sig_pipe[0] < 0 && pipe2(sig_pipe, O_NONBLOCK | O_CLOEXEC) != 0)
        sig_pipe[0] = sig_pipe[1] = -1;
    sig_set(SIGINT, note, 0);
    sig_set(SIGTERM, note, 0);
    sig_set(SIGUSR1, note, SA_RESTART);
    // A peer that vanishes mid-write must cost one connection, not the
    // daemon. A handler (not SIG_IGN) so that children start with the default.
    sig_set(SIGPIPE, sig_ignore, SA_RESTART);
}

void sig_install_alarm(void (*note)(int))
{
    sig_set(SIGALRM, note, SA_RESTART);
}

void sig_wake(void)
{
    int saved = errno;
    if (sig_pipe[1] >= 0) {
        char c = 0;
        (void)!write(sig_pipe[1], &c, 1);
    }
    errno = saved;
}

int32_t sig_wake_fd(void)
{
    return sig_pipe[0];
}

void sig_drain(void)
{
    char buf[64];
    if (sig_pipe[0] >= 0)
        while (read(sig_pipe[0], buf, sizeof(buf)) > 0) {
        }
}

int32_t sig_on_main(void)
{
    return sig_main_set && pthread_equal(sig_main, pthread_self()) ? 1 : 0;
}

void sig_safe_point(void)
{
    static int32_t busy, stopping;
    if (!sig_on_main() || !sig_act)
        return;
    int32_t for_stop = g_sig_stop != 0;
    // A stop must not wait for a SIGUSR1's command; nothing runs inside a stop.
    if (stopping || (busy && !for_stop))
        return;
    int32_t was_busy = busy;
    busy = 1;
    stopping = for_stop;
    sig_act();
    busy = was_busy;
    stopping = 0;
}

void sig_stop_point(void)
{
    // The notes are the main thread's: no other thread reads them.
    if (sig_on_main() && g_sig_stop)
        sig_safe_point();
}

int64_t now_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

void nap_ms(int32_t ms)
{
    int fd = sig_wake_fd();
    if (fd < 0) {
        usleep((useconds_t)ms * 1000);
        return;
    }
    const int64_t end = now_ms() + ms;
    for (;;) {
        int64_t left = end - now_ms();
        if (left <= 0)
            break;
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, (int)left) > 0)
            sig_drain();
        sig_safe_point();
    }
    sig_safe_point();
}

int32_t sig_thread_create(pthread_t *tid, void *(*fn)(void *), void *arg)
{
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGUSR1);
    sigaddset(&block, SIGALRM);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // The new thread inherits the mask in force while it is created.
    pthread_sigmask(SIG_BLOCK, &block, &old);
    int rc = pthread_create(tid, &attr, fn, arg);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    pthread_attr_destroy(&attr);
    return rc;
}
