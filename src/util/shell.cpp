// Running platform commands and reading their output; the guard for texts
// that end up on a command line; small file and uptime helpers.
#include "util/shell.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "util/log.h"
#include "util/sig.h"
#include "util/sys.h"

enum { CMD_CHUNK = 128 };

// Appends one chunk; -1 when it would not fit with its terminator.
static int32_t append_chunk(char *out, int32_t size, const char *chunk)
{
    if ((size_t)size < strlen(out) + strlen(chunk) + 1)
        return -1;
    strncat(out, chunk, (size_t)size);
    return 0;
}

int32_t tolva_exec_cmd(const char *cmd, char *out, int32_t size)
{
    if (!cmd || !out || size < 1)
        return -1;
    out[0] = '\0';
    FILE *fp = sys_popen(cmd, "r");
    if (!fp)
        return -1;
    int32_t ret;
    char chunk[CMD_CHUNK + 1];   // room for the terminator of a full chunk
    for (;;) {
        if (feof(fp)) {
            ret = 0;
            break;
        }
        memset(chunk, 0, sizeof(chunk));
        errno = 0;   // a stale EINTR must not turn "no output" into success
        if (fread(chunk, 1, CMD_CHUNK, fp) > 0) {
            ret = append_chunk(out, size, chunk);
            if (ret < 0)
                break;
        } else if (errno != EINTR) {
            ret = -1;
            break;
        } else {
            sig_stop_point();   // a query's output is not needed by a stop
        }
    }
    sys_pclose(fp);
    return ret;
}

static char *cmd_result(const char *cmd, char *buf, int32_t n, useconds_t wait_us)
{
    FILE *fp = sys_popen(cmd, "r");
    if (!fp)
        return nullptr;
    usleep(wait_us);          // one read only: give the command time to answer
    fseek(fp, 0, SEEK_SET);   // fails on a pipe; harmless
    size_t got = fread(buf, 1, n > 0 ? (size_t)n : 0, fp);
    if (got > 0 && buf[got - 1] == '\n')
        buf[got - 1] = '\0';
    buf[got] = '\0';
    sys_pclose(fp);
    return buf;
}

char *getCmdResult(const char *cmd, char *buf, int32_t n)
{
    return cmd_result(cmd, buf, n, 5000);
}

char *getCmdResultSlow(const char *cmd, char *buf, int32_t n)
{
    return cmd_result(cmd, buf, n, 500000);
}

// Shell metacharacters refused in any value bound for a command line.
static constexpr char injection_chars[] = "@`$#,;'\\\"[]&*()|<>";
static_assert(sizeof(injection_chars) - 1 == 18, "eighteen forbidden characters");

int32_t check_injection(const char *text)
{
    if (!text)
        return 0;
    for (const char *c = injection_chars; *c; c++) {
        if (strchr(text, *c)) {
            LOG(3, "check_injection failed: %s[%c].\n", text, *c);
            return -1;
        }
    }
    return 0;
}

int32_t check_params(const char *types, ...)
{
    va_list ap;
    int32_t ret = 0;
    va_start(ap, types);
    for (const char *t = types; t && *t; t++) {
        if (*t != 's')
            continue;
        const char *s = va_arg(ap, const char *);
        printf("string %s\n", s ? s : "(null)");
        if (check_injection(s) < 0) {
            ret = -1;
            break;
        }
    }
    va_end(ap);
    return ret;
}

static int is_trim_space(char c)
{
    return c == '\t' || c == '\n' || c == '\r' || c == ' ';
}

char *str_trim(char *text)
{
    if (!text)
        return nullptr;
    size_t lead = 0;
    while (is_trim_space(text[lead]))
        lead++;
    size_t len = strlen(text + lead);
    if (lead)
        memmove(text, text + lead, len + 1);
    while (len > 1 && is_trim_space(text[len - 1]))
        text[--len] = '\0';
    return text;
}

int32_t f_string_read(const char *path, void *buf, uint32_t size)
{
    FILE *fp = fopen(path, "re");
    if (!fp)
        return 0;
    int32_t n = (int32_t)fread(buf, size, 1, fp);
    fclose(fp);
    return n;
}

int32_t f_string_write(const char *path, const void *buf, uint32_t size)
{
    FILE *fp = fopen(path, "we");
    if (!fp)
        return 0;
    int32_t n = (int32_t)fwrite(buf, size, 1, fp);
    fclose(fp);
    return n;
}

int32_t uptime(void)
{
    struct sysinfo si;
    memset(&si, 0, sizeof(si));
    if (sysinfo(&si) != 0)
        return 0;
    return (int32_t)si.uptime;
}

void cmd_format(char *cmd, size_t limit, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(cmd, limit, fmt, ap);
    va_end(ap);
}
