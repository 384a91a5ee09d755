// Shared set-up of the fuzz drivers: logs to stderr (libFuzzer's
// -close_fd_mask hides them), a platform answered by fake_sys as a typical
// router, and no real waiting.
#pragma once
#include <stddef.h>
#include <stdint.h>

void fuzz_setup_platform(void);
