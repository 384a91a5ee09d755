// Test double for the shell seam: records every command line the daemon
// would run and answers popen() from canned outputs.
#pragma once
#include <string>
#include <vector>

// Installs the fake (and clears rules and records). Unmatched popen commands
// answer with empty output.
void fake_sys_install(void);
void fake_sys_uninstall(void);
// `pattern` matches a command exactly, or as a prefix when it ends in '*'.
// Later rules win over earlier ones.
void fake_sys_answer(const std::string &pattern, const std::string &output);
// Status returned by system() from now on (the raw wait status).
void fake_sys_system_status(int status);
// Every command seen, in order: popen ones prefixed "popen: ", system ones "system: ".
const std::vector<std::string> &fake_sys_log(void);
// Only the system() command lines, in order.
std::vector<std::string> fake_sys_system_cmds(void);
bool fake_sys_ran(const std::string &cmd);
