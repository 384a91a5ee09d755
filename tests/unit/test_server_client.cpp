// CAP server loop and sweep, RE connect path and watchdog.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "client/client.h"
#include "conn/tls.h"
#include "core/env.h"
#include "core/flow.h"
#include "fake_sys.h"
#include "server/server.h"
#include "util/log.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// Port 19553 is fixed: serve on a loopback of our own.
struct NetNs : testing::Environment {
    void SetUp() override
    {
        ASSERT_EQ(0, unshare(CLONE_NEWNET));
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        ifreq ifr{};
        strcpy(ifr.ifr_name, "lo");
        ASSERT_EQ(0, ioctl(s, SIOCGIFFLAGS, &ifr));
        ifr.ifr_flags |= IFF_UP;
        ASSERT_EQ(0, ioctl(s, SIOCSIFFLAGS, &ifr));
        close(s);
        log_mode_set(LOG_MODE_STDERR);
    }
};
testing::Environment *const netns = testing::AddGlobalTestEnvironment(new NetNs);

long up_now()
{
    struct sysinfo si;
    return sysinfo(&si) == 0 ? si.uptime : -1;
}

void reset(int is_server)
{
    memset(ent_pool, 0, sizeof(ent_pool));
    main_ent = nullptr;
    g_srving_cnt = 0;
    current = 0;
    ip_changed = 0;
    g_is_server = is_server;
    if (!g_ssl_ctx)
        g_ssl_ctx = SSL_CTX_new(TLS_method());
}

void fake_peer(int slot, const char *name, uint32_t start_ts)
{
    strcpy(ent_pool[slot].name, name);
    ent_pool[slot].slot = slot;
    ent_pool[slot].fd = -1;
    ent_pool[slot].state = ST_RUNNING;
    ent_pool[slot].start_ts = start_ts;
}

const size_t npos = std::string::npos;

}  // namespace

TEST(ServerSweep, ReleasesAtTimeoutAndOnClockBelowStart)
{
    std::string out;
    long u;
    do {
        reset(1);
        u = up_now();
        fake_peer(1, "peer-old", (uint32_t)(u - 120));
        fake_peer(2, "peer-young", (uint32_t)(u - 119));
        fake_peer(3, "peer-future", (uint32_t)(u + 5));
        CaptureStderr();
        check_connection_timeout();
        out = GetCapturedStderr();
    } while (up_now() != u);   // uptime ticked in between: sample again

    EXPECT_EQ(u, current);
    char want[160];
    snprintf(want, sizeof(want), "[peer-old] serving time: 120 too long > timeout: 120, disconnect it, current ts: %ld .\n", u);
    EXPECT_NE(npos, out.find(want)) << out;
    EXPECT_NE(npos, out.find("[peer-future] serving time: -5 too long")) << out;
    EXPECT_EQ(npos, out.find("peer-young] serving")) << out;
    EXPECT_EQ(0u, ent_pool[1].start_ts);
    EXPECT_EQ(0u, ent_pool[3].start_ts);
    EXPECT_EQ(ST_RUNNING, ent_pool[2].state);
    EXPECT_EQ(0, pthread_mutex_trylock(&lock));   // the sweep let go of it
    pthread_mutex_unlock(&lock);
}

TEST(ServerSetup, BindsOnlyWhenAskedAndReleasesOnFailure)
{
    reset(0);
    ASSERT_EQ(0, setup_service("RE", "eth4", "", 0));
    ASSERT_EQ(&ent_pool[0], main_ent);
    sockaddr_in sa{};
    socklen_t len = sizeof(sa);
    getsockname(main_ent->fd, (sockaddr *)&sa, &len);
    EXPECT_EQ(0, sa.sin_port);   // not bound
    free_entity(main_ent);

    CaptureStderr();
    EXPECT_EQ(-1, setup_service("RE", "eth4", "10.255.0.1", 0));   // not ours
    std::string out = GetCapturedStderr();
    EXPECT_NE(npos, out.find("bind local ip: 10.255.0.1 failed.")) << out;
    EXPECT_EQ(nullptr, ent_pool[0].ssl);
}

