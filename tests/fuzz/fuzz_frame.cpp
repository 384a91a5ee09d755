// Frames from a hostile peer at a real entity. Byte 0 of the input sets the
// scene (bit 0: CAP role, bits 1-2: the entity's state, bit 3: dry run, bit 4:
// the scripts fail, bit 5: the CAP already knows the RE's MACs); the rest is
// the plaintext the peer sends over a TLS session whose other end is the
// entity, read by recv_message frame after frame until the session ends.
// Every platform command is answered by fake_sys.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "conn/entity.h"
#include "conn/tls.h"
#include "fake_sys.h"
#include "fuzz_common.h"
#include "platform/env.h"
#include "proto/frame.h"
#include "proto/sync.h"
#include "util/proc.h"

namespace {

SSL_CTX *srv_ctx, *clt_ctx;   // the entity's contexts, one per role
SSL_CTX *peer_srv_ctx, *peer_clt_ctx;   // the hostile peer's
const char *const kDir = "/tmp/fuzz_frame";
const int32_t kStates[4] = {ST_SSL_DONE, ST_AUTH_SENT, ST_AUTH_SENT_2, ST_RUNNING};
enum { FRAME_INPUT_MAX = 8192, FRAME_MESSAGES_MAX = 64 };

void die(const char *what)
{
    fprintf(stderr, "fuzz_frame: %s\n", what);
    ERR_print_errors_fp(stderr);
    abort();
}

// A throw-away EC key and self-signed certificate, made once per process.
void make_credentials(std::string &cert, std::string &key, std::string &ca)
{
    mkdir(kDir, 0700);
    cert = std::string(kDir) + "/ct";
    key = std::string(kDir) + "/ky";
    ca = std::string(kDir) + "/ca";

    EVP_PKEY_CTX *kctx = EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr);
    EVP_PKEY *pkey = nullptr;
    EVP_PKEY_keygen_init(kctx);
    EVP_PKEY_CTX_set_ec_paramgen_curve_nid(kctx, NID_X9_62_prime256v1);
    EVP_PKEY_keygen(kctx, &pkey);
    EVP_PKEY_CTX_free(kctx);

    X509 *x = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
    X509_gmtime_adj(X509_getm_notBefore(x), -3600);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600 * 24 * 365);
    X509_set_pubkey(x, pkey);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                               (const unsigned char *)"cap", -1, -1, 0);
    X509_set_issuer_name(x, X509_get_subject_name(x));
    X509_sign(x, pkey, EVP_sha256());

    const std::string *pems[2] = {&cert, &ca};
    for (const std::string *p : pems) {
        FILE *f = fopen(p->c_str(), "w");
        if (!f)
            die("cannot write certificate");
        PEM_write_X509(f, x);
        fclose(f);
    }
    FILE *f = fopen(key.c_str(), "w");
    if (!f)
        die("cannot write key");
    PEM_write_PrivateKey(f, pkey, nullptr, nullptr, 0, nullptr, nullptr);
    fclose(f);
    X509_free(x);
    EVP_PKEY_free(pkey);
}

// The daemon's own context for a role, through its own set-up code.
SSL_CTX *make_ctx(int32_t server)
{
    g_ssl_ctx = nullptr;
    g_is_server = server;
    if (ssl_init() != 0)
        die("ssl_init failed");
    SSL_CTX *ctx = g_ssl_ctx;
    g_ssl_ctx = nullptr;
    return ctx;
}

void init_once(void)
{
    signal(SIGPIPE, SIG_IGN);
    static std::string cert, key, ca;
    make_credentials(cert, key, ca);
    certfile = cert.c_str();
    keyfile = key.c_str();
    cafile = ca.c_str();
    srv_ctx = make_ctx(1);
    clt_ctx = make_ctx(0);
    // The peer plays the other role with plain OpenSSL.
    peer_clt_ctx = SSL_CTX_new(TLS_client_method());
    peer_srv_ctx = SSL_CTX_new(TLS_server_method());
    if (!peer_clt_ctx || !peer_srv_ctx)
        die("peer context");
    SSL_CTX_set_verify(peer_clt_ctx, SSL_VERIFY_NONE, nullptr);
    if (SSL_CTX_use_certificate_file(peer_srv_ctx, cert.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(peer_srv_ctx, key.c_str(), SSL_FILETYPE_PEM) != 1)
        die("peer credentials");
    fuzz_setup_platform();
    strcpy(g_macaddr, "28:6c:07:aa:bb:cc");
}

void set_nonblock(int fd, bool on)
{
    int fl = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, on ? (fl | O_NONBLOCK) : (fl & ~O_NONBLOCK));
}

