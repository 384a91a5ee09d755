#include "util/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>
#include <sys/syscall.h>
#include <unistd.h>

int32_t log_level = 7;
int32_t log_mode = LOG_MODE_SYSLOG;
static int log_opened;

static long log_tid(void)
{
    return (long)syscall(SYS_gettid);
}

void log_(int32_t pri, const char *func, uint32_t line, const char *fmt, ...)
{
    (void)func;
    (void)line;
    if (log_level < pri) {
        fputs("cmd;log level error\n ", stderr);
        return;
    }
    if (!log_opened) {
        log_opened = 1;
        openlog("plaitd", LOG_PID, LOG_DAEMON);
        if (log_level >= 3)
            log_(3, "log_init", __LINE__, "enable log with level: %d\n", log_level);
    }
    char efmt[512];
    snprintf(efmt, sizeof(efmt), log_mode == LOG_MODE_STDERR ? "plaitd[%ld]: %s" : "[%ld]: %s",
             log_tid(), fmt);
    va_list ap;
    va_start(ap, fmt);
    if (log_mode == LOG_MODE_STDERR)
        vfprintf(stderr, efmt, ap);
    else
        vsyslog(pri, efmt, ap);
    va_end(ap);
}

int32_t log_level_set(int32_t level)
{
    log_level = level >= 8 ? 7 : level < 0 ? 0 : level;
    LOG(3, "Set log level to level: %d ", log_level);
    return 0;
}

int32_t log_mode_set(uint32_t mode)
{
    if (mode < 2) {
        log_mode = (int32_t)mode;
        return 0;
    }
    LOG(3, "set log mode to %d[%s] error\n", (int)mode, "LOG_MODE_STDERR");
    return -1;
}

void report_status(const char *fmt, ...)
{
    va_list ap, ap2;
    va_start(ap, fmt);
    va_copy(ap2, ap);
    // Exactly the formatted text, no line feed added; the platform reads
    // it from a pipe, so it is pushed out at once.
    vprintf(fmt, ap);
    fflush(stdout);
    vsyslog(LOG_LOCAL1 | LOG_INFO, fmt, ap2);
    va_end(ap2);
    va_end(ap);
}
