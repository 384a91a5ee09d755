// Discovery: frame parsing, the UDP and raw sockets, the responder and the
// probe. The binary first moves into its own network namespace, so its
// sockets, veth pair and broadcasts never reach the host's interfaces.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "conn/sockopt.h"
#include "core/flow.h"
#include "discovery/ddprobe.h"
#include "discovery/ddsock.h"
#include "fake_sys.h"
#include "util/log.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

bool net_ok;
struct PrivateNet : testing::Environment {
    void SetUp() override
    {
        int s = unshare(CLONE_NEWNET) == 0 ? socket(AF_INET, SOCK_DGRAM, 0) : -1;
        struct ifreq ifr = {};
        strcpy(ifr.ifr_name, "lo");
        ifr.ifr_flags = IFF_UP;
        net_ok = s >= 0 && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
        close(s);
    }
};
testing::Environment *const private_net = testing::AddGlobalTestEnvironment(new PrivateNet);

// Ethernet + IPv4 (ihl words) + UDP carrying `payload`; udp_len >= 0
// overrides the UDP length field.
std::vector<uint8_t> frame(const std::string &payload, int udp_len = -1, int ihl = 5,
                           uint16_t ethertype = 0x0800, uint8_t proto = 17)
{
    std::vector<uint8_t> f(14 + 4 * ihl + 8 + payload.size(), 0);
    size_t u = 14 + 4 * ihl;
    int len = udp_len >= 0 ? udp_len : (int)(8 + payload.size());
    f[12] = ethertype >> 8, f[13] = ethertype & 0xff, f[14] = (uint8_t)(0x40 | ihl), f[23] = proto;
    f[u + 4] = (uint8_t)(len >> 8), f[u + 5] = (uint8_t)len;
    memcpy(&f[u + 8], payload.data(), payload.size());
    return f;
}

int parse(const std::vector<uint8_t> &f, char *buf, int buflen, int flen = -1)
{
    return dd_parse_raw_frame(f.data(), flen >= 0 ? flen : (int)f.size(), buf, buflen);
}

// The lowest free descriptor: unchanged across a call means nothing leaked.
int next_fd()
{
    int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

std::string bound(int fd)
{
    struct sockaddr_in a;
    socklen_t l = sizeof(a);
    getsockname(fd, (struct sockaddr *)&a, &l);
    return std::string(inet_ntoa(a.sin_addr)) + ":" + std::to_string(ntohs(a.sin_port));
}

std::string ip_cmd(const char *ifname)
{
    return std::string("ifconfig ") + ifname + " |grep -o \"inet addr:[0-9.]*\"|awk -F: '{print $2}'";
}

class Discovery : public testing::Test {
protected:
    void SetUp() override
    {
        log_level = 7;
        log_mode = LOG_MODE_STDERR;
        stop = ip_changed = 0;
        fake_sys_install();
    }
    void TearDown() override { fake_sys_uninstall(); }
};

}  // namespace

TEST_F(Discovery, RawFrameParsing)
{
    char buf[2048];
    memset(buf, 0x5a, sizeof(buf));
    CaptureStderr();
    EXPECT_EQ(-1, parse(frame("hi"), buf, 64, 33));
    EXPECT_EQ(-1, parse(frame("hi", -1, 5, 0x86dd), buf, 64));
    EXPECT_EQ(-1, parse(frame("hi", -1, 5, 0x0800, 6), buf, 64));
    EXPECT_EQ(-1, parse(frame("hi", 11), buf, 64));   // one past the frame
    EXPECT_EQ(-1, parse(frame("hi", 7), buf, 64));    // shorter than a UDP header
    EXPECT_EQ(-1, parse(frame("hi", 0), buf, 64));
    EXPECT_EQ(-1, parse(frame("", -1, 15), buf, 64, 14 + 60 + 6));   // no room for UDP
    EXPECT_EQ(-1, parse(frame(std::string(2041, 'q')), buf, 2048));
    EXPECT_EQ(-1, parse(frame("hi"), nullptr, 64));
    std::string log = GetCapturedStderr();
    for (char c : buf)
        ASSERT_EQ(0x5a, c) << "a refused frame wrote into the buffer";
    EXPECT_NE(std::string::npos, log.find("dd_recv_raw_msg: recved buf too short for MAC+IP header.\n"));
    EXPECT_NE(std::string::npos, log.find("dd_recv_raw_msg: not IP packet. ignore. \n"));
    EXPECT_NE(std::string::npos, log.find("dd_recv_raw_msg: udp len too large.\n"));
    EXPECT_NE(std::string::npos, log.find("dd_recv_raw_msg: udp payload too large > buf-len\n"));

    ASSERT_EQ(5, parse(frame("hello"), buf, 2048));
    EXPECT_EQ(0, memcmp(buf, "hello\x5a", 6)) << "exactly the payload, nothing after it";
    // IP options move the UDP header; Ethernet padding after it is ignored.
    std::vector<uint8_t> padded = frame("abc", -1, 7);
    padded.resize(padded.size() + 20, 0xee);
    memset(buf, 0x5a, sizeof(buf));
    ASSERT_EQ(3, parse(padded, buf, 2048));
    EXPECT_EQ(0, memcmp(buf, "abc\x5a", 4));
    // The whole UDP length is held against buflen: 2040 bytes fit in 2048.
    EXPECT_EQ(2040, parse(frame(std::string(2040, 'q')), buf, 2048));
    EXPECT_EQ(4, parse(frame("hell"), buf, 12));
    EXPECT_EQ(-1, parse(frame("hello"), buf, 12));
}

