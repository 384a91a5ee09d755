// Entities, TLS record I/O and the pairing messages, driven through a real
// TLS session over a socketpair inside one process: slot 1 plays the CAP's
// peer record, slot 0 the RE's main record. g_is_server is switched to the
// role of whichever end is acting.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "conn/entity.h"
#include "conn/tls.h"
#include "core/env.h"
#include "core/flow.h"
#include "fake_sys.h"
#include "proto/auth.h"
#include "proto/frame.h"
#include "proto/sync.h"
#include "util/codec.h"
#include "util/log.h"

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

testing::AssertionResult Has(const std::string &text, const std::string &part)
{
    if (text.find(part) != std::string::npos)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << part << "\" not in:\n" << text;
}

SSL_CTX *srv_ctx, *clt_ctx;
const char *const kDir = "/tmp/h4tls";
std::string cert_path, key_path, ca_path;

// A throw-away EC key and self-signed certificate for the CAP's context.
void make_credentials()
{
    mkdir(kDir, 0700);
    cert_path = std::string(kDir) + "/ct";
    key_path = std::string(kDir) + "/ky";
    ca_path = std::string(kDir) + "/ca";

    EVP_PKEY_CTX *kctx = EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr);
    EVP_PKEY *key = nullptr;
    EVP_PKEY_keygen_init(kctx);
    EVP_PKEY_CTX_set_ec_paramgen_curve_nid(kctx, NID_X9_62_prime256v1);
    EVP_PKEY_keygen(kctx, &key);
    EVP_PKEY_CTX_free(kctx);

    X509 *x = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
    X509_gmtime_adj(X509_getm_notBefore(x), -3600);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600);
    X509_set_pubkey(x, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                               (const unsigned char *)"cap", -1, -1, 0);
    X509_set_issuer_name(x, X509_get_subject_name(x));
    X509_sign(x, key, EVP_sha256());

    FILE *f = fopen(cert_path.c_str(), "w");
    PEM_write_X509(f, x);
    fclose(f);
    f = fopen(ca_path.c_str(), "w");
    PEM_write_X509(f, x);
    fclose(f);
    f = fopen(key_path.c_str(), "w");
    PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
    fclose(f);
    X509_free(x);
    EVP_PKEY_free(key);
}

// Builds one context for a role; the previous g_ssl_ctx is detached first
// so that ssl_init does not free it.
SSL_CTX *make_ctx(int32_t server)
{
    g_ssl_ctx = nullptr;
    g_is_server = server;
    if (ssl_init() != 0)
        return nullptr;
    SSL_CTX *ctx = g_ssl_ctx;
    g_ssl_ctx = nullptr;
    return ctx;
}

entity *peer_ent(int fd)
{
    g_is_server = 1;
    g_ssl_ctx = srv_ctx;
    return new_entity("peer-10.0.0.2", fd, 0);
}

entity *re_ent(int fd)
{
    g_is_server = 0;
    g_ssl_ctx = clt_ctx;
    entity *e = new_entity("RE", fd, 1);
    main_ent = e;
    return e;
}

int open_null()
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool all_zero(const entity *e)
{
    static const entity zero{};
    return memcmp(e, &zero, sizeof(zero)) == 0;
}

// Releases every record whatever its role or start time.
void drain_pool()
{
    g_is_server = 0;
    for (int i = ENT_POOL_SIZE - 1; i >= 0; i--)
        free_entity(&ent_pool[i]);
    main_ent = nullptr;
    g_srving_cnt = 0;
}

void write_raw(entity *from, uint16_t version, uint16_t type, const std::string &body)
{
    uint8_t buf[MSG_BUF_SIZE] = {0};
    uint16_t v = htons(version), l = htons((uint16_t)body.size()), t = htons(type);
    memcpy(buf, &v, 2);
    memcpy(buf + 2, &l, 2);
    memcpy(buf + 4, &t, 2);
    memcpy(buf + MSG_HDR_SIZE, body.data(), body.size());
    ASSERT_EQ(SSL_write(from->ssl, buf, (int)(MSG_HDR_SIZE + body.size())),
              (int)(MSG_HDR_SIZE + body.size()));
}

// One raw frame as the other end sees it.
struct frame {
    uint8_t hdr[MSG_HDR_SIZE];
    uint16_t type, len;
    std::string body;
};

