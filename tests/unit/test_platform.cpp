// Wi-Fi configuration collection and mesh role initialisation, seen through
// the command lines they hand the platform (the whole pairing covers the
// common case; these are the variants).
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "fake_sys.h"
#include "platform/meshinit.h"
#include "platform/wificonf.h"

extern "C" int usleep(useconds_t) { return 0; }   // fake_sys answers at once

TEST(Platform, CollectionVariants)
{
    // Only the first four characters of the encryption pick sae_password; bsd is on for any first character but "0".
    const struct { const char *enc, *key, *bsd_answer; int bsd; } cases[] = {
        {"ccmp", "sae-secret", "0\n", 0}, {"ccmp256", "sae-secret", "", 0}, {"psk2+ccmp", "psk-secret", "\n", 0},
        {"none", "psk-secret", "2\n", 1}, {"psk2", "psk-secret", "01\n", 0}};
    fake_sys_install(), fake_sys_router();
    WiFiConfig cfg, again;
    for (const auto &c : cases) {
        fake_sys_answer("uci -q get wireless.wifi2.encryption", std::string(c.enc) + "\n");
        fake_sys_answer("uci -q get wireless.wifi1.bsd", c.bsd_answer);
        ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg)) << c.enc;
        EXPECT_EQ(std::string(c.key) + c.enc + std::to_string(c.bsd), std::string(cfg.key_2g) + cfg.enc_2g + std::to_string(cfg.bsd));
    }
    // The backhaul band picks the AP; 16 characters do not fit a 16-byte band: 5g.
    char band[16];
    fake_sys_answer("mesh_tool backhaul get band", "2g");
    fake_sys_answer("uci -q get misc.backhauls.backhaul_2g_ap_iface", "wl5\n");
    EXPECT_TRUE(tolva_get_bh_band(band, sizeof(band)) == band && !strcmp(band, "2g") && tolvaGetWiFiConfig(&cfg) == 0);
    EXPECT_TRUE(fake_sys_ran("uci -q get misc.backhauls.backhaul_2g_ap_iface"));
    for (const char *b : {"abcdefghijklmnop", ""}) {
        fake_sys_answer("mesh_tool backhaul get band", b);
        EXPECT_EQ(nullptr, tolva_get_bh_band(band, sizeof(band))) << b;
    }
    // The band set goes with the band the tool printed; DFS support is a number.
    const char *const tool[][4] = {{"5g", "0\n", "2\n", "0"}, {"5g", "1\n", "0\n", "-1"}, {"", "0\n", "", "-1"},
                                   {"5g", "", "", "-1"}};
    for (const auto &t : tool) {
        fake_sys_answer("mesh_tool backhaul get band 2g", t[0]);
        fake_sys_answer("mesh_tool backhaul set band 5g;echo $?", t[1]);
        fake_sys_answer("uci -q get misc.mesh.support_dfs", t[2]);
        EXPECT_EQ(atoi(t[3]), tolva_set_bh_band("2g")) << t[0] << t[1];
        EXPECT_EQ(t[2][0] > '0', tolva_mesh_support_dfs()) << t[2];
    }
    int32_t freqs[4];
    EXPECT_TRUE(tolva_set_bh_band(nullptr) == -1 && tolva_get_freq_list(1, "lo", freqs) == -1);   // no wireless here
    // No backhaul section yet: a new random network each time.
    fake_sys_answer("uci show wireless | grep -w \"ifname='wl5'\" | cut -d '.' -f1-2", "");
    ASSERT_TRUE(tolvaGetWiFiConfig(&cfg) == 0 && tolvaGetWiFiConfig(&again) == 0);
    char both[160];
    snprintf(both, sizeof(both), "%s%s", cfg.bh_ssid, cfg.bh_key);
    EXPECT_TRUE(strncmp(both, "KvMesh_", 7) == 0 && strlen(both) == 31 &&
                strspn(both + 7, "0123456789abcdef") == 24) << both;
    EXPECT_TRUE(strcmp(cfg.bh_ssid, again.bh_ssid) && strcmp(cfg.bh_key, again.bh_key));
    fake_sys_answer("uci show wireless | grep -w \"ifname='wl0'\" | cut -d '.' -f1-2", FAKE_SYS_FAIL);
    EXPECT_EQ(-1, tolvaGetWiFiConfig(&cfg));   // a query that cannot run
}

