// Frames from a hostile peer at a real entity over a real TLS session. Byte 0
// sets the scene (bit 0: CAP role, bits 1-2: the state, bit 3: dry run, bit 4:
// the scripts fail, bit 5: the CAP knows the RE's MACs); the rest is what the
// peer sends, read by recv_message frame by frame until the session ends. The
// state moves forward only by the one message that may move it (an
// authentication only with the other role's key), and a platform script runs
// only for a configuration message taken in ST_RUNNING.
#include "testing.h"

namespace
{

SSL_CTX *srv_ctx, *clt_ctx;
const int32_t kStates[4] = {ST_SSL_DONE, ST_AUTH_SENT, ST_AUTH_SENT_2, ST_RUNNING};

[[noreturn]] void die(const char *what)
{
    fprintf(stderr, "fuzz_frame: %s\n", what);
    abort();
}

// The state the message of `type` (body `b`, `n` bytes) may move `from` to; `from` when none.
int32_t successor(int cap, int32_t from, uint16_t type, const uint8_t *b, size_t n)
{
    if (type == MSG_AUTH_REPLY)
        return n >= 1 && b[0] == REPLY_OK && from == ST_AUTH_SENT
                   ? (cap ? ST_RUNNING : ST_AUTH_SENT_2)
                   : from;
    if (type != MSG_AUTH_REQ || from != (cap ? ST_SSL_DONE : ST_AUTH_SENT_2) || n < 144)
        return from;
    char id[17] = {0}, pass[129] = {0}, want[64] = {0};
    int32_t len = 0;
    memcpy(id, b, 16);
    memcpy(pass, b + 16, 128);
    if (!id[0] || get_hmac_base64(cap ? 0 : 1, id, (int32_t)strlen(id), want, &len) != 0 ||
        strcmp(want, pass) != 0)
        return from;
    return cap ? ST_AUTH_SENT : ST_RUNNING;
}

}   // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    signal(SIGPIPE, SIG_IGN);
    log_mode = LOG_MODE_STDERR;
    if (!tls_setup("/tmp/fuzz_frame", &srv_ctx, &clt_ctx))
        die("TLS set-up");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 8192)
        return 0;
    const uint8_t scene = data[0];
    const int cap = scene & 1;
    data++;
    size--;

    current = 100;
    g_dry_run = (scene >> 3) & 1;
    g_is_success = 0;
    strcpy(g_locate, "default");
    fake_sys_install();
    fake_sys_router();
    fake_sys_system_status((scene & 0x10) ? 256 : 0);
    entity *c, *r;
    if (tls_connect_pair(srv_ctx, clt_ctx, &c, &r) != 0)
        die("handshake");
    entity *ent = cap ? c : r, *peer = cap ? r : c;
    int sz = 1 << 18;   // room for the whole input and every answer: neither side blocks
    setsockopt(peer->fd, SOL_SOCKET, SO_SNDBUF, &sz, sizeof(sz));
    setsockopt(ent->fd, SOL_SOCKET, SO_SNDBUF, &sz, sizeof(sz));
    if (cap && (scene & 0x20)) {
        strcpy(ent->mac2, "28:6c:07:11:22:33");
        strcpy(ent->mac5, "28:6c:07:11:22:34");
        strcpy(ent->macaddr, "28:6c:07:aa:bb:cc");
    }
    change_state(ent, kStates[(scene >> 1) & 3]);
    // The whole plaintext, then close_notify: the entity reads to the end.
    if (size > 0 && SSL_write(peer->ssl, data, (int)size) != (int)size)
        die("peer write");
    SSL_set_quiet_shutdown(peer->ssl, 0);
    SSL_shutdown(peer->ssl);

    size_t off = 0;
    for (int i = 0; i < 64 && ent->ssl && ent->state != ST_STOP; i++) {
        // The frame the entity is about to read, as far as the input holds it.
        uint16_t type = 0, len = 0;
        if (off + MSG_HDR_SIZE <= size) {
            len = (uint16_t)(data[off + 2] << 8 | data[off + 3]);
            type = (uint16_t)(data[off + 4] << 8 | data[off + 5]);
        }
        const uint8_t *body = data + off + MSG_HDR_SIZE;
        size_t have = off + MSG_HDR_SIZE < size ? size - off - MSG_HDR_SIZE : 0;
        int32_t from = ent->state, next = successor(cap, from, type, body, have < len ? have : len);
        size_t before = fake_sys_scripts();
        g_is_server = cap;
        if (recv_message(ent) == SYNC_ACCEPTED)   // as the RE's loop does
            sync_init_re(ent);
        off += MSG_HDR_SIZE + len;
        if (ent->ssl && ent->state != from && ent->state != next && ent->state != ST_STOP)
            die("the state moved without the message that may move it");
        if (fake_sys_scripts() > before &&
            (from != ST_RUNNING || type != (cap ? MSG_SYNC_REPLY : MSG_SYNC_REQ)))
            die("a platform script ran outside the configuration exchange");
    }
    // Whatever state the session ended in, both records go back to the pool.
    g_is_server = 0;
    free_entity(peer);
    free_entity(ent);
    main_ent = nullptr;
    g_srving_cnt = 0;
    for (int i = 0; i < ENT_POOL_SIZE; i++)
        if (ent_pool[i].ssl)
            die("entity left in the pool");
    return 0;
}
