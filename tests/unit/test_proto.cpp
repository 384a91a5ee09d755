// The pairing messages over a real TLS session inside one process, frames written raw by
// the other end; records, slots and release. g_is_server is the role of the acting end.
#include <gtest/gtest.h>

#include "testing.h"

namespace
{

SSL_CTX *srv_ctx, *clt_ctx;
const char kId[] = "0123456789abcd";

int open_null()
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}
bool all_zero(const entity *e)
{
    static const entity zero{};
    return !memcmp(e, &zero, sizeof(zero));
}

std::string pass_of(int role, const char *id = kId)
{
    char p[64] = {0};
    int32_t n = 0;
    get_hmac_base64(role, id, 14, p, &n);
    return p;
}

// Header (version, length, type: big-endian; the two radio MACs), then the body.
std::string frame(uint16_t type, const std::string &body, int len = -1,
                  uint16_t version = MSG_VERSION)
{
    uint16_t h[3] = {htons(version), htons((uint16_t)(len < 0 ? body.size() : len)), htons(type)};
    return std::string((const char *)h, 6) + "aa:bb:cc:00:00:02" + std::string(2, 0) +
           "aa:bb:cc:00:00:03" + std::string(2, 0) + body;
}

std::string auth_body(int key_role, size_t size = 163)
{
    std::string b(size, '\0');
    b.replace(0, 14, kId);
    b.replace(16, 44, pass_of(key_role));
    b.replace(144, 17, "aa:bb:cc:00:00:01");
    return b;
}

std::string reply(int code)
{
    return std::string(1, (char)code) + std::string(31, '\0');
}
std::string sync_body(const char *text)
{
    return std::string("\x04", 1) + std::string(SYNC_TEXT_OFFSET - 1, '\0') + text + '\0';
}

// One raw frame, header and body, as the other end reads it; "" when none is waiting.
std::string read_raw(entity *at)
{
    struct pollfd p = {at->fd, POLLIN, 0};
    std::string f(MSG_HDR_SIZE, '\0');
    if (at->fd < 0 || (!SSL_pending(at->ssl) && poll(&p, 1, 0) != 1) ||
        entity_read(at, (uint8_t *)&f[0], MSG_HDR_SIZE) != MSG_HDR_SIZE)
        return "";
    f.resize(MSG_HDR_SIZE + ((uint8_t)f[2] << 8 | (uint8_t)f[3]));
    int body = (int)f.size() - MSG_HDR_SIZE;
    return entity_read(at, (uint8_t *)&f[MSG_HDR_SIZE], (uint32_t)body) == body ? f : "";
}

class Proto : public testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        signal(SIGPIPE, SIG_IGN);
        log_mode = LOG_MODE_STDERR;
        log_level = 0;
        tls_setup("/tmp/tls", &srv_ctx, &clt_ctx);
    }
    void SetUp() override
    {
        ASSERT_NE(nullptr, srv_ctx);
        ASSERT_NE(nullptr, clt_ctx);
        fake_sys_install();
        fake_sys_router();
        current = 100;
        g_dry_run = 0;
        strcpy(g_locate, "default");
        ASSERT_EQ(0, tls_connect_pair(srv_ctx, clt_ctx, &cap, &re));
    }
    void TearDown() override
    {
        g_is_server = 0;   // the RE releases every record
        for (int i = ENT_POOL_SIZE - 1; i >= 0; i--)
            free_entity(&ent_pool[i]);
        main_ent = nullptr;
        g_srving_cnt = 0;
    }
    // `raw` from the other end, then one recv_message at the end of role `server`.
    int32_t deliver(int server, const std::string &raw)
    {
        EXPECT_EQ((int)raw.size(),
                  SSL_write((server ? re : cap)->ssl, raw.data(), (int)raw.size()));
        g_is_server = server;
        return recv_message(server ? cap : re);
    }
    entity *cap = nullptr, *re = nullptr;
};

