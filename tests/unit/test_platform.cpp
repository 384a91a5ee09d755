// Wi-Fi configuration collection and mesh role initialisation, seen through
// the command lines they run.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "fake_sys.h"
#include "platform/meshinit.h"
#include "platform/wificonf.h"

namespace {

std::string section_cmd(const std::string &ifname)
{
    return "uci show wireless | grep -w \"ifname='" + ifname + "'\" | cut -d '.' -f1-2";
}

// A router with 2.4 GHz on wl1 (wifi2), 5 GHz on wl0 (wifi1), backhaul AP on wl5.
void answer_router(const std::string &enc_2g = "psk2", const std::string &bsd = "1\n")
{
    const char *const answers[][2] = {
        {"uci -q get misc.wireless.ifname_2G", "wl1\n"}, {"mesh_tool backhaul get band", "5g"},
        {"uci -q get misc.wireless.ifname_5G", "wl0\n"},
        {"uci -q get misc.backhauls.backhaul_5g_ap_iface", "wl5\n"},
        {"uci -q get wireless.wifi2.ssid", "Home-2G\n"}, {"uci -q get wireless.wifi2.key", "psk-secret\n"},
        {"uci -q get wireless.wifi2.sae_password", "sae-secret\n"},
        {"uci -q get wireless.wifi1.ssid", "Home-5G\n"}, {"uci -q get wireless.wifi1.encryption", "ccmp\n"},
        {"uci -q get wireless.wifi1.key", "psk-secret-5\n"},
        {"uci -q get wireless.wifi1.sae_password", "sae-secret-5\n"},
        {"uci -q get wireless.bh_ap.ssid", "KvMesh_0a1b2c3d\n"},
        {"uci -q get wireless.bh_ap.key", "00112233445566ff\n"}};
    for (const auto &a : answers)
        fake_sys_answer(a[0], a[1]);
    fake_sys_answer(section_cmd("wl1"), "wireless.wifi2\n");
    fake_sys_answer(section_cmd("wl0"), "wireless.wifi1\n");
    fake_sys_answer(section_cmd("wl5"), "wireless.bh_ap\n");
    fake_sys_answer("uci -q get wireless.wifi1.bsd", bsd);
    fake_sys_answer("uci -q get wireless.wifi2.encryption", enc_2g + "\n");
}

WiFiConfig re_record()
{
    WiFiConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    cfg.type = 4;
    strcpy(cfg.ssid_2g, "Home-2G"), strcpy(cfg.key_2g, "secret123"), strcpy(cfg.enc_2g, "psk2");
    strcpy(cfg.ssid_5g, "Home-5G"), strcpy(cfg.key_5g, "secret555"), strcpy(cfg.enc_5g, "psk2+ccmp");
    strcpy(cfg.bh_ssid, "KvMesh_0a1b2c3d"), strcpy(cfg.bh_key, "00112233445566ff");
    strcpy(cfg.bh_enc, "psk2");
    return cfg;
}

class Platform : public ::testing::Test {
protected:
    void SetUp() override { fake_sys_install(); }
    void TearDown() override { fake_sys_uninstall(); }
};

TEST_F(Platform, PassPhraseSourceAndBandSteering)
{
    // Only the first four characters of the encryption pick sae_password;
    // bsd is on for any first character but "0".
    const struct { const char *enc, *key, *bsd_answer; int bsd; } cases[] = {
        {"ccmp", "sae-secret", "0\n", 0},     {"ccmp256", "sae-secret", "", 0},
        {"psk2+ccmp", "psk-secret", "\n", 0}, {"none", "psk-secret", "2\n", 1},
        {"psk2", "psk-secret", "01\n", 0}};
    for (const auto &c : cases) {
        fake_sys_install();
        answer_router(c.enc, c.bsd_answer);
        WiFiConfig cfg;
        ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg)) << c.enc;
        EXPECT_STREQ(c.key, cfg.key_2g) << c.enc;
        EXPECT_EQ(c.bsd, cfg.bsd) << "bsd answer [" << c.bsd_answer << "]";
        EXPECT_FALSE(fake_sys_ran("uci -q get wireless.bh_ap.sae_password"));
    }
}

TEST_F(Platform, BackhaulBand)
{
    // 16 characters do not fit a 16-byte band: collection falls back to 5g.
    answer_router();
    fake_sys_answer("mesh_tool backhaul get band", "abcdefghijklmnop");
    char band[16];
    EXPECT_EQ(nullptr, tolva_get_bh_band(band, sizeof(band)));
    WiFiConfig cfg;
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
    EXPECT_TRUE(fake_sys_ran("uci -q get misc.backhauls.backhaul_5g_ap_iface"));
    fake_sys_answer("mesh_tool backhaul get band", "2g");
    fake_sys_answer("uci -q get misc.backhauls.backhaul_2g_ap_iface", "wl5\n");
    EXPECT_EQ(band, tolva_get_bh_band(band, sizeof(band)));
    EXPECT_STREQ("2g", band);
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
    EXPECT_TRUE(fake_sys_ran("uci -q get misc.backhauls.backhaul_2g_ap_iface"));
}

