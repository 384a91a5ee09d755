#include "util/log.h"

#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>
#include <sys/syscall.h>
#include <unistd.h>

int32_t log_level = 7;
int32_t log_mode = LOG_MODE_SYSLOG;
static int log_opened;
static int log_announced;

// The syslog connection opens with the first message of either kind, under
// the daemon's name and at once (LOG_NDELAY). musl keeps the socket its
// first syslog() opens for good, so a lazy open would add a descriptor in
// the middle of a run (with the first status record); and it names records
// sent before any openlog() with nothing, where glibc takes the program name.
static void log_open(void)
{
    if (log_opened)
        return;
    log_opened = 1;
    openlog("plaitd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
}

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
    if (!log_announced) {
        log_announced = 1;
        log_open();
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
    log_open();
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
