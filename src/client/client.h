// The RE's pairing attempt and its watchdog.
#pragma once
#include <stdint.h>

#include "conn/entity.h"

enum { CLIENT_TIMEOUT = 60 };

extern int32_t g_timer_flag;   // 1 while the watchdog alarm is armed

int32_t start_mesh_client(const char *ifname, const char *local_ip, const char *cap_ip);
int32_t client_connect(entity *ent, const char *cap_ip);
void client_loop(void);
void client_open_timer(void);
void client_close_timer(void);
void client_free_connect(int sig);   // the SIGALRM handler: cuts the socket
// Runs the time-out path once the alarm has fired (main thread); 1 = it ran.
int32_t client_timer_expired(void);
