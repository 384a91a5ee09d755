#include "util/pstat.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "util/proc.h"
#include "util/shell.h"

pstat_state g_pstat;

// Peer threads and the main thread of a CAP all report.
static pthread_mutex_t pstat_lock = PTHREAD_MUTEX_INITIALIZER;

static constexpr const char *phase_names[] = {
    "",       "discovery",    "connecting", "tls",     "auth",
    "config", "initialising", "paired",     "waiting", "failed",
};
static_assert(sizeof(phase_names) / sizeof(phase_names[0]) == PS_COUNT, "a name per phase");

// Peer texts come off the wire: only what a MAC or an address holds gets
// into the file, so that no text can leave its JSON string.
static void copy_plain(char *dst, size_t size, const char *src)
{
    size_t i = 0;
    for (; src && i + 1 < size && src[i]; i++)
        dst[i] = strchr("0123456789abcdefABCDEF:.", src[i]) ? src[i] : '?';
    dst[i] = '\0';
}

static void write_locked(void)
{
    const pstat_state &s = g_pstat;
    char text[PSTAT_TEXT_SIZE];
    int n = snprintf(text, sizeof(text),
                     "{\"role\":\"%s\",\"pid\":%d,\"phase\":\"%s\",\"since\":%d,"
                     "\"peer\":{\"addr\":\"%s\",\"mac\":\"%s\",\"mac2\":\"%s\",\"mac5\":\"%s\"},"
                     "\"last_failure\":{\"reason\":\"%s\",\"phase\":\"%s\"},"
                     "\"attempts\":%d,\"pairings\":%d,\"refusals\":%d}\n",
                     g_is_server ? "cap" : "re", (int)getpid(), phase_names[s.phase], s.since,
                     s.addr, s.mac[0], s.mac[1], s.mac[2], s.fail_reason, phase_names[s.fail_phase],
                     s.attempts, s.pairings, s.refusals);
    if (n <= 0 || n >= (int)sizeof(text) || strcmp(text, g_pstat.text) == 0)
        return;
    int fd = open(PSTAT_FILE ".tmp", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    bool written = write(fd, text, (size_t)n) == n;
    close(fd);
    if (written && rename(PSTAT_FILE ".tmp", PSTAT_FILE) == 0)
        memcpy(g_pstat.text, text, (size_t)n + 1);
    else
        unlink(PSTAT_FILE ".tmp");
}

static void set_phase_locked(int32_t phase)
{
    if (phase == g_pstat.phase)
        return;
    if (phase == PS_PAIRED)
        g_pstat.pairings++;
    g_pstat.phase = phase;
    g_pstat.since = uptime();
}

void pstat_phase(int32_t phase)
{
    pthread_mutex_lock(&pstat_lock);
    set_phase_locked(phase);
    write_locked();
    pthread_mutex_unlock(&pstat_lock);
}

int32_t pstat_begin(int32_t phase, const char *addr)
{
    pthread_mutex_lock(&pstat_lock);
    memset(g_pstat.mac, 0, sizeof(g_pstat.mac));
    copy_plain(g_pstat.addr, sizeof(g_pstat.addr), addr);
    g_pstat.attempts++;
    g_pstat.phase = PS_NONE;   // a new attempt starts its phase again
    set_phase_locked(phase);
    write_locked();
    int32_t attempt = g_pstat.attempts;
    pthread_mutex_unlock(&pstat_lock);
    return attempt;
}

void pstat_macs(const char *mac, const char *mac2, const char *mac5)
{
    const char *src[3] = {mac, mac2, mac5};
    pthread_mutex_lock(&pstat_lock);
    for (int i = 0; i < 3; i++)
        if (src[i])
            copy_plain(g_pstat.mac[i], 19, src[i]);   // a full MAC field has no terminator
    pthread_mutex_unlock(&pstat_lock);
}

static void fail_locked(const char *reason)
{
    if (g_pstat.phase < PS_CONNECTING || g_pstat.phase > PS_INITIALISING)
        return;
    snprintf(g_pstat.fail_reason, sizeof(g_pstat.fail_reason), "%s", reason);
    g_pstat.fail_phase = g_pstat.phase;
    set_phase_locked(PS_FAILED);
}

void pstat_fail(const char *reason)
{
    pthread_mutex_lock(&pstat_lock);
    fail_locked(reason);
    write_locked();
    pthread_mutex_unlock(&pstat_lock);
}

void pstat_refused(void)
{
    pthread_mutex_lock(&pstat_lock);
    g_pstat.refusals++;
    write_locked();
    pthread_mutex_unlock(&pstat_lock);
}

void pstat_done(int32_t attempt)
{
    pthread_mutex_lock(&pstat_lock);
    if (attempt == g_pstat.attempts) {
        fail_locked("CONNECT_FAILED");
        if (g_pstat.phase != PS_PAIRED)
            set_phase_locked(PS_WAITING);
        write_locked();
    }
    pthread_mutex_unlock(&pstat_lock);
}