// Every state of the session against every message, in both roles. A cell: the state after
// it ('x': refused, record released; '*': taken, released after the platform script; 'f': the
// same without a script), then the first frame the other end got ('-' none, 'a'/'A' auth
// reply 1/2, 'q' sync request, 's'/'S' sync reply 1/2). Dry runs take, but run no script.
TEST_F(Proto, EveryStateAgainstEveryMessage)
{
    const int32_t states[4] = {ST_SSL_DONE, ST_AUTH_SENT, ST_AUTH_SENT_2, ST_RUNNING};
    const struct {
        int server, dry;
        uint16_t type;
        std::string body;
        const char *cells;
    } rows[] = {{1, 0, MSG_AUTH_REQ, auth_body(0), "4a xA xA xA"},
                {1, 0, MSG_AUTH_REQ, auth_body(1), "xA xA xA xA"},   // own key
                {1, 0, MSG_AUTH_REPLY, reply(1), "x- 6q x- x-"},
                {1, 0, MSG_AUTH_REPLY, reply(2), "x- x- x- x-"},
                {1, 0, MSG_SYNC_REQ, sync_body("{}"), "x- x- x- x-"},
                {1, 0, MSG_SYNC_REPLY, reply(1), "x- x- x- *-"},
                {1, 1, MSG_SYNC_REPLY, reply(1), "x- x- x- f-"},
                {1, 0, MSG_SYNC_REPLY, reply(2), "x- x- x- f-"},
                {1, 0, 8, reply(1), "x- x- x- x-"},
                {0, 0, 3, reply(1), "x- x- x- x-"},
                {0, 0, MSG_AUTH_REQ, auth_body(1), "xA xA 6a xA"},
                {0, 0, MSG_AUTH_REQ, auth_body(0), "xA xA xA xA"},   // own key
                {0, 0, MSG_AUTH_REPLY, reply(1), "x- 5- x- x-"},
                {0, 0, MSG_AUTH_REPLY, reply(2), "x- x- x- x-"},
                {0, 0, MSG_SYNC_REQ, sync_body("{\"a\":1}"), "x- x- x- *s"},
                {0, 1, MSG_SYNC_REQ, sync_body("{\"a\":1}"), "x- x- x- fs"},
                {0, 0, MSG_SYNC_REQ, sync_body(""), "x- x- x- xS"},
                {0, 0, MSG_SYNC_REPLY, reply(1), "x- x- x- x-"}};
    for (const auto &r : rows)
        for (int s = 0; s < 4; s++) {
            SCOPED_TRACE(std::string(r.server ? "CAP" : "RE") + (r.dry ? " (dry run)" : "") +
                         " in state " + std::to_string(states[s]) + " gets message type " +
                         std::to_string(r.type) + " (row " + std::to_string(&r - rows) + ")");
            TearDown();
            SetUp();
            entity *me = r.server ? cap : re;
            strcpy(me->macaddr, "aa:bb:cc:00:00:01");
            strcpy(me->mac2, "aa:bb:cc:00:00:02");
            strcpy(me->mac5, "aa:bb:cc:00:00:03");
            me->state = states[s];
            g_dry_run = r.dry;
            int32_t rc = deliver(r.server, frame(r.type, r.body));
            if (rc == SYNC_ACCEPTED)   // the RE's loop applies an accepted configuration
                rc = sync_init_re(me);
            size_t scripts = fake_sys_scripts();
            char got[3] = {(char)('0' + me->state), '-', 0};
            if (!me->ssl)
                got[0] = rc != 0 ? 'x' : scripts ? '*' : 'f';
            std::string f = read_raw(r.server ? re : cap);
            if (f.size() > MSG_HDR_SIZE)
                got[1] = f[5] == 6 ? 'q'
                         : f[MSG_HDR_SIZE] > 2
                             ? '?'
                             : (f[5] == 5 ? 'a' : 's') - (f[MSG_HDR_SIZE] == 1 ? 0 : 'a' - 'A');
            EXPECT_EQ(std::string(r.cells + 3 * s, 2), got);
            EXPECT_EQ(got[0] == 'x' ? -1 : 0, rc);
            EXPECT_LE(scripts, 1u);
        }
}

