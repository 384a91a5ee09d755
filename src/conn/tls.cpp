// The process-wide TLS context, the server handshake and bounded record I/O.
#include "conn/tls.h"

#include <openssl/err.h>
#include <fcntl.h>
#include <poll.h>

#include "util/log.h"
#include "util/proc.h"
#include "util/sig.h"

SSL_CTX *g_ssl_ctx;
const char *certfile = "/tmp/mq/cc/veltrasso_ct";
const char *keyfile = "/tmp/mq/cc/veltrasso_ky";
const char *cafile = "/usr/share/veltrasso/cc/mq_a1";

int32_t ssl_init(void)
{
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    OPENSSL_init_ssl(0, nullptr);

    const SSL_METHOD *method = g_is_server == 1 ? TLS_server_method() : TLS_client_method();
    if (!method) {
        LOG(3, "ssl load method failed.\n");
        goto fail;
    }
    if (g_ssl_ctx) {
        SSL_CTX_free(g_ssl_ctx);
        g_ssl_ctx = nullptr;
    }
    g_ssl_ctx = SSL_CTX_new(method);
    if (!g_ssl_ctx) {
        LOG(3, "SSL_CTX_new failed.\n");
        goto fail;
    }

    if (g_is_server == 1) {
        if (SSL_CTX_set_cipher_list(g_ssl_ctx, "HIGH:!aNULL:!MD5:!SHA1:!SHA256:!SHA384") < 1) {
            // Cleared here so that ssl_uninit does not free it a second time.
            SSL_CTX_free(g_ssl_ctx);
            g_ssl_ctx = nullptr;
            goto fail;
        }
        SSL_CTX_set_min_proto_version(g_ssl_ctx, TLS1_2_VERSION);
    }

    SSL_CTX_set_options(g_ssl_ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(g_ssl_ctx, 0);   // TLS 1.3 sends stateful ones despite NO_TICKET
    SSL_CTX_set_quiet_shutdown(g_ssl_ctx, 1);
    SSL_CTX_sess_set_remove_cb(g_ssl_ctx, nullptr);
    SSL_CTX_set_mode(g_ssl_ctx, SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_session_cache_mode(g_ssl_ctx, SSL_SESS_CACHE_OFF);

    if (!SSL_CTX_load_verify_locations(g_ssl_ctx, cafile, nullptr)) {
        LOG(3, "SSL_CTX load cert failed.\n");
        goto fail;
    }
    // Peers are authenticated by the id/pass exchange, not by certificates.
    SSL_CTX_set_verify(g_ssl_ctx, SSL_VERIFY_NONE, nullptr);
    if (g_is_server != 1)
        return 0;

    if (SSL_CTX_use_certificate_chain_file(g_ssl_ctx, certfile) != 1) {
        LOG(3, "SSL_CTX use cert chain failed.\n");
        goto fail;
    }
    if (SSL_CTX_use_PrivateKey_file(g_ssl_ctx, keyfile, SSL_FILETYPE_PEM) != 1) {
        LOG(3, "SSL_CTX use privkey failed.\n");
        goto fail;
    }
    if (SSL_CTX_check_private_key(g_ssl_ctx) != 1) {
        LOG(3, "SSL_CTX check privkey failed.\n");
        goto fail;
    }
    return 0;

fail:
    ssl_uninit();
    return -1;
}

void ssl_uninit(void)
{
    if (g_ssl_ctx) {
        SSL_CTX_free(g_ssl_ctx);
        g_ssl_ctx = nullptr;
    }
}

// 1 when fd is ready for reading (or writing) within ms, else 0.
static int wait_fd(int fd, int for_write, int64_t ms)
{
    struct pollfd p = {fd, (short)(for_write ? POLLOUT : POLLIN), 0};
    if (ms <= 0)
        return 0;
    return poll(&p, 1, (int)ms) > 0 ? 1 : 0;
}

static void set_blocking(int fd, int on)
{
    int fl = fcntl(fd, F_GETFL);
    if (fl >= 0)
        fcntl(fd, F_SETFL, on ? fl & ~O_NONBLOCK : fl | O_NONBLOCK);
}

int32_t ssl_accept(entity *ent)
{
    if (!ent || !ent->ssl)
        return -1;
    if (ent->state != ST_TCP_DONE) {
        LOG(3, "[" ENT_FMT "] in wrong status: %d \n", ent->name, ent->state);
        return 0;
    }

    // One deadline for the whole handshake, not just its first byte: a
    // ClientHello cut short must not hold the slot until the sweep.
    int64_t deadline = now_ms() + SSL_ACCEPT_TIMEOUT * 1000;
    int fd = ent->fd;
    if (fd <= 0 || !wait_fd(fd, 0, deadline - now_ms())) {
        LOG(3, "[" ENT_FMT "] ssl handshake timeout 30s after TCP handshake.\n", ent->name);
        free_entity(ent);
        return -1;
    }

    LOG(3, "[" ENT_FMT "] SSL_accept()....\n", ent->name);
    set_blocking(fd, 0);
    int rc, timed_out = 0;
    for (;;) {
        ERR_clear_error();
        rc = SSL_accept(ent->ssl);
        if (rc == 1)
            break;
        int err = SSL_get_error(ent->ssl, rc);
        if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE)
            break;
        if (!wait_fd(fd, err == SSL_ERROR_WANT_WRITE, deadline - now_ms())) {
            timed_out = 1;
            break;
        }
    }
    // The session itself runs on a blocking socket.
    set_blocking(fd, 1);
    if (rc == 1) {
        change_state(ent, ST_SSL_DONE);
        return 0;
    }
    if (timed_out) {
        LOG(3, "[" ENT_FMT "] ssl handshake timeout 30s after TCP handshake.\n", ent->name);
    } else {
        const char *reason = ERR_reason_error_string(ERR_get_error());
        LOG(3, "[" ENT_FMT "] ssl accept failed: %s\n", ent->name, reason ? reason : "(null)");
    }
    free_entity(ent);
    return -1;
}

int32_t entity_read_write(entity *ent, int32_t is_read, uint8_t *buf, uint32_t len)
{
    if (!ent || !ent->ssl || !buf)
        return -1;
    if (len == 0 || len > ENT_IO_MAX)
        return -1;

    int ret = is_read ? SSL_read(ent->ssl, buf, (int)len) : SSL_write(ent->ssl, buf, (int)len);
    // On the RE's main thread a stop or the watchdog ends a blocked read here.
    sig_safe_point();
    if (ret > 0)
        return ret;
    if (ret == 0) {
        LOG(3, "INF: peer [" ENT_FMT "] read EOF. disconnecting...\n", ent->name);
        free_entity(ent);
        return -1;
    }
    LOG(3, "SSL read/write failed, ret: %d.\n", ret);
    return -1;
}

int32_t entity_read(entity *ent, uint8_t *buf, uint32_t len)
{
    if (len == 0)
        return 0;
    if (!buf)
        return -1;
    buf[0] = 0;
    uint32_t got = 0;
    for (;;) {
        int32_t ret = entity_read_write(ent, 1, buf + got, len - got);
        if (ret <= 0)
            return ret;
        // A stop request cuts a partial read short.
        if (ent->state == ST_STOP)
            return ret;
        got += (uint32_t)ret;
        if (got >= len)
            return (int32_t)len;
    }
}

int32_t entity_write(entity *ent, const uint8_t *buf, uint32_t len)
{
    // SSL_write never changes the buffer; the shared read/write path takes it mutable.
    return entity_read_write(ent, 0, const_cast<uint8_t *>(buf), len);
}