TEST_F(Discovery, UdpSocketsAndLoopbackRoundTrip)
{
    ASSERT_TRUE(net_ok);
    int before = next_fd();
    EXPECT_EQ(-1, dd_create_sockfd(nullptr, 0, 1));
    EXPECT_EQ(-1, dd_create_sockfd("10.1.2.3", 0, 1));   // not ours: bind fails
    EXPECT_EQ(before, next_fd());
    EXPECT_EQ(-1, set_fd_timeout(-1, 1, 0));
    char buf[64] = {0};
    EXPECT_EQ(-1, dd_send_msg(-1, "127.0.0.1", DD_PORT, "x", 1));
    EXPECT_EQ(-1, dd_recv_msg(-1, nullptr, nullptr, buf, sizeof(buf)));

    int32_t recver = dd_create_sockfd("", DD_PORT, 0);
    int32_t sender = dd_create_sockfd("127.0.0.1", -1, 1);
    ASSERT_GE(recver, 0);
    ASSERT_GE(sender, 0);
    EXPECT_EQ("0.0.0.0:19553", bound(recver));
    EXPECT_TRUE(fcntl(recver, F_GETFD) & FD_CLOEXEC);

    EXPECT_EQ(-1, dd_send_msg(sender, "127.0.0.1", 0, "x", 1));
    EXPECT_EQ(-1, dd_send_msg(sender, "127.0.0.1", DD_PORT, "x", -1));
    ASSERT_EQ(0, dd_send_msg(sender, "127.0.0.1", DD_PORT, "hello", 6));
    char from_ip[16];
    int from_port = 0;
    ASSERT_EQ(0, dd_recv_msg(recver, from_ip, &from_port, buf, sizeof(buf)));
    EXPECT_STREQ("hello", buf);
    EXPECT_EQ(bound(sender), std::string(from_ip) + ":" + std::to_string(from_port));
    ASSERT_EQ(0, dd_send_msg(sender, "127.0.0.1", DD_PORT, "again", 6));
    EXPECT_EQ(0, dd_recv_msg(recver, nullptr, nullptr, buf, sizeof(buf)));
    EXPECT_STREQ("again", buf);
    EXPECT_EQ(-1, dd_recv_msg(recver, from_ip, &from_port, buf, sizeof(buf)));   // time-out
    dd_destory_sockfd(&sender);
    dd_destory_sockfd(&recver);
}

TEST_F(Discovery, RawSocketHearsOnlyDiscoveryPort)
{
    ASSERT_TRUE(net_ok);
    int before = next_fd();
    EXPECT_EQ(-1, dd_create_rawfd("nosuchif0"));
    EXPECT_EQ(before, next_fd());
    int32_t raw = dd_create_rawfd("lo");
    int32_t tx = dd_create_sockfd("127.0.0.1", 0, 1);
    ASSERT_GE(raw, 0);
    ASSERT_GE(tx, 0);
    // The filter drops the first datagram: the first payload heard is the second.
    ASSERT_EQ(0, dd_send_msg(tx, "127.0.0.1", DD_PORT + 1, "other port", 11));
    ASSERT_EQ(0, dd_send_msg(tx, "127.0.0.1", DD_PORT, "discovery", 10));
    char buf[DD_RAW_BUF] = {0};
    int n = -1;
    for (int i = 0; i < 10 && n < 0; i++)
        n = dd_recv_raw_msg(raw, buf, sizeof(buf));
    ASSERT_EQ(10, n);
    EXPECT_STREQ("discovery", buf);
    while (dd_recv_raw_msg(raw, buf, sizeof(buf)) != 0)   // a quiet second ends with 0
        ;
    dd_destory_sockfd(&tx);
    dd_destory_sockfd(&raw);
}

