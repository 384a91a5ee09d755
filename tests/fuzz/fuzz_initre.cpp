// The RE's mesh initialisation fed a WiFiConfig record (zero-padded when short) and the
// extra text after it. Every command line is an expected script with its argument count, no
// shell character stands outside the single quotes, every quoted argument is base64, "null"
// or clean; a refused record runs no script, an accepted one exactly one.
#include "testing.h"

namespace
{

const char kForbidden[] = "@`$#,;'\\\"[]&*()|<>";
const char *const kScripts[] = {"/usr/sbin/mesh_setup.sh re_init ",
                                "/usr/sbin/mesh_setup.sh re_init_bsd ",
                                "/usr/bin/lua /usr/sbin/mesh_info.lua locale "};
const size_t kQuoted[] = {9, 6, 0};

[[noreturn]] void fail(const std::string &cmd, const char *why)
{
    fprintf(stderr, "fuzz_initre: %s:\n  %s\n", why, cmd.c_str());
    abort();
}

void check_command(const std::string &cmd)
{
    int kind = 0;
    while (kind < 3 && cmd.compare(0, strlen(kScripts[kind]), kScripts[kind]) != 0)
        kind++;
    if (kind == 3)
        fail(cmd, "unexpected command");
    std::vector<std::string> quoted;
    bool in = false;
    for (char c : cmd) {
        if (c == '\'' && !in)
            quoted.push_back("");
        if (c == '\'')
            in = !in;
        else if (in)
            quoted.back() += c;
        else if (strchr(kForbidden, c) || c == '\n')
            fail(cmd, "shell character outside the quotes");
    }
    if (in || quoted.size() != kQuoted[kind])
        fail(cmd, "unbalanced quote or wrong argument count");
    for (const auto &a : quoted)
        if (a.find_first_not_of(
                "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") !=
                std::string::npos &&
            a != "null" &&
            (a.find_first_of(kForbidden) != std::string::npos || check_injection(a.c_str()) != 0))
            fail(cmd, "argument neither base64 nor clean");
}

}   // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 4096)
        return 0;
    WiFiConfig cfg{};
    size_t n = size < sizeof(cfg) ? size : sizeof(cfg);
    memcpy(&cfg, data, n);
    std::string extra((const char *)data + n, size - n);   // as the RE hands it on: terminated
    log_mode = LOG_MODE_STDERR;
    fake_sys_install();
    int rc = tolvaInitRe(&cfg, extra.c_str(), 1);
    for (const auto &c : fake_sys_system_cmds())
        check_command(c);
    if (rc < -1 || rc > 1 || fake_sys_scripts() != (rc == -1 ? 0u : 1u))
        fail(std::to_string(rc), "result or script count");
    return 0;
}
