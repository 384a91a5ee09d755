// Command line and the start-up checks of the process.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/flow.h"
#include "fake_sys.h"
#include "util/log.h"

namespace {

// Captures what a call writes to one of the standard streams.
struct capture {
    int fd, saved;
    FILE *stream;
    char path[64];
    capture(FILE *s) : stream(s)
    {
        fflush(stream);
        fd = fileno(stream);
        snprintf(path, sizeof(path), "/tmp/cap-%d-XXXXXX", fd);
        int tmp = mkstemp(path);
        saved = dup(fd);
        dup2(tmp, fd);
        close(tmp);
    }
    std::string take()
    {
        fflush(stream);
        dup2(saved, fd);
        close(saved);
        FILE *f = fopen(path, "r");
        std::string out;
        char buf[512];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
            out.append(buf, n);
        fclose(f);
        unlink(path);
        return out;
    }
};

int32_t parse(std::vector<const char *> args)
{
    args.insert(args.begin(), "plaitd");
    args.push_back(nullptr);
    return parse_args((int)args.size() - 1, const_cast<char **>(args.data()));
}

class Flow : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_is_server = 0;
        g_dry_run = 0;
        memset(g_ifname, 0, sizeof(g_ifname));
        log_level = 7;
        log_mode = LOG_MODE_STDERR;
    }
};

const char *const kUsage =
    "-C                  mode client\n"
    "-S                  mode server\n"
    "-d                  dry run\n"
    "-i ifname           bind interface\n"
    "-l level            log level\n"
    "-o                  log out to stderr, default to syslog\n";

}  // namespace

TEST_F(Flow, HelpAndBadOptionsPrintTheSixUsageLines)
{
    capture out(stdout);
    EXPECT_EQ(parse({"-h"}), PLAITD_PARSE_EXIT_OK);
    EXPECT_EQ(out.take(), kUsage);

    capture bad(stdout);
    capture err(stderr);
    EXPECT_EQ(parse({"-x"}), PLAITD_PARSE_EXIT_BAD);
    err.take();
    EXPECT_EQ(bad.take(), kUsage);

    capture missing(stdout);
    capture err2(stderr);
    EXPECT_EQ(parse({"-i"}), PLAITD_PARSE_EXIT_BAD);
    err2.take();
    EXPECT_EQ(missing.take(), kUsage);
}

TEST_F(Flow, OptionsSetTheGlobalsInOrder)
{
    EXPECT_EQ(parse({"-S", "-C"}), PLAITD_PARSE_RUN);
    EXPECT_EQ(g_is_server, 0);
    EXPECT_EQ(parse({"-C", "-S", "-d", "-t", "42"}), PLAITD_PARSE_RUN);
    EXPECT_EQ(g_is_server, 1);
    EXPECT_EQ(g_dry_run, 1);

    // Interface names keep at most 14 characters.
    EXPECT_EQ(parse({"-i", "abcdefghijklmnopqrst"}), PLAITD_PARSE_RUN);
    EXPECT_STREQ(g_ifname, "abcdefghijklmn");
    EXPECT_EQ(parse({"-i", "br-lan", "extra", "args"}), PLAITD_PARSE_RUN);
    EXPECT_STREQ(g_ifname, "br-lan");
}

TEST_F(Flow, LevelOptionIsClampedAndConfirmed)
{
    capture err(stderr);
    EXPECT_EQ(parse({"-l", "12"}), PLAITD_PARSE_RUN);
    EXPECT_EQ(log_level, 7);
    EXPECT_NE(err.take().find("Set log level to level: 7 "), std::string::npos);
    EXPECT_EQ(parse({"-l", "2"}), PLAITD_PARSE_RUN);
    EXPECT_EQ(log_level, 2);
}

TEST_F(Flow, CapAddressCompareIsATextTestOfTheFirstThreeOctets)
{
    EXPECT_EQ(capip_ip_compare("10.0.0.1", "10.0.0.1"), 0);
    EXPECT_EQ(capip_ip_compare("10.0.1.1", "10.0.0.1"), 1);
    EXPECT_EQ(capip_ip_compare("192.168.77.1", "192.168.77.20"), 0);
    EXPECT_EQ(capip_ip_compare("", "192.168.77.20"), 1);
    EXPECT_EQ(capip_ip_compare(nullptr, "10.0.0.1"), -1);
    EXPECT_EQ(capip_ip_compare("10.0.0.1", nullptr), -1);
}

TEST_F(Flow, FactoryTestModeEndsTheProcessWith255)
{
    fake_sys_install();
    fake_sys_answer("cat /proc/veltrasso/ft_mode", "1\n");
    const char *argv[] = {"plaitd", "-o", nullptr};
    capture err(stderr);
    EXPECT_EQ(plaitd_main(2, const_cast<char **>(argv)), -1);
    EXPECT_NE(err.take().find("check env failed for mode: 0, exit.\n"), std::string::npos);
    fake_sys_uninstall();
}
