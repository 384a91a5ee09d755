// Environment checks, the pairing light and the address helpers, driven by
// canned command outputs.
#include <gtest/gtest.h>

#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fake_sys.h"
#include "platform/env.h"
#include "util/addr.h"
#include "util/log.h"
#include "util/shell.h"

TEST(Env, ChecksAreStepwisePrefixAndSubstringTests)
{
    log_level = 0;
    fake_sys_install();
    fake_sys_answer("cat /proc/veltrasso/ft_mode", "0\n");
    fake_sys_answer("boardkv get SN", "SN12345\n");
    fake_sys_answer("macinfo wan 2>/dev/null", "0123456789abcdefghijk\n");
    EXPECT_EQ(tolva_check_env(), 0);
    EXPECT_EQ(std::string(g_macaddr, sizeof(g_macaddr)), "0123456789abcdefghi");   // no terminator
    fake_sys_answer("macinfo wan 2>/dev/null", "");
    EXPECT_EQ(tolva_check_env(), -1);
    fake_sys_answer("cat /proc/veltrasso/ft_mode", "1\n");
    EXPECT_EQ(tolva_check_env(), -1);
    EXPECT_EQ(fake_sys_log().back(), "popen: cat /proc/veltrasso/ft_mode");   // stops at step 1

    fake_sys_answer("uci -q get veltrasso.common.INITTED", "YESTERDAY\n");
    EXPECT_EQ(is_initted(), 0);
    fake_sys_answer("uci -q get veltrasso.common.INITTED", "yes\n");
    EXPECT_EQ(is_initted(), -1);
    fake_sys_answer("/sbin/linkprobe link", "wan down\nplan: up\n");
    EXPECT_EQ(check_cable_pluged(1), -1);
    EXPECT_EQ(check_cable_pluged(0), 0);   // "lan" and "up" inside "plan: up"

    g_mesh_light = 0;
    for (int state : {0, 1, 0, 2, 5})
        switch_conning_light(state);
    EXPECT_EQ(fake_sys_system_cmds(), (std::vector<std::string>{"vsled meshing ", "vsled mesh_finish ",
                                                                 "vsled mesh_join ", "vsled mesh_finish "}));
    char name[16];
    fake_sys_answer("uci -q get network.wan.ifname", "br-wan\n");
    EXPECT_EQ(get_wan_ifname(name), 0);
    EXPECT_STREQ(name, "br");   // cut at the first non-alphanumeric
    fake_sys_uninstall();
    log_level = 7;
}

TEST(Env, GatewayFile)
{
    char gw[16], ip[16];
    unlink(GW_IP_FILE);
    EXPECT_EQ(get_gw_ip(gw, ip), -1);
    f_string_write(GW_IP_FILE, "10.0.0.1\n", 9);
    EXPECT_EQ(get_gw_ip(gw, ip), -1);
    EXPECT_STREQ(ip, "");
    const char *two = "  10.0.0.1 \r\n\t10.0.0.7\r\nextra\n";
    f_string_write(GW_IP_FILE, two, (uint32_t)strlen(two));
    EXPECT_EQ(get_gw_ip(gw, ip), 0);
    EXPECT_STREQ(gw, "10.0.0.1");
    EXPECT_STREQ(ip, "10.0.0.7");
    // Over-long lines are cut to 15 characters, never left unterminated.
    const char *lng = "192.168.100.2000\n10.10.10.10.10.10\n";
    f_string_write(GW_IP_FILE, lng, (uint32_t)strlen(lng));
    EXPECT_EQ(get_gw_ip(gw, ip), 0);
    EXPECT_STREQ(gw, "192.168.100.200");
    EXPECT_STREQ(ip, "10.10.10.10.10.");
}
