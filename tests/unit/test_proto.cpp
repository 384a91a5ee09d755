// Entities, TLS record I/O and the pairing messages, driven through a real
// TLS session over a socketpair inside one process. g_is_server is switched
// to the role of whichever end is acting.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "capture.h"
#include "fake_sys.h"
#include "proto/auth.h"
#include "proto/frame.h"
#include "proto/sync.h"
#include "tls_pair.h"
#include "util/codec.h"
#include "util/log.h"

namespace {

SSL_CTX *srv_ctx, *clt_ctx;

entity *peer_ent(int fd)
{
    g_is_server = 1;
    g_ssl_ctx = srv_ctx;
    return new_entity("peer-10.0.0.2", fd, 0);
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

// One raw frame, header and body, as the other end sees it.
std::string read_raw(entity *at)
{
    std::string f(MSG_HDR_SIZE, '\0');
    EXPECT_EQ(entity_read(at, (uint8_t *)&f[0], MSG_HDR_SIZE), MSG_HDR_SIZE);
    f.resize(MSG_HDR_SIZE + ((uint8_t)f[2] << 8 | (uint8_t)f[3]));
    EXPECT_EQ(entity_read(at, (uint8_t *)&f[MSG_HDR_SIZE], (uint32_t)f.size() - MSG_HDR_SIZE),
              (int32_t)f.size() - MSG_HDR_SIZE);
    return f;
}

class Proto : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        signal(SIGPIPE, SIG_IGN);
        log_mode = LOG_MODE_STDERR;
        if (tls_make_credentials("/tmp/prototls"))
            srv_ctx = tls_role_ctx(1), clt_ctx = tls_role_ctx(0);
    }
    void SetUp() override
    {
        ASSERT_TRUE(srv_ctx && clt_ctx);
        fake_sys_install();
        current = 100;
        strcpy(g_locate, "default");
    }
    void TearDown() override
    {
        g_is_server = 0;   // the RE releases every record
        for (int i = ENT_POOL_SIZE - 1; i >= 0; i--)
            free_entity(&ent_pool[i]);
        main_ent = nullptr;
        g_srving_cnt = 0;
        fake_sys_uninstall();
    }
    void connect_pair() { ASSERT_TRUE(tls_connect_pair(srv_ctx, clt_ctx, &cap, &re)); }
    entity *cap = nullptr, *re = nullptr;
};

TEST_F(Proto, PeerSlotsOverloadAndRelease)
{
    for (int i = 1; i < ENT_POOL_SIZE; i++)
        ASSERT_NE(peer_ent(open_null()), nullptr);
    int fd = open_null();
    std::string err = captured(stderr, [&] { EXPECT_EQ(peer_ent(fd), nullptr); });
    EXPECT_TRUE(Has(err, "no free slot. ignore connection.\n"));
    EXPECT_EQ(g_srving_cnt, 7);   // a refusal takes no share
    EXPECT_NE(fcntl(fd, F_GETFD), -1);   // the caller's socket is left alone
    close(fd);

    // A released record is all zero and its slot is free again.
    uint32_t gen = ent_gen(&ent_pool[3]);
    free_entity(&ent_pool[3]);
    EXPECT_TRUE(all_zero(&ent_pool[3]));
    EXPECT_EQ(g_srving_cnt, 6);
    entity *again = peer_ent(open_null());
    // A stale release (the old record's generation) leaves the new one's share.
    EXPECT_EQ(ent_release_share(3, gen), 0);
    EXPECT_EQ(g_srving_cnt, 7);
    EXPECT_EQ(ent_release_share(3, ent_gen(again)), 1);
    EXPECT_EQ(ent_release_share(3, ent_gen(again)), 0);
    EXPECT_EQ(g_srving_cnt, 6);
    ASSERT_EQ(again, &ent_pool[3]);
    EXPECT_EQ(again->slot, 3);
    EXPECT_EQ(again->start_ts, 100u);
    EXPECT_EQ(strspn(again->id, "0123456789abcdef"), 14u);
    EXPECT_EQ(strlen(again->id), 14u);
    EXPECT_EQ(strlen(again->pass), 44u);
}

