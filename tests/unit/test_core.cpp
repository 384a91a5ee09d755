// Discovery's refusals, the CAP's accept, sweep and clean-up, the RE's watchdog and pairing
// loop; in a network namespace of the test's own, the platform recorded.
#include <gtest/gtest.h>

#include "testing.h"

namespace
{

const bool net_ok = netns_enter_private();   // port 19553 and broadcasts on a loopback of our own

void reset(int is_server)
{
    reset_state(is_server, 0);
}

int tcp_to(const char *ip, int port)   // the connected socket, or -errno
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    inet_aton(ip, &a.sin_addr);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int rc = connect(fd, (sockaddr *)&a, sizeof(a)) == 0 ? fd : -errno;
    if (rc < 0)
        close(fd);
    return rc;
}

entity *created;
int32_t record_thread(pthread_t *, void *(*)(void *), void *arg)
{
    created = (entity *)arg;
    return 0;
}

}   // namespace

// The probe takes an answer only; the sockets' failures leak nothing. (What the responder and
// the probe make of each datagram is the LAN fuzz driver's.)
TEST(Discovery, ProbeAndSockets)
{
    char buf[DD_RAW_BUF + 1];
    char ip[16] = "x";
    ASSERT_TRUE(net_ok);
    int before = dup(0);
    close(before);
    EXPECT_EQ(-1, dd_create_sockfd("10.1.2.3", 0, 1));   // not ours
    EXPECT_EQ(-1, dd_create_rawfd("nosuchif0"));
    EXPECT_EQ(-1, dd_clt_probe("nosuchif0", ip));
    EXPECT_EQ(before, dup(0));   // nothing leaked
    int32_t recver = dd_create_sockfd("", DD_PORT, 0);
    int32_t sender = dd_create_sockfd("127.0.0.1", -1, 1);
    int32_t raw = dd_create_rawfd("lo");
    ASSERT_EQ(FD_CLOEXEC, fcntl(recver, F_GETFD));
    ASSERT_EQ(FD_CLOEXEC, fcntl(raw, F_GETFD));
    ASSERT_LE(0, sender);
    EXPECT_EQ(-1, dd_send_msg(sender, "127.0.0.1", 0, "x", 1));
    EXPECT_EQ(-1, dd_send_msg(sender, "127.0.0.1", DD_PORT, "x", -1));
    ASSERT_EQ(0, dd_send_msg(sender, "127.0.0.1", 1, "x", 2));        // the lowest port
    ASSERT_EQ(0, dd_send_msg(sender, "127.0.0.1", DD_PORT, "", 0));   // an empty datagram is one
    int from_port = 0;
    EXPECT_EQ(0, dd_recv_msg(recver, ip, &from_port, buf, sizeof(buf)));   // the empty one
    EXPECT_EQ(-1, dd_recv_msg(recver, ip, &from_port, buf, 64));           // then a time-out
    ASSERT_EQ(0, dd_send_msg(sender, "127.0.0.1", DD_PORT, "hey", 4));
    int n = -1;
    for (int i = 0; i < 10 && n <= 0; i++)   // the raw filter passes only the discovery port's
        n = dd_recv_raw_msg(raw, buf, sizeof(buf));
    EXPECT_EQ(4, n);
    EXPECT_STREQ("hey", buf);
    dd_destory_sockfd(&sender);
    dd_destory_sockfd(&recver);
    dd_destory_sockfd(&raw);
    EXPECT_EQ(-1, dd_clt_probe("lo", ip));                 // no route for its broadcast
    ASSERT_EQ(0, system("ip route add default dev lo"));   // broadcasts stay on loopback
    EXPECT_EQ(-1, dd_clt_probe("lo", ip));   // its own request heard, then silence: no CAP
}

// Overdue peers (at the limit, or stamped in the future) give their share back at once and
// have their socket cut; the sessions stay with their threads; a second sweep takes nothing.
TEST(Server, SweepReleasesOverdueSharesOnceAndCutsTheirSockets)
{
    reset(1);
    fake_sys_uptime = 1000;   // the sweep reads the uptime itself
    const uint32_t stamps[] = {1000 - SERVING_TIMEOUT, 1001 - SERVING_TIMEOUT, 1005};
    int peer[3];
    for (int i = 0; i < 3; i++) {
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        peer[i] = sv[1];
        ASSERT_EQ(&ent_pool[i + 1], new_entity("peer", sv[0], 0));
        ent_pool[i + 1].state = ST_RUNNING;
        ent_pool[i + 1].start_ts = stamps[i];
    }
    check_connection_timeout();
    EXPECT_EQ(1, g_srving_cnt);
    for (int i = 0; i < 3; i++) {
        SCOPED_TRACE("peer stamped " + std::to_string(stamps[i]) + " at uptime 1000");
        EXPECT_EQ(ST_RUNNING, ent_pool[i + 1].state);
        EXPECT_NE(nullptr, ent_pool[i + 1].ssl);
        EXPECT_EQ(i == 1 ? -1 : 0, recv_one(peer[i])) << "0: cut, -1: kept";
    }
    check_connection_timeout();   // released once: no second count-down
    EXPECT_EQ(1, g_srving_cnt);
    EXPECT_EQ(0, pthread_mutex_trylock(&lock));
    pthread_mutex_unlock(&lock);
    for (int i = 2; i >= 0; i--) {
        free_entity(&ent_pool[i + 1]);
        close(peer[i]);
    }
    EXPECT_EQ(0, g_srving_cnt);   // never below zero
}

