// Shared set-up of the fuzz drivers: quiet logging, a platform that answers
// through fake_sys, and no real waiting.
#pragma once
#include <stddef.h>
#include <stdint.h>

// Once per process: logs to stderr (libFuzzer's -close_fd_mask hides them),
// installs fake_sys with the answers of a typical router.
void fuzz_setup_platform(void);
// Answers of a router with 2.4 GHz on wl1, 5 GHz on wl0, backhaul AP on wl5.
void fuzz_answer_router(void);
