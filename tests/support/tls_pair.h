// TLS for tests: the daemon's own context of each role over a throw-away
// certificate (also the CA), and a handshaken pair of records over a
// socketpair: slot 1 the CAP's peer record, slot 0 the RE's main record.
#pragma once
#include <stdlib.h>
#include <sys/socket.h>

#include <string>
#include <thread>

#include "conn/entity.h"
#include "conn/tls.h"
#include "util/proc.h"

inline bool tls_setup(const std::string &dir, SSL_CTX **cap, SSL_CTX **re)
{
    static std::string ct, ky;
    ct = dir + "/ct", ky = dir + "/ky";
    std::string cmd = "mkdir -p " + dir + " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
                      "-nodes -days 1 -subj /CN=cap -keyout " + ky + " -out " + ct + " 2>/dev/null";
    certfile = cafile = ct.c_str(), keyfile = ky.c_str();
    bool made = system(cmd.c_str()) == 0;
    for (int server : {1, 0}) {
        g_ssl_ctx = nullptr, g_is_server = server;
        *(server ? cap : re) = made && ssl_init() == 0 ? g_ssl_ctx : nullptr;
    }
    g_ssl_ctx = nullptr;
    return *cap && *re;
}

// 0 once both ends are through; else ssl_accept's result (-1), or -2.
inline int32_t tls_connect_pair(SSL_CTX *cap_ctx, SSL_CTX *re_ctx, entity **cap, entity **re)
{
    int fds[2], rc = 0;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return -2;
    g_is_server = 1, g_ssl_ctx = cap_ctx;
    *cap = new_entity("peer-10.0.0.2", fds[0], 0);
    g_is_server = 0, g_ssl_ctx = re_ctx;
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