TEST_F(Proto, ReleaseRuleDoubleReleaseAndDisconnect)
{
    current = 0;
    entity *e = peer_ent(open_null());
    ASSERT_NE(e, nullptr);
    int fd = e->fd;
    free_entity(e);   // CAP, record taken before the first sweep: untouched
    EXPECT_EQ(e->fd, fd);
    g_is_server = 0;   // the RE releases every record
    free_entity(e);
    EXPECT_TRUE(all_zero(e));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);

    // A second release in either role neither crashes nor closes fd 0.
    if (fcntl(0, F_GETFD) == -1)
        open_null();   // the lowest free number: 0
    free_entity(e);
    g_is_server = 1;
    free_entity(e);
    free_entity(nullptr);
    EXPECT_TRUE(all_zero(e));
    EXPECT_NE(fcntl(0, F_GETFD), -1);

    // Disconnect closes once and keeps the record.
    e = peer_ent(open_null());
    fd = e->fd;
    entity_disconnect(e);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    int reuse = open_null();   // likely takes the same number
    entity_disconnect(e);
    EXPECT_NE(fcntl(reuse, F_GETFD), -1);
    close(reuse);
    EXPECT_NE(e->ssl, nullptr);

    // A main entity still in service is released before slot 0 is reused.
    current = 100;
    g_is_server = 0;
    g_ssl_ctx = clt_ctx;
    ASSERT_NE(main_ent = new_entity("RE", open_null(), 1), nullptr);
    std::string err = captured(stderr, [&] { main_ent = new_entity("RE", open_null(), 1); });
    EXPECT_TRUE(Has(err, "[RE] free old main entity [RE] before using it.\n"));
    ASSERT_EQ(main_ent, &ent_pool[0]);
    EXPECT_NE(main_ent->ssl, nullptr);
}

TEST_F(Proto, RecordIoBoundsAndEof)
{
    connect_pair();
    static uint8_t big[2049];
    memset(big, 'z', sizeof(big));
    EXPECT_EQ(entity_write(re, big, 2049), -1);
    EXPECT_EQ(entity_write(re, big, 0), -1);
    EXPECT_EQ(entity_write(re, big, 2048), 2048);
    uint8_t in[2049] = {7};
    EXPECT_EQ(entity_read(cap, in, 0), 0);
    EXPECT_EQ(in[0], 7);
    EXPECT_EQ(entity_read(cap, in, 2049), -1);
    EXPECT_EQ(entity_read(cap, in, 2048), 2048);
    EXPECT_EQ(in[2047], 'z');

    // An orderly close by the peer frees the reader's record.
    SSL_set_quiet_shutdown(re->ssl, 0);
    SSL_shutdown(re->ssl);
    std::string err = captured(stderr, [&] { EXPECT_EQ(entity_read(cap, in, 4), -1); });
    EXPECT_TRUE(Has(err, "INF: peer [peer-10.0.0.2] read EOF. disconnecting...\n"));
    EXPECT_TRUE(all_zero(&ent_pool[1]));
    // Handshake on a record past ST_TCP_DONE: nothing to do.
    g_is_server = 0;
    EXPECT_TRUE(Has(captured(stderr, [&] { EXPECT_EQ(ssl_accept(re), 0); }), "[RE] in wrong status: 3 \n"));
}

TEST_F(Proto, FrameLimitsAndHeader)
{
    connect_pair();
    std::string body(2005, 'b');
    const uint8_t *b = (const uint8_t *)body.data();
    g_is_server = 1;
    std::string err = captured(stderr, [&] { EXPECT_EQ(send_message(cap, 5, b, 2005), -1); });
    EXPECT_TRUE(Has(err, "[peer-10.0.0.2], send_message with too large size: 2005.\n"));
    EXPECT_EQ(send_message(cap, 5, nullptr, 1), -1);
    EXPECT_EQ(send_message(cap, 5, b, -1), -1);
    EXPECT_EQ(send_message(cap, 5, b, 2004), 2048);

    // The refused frames wrote nothing: the first frame is the 2004 one. Version
    // 0x1001, length, type, big-endian; a CAP's frames carry no MACs.
    std::string hdr = std::string("\x10\x01\x07\xd4\x00\x05", 6) + std::string(38, 0);
    EXPECT_EQ(read_raw(re).substr(0, MSG_HDR_SIZE), hdr);

    g_is_server = 0;
    strcpy(re->mac2, "aa:bb:cc:00:00:02");
    strcpy(re->mac5, "aa:bb:cc:00:00:03");
    EXPECT_EQ(send_message(re, 7, (const uint8_t *)"x", 1), 45);
    std::string f = read_raw(cap);
    EXPECT_EQ(std::string(f.c_str() + 6), "aa:bb:cc:00:00:02");
    EXPECT_EQ(std::string(f.c_str() + 25), "aa:bb:cc:00:00:03");
}

