// Command output capture, the injection guard, trimming and file helpers.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <unistd.h>

#include "util/log.h"
#include "util/shell.h"

TEST(Shell, ExecCmdChunkRules)
{
    char out[1024];
    EXPECT_EQ(tolva_exec_cmd("echo", out, sizeof(out)), 0);
    EXPECT_STREQ(out, "\n");
    EXPECT_EQ(tolva_exec_cmd("true", out, sizeof(out)), -1);
    EXPECT_STREQ(out, "");
    // An exact multiple of the chunk size ends in an empty read: failure.
    EXPECT_EQ(tolva_exec_cmd("head -c 128 /dev/zero | tr '\\0' a", out, sizeof(out)), -1);
    EXPECT_EQ(strlen(out), 128u);
    EXPECT_EQ(tolva_exec_cmd("head -c 129 /dev/zero | tr '\\0' b", out, sizeof(out)), 0);
    EXPECT_EQ(strlen(out), 129u);
    // The second chunk does not fit: what fitted stays.
    EXPECT_EQ(tolva_exec_cmd("head -c 200 /dev/zero | tr '\\0' c", out, 150), -1);
    EXPECT_EQ(strlen(out), 128u);
    memset(out, 'z', 8);
    EXPECT_EQ(tolva_exec_cmd("printf 'abcd\\n'", out, 4), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(tolva_exec_cmd(nullptr, out, 4), -1);
    EXPECT_EQ(tolva_exec_cmd("echo", out, 0), -1);
}

TEST(Shell, CmdResultCutsNewlineAndSurvivesEmptyOutput)
{
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
    EXPECT_EQ(check_injection("AA:BB:CC:DD:EE:FF"), 0);

    char path[] = "/tmp/out-XXXXXX", got[128] = {0};
    int tmp = mkstemp(path), saved = dup(1);
    fflush(stdout);
    dup2(tmp, 1);
    EXPECT_EQ(check_params("ss", "x", "y;z"), -1);
    EXPECT_EQ(check_params("s-s", "a", "b"), 0);
    fflush(stdout);
    dup2(saved, 1);
    EXPECT_GT(pread(tmp, got, sizeof(got) - 1, 0), 0);
    close(tmp), close(saved);
    EXPECT_STREQ(got, "string x\nstring y;z\nstring a\nstring b\n");
    log_level = 7;
}

TEST(Shell, TrimAndFiles)
{
    char blanks[] = "   ";
    EXPECT_STREQ(str_trim(blanks), "");
    char mixed[] = "\t ab c \r\n";
    EXPECT_EQ(str_trim(mixed), mixed);
    EXPECT_STREQ(mixed, "ab c");
    char vt[] = "\vx\f";
    EXPECT_STREQ(str_trim(vt), "\vx\f");
    EXPECT_EQ(str_trim(nullptr), nullptr);

    EXPECT_EQ(f_string_write("/tmp/fs", "hello", 5), 1);
    char buf[16] = {0};
    EXPECT_EQ(f_string_read("/tmp/fs", buf, 5), 1);
    EXPECT_STREQ(buf, "hello");
    memset(buf, 0, sizeof(buf));
    EXPECT_EQ(f_string_read("/tmp/fs", buf, 10), 0);
    EXPECT_STREQ(buf, "hello");   // bytes copied even though short
    EXPECT_EQ(f_string_write("/tmp/fs", "hi", 2), 1);   // truncates
    EXPECT_EQ(f_string_read("/tmp/fs", buf, 3), 0);
    EXPECT_EQ(f_string_read("/tmp/missing", buf, 1), 0);
    EXPECT_EQ(f_string_write("/tmp/no/such/dir", "x", 1), 0);
    EXPECT_GT(uptime(), 0);
}
