// What a test includes: the daemon's headers, the shell recorder (fake_sys.cpp), helpers.
#pragma once
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "client/client.h"
#include "conn/sockopt.h"
#include "conn/tls.h"
#include "core/flow.h"
#include "discovery/ddprobe.h"
#include "discovery/ddsock.h"
#include "platform/env.h"
#include "platform/meshinit.h"
#include "platform/meshlock.h"
#include "platform/wificonf.h"
#include "proto/auth.h"
#include "proto/frame.h"
#include "proto/sync.h"
#include "server/server.h"
#include "util/addr.h"
#include "util/codec.h"
#include "util/log.h"
#include "util/proc.h"
#include "util/shell.h"
#include "util/sig.h"
#include "util/sys.h"

// The shell recorder: every command line is recorded; popen() is answered from canned
// outputs, matched exactly or by a prefix ending in '*', later rules first (unmatched: no
// output; FAKE_SYS_FAIL: popen() fails).
#define FAKE_SYS_FAIL \
    "\x01"            \
    "fail"
void fake_sys_install(void);   // also clears rules, records, status, hook and uptime
void fake_sys_answer(const std::string &pattern, const std::string &output);
// A router with 2.4 GHz on wl1 (wifi2), 5 GHz on wl0 (wifi1), backhaul AP on wl5.
void fake_sys_router(void);
void fake_sys_hook(std::function<void(const std::string &)> hook);   // sees each command first
void fake_sys_system_status(int status);                             // raw wait status of system()
std::vector<std::string> fake_sys_system_cmds(void);
bool fake_sys_ran(const std::string &cmd);
size_t fake_sys_scripts(void);   // mesh_setup.sh command lines run so far
// The daemon's naps (usleep) are counted, and pass at once unless real sleep is asked for.
extern bool fake_sys_real_sleep;
extern std::atomic<int> fake_sys_naps;
// The uptime the daemon reads (sysinfo) when above 0; else the machine's.
extern int32_t fake_sys_uptime;

// What `fn` writes to a standard stream.
inline std::string captured(FILE *s, const std::function<void()> &fn)
{
    char path[] = "/tmp/cap-XXXXXX", buf[4096];
    int tmp = mkstemp(path);
    int saved = dup(fileno(s));
    unlink(path);
    fflush(s);
    dup2(tmp, fileno(s));
    fn();
    fflush(s);
    dup2(saved, fileno(s));
    close(saved);
    std::string out;
    for (ssize_t n, off = 0; (n = pread(tmp, buf, sizeof(buf), off)) > 0; off += n)
        out.append(buf, (size_t)n);
    close(tmp);
    return out;
}

// One byte from fd, without waiting unless told: 0 when the other end closed or shut down, -1
// when it is open with nothing to read.
// A fresh process state for one case: empty pool, no share, the stamp `now`, the log quiet, a
// TLS context, the command recorder installed.
inline void reset_state(int is_server, int32_t now)
{
    memset(ent_pool, 0, sizeof(ent_pool));
    main_ent = nullptr;
    g_srving_cnt = 0;
    current = now;
    ip_changed = 0;
    g_is_server = is_server;
    log_mode = LOG_MODE_STDERR;
    log_level = 0;
    if (!g_ssl_ctx)
        g_ssl_ctx = SSL_CTX_new(TLS_method());
    fake_sys_install();
}

inline int recv_one(int fd, int flags = MSG_DONTWAIT)
{
    char c;
    return (int)recv(fd, &c, 1, flags);
}

// A network namespace of the test's own with loopback up, so fixed ports and
// broadcasts never reach the host. Call before any thread starts.
inline bool netns_enter_private(void)
{
    int s = unshare(CLONE_NEWNET) == 0 ? socket(AF_INET, SOCK_DGRAM, 0) : -1;
    struct ifreq ifr = {};
    strcpy(ifr.ifr_name, "lo");
    ifr.ifr_flags = IFF_UP;
    bool ok = s >= 0 && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    close(s);
    return ok;
}

// The daemon's own TLS context of each role over a throw-away certificate (also the CA).
inline bool tls_setup(const std::string &dir, SSL_CTX **cap, SSL_CTX **re)
{
    static std::string ct, ky;
    ct = dir + "/ct";
    ky = dir + "/ky";
    std::string cmd = "mkdir -p " + dir +
                      " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
                      "-nodes -days 1 -subj /CN=cap -keyout " +
                      ky + " -out " + ct + " 2>/dev/null";
    certfile = cafile = ct.c_str();
    keyfile = ky.c_str();
    bool made = system(cmd.c_str()) == 0;
    for (int server : {1, 0}) {
        g_ssl_ctx = nullptr;
        g_is_server = server;
        *(server ? cap : re) = made && ssl_init() == 0 ? g_ssl_ctx : nullptr;
    }
    g_ssl_ctx = nullptr;
    return *cap && *re;
}

// A handshaken pair over a socketpair (slot 1: the CAP's peer record, slot 0: the RE's
// main record): 0, else ssl_accept's result (-1) or -2.
inline int32_t tls_connect_pair(SSL_CTX *cap_ctx, SSL_CTX *re_ctx, entity **cap, entity **re)
{
    int fds[2], rc = 0;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return -2;
    g_is_server = 1;
    g_ssl_ctx = cap_ctx;
    *cap = new_entity("peer-10.0.0.2", fds[0], 0);
    g_is_server = 0;
    g_ssl_ctx = re_ctx;
    *re = main_ent = new_entity("RE", fds[1], 1);
    g_ssl_ctx = nullptr;
    if (!*cap || !*re)
        return -2;
    change_state(*cap, ST_TCP_DONE);
    std::thread t([&] { rc = SSL_connect((*re)->ssl); });
    g_is_server = 1;
    int32_t accepted = ssl_accept(*cap);
    t.join();
    change_state(*re, ST_SSL_DONE);
    return accepted != 0 ? accepted : rc == 1 && (*cap)->state == ST_SSL_DONE ? 0 : -2;
}
