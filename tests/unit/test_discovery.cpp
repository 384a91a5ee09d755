// Discovery: the raw frame parser, and the UDP and raw sockets over the
// loopback of a network namespace of the test's own.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "conn/sockopt.h"
#include "discovery/ddprobe.h"
#include "discovery/ddsock.h"
#include "platform/meshlock.h"
#include "util/shell.h"
#include "netns.h"
#include "util/log.h"

namespace {

const bool net_ok = netns_enter_private();

// Ethernet + IPv4 (ihl words) + UDP carrying `payload`; udp_len >= 0 overrides the UDP length.
std::vector<uint8_t> frame(const std::string &payload, int udp_len = -1, int ihl = 5, uint16_t ethertype = 0x0800,
                           uint8_t proto = 17)
{
    std::vector<uint8_t> f(14 + 4 * ihl + 8 + payload.size(), 0);
    size_t u = 14 + 4 * ihl;
    int len = udp_len >= 0 ? udp_len : (int)(8 + payload.size());
    f[12] = ethertype >> 8, f[13] = ethertype & 0xff, f[14] = (uint8_t)(0x40 | ihl), f[23] = proto;
    f[u + 4] = (uint8_t)(len >> 8), f[u + 5] = (uint8_t)len;
    memcpy(&f[u + 8], payload.data(), payload.size());
    return f;
}

std::string bound(int fd)
{
    struct sockaddr_in a;
    socklen_t l = sizeof(a);
    getsockname(fd, (struct sockaddr *)&a, &l);
    return std::string(inet_ntoa(a.sin_addr)) + ":" + std::to_string(ntohs(a.sin_port));
}

}  // namespace

TEST(Discovery, RawFrameParsing)
{
    log_level = 0;
    std::vector<uint8_t> padded = frame("abc", -1, 7);   // IP options move the UDP header
    padded.resize(padded.size() + 20, 0xee);               // Ethernet padding is ignored
    const struct { std::vector<uint8_t> f; int flen, buflen, rc; const char *payload; } cases[] = {
        {frame("hi"), 33, 64, -1, ""}, {frame("hi", -1, 5, 0x86dd), -1, 64, -1, ""},
        {frame("hi", -1, 5, 0x0800, 6), -1, 64, -1, ""},
        {frame("hi", 11), -1, 64, -1, ""}, {frame("hi", 10), -1, 64, 2, "hi"},   // at and one past the frame
        {frame("hi", 7), -1, 64, -1, ""}, {frame("hi", 8), -1, 64, 0, ""}, {frame("hi", 0), -1, 64, -1, ""},
        {frame("", -1, 15), 14 + 60 + 6, 64, -1, ""},   // no room for the UDP header
        // The whole UDP length is held against buflen: 2040 bytes fit in 2048, 2041 not.
        {frame(std::string(2041, 'q')), -1, 2048, -1, ""}, {frame(std::string(2040, 'q')), -1, 2048, 2040, nullptr},
        {frame("hello"), -1, 12, -1, ""}, {frame("hell"), 46, 12, 4, "hell"}, {frame("hello"), 47, 2048, 5, "hello"},
        {padded, -1, 2048, 3, "abc"}};
    for (const auto &c : cases) {
        char buf[2048];
        memset(buf, 0x5a, sizeof(buf));
        int flen = c.flen >= 0 ? c.flen : (int)c.f.size();
        EXPECT_EQ(c.rc, dd_parse_raw_frame(c.f.data(), flen, buf, c.buflen)) << flen;
        EXPECT_TRUE(!c.payload || memcmp(buf, c.payload, strlen(c.payload)) == 0) << flen;
        for (int i = c.rc > 0 ? c.rc : 0; i < 2048; i++)
            ASSERT_EQ(0x5a, buf[i]) << "written behind the payload, frame of " << flen;
    }
    EXPECT_EQ(-1, dd_parse_raw_frame(frame("hi").data(), 44, nullptr, 64));
}

