#include "fake_sys.h"

#include <deque>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "util/sys.h"

namespace {
struct rule {
    std::string pattern;
    std::string output;
};
std::vector<rule> rules;
std::vector<std::string> seen;
std::deque<std::string> buffers;   // fmemopen keeps pointers into these
bool pass;
int sys_status;

bool matches(const std::string &pat, const char *cmd)
{
    if (!pat.empty() && pat.back() == '*')
        return strncmp(cmd, pat.c_str(), pat.size() - 1) == 0;
    return pat == cmd;
}

FILE *fake_popen(const char *cmd, const char *mode)
{
    seen.push_back(std::string("popen: ") + cmd);
    for (auto it = rules.rbegin(); it != rules.rend(); ++it) {
        if (!matches(it->pattern, cmd))
            continue;
        if (it->output.empty())
            return fopen("/dev/null", "r");
        buffers.push_back(it->output);
        return fmemopen(&buffers.back()[0], buffers.back().size(), "r");
    }
    if (pass)
        return popen(cmd, mode);
    return fopen("/dev/null", "r");
}

int fake_pclose(FILE *fp)
{
    // A real pipe must be closed with pclose; everything else is a stream.
    int fd = fileno(fp);
    if (pass && fd >= 0) {
        char path[64], target[64] = {0};
        snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
        ssize_t n = readlink(path, target, sizeof(target) - 1);
        if (n > 0 && strncmp(target, "pipe:", 5) == 0)
            return pclose(fp);
    }
    fclose(fp);
    return 0;
}

int fake_system(const char *cmd)
{
    seen.push_back(std::string("system: ") + cmd);
    return sys_status;
}

const sys_ops fake_ops = {fake_popen, fake_pclose, fake_system};
}  // namespace

void fake_sys_install(bool passthrough)
{
    rules.clear();
    seen.clear();
    buffers.clear();
    pass = passthrough;
    sys_status = 0;
    sys_set_ops(&fake_ops);
}

void fake_sys_uninstall(void)
{
    sys_set_ops(nullptr);
}

void fake_sys_answer(const std::string &pattern, const std::string &output)
{
    rules.push_back({pattern, output});
}

void fake_sys_system_status(int status)
{
    sys_status = status;
}

const std::vector<std::string> &fake_sys_log(void)
{
    return seen;
}

std::vector<std::string> fake_sys_system_cmds(void)
{
    std::vector<std::string> out;
    for (const auto &s : seen)
        if (s.rfind("system: ", 0) == 0)
            out.push_back(s.substr(8));
    return out;
}

bool fake_sys_ran(const std::string &cmd)
{
    for (const auto &s : seen)
        if (s == "popen: " + cmd || s == "system: " + cmd)
            return true;
    return false;
}
