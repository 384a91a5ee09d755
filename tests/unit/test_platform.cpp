// Wi-Fi configuration collection and mesh role initialisation, seen through
// the command lines they run (the platform scripts' interface).
#include <gtest/gtest.h>

#include <string.h>

#include <regex>
#include <string>
#include <vector>

#include "fake_sys.h"
#include "platform/meshinit.h"
#include "platform/wificonf.h"

// The command readers wait for slow output; fake_sys answers at once.
extern "C" int usleep(useconds_t) { return 0; }

namespace {

WiFiConfig re_record()
{
    WiFiConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    cfg.type = 4;
    strcpy(cfg.ssid_2g, "Home-2G"), strcpy(cfg.key_2g, "secret123"), strcpy(cfg.enc_2g, "psk2");
    strcpy(cfg.ssid_5g, "Home-5G"), strcpy(cfg.key_5g, "secret555"), strcpy(cfg.enc_5g, "psk2+ccmp");
    strcpy(cfg.bh_ssid, "KvMesh_0a1b2c3d"), strcpy(cfg.bh_key, "00112233445566ff"), strcpy(cfg.bh_enc, "psk2");
    return cfg;
}

class Platform : public ::testing::Test {
protected:
    void SetUp() override { fake_sys_install(), fake_sys_router(); }
    void TearDown() override { fake_sys_uninstall(); }
};

TEST_F(Platform, PassPhraseSourceAndBandSteering)
{
    // Only the first four characters of the encryption pick sae_password; bsd is on for any first character but "0".
    const struct { const char *enc, *key, *bsd_answer; int bsd; } cases[] = {
        {"ccmp", "sae-secret", "0\n", 0}, {"ccmp256", "sae-secret", "", 0}, {"psk2+ccmp", "psk-secret", "\n", 0},
        {"none", "psk-secret", "2\n", 1}, {"psk2", "psk-secret", "01\n", 0}};
    for (const auto &c : cases) {
        fake_sys_answer("uci -q get wireless.wifi2.encryption", std::string(c.enc) + "\n");
        fake_sys_answer("uci -q get wireless.wifi1.bsd", c.bsd_answer);
        WiFiConfig cfg;
        ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg)) << c.enc;
        EXPECT_STREQ(c.key, cfg.key_2g) << c.enc;
        EXPECT_STREQ(c.enc, cfg.enc_2g);
        EXPECT_EQ(c.bsd, cfg.bsd) << "bsd answer [" << c.bsd_answer << "]";
        EXPECT_EQ(4, cfg.type);
        EXPECT_STREQ("psk2", cfg.bh_enc);
        EXPECT_STREQ("sae-secret-5", cfg.key_5g);   // wifi1 is ccmp
    }
    EXPECT_FALSE(fake_sys_ran("uci -q get wireless.bh_ap.sae_password"));
}

