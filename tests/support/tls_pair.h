// TLS set-up for tests: CAP and RE contexts from a throw-away self-signed
// certificate, and a handshaken pair of entities over a socketpair (slot 1
// is the CAP's peer record, slot 0 the RE's main record).
#pragma once
#include <stdlib.h>
#include <sys/socket.h>

#include <string>
#include <thread>

#include "conn/entity.h"
#include "conn/tls.h"
#include "util/proc.h"

// The context ssl_init builds for one role, detached from g_ssl_ctx.
inline SSL_CTX *tls_role_ctx(int32_t server)
{
    g_ssl_ctx = nullptr;
    g_is_server = server;
    if (ssl_init() != 0)
        return nullptr;
    SSL_CTX *ctx = g_ssl_ctx;
    g_ssl_ctx = nullptr;
    return ctx;
}

// Writes a certificate (also the CA) and key under `dir` and points the
// daemon's paths at them.
inline bool tls_make_credentials(const std::string &dir)
{
    static std::string ct, ky;
    ct = dir + "/ct", ky = dir + "/ky";
    std::string cmd = "mkdir -p " + dir + " && openssl req -x509 -newkey ec -pkeyopt "
                      "ec_paramgen_curve:prime256v1 -nodes -days 1 -subj /CN=cap -keyout " +
                      ky + " -out " + ct + " 2>/dev/null";
    certfile = cafile = ct.c_str();
    keyfile = ky.c_str();
    return system(cmd.c_str()) == 0;
}

// A peer record at the CAP and the RE's main record, handshake done.
inline bool tls_connect_pair(SSL_CTX *cap_ctx, SSL_CTX *re_ctx, entity **cap, entity **re)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return false;
    g_is_server = 1;
    g_ssl_ctx = cap_ctx;
    *cap = new_entity("peer-10.0.0.2", fds[0], 0);
    g_is_server = 0;
    g_ssl_ctx = re_ctx;
    *re = main_ent = new_entity("RE", fds[1], 1);
    if (!*cap || !*re)
        return false;
    change_state(*cap, ST_TCP_DONE);
    int rc = 0;
    std::thread t([&] { rc = SSL_connect((*re)->ssl); });
    g_is_server = 1;
    int32_t accepted = ssl_accept(*cap);
    t.join();
    change_state(*re, ST_SSL_DONE);
    return accepted == 0 && rc == 1;
}
