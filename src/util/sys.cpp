// The real calls behind the seam. Commands start through posix_spawn with an
// empty signal mask: a peer thread runs with the daemon's signals blocked,
// and a blocked (or ignored) signal would survive exec into `uci` or
// `mesh_setup.sh`. Unlike the C library's system(), nothing here ignores
// SIGINT in the daemon while a command runs, so a stop is never lost.
#include "util/sys.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "util/sig.h"

extern char **environ;

namespace
{

enum { SYS_OPEN_MAX = 16 };

struct sys_child {
    FILE *fp;
    pid_t pid;
};
sys_child sys_children[SYS_OPEN_MAX];
pthread_mutex_t sys_mu = PTHREAD_MUTEX_INITIALIZER;

// Starts "/bin/sh -c cmd"; `out_fd` >= 0 becomes its standard output.
pid_t sys_spawn(const char *cmd, int out_fd, int close_fd)
{
    posix_spawn_file_actions_t fa;
    posix_spawnattr_t at;
    sigset_t none;
    sigemptyset(&none);
    posix_spawn_file_actions_init(&fa);
    if (out_fd >= 0) {
        posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
        posix_spawn_file_actions_addclose(&fa, close_fd);
    }
    posix_spawnattr_init(&at);
    posix_spawnattr_setsigmask(&at, &none);
    posix_spawnattr_setflags(&at, POSIX_SPAWN_SETSIGMASK);
    char *argv[] = {(char *)"sh", (char *)"-c", (char *)cmd, nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", &fa, &at, argv, environ) != 0)
        pid = -1;
    posix_spawnattr_destroy(&at);
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

// A stop noted while the main thread waits for a command gives the command
// 500 ms to end (its changes and those of the clean-up must not interleave),
// then is acted on; a command still running then (a hanging script) is left
// to run.
enum { STOP_NAP_US = 10000, STOP_GRACE_NAPS = 50 };

int sys_wait(pid_t pid)
{
    int status = -1;
    int naps = 0;
    for (;;) {
        bool grace = sig_on_main() && g_sig_stop && naps < STOP_GRACE_NAPS;
        pid_t r = waitpid(pid, &status, grace ? WNOHANG : 0);
        if (r == pid)
            break;
        if (r < 0 && errno != EINTR)
            return -1;
        if (grace) {
            usleep(STOP_NAP_US);
            if (++naps == STOP_GRACE_NAPS)
                sig_stop_point();
        }
    }
    sig_stop_point();
    return status;
}

FILE *real_popen(const char *cmd, const char *mode)
{
    if (!cmd || !mode || mode[0] != 'r')
        return nullptr;
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0)
        return nullptr;
    pid_t pid = sys_spawn(cmd, p[1], p[0]);
    close(p[1]);
    FILE *fp = pid > 0 ? fdopen(p[0], "r") : nullptr;
    if (!fp) {
        close(p[0]);
        if (pid > 0)
            sys_wait(pid);
        return nullptr;
    }
    pthread_mutex_lock(&sys_mu);
    int i = 0;
    while (i < SYS_OPEN_MAX && sys_children[i].fp)
        i++;
    if (i < SYS_OPEN_MAX)
        sys_children[i] = {fp, pid};
    pthread_mutex_unlock(&sys_mu);
    if (i == SYS_OPEN_MAX) {
        fclose(fp);
        sys_wait(pid);
        return nullptr;
    }
    return fp;
}

int real_pclose(FILE *fp)
{
    pid_t pid = -1;
    pthread_mutex_lock(&sys_mu);
    for (sys_child &c : sys_children)
        if (fp && c.fp == fp) {
            pid = c.pid;
            c = {nullptr, 0};
        }
    pthread_mutex_unlock(&sys_mu);
    if (pid < 0)
        return -1;
    fclose(fp);
    return sys_wait(pid);
}

int real_system(const char *cmd)
{
    if (!cmd)
        return 1;
    pid_t pid = sys_spawn(cmd, -1, -1);
    return pid > 0 ? sys_wait(pid) : -1;
}

const sys_ops sys_real = {real_popen, real_pclose, real_system};
const sys_ops *sys_cur = &sys_real;

}   // namespace

void sys_set_ops(const sys_ops *ops)
{
    sys_cur = ops ? ops : &sys_real;
}

FILE *sys_popen(const char *cmd, const char *mode)
{
    return sys_cur->popen_fn(cmd, mode);
}

int sys_pclose(FILE *fp)
{
    return sys_cur->pclose_fn(fp);
}

int sys_system(const char *cmd)
{
    return sys_cur->system_fn(cmd);
}