// Both ends of the handshake in this one thread, stepping each in turn.
bool handshake(SSL *a, int fa, SSL *b, int fb)
{
    set_nonblock(fa, true);
    set_nonblock(fb, true);
    bool da = false, db = false;
    for (int i = 0; i < 100 && !(da && db); i++) {
        if (!da) {
            int r = SSL_do_handshake(a);
            if (r == 1)
                da = true;
            else if (SSL_get_error(a, r) != SSL_ERROR_WANT_READ &&
                     SSL_get_error(a, r) != SSL_ERROR_WANT_WRITE)
                return false;
        }
        if (!db) {
            int r = SSL_do_handshake(b);
            if (r == 1)
                db = true;
            else if (SSL_get_error(b, r) != SSL_ERROR_WANT_READ &&
                     SSL_get_error(b, r) != SSL_ERROR_WANT_WRITE)
                return false;
        }
    }
    set_nonblock(fa, false);
    set_nonblock(fb, false);
    return da && db;
}

// Drops whatever the entity sent, so that its writes never block.
void drain(int fd)
{
    set_nonblock(fd, true);
    char buf[4096];
    while (read(fd, buf, sizeof(buf)) > 0) {
    }
    set_nonblock(fd, false);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    init_once();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > FRAME_INPUT_MAX)
        return 0;
    const uint8_t scene = data[0];
    const int32_t cap = scene & 1;
    data++;
    size--;

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        die("socketpair");
    // Large enough for the whole input and every answer: neither side blocks.
    int sz = 1 << 18;
    for (int fd : fds) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sz, sizeof(sz));
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &sz, sizeof(sz));
    }

    current = 100;
    g_dry_run = (scene >> 3) & 1;
    g_is_success = 0;
    strcpy(g_locate, "default");
    fake_sys_system_status((scene & 0x10) ? 256 : 0);

    entity *ent;
    g_is_server = cap;
    if (cap) {
        g_ssl_ctx = srv_ctx;
        ent = new_entity("peer-10.0.0.2", fds[0], 0);
    } else {
        g_ssl_ctx = clt_ctx;
        ent = new_entity("RE", fds[0], 1);
        main_ent = ent;
    }
    g_ssl_ctx = nullptr;
    if (!ent)
        die("new_entity");
    if (cap)
        SSL_set_accept_state(ent->ssl);
    else
        SSL_set_connect_state(ent->ssl);
    if (cap && (scene & 0x20)) {
        strcpy(ent->mac2, "28:6c:07:11:22:33");
        strcpy(ent->mac5, "28:6c:07:11:22:34");
        strcpy(ent->macaddr, "28:6c:07:aa:bb:cc");
    }

    SSL *peer = SSL_new(cap ? peer_clt_ctx : peer_srv_ctx);
    SSL_set_fd(peer, fds[1]);
    if (cap)
        SSL_set_connect_state(peer);
    else
        SSL_set_accept_state(peer);
    if (!handshake(ent->ssl, fds[0], peer, fds[1]))
        die("handshake");
    change_state(ent, kStates[(scene >> 1) & 3]);

    // The whole plaintext, then close_notify: the entity reads to the end.
    if (size > 0 && SSL_write(peer, data, (int)size) != (int)size)
        die("peer write");
    SSL_shutdown(peer);

    for (int i = 0; i < FRAME_MESSAGES_MAX && ent->ssl && ent->state != ST_STOP; i++) {
        if (recv_message(ent) == SYNC_ACCEPTED)
            sync_init_re(ent);
        drain(fds[1]);
    }

    // Whatever state the session ended in, the record goes back to the pool.
    g_is_server = 0;
    if (ent->ssl || ent->fd > 0)
        free_entity(ent);
    if (main_ent == ent)
        main_ent = nullptr;
    for (int i = 0; i < ENT_POOL_SIZE; i++)
        if (ent_pool[i].ssl)
            die("entity left in the pool");
    SSL_free(peer);
    close(fds[1]);
    g_srving_cnt = 0;
    // fake_sys keeps every command line; start each input afresh.
    fake_sys_install();
    fuzz_answer_router();
    return 0;
}
