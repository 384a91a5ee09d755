// CAP server loop and sweep, RE connect path and watchdog.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <signal.h>
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
    if (!g_ssl_ctx)
        g_ssl_ctx = SSL_CTX_new(TLS_method());
}

}  // namespace

TEST(Server, SweepReleasesOverdueSharesOnceAndCutsTheirSockets)
{
    std::string out;
    long u;
    int peer[4] = {-1, -1, -1, -1};
    do {
        reset(1);
        u = (long)uptime();
        current = (int32_t)u;
        const char *names[] = {"peer-old", "peer-young", "peer-future"};
        const long ages[] = {120, 119, -5};
        for (int i = 0; i < 3; i++) {
            int sv[2];
            ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
            peer[i + 1] = sv[1];
            entity *ent = new_entity(names[i], sv[0], 0);
            ASSERT_EQ(&ent_pool[i + 1], ent);
            ent->state = ST_RUNNING;
            ent->start_ts = (uint32_t)(u - ages[i]);
        }
        out = captured(stderr, check_connection_timeout);
    } while ((long)uptime() != u);   // uptime ticked in between: sample again

    char want[160];
    snprintf(want, sizeof(want), "[peer-old] serving time: 120 too long > timeout: 120, disconnect it, current ts: %ld .\n", u);
    EXPECT_TRUE(Has(out, want));
    EXPECT_TRUE(Has(out, "[peer-future] serving time: -5 too long"));
    EXPECT_FALSE(Has(out, "peer-young] serving"));
    // The overdue peers' shares come back at once (the next RE is served);
    // their sessions stay with their threads, whose sockets are cut.
    EXPECT_EQ(1, g_srving_cnt);
    char c;
    for (int i = 1; i <= 3; i++) {
        EXPECT_EQ(ST_RUNNING, ent_pool[i].state) << i;
        EXPECT_NE(nullptr, ent_pool[i].ssl) << i;
        EXPECT_EQ(i == 2 ? -1 : 0, recv(peer[i], &c, 1, MSG_DONTWAIT)) << i;
    }
    // Released once: the next sweeps neither log them again nor count down.
    EXPECT_FALSE(Has(captured(stderr, check_connection_timeout), "serving time"));
    EXPECT_EQ(1, g_srving_cnt);
    EXPECT_EQ(0, pthread_mutex_trylock(&lock));   // the sweep let go of it
    pthread_mutex_unlock(&lock);
    for (int i = 3; i >= 1; i--) {
        free_entity(&ent_pool[i]);
        close(peer[i]);
    }
    EXPECT_EQ(0, g_srving_cnt);   // never below zero
}

TEST(Server, ThreadCreateFailureGivesSlotAndCountBack)
{
    ASSERT_TRUE(net_ok);
    reset(1);
    current = (int32_t)(long)uptime();
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    ASSERT_EQ(0, bind(lfd, (sockaddr *)&sa, sizeof(sa)));
    ASSERT_EQ(0, listen(lfd, 4));
    getsockname(lfd, (sockaddr *)&sa, &len);
    int cfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, connect(cfd, (sockaddr *)&sa, sizeof(sa)));
    entity listener{};
    strcpy(listener.name, "CAP");
    listener.fd = lfd;

    // pthread_create reports failure as a positive error number.
    server_thread_create = [](pthread_t *, void *(*)(void *), void *) -> int32_t { return EAGAIN; };
    std::string out = captured(stderr, [&] { EXPECT_EQ(-1, handle_new_connection(&listener)); });
    server_thread_create = sig_thread_create;
    EXPECT_TRUE(Has(out, "[CAP] thread create for [peer-127.0.0.1] failed, Resource temporarily unavailable.\n"));
    EXPECT_EQ(0, g_srving_cnt);
    EXPECT_EQ(nullptr, ent_pool[1].ssl);
    EXPECT_EQ(0, ent_live_threads());
    char c;
    EXPECT_EQ(0, recv(cfd, &c, 1, 0));   // the peer's connection was closed
    close(cfd);
    close(lfd);
}

TEST(Server, ReleaseWaitingForTheLockSkipsARecordReleasedMeanwhile)
{
    reset(1);
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    int keep = dup(0);   // fd 0 must survive a second release of a zeroed record
    ASSERT_GE(keep, 0);
    entity *ent = &ent_pool[1];
    ent->fd = sv[0];
    ent->start_ts = 5;
    ent->state = ST_RUNNING;

    // Hold the pool lock so that the second releaser waits in it while the
    // record is released under its feet.
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
    EXPECT_EQ(std::string::npos, out.find("close fd 0"));
    EXPECT_NE(-1, fcntl(0, F_GETFD));
    dup2(keep, 0);
    close(keep);
    close(sv[1]);
}

