// Test double for the shell seam: records every command line the daemon
// would run and answers popen() from canned outputs.
#pragma once
#include <functional>
#include <string>
#include <vector>

// Installs the fake (rules and records cleared). Unmatched popen commands answer nothing.
void fake_sys_install(void);
void fake_sys_uninstall(void);
// `pattern` matches a command exactly, or as a prefix when it ends in '*'. Later rules win.
void fake_sys_answer(const std::string &pattern, const std::string &output);
// The answers of a router with 2.4 GHz on wl1 (wifi2), 5 GHz on wl0 (wifi1), backhaul AP on wl5.
void fake_sys_router(void);
// Called with every command line before it is answered (may add rules); empty: none.
void fake_sys_hook(std::function<void(const std::string &)> hook);
void fake_sys_system_status(int status);   // raw wait status of system() from now on
// Every command seen, in order, prefixed "popen: " or "system: ".
const std::vector<std::string> &fake_sys_log(void);
std::vector<std::string> fake_sys_system_cmds(void);
bool fake_sys_ran(const std::string &cmd);
