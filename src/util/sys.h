// The one seam through which the daemon runs shell commands. The daemon uses
// its own popen/pclose/system (sys.cpp); a test installs a recorder to see the
// exact command lines without running them.
#pragma once
#include <stdio.h>

struct sys_ops {
    FILE *(*popen_fn)(const char *cmd, const char *mode);
    int (*pclose_fn)(FILE *fp);
    int (*system_fn)(const char *cmd);
};

// Installs `ops` (null restores the real calls).
void sys_set_ops(const sys_ops *ops);

FILE *sys_popen(const char *cmd, const char *mode);
int sys_pclose(FILE *fp);
int sys_system(const char *cmd);
