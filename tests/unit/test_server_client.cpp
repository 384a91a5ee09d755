// CAP server: accepting, sweep, release race, clean-up; RE connect path and watchdog.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "capture.h"
#include "client/client.h"
#include "conn/tls.h"
#include "core/env.h"
#include "core/flow.h"
#include "fake_sys.h"
#include "netns.h"
#include "server/server.h"
#include "util/log.h"
#include "util/shell.h"
#include "util/sig.h"

namespace {

const bool net_ok = netns_enter_private();   // port 19553 on a loopback of our own

void reset(int is_server)
{
    memset(ent_pool, 0, sizeof(ent_pool));
    main_ent = nullptr;
    g_srving_cnt = current = ip_changed = 0;
    g_is_server = is_server;
    log_mode = LOG_MODE_STDERR;
    log_level = 0;
    if (!g_ssl_ctx)
        g_ssl_ctx = SSL_CTX_new(TLS_method());
}

int tcp_to(sockaddr_in *sa)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return connect(fd, (sockaddr *)sa, sizeof(*sa)) == 0 ? fd : (close(fd), -errno);
}

entity *created;
int32_t record_thread(pthread_t *, void *(*)(void *), void *arg) { return created = (entity *)arg, 0; }

}  // namespace

TEST(Server, SweepReleasesOverdueSharesOnceAndCutsTheirSockets)
{
    long u;
    int peer[4] = {-1, -1, -1, -1};
    do {
        reset(1);
        current = (int32_t)(u = (long)uptime());
        const long ages[] = {120, 119, -5};   // at the limit, one under, stamped in the future
        for (int i = 0; i < 3; i++) {
            int sv[2];
            ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
            peer[i + 1] = sv[1];
            ASSERT_EQ(&ent_pool[i + 1], new_entity("peer", sv[0], 0));
            ent_pool[i + 1].state = ST_RUNNING;
            ent_pool[i + 1].start_ts = (uint32_t)(u - ages[i]);
        }
        check_connection_timeout();
    } while ((long)uptime() != u);   // uptime ticked in between: sample again
    // The overdue shares come back at once (the next RE is served); the
    // sessions stay with their threads, whose sockets are cut.
    EXPECT_EQ(1, g_srving_cnt);
    char c;
    for (int i = 1; i <= 3; i++) {
        EXPECT_EQ(ST_RUNNING, ent_pool[i].state) << i;
        EXPECT_NE(nullptr, ent_pool[i].ssl) << i;
        EXPECT_EQ(i == 2 ? -1 : 0, recv(peer[i], &c, 1, MSG_DONTWAIT)) << i;
    }
    check_connection_timeout();   // released once: no second count-down
    EXPECT_EQ(1, g_srving_cnt);
    EXPECT_EQ(0, pthread_mutex_trylock(&lock));
    pthread_mutex_unlock(&lock);
    for (int i = 3; i >= 1; i--)
        free_entity(&ent_pool[i]), close(peer[i]);
    EXPECT_EQ(0, g_srving_cnt);   // never below zero
}

