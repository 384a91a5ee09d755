// Wi-Fi configuration collection and mesh role initialisation, seen through
// the command lines they run.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fake_sys.h"
#include "platform/meshinit.h"
#include "platform/wificonf.h"

namespace {

const char *kSec = "uci show wireless | grep -w \"ifname='%s'\" | cut -d '.' -f1-2";

std::string section_cmd(const std::string &ifname)
{
    char buf[160];
    snprintf(buf, sizeof(buf), kSec, ifname.c_str());
    return buf;
}

// A router with 2.4 GHz on wl1, 5 GHz on wl0 and the backhaul AP on wl5.
void answer_router(const std::string &enc_2g = "psk2", const std::string &bsd = "1\n",
                   const std::string &bh_section = "wireless.bh_ap\n")
{
    fake_sys_answer("uci -q get misc.wireless.ifname_2G", "wl1\n");
    fake_sys_answer("mesh_tool backhaul get band", "5g");
    fake_sys_answer("uci -q get misc.wireless.ifname_5G", "wl0\n");
    fake_sys_answer("uci -q get misc.backhauls.backhaul_5g_ap_iface", "wl5\n");
    fake_sys_answer(section_cmd("wl1"), "wireless.wifi2\n");
    fake_sys_answer(section_cmd("wl0"), "wireless.wifi1\n");
    fake_sys_answer(section_cmd("wl5"), bh_section);
    fake_sys_answer("uci -q get wireless.wifi1.bsd", bsd);
    fake_sys_answer("uci -q get wireless.wifi2.ssid", "Home-2G\n");
    fake_sys_answer("uci -q get wireless.wifi2.encryption", enc_2g + "\n");
    fake_sys_answer("uci -q get wireless.wifi2.key", "psk-secret\n");
    fake_sys_answer("uci -q get wireless.wifi2.sae_password", "sae-secret\n");
    fake_sys_answer("uci -q get wireless.wifi1.ssid", "Home-5G\n");
    fake_sys_answer("uci -q get wireless.wifi1.encryption", "ccmp\n");
    fake_sys_answer("uci -q get wireless.wifi1.key", "psk-secret-5\n");
    fake_sys_answer("uci -q get wireless.wifi1.sae_password", "sae-secret-5\n");
    fake_sys_answer("uci -q get wireless.bh_ap.ssid", "KvMesh_0a1b2c3d\n");
    fake_sys_answer("uci -q get wireless.bh_ap.key", "00112233445566ff\n");
}

bool is_hex(const std::string &s)
{
    return s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string read_file(const char *path)
{
    std::string out;
    FILE *fp = fopen(path, "r");
    if (!fp)
        return "<missing>";
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0)
        out.append(buf, n);
    fclose(fp);
    return out;
}

bool exists(const char *path)
{
    return access(path, F_OK) == 0;
}

class Platform : public ::testing::Test {
protected:
    void SetUp() override { fake_sys_install(); }
    void TearDown() override { fake_sys_uninstall(); }
};

TEST_F(Platform, CollectsRecordWithQueriesInOrder)
{
    answer_router();
    WiFiConfig cfg;
    memset(&cfg, 0xAA, sizeof(cfg));
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));

    std::vector<std::string> want = {
        "popen: uci -q get misc.wireless.ifname_2G",
        "popen: mesh_tool backhaul get band",
        "popen: uci -q get misc.wireless.ifname_5G",
        "popen: uci -q get misc.backhauls.backhaul_5g_ap_iface",
        "popen: " + section_cmd("wl1"),
        "popen: " + section_cmd("wl0"),
        "popen: uci -q get wireless.wifi1.bsd",
        "popen: uci -q get wireless.wifi2.ssid",
        "popen: uci -q get wireless.wifi2.encryption",
        "popen: uci -q get wireless.wifi2.key",
        "popen: uci -q get wireless.wifi1.ssid",
        "popen: uci -q get wireless.wifi1.encryption",
        "popen: uci -q get wireless.wifi1.sae_password",
        "popen: " + section_cmd("wl5"),
        "popen: uci -q get wireless.bh_ap.ssid",
        "popen: uci -q get wireless.bh_ap.key",
    };
    EXPECT_EQ(want, fake_sys_log());

    // Read back by wire offset, as the RE does; the rest was zeroed first.
    const char *raw = reinterpret_cast<const char *>(&cfg);
    EXPECT_EQ(4, raw[0]);
    EXPECT_EQ(1, raw[1]);
    const std::vector<std::pair<int, std::string>> fields = {
        {2, "Home-2G"},   {35, "psk-secret"},    {100, "psk2"},
        {116, "Home-5G"}, {149, "sae-secret-5"}, {214, "ccmp"},
        {230, "KvMesh_0a1b2c3d"}, {263, "00112233445566ff"}, {328, "psk2"},
        {344, ""},        {664, ""},             {984, ""},
    };
    for (const auto &f : fields)
        EXPECT_EQ(f.second, std::string(raw + f.first)) << "offset " << f.first;
}