TEST(ServerListen, IpChangeEndsLoopQuicklyOnIfaceAddress)
{
    reset(1);
    current = (int32_t)up_now();   // as after a first sweep: main entity releasable
    fake_sys_install();
    fake_sys_answer("ifconfig br-lan |grep -o \"inet addr*", "127.0.0.1\n");
    int32_t rc = 99;
    std::thread t([&] { rc = start_mesh_server(nullptr, nullptr); });
    for (int i = 0; i < 200 && __atomic_load_n(&ent_pool[0].state, __ATOMIC_SEQ_CST) != ST_RUNNING; i++)
        usleep(10000);
    ASSERT_EQ(ST_RUNNING, ent_pool[0].state);
    sockaddr_in sa{};
    socklen_t len = sizeof(sa);
    getsockname(ent_pool[0].fd, (sockaddr *)&sa, &len);
    EXPECT_EQ(19553, ntohs(sa.sin_port));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), sa.sin_addr.s_addr);

    auto t0 = std::chrono::steady_clock::now();
    __atomic_store_n(&ip_changed, 1, __ATOMIC_SEQ_CST);
    t.join();
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(0, rc);
    EXPECT_LT(ms, 400);
    EXPECT_EQ(nullptr, ent_pool[0].ssl);   // main entity released
    fake_sys_uninstall();
}

TEST(ServerAccept, OverloadRefusesAndListsLivePeers)
{
    reset(1);
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(sa);
    ASSERT_EQ(0, bind(lfd, (sockaddr *)&sa, len));
    listen(lfd, 1);
    getsockname(lfd, (sockaddr *)&sa, &len);
    entity lst{};
    strcpy(lst.name, "CAP");
    lst.fd = lfd;
    fake_peer(4, "peer-busy", 7);
    ent_pool[4].fd = 42;
    g_srving_cnt = 1;

    int cfd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(0, connect(cfd, (sockaddr *)&sa, len));
    CaptureStderr();
    EXPECT_EQ(0, handle_new_connection(&lst));
    std::string out = GetCapturedStderr();
    EXPECT_NE(npos,
              out.find("WARN: Cap overload threshold: 1. reject [peer-127.0.0.1] serving , need try again.\n")) << out;
    EXPECT_NE(npos, out.find("[peer-busy] is alive, fd: 42.\n")) << out;
    char c;
    EXPECT_EQ(0, read(cfd, &c, 1));   // refused peer sees the close
    EXPECT_EQ(1, g_srving_cnt);
    close(cfd);
    close(lfd);
}

TEST(ClientTimer, ArmsOnceClosesOnceAndCutsConnection)
{
    reset(0);
    CaptureStderr();
    client_open_timer();
    EXPECT_EQ(1, g_timer_flag);
    client_close_timer();
    client_close_timer();
    std::string out = GetCapturedStderr();
    EXPECT_EQ(0u, alarm(0));   // cancelled
    size_t at = out.find("close 60 s timer\n");
    EXPECT_NE(npos, at) << out;
    EXPECT_EQ(npos, out.find("close 60 s timer\n", at + 1)) << out;

    int p[2];
    ASSERT_EQ(0, pipe(p));
    ent_pool[0].fd = p[0];
    ent_pool[0].state = ST_RUNNING;
    main_ent = &ent_pool[0];
    client_free_connect(SIGUSR1);   // not ours
    EXPECT_EQ(ST_RUNNING, main_ent->state);
    CaptureStderr();
    client_free_connect(SIGALRM);
    out = GetCapturedStderr();
    EXPECT_NE(npos, out.find("60 s timer reached, interaction timeout, free it.\n"));
    EXPECT_EQ(ST_STOP, main_ent->state);
    EXPECT_EQ(-1, main_ent->fd);
    EXPECT_EQ(-1, fcntl(p[0], F_GETFD));   // closed
    close(p[1]);
}

TEST(ClientConnect, BadTargetsAndMacRefresh)
{
    reset(0);
    fake_sys_install();
    g_is_success = 1;
    EXPECT_EQ(-1, start_mesh_client("eth4", "", ""));
    EXPECT_EQ(0, g_is_success);
    EXPECT_EQ(nullptr, main_ent);
    EXPECT_TRUE(fake_sys_log().empty());   // not even the MAC query

    fake_sys_answer("ifconfig eth4 |grep -o \"HWaddr*", "AA:BB:CC:DD:EE:FF\n");
    strcpy(g_macaddr, "00:11:22:33:44:55");
    CaptureStderr();
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", "300.1.2.x"));
    std::string out = GetCapturedStderr();
    EXPECT_STREQ("AA:BB:CC:DD:EE:FF", g_macaddr);
    EXPECT_NE(npos, out.find("NOTE: replace wan ip")) << out;
    EXPECT_NE(npos, out.find("[RE] inet_aton(300.1.2.x) failed,")) << out;
    EXPECT_EQ(nullptr, ent_pool[0].ssl);   // freed
    EXPECT_EQ(0, g_timer_flag);           // and the watchdog stopped
    EXPECT_EQ(0u, alarm(0));

    fake_sys_uninstall();
}