TEST(Server, BindFailureReleasesAndIpChangeEndsTheLoop)
{
    ASSERT_TRUE(net_ok);
    reset(0);
    std::string out = captured(stderr, [] { EXPECT_EQ(-1, setup_service("RE", "eth4", "10.255.0.1", 0)); });
    EXPECT_TRUE(Has(out, "bind local ip: 10.255.0.1 failed."));
    EXPECT_EQ(nullptr, ent_pool[0].ssl);

    reset(1);
    current = (int32_t)(long)uptime();   // as after a first sweep: main entity releasable
    fake_sys_install();
    fake_sys_answer("ifconfig br-lan |grep -o \"inet addr*", "127.0.0.1\n");
    int32_t rc = 99;
    std::thread t([&] { rc = start_mesh_server(nullptr, nullptr); });
    // Listening on the interface's address only (the record is the server
    // thread's: it is looked at from outside).
    auto probe = [](const char *ip) {
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(19553);
        inet_aton(ip, &sa.sin_addr);
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int rc = connect(fd, (sockaddr *)&sa, sizeof(sa)) == 0 ? 0 : errno;
        close(fd);
        return rc;
    };
    for (int i = 0; i < 200 && probe("127.0.0.1") != 0; i++)
        usleep(10000);
    EXPECT_EQ(ECONNREFUSED, probe("127.0.0.2"));
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
    client_free_connect(SIGUSR1);   // not ours
    EXPECT_EQ(0, g_sig_alarm);
    client_free_connect(SIGALRM);
    char c;
    EXPECT_EQ(0, recv(sv[1], &c, 1, MSG_DONTWAIT));   // cut: the CAP sees the end
    EXPECT_EQ(ST_RUNNING, main_ent->state);           // nothing else touched
    std::string out = captured(stderr, [] { EXPECT_EQ(1, client_timer_expired()); });
    EXPECT_TRUE(Has(out, "60 s timer reached, interaction timeout, free it.\n"));
    EXPECT_EQ(ST_STOP, main_ent->state);
    EXPECT_EQ(-1, main_ent->fd);
    EXPECT_EQ(0, client_timer_expired());   // once
    client_close_timer();
    EXPECT_EQ(0u, alarm(0));   // cancelled
    EXPECT_FALSE(Has(captured(stderr, client_close_timer), "close 60 s timer"));   // once only
    free_entity(main_ent);
    close(sv[1]);
}

TEST(Server, CleanupReleasesEverySlot)
{
    reset(1);
    current = 100;
    fake_sys_install();
    int other[ENT_POOL_SIZE];
    for (int i = 0; i < ENT_POOL_SIZE; i++) {
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        other[i] = sv[1];
        entity *e = new_entity(i ? "peer" : "CAP", sv[0], i == 0);
        ASSERT_EQ(&ent_pool[i], e);
        if (!i)
            main_ent = e;
    }
    cleanup_mesh_cable();
    char c;
    for (int i = 0; i < ENT_POOL_SIZE; i++) {
        EXPECT_EQ(nullptr, ent_pool[i].ssl) << i;
        EXPECT_EQ(0, recv(other[i], &c, 1, 0)) << i;   // closed
        close(other[i]);
    }
    EXPECT_EQ(0, g_srving_cnt);
    EXPECT_EQ(nullptr, g_ssl_ctx);
    fake_sys_uninstall();
}

TEST(Client, BadTargetsReleaseEverything)
{
    reset(0);
    fake_sys_install();
    fake_sys_answer("ifconfig eth4 |grep -o \"HWaddr*", "AA:BB:CC:DD:EE:FF\n");
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", ""));
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", nullptr));
    std::string out = captured(stderr, [] { EXPECT_EQ(-1, start_mesh_client(nullptr, "", "300.1.2.x")); });
    EXPECT_STREQ("AA:BB:CC:DD:EE:FF", g_macaddr);   // refreshed from the WAN port
    EXPECT_TRUE(Has(out, "[RE] inet_aton(300.1.2.x) failed,"));
    EXPECT_EQ(nullptr, ent_pool[0].ssl);   // freed
    EXPECT_EQ(0, g_timer_flag);           // and the watchdog stopped
    EXPECT_EQ(0u, alarm(0));
    SSL_CTX *ctx = g_ssl_ctx;
    g_ssl_ctx = nullptr;   // no context: the set-up fails, nothing is taken
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", "127.0.0.1"));
    EXPECT_EQ(nullptr, ent_pool[0].ssl);
    EXPECT_EQ(0, g_timer_flag);
    g_ssl_ctx = ctx;
    fake_sys_uninstall();
}