TEST_F(Proto, CheckAuthTakesOnlyTheOtherRolesKey)
{
    entity *e = peer_ent(open_null());   // CAP checking an RE's password
    ASSERT_NE(e, nullptr);
    const char *id = "0123456789abcd";
    char re_pass[64] = {0}, cap_pass[64] = {0};
    int32_t re_len = 0, cap_len = 0;
    ASSERT_EQ(get_hmac_base64(0, id, 14, re_pass, &re_len), 0);
    ASSERT_EQ(get_hmac_base64(1, id, 14, cap_pass, &cap_len), 0);

    std::string longer = std::string(re_pass) + "A";
    EXPECT_EQ(check_auth(e, id, 14, re_pass, re_len), 0);
    EXPECT_EQ(check_auth(e, "", 0, re_pass, re_len), -1);
    EXPECT_EQ(check_auth(e, id, 14, longer.c_str(), (int32_t)longer.size()), -1);
    change_state(e, ST_SSL_DONE);
    EXPECT_EQ(check_auth(e, id, 14, cap_pass, cap_len), -1);
    EXPECT_EQ(e->state, ST_STOP);   // a wrong password ends the session

    g_is_server = 0;   // and an RE accepts only the CAP's key
    EXPECT_EQ(check_auth(e, id, 14, cap_pass, cap_len), 0);
    EXPECT_EQ(check_auth(e, id, 14, re_pass, re_len), -1);
}

TEST_F(Proto, SyncTextLimitAndRejectedReply)
{
    connect_pair();
    g_is_server = 1;
    fake_sys_answer(MESH_INITBUF_CMD, std::string(952, 'j'));
    strcpy(g_locate, std::string(63, 'L').c_str());
    ASSERT_EQ(send_mesh_conf(cap), 0);
    fake_sys_answer(MESH_INITBUF_CMD, std::string(953, 'j'));
    EXPECT_EQ(send_mesh_conf(cap), -1);
    g_is_server = 0;
    std::string f = read_raw(re);
    ASSERT_EQ(f.substr(2, 4), std::string("\x07\xd4\x00\x06", 4));   // 2004 bytes, type 6
    EXPECT_EQ(f.substr(MSG_HDR_SIZE + SYNC_TEXT_OFFSET), std::string(952, 'j') + '\0');
    EXPECT_EQ(std::string(f.c_str() + MSG_HDR_SIZE + offsetof(WiFiConfig, locale)), std::string(62, 'L'));

    // A sync reply from a peer that has not finished authenticating is a
    // message in the wrong state: no script, no record.
    msg_reply rej{};
    rej.code = REPLY_OK;
    fake_sys_install();
    g_is_server = 1;
    std::string err = captured(stderr, [&] { EXPECT_EQ(process_sync_reply(cap, (const uint8_t *)&rej), -1); });
    EXPECT_TRUE(Has(err, "[peer-10.0.0.2] get sync reply in wrong status: 3 \n"));
    EXPECT_TRUE(fake_sys_system_cmds().empty());
    EXPECT_NE(cap->ssl, nullptr);

    // The CAP logs a rejection and frees the peer without any script.
    change_state(cap, ST_RUNNING);
    rej.code = REPLY_FAIL;
    strcpy(rej.text, "read jsonBuf with NULL.");
    std::string out = captured(stdout, [&] {
        err = captured(stderr, [&] { EXPECT_EQ(process_sync_reply(cap, (const uint8_t *)&rej), 0); });
    });
    EXPECT_EQ(out, "mesh.re.conn.fail=SYNC_FAILED:1");   // no line feed added
    EXPECT_TRUE(Has(err, "[peer-10.0.0.2] sync config rejected: [2:read jsonBuf with NULL.] .\n"));
    EXPECT_TRUE(all_zero(&ent_pool[1]));
    EXPECT_TRUE(fake_sys_system_cmds().empty());
}

}  // namespace