frame read_raw(entity *at)
{
    frame f{};
    EXPECT_EQ(entity_read(at, f.hdr, MSG_HDR_SIZE), MSG_HDR_SIZE);
    f.len = (uint16_t)(f.hdr[2] << 8 | f.hdr[3]);
    f.type = (uint16_t)(f.hdr[4] << 8 | f.hdr[5]);
    std::string b(f.len, '\0');
    if (f.len) {
        EXPECT_EQ(entity_read(at, (uint8_t *)&b[0], f.len), f.len);
    }
    f.body = b;
    return f;
}

class Proto : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        signal(SIGPIPE, SIG_IGN);
        log_mode = LOG_MODE_STDERR;
        make_credentials();
        certfile = cert_path.c_str();
        keyfile = key_path.c_str();
        cafile = ca_path.c_str();
        srv_ctx = make_ctx(1);
        clt_ctx = make_ctx(0);
    }

    void SetUp() override
    {
        ASSERT_NE(srv_ctx, nullptr);
        ASSERT_NE(clt_ctx, nullptr);
        fake_sys_install();
        current = 100;
        g_dry_run = 0;
        g_is_success = 0;
        strcpy(g_locate, "default");
        strcpy(g_macaddr, "aa:bb:cc:00:00:01");
        fake_sys_answer("mesh_tool initbuf 2>/dev/null", "{\"k\":1}");
    }

    void TearDown() override
    {
        drain_pool();
        fake_sys_uninstall();
    }

    // A CAP peer and an RE main entity with a finished TLS handshake.
    void connect_pair()
    {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        cap = peer_ent(fds[0]);
        re = re_ent(fds[1]);
        ASSERT_TRUE(cap && re);
        change_state(cap, ST_TCP_DONE);
        int rc = 0;
        std::thread t([&] { rc = SSL_connect(re->ssl); });
        g_is_server = 1;
        int32_t accepted = ssl_accept(cap);
        t.join();
        ASSERT_EQ(accepted, 0);
        ASSERT_EQ(rc, 1);
        EXPECT_EQ(cap->state, ST_SSL_DONE);
        change_state(re, ST_SSL_DONE);
        // Known radio MACs, so that send_auth_req need not ask the platform.
        strcpy(re->mac2, "aa:bb:cc:00:00:02");
        strcpy(re->mac5, "aa:bb:cc:00:00:03");
    }

    // Runs the authentication up to both ends in ST_RUNNING, leaving the
    // CAP's MSG_SYNC_REQ unread at the RE.
    void authenticate()
    {
        g_is_server = 0;
        ASSERT_EQ(send_auth_req(re), 0);
        change_state(re, ST_AUTH_SENT);
        g_is_server = 1;
        ASSERT_EQ(recv_message(cap), 0);   // RE's request
        EXPECT_EQ(cap->state, ST_AUTH_SENT);
        g_is_server = 0;
        ASSERT_EQ(recv_message(re), 0);   // CAP's reply
        EXPECT_EQ(re->state, ST_AUTH_SENT_2);
        ASSERT_EQ(recv_message(re), 0);   // CAP's request
        EXPECT_EQ(re->state, ST_RUNNING);
        g_is_server = 1;
        ASSERT_EQ(recv_message(cap), 0);   // RE's reply; the CAP sends the config
        EXPECT_EQ(cap->state, ST_RUNNING);
    }

    entity *cap = nullptr, *re = nullptr;
};

TEST_F(Proto, PeerSlotsOverloadAndRelease)
{
    for (int i = 1; i < ENT_POOL_SIZE; i++)
        ASSERT_NE(peer_ent(open_null()), nullptr);
    EXPECT_EQ(g_srving_cnt, 7);
    int fd = open_null();
    CaptureStderr();
    EXPECT_EQ(peer_ent(fd), nullptr);
    EXPECT_TRUE(Has(GetCapturedStderr(), "no free slot. ignore connection.\n"));
    EXPECT_EQ(g_srving_cnt, 8);   // the refusal keeps its increment
    EXPECT_NE(fcntl(fd, F_GETFD), -1);   // the caller's socket is left alone
    close(fd);

    // A released record is all zero and its slot is free again.
    free_entity(&ent_pool[3]);
    EXPECT_TRUE(all_zero(&ent_pool[3]));
    EXPECT_EQ(g_srving_cnt, 7);
    entity *again = peer_ent(open_null());
    ASSERT_EQ(again, &ent_pool[3]);
    EXPECT_EQ(again->slot, 3);
    EXPECT_EQ(again->state, ST_STOP);
    EXPECT_EQ(again->start_ts, 100u);
    EXPECT_EQ(strlen(again->id), 14u);
    EXPECT_EQ(strspn(again->id, "0123456789abcdef"), 14u);
    EXPECT_EQ(strlen(again->pass), 44u);

    EXPECT_EQ(new_entity("x", -1, 0), nullptr);
}

