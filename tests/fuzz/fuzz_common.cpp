#include "fuzz_common.h"

#include <unistd.h>

#include "fake_sys.h"
#include "util/log.h"

// The command readers wait up to half a second for their output; fake_sys answers at once.
extern "C" int usleep(useconds_t)
{
    return 0;
}

void fuzz_setup_platform(void)
{
    log_mode = LOG_MODE_STDERR;
    fake_sys_install();
    fake_sys_router();
}