TEST(Server, AcceptOneAtATimeAndGiveBackOnThreadFailure)
{
    ASSERT_TRUE(net_ok);
    reset(1);
    current = 100;
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    ASSERT_EQ(0, bind(lfd, (sockaddr *)&sa, sizeof(sa)));
    ASSERT_EQ(0, listen(lfd, 4));
    getsockname(lfd, (sockaddr *)&sa, &len);
    entity listener{};
    listener.fd = lfd;
    char c;
    // pthread_create reports failure as a positive error number: record, slot and share come back.
    int cfd = tcp_to(&sa);
    server_thread_create = [](pthread_t *, void *(*)(void *), void *) -> int32_t { return EAGAIN; };
    EXPECT_EQ(-1, handle_new_connection(&listener));
    EXPECT_EQ(0, g_srving_cnt);
    EXPECT_EQ(nullptr, ent_pool[1].ssl);
    EXPECT_EQ(0, ent_live_threads());
    EXPECT_EQ(0, recv(cfd, &c, 1, 0));   // closed
    close(cfd);
    // Handed to a thread: named after the peer, keep-alive on, one share; a second peer is turned away.
    server_thread_create = record_thread;
    int first = tcp_to(&sa), second = tcp_to(&sa);
    EXPECT_EQ(0, handle_new_connection(&listener));
    ASSERT_EQ(&ent_pool[1], created);
    EXPECT_STREQ("peer-127.0.0.1", created->name);
    EXPECT_EQ(ST_TCP_DONE, created->state);
    int v = 0;
    socklen_t l = sizeof(v);
    EXPECT_EQ(0, getsockopt(created->fd, IPPROTO_TCP, TCP_KEEPIDLE, &v, &l));
    EXPECT_EQ(3, v);
    EXPECT_EQ(FD_CLOEXEC, fcntl(created->fd, F_GETFD));
    EXPECT_EQ(1, g_srving_cnt);
    EXPECT_EQ(0, handle_new_connection(&listener));
    EXPECT_EQ(0, recv(second, &c, 1, 0));
    EXPECT_EQ(-1, recv(first, &c, 1, MSG_DONTWAIT));
    EXPECT_EQ(1, g_srving_cnt);
    EXPECT_EQ(nullptr, ent_pool[2].ssl);
    ent_hand_back(created);
    server_thread_create = sig_thread_create;
    free_entity(created);
    EXPECT_EQ(0, g_srving_cnt);
    close(first), close(second), close(lfd);
}

TEST(Server, ReleaseWaitingForTheLockSkipsARecordReleasedMeanwhile)
{
    reset(1);
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    int keep = dup(0);   // fd 0 must survive a second release of a zeroed record
    entity *ent = &ent_pool[1];
    ent->fd = sv[0];
    ent->start_ts = 5;
    ent->state = ST_RUNNING;
    log_level = 7;
    // The second releaser waits in the pool lock while the record is released under its feet.
    std::string out = captured(stderr, [ent] {
        pthread_mutex_lock(&lock);
        std::thread t([ent] { free_entity(ent); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        free_entity_lock(ent, 0);
        pthread_mutex_unlock(&lock);
        t.join();
    });
    EXPECT_NE(std::string::npos, out.find("freeing entity"));
    EXPECT_EQ(out.find("freeing entity"), out.rfind("freeing entity"));   // released once
    EXPECT_NE(-1, fcntl(0, F_GETFD));
    dup2(keep, 0);
    close(keep), close(sv[1]);
}

TEST(Server, BindFailureReleasesAndIpChangeEndsTheLoop)
{
    ASSERT_TRUE(net_ok);
    reset(0);
    EXPECT_EQ(-1, setup_service("RE", "eth4", "10.255.0.1", 0));
    EXPECT_EQ(nullptr, ent_pool[0].ssl);
    ASSERT_EQ(0, setup_service("RE", "eth4", "", 0));   // the RE binds nothing
    int v = 0;
    socklen_t l = sizeof(v);
    EXPECT_EQ(0, getsockopt(ent_pool[0].fd, SOL_SOCKET, SO_REUSEADDR, &v, &l));
    EXPECT_EQ(1, v);
    free_entity(main_ent);

    reset(1);
    current = (int32_t)(long)uptime();   // as after a first sweep: main entity releasable
    fake_sys_install();
    fake_sys_answer("ifconfig br-lan |grep -o \"inet addr*", "127.0.0.1\n");
    int32_t rc = 99;
    std::thread t([&] { rc = start_mesh_server(nullptr, nullptr); });
    // Listening on the interface's address only.
    sockaddr_in a{}, b{};
    a.sin_family = b.sin_family = AF_INET;
    a.sin_port = b.sin_port = htons(19553);
    inet_aton("127.0.0.1", &a.sin_addr), inet_aton("127.0.0.2", &b.sin_addr);
    int fd = -1;
    for (int i = 0; i < 200 && (fd = tcp_to(&a)) < 0; i++)
        usleep(10000);
    close(fd);
    EXPECT_EQ(-ECONNREFUSED, tcp_to(&b));
    usleep(300000);   // the probe's peer is accepted and its thread ends on the close
    auto t0 = std::chrono::steady_clock::now();
    __atomic_store_n(&ip_changed, 1, __ATOMIC_SEQ_CST);
    t.join();
    EXPECT_EQ(0, rc);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(400));
    EXPECT_EQ(nullptr, ent_pool[0].ssl);   // main entity released
    for (int i = 0; i < 200 && ent_live_threads() > 0; i++)
        usleep(10000);
    fake_sys_uninstall();
}

TEST(Server, CleanupReleasesEverySlotWithoutWaiting)
{
    reset(1);
    current = 100;
    fake_sys_install();
    int other[ENT_POOL_SIZE], sv[2];
    for (int i = 0; i < ENT_POOL_SIZE; i++) {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        other[i] = sv[1];
        ASSERT_EQ(&ent_pool[i], new_entity(i ? "peer" : "CAP", sv[0], i == 0));
    }
    main_ent = &ent_pool[0];
    auto t0 = std::chrono::steady_clock::now();
    cleanup_mesh_cable();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(500));   // no thread to wait for
    char c;
    for (int i = 0; i < ENT_POOL_SIZE; i++) {
        EXPECT_EQ(nullptr, ent_pool[i].ssl) << i;
        EXPECT_EQ(0, recv(other[i], &c, 1, 0)) << i;
        close(other[i]);
    }
    EXPECT_EQ(0, g_srving_cnt);
    EXPECT_EQ(nullptr, g_ssl_ctx);
    fake_sys_uninstall();
}

