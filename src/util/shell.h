// Running platform commands, reading their output, and sanitising texts
// bound for a command line; small file and uptime helpers.
#pragma once
#include <stddef.h>
#include <stdint.h>

// Runs `cmd` and collects its output in 128-byte chunks into `out`.
// 0 = output captured; -1 = failure (no output counts as failure).
int32_t tolva_exec_cmd(const char *cmd, char *out, int32_t size);
// One read of up to `n` bytes after a fixed wait (5 ms / 0.5 s); `buf` must
// hold n + 1 bytes. Returns `buf`, or null when the command cannot start.
char *getCmdResult(const char *cmd, char *buf, int32_t n);
char *getCmdResultSlow(const char *cmd, char *buf, int32_t n);
// 0 = clean, -1 = holds one of the forbidden shell characters.
int32_t check_injection(const char *text);
// One text argument per 's' in `types`; 0 = all clean, -1 = first unclean one.
int32_t check_params(const char *types, ...);
char *str_trim(char *text);
// snprintf for command lines: a text cut at `limit` is the intended result.
void cmd_format(char *cmd, size_t limit, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int32_t f_string_read(const char *path, void *buf, uint32_t size);
int32_t f_string_write(const char *path, const void *buf, uint32_t size);
int32_t uptime(void);
