#include "fuzz_common.h"

#include <stdio.h>
#include <string>
#include <unistd.h>

#include "fake_sys.h"
#include "util/log.h"

// The command readers wait up to half a second for their output; fake_sys
// answers at once, and a fuzzer cannot afford the wait.
extern "C" int usleep(useconds_t)
{
    return 0;
}

void fuzz_answer_router(void)
{
    const char *sec = "uci show wireless | grep -w \"ifname='%s'\" | cut -d '.' -f1-2";
    char buf[160];
    fake_sys_answer("uci -q get misc.wireless.ifname_2G", "wl1\n");
    fake_sys_answer("mesh_tool backhaul get band", "5g");
    fake_sys_answer("uci -q get misc.wireless.ifname_5G", "wl0\n");
    fake_sys_answer("uci -q get misc.backhauls.backhaul_5g_ap_iface", "wl5\n");
    snprintf(buf, sizeof(buf), sec, "wl1");
    fake_sys_answer(buf, "wireless.wifi2\n");
    snprintf(buf, sizeof(buf), sec, "wl0");
    fake_sys_answer(buf, "wireless.wifi1\n");
    snprintf(buf, sizeof(buf), sec, "wl5");
    fake_sys_answer(buf, "wireless.bh_ap\n");
    fake_sys_answer("uci -q get wireless.wifi1.bsd", "0\n");
    fake_sys_answer("uci -q get wireless.wifi2.ssid", "Home-2G\n");
    fake_sys_answer("uci -q get wireless.wifi2.encryption", "psk2\n");
    fake_sys_answer("uci -q get wireless.wifi2.key", "psk-secret\n");
    fake_sys_answer("uci -q get wireless.wifi1.ssid", "Home-5G\n");
    fake_sys_answer("uci -q get wireless.wifi1.encryption", "ccmp\n");
    fake_sys_answer("uci -q get wireless.wifi1.key", "psk-secret-5\n");
    fake_sys_answer("uci -q get wireless.bh_ap.ssid", "KvMesh_0a1b2c3d\n");
    fake_sys_answer("uci -q get wireless.bh_ap.key", "00112233445566ff\n");
    fake_sys_answer("uci -q get misc.wireless.if_2G", "wifi2\n");
    fake_sys_answer("uci -q get misc.wireless.if_5G", "wifi1\n");
    fake_sys_answer("uci -q get wireless.wifi2.macaddr", "28:6c:07:11:22:33\n");
    fake_sys_answer("uci -q get wireless.wifi1.macaddr", "28:6c:07:11:22:34\n");
    fake_sys_answer("mesh_tool initbuf 2>/dev/null", "{\"mesh\":{\"id\":\"0a1b\"}}");
}

void fuzz_setup_platform(void)
{
    log_mode = LOG_MODE_STDERR;
    fake_sys_install();
    fuzz_answer_router();
}