// A body of the largest length is read whole and taken; one byte more is refused unread; a
// password of the right length that differs in one byte is refused; the RE's MACs are learnt.
TEST_F(Proto, BoundariesOfFrameAndPassword)
{
    std::string good = pass_of(0);
    std::string last = good;
    std::string ninth = good;
    last.back() ^= 1;
    ninth[8] ^= 1;
    entity *e = cap;   // the CAP takes only the RE's key
    g_is_server = 1;
    const struct {
        const char *id;
        int32_t id_len;
        std::string pass;
        int32_t len, rc;
    } auths[] = {{kId, 14, good, 44, 0},        {"", 0, good, 44, -1},
                 {kId, 14, good, 43, -1},       {kId, 14, good + "A", 45, -1},
                 {kId, 14, ninth, 44, -1},      {"0", 1, pass_of(0, "0"), 44, 0},
                 {kId, 14, pass_of(1), 44, -1}, {kId, 14, last, 44, -1}};
    for (const auto &a : auths)
        EXPECT_EQ(a.rc, check_auth(e, a.id, a.id_len, a.pass.c_str(), a.len))
            << "id " << a.id << ", password " << a.pass << " of " << a.len;
    EXPECT_EQ(e->state, ST_STOP);   // a wrong password ends the session
    g_is_server = 0;                // an RE takes only the CAP's key
    EXPECT_EQ(0, check_auth(e, kId, 14, pass_of(1).c_str(), 44));
    EXPECT_EQ(-1, check_auth(e, kId, 14, good.c_str(), 44));
    const struct {
        int len;
        uint16_t version;
        int32_t rc;
    } cases[] = {{2048, MSG_VERSION, 0}, {2049, MSG_VERSION, -1}, {163, 0x1002, -1}};
    for (const auto &c : cases) {
        SCOPED_TRACE("body of " + std::to_string(c.len) + ", version " + std::to_string(c.version));
        TearDown();
        SetUp();
        EXPECT_EQ(c.rc, deliver(1, frame(MSG_AUTH_REQ, auth_body(0, c.len), c.len, c.version)));
        EXPECT_EQ(c.rc ? ST_NONE : ST_AUTH_SENT, cap->state);
        EXPECT_EQ(c.rc ? "" : "aa:bb:cc:00:00:01aa:bb:cc:00:00:02aa:bb:cc:00:00:03",
                  std::string(cap->macaddr) + cap->mac2 + cap->mac5);   // the MACs learnt
    }
    // MACs are learnt once; a CAP that cannot send its configuration says so in its record.
    for (const char *initbuf : {"{}", ""}) {
        TearDown();
        SetUp();
        strcpy(cap->mac5, "x");
        cap->state = ST_AUTH_SENT;
        fake_sys_answer(MESH_INITBUF_CMD, initbuf);
        std::string out = captured(stdout, [&] {
            EXPECT_EQ(*initbuf ? 0 : -1, deliver(1, frame(MSG_AUTH_REPLY, reply(1))));
        });
        EXPECT_EQ(*initbuf ? "x" : "mesh.re.conn.fail=SYNC_FAILED:1",
                  *initbuf ? std::string(cap->mac5) : out);
    }
    // A text that fills the whole frame reaches the platform whole.
    TearDown();
    SetUp();
    re->state = ST_RUNNING;
    std::string text(MSG_BUF_SIZE - SYNC_TEXT_OFFSET, 't');
    ASSERT_EQ(SYNC_ACCEPTED,
              deliver(0, frame(MSG_SYNC_REQ, sync_body("").substr(0, SYNC_TEXT_OFFSET) + text)));
    EXPECT_EQ(0, sync_init_re(re));
    char side[1024] = {0};
    EXPECT_EQ(1, f_string_read("/tmp/extra_wifi_param", side, 997));
    EXPECT_EQ(text.substr(0, 997), side);
}