TEST_F(Platform, PassPhraseSourceAndBandSteering)
{
    // Only the first four characters of the encryption pick sae_password;
    // bsd is on for any first character but "0".
    struct {
        const char *enc, *key, *bsd_answer;
        int bsd;
    } cases[] = {
        {"ccmp", "sae-secret", "0\n", 0},     {"ccmp256", "sae-secret", "", 0},
        {"psk2+ccmp", "psk-secret", "\n", 0}, {"none", "psk-secret", "2\n", 1},
        {"psk2", "psk-secret", "01\n", 0},
    };
    for (const auto &c : cases) {
        fake_sys_install();
        answer_router(c.enc, c.bsd_answer);
        WiFiConfig cfg;
        ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg)) << c.enc;
        EXPECT_STREQ(c.enc, cfg.enc_2g);
        EXPECT_STREQ(c.key, cfg.key_2g) << c.enc;
        EXPECT_EQ(c.bsd, cfg.bsd) << "bsd answer [" << c.bsd_answer << "]";
        // The backhaul key never switches source.
        EXPECT_FALSE(fake_sys_ran("uci -q get wireless.bh_ap.sae_password"));
    }
}

TEST_F(Platform, MissingBackhaulSectionGivesRandomNetwork)
{
    answer_router("psk2", "1\n", "");
    WiFiConfig a, b;
    ASSERT_EQ(0, tolvaGetWiFiConfig(&a));
    EXPECT_FALSE(fake_sys_ran("uci -q get .ssid"));
    EXPECT_FALSE(fake_sys_ran("uci -q get .key"));
    ASSERT_EQ(0, tolvaGetWiFiConfig(&b));

    for (const WiFiConfig *c : {&a, &b}) {
        std::string ssid = c->bh_ssid, key = c->bh_key;
        ASSERT_EQ(15u, ssid.size()) << ssid;
        EXPECT_EQ(0u, ssid.rfind("KvMesh_", 0));
        EXPECT_TRUE(is_hex(ssid.substr(7))) << ssid;
        EXPECT_EQ(16u, key.size()) << key;
        EXPECT_TRUE(is_hex(key)) << key;
        EXPECT_STREQ("psk2", c->bh_enc);
        EXPECT_EQ(4, c->type);
    }
    EXPECT_STRNE(a.bh_ssid, b.bh_ssid);
    EXPECT_STRNE(a.bh_key, b.bh_key);
}

TEST_F(Platform, BackhaulBandQueries)
{
    // 16 characters do not fit a 16-byte band: collection falls back to 5g.
    answer_router();
    fake_sys_answer("mesh_tool backhaul get band", "abcdefghijklmnop");
    char band[16] = "untouched";
    EXPECT_EQ(nullptr, tolva_get_bh_band(band, sizeof(band)));
    WiFiConfig cfg;
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
    EXPECT_TRUE(fake_sys_ran("uci -q get misc.backhauls.backhaul_5g_ap_iface"));

    fake_sys_install();
    answer_router();
    fake_sys_answer("mesh_tool backhaul get band", "2g");
    fake_sys_answer("uci -q get misc.backhauls.backhaul_2g_ap_iface", "wl5\n");
    EXPECT_EQ(band, tolva_get_bh_band(band, sizeof(band)));
    EXPECT_STREQ("2g", band);
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
    EXPECT_TRUE(fake_sys_ran("uci -q get misc.backhauls.backhaul_2g_ap_iface"));
    EXPECT_STREQ("KvMesh_0a1b2c3d", cfg.bh_ssid);

    // Nothing printed: no band.
    fake_sys_install();
    EXPECT_EQ(nullptr, tolva_get_bh_band(band, sizeof(band)));
    EXPECT_EQ(nullptr, tolva_get_bh_band(band, 0));
}

TEST_F(Platform, MacTextCheck)
{
    EXPECT_EQ(0, tolva_check_mac_str("28:6C:07:aB:cd:EF"));
    EXPECT_EQ(0, tolva_check_mac_str("00:00:00:00:00:00"));
    EXPECT_EQ(-1, tolva_check_mac_str("28:6C:07:AB:CD:E"));
    EXPECT_EQ(-1, tolva_check_mac_str("28:6C:07:AB:CD:EF:"));
    EXPECT_EQ(-1, tolva_check_mac_str("28-6C-07-AB-CD-EF"));
    EXPECT_EQ(-1, tolva_check_mac_str("28:6C:07:AB:CD:EG"));
    EXPECT_EQ(-1, tolva_check_mac_str(nullptr));
}