// The responder answers a request (the magic, NUL not compared) with its magic, its address and a NUL,
// unless a pairing holds the mesh lock; the probe takes the address out of an answer.
TEST(Discovery, RequestAnswerAndMatch)
{
    unlink(MESH_LOCK_FILE);
    const struct { const char *req, *ip; int len; } cases[] = {
        {"KORVANE_RE_DDv1.0", "192.168.77.1", 31}, {"KORVANE_RE_DDv1.0more", "", 19}, {"KORVANE_RE_DDv1.1", "1.2.3.4", -1},
        {"KORVANE_RE_DDv1.", "1.2.3.4", -1}};
    for (const auto &c : cases) {
        char buf[DD_RAW_BUF + 1] = {0}, ip[16];
        strcpy(buf, c.req);
        ASSERT_EQ(c.len, dd_srv_handle(buf, sizeof(buf), c.ip)) << c.req;
        if (c.len < 0)
            continue;
        EXPECT_EQ(std::string("KORVANE_CAP_DDv1.0") + c.ip, buf);
        EXPECT_EQ(0, buf[c.len]);
        memset(ip, 'z', sizeof(ip));
        ASSERT_EQ(0, dd_clt_match(buf, ip));
        EXPECT_STREQ(c.ip, ip);
        buf[17] = '1';
        EXPECT_EQ(-1, dd_clt_match(buf, ip));
    }
    std::string now = std::to_string(uptime());
    f_string_write(MESH_LOCK_FILE, now.c_str(), (uint32_t)now.size());
    char buf[DD_RAW_BUF + 1] = "KORVANE_RE_DDv1.0";
    EXPECT_EQ(-1, dd_srv_handle(buf, sizeof(buf), "1.2.3.4"));
    unlink(MESH_LOCK_FILE);
}

TEST(Discovery, UdpAndRawSocketsOverLoopback)
{
    ASSERT_TRUE(net_ok);
    int before = dup(0);
    close(before);
    EXPECT_EQ(-1, dd_create_sockfd("10.1.2.3", 0, 1));   // not ours: bind fails
    EXPECT_EQ(-1, dd_create_rawfd("nosuchif0"));
    int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);   // nothing leaked
    int32_t recver = dd_create_sockfd("", DD_PORT, 0), sender = dd_create_sockfd("127.0.0.1", -1, 1);
    int32_t raw = dd_create_rawfd("lo");
    ASSERT_TRUE(recver >= 0 && sender >= 0 && raw >= 0);
    EXPECT_EQ("0.0.0.0:19553", bound(recver));
    EXPECT_TRUE(fcntl(recver, F_GETFD) & FD_CLOEXEC);
    int v = 0;
    socklen_t l = sizeof(v);
    EXPECT_EQ(0, getsockopt(sender, SOL_SOCKET, SO_BROADCAST, &v, &l));
    EXPECT_EQ(1, v);
    EXPECT_EQ(-1, dd_send_msg(sender, "127.0.0.1", 0, "x", 1));
    EXPECT_EQ(-1, dd_send_msg(sender, "127.0.0.1", DD_PORT, "x", -1));
    // The raw filter drops anything not for the discovery port.
    ASSERT_EQ(0, dd_send_msg(sender, "127.0.0.1", DD_PORT + 1, "other port", 11));
    ASSERT_EQ(0, dd_send_msg(sender, "127.0.0.1", DD_PORT, "hello", 6));
    char buf[DD_RAW_BUF] = {0}, from_ip[16];
    int from_port = 0, n = -1;
    ASSERT_EQ(0, dd_recv_msg(recver, from_ip, &from_port, buf, sizeof(buf)));
    EXPECT_STREQ("hello", buf);
    EXPECT_EQ(bound(sender), std::string(from_ip) + ":" + std::to_string(from_port));
    EXPECT_EQ(-1, dd_recv_msg(recver, from_ip, &from_port, buf, sizeof(buf)));   // time-out
    for (int i = 0; i < 10 && n < 0; i++)
        n = dd_recv_raw_msg(raw, buf, sizeof(buf));
    EXPECT_EQ(6, n);
    EXPECT_STREQ("hello", buf);
    dd_destory_sockfd(&sender), dd_destory_sockfd(&recver), dd_destory_sockfd(&raw);
}
