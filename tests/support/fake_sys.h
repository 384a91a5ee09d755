// Test double for the shell seam: records every command line the daemon
// would run and answers popen() from canned outputs (unmatched: no output).
#pragma once
#include <functional>
#include <string>
#include <vector>

void fake_sys_install(void);   // also clears rules, records, status and hook
void fake_sys_uninstall(void);
// `pattern` matches a command exactly, or as a prefix when it ends in '*'. Later rules win;
// the output FAKE_SYS_FAIL makes popen() itself fail.
#define FAKE_SYS_FAIL "\x01" "fail"
void fake_sys_answer(const std::string &pattern, const std::string &output);
// A router with 2.4 GHz on wl1 (wifi2), 5 GHz on wl0 (wifi1), backhaul AP on wl5.
void fake_sys_router(void);
void fake_sys_hook(std::function<void(const std::string &)> hook);   // sees each command first
void fake_sys_system_status(int status);                             // raw wait status of system()
const std::vector<std::string> &fake_sys_log(void);                  // "popen: ..." / "system: ..."
std::vector<std::string> fake_sys_system_cmds(void);
bool fake_sys_ran(const std::string &cmd);
