#include "util/sys.h"

#include <stdlib.h>

static const sys_ops sys_real = {popen, pclose, system};
static const sys_ops *sys_cur = &sys_real;

void sys_set_ops(const sys_ops *ops)
{
    sys_cur = ops ? ops : &sys_real;
}

FILE *sys_popen(const char *cmd, const char *mode)
{
    return sys_cur->popen_fn(cmd, mode);
}

int sys_pclose(FILE *fp)
{
    return sys_cur->pclose_fn(fp);
}

int sys_system(const char *cmd)
{
    return sys_cur->system_fn(cmd);
}
