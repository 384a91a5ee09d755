#include "fake_sys.h"

#include <deque>
#include <stdio.h>
#include <string.h>

#include "util/sys.h"

namespace {
std::vector<std::pair<std::string, std::string>> rules;   // pattern, output
std::vector<std::string> seen;
std::deque<std::string> buffers;   // fmemopen keeps pointers into these
int sys_status;

FILE *fake_popen(const char *cmd, const char *)
{
    seen.push_back(std::string("popen: ") + cmd);
    for (auto it = rules.rbegin(); it != rules.rend(); ++it) {
        const std::string &pat = it->first;
        bool prefix = !pat.empty() && pat.back() == '*';
        if (prefix ? strncmp(cmd, pat.c_str(), pat.size() - 1) != 0 : pat != cmd)
            continue;
        if (it->second.empty())
            break;
        buffers.push_back(it->second);
        return fmemopen(&buffers.back()[0], buffers.back().size(), "r");
    }
    return fopen("/dev/null", "r");
}

int fake_pclose(FILE *fp)
{
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

void fake_sys_install(void)
{
    rules.clear();
    seen.clear();
    buffers.clear();
    sys_status = 0;
    sys_set_ops(&fake_ops);
}

void fake_sys_uninstall(void) { sys_set_ops(nullptr); }
void fake_sys_answer(const std::string &pattern, const std::string &output) { rules.push_back({pattern, output}); }
void fake_sys_system_status(int status) { sys_status = status; }
const std::vector<std::string> &fake_sys_log(void) { return seen; }

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