// The CAP takes TLS 1.2 with an AEAD suite, and refuses older versions and SHA-MAC suites.
TEST_F(Proto, CapTlsPolicy)
{
    const struct {
        int max;
        const char *ciphers;
        int32_t rc;
    } cases[] = {// rc: ssl_accept's
                 {TLS1_2_VERSION, "ECDHE-ECDSA-AES256-GCM-SHA384", 0},
                 {TLS1_1_VERSION, "ALL", -1},
                 {TLS1_2_VERSION,
                  "ECDHE-ECDSA-AES128-SHA:ECDHE-ECDSA-AES256-SHA:ECDHE-ECDSA-AES128-SHA256", -1}};
    for (const auto &c : cases) {
        TearDown();
        SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_security_level(ctx, 0);
        SSL_CTX_set_max_proto_version(ctx, c.max);
        SSL_CTX_set_cipher_list(ctx, c.ciphers);
        EXPECT_EQ(c.rc, tls_connect_pair(srv_ctx, ctx, &cap, &re)) << c.ciphers;
        TearDown();
        SSL_CTX_free(ctx);
    }
}

// Every entry refuses a call with exactly one missing or out-of-range argument.
TEST_F(Proto, EntriesRefuseBadArguments)
{
    uint8_t b[64] = {0};
    char t[64] = "x";
    int p = 0;
    entity nossl{};
    entity broken = *cap;   // a record without its session
    nossl.fd = cap->fd;
    broken.ssl = nullptr;
    WiFiConfig cfg{};
    g_is_server = 1;
    const int32_t rcs[] = {process_sync_req(nullptr, b),
                           process_sync_req(re, nullptr),
                           process_sync_reply(nullptr, b),
                           process_sync_reply(cap, nullptr),
                           process_auth_req(nullptr, b),
                           process_auth_req(cap, nullptr),
                           process_auth_reply(nullptr, b),
                           process_auth_reply(cap, nullptr),
                           send_sync_reply(nullptr, 1, ""),
                           send_auth_reply(nullptr, 1, ""),
                           send_auth_req(nullptr),
                           send_mesh_conf(nullptr),
                           ssl_accept(nullptr),
                           ssl_accept(&nossl),
                           entity_read_write(nullptr, 1, b, 4),
                           entity_read_write(&nossl, 1, b, 4),
                           entity_read_write(cap, 1, nullptr, 4),
                           entity_read(cap, nullptr, 4),
                           check_auth(cap, nullptr, 14, "p", 1),
                           check_auth(cap, "i", 1, nullptr, 1),
                           check_auth(cap, "i", 1, "p", 0),
                           client_connect(nullptr, "1.2.3.4"),
                           client_connect(&nossl, "1.2.3.4"),
                           dd_send_msg(-1, "", 9, b, 1),
                           dd_send_msg(cap->fd, "", 9, nullptr, 1),
                           dd_recv_msg(-1, t, &p, b, 4),
                           dd_recv_msg(cap->fd, t, &p, nullptr, 4),
                           dd_recv_msg(cap->fd, t, &p, b, -1),
                           dd_recv_raw_msg(-1, b, 4),
                           dd_recv_raw_msg(cap->fd, nullptr, 4),
                           dd_recv_raw_msg(cap->fd, b, -1),
                           dd_parse_raw_frame(nullptr, 64, b, 4),
                           dd_parse_raw_frame(b, -1, b, 4),
                           dd_parse_raw_frame(b, 64, b, -1),
                           dd_parse_raw_frame(b, 44, nullptr, 64),
                           tolva_exec_cmd(nullptr, t, 9),
                           tolva_exec_cmd("true", nullptr, 9),
                           getWifiMac(nullptr, 0),
                           getWifiMac(t, -1),
                           getWifiMac(t, 3),
                           tolvaInitCap(nullptr, "m", "a", "b", 1),
                           tolvaInitCap(&cfg, nullptr, "a", "b", 1),
                           tolvaInitRe(nullptr, "", 1),
                           tolva_derive_mac(nullptr, 1, t),
                           tolva_derive_mac("zz", 1, t),
                           send_message(cap, 5, nullptr, 1),
                           send_message(cap, 5, b, -1),
                           send_message(cap, 5, b, 2005),
                           send_message(&nossl, 5, b, 1),
                           dd_create_sockfd(nullptr, 0, 0),
                           set_fd_timeout(-1, 1, 0),
                           send_auth_req(&broken),
                           set_fd_timeout(open_null(), 1, 0)};
    for (size_t i = 0; i < sizeof(rcs) / sizeof(rcs[0]); i++)
        EXPECT_EQ(-1, rcs[i]) << "call " << i;
    EXPECT_EQ(ST_SSL_DONE, cap->state);   // untouched
    EXPECT_EQ("", read_raw(re));          // nothing was sent
}

