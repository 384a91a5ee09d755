// The CAP's TLS pairing server.
#pragma once
#include <pthread.h>
#include <stdint.h>
#include <sys/time.h>

#include "conn/entity.h"

enum { SERVER_BACKLOG = 10, OVERLOAD_THRESHOLD = 1, SERVING_TIMEOUT = 120 };

extern struct timeval conn_duration[2];

int32_t start_mesh_server(const char *ifname, const char *ip);
int32_t server_listening(entity *main);
int32_t handle_new_connection(entity *main);
void check_connection_timeout(void);
void *server_loop(void *arg);
// Shuts every peer's socket down so that its thread ends (and releases its
// record); the clean-up waits for them.
void server_stop_peers(void);
// How peer threads are created (detached, signals blocked); returns 0 or an
// error number. A test may replace it.
extern int32_t (*server_thread_create)(pthread_t *, void *(*)(void *), void *);