TEST(Platform, CommandLineVariantsAndScriptStatus)
{
    fake_sys_install();
    WiFiConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    strcpy(cfg.ssid_2g, "Home-2G"), strcpy(cfg.key_2g, "secret123"), strcpy(cfg.enc_2g, "none");
    strcpy(cfg.bh_ssid, "KvMesh_ab12cd34"), strcpy(cfg.bh_key, "k3y"), strcpy(cfg.bh_enc, "psk2");
    cfg.bsd = 1;
    strcpy(cfg.locale, "US");
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));   // band steering: one network; the locale first, base64, unquoted
    cfg.bsd = 0, cfg.locale[0] = 0;
    strcpy(cfg.enc_2g, "nonexx"), strcpy(cfg.enc_5g, "psk2");   // not a prefix of "none"; an empty key stays ''
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    cfg.bsd = 1;
    ASSERT_EQ(0, tolvaInitCap(&cfg, "AA:BB:CC:DD:EE:01", "28:11:22:33:44:55", "2a:11:22:33:44:66", 1));
    cfg.bsd = 0;   // first octet o + 4n wraps past 0xff and keeps its low two bits, bit 1 set
    ASSERT_EQ(0, tolvaInitCap(&cfg, "AA:BB:CC:DD:EE:01", "fd:6c:07:20:00:02", "fe:6c:07:20:00:03", 1));
    EXPECT_EQ(-1, tolvaInitCap(&cfg, "AA:BB;reboot", "28:11:22:33:44:55", "2a:11:22:33:44:66", 1));
    for (const char *mac : {"AA:BB:CC:DD:EE:0", "AA:BB:CC:DD:EE:01:", "AA-BB-CC-DD-EE-01", "AA:BB:CC:DD:EE:0G", (const char *)0})
        EXPECT_EQ(-1, tolva_check_mac_str(mac)) << (mac ? mac : "null");
    EXPECT_EQ(0, tolva_check_mac_str("28:6C:07:aB:cd:EF"));
    EXPECT_EQ(-1, tolvaCleanCap("AA:BB:CC:DD:EE:01`id`"));
    ASSERT_EQ(0, tolvaCleanCap("AA:BB:CC:DD:EE:01"));
    EXPECT_EQ(std::vector<std::string>({
                  "/usr/bin/lua /usr/sbin/mesh_info.lua locale VVM=",
                  "/usr/sbin/mesh_setup.sh re_init_bsd 'SG9tZS0yRw==' 'null' 'none' 'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 'psk2' 1",
                  "/usr/sbin/mesh_setup.sh re_init 'SG9tZS0yRw==' 'c2VjcmV0MTIz' 'nonexx' '' '' 'psk2' 'S3ZNZXNoX2FiMTJjZDM0' "
                  "'azN5' 'psk2' 1",
                  "/usr/sbin/mesh_setup.sh cap_init_bsd 'AA:BB:CC:DD:EE:01' '32:11:22:33:44:55' '32:11:22:33:44:66' "
                  "'2E:11:22:33:44:55' '2E:11:22:33:44:66' 'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 1",
                  "/usr/sbin/mesh_setup.sh cap_init 'AA:BB:CC:DD:EE:01' '07:6C:07:20:00:02' '06:6C:07:20:00:03' "
                  "'03:6C:07:20:00:02' '02:6C:07:20:00:03' 'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 1",
                  "/usr/sbin/mesh_setup.sh cap_clean 'wl9' 'AA:BB:CC:DD:EE:01'"}),
              fake_sys_system_cmds());
    // Exit 0 and death by a signal count as done, exit 1 or 3 as 1, no shell as -1.
    const int st[][2] = {{0, 0}, {1 << 8, 1}, {3 << 8, 1}, {9, 0}, {-1, -1}};
    for (const auto &s : st) {
        fake_sys_system_status(s[0]);
        EXPECT_EQ(s[1], tolvaInitRe(&cfg, "", 1)) << "status " << s[0];
    }
}
