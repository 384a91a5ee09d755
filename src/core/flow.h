// Command line, process globals, the signal handler and the two role flows.
#pragma once
#include <stdint.h>

extern int32_t g_exit_timeout;   // value of -t; accepted, read by nothing
extern char g_ifname[16];
extern char g_cap_ip[16];
extern char g_gw_srv_ip[16];
extern char g_local_wan_ip[16];
extern int32_t g_retry_flag;
extern const char *const g_default_lan_ip;   // "192.168.77.1"

enum { PLAITD_PARSE_RUN = 0, PLAITD_PARSE_EXIT_OK = 1, PLAITD_PARSE_EXIT_BAD = -1 };

void usage(void);
// Applies the options to the globals; tells whether to run or to exit.
int32_t parse_args(int argc, char **argv);
// Notes the signal and wakes the main thread (async-signal-safe).
void sig_handler(int sig);
// Installs sig_handler and what the main thread's safe points run.
void install_signals(void);
int32_t capip_ip_compare(const char *a, const char *b);
int32_t cap_flow(void);   // ends the process
int32_t re_flow(void);
// Set-up and tear-down of both roles: the TLS context; the peers, records,
// light, mesh lock and context at the end.
int32_t init_mesh_cable(void);
void cleanup_mesh_cable(void);
// The whole process: what main() returns.
int plaitd_main(int argc, char **argv);
