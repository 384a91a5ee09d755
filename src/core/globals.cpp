// Process globals of the role flows and the signal handler. The role, the
// run mode and the stop flag live in util/proc, the address-change flag with
// discovery, the pairing result with the configuration exchange.
#include "core/flow.h"

int32_t g_exit_timeout = 0;
char g_ifname[16];
char g_cap_ip[16];
char g_gw_srv_ip[16];
char g_local_wan_ip[16];
int32_t g_retry_flag = 0;
const char *const g_default_lan_ip = "192.168.77.1";