TEST_F(Proto, ReleaseRuleAndDoubleRelease)
{
    current = 0;
    entity *e = peer_ent(open_null());
    ASSERT_NE(e, nullptr);
    int fd = e->fd;
    CaptureStderr();
    free_entity(e);   // CAP, not in service: untouched
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_NE(e->ssl, nullptr);
    EXPECT_EQ(e->fd, fd);

    g_is_server = 0;   // the RE releases every record
    free_entity(e);
    EXPECT_TRUE(all_zero(e));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);

    // A second release in either role neither crashes nor closes fd 0.
    if (fcntl(0, F_GETFD) == -1)
        open_null();   // the lowest free number: 0
    int fd0_flags = fcntl(0, F_GETFD);
    ASSERT_NE(fd0_flags, -1);
    free_entity(e);
    g_is_server = 1;
    free_entity(e);
    free_entity(nullptr);
    EXPECT_TRUE(all_zero(e));
    EXPECT_EQ(fcntl(0, F_GETFD), fd0_flags);

    // A main entity still in service is released before slot 0 is reused.
    current = 100;
    ASSERT_NE(re_ent(open_null()), nullptr);
    CaptureStderr();
    entity *m2 = re_ent(open_null());
    EXPECT_TRUE(Has(GetCapturedStderr(), "[RE] free old main entity [RE] before using it.\n"));
    EXPECT_EQ(m2, &ent_pool[0]);
    EXPECT_NE(m2->fd, -1);
    EXPECT_NE(m2->ssl, nullptr);
}