TEST_F(Platform, DerivedMacAddresses)
{
    char out[18];
    ASSERT_EQ(0, tolva_derive_mac("28:11:22:33:44:5a", 2, out));
    EXPECT_STRCASEEQ("32:11:22:33:44:5A", out);
    ASSERT_EQ(0, tolva_derive_mac("28:11:22:33:44:5a", 1, out));
    EXPECT_STRCASEEQ("2E:11:22:33:44:5A", out);
    // The low two bits ride along; the sum is kept to eight bits.
    ASSERT_EQ(0, tolva_derive_mac("03:00:00:00:00:01", 1, out));
    EXPECT_STRCASEEQ("07:00:00:00:00:01", out);
    ASSERT_EQ(0, tolva_derive_mac("FC:00:00:00:00:01", 1, out));
    EXPECT_STRCASEEQ("02:00:00:00:00:01", out);
    EXPECT_EQ(-1, tolva_derive_mac("not a mac", 1, out));
    EXPECT_STREQ("", out);
}

TEST_F(Platform, CapInitCommandLines)
{
    WiFiConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    strcpy(cfg.bh_ssid, "KvMesh_ab12cd34");
    strcpy(cfg.bh_key, "k3y");
    ASSERT_EQ(0, tolvaInitCap(&cfg, "AA:BB:CC:DD:EE:01", "28:11:22:33:44:55",
                              "2a:11:22:33:44:66", 1));
    cfg.bsd = 1;
    ASSERT_EQ(0, tolvaInitCap(&cfg, "AA:BB:CC:DD:EE:01", "28:11:22:33:44:55",
                              "2a:11:22:33:44:66", 1));
    std::vector<std::string> cmds = fake_sys_system_cmds();
    ASSERT_EQ(2u, cmds.size());
    const std::string args = " 'AA:BB:CC:DD:EE:01' '32:11:22:33:44:55' '32:11:22:33:44:66' "
                             "'2E:11:22:33:44:55' '2E:11:22:33:44:66' 'S3ZNZXNoX2FiMTJjZDM0' "
                             "'azN5' 1";
    EXPECT_STRCASEEQ(("/usr/sbin/mesh_setup.sh cap_init" + args).c_str(), cmds[0].c_str());
    EXPECT_STRCASEEQ(("/usr/sbin/mesh_setup.sh cap_init_bsd" + args).c_str(), cmds[1].c_str());

    // A refused MAC stops the call before any script runs.
    fake_sys_install();
    EXPECT_EQ(-1, tolvaInitCap(&cfg, "AA:BB;reboot", "28:11:22:33:44:55", "2a:11:22:33:44:66",
                               1));
    EXPECT_TRUE(fake_sys_system_cmds().empty());

    ASSERT_EQ(0, tolvaCleanCap("AA:BB:CC:DD:EE:01"));
    EXPECT_EQ(-1, tolvaCleanCap("AA:BB:CC:DD:EE:01`id`"));
    cmds = fake_sys_system_cmds();
    ASSERT_EQ(1u, cmds.size());
    EXPECT_EQ("/usr/sbin/mesh_setup.sh cap_clean 'wl9' 'AA:BB:CC:DD:EE:01'", cmds[0]);
}

WiFiConfig re_record()
{
    WiFiConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    cfg.type = 4;
    strcpy(cfg.ssid_2g, "Home-2G");
    strcpy(cfg.key_2g, "secret123");
    strcpy(cfg.enc_2g, "psk2");
    strcpy(cfg.ssid_5g, "Home-5G");
    strcpy(cfg.key_5g, "secret555");
    strcpy(cfg.enc_5g, "psk2+ccmp");
    strcpy(cfg.bh_ssid, "KvMesh_0a1b2c3d");
    strcpy(cfg.bh_key, "00112233445566ff");
    strcpy(cfg.bh_enc, "psk2");
    return cfg;
}

TEST_F(Platform, ReInitCommandLines)
{
    WiFiConfig cfg = re_record();
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    cfg.bsd = 1;
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    std::vector<std::string> cmds = fake_sys_system_cmds();
    ASSERT_EQ(2u, cmds.size());
    EXPECT_EQ("/usr/sbin/mesh_setup.sh re_init 'SG9tZS0yRw==' 'c2VjcmV0MTIz' 'psk2' "
              "'SG9tZS01Rw==' 'c2VjcmV0NTU1' 'psk2+ccmp' 'S3ZNZXNoXzBhMWIyYzNk' "
              "'MDAxMTIyMzM0NDU1NjZmZg==' 'psk2' 1",
              cmds[0]);
    // Band steering: one network for both bands, the 5 GHz fields stay out.
    EXPECT_EQ("/usr/sbin/mesh_setup.sh re_init_bsd 'SG9tZS0yRw==' 'c2VjcmV0MTIz' 'psk2' "
              "'S3ZNZXNoXzBhMWIyYzNk' 'MDAxMTIyMzM0NDU1NjZmZg==' 'psk2' 1",
              cmds[1]);

    // A locale goes to the platform first, base64 and unquoted.
    fake_sys_install();
    strcpy(cfg.locale, "US");
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    cmds = fake_sys_system_cmds();
    ASSERT_EQ(2u, cmds.size());
    EXPECT_EQ("/usr/bin/lua /usr/sbin/mesh_info.lua locale VVM=", cmds[0]);
    EXPECT_EQ(0u, cmds[1].find("/usr/sbin/mesh_setup.sh re_init_bsd "));
}

