// Command output capture, the injection guard, trimming and file helpers.
#include <gtest/gtest.h>

#include <string.h>
#include <string>

#include "capture.h"
#include "util/log.h"
#include "util/shell.h"

TEST(Shell, ExecCmdChunkRules)
{
    const struct { const char *cmd; int size, rc; size_t len; } cases[] = {
        {"echo", 1024, 0, 1},
        {"true", 1024, -1, 0},
        // An exact multiple of the 128-byte chunk ends in an empty read: failure.
        {"head -c 128 /dev/zero | tr '\\0' a", 1024, -1, 128},
        {"head -c 129 /dev/zero | tr '\\0' b", 1024, 0, 129},
        // The second chunk does not fit: what fitted stays.
        {"head -c 200 /dev/zero | tr '\\0' c", 150, -1, 128},
        {"printf 'abcd\\n'", 4, -1, 0},
    };
    char out[1024];
    for (const auto &c : cases) {
        memset(out, 'z', sizeof(out));
        EXPECT_EQ(tolva_exec_cmd(c.cmd, out, c.size), c.rc) << c.cmd;
        EXPECT_EQ(strlen(out), c.len) << c.cmd;
    }
    EXPECT_EQ(tolva_exec_cmd("echo", out, 0), -1);

    char buf[32];
    EXPECT_STREQ(getCmdResult("echo hi", buf, sizeof(buf) - 1), "hi");
    memset(buf, 'x', sizeof(buf));
    EXPECT_STREQ(getCmdResult("true", buf + 1, 8), "");
    EXPECT_EQ(buf[0], 'x');
    EXPECT_STREQ(getCmdResultSlow("printf abcdef", buf, 4), "abcd");
}

TEST(Shell, InjectionGuard)
{
    log_level = 0;   // keep the refusals out of the output
    for (const char *c = "@`$#,;'\\\"[]&*()|<>"; *c; c++) {
        std::string text = std::string("ssid") + *c + "x";
        EXPECT_EQ(check_injection(text.c_str()), -1) << text;
    }
    EXPECT_EQ(check_injection("My Net-5G/a.b:c=d!\n"), 0);
    std::string out = captured(stdout, [] {
        EXPECT_EQ(check_params("ss", "x", "y;z"), -1);
        EXPECT_EQ(check_params("s-s", "a", "b"), 0);
    });
    EXPECT_EQ(out, "string x\nstring y;z\nstring a\nstring b\n");
    log_level = 7;
}

TEST(Shell, TrimAndShortFileRead)
{
    char blanks[] = "   ", mixed[] = "\t ab c \r\n", vt[] = "\vx\f";
    EXPECT_STREQ(str_trim(blanks), "");
    EXPECT_EQ(str_trim(mixed), mixed);
    EXPECT_STREQ(mixed, "ab c");
    EXPECT_STREQ(str_trim(vt), "\vx\f");   // only blank, tab, CR and LF go

    EXPECT_EQ(f_string_write("/tmp/fs", "hello", 5), 1);
    char buf[16] = {0};
    EXPECT_EQ(f_string_read("/tmp/fs", buf, 10), 0);
    EXPECT_STREQ(buf, "hello");   // bytes copied even though short
    EXPECT_EQ(f_string_read("/tmp/fs", buf, 5), 1);
}