TEST_F(Platform, BackhaulBandAndRandomBackhaul)
{
    // 16 characters do not fit a 16-byte band: collection falls back to 5g.
    fake_sys_answer("mesh_tool backhaul get band", "abcdefghijklmnop");
    char band[16];
    WiFiConfig cfg, again;
    EXPECT_EQ(nullptr, tolva_get_bh_band(band, sizeof(band)));
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
    EXPECT_TRUE(fake_sys_ran("uci -q get misc.backhauls.backhaul_5g_ap_iface"));
    fake_sys_answer("mesh_tool backhaul get band", "2g");
    fake_sys_answer("uci -q get misc.backhauls.backhaul_2g_ap_iface", "wl5\n");
    EXPECT_EQ(band, tolva_get_bh_band(band, sizeof(band)));
    EXPECT_STREQ("2g", band);
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
    EXPECT_TRUE(fake_sys_ran("uci -q get misc.backhauls.backhaul_2g_ap_iface"));
    EXPECT_STREQ("KvMesh_0a1b2c3d", cfg.bh_ssid);
    // No backhaul section yet: a new random network each time.
    fake_sys_answer("uci show wireless | grep -w \"ifname='wl5'\" | cut -d '.' -f1-2", "");
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
    ASSERT_EQ(0, tolvaGetWiFiConfig(&again));
    EXPECT_TRUE(std::regex_match(cfg.bh_ssid, std::regex("KvMesh_[0-9a-f]{8}"))) << cfg.bh_ssid;
    EXPECT_TRUE(std::regex_match(cfg.bh_key, std::regex("[0-9a-f]{16}"))) << cfg.bh_key;
    EXPECT_STRNE(cfg.bh_ssid, again.bh_ssid);
    EXPECT_STRNE(cfg.bh_key, again.bh_key);
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
    cfg.bsd = 0;   // first octet o + 4n wraps past 0xff and keeps its low two bits, bit 1 set
    ASSERT_EQ(0, tolvaInitCap(&cfg, "AA:BB:CC:DD:EE:01", "fd:6c:07:20:00:02", "fe:6c:07:20:00:03", 1));
    EXPECT_EQ(-1, tolvaInitCap(&cfg, "AA:BB;reboot", "28:11:22:33:44:55", "2a:11:22:33:44:66", 1));   // no script
    ASSERT_EQ(0, tolvaCleanCap("AA:BB:CC:DD:EE:01"));
    EXPECT_EQ(-1, tolvaCleanCap("AA:BB:CC:DD:EE:01`id`"));
    std::vector<std::string> cmds = fake_sys_system_cmds();
    ASSERT_EQ(3u, cmds.size());
    EXPECT_STRCASEEQ("/usr/sbin/mesh_setup.sh cap_init_bsd 'AA:BB:CC:DD:EE:01' '32:11:22:33:44:55' "
                     "'32:11:22:33:44:66' '2E:11:22:33:44:55' '2E:11:22:33:44:66' 'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 1",
                     cmds[0].c_str());
    EXPECT_STRCASEEQ("/usr/sbin/mesh_setup.sh cap_init 'AA:BB:CC:DD:EE:01' '07:6C:07:20:00:02' '06:6C:07:20:00:03' "
                     "'03:6C:07:20:00:02' '02:6C:07:20:00:03' 'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 1", cmds[1].c_str());
    EXPECT_EQ("/usr/sbin/mesh_setup.sh cap_clean 'wl9' 'AA:BB:CC:DD:EE:01'", cmds[2]);
}

TEST_F(Platform, ReCommandLinesKeyArgumentAndScriptStatus)
{
    WiFiConfig cfg = re_record();
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    cfg.bsd = 1;
    strcpy(cfg.locale, "US");
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    std::vector<std::string> cmds = fake_sys_system_cmds();
    ASSERT_EQ(3u, cmds.size());
    EXPECT_EQ("/usr/sbin/mesh_setup.sh re_init 'SG9tZS0yRw==' 'c2VjcmV0MTIz' 'psk2' 'SG9tZS01Rw==' 'c2VjcmV0NTU1' "
              "'psk2+ccmp' 'S3ZNZXNoXzBhMWIyYzNk' 'MDAxMTIyMzM0NDU1NjZmZg==' 'psk2' 1", cmds[0]);
    EXPECT_EQ("/usr/bin/lua /usr/sbin/mesh_info.lua locale VVM=", cmds[1]);   // base64 and unquoted, first
    // Band steering: one network for both bands, the 5 GHz fields stay out.
    EXPECT_EQ("/usr/sbin/mesh_setup.sh re_init_bsd 'SG9tZS0yRw==' 'c2VjcmV0MTIz' 'psk2' 'S3ZNZXNoXzBhMWIyYzNk' "
              "'MDAxMTIyMzM0NDU1NjZmZg==' 'psk2' 1", cmds[2]);
    // 'null' when the encryption is a prefix of "none"; an empty key stays ''.
    const struct { const char *enc, *key, *arg; } cases[] = {
        {"none", "secret123", "'null'"}, {"no", "secret123", "'null'"}, {"", "secret123", "'null'"},
        {"nonexx", "secret123", "'c2VjcmV0MTIz'"}, {"psk2", "", "''"}};
    for (const auto &c : cases) {
        fake_sys_install();
        cfg = re_record();
        strcpy(cfg.enc_2g, c.enc);
        strcpy(cfg.key_2g, c.key);
        ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1)) << c.enc;
        ASSERT_EQ(1u, fake_sys_system_cmds().size());
        std::string want = "re_init 'SG9tZS0yRw==' " + std::string(c.arg) + " '" + c.enc + "' ";
        EXPECT_NE(std::string::npos, fake_sys_system_cmds()[0].find(want)) << fake_sys_system_cmds()[0];
    }
    // Exit 0 and death by a signal count as done, exit 3 as 1, no shell as -1.
    const struct { int status, result; } st[] = {{0, 0}, {3 << 8, 1}, {9, 0}, {-1, -1}};
    cfg = re_record();
    for (const auto &c : st) {
        fake_sys_system_status(c.status);
        EXPECT_EQ(c.result, tolvaInitRe(&cfg, "", 1)) << "status " << c.status;
    }
}

}  // namespace
