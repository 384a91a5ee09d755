// Logger and status-record printer.
#pragma once
#include <stdint.h>

enum { LOG_MODE_SYSLOG = 0, LOG_MODE_STDERR = 1 };

extern int32_t log_level;   // highest syslog priority still emitted (0..7)
extern int32_t log_mode;    // LOG_MODE_SYSLOG or LOG_MODE_STDERR

void log_(int32_t pri, const char *func, uint32_t line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
int32_t log_level_set(int32_t level);
int32_t log_mode_set(uint32_t mode);
// One status record for the platform: stdout (flushed at once) and syslog.
void report_status(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Every message goes through LOG: it supplies the caller's function name and
// line, and evaluates no argument when the level filters the message out.
#define LOG(pri, ...)                                               \
    do {                                                            \
        if (log_level >= (pri))                                     \
            log_((pri), __func__, (uint32_t)__LINE__, __VA_ARGS__); \
    } while (0)

// Same, under an explicit function name (for texts that name another function).
#define LOG_AS(pri, name, ...)                                    \
    do {                                                          \
        if (log_level >= (pri))                                   \
            log_((pri), (name), (uint32_t)__LINE__, __VA_ARGS__); \
    } while (0)