// The bytes a peer receives: the header; the record's fixed fields; the text up to its limit.
TEST_F(Proto, BytesOnTheWire)
{
    std::string body(2004, 'b');
    g_is_server = 1;
    strcpy(cap->mac2, "aa:bb:cc:00:00:02");   // known to the CAP, not sent
    EXPECT_EQ(2048, send_message(cap, 5, (const uint8_t *)body.data(), 2004));
    EXPECT_EQ(read_raw(re), std::string("\x10\x01\x07\xd4\x00\x05", 6) + std::string(38, 0) +
                                body);   // a CAP sends no MACs
    fake_sys_answer(MESH_INITBUF_CMD, std::string(952, 'j'));
    strcpy(g_locate, std::string(63, 'L').c_str());
    ASSERT_EQ(send_mesh_conf(cap), 0);
    for (size_t n : {0, 953}) {   // nothing, one past the limit
        fake_sys_answer(MESH_INITBUF_CMD, std::string(n, 'j'));
        EXPECT_EQ(-1, send_mesh_conf(cap)) << "text of " << n;
    }
    g_is_server = 0;
    std::string f = read_raw(re);
    std::string r = f.substr(MSG_HDR_SIZE);
    ASSERT_EQ(f.substr(2, 4) + r.substr(0, 2),
              std::string("\x07\xd4\x00\x06\x04\x00", 6));   // 2004 bytes, type 6; type 4, bsd off
    const std::string locale(62, 'L');                       // of 63, cut to 62 and the terminator
    const struct {
        size_t off;
        const char *text;
    } fields[] = {{2, "Home-2G"},           {35, "psk-secret"},        {100, "psk2"},
                  {116, "Home-5G"},         {149, "sae-secret-5"},     {214, "ccmp"},
                  {230, "KvMesh_0a1b2c3d"}, {263, "00112233445566ff"}, {328, "psk2"},
                  {984, locale.c_str()}};
    for (const auto &fl : fields)
        EXPECT_STREQ(fl.text, &r[fl.off]) << fl.off;
    EXPECT_EQ(r.substr(SYNC_TEXT_OFFSET), std::string(952, 'j') + '\0');
    EXPECT_EQ("", read_raw(re));   // the refused ones sent nothing
    SSL_set_quiet_shutdown(cap->ssl, 0);
    SSL_shutdown(cap->ssl);   // an orderly close frees the reader's record
    EXPECT_EQ(-1, entity_read(re, (uint8_t *)&f[0], 4));
    EXPECT_TRUE(all_zero(re));
    EXPECT_EQ(0, ssl_accept(cap));   // past ST_TCP_DONE: nothing to do
    EXPECT_EQ(ST_SSL_DONE, cap->state);
}

