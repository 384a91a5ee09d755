// Environment checks, the pairing light and the address queries, driven by
// canned command outputs.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <string>
#include <vector>

#include "core/env.h"
#include "fake_sys.h"
#include "util/addr.h"
#include "util/log.h"
#include "util/shell.h"

class Env : public ::testing::Test {
protected:
    void SetUp() override
    {
        log_level = 0;
        fake_sys_install();
        fake_sys_answer("cat /proc/veltrasso/ft_mode", "0\n");
        fake_sys_answer("boardkv get SN", "SN12345\n");
        fake_sys_answer("macinfo wan 2>/dev/null", " AA:BB:CC:DD:EE:01\n");
    }
    void TearDown() override
    {
        fake_sys_uninstall();
        log_level = 7;
    }
};

static void write_gw(const char *text)
{
    f_string_write(GW_IP_FILE, text, (uint32_t)strlen(text));
}

TEST_F(Env, CheckEnv)
{
    memset(g_macaddr, '#', sizeof(g_macaddr));
    EXPECT_EQ(tolva_check_env(), 0);
    EXPECT_STREQ(g_macaddr, "AA:BB:CC:DD:EE:01");

    fake_sys_answer("macinfo wan 2>/dev/null", "0123456789abcdefghijk\n");
    EXPECT_EQ(tolva_check_env(), 0);
    EXPECT_EQ(std::string(g_macaddr, sizeof(g_macaddr)), "0123456789abcdefghi");   // no terminator
    fake_sys_answer("macinfo wan 2>/dev/null", "");
    EXPECT_EQ(tolva_check_env(), -1);
    fake_sys_answer("boardkv get SN", "SN1");
    EXPECT_EQ(tolva_check_env(), -1);
    fake_sys_answer("cat /proc/veltrasso/ft_mode", "1\n");
    EXPECT_EQ(tolva_check_env(), -1);
    EXPECT_EQ(fake_sys_log().back(), "popen: cat /proc/veltrasso/ft_mode");   // stops at step 1
}

TEST_F(Env, BootInittedAndCable)
{
    EXPECT_EQ(check_boot_ready(), -1);   // no flag file: empty output
    fake_sys_answer("cat /tmp/boot_check_done 2>/dev/null", "1\n");
    EXPECT_EQ(check_boot_ready(), 0);
    fake_sys_answer("cat /tmp/boot_check_done 2>/dev/null", "0\n");
    EXPECT_EQ(check_boot_ready(), -1);

    const char *key = "uci -q get veltrasso.common.INITTED";
    EXPECT_EQ(is_initted(), -1);
    for (const char *v : {"YES\n", "YESTERDAY\n"}) {
        fake_sys_answer(key, v);
        EXPECT_EQ(is_initted(), 0) << v;
    }
    fake_sys_answer(key, "yes\n");
    EXPECT_EQ(is_initted(), -1);

    fake_sys_answer("/sbin/linkprobe link", "lan down\nwan up\n");
    EXPECT_EQ(check_cable_pluged(1), 0);
    EXPECT_EQ(check_cable_pluged(0), -1);
    fake_sys_answer("/sbin/linkprobe link", "wan down\nplan: up\n");   // substring match
    EXPECT_EQ(check_cable_pluged(1), -1);
    EXPECT_EQ(check_cable_pluged(2), 0);
    EXPECT_EQ(is_intf_link_up("lan"), 1);
}

TEST_F(Env, LightAndWanName)
{
    g_mesh_light = 0;
    switch_conning_light(0);
    switch_conning_light(1);
    switch_conning_light(0);
    switch_conning_light(2);
    switch_conning_light(5);
    EXPECT_EQ(fake_sys_system_cmds(), (std::vector<std::string>{"vsled meshing ", "vsled mesh_finish ",
                                                                 "vsled mesh_join ",
                                                                 "vsled mesh_finish "}));
    EXPECT_EQ(g_mesh_light, 5);

    char name[16];
    EXPECT_EQ(get_wan_ifname(name), -1);
    const struct { const char *out, *want; } cases[] = {{"eth0.2\n", "eth0"}, {"br-wan\n", "br"}};
    for (const auto &c : cases) {
        fake_sys_answer("uci -q get network.wan.ifname", c.out);
        memset(name, '#', sizeof(name));
        EXPECT_EQ(get_wan_ifname(name), 0);
        EXPECT_STREQ(name, c.want);
    }
}

TEST_F(Env, GatewayFile)
{
    char gw[16], ip[16];
    unlink(GW_IP_FILE);
    EXPECT_EQ(get_gw_ip(gw, ip), -1);
    write_gw("10.0.0.1\n");
    EXPECT_EQ(get_gw_ip(gw, ip), -1);
    EXPECT_STREQ(gw, "");
    EXPECT_STREQ(ip, "");
    write_gw("  10.0.0.1 \r\n\t10.0.0.7\r\nextra\n");
    EXPECT_EQ(get_gw_ip(gw, ip), 0);
    EXPECT_STREQ(gw, "10.0.0.1");
    EXPECT_STREQ(ip, "10.0.0.7");
}

TEST_F(Env, WifiMac)
{
    fake_sys_answer("uci -q get misc.wireless.if_5G", "wl1\n");
    fake_sys_answer("uci -q get wireless.wl1.macaddr", "aa:bb:cc:dd:ee:05\n");
    char out[19] = {0};
    EXPECT_EQ(getWifiMac(out, 1), 0);
    EXPECT_STREQ(out, "aa:bb:cc:dd:ee:05");

    fake_sys_answer("uci -q get wireless.wl1.macaddr", "");
    memset(out, 0, sizeof(out));
    EXPECT_EQ(getWifiMac(out, 1), 0);
    EXPECT_STREQ(out, "");
    fake_sys_answer("uci -q get wireless.wl1.macaddr", "aa:bb:cc:dd:ee:05:99\n");   // cut line
    EXPECT_EQ(getWifiMac(out, 1), 0);
    EXPECT_STREQ(out, "");

    EXPECT_EQ(getWifiMac(out, 0), 0);   // no 2.4 GHz name configured
    EXPECT_TRUE(fake_sys_ran("uci -q get wireless..macaddr"));
    size_t ran = fake_sys_log().size();
    EXPECT_EQ(getWifiMac(out, 3), -1);
    EXPECT_EQ(getWifiMac(out, -1), -1);
    EXPECT_EQ(fake_sys_log().size(), ran);
}