TEST_F(Discovery, InterfaceQueries)
{
    fake_sys_answer(ip_cmd("br-lan"), "192.168.77.1\n");
    fake_sys_answer("ifconfig br-lan |grep -o \"HWaddr [0-9A-Z.:]*\"|awk '{print $2}'",
                    "AA:BB:CC:00:11:22 \n");
    char ip[16], mac[19];
    ASSERT_EQ(0, get_iface_ip("br-lan", ip, sizeof(ip)));
    EXPECT_STREQ("192.168.77.1", ip);
    ASSERT_EQ(0, get_iface_mac("br-lan", mac, sizeof(mac)));
    EXPECT_STREQ("AA:BB:CC:00:11:22", mac);
    EXPECT_EQ(-1, get_iface_ip("eth9", ip, sizeof(ip)));   // prints nothing
    EXPECT_TRUE(fake_sys_ran(ip_cmd("eth9")));
    EXPECT_EQ(-1, get_iface_mac(nullptr, mac, sizeof(mac)));
    EXPECT_EQ(3u, fake_sys_log().size());
}

// The CAP answers on ddcap, the RE probes on ddre: a veth pair in the
// test's own namespace.
TEST_F(Discovery, ResponderAndProbe)
{
    auto sh = [](const char *cmd) { return system(cmd) == 0; };
    if (!net_ok || !sh("ip link add ddcap type veth peer name ddre 2>/dev/null"))
        GTEST_SKIP() << "no private namespace or no veth";
    ASSERT_TRUE(sh("ip addr add 10.77.0.1/24 dev ddcap && ip addr add 10.77.0.2/24 dev ddre"
                   " && ip link set ddcap up && ip link set ddre up"));
    fake_sys_answer(ip_cmd("ddcap"), "10.77.0.1\n");
    fake_sys_answer(ip_cmd("ddre"), "10.77.0.2\n");
    pthread_t srv;
    ASSERT_EQ(0, pthread_create(&srv, nullptr, dd_srv_loop, (void *)"ddcap"));
    usleep(200 * 1000);
    char cap_ip[16];
    ASSERT_EQ(0, dd_clt_probe("ddre", cap_ip));
    EXPECT_STREQ("10.77.0.1", cap_ip);

    // Sends a request from the RE side; the first CAP answer heard, or "".
    auto ask = [](const char *req, int len) {
        int32_t tx = dd_create_sockfd("10.77.0.2", 0, 1), raw = dd_create_rawfd("ddre");
        EXPECT_EQ(0, dd_send_msg(tx, "", DD_PORT, req, len));
        std::string answer;
        char buf[DD_RAW_BUF];
        int n;
        // Read on to a quiet second, so no late copy reaches the next question.
        while (memset(buf, 0, sizeof(buf)), (n = dd_recv_raw_msg(raw, buf, sizeof(buf))) != 0)
            if (n > 0 && answer.empty() && memcmp(buf, DD_CAP_MAGIC, 18) == 0)
                answer.assign(buf, n);
        dd_destory_sockfd(&tx);
        dd_destory_sockfd(&raw);
        return answer;
    };
    EXPECT_EQ(std::string("KORVANE_CAP_DDv1.010.77.0.1", 28), ask("KORVANE_RE_DDv1.0", 18));
    EXPECT_NE("", ask("KORVANE_RE_DDv1.0 and more", 27));
    CaptureStderr();
    EXPECT_EQ("", ask("KORVANE_RE_DDv1.1", 18));
    EXPECT_NE(std::string::npos,
              GetCapturedStderr().find("dd_srv: it's not msg from RE. data:[KORVANE_RE_DDv1.1]\n"));

    // A live mesh lock: requests are dropped.
    struct sysinfo si;
    sysinfo(&si);
    FILE *f = fopen("/var/run/plaitd.lock", "w");
    fprintf(f, "%ld", (long)si.uptime);
    fclose(f);
    CaptureStderr();
    EXPECT_EQ(-1, dd_clt_probe("ddre", cap_ip));
    EXPECT_NE(std::string::npos, GetCapturedStderr().find("dd srv: meshing\n"));
    unlink("/var/run/plaitd.lock");

    // The first answer cannot leave from the old address: the responder
    // rebinds, flags the change, and the next probe hears the new address.
    fake_sys_answer(ip_cmd("ddcap"), "10.77.0.9\n");
    ASSERT_TRUE(sh("ip addr flush dev ddcap && ip addr add 10.77.0.9/24 dev ddcap"));
    EXPECT_EQ(-1, dd_clt_probe("ddre", cap_ip));
    EXPECT_EQ(1, ip_changed);
    ASSERT_EQ(0, dd_clt_probe("ddre", cap_ip));
    EXPECT_STREQ("10.77.0.9", cap_ip);

    stop = 1;   // seen within one 500 ms receive time-out
    pthread_join(srv, nullptr);
    sh("ip link del ddcap");
}
