// What any host on the LAN can put before the daemon. Byte 0 bits 0-1 pick the reader: 0 a
// discovery datagram at the CAP's responder and the RE's matcher (bit 2: a pairing holds the
// mesh lock; bits 3-4: the CAP's address), 1 an Ethernet frame at the raw-socket parser (bits
// 2-7: its buffer, 0 for the RE's 2048 bytes, else 32 bytes each), 2 the gateway file (bit 2: no
// file), 3 the pairing session (bit 2 clear: messages from a hostile peer; set: the configuration
// record the RE's initialisation takes); the rest is the input. Each decision is worked out here
// from the format, independently.
#include "testing.h"

#define CHECK(c) ((c) ? (void)0 : (fprintf(stderr, "fuzz_lan: %s\n", #c), abort()))
#define BE16(p)  ((p)[0] << 8 | (p)[1])

namespace
{

const char *const kCapIp[4] = {"", "10.0.0.1", "192.168.100.254", "255.255.255.255"};
const char kZero[32] = {0};

// The RE reads a CAP's answer: the magic, then the address text (at most 15 characters).
void check_answer(const char *buf)
{
    char cap_ip[16] = "ZZZZZZZZZZZZZZZ";
    const bool ours = memcmp(buf, "KORVANE_CAP_DDv1.0", 18) == 0;
    CHECK((dd_clt_match(buf, cap_ip) == 0) == ours);
    CHECK(ours ? strncmp(cap_ip, buf + 18, 15) == 0 && memchr(cap_ip, 0, 16) : cap_ip[0] == 'Z');
}

void datagram(const uint8_t *d, size_t size, int sel)
{
    const char *ip = kCapIp[(sel >> 3) & 3];
    tolvaRemoveMeshLock();
    if (sel & 4)
        tolvaAddMeshLock();
    char buf[DD_RAW_BUF + 1] = {0};   // as received: at most 2048 bytes, then a NUL
    memcpy(buf, d, size);
    check_answer(buf);
    // Answered only when no pairing runs and it starts with the request's 17 characters.
    const bool request = size >= 17 && memcmp(d, "KORVANE_RE_DDv1.0", 17) == 0;
    const int len = dd_srv_handle(buf, (int)sizeof(buf), ip);
    CHECK((len >= 0) == (request && !(sel & 4)));
    CHECK(len < 0 || (len == 19 + (int)strlen(ip) && memcmp(buf, "KORVANE_CAP_DDv1.0", 18) == 0 &&
                      memcmp(buf + 18, ip, strlen(ip) + 1) == 0));
}

void frame(const uint8_t *f, size_t size, int sel)
{
    const int flen = (int)size;
    const int buflen = (sel >> 2) ? (sel >> 2) * 32 : DD_RAW_BUF;
    uint8_t buf[DD_RAW_BUF];
    memset(buf, 0x5a, sizeof(buf));
    // IPv4 carrying UDP, whose datagram (its length field covering at least the 8-byte header)
    // lies within the frame behind the IPv4 header that byte 14 sizes, and fits `buflen`.
    const int udp = 14 + (flen > 14 ? 4 * (f[14] & 15) : 0);
    const int len = udp + 8 <= flen ? BE16(f + udp + 4) : -1;
    const bool ip_udp = flen >= 34 && BE16(f + 12) == 0x0800 && f[23] == 17;
    const bool ok = ip_udp && len >= 8 && udp + len <= flen && len <= buflen;
    const int n = dd_parse_raw_frame(f, flen, buf, buflen);
    CHECK(n >= -1 && (n >= 0) == ok);
    CHECK(!ok || (n == len - 8 && memcmp(buf, f + udp + 8, (size_t)n) == 0));
    for (int i = n > 0 ? n : 0; i < DD_RAW_BUF; i++)
        CHECK(buf[i] == 0x5a);   // nothing written behind the payload
    if (n > 0 && buflen == DD_RAW_BUF)
        check_answer((const char *)buf);   // as the probe goes on with it
}

// The line fgets (128 bytes) reads from `at` as a text (up to a NUL), without blanks, tabs,
// CR and LF around, cut to 15 characters, into `out`; returns where the line ends.
size_t field(const uint8_t *d, size_t size, size_t at, char *out)
{
    size_t end = at;
    while (end < size && end - at < 127 && (end == at || d[end - 1] != '\n'))
        end++;
    size_t stop = at + strnlen((const char *)d + at, end - at);
    while (at < stop && strchr(" \t\r\n", d[at]))
        at++;
    while (stop > at && strchr(" \t\r\n", d[stop - 1]))
        stop--;
    memcpy(out, d + at, stop - at < 15 ? stop - at : 15);
    return end;
}

void gw_file(const uint8_t *d, size_t size, int sel)
{
    unlink(GW_IP_FILE);
    FILE *fp = (sel & 4) ? nullptr : fopen(GW_IP_FILE, "w");
    CHECK((sel & 4) || (fp && fwrite(d, 1, size, fp) == size && fclose(fp) == 0));
    char got[2][16] = {"ZZZZZZZZZZZZZZZ", "ZZZZZZZZZZZZZZZ"};
    char want[2][16] = {};
    // Two lines: the gateway, then the box's own address, each zero-padded; else both empty.
    const size_t first = field(d, size, 0, want[0]);
    field(d, size, first, want[1]);
    const bool two = !(sel & 4) && first < size;
    CHECK(get_gw_ip(got[0], got[1]) == (two ? 0 : -1));
    CHECK(memcmp(got, two ? want[0] : kZero, sizeof(got)) == 0);
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

SSL_CTX *srv_ctx, *clt_ctx;

// A real entity over a real TLS session. The first byte sets the scene (bit 0: CAP role, bits
// 1-2: the state, bit 3: dry run, bit 4: the scripts fail, bit 5: the CAP knows the RE's MACs);
// the rest is what the peer sends, read by recv_message frame by frame until the session ends.
// The state moves forward only by the one message that may move it (an authentication only
// with the other role's key), a platform script runs only for a configuration message taken in
// ST_RUNNING, and both records go back to the pool.
void session(const uint8_t *data, size_t size, int)
{
    static const int32_t states[4] = {ST_SSL_DONE, ST_AUTH_SENT, ST_AUTH_SENT_2, ST_RUNNING};
    if (size < 1)
        return;
    const uint8_t scene = data[0];
    const int cap = scene & 1;
    data++;
    size--;
    current = 100;
    g_dry_run = (scene >> 3) & 1;
    g_is_success = 0;
    strcpy(g_locate, "default");
    fake_sys_router();
    fake_sys_system_status((scene & 0x10) ? 256 : 0);
    entity *c, *r;
    CHECK(srv_ctx && clt_ctx && tls_connect_pair(srv_ctx, clt_ctx, &c, &r) == 0);
    entity *ent = cap ? c : r;
    entity *peer = cap ? r : c;
    int sz = 1 << 18;   // room for the whole input and every answer: neither side blocks
    setsockopt(peer->fd, SOL_SOCKET, SO_SNDBUF, &sz, sizeof(sz));
    setsockopt(ent->fd, SOL_SOCKET, SO_SNDBUF, &sz, sizeof(sz));
    if (cap && (scene & 0x20)) {
        strcpy(ent->mac2, "28:6c:07:11:22:33");
        strcpy(ent->mac5, "28:6c:07:11:22:34");
        strcpy(ent->macaddr, "28:6c:07:aa:bb:cc");
    }
    change_state(ent, states[(scene >> 1) & 3]);
    // The whole plaintext, then close_notify: the entity reads to the end.
    CHECK(size == 0 || SSL_write(peer->ssl, data, (int)size) == (int)size);
    SSL_set_quiet_shutdown(peer->ssl, 0);
    SSL_shutdown(peer->ssl);

    size_t off = 0;
    for (int i = 0; i < 64 && ent->ssl && ent->state != ST_STOP; i++) {
        // The frame the entity is about to read, as far as the input holds it.
        uint16_t type = 0;
        uint16_t len = 0;
        if (off + MSG_HDR_SIZE <= size) {
            len = (uint16_t)BE16(data + off + 2);
            type = (uint16_t)BE16(data + off + 4);
        }
        const uint8_t *body = data + off + MSG_HDR_SIZE;
        size_t have = off + MSG_HDR_SIZE < size ? size - off - MSG_HDR_SIZE : 0;
        const int32_t from = ent->state;
        const int32_t next = successor(cap, from, type, body, have < len ? have : len);
        const size_t before = fake_sys_scripts();
        g_is_server = cap;
        if (recv_message(ent) == SYNC_ACCEPTED)   // as the RE's loop does
            sync_init_re(ent);
        off += MSG_HDR_SIZE + len;
        CHECK(!ent->ssl || ent->state == from || ent->state == next || ent->state == ST_STOP);
        CHECK(fake_sys_scripts() == before ||
              (from == ST_RUNNING && type == (cap ? MSG_SYNC_REPLY : MSG_SYNC_REQ)));
    }
    g_is_server = 0;
    free_entity(peer);
    free_entity(ent);
    main_ent = nullptr;
    g_srving_cnt = 0;
    for (int i = 0; i < ENT_POOL_SIZE; i++)
        CHECK(ent_pool[i].ssl == nullptr);
}

const char kForbidden[] = "@`$#,;'\\\"[]&*()|<>";
const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
const char *const kScripts[] = {"/usr/sbin/mesh_setup.sh re_init ",
                                "/usr/sbin/mesh_setup.sh re_init_bsd ",
                                "/usr/bin/lua /usr/sbin/mesh_info.lua locale "};
const size_t kQuoted[] = {9, 6, 0};

// A command line of the RE's initialisation: an expected script with its argument count, no
// shell character outside the single quotes, every quoted argument base64, "null" or clean.
void check_command(const std::string &cmd)
{
    int kind = 0;
    while (kind < 3 && cmd.compare(0, strlen(kScripts[kind]), kScripts[kind]) != 0)
        kind++;
    CHECK(kind < 3);
    std::vector<std::string> quoted;
    bool in = false;
    for (char c : cmd) {
        if (c == '\'' && !in)
            quoted.push_back("");
        if (c == '\'')
            in = !in;
        else if (in)
            quoted.back() += c;
        else
            CHECK(!strchr(kForbidden, c) && c != '\n');
    }
    CHECK(!in && quoted.size() == kQuoted[kind]);
    for (const auto &a : quoted)
        CHECK(
            a.find_first_not_of(kBase64) == std::string::npos || a == "null" ||
            (a.find_first_of(kForbidden) == std::string::npos && check_injection(a.c_str()) == 0));
}

// The RE's initialisation fed a WiFiConfig record (zero-padded when short) and the extra text
// after it: a refused record runs no script, an accepted one exactly one.
void record(const uint8_t *data, size_t size, int)
{
    WiFiConfig cfg{};
    size_t n = size < sizeof(cfg) ? size : sizeof(cfg);
    memcpy(&cfg, data, n);
    std::string extra((const char *)data + n, size - n);   // as the RE hands it on: terminated
    int rc = tolvaInitRe(&cfg, extra.c_str(), 1);
    for (const auto &c : fake_sys_system_cmds())
        check_command(c);
    CHECK(rc >= -1 && rc <= 1);
    CHECK(fake_sys_scripts() == (rc == -1 ? 0u : 1u));
}

void (*const kReader[5])(const uint8_t *, size_t, int) = {datagram, frame, gw_file, session,
                                                          record};
const size_t kMaxSize[5] = {DD_RAW_BUF, 2 * DD_RAW_BUF, 2 * DD_RAW_BUF, 8192, 4096};

}   // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    signal(SIGPIPE, SIG_IGN);
    log_mode = LOG_MODE_STDERR;
    tls_setup("/tmp/fuzz_lan", &srv_ctx, &clt_ctx);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const char *only = getenv("FUZZ_LAN_ONLY");
    if (size < 1)
        return 0;
    const int sel = data[0];
    const int reader = (sel & 3) == 3 ? 3 + ((sel >> 2) & 1) : sel & 3;
    if ((only && reader != atoi(only)) || size - 1 > kMaxSize[reader])
        return 0;
    log_mode = LOG_MODE_STDERR;
    fake_sys_install();
    kReader[reader](data + 1, size - 1, sel);
    return 0;
}