TEST(Client, WatchdogHandlerOnlyCutsTheSocketTheLoopRunsTheTimeout)
{
    reset(0);
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    main_ent = &ent_pool[0];
    main_ent->fd = sv[0];
    main_ent->ssl = SSL_new(g_ssl_ctx);
    main_ent->state = ST_RUNNING;
    client_open_timer();
    EXPECT_EQ(1, g_timer_flag);
    EXPECT_EQ(0, client_timer_expired());   // nothing noted yet
    client_free_connect(SIGUSR1);   // not ours
    EXPECT_EQ(0, g_sig_alarm);
    client_free_connect(SIGALRM);
    char c;
    EXPECT_EQ(0, recv(sv[1], &c, 1, MSG_DONTWAIT));   // cut: the CAP sees the end
    EXPECT_EQ(ST_RUNNING, main_ent->state);           // nothing else touched
    EXPECT_EQ(1, client_timer_expired());
    EXPECT_EQ(ST_STOP, main_ent->state);
    EXPECT_EQ(-1, main_ent->fd);
    EXPECT_EQ(0, client_timer_expired());   // once
    client_close_timer();
    EXPECT_EQ(0u, alarm(0));   // cancelled
    EXPECT_EQ(0, g_timer_flag);
    free_entity(main_ent);
    close(sv[1]);
}

TEST(Client, BadTargetsReleaseEverything)
{
    reset(0);
    fake_sys_install();
    fake_sys_answer("ifconfig eth4 |grep -o \"HWaddr*", "AA:BB:CC:DD:EE:FF\n");
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", ""));
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", nullptr));
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", "300.1.2.x"));
    EXPECT_STREQ("AA:BB:CC:DD:EE:FF", g_macaddr);   // refreshed from the WAN port
    EXPECT_EQ(nullptr, ent_pool[0].ssl);   // freed
    EXPECT_EQ(0, g_timer_flag);            // and the watchdog stopped
    EXPECT_EQ(0u, alarm(0));
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", "127.0.0.1"));   // refused
    EXPECT_EQ(nullptr, ent_pool[0].ssl);
    SSL_CTX *ctx = g_ssl_ctx;
    g_ssl_ctx = nullptr;   // no context: the set-up fails, nothing is taken
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", "127.0.0.1"));
    EXPECT_EQ(nullptr, ent_pool[0].ssl);
    EXPECT_EQ(0, g_timer_flag);
    g_ssl_ctx = ctx;
    fake_sys_uninstall();
}
