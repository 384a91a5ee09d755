// The pairing's TCP sockets of both roles; in a network namespace of the test's own.
#include <gtest/gtest.h>

#include "testing.h"

namespace
{

const bool net_ok = netns_enter_private();

int nodelay(int fd)
{
    int v = -1;
    socklen_t len = sizeof(v);
    return getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &v, &len) == 0 ? v : -1;
}

entity *created;

}   // namespace

// Each message is one write, and the next often follows before any answer (TLS Finished, then
// the first request; a reply, then the CAP's own request): held back for the ACK of the one
// before, it waited for the peer's delayed ACK.
TEST(Sockets, BothEndsSendEachMessageAtOnce)
{
    ASSERT_TRUE(net_ok);
    log_level = 0;
    g_ssl_ctx = SSL_CTX_new(TLS_method());
    ASSERT_EQ(0, setup_service("CAP", "lo", "127.0.0.1", MESH_PORT));
    entity *cap = main_ent;
    ASSERT_EQ(0, listen(cap->fd, 1));
    int re_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(MESH_PORT);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, connect(re_fd, (sockaddr *)&sa, sizeof(sa)));
    server_thread_create = [](pthread_t *, void *(*)(void *), void *arg) -> int32_t {
        created = (entity *)arg;
        return 0;
    };
    EXPECT_EQ(0, handle_new_connection(cap));
    ASSERT_NE(nullptr, created);
    EXPECT_EQ(1, nodelay(created->fd));   // the CAP's peer
    ent_hand_back(created);
    free_entity(created);
    free_entity(cap);
    close(re_fd);
    ASSERT_EQ(0, setup_service("RE", "lo", "", 0));
    EXPECT_EQ(1, nodelay(main_ent->fd));
    free_entity(main_ent);
    server_thread_create = sig_thread_create;
}
