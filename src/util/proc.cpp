#include "util/proc.h"

int32_t g_is_server = 0;
int32_t g_dry_run = 0;
int32_t stop = 0;