// Slots: seven peers, the eighth refused without a share; a release gives slot and share back
// once (by generation); a second release closes no fd 0; a main record in service is released.
TEST_F(Proto, SlotsSharesAndRelease)
{
    g_is_server = 1;
    g_ssl_ctx = srv_ctx;
    int first = -1;
    int last = -1;
    for (int i = 2; i < ENT_POOL_SIZE; i++) {   // the first and the last peer on socketpairs
        int sv[2] = {open_null(), -1};
        if (i == 2 || i == ENT_POOL_SIZE - 1) {
            close(sv[0]);
            ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
            (i == 2 ? first : last) = sv[1];
        }
        ASSERT_EQ(new_entity("peer", sv[0], 0), &ent_pool[i]);
    }
    int fd = open_null();
    EXPECT_EQ(nullptr, new_entity("peer", fd, 0));
    EXPECT_EQ(7, g_srving_cnt);
    EXPECT_NE(-1, fcntl(fd, F_GETFD));   // the refused peer's socket is the caller's
    uint32_t gen = ent_gen(&ent_pool[3]);
    free_entity(&ent_pool[3]);
    EXPECT_TRUE(all_zero(&ent_pool[3]));
    EXPECT_EQ(6, g_srving_cnt);
    entity *again = new_entity("peer", fd, 0);
    ASSERT_EQ(again, &ent_pool[3]);
    EXPECT_EQ(pass_of(1, again->id), again->pass);   // a fresh id, signed with the CAP's key
    EXPECT_EQ(14u, strspn(again->id, "0123456789abcdef"));
    EXPECT_EQ(3, again->slot);
    EXPECT_EQ(100u, again->start_ts);
    EXPECT_EQ(0, ent_release_share(3, gen));                     // stale generation
    EXPECT_EQ(0, ent_release_share(0, ent_gen(&ent_pool[0])));   // no peer
    EXPECT_EQ(1, ent_release_share(3, ent_gen(again)));
    EXPECT_EQ(0, ent_release_share(3, ent_gen(again)));   // once
    EXPECT_EQ(6, g_srving_cnt);
    ent_hand_over(&ent_pool[2]);   // owned by running threads
    ent_hand_over(&ent_pool[7]);
    disconnect_others(cap);   // their sockets go, their records stay with their threads
    EXPECT_EQ(0, recv_one(first));
    EXPECT_EQ(0, recv_one(last));
    EXPECT_NE(nullptr, ent_pool[2].ssl);
    EXPECT_NE(nullptr, ent_pool[7].ssl);
    ent_hand_back(&ent_pool[2]);
    ent_hand_back(&ent_pool[7]);
    EXPECT_EQ(-1, recv_one(re->fd));   // the kept peer's socket stays
    close(first);
    close(last);
    current = 0;
    entity *young = &ent_pool[4];
    young->start_ts = 0;
    free_entity(young);   // a CAP record without a start time is not in service: kept
    EXPECT_NE(nullptr, young->ssl);
    g_is_server = 0;
    free_entity(young);
    if (fcntl(0, F_GETFD) == -1)
        open_null();   // the lowest free number: 0
    free_entity(young);
    g_is_server = 1;
    free_entity(young);   // a second release in either role
    EXPECT_NE(-1, fcntl(0, F_GETFD));
    fd = re->fd;
    g_is_server = 0;
    g_ssl_ctx = clt_ctx;
    current = 100;
    ASSERT_EQ(main_ent = new_entity("RE", open_null(), 1), &ent_pool[0]);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));   // the old main record was still connected: released first
    entity_disconnect(main_ent);
    EXPECT_EQ(-1, main_ent->fd);
    EXPECT_NE(nullptr, main_ent->ssl);
    EXPECT_EQ(nullptr, new_entity("RE", -1, 1));
}

}   // namespace