TEST_F(Proto, ChangeStateAndDisconnect)
{
    entity *e = peer_ent(open_null());
    ASSERT_NE(e, nullptr);
    CaptureStderr();
    change_state(e, ST_STOP);
    change_state(nullptr, ST_RUNNING);
    EXPECT_TRUE(Has(GetCapturedStderr(), "[peer-10.0.0.2]: ST_STOP -> ST_STOP \n"));

    int fd = e->fd;
    entity_disconnect(e);
    EXPECT_EQ(e->fd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    int reuse = open_null();   // likely takes the same number
    entity_disconnect(e);
    EXPECT_EQ(e->fd, -1);
    EXPECT_NE(fcntl(reuse, F_GETFD), -1);
    close(reuse);
    EXPECT_NE(e->ssl, nullptr);   // the record is kept
}

TEST_F(Proto, ContextSetUp)
{
    const char *ca = cafile;
    cafile = "/tmp/h4tls/missing";
    CaptureStderr();
    EXPECT_EQ(make_ctx(1), nullptr);
    EXPECT_TRUE(Has(GetCapturedStderr(), "SSL_CTX load cert failed.\n"));
    EXPECT_EQ(g_ssl_ctx, nullptr);
    cafile = ca;

    SSL_CTX *cap_ctx = make_ctx(1);
    ASSERT_NE(cap_ctx, nullptr);
    EXPECT_EQ(SSL_CTX_get_min_proto_version(cap_ctx), TLS1_2_VERSION);
    EXPECT_EQ(SSL_CTX_get_verify_mode(cap_ctx), SSL_VERIFY_NONE);
    SSL_CTX_free(cap_ctx);
}

TEST_F(Proto, RecordIoBounds)
{
    connect_pair();
    static uint8_t big[2049];
    memset(big, 'z', sizeof(big));
    CaptureStderr();
    EXPECT_EQ(entity_write(re, big, 2049), -1);
    EXPECT_EQ(entity_write(re, big, 0), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(entity_write(re, big, 2048), 2048);

    uint8_t in[2049];
    in[0] = 7;
    EXPECT_EQ(entity_read(cap, in, 0), 0);
    EXPECT_EQ(in[0], 7);
    EXPECT_EQ(entity_read(cap, in, 2049), -1);   // above one transfer's bound
    EXPECT_EQ(entity_read(cap, in, 2048), 2048);
    EXPECT_EQ(in[2047], 'z');

    // An orderly close by the peer frees the reader's record.
    SSL_set_quiet_shutdown(re->ssl, 0);
    SSL_shutdown(re->ssl);
    CaptureStderr();
    EXPECT_EQ(entity_read(cap, in, 4), -1);
    EXPECT_TRUE(Has(GetCapturedStderr(), "INF: peer [peer-10.0.0.2] read EOF. disconnecting...\n"));
    EXPECT_TRUE(all_zero(&ent_pool[1]));

    // Handshake on a record past ST_TCP_DONE: nothing to do.
    g_is_server = 0;
    CaptureStderr();
    EXPECT_EQ(ssl_accept(re), 0);
    EXPECT_TRUE(Has(GetCapturedStderr(), "[RE] in wrong status: 3 \n"));
}

TEST_F(Proto, FrameLimitsAndHeader)
{
    connect_pair();
    std::string body(2005, 'b');
    g_is_server = 1;
    CaptureStderr();
    EXPECT_EQ(send_message(cap, 5, (const uint8_t *)body.data(), 2005), -1);
    EXPECT_TRUE(Has(GetCapturedStderr(), "[peer-10.0.0.2], send_message with too large size: 2005.\n"));
    EXPECT_EQ(send_message(cap, 5, nullptr, 1), -1);
    EXPECT_EQ(send_message(cap, 5, (const uint8_t *)body.data(), -1), -1);
    EXPECT_EQ(send_message(cap, 5, (const uint8_t *)body.data(), 2004), 2048);

    // The refused frames wrote nothing: the first frame read is the 2004 one.
    frame f = read_raw(re);
    EXPECT_EQ(f.len, 2004);
    EXPECT_EQ(f.hdr[0], 0x10);
    EXPECT_EQ(f.hdr[1], 0x01);
    EXPECT_EQ(f.type, 5);
    // A CAP's frames carry no MACs.
    for (int i = 6; i < MSG_HDR_SIZE; i++)
        EXPECT_EQ(f.hdr[i], 0) << i;

    g_is_server = 0;
    EXPECT_EQ(send_message(re, 7, (const uint8_t *)"x", 1), 45);
    f = read_raw(cap);
    EXPECT_EQ(std::string((char *)f.hdr + 6), "aa:bb:cc:00:00:02");
    EXPECT_EQ(std::string((char *)f.hdr + 25), "aa:bb:cc:00:00:03");
}

TEST_F(Proto, BadFramesFreeTheEntity)
{
    struct {
        uint16_t version, type;
        const char *log;
    } cases[] = {
        {0x1002, 4, "msg version not match: 1002\n"},
        {MSG_VERSION, 3, "[peer-10.0.0.2] not supported msg-type: 3 .\n"},
        {MSG_VERSION, 8, "[peer-10.0.0.2] not supported msg-type: 8 .\n"},
        {MSG_VERSION, 6, "[peer-10.0.0.2] process error.\n"},
    };
    for (const auto &c : cases) {
        connect_pair();
        // A configuration a RE would accept, sent to a CAP ready for one.
        std::string body(1100, '\0');
        body[SYNC_TEXT_OFFSET] = 'x';
        write_raw(re, c.version, c.type, body);
        g_is_server = 1;
        change_state(cap, ST_RUNNING);
        CaptureStderr();
        EXPECT_EQ(recv_message(cap), -1);
        EXPECT_TRUE(Has(GetCapturedStderr(), c.log));
        EXPECT_TRUE(all_zero(&ent_pool[1])) << c.type;
        drain_pool();
    }

    // A reply without body reads the header in its place: code 0x10.
    connect_pair();
    change_state(cap, ST_AUTH_SENT);
    write_raw(re, MSG_VERSION, 5, "");
    g_is_server = 1;
    CaptureStderr();
    CaptureStdout();
    EXPECT_EQ(recv_message(cap), -1);
    std::string out = GetCapturedStdout();
    EXPECT_TRUE(Has(GetCapturedStderr(), "[peer-10.0.0.2] get wrong reply with [16:\x01]\n"));
    EXPECT_TRUE(Has(out, "mesh.re.conn.fail=AUTH_FAILED:1\n"));
    EXPECT_TRUE(all_zero(&ent_pool[1]));
}

TEST_F(Proto, CheckAuth)
{
    int fd = open_null();
    entity *e = peer_ent(fd);   // CAP checking an RE's password
    ASSERT_NE(e, nullptr);
    const char *id = "0123456789abcd";
    char re_pass[64] = {0}, cap_pass[64] = {0};
    int32_t re_len = 0, cap_len = 0;
    ASSERT_EQ(get_hmac_base64(0, id, 14, re_pass, &re_len), 0);
    ASSERT_EQ(get_hmac_base64(1, id, 14, cap_pass, &cap_len), 0);

    EXPECT_EQ(check_auth(e, id, 14, re_pass, re_len), 0);
    EXPECT_EQ(e->state, ST_STOP);
    change_state(e, ST_SSL_DONE);
    EXPECT_EQ(check_auth(e, "", 0, re_pass, re_len), -1);
    EXPECT_EQ(check_auth(e, id, 14, re_pass, 0), -1);
    EXPECT_EQ(check_auth(e, nullptr, 14, re_pass, re_len), -1);
    EXPECT_EQ(e->state, ST_SSL_DONE);   // argument faults change nothing

    EXPECT_EQ(check_auth(e, id, 14, cap_pass, cap_len), -1);   // the other role's key
    EXPECT_EQ(e->state, ST_STOP);
    change_state(e, ST_SSL_DONE);
    std::string longer = std::string(re_pass) + "A";
    EXPECT_EQ(check_auth(e, id, 14, longer.c_str(), (int32_t)longer.size()), -1);
    EXPECT_EQ(e->state, ST_STOP);

    g_is_server = 0;   // and an RE accepts only the CAP's key
    EXPECT_EQ(check_auth(e, id, 14, cap_pass, cap_len), 0);
    EXPECT_EQ(check_auth(e, id, 14, re_pass, re_len), -1);
}

TEST_F(Proto, MutualAuthAndSync)
{
    connect_pair();
    authenticate();
    EXPECT_STREQ(cap->macaddr, "aa:bb:cc:00:00:01");
    EXPECT_STREQ(cap->mac2, "aa:bb:cc:00:00:02");
    EXPECT_STREQ(cap->mac5, "aa:bb:cc:00:00:03");

    // The RE takes the configuration, answers and runs its set-up.
    g_is_server = 0;
    strcpy(re->mac2, "ff:ff:ff:ff:ff:ff");   // later frames do not overwrite the CAP's copy
    CaptureStdout();
    ASSERT_EQ(recv_message(re), 0);
    GetCapturedStdout();
    EXPECT_TRUE(all_zero(&ent_pool[0]));
    EXPECT_EQ(g_is_success, 1);
    bool re_init = false;
    for (const auto &cmd : fake_sys_system_cmds())
        re_init |= cmd.find("/usr/sbin/mesh_setup.sh") == 0 && cmd.find("re_init") != std::string::npos;
    EXPECT_TRUE(re_init);

    g_is_server = 1;
    CaptureStderr();
    ASSERT_EQ(recv_message(cap), 0);
    std::string log = GetCapturedStderr();
    EXPECT_TRUE(Has(log, "[peer-10.0.0.2] sync config success.\n"));
    EXPECT_TRUE(Has(log, "[peer-10.0.0.2] tolvaInitCap,macaddr: aa:bb:cc:00:00:01, "
                         "2g: aa:bb:cc:00:00:02, 5g: aa:bb:cc:00:00:03\n"));
    EXPECT_TRUE(all_zero(&ent_pool[1]));
    bool cap_init = false;
    for (const auto &cmd : fake_sys_system_cmds())
        cap_init |= cmd.find("/usr/sbin/mesh_setup.sh") == 0 && cmd.find("cap_init") != std::string::npos;
    EXPECT_TRUE(cap_init);
}

TEST_F(Proto, AuthRefusals)
{
    connect_pair();
    // A second request at the RE before the CAP's reply.
    g_is_server = 0;
    change_state(re, ST_AUTH_SENT);
    g_is_server = 1;
    change_state(cap, ST_SSL_DONE);
    ASSERT_EQ(send_auth_req(cap), 0);
    g_is_server = 0;
    CaptureStdout();
    EXPECT_EQ(recv_message(re), -1);
    EXPECT_TRUE(Has(GetCapturedStdout(), "mesh.re.conn.fail=AUTH_FAILED:1"));
    EXPECT_TRUE(all_zero(&ent_pool[0]));
    g_is_server = 1;
    frame f = read_raw(cap);
    EXPECT_EQ(f.type, 5);
    EXPECT_EQ(f.body[0], REPLY_FAIL);
    EXPECT_STREQ(f.body.c_str() + 1, "in wrong status.");
    drain_pool();

    // A request with an empty id at the CAP: refused, reply still sent.
    connect_pair();
    auth_req req{};
    strcpy(req.pass, "x");
    write_raw(re, MSG_VERSION, 4, std::string((char *)&req, sizeof(req)));
    g_is_server = 1;
    CaptureStdout();
    EXPECT_EQ(recv_message(cap), -1);
    GetCapturedStdout();
    g_is_server = 0;
    f = read_raw(re);
    EXPECT_EQ(f.body[0], REPLY_FAIL);
    EXPECT_STREQ(f.body.c_str() + 1, "account/pass invalid.");
}

TEST_F(Proto, SyncTextLimitAndReplies)
{
    connect_pair();
    authenticate();
    g_is_server = 0;
    frame first = read_raw(re);   // the one authenticate() left behind
    EXPECT_EQ(first.type, 6);
    EXPECT_STREQ(first.body.c_str() + offsetof(WiFiConfig, locale), "default");

    g_is_server = 1;
    fake_sys_answer("mesh_tool initbuf 2>/dev/null", std::string(952, 'j'));
    strcpy(g_locate, std::string(63, 'L').c_str());
    ASSERT_EQ(send_mesh_conf(cap), 0);
    fake_sys_answer("mesh_tool initbuf 2>/dev/null", std::string(953, 'j'));
    EXPECT_EQ(send_mesh_conf(cap), -1);
    fake_sys_answer("mesh_tool initbuf 2>/dev/null", "");
    CaptureStderr();
    EXPECT_EQ(send_mesh_conf(cap), -1);
    EXPECT_TRUE(Has(GetCapturedStderr(), "[peer-10.0.0.2] mesh_ops.sh initbuf failed.\n"));

    g_is_server = 0;
    frame f = read_raw(re);
    EXPECT_EQ(f.len, 2004);
    EXPECT_EQ(f.body.substr(SYNC_TEXT_OFFSET), std::string(952, 'j') + '\0');
    EXPECT_EQ(std::string(f.body.c_str() + offsetof(WiFiConfig, locale)), std::string(62, 'L'));

    // A configuration without text is refused with code 2.
    write_raw(cap, MSG_VERSION, 6, std::string(SYNC_TEXT_OFFSET + 1, '\0'));
    EXPECT_EQ(recv_message(re), -1);
    g_is_server = 1;
    f = read_raw(cap);
    EXPECT_EQ(f.type, 7);
    EXPECT_EQ(f.body[0], REPLY_FAIL);
    EXPECT_STREQ(f.body.c_str() + 1, "read jsonBuf with NULL.");

    // The CAP logs a rejection and frees the peer without any script.
    msg_reply rej{};
    rej.code = REPLY_FAIL;
    strcpy(rej.text, "read jsonBuf with NULL.");
    fake_sys_install();
    CaptureStderr();
    CaptureStdout();
    EXPECT_EQ(process_sync_reply(cap, (const uint8_t *)&rej), 0);
    EXPECT_TRUE(Has(GetCapturedStdout(), "mesh.re.conn.fail=SYNC_FAILED:1\n"));
    EXPECT_TRUE(Has(GetCapturedStderr(),
                    "[peer-10.0.0.2] sync config rejected: [2:read jsonBuf with NULL.] .\n"));
    EXPECT_TRUE(all_zero(&ent_pool[1]));
    for (const auto &cmd : fake_sys_system_cmds())
        EXPECT_EQ(cmd.find("mesh_setup"), std::string::npos) << cmd;
}

}  // namespace
