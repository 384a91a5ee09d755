// Stops in every phase, one owner per record and per mesh lock, sockets close-on-exec from
// their creation; in a network namespace of the test's own, the platform recorded.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "testing.h"

namespace
{

const bool net_ok = netns_enter_private();

void reset(int is_server)
{
    reset_state(is_server, uptime());
}

// From here fcntl(F_SETFD) fails: a socket is close-on-exec only if it was made so. False
// where filters are not available; under an emulator (fcntl64) nothing is denied.
bool deny_set_fd_flags(void)
{
    sock_filter f[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fcntl, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, F_SETFD, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog prog = {(unsigned short)(sizeof(f) / sizeof(f[0])), f};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
}

}   // namespace

// A stop noted just before the main thread blocks or ends is acted on there, exit 255; a CAP
// ending by itself with a peer thread left ends without the exit handlers.
TEST(Stops, EveryPhaseEndsAtOnce)
{
    ASSERT_TRUE(net_ok);
    ASSERT_EQ(0, system("ip route add default dev lo"));   // the probe's broadcast stays here
    const struct {
        const char *phase;
        int code;
        std::function<void()> run;
    } phases[] = {{"a SIGUSR1's refresh", 255,
                   [] {
                       f_string_write(GW_IP_FILE, "10.0.0.1\n10.0.0.20\n", 20);
                       raise(SIGUSR1);
                       sig_safe_point();
                   }},
                  {"a command", 255,
                   [] {
                       sys_set_ops(nullptr);
                       sys_system("kill $PPID");
                   }},
                  {"the probe", 255,
                   [] {
                       raise(SIGTERM);
                       dd_clt_probe("lo", g_cap_ip);
                   }},
                  {"the RE's end", 255,
                   [] {
                       fake_sys_answer("uci -q get veltrasso.common.INITTED", "YES\n");
                       re_flow();
                   }},
                  {"the CAP's end", 0, [] {
                       g_is_server = 1;
                       ent_hand_over(&ent_pool[1]);
                       atexit([] { _exit(3); });
                       cap_flow();
                   }}};
    for (const auto &p : phases) {
        SCOPED_TRACE(p.phase);
        reset(0);
        fake_sys_hook([](const std::string &c) {   // a stop while the refresh or the end asks
            if (c == "uci -q get network.wan.ifname" || c == "uci -q get veltrasso.common.INITTED")
                raise(SIGTERM);
        });
        EXPECT_EXIT(
            {
                install_signals();
                p.run();
                _exit(1);
            },
            ::testing::ExitedWithCode(p.code), "");
    }
}

// A stop goes ahead inside the handling of a SIGUSR1 (its command); nothing runs inside a stop.
TEST(Stops, StopInsideTheHandlingOfAnotherSignal)
{
    static int acts, stops;
    sig_install([](int) {},
                [] {
                    acts++;
                    if (g_sig_stop) {
                        stops++;
                        sig_stop_point();
                        g_sig_stop = 0;
                        return;
                    }
                    g_sig_usr1 = 0;
                    g_sig_stop = SIGTERM;   // noted while the SIGUSR1's command runs
                    sig_stop_point();
                });
    g_sig_usr1 = 1;
    sig_safe_point();
    EXPECT_EQ(acts, 2);
    EXPECT_EQ(stops, 1);
    // The stop handler cuts the RE's connection, as the watchdog does.
    int sv[2];
    char c;
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    g_sig_cut_fd = sv[0];
    sig_handler(SIGINT);
    EXPECT_EQ(recv(sv[1], &c, 1, MSG_DONTWAIT), 0);
    g_sig_stop = 0;
    g_sig_cut_fd = -1;
    close(sv[0]);
    close(sv[1]);
}

// The sweep gives back an overdue peer's share but not the mesh lock its thread holds (it may
// be inside cap_init): the thread gives it back when it ends.
TEST(Stops, SweepLeavesTheMeshLockToItsThread)
{
    reset(1);
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_CLOEXEC));   // a peer the sweep's shutdown does not wake
    entity *ent = new_entity("peer", p[0], 0);
    ASSERT_NE(ent, nullptr);
    change_state(ent, ST_TCP_DONE);
    ent_hand_over(ent);
    pthread_t tid;
    ASSERT_EQ(0, sig_thread_create(&tid, server_loop, ent));
    for (int i = 0; i < 500 && tolvaMeshLockStatus() == 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    pthread_mutex_lock(&lock);
    ent->start_ts = (uint32_t)uptime() - SERVING_TIMEOUT;
    pthread_mutex_unlock(&lock);
    check_connection_timeout();
    pthread_mutex_lock(&lock);
    EXPECT_EQ(g_srving_cnt, 0);
    pthread_mutex_unlock(&lock);
    EXPECT_NE(tolvaMeshLockStatus(), 0);
    close(p[1]);   // the thread's handshake ends
    for (int i = 0; i < 500 && ent_live_threads() > 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(tolvaMeshLockStatus(), 0);
}

// A record whose set-up fails leaves the socket to its caller, which closes it once; a record
// still being filled by the accepting thread is not another peer's to drop.
TEST(Stops, OneOwnerPerSocket)
{
    reset(1);
    int sv[2];
    char c;
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    SSL_CTX *ctx = g_ssl_ctx;
    g_ssl_ctx = nullptr;   // no session can be made
    for (int is_main : {0, 1}) {
        SCOPED_TRACE(is_main);
        EXPECT_EQ(new_entity("peer", sv[0], is_main), nullptr);
        EXPECT_NE(fcntl(sv[0], F_GETFD), -1);
    }
    EXPECT_EQ(g_srving_cnt, 0);
    g_ssl_ctx = ctx;
    std::thread filler([&] { new_entity("peer", sv[0], 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));   // no lock or join in between
    disconnect_others(nullptr);
    filler.join();
    EXPECT_EQ(recv(sv[1], &c, 1, MSG_DONTWAIT), -1);
    free_entity(&ent_pool[1]);
    close(sv[1]);
}

// The discovery responder drops a stale mesh lock under the pool lock, as a peer thread renews
// it: never a lock a peer has just taken.
TEST(Stops, ResponderDropsAStaleLockUnderThePoolLock)
{
    reset(1);
    tolvaAddMeshLock();
    std::string stale = std::to_string(uptime() - MESH_LOCK_LIFE - 10);
    f_string_write(MESH_LOCK_FILE, stale.c_str(), (uint32_t)stale.size());
    char buf[DD_RAW_BUF + 1] = "KORVANE_RE_DDv1.0";
    int answer = 0;
    pthread_mutex_lock(&lock);
    std::thread responder([&] { answer = dd_srv_handle(buf, sizeof(buf), "10.0.0.1"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(tolvaMeshLockStatus(), atol(stale.c_str()));
    EXPECT_EQ(tolvaGetMeshLock(), 1);   // a peer renews it
    pthread_mutex_unlock(&lock);
    responder.join();
    EXPECT_EQ(answer, -1);   // meshing
    EXPECT_NE(tolvaMeshLockStatus(), 0);
    tolvaRemoveMeshLock();
}

// Every socket the daemon makes, fcntl(F_SETFD) denied: how many are not close-on-exec.
int sockets_left_open(void)
{
    server_thread_create = [](pthread_t *, void *(*)(void *), void *) { return 0; };
    int32_t udp = dd_create_sockfd(nullptr, DD_PORT, 0);
    int32_t raw = dd_create_rawfd("lo");
    setup_service("CAP", nullptr, "127.0.0.1", MESH_PORT);
    listen(main_ent->fd, 1);
    sockaddr_in sa = {AF_INET, htons(MESH_PORT), {htonl(INADDR_LOOPBACK)}, {}};
    int cli = socket(AF_INET, SOCK_STREAM, 0);
    connect(cli, (sockaddr *)&sa, sizeof(sa));
    handle_new_connection(main_ent);
    int left_open = 0;
    for (int fd : {udp, raw, main_ent->fd, ent_pool[1].fd})
        left_open += fcntl(fd, F_GETFD) != FD_CLOEXEC;
    return left_open;
}

TEST(Stops, SocketsAreCloseOnExecFromTheStart)
{
    ASSERT_TRUE(net_ok);
    reset(1);
    // Without filters (under an emulator) there is nothing to prove.
    EXPECT_EXIT(_exit(deny_set_fd_flags() ? sockets_left_open() : 0), ::testing::ExitedWithCode(0),
                "");
}
