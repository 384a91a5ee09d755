// Command line, the RE's pairing loop and the start-up checks of the process.
#include <gtest/gtest.h>

#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture.h"
#include "core/flow.h"
#include "fake_sys.h"
#include "util/addr.h"
#include "util/log.h"
#include "util/shell.h"

// The loop's waits; nothing here needs them (signals are not installed before the last test).
extern "C" int usleep(useconds_t) { return 0; }

static int32_t parse(std::vector<const char *> args)
{
    args.insert(args.begin(), "plaitd");
    args.push_back(nullptr);
    return parse_args((int)args.size() - 1, const_cast<char **>(args.data()));
}

// The factory LAN address (192.168.77.1) of both boxes clashes with the way
// to the CAP, by the gateway or by the CAP's address: the RE moves its LAN
// address to its uplink one for the attempt and back after it fails, and
// restarts DHCP when the CAP is on another /24. The attempt itself fails (no
// TLS context); the box turns out initialised on the second look.
TEST(Flow, ReLoopClashesBothWays)
{
    const char *set_wan = "uci -q set network.lan.ipaddr=10.0.0.20;uci commit network;ifconfig br-lan 10.0.0.20";
    const char *set_fac = "uci -q set network.lan.ipaddr=192.168.77.1;uci commit network;ifconfig br-lan 192.168.77.1";
    const struct { const char *gw, *cap; std::vector<std::string> cmds; } cases[] = {
        {"10.0.0.1", "10.0.0.1", {}},
        {"192.168.77.1", "", {set_wan, set_fac, "killall -9 udhcpc"}},
        {"10.0.0.1", "192.168.77.1", {set_wan, set_fac, "killall -9 udhcpc"}},
        {"10.0.0.1", "", {set_wan, set_fac, "killall -9 udhcpc"}},   // no CAP address yet: a clash
        {"192.168.77.1", "10.0.0.9", {set_wan, set_fac}},             // same /24 as the uplink: no restart
    };
    log_level = 0;
    for (const auto &c : cases) {
        fake_sys_install();
        fake_sys_answer("/sbin/linkprobe link", "wan: up\n");
        int looks = 0;
        fake_sys_hook([&](const std::string &cmd) {
            if (cmd == "uci -q get veltrasso.common.INITTED" && ++looks == 2)
                fake_sys_answer(cmd, "YES\n");
        });
        std::string gwfile = std::string(c.gw) + "\n10.0.0.20\n";
        f_string_write(GW_IP_FILE, gwfile.c_str(), (uint32_t)gwfile.size());
        strcpy(g_cap_ip, c.cap);
        g_ifname[0] = 0;
        EXPECT_EQ(0, re_flow());
        std::vector<std::string> cmds;
        for (const auto &s : fake_sys_system_cmds())
            if (s.rfind("uci", 0) == 0 || s.rfind("killall", 0) == 0)
                cmds.push_back(s);
        EXPECT_EQ(c.cmds, cmds) << c.gw << " " << c.cap;
        EXPECT_EQ(2, looks);
    }
    // Not ready (cable down, no address): no attempt at all.
    fake_sys_install();
    int looks = 0;
    fake_sys_hook([&](const std::string &cmd) {
        if (cmd == "uci -q get veltrasso.common.INITTED" && ++looks == 2)
            fake_sys_answer(cmd, "YES\n");
    });
    EXPECT_EQ(0, re_flow());
    for (const auto &s : fake_sys_system_cmds())
        EXPECT_NE(0u, s.rfind("uci", 0)) << s;
    EXPECT_FALSE(fake_sys_ran("ifconfig eth4 |grep -o \"HWaddr*"));
    fake_sys_uninstall();
    log_level = 7;
}

TEST(Flow, HelpAndBadOptionsPrintTheSixUsageLines)
{
    log_mode = LOG_MODE_STDERR;
    const char *usage = "-C                  mode client\n-S                  mode server\n"
                        "-d                  dry run\n-i ifname           bind interface\n"
                        "-l level            log level\n-o                  log out to stderr, default to syslog\n";
    const struct { const char *opt; int32_t rc; } cases[] = {
        {"-h", PLAITD_PARSE_EXIT_OK}, {"-x", PLAITD_PARSE_EXIT_BAD}, {"-i", PLAITD_PARSE_EXIT_BAD}};
    for (const auto &c : cases) {
        int32_t rc = 0;
        std::string out = captured(stdout, [&] { captured(stderr, [&] { rc = parse({c.opt}); }); });
        EXPECT_EQ(rc, c.rc) << c.opt;
        EXPECT_EQ(out, usage) << c.opt;
    }
}

TEST(Flow, OptionsSetTheGlobalsInOrder)
{
    EXPECT_EQ(parse({"-S", "-C"}), PLAITD_PARSE_RUN);
    EXPECT_EQ(g_is_server, 0);
    EXPECT_EQ(parse({"-C", "-S", "-d", "-t", "42"}), PLAITD_PARSE_RUN);
    EXPECT_EQ(g_is_server, 1);
    EXPECT_EQ(g_dry_run, 1);
    EXPECT_EQ(parse({"-i", "abcdefghijklmnopqrst", "extra"}), PLAITD_PARSE_RUN);
    EXPECT_STREQ(g_ifname, "abcdefghijklmn");   // 14 characters kept
    log_level = 0;
    EXPECT_EQ(parse({"-l", "12"}), PLAITD_PARSE_RUN);
    EXPECT_EQ(log_level, 7);
    g_dry_run = 0;
}

TEST(Flow, CapAddressCompareIsATextTestOfTheFirstThreeOctets)
{
    const struct { const char *a, *b; int32_t rc; } cases[] = {
        {"10.0.0.1", "10.0.0.1", 0}, {"10.0.1.1", "10.0.0.1", 1}, {"192.168.77.1", "192.168.77.20", 0},
        {"", "192.168.77.20", 1},    {nullptr, "10.0.0.1", -1},   {"10.0.0.1", nullptr, -1}};
    for (const auto &c : cases)
        EXPECT_EQ(capip_ip_compare(c.a, c.b), c.rc) << (c.a ? c.a : "null");
}

// The whole process: an unfit box ends at once (255), an initialised RE before any probe (0).
TEST(Flow, StartUpChecks)
{
    log_level = 0;
    fake_sys_install();
    fake_sys_answer("cat /proc/veltrasso/ft_mode", "1\n");
    const char *fac[] = {"plaitd", "-o", "-S", nullptr}, *re[] = {"plaitd", "-C", "-i", "eth4", nullptr};
    EXPECT_EQ(-1, plaitd_main(3, const_cast<char **>(fac)));
    fake_sys_answer("cat /proc/veltrasso/ft_mode", "0\n");
    fake_sys_answer("boardkv get SN", "SN12345\n");
    fake_sys_answer("macinfo wan 2>/dev/null", "28:6c:07:20:00:01\n");
    fake_sys_answer("cat /tmp/boot_check_done 2>/dev/null", "1\n");
    fake_sys_answer("uci -q get veltrasso.common.INITTED", "YES\n");
    EXPECT_EQ(0, plaitd_main(4, const_cast<char **>(re)));
    for (const auto &s : fake_sys_log())
        EXPECT_EQ(std::string::npos, s.find("ifconfig")) << s;   // no probe, no address query
    fake_sys_uninstall();
}
