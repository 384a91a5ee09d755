// Process globals shared by the role flows, the signal handler, the server,
// the client and discovery. Plain words by design: the signal handler and
// the loops read and write them without locks.
#include "core/flow.h"

int32_t g_is_server = 0;
int32_t g_dry_run = 0;
int32_t g_exit_timeout = 0;
char g_ifname[16];
char g_cap_ip[16];
char g_gw_srv_ip[16];
char g_local_wan_ip[16];
int32_t g_retry_flag = 0;
int32_t g_is_success = 0;
int32_t ip_changed = 0;
int32_t stop = 0;
const char *const g_default_lan_ip = "192.168.77.1";
