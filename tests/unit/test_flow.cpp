// Command line and the start-up checks of the process.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "capture.h"
#include "core/flow.h"
#include "fake_sys.h"
#include "util/log.h"
#include "util/proc.h"

static int32_t parse(std::vector<const char *> args)
{
    args.insert(args.begin(), "plaitd");
    args.push_back(nullptr);
    return parse_args((int)args.size() - 1, const_cast<char **>(args.data()));
}

TEST(Flow, HelpAndBadOptionsPrintTheSixUsageLines)
{
    log_mode = LOG_MODE_STDERR;
    const char *usage = "-C                  mode client\n"
                        "-S                  mode server\n"
                        "-d                  dry run\n"
                        "-i ifname           bind interface\n"
                        "-l level            log level\n"
                        "-o                  log out to stderr, default to syslog\n";
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
}

TEST(Flow, CapAddressCompareIsATextTestOfTheFirstThreeOctets)
{
    const struct { const char *a, *b; int32_t rc; } cases[] = {
        {"10.0.0.1", "10.0.0.1", 0}, {"10.0.1.1", "10.0.0.1", 1}, {"192.168.77.1", "192.168.77.20", 0},
        {"", "192.168.77.20", 1},    {nullptr, "10.0.0.1", -1},   {"10.0.0.1", nullptr, -1}};
    for (const auto &c : cases)
        EXPECT_EQ(capip_ip_compare(c.a, c.b), c.rc) << (c.a ? c.a : "null");
}

TEST(Flow, FactoryTestModeEndsTheProcess)
{
    g_is_server = 0;
    fake_sys_install();
    fake_sys_answer("cat /proc/veltrasso/ft_mode", "1\n");
    const char *argv[] = {"plaitd", "-o", nullptr};
    int rc = 0;
    std::string err = captured(stderr, [&] { rc = plaitd_main(2, const_cast<char **>(argv)); });
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(Has(err, "check env failed for mode: 0, exit.\n"));
    fake_sys_uninstall();
}