TEST(Server, AcceptOneAtATimeAndGiveBackOnThreadFailure)
{
    reset(1);
    current = 100;
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    socklen_t len = sizeof(sa);
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(lfd, (sockaddr *)&sa, len));
    ASSERT_EQ(0, listen(lfd, 4));
    ASSERT_EQ(0, getsockname(lfd, (sockaddr *)&sa, &len));
    const int port = ntohs(sa.sin_port);
    entity listener{};
    listener.fd = lfd;
    // pthread_create reports failure as a positive error number: record, slot and share come back.
    int cfd = tcp_to("127.0.0.1", port);
    server_thread_create = [](pthread_t *, void *(*)(void *), void *) -> int32_t { return EAGAIN; };
    EXPECT_EQ(-1, handle_new_connection(&listener));
    EXPECT_EQ(0, g_srving_cnt);
    EXPECT_EQ(nullptr, ent_pool[1].ssl);
    EXPECT_EQ(0, ent_live_threads());
    EXPECT_EQ(0, recv_one(cfd, 0));   // closed
    // Handed to a thread: named after the peer, keep-alive on, one share; a second peer is turned
    // away.
    server_thread_create = record_thread;
    int first = tcp_to("127.0.0.1", port);
    int second = tcp_to("127.0.0.1", port);
    EXPECT_EQ(0, handle_new_connection(&listener));
    ASSERT_EQ(&ent_pool[1], created);
    EXPECT_STREQ("peer-127.0.0.1", created->name);
    EXPECT_EQ(ST_TCP_DONE, created->state);
    EXPECT_EQ(FD_CLOEXEC, fcntl(created->fd, F_GETFD));
    int idle = 0;
    len = sizeof(idle);
    EXPECT_EQ(0, getsockopt(created->fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, &len));
    EXPECT_EQ(3, idle);
    // Each message leaves at once, not after the peer's delayed ACK of the one before.
    int nodelay = 0;
    EXPECT_EQ(0, getsockopt(created->fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &len));
    EXPECT_EQ(1, nodelay);
    EXPECT_EQ(0, handle_new_connection(&listener));
    EXPECT_EQ(0, recv_one(second, 0));   // turned away
    EXPECT_EQ(-1, recv_one(first));
    EXPECT_EQ(1, g_srving_cnt);
    EXPECT_EQ(nullptr, ent_pool[2].ssl);
    ent_hand_back(created);
    server_thread_create = sig_thread_create;
    ASSERT_EQ(0, setup_service("RE", "lo", "", 0));   // the RE's one connection, likewise
    nodelay = 0;
    EXPECT_EQ(0, getsockopt(main_ent->fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &len));
    EXPECT_EQ(1, nodelay);
    free_entity(main_ent);
    free_entity(created);
    EXPECT_EQ(0, g_srving_cnt);
    close(cfd);
    close(first);
    close(second);
    close(lfd);
}

