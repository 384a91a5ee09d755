// Discovery: the raw frame parser and the UDP and raw sockets over loopback,
// in a network namespace of the test's own.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture.h"
#include "conn/sockopt.h"
#include "discovery/ddsock.h"
#include "netns.h"
#include "util/log.h"

namespace {

const bool net_ok = netns_enter_private();

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

}  // namespace

TEST(Discovery, RawFrameParsing)
{
    log_mode = LOG_MODE_STDERR;
    const struct { std::vector<uint8_t> f; int flen, buflen; const char *log; } refused[] = {
        {frame("hi"), 33, 64, "dd_recv_raw_msg: recved buf too short for MAC+IP header.\n"},
        {frame("hi", -1, 5, 0x86dd), -1, 64, "dd_recv_raw_msg: not IP packet. ignore. \n"},
        {frame("hi", -1, 5, 0x0800, 6), -1, 64, ""},
        {frame("hi", 11), -1, 64, "dd_recv_raw_msg: udp len too large.\n"},   // one past the frame
        {frame("hi", 7), -1, 64, ""},   // shorter than a UDP header
        {frame("hi", 0), -1, 64, ""},
        {frame("", -1, 15), 14 + 60 + 6, 64, ""},   // no room for the UDP header
        // The whole UDP length is held against buflen: 2040 bytes fit in 2048, 2041 not.
        {frame(std::string(2041, 'q')), -1, 2048, "dd_recv_raw_msg: udp payload too large > buf-len\n"},
        {frame("hello"), -1, 12, ""},
    };
    char buf[2048];
    memset(buf, 0x5a, sizeof(buf));
    for (const auto &c : refused) {
        int flen = c.flen >= 0 ? c.flen : (int)c.f.size();
        std::string log = captured(stderr, [&] { EXPECT_EQ(-1, dd_parse_raw_frame(c.f.data(), flen, buf, c.buflen)); });
        EXPECT_TRUE(Has(log, c.log));
    }
    EXPECT_EQ(-1, dd_parse_raw_frame(frame("hi").data(), 44, nullptr, 64));
    for (char c : buf)
        ASSERT_EQ(0x5a, c) << "a refused frame wrote into the buffer";

    ASSERT_EQ(5, dd_parse_raw_frame(frame("hello").data(), 47, buf, 2048));
    EXPECT_EQ(0, memcmp(buf, "hello\x5a", 6)) << "exactly the payload, nothing after it";
    // IP options move the UDP header; Ethernet padding after it is ignored.
    std::vector<uint8_t> padded = frame("abc", -1, 7);
    padded.resize(padded.size() + 20, 0xee);
    memset(buf, 0x5a, sizeof(buf));
    ASSERT_EQ(3, dd_parse_raw_frame(padded.data(), (int)padded.size(), buf, 2048));
    EXPECT_EQ(0, memcmp(buf, "abc\x5a", 4));
    std::vector<uint8_t> max = frame(std::string(2040, 'q'));
    EXPECT_EQ(2040, dd_parse_raw_frame(max.data(), (int)max.size(), buf, 2048));
    EXPECT_EQ(4, dd_parse_raw_frame(frame("hell").data(), 46, buf, 12));
}

TEST(Discovery, UdpAndRawSocketsOverLoopback)
{
    ASSERT_TRUE(net_ok);
    int before = next_fd();
    EXPECT_EQ(-1, dd_create_sockfd("10.1.2.3", 0, 1));   // not ours: bind fails
    EXPECT_EQ(-1, dd_create_rawfd("nosuchif0"));
    EXPECT_EQ(before, next_fd());

    int32_t recver = dd_create_sockfd("", DD_PORT, 0), sender = dd_create_sockfd("127.0.0.1", -1, 1);
    int32_t raw = dd_create_rawfd("lo");
    ASSERT_TRUE(recver >= 0 && sender >= 0 && raw >= 0);
    EXPECT_EQ("0.0.0.0:19553", bound(recver));
    EXPECT_TRUE(fcntl(recver, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(-1, dd_send_msg(sender, "127.0.0.1", 0, "x", 1));
    EXPECT_EQ(-1, dd_send_msg(sender, "127.0.0.1", DD_PORT, "x", -1));

    // The raw filter drops the first datagram and anything not for the discovery port.
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
    dd_destory_sockfd(&sender);
    dd_destory_sockfd(&recver);
    dd_destory_sockfd(&raw);
}
