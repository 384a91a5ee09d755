// Logger: level clamping, mode refusal, stderr prefix, guard misuse, status records.
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "capture.h"
#include "util/log.h"

static const std::string P = "plaitd[" + std::to_string((long)syscall(SYS_gettid)) + "]: ";

// Must stay the first test: the first message of the process opens the log.
TEST(Log, FirstMessageAnnouncesLevelAndKeepsConversions)
{
    ASSERT_EQ(log_mode_set(LOG_MODE_STDERR), 0);
    EXPECT_EQ(captured(stderr, [] { LOG(3, "hello %d %s|\n", 42, "x"); }),
              P + "enable log with level: 7\n" + P + "hello 42 x|\n");
}

TEST(Log, LevelClampingModeRefusalAndSkippedGuard)
{
    int evaluated = 0;
    std::string err = captured(stderr, [&] {
        EXPECT_EQ(log_level_set(9), 0);
        EXPECT_EQ(log_level, 7);
        log_level_set(-2);
        EXPECT_EQ(log_level, 0);
        log_level_set(3);
        EXPECT_EQ(log_mode_set(2), -1);
        EXPECT_EQ(log_mode, LOG_MODE_STDERR);
        LOG(5, "not shown %d\n", ++evaluated);
        log_(5, __func__, __LINE__, "caller skipped the guard\n");
    });
    EXPECT_EQ(err, P + "Set log level to level: 7 " + P + "Set log level to level: 3 " + P +
                       "set log mode to 2[LOG_MODE_STDERR] error\n" + "cmd;log level error\n ");
    EXPECT_EQ(evaluated, 0);
    log_level = 7;
}

TEST(Log, StatusRecordGoesToStdoutInSyslogMode)
{
    log_mode_set(LOG_MODE_SYSLOG);
    std::string out = captured(stdout, [] { report_status("%s=%s:%d", "mesh.re.conn.fail", "AUTH_FAILED", 1); });
    EXPECT_EQ(out, "mesh.re.conn.fail=AUTH_FAILED:1");   // exactly the text, no line feed
}