TEST(Server, AddressChangeEndsTheLoopAndCleanupReleasesEverySlot)
{
    reset(1);
    current = (int32_t)uptime();
    fake_sys_answer("ifconfig br-lan |grep -o \"inet addr*", "127.0.0.1\n");
    int32_t rc = 99;
    std::thread t([&] { rc = start_mesh_server(nullptr, nullptr); });
    int fd = -1;
    for (int i = 0; i < 200 && (fd = tcp_to("127.0.0.1", MESH_PORT)) < 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    close(fd);
    EXPECT_EQ(-ECONNREFUSED, tcp_to("127.0.0.2", MESH_PORT));      // the interface's address only
    std::this_thread::sleep_for(std::chrono::milliseconds(300));   // the probe's peer thread ends
    pthread_mutex_lock(&lock);
    g_srving_cnt = 1;   // a peer in service: kept
    pthread_mutex_unlock(&lock);
    __atomic_store_n(&ip_changed, 1, __ATOMIC_SEQ_CST);
    t.join();
    EXPECT_EQ(0, rc);
    EXPECT_EQ(nullptr, ent_pool[0].ssl);   // main entity released
    EXPECT_EQ(1, g_srving_cnt);
    for (int i = 0; i < 200 && ent_live_threads() > 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    reset(1);
    current = 100;
    int other[ENT_POOL_SIZE];
    for (int i = 0; i < ENT_POOL_SIZE; i++) {
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        other[i] = sv[1];
        ASSERT_EQ(&ent_pool[i], new_entity(i ? "peer" : "CAP", sv[0], i == 0));
    }
    main_ent = &ent_pool[0];
    int naps = fake_sys_naps;
    cleanup_mesh_cable();
    EXPECT_EQ(naps, fake_sys_naps);   // no peer thread to wait for
    for (int i = 0; i < ENT_POOL_SIZE; i++) {
        EXPECT_EQ(nullptr, ent_pool[i].ssl) << "slot " << i;
        EXPECT_EQ(0, recv_one(other[i])) << "slot " << i;
        close(other[i]);
    }
    EXPECT_EQ(0, g_srving_cnt);
    EXPECT_EQ(nullptr, g_ssl_ctx);
}

TEST(Client, WatchdogAndBadTarget)
{
    reset(0);
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    main_ent = &ent_pool[0];
    main_ent->fd = sv[0];
    main_ent->ssl = SSL_new(g_ssl_ctx);
    main_ent->state = ST_RUNNING;
    client_open_timer();
    EXPECT_EQ(0, client_timer_expired());   // nothing noted yet
    client_free_connect(SIGUSR1);           // not ours
    EXPECT_EQ(0, g_sig_alarm);
    client_free_connect(SIGALRM);   // the handler only cuts the socket
    EXPECT_EQ(0, recv_one(sv[1]));
    EXPECT_EQ(ST_RUNNING, main_ent->state);
    EXPECT_EQ(1, client_timer_expired());   // the loop runs the time-out, once
    EXPECT_EQ(ST_STOP, main_ent->state);
    EXPECT_EQ(-1, main_ent->fd);
    EXPECT_EQ(0, client_timer_expired());
    client_close_timer();
    EXPECT_EQ(0u, alarm(0));
    EXPECT_EQ(0, g_timer_flag);
    free_entity(main_ent);
    close(sv[1]);
    // A bad target: released, the watchdog stopped; the WAN MAC refreshed first.
    fake_sys_answer("ifconfig eth4 |grep -o \"HWaddr*", "AA:BB:CC:DD:EE:FF\n");
    EXPECT_EQ(-1, start_mesh_client(nullptr, "", "300.1.2.x"));
    EXPECT_EQ(nullptr, ent_pool[0].ssl);
    EXPECT_EQ(0, g_timer_flag);
    EXPECT_EQ(0u, alarm(0));
    EXPECT_STREQ("AA:BB:CC:DD:EE:FF", g_macaddr);
}

// The factory LAN address (192.168.77.1) clashes with the way to the CAP (gateway or CAP
// address): the RE moves its LAN address to the uplink's for the attempt and back after it
// fails (no TLS context), and restarts DHCP when the CAP is on another /24; INITTED on the 2nd look.
TEST(Flow, ReLoopClashesBothWays)
{
    const char *wan =
        "uci -q set network.lan.ipaddr=10.0.0.20;uci commit network;ifconfig br-lan 10.0.0.20";
    const char *fac = "uci -q set network.lan.ipaddr=192.168.77.1;uci commit network;ifconfig "
                      "br-lan 192.168.77.1";
    const std::vector<std::string> none, moved = {wan, fac},
                                         restart = {wan, fac, "killall -9 udhcpc"};
    const std::vector<std::string> refused = {fac, "killall -9 udhcpc"};
    const struct {
        const char *gw, *cap, *link;
        const std::vector<std::string> &cmds;
        const char *own = "10.0.0.20";   // the uplink's own address
    } cases[] = {{"10.0.0.1", "", "wan: up\n", refused, "10.0.0.2;reboot"},   // never to a shell
                 {"10.0.0.1", "10.0.0.1", "wan: up\n", none},
                 {"192.168.77.1", "", "wan: up\n", restart},
                 {"10.0.0.1", "192.168.77.1", "wan: up\n", restart},
                 {"10.0.0.1", "", "wan: up\n", restart},             // no CAP address yet: a clash
                 {"192.168.77.1", "10.0.0.9", "wan: up\n", moved},   // same /24 as the uplink
                 {"192.168.77.1", "", "wan: down\n", none},
                 {"192.168.77.1", nullptr, "wan: up\n", none}};   // not ready
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("gateway ") + c.gw + ", own " + c.own + ", CAP " +
                     (c.cap ? c.cap : "not known") + ", " + c.link);
        reset(0);
        fake_sys_answer("/sbin/linkprobe link", c.link);
        int looks = 0;
        fake_sys_hook([&](const std::string &cmd) {
            if (cmd == "uci -q get veltrasso.common.INITTED" && ++looks == 2)
                fake_sys_answer(cmd, "YES\n");
        });
        std::string gwfile = std::string(c.gw) + "\n" + (c.cap ? c.own : "") + "\n";
        f_string_write(GW_IP_FILE, gwfile.c_str(), (uint32_t)gwfile.size());
        strcpy(g_cap_ip, c.cap ? c.cap : "");
        g_ifname[0] = 0;
        EXPECT_EQ(0, re_flow());
        std::vector<std::string> cmds;
        for (const auto &s : fake_sys_system_cmds())
            if (s.rfind("uci", 0) == 0 || s.rfind("killall", 0) == 0)
                cmds.push_back(s);
        EXPECT_EQ(c.cmds, cmds);
        EXPECT_EQ(2, looks);
    }
}