TEST_F(Platform, ReKeyArgumentNullForNoEncryption)
{
    struct {
        const char *enc;
        const char *arg;
    } cases[] = {
        {"none", "'null'"}, {"no", "'null'"}, {"", "'null'"},
        {"psk2", "'c2VjcmV0MTIz'"}, {"nonexx", "'c2VjcmV0MTIz'"},
    };
    for (const auto &c : cases) {
        fake_sys_install();
        WiFiConfig cfg = re_record();
        strcpy(cfg.enc_2g, c.enc);
        strcpy(cfg.enc_5g, c.enc);
        strcpy(cfg.key_5g, "secret123");
        ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1)) << c.enc;
        std::string want = "'SG9tZS0yRw==' " + std::string(c.arg) + " '" + c.enc +
                           "' 'SG9tZS01Rw==' " + c.arg + " '" + c.enc + "' ";
        ASSERT_EQ(1u, fake_sys_system_cmds().size());
        EXPECT_NE(std::string::npos, fake_sys_system_cmds()[0].find(want))
            << c.enc << ": " << fake_sys_system_cmds()[0];
    }
    // An empty pass phrase with encryption on is an empty argument.
    fake_sys_install();
    WiFiConfig cfg = re_record();
    cfg.key_2g[0] = 0;
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    EXPECT_NE(std::string::npos, fake_sys_system_cmds()[0].find("'SG9tZS0yRw==' '' 'psk2'"));
}

TEST_F(Platform, ReShellTextsOnlyInsideBase64)
{
    WiFiConfig cfg = re_record();
    strcpy(cfg.ssid_2g, "it's $(reboot)");
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    ASSERT_EQ(1u, fake_sys_system_cmds().size());
    std::string cmd = fake_sys_system_cmds()[0];
    EXPECT_NE(std::string::npos, cmd.find("re_init 'aXQncyAkKHJlYm9vdCk=' "));
    EXPECT_EQ(std::string::npos, cmd.find("$("));
    EXPECT_EQ(std::string::npos, cmd.find("it's"));
}

TEST_F(Platform, ReSideFilesHandledBeforeTheCheck)
{
    FILE *fp = fopen("/tmp/bh_maclist_5g", "w");
    ASSERT_NE(nullptr, fp);
    fputs("stale", fp);
    fclose(fp);

    WiFiConfig cfg = re_record();
    strcpy(cfg.bh_maclist_2g, "AA:BB:CC:DD:EE:01 AA:BB:CC:DD:EE:02");
    strcpy(cfg.enc_2g, "psk2;reboot");
    EXPECT_EQ(-1, tolvaInitRe(&cfg, "{\"extra\":1}", 1));
    EXPECT_TRUE(fake_sys_system_cmds().empty());
    EXPECT_EQ("AA:BB:CC:DD:EE:01 AA:BB:CC:DD:EE:02", read_file("/tmp/bh_maclist_2g"));
    EXPECT_FALSE(exists("/tmp/bh_maclist_5g"));
    EXPECT_EQ("{\"extra\":1}", read_file("/tmp/extra_wifi_param"));

    // The next record has no lists and no extra text: the files go away.
    WiFiConfig next = re_record();
    next.bsd = 1;
    strcpy(next.bh_enc, "psk2|x");
    EXPECT_EQ(-1, tolvaInitRe(&next, "", 1));
    EXPECT_FALSE(exists("/tmp/bh_maclist_2g"));
    EXPECT_FALSE(exists("/tmp/extra_wifi_param"));
    EXPECT_TRUE(fake_sys_system_cmds().empty());
}

TEST_F(Platform, ReScriptStatusMapping)
{
    WiFiConfig cfg = re_record();
    struct {
        int status;
        int result;
    } cases[] = {
        {0, 0},          // exit 0
        {3 << 8, 1},     // exit 3
        {9, 0},          // killed by SIGKILL: counted as done
        {-1, -1},        // could not run
    };
    for (const auto &c : cases) {
        fake_sys_system_status(c.status);
        EXPECT_EQ(c.result, tolvaInitRe(&cfg, "", 1)) << "status " << c.status;
    }
}

}  // namespace
