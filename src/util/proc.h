// Process globals that every layer reads: the role, the run mode and the
// stop flag. Plain words by design: the loops read them without locks.
#pragma once
#include <stdint.h>

extern int32_t g_is_server;   // 1 = CAP, 0 = RE
extern int32_t g_dry_run;     // 1 = pair but hand nothing to the platform
extern int32_t stop;          // set once the clean-up began; ends the discovery responder
