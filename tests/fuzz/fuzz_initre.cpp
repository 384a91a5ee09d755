// The RE's mesh initialisation fed with a record from the wire: the first
// 1051 bytes are the WiFiConfig record (zero-padded when short), the rest the
// extra text that followed it. Every command line handed to system() must be
// one of the expected scripts, and no argument may carry a shell character
// out of its quotes.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fake_sys.h"
#include "fuzz_common.h"
#include "platform/meshinit.h"
#include "platform/wificonf.h"
#include "util/shell.h"

namespace {

const char kForbidden[] = "@`$#,;'\\\"[]&*()|<>";

bool is_b64(const std::string &s)
{
    return s.find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") ==
           std::string::npos;
}

bool clean(const std::string &s)
{
    return s.find_first_of(kForbidden) == std::string::npos;
}

bool starts(const std::string &s, const char *p)
{
    return s.compare(0, strlen(p), p) == 0;
}

[[noreturn]] void fail(const std::string &cmd, const char *why)
{
    fprintf(stderr, "fuzz_initre: %s:\n  %s\n", why, cmd.c_str());
    abort();
}

void check_command(const std::string &cmd)
{
    if (!starts(cmd, "/usr/sbin/mesh_setup.sh re_init ") &&
        !starts(cmd, "/usr/sbin/mesh_setup.sh re_init_bsd ") &&
        !starts(cmd, "/usr/bin/lua /usr/sbin/mesh_info.lua locale "))
        fail(cmd, "unexpected command");
    std::vector<std::string> quoted;
    bool in = false;
    std::string arg;
    for (char c : cmd) {
        if (c == '\'') {
            if (in)
                quoted.push_back(arg);
            arg.clear();
            in = !in;
        } else if (in) {
            arg += c;
        } else if (strchr(kForbidden, c) || c == '\n') {
            fail(cmd, "shell character outside the quotes");
        }
    }
    if (in)
        fail(cmd, "unbalanced quote");
    for (const auto &a : quoted)
        if (!is_b64(a) && a != "null" && !(clean(a) && check_injection(a.c_str()) == 0))
            fail(cmd, "argument neither base64 nor clean");
    if (starts(cmd, "/usr/bin/lua") && !quoted.empty())
        fail(cmd, "quoted locale");
    if (starts(cmd, "/usr/sbin/mesh_setup.sh re_init_bsd ") ? quoted.size() != 6
        : starts(cmd, "/usr/sbin/mesh_setup.sh re_init ")   ? quoted.size() != 9
                                                            : false)
        fail(cmd, "wrong argument count");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_setup_platform();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 4096)
        return 0;
    WiFiConfig cfg;
    memset(&cfg, 0, sizeof(cfg));
    size_t n = size < sizeof(cfg) ? size : sizeof(cfg);
    memcpy(&cfg, data, n);
    // The extra text as the RE hands it on: terminated, on the heap.
    size_t xlen = size - n;
    char *extra = (char *)malloc(xlen + 1);
    memcpy(extra, data + n, xlen);
    extra[xlen] = '\0';

    fake_sys_install();
    int rc = tolvaInitRe(&cfg, extra, 1);
    if (rc < -1 || rc > 1)
        abort();
    std::vector<std::string> cmds = fake_sys_system_cmds();
    for (const auto &c : cmds)
        check_command(c);
    // A refused record runs no script; an accepted one runs exactly one.
    size_t scripts = 0;
    for (const auto &c : cmds)
        scripts += starts(c, "/usr/sbin/mesh_setup.sh");
    if (scripts != (rc == -1 ? 0u : 1u))
        fail(cmds.empty() ? "" : cmds.back(), "script count");
    free(extra);
    return 0;
}
