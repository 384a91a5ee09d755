/* LD_PRELOAD trace library of scripts/bench, loaded into the two daemons
 * during the pairings only: logs sleeps and naps, commands (popen..pclose,
 * system, posix_spawn..waitpid), timed-out select/recv with wall-clock times,
 * and VmHWM at exit(). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <poll.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static int tfd = -1;

static double now(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

static void rec(const char *kind, double t0, double t1, double arg, const char *text)
{
    if (tfd < 0)
        return;
    int e = errno;
    char line[600];
    int n = snprintf(line, sizeof(line), "%d %ld %s %.6f %.6f %.6f %.400s\n", (int)getpid(),
                     (long)syscall(SYS_gettid), kind, t0, t1, arg, text ? text : "");
    if (n >= (int)sizeof(line))
        n = (int)sizeof(line) - 1;
    for (int i = 0; i < n - 1; i++)
        if (line[i] == '\n')
            line[i] = ' ';
    if (write(tfd, line, (size_t)n) < 0) {
    }
    errno = e;
}

#define REAL(ret, name, ...) \
    static ret (*real_##name)(__VA_ARGS__); \
    if (!real_##name) \
        real_##name = (ret (*)(__VA_ARGS__))dlsym(RTLD_NEXT, #name)

__attribute__((constructor)) static void shim_init(void)
{
    double t = now();
    const char *p = getenv("BENCH_TRACE");
    if (p)
        tfd = open(p, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    unsetenv("LD_PRELOAD");
    unsetenv("BENCH_TRACE");
    rec("start", t, t, 0, "");
}

static long status_kb(const char *buf, const char *key)
{
    const char *p = strstr(buf, key);
    return p ? atol(p + strlen(key)) : -1;
}

__attribute__((destructor)) static void shim_fini(void)
{
    char buf[4096];
    int fd = open("/proc/self/status", O_RDONLY);
    long hwm = -1, rss = -1;
    if (fd >= 0) {
        ssize_t n = read(fd, buf, sizeof(buf) - 1);
        close(fd);
        if (n > 0) {
            buf[n] = 0;
            hwm = status_kb(buf, "VmHWM:");
            rss = status_kb(buf, "VmRSS:");
        }
    }
    double t = now();
    char txt[64];
    snprintf(txt, sizeof(txt), "rss_kb=%ld", rss);
    rec("exit", t, t, (double)hwm, txt);
}

int usleep(useconds_t us)
{
    REAL(int, usleep, useconds_t);
    double t0 = now();
    int r = real_usleep(us);
    rec("usleep", t0, now(), us / 1e6, "");
    return r;
}

unsigned int sleep(unsigned int s)
{
    REAL(unsigned int, sleep, unsigned int);
    double t0 = now();
    unsigned int r = real_sleep(s);
    rec("sleep", t0, now(), (double)s, "");
    return r;
}

int select(int n, fd_set *r, fd_set *w, fd_set *e, struct timeval *tv)
{
    REAL(int, select, int, fd_set *, fd_set *, fd_set *, struct timeval *);
    double req = tv ? tv->tv_sec + tv->tv_usec / 1e6 : -1;
    double t0 = now();
    int rv = real_select(n, r, w, e, tv);
    if (rv == 0)
        rec("select_to", t0, now(), req, "");
    return rv;
}

/* The daemon's naps (its sleeps, which a noted signal can cut short) poll
 * the signal wake-up pipe with a time-out: one that runs out is a "nap" of
 * its nominal length; polls on sockets (TLS waits) are not recorded. */
int poll(struct pollfd *fds, nfds_t n, int ms)
{
    REAL(int, poll, struct pollfd *, nfds_t, int);
    struct stat st;
    double t0 = now();
    int rv = real_poll(fds, n, ms);
    if (rv == 0 && n == 1 && ms > 0 && fstat(fds[0].fd, &st) == 0 && S_ISFIFO(st.st_mode))
        rec("nap", t0, now(), ms / 1e3, "");
    return rv;
}

static void recv_note(ssize_t rv, double t0)
{
    if (rv < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        double t1 = now();
        if (t1 - t0 > 0.001)
            rec("recv_to", t0, t1, t1 - t0, "");
    }
}

ssize_t recv(int fd, void *buf, size_t len, int flags)
{
    REAL(ssize_t, recv, int, void *, size_t, int);
    double t0 = now();
    ssize_t rv = real_recv(fd, buf, len, flags);
    recv_note(rv, t0);
    return rv;
}

ssize_t recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *sa, socklen_t *sl)
{
    REAL(ssize_t, recvfrom, int, void *, size_t, int, struct sockaddr *, socklen_t *);
    double t0 = now();
    ssize_t rv = real_recvfrom(fd, buf, len, flags, sa, sl);
    recv_note(rv, t0);
    return rv;
}

static struct { FILE *fp; double t0; char cmd[400]; } opened[16];

FILE *popen(const char *cmd, const char *mode)
{
    REAL(FILE *, popen, const char *, const char *);
    double t0 = now();
    FILE *fp = real_popen(cmd, mode);
    for (int i = 0; fp && i < 16; i++) {
        if (__sync_bool_compare_and_swap(&opened[i].fp, NULL, fp)) {
            opened[i].t0 = t0;
            snprintf(opened[i].cmd, sizeof(opened[i].cmd), "%s", cmd);
            break;
        }
    }
    return fp;
}

int pclose(FILE *fp)
{
    REAL(int, pclose, FILE *);
    int rv = real_pclose(fp);
    double t1 = now();
    for (int i = 0; fp && i < 16; i++) {
        if (opened[i].fp == fp) {
            rec("popen", opened[i].t0, t1, 0, opened[i].cmd);
            opened[i].fp = NULL;
            break;
        }
    }
    return rv;
}

int system(const char *cmd)
{
    REAL(int, system, const char *);
    double t0 = now();
    int rv = real_system(cmd);
    rec("system", t0, now(), 0, cmd);
    return rv;
}

/* The daemon starts its commands with posix_spawn("/bin/sh", "-c", cmd) and
 * reaps them with waitpid: a "spawn" span runs from the one to the other. */
static struct { pid_t pid; double t0; char cmd[400]; } spawned[16];

int posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *fa,
                const posix_spawnattr_t *at, char *const argv[], char *const envp[])
{
    REAL(int, posix_spawn, pid_t *, const char *, const posix_spawn_file_actions_t *,
         const posix_spawnattr_t *, char *const *, char *const *);
    double t0 = now();
    int rv = real_posix_spawn(pid, path, fa, at, argv, envp);
    for (int i = 0; rv == 0 && pid && *pid > 0 && i < 16; i++) {
        if (__sync_bool_compare_and_swap(&spawned[i].pid, 0, -1)) {
            spawned[i].t0 = t0;
            snprintf(spawned[i].cmd, sizeof(spawned[i].cmd), "%s",
                     argv[0] && argv[1] && argv[2] ? argv[2] : path);
            __sync_synchronize();
            spawned[i].pid = *pid;
            break;
        }
    }
    return rv;
}

pid_t waitpid(pid_t pid, int *status, int options)
{
    REAL(pid_t, waitpid, pid_t, int *, int);
    pid_t rv = real_waitpid(pid, status, options);
    double t1 = now();
    for (int i = 0; rv > 0 && i < 16; i++) {
        if (spawned[i].pid == rv) {
            rec("spawn", spawned[i].t0, t1, 0, spawned[i].cmd);
            __sync_synchronize();
            spawned[i].pid = 0;
            break;
        }
    }
    return rv;
}
