// Logger: level clamping, mode refusal, stderr prefix, guard misuse, status records.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

#include "util/log.h"

namespace {

// Redirects one standard stream into a temp file until take().
struct capture {
    FILE *stream;
    int fd, saved;
    char path[32] = "/tmp/logcap-XXXXXX";
    explicit capture(FILE *s) : stream(s), fd(fileno(s))
    {
        fflush(stream);
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
        std::string out;
        FILE *f = fopen(path, "r");
        for (int c; (c = fgetc(f)) != EOF;)
            out += (char)c;
        fclose(f);
        unlink(path);
        return out;
    }
};

std::string prefix()
{
    return "plaitd[" + std::to_string((long)syscall(SYS_gettid)) + "]: ";
}

}  // namespace

// Must stay the first test: the first message of the process opens the log.
TEST(Log, FirstMessageAnnouncesLevelAndKeepsConversions)
{
    ASSERT_EQ(log_mode_set(LOG_MODE_STDERR), 0);
    capture err(stderr);
    LOG(3, "hello %d %s|\n", 42, "x");
    std::string p = prefix();
    EXPECT_EQ(err.take(), p + "enable log with level: 7\n" + p + "hello 42 x|\n");
}

TEST(Log, LevelClampingAndModeRefusal)
{
    log_mode_set(LOG_MODE_STDERR);
    capture err(stderr);
    EXPECT_EQ(log_level_set(9), 0);
    EXPECT_EQ(log_level, 7);
    EXPECT_EQ(log_level_set(-2), 0);
    EXPECT_EQ(log_level, 0);
    log_level_set(2);
    EXPECT_EQ(log_level, 2);
    log_level_set(3);
    EXPECT_EQ(log_mode_set(2), -1);
    EXPECT_EQ(log_mode, LOG_MODE_STDERR);
    std::string p = prefix();
    EXPECT_EQ(err.take(), p + "Set log level to level: 7 " + p + "Set log level to level: 3 " + p +
                              "set log mode to 2[LOG_MODE_STDERR] error\n");
    log_level_set(7);
}

TEST(Log, SkippedGuardAndSuppressedMessages)
{
    log_mode_set(LOG_MODE_STDERR);
    log_level = 3;
    int evaluated = 0;
    capture err(stderr);
    LOG(5, "not shown %d\n", ++evaluated);
    log_(5, __func__, __LINE__, "not shown either\n");
    EXPECT_EQ(err.take(), "cmd;log level error\n ");
    EXPECT_EQ(evaluated, 0);
    log_level = 7;
}

TEST(Log, StatusRecordGoesToStdoutInSyslogMode)
{
    log_mode_set(LOG_MODE_SYSLOG);
    capture out(stdout);
    report_status("%s=%s:%d", "mesh.re.conn.fail", "AUTH_FAILED", 1);
    std::string got = out.take();
    EXPECT_EQ(got.rfind("mesh.re.conn.fail=AUTH_FAILED:1", 0), 0u) << got;
}