TEST_F(Platform, CapCommandLinesAndRefusals)
{
    const struct { const char *mac; int rc; } checks[] = {
        {"28:6C:07:aB:cd:EF", 0}, {"28:6C:07:AB:CD:E", -1}, {"28:6C:07:AB:CD:EF:", -1},
        {"28-6C-07-AB-CD-EF", -1}, {"28:6C:07:AB:CD:EG", -1}, {nullptr, -1}};
    for (const auto &c : checks)
        EXPECT_EQ(c.rc, tolva_check_mac_str(c.mac)) << (c.mac ? c.mac : "null");
    WiFiConfig cfg = re_record();
    strcpy(cfg.bh_ssid, "KvMesh_ab12cd34");
    strcpy(cfg.bh_key, "k3y");
    cfg.bsd = 1;
    ASSERT_EQ(0, tolvaInitCap(&cfg, "AA:BB:CC:DD:EE:01", "28:11:22:33:44:55", "2a:11:22:33:44:66", 1));
    // A refused MAC stops the call before any script runs.
    EXPECT_EQ(-1, tolvaInitCap(&cfg, "AA:BB;reboot", "28:11:22:33:44:55", "2a:11:22:33:44:66", 1));
    ASSERT_EQ(0, tolvaCleanCap("AA:BB:CC:DD:EE:01"));
    EXPECT_EQ(-1, tolvaCleanCap("AA:BB:CC:DD:EE:01`id`"));
    std::vector<std::string> cmds = fake_sys_system_cmds();
    ASSERT_EQ(2u, cmds.size());
    // MACs derived from the RE's radios (first octet + 4n, bit 1 set), backhaul in base64.
    EXPECT_STRCASEEQ("/usr/sbin/mesh_setup.sh cap_init_bsd 'AA:BB:CC:DD:EE:01' '32:11:22:33:44:55' "
                     "'32:11:22:33:44:66' '2E:11:22:33:44:55' '2E:11:22:33:44:66' "
                     "'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 1", cmds[0].c_str());
    EXPECT_EQ("/usr/sbin/mesh_setup.sh cap_clean 'wl9' 'AA:BB:CC:DD:EE:01'", cmds[1]);
}

TEST_F(Platform, ReCommandLines)
{
    WiFiConfig cfg = re_record();
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    cfg.bsd = 1;
    strcpy(cfg.locale, "US");
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    std::vector<std::string> cmds = fake_sys_system_cmds();
    ASSERT_EQ(3u, cmds.size());
    EXPECT_EQ("/usr/sbin/mesh_setup.sh re_init 'SG9tZS0yRw==' 'c2VjcmV0MTIz' 'psk2' "
              "'SG9tZS01Rw==' 'c2VjcmV0NTU1' 'psk2+ccmp' 'S3ZNZXNoXzBhMWIyYzNk' "
              "'MDAxMTIyMzM0NDU1NjZmZg==' 'psk2' 1", cmds[0]);
    // A locale goes to the platform first, base64 and unquoted.
    EXPECT_EQ("/usr/bin/lua /usr/sbin/mesh_info.lua locale VVM=", cmds[1]);
    // Band steering: one network for both bands, the 5 GHz fields stay out.
    EXPECT_EQ("/usr/sbin/mesh_setup.sh re_init_bsd 'SG9tZS0yRw==' 'c2VjcmV0MTIz' 'psk2' "
              "'S3ZNZXNoXzBhMWIyYzNk' 'MDAxMTIyMzM0NDU1NjZmZg==' 'psk2' 1", cmds[2]);
}

TEST_F(Platform, ReKeyArgumentAndScriptStatus)
{
    // 'null' when the encryption is a prefix of "none"; an empty key stays ''.
    const struct { const char *enc, *key, *arg; } cases[] = {
        {"none", "secret123", "'null'"}, {"no", "secret123", "'null'"}, {"", "secret123", "'null'"},
        {"nonexx", "secret123", "'c2VjcmV0MTIz'"}, {"psk2", "", "''"}};
    for (const auto &c : cases) {
        fake_sys_install();
        WiFiConfig cfg = re_record();
        strcpy(cfg.enc_2g, c.enc);
        strcpy(cfg.key_2g, c.key);
        ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1)) << c.enc;
        std::string want = "re_init 'SG9tZS0yRw==' " + std::string(c.arg) + " '" + c.enc + "' ";
        ASSERT_EQ(1u, fake_sys_system_cmds().size());
        EXPECT_NE(std::string::npos, fake_sys_system_cmds()[0].find(want)) << fake_sys_system_cmds()[0];
    }
    // Exit 0 and death by a signal count as done, exit 3 as 1, no shell as -1.
    const struct { int status, result; } st[] = {{0, 0}, {3 << 8, 1}, {9, 0}, {-1, -1}};
    WiFiConfig cfg = re_record();
    for (const auto &c : st) {
        fake_sys_system_status(c.status);
        EXPECT_EQ(c.result, tolvaInitRe(&cfg, "", 1)) << "status " << c.status;
    }
}

}  // namespace
