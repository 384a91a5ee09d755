// Discovery sockets: the UDP sender/receiver, the filtered raw socket, and
// the hand parser for the Ethernet/IPv4/UDP frames the raw socket hears.
#include "discovery/ddsock.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "conn/sockopt.h"
#include "util/log.h"

namespace
{

// The port as the filter compares it: a 16-bit word in host order.
constexpr uint32_t DD_FILTER_PORT = MESH_PORT;
static_assert(DD_FILTER_PORT > 0 && DD_FILTER_PORT <= 0xffff, "a UDP port is 16 bits");

// Keeps UDP traffic from or to the discovery port: IPv6, or IPv4 when the
// fragment offset is zero (later fragments carry no UDP header). The socket is
// opened for IPv4 only, so the IPv6 branch never matches; it stays as it is.
constexpr sock_filter dd_filter[] = {
    {0x28, 0, 0, 0x0000000c},                                    // EtherType
    {0x15, 0, 6, 0x000086dd},                                    // IPv6?
    {0x30, 0, 0, 0x00000014},                                    // IPv6 next header
    {0x15, 0, 15, 0x00000011},                                   // UDP?
    {0x28, 0, 0, 0x00000036},                                    // source port
    {0x15, 12, 0, DD_FILTER_PORT},  {0x28, 0, 0, 0x00000038},    // destination port
    {0x15, 10, 11, DD_FILTER_PORT}, {0x15, 0, 10, 0x00000800},   // IPv4?
    {0x30, 0, 0, 0x00000017},                                    // IPv4 protocol
    {0x15, 0, 8, 0x00000011},                                    // UDP?
    {0x28, 0, 0, 0x00000014},                                    // flags and fragment offset
    {0x45, 6, 0, 0x00001fff},                                    // not the first fragment: drop
    {0xb1, 0, 0, 0x0000000e},                                    // X = IPv4 header length
    {0x48, 0, 0, 0x0000000e},                                    // source port
    {0x15, 2, 0, DD_FILTER_PORT},   {0x48, 0, 0, 0x00000010},    // destination port
    {0x15, 0, 1, DD_FILTER_PORT},   {0x06, 0, 0, 0x00040000},    // accept
    {0x06, 0, 0, 0x00000000},                                    // drop
};
constexpr int DD_FILTER_LEN = (int)(sizeof(dd_filter) / sizeof(dd_filter[0]));
static_assert(DD_FILTER_LEN == 20, "the discovery filter has 20 instructions");

constexpr int ETH_HDR_LEN = 14;
constexpr int UDP_HDR_LEN = 8;

uint16_t get_be16(const uint8_t *p)
{
    return (uint16_t)((p[0] << 8) | p[1]);
}

}   // namespace

int set_fd_timeout(int fd, int seconds, int milliseconds)
{
    if (fd < 0)
        return -1;
    struct timeval tv;
    tv.tv_sec = seconds;
    tv.tv_usec = (suseconds_t)milliseconds * 1000;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) < 0) {
        LOG(3, "set_fd_timeout : set opt SO_RCVTIMEO failed. %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

int dd_create_rawfd(const char *ifname)
{
    // Bound to an interface, the socket takes its protocol at the bind: given
    // here as well, the bind would first drop the hook the socket call set,
    // and wait a network grace period for it (some 8 ms of every probe).
    const bool bound = ifname && ifname[0];
    int32_t fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, bound ? 0 : htons(0x0800));
    if (fd < 0) {
        LOG(3, "dd_create_rawfd: create fd failed. %s\n", strerror(errno));
        return -1;
    }
    if (set_fd_timeout(fd, 1, 0) < 0) {
        LOG_AS(3, "dd_create_sockfd", "dd_create_sockfd: set opt SO_RCVTIMEO failed\n");
        dd_destory_sockfd(&fd);
        return -1;
    }

    if (ifname && ifname[0]) {
        struct ifreq ifr;
        memset(&ifr, 0, sizeof(ifr));
        strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
        if (ioctl(fd, SIOCGIFINDEX, &ifr) < 0) {
            LOG(3, "dd_create_rawfd: get ifidex failed. %s\n", strerror(errno));
            dd_destory_sockfd(&fd);
            return -1;
        }
        struct sockaddr_ll sll;
        memset(&sll, 0, sizeof(sll));
        sll.sll_family = AF_PACKET;
        sll.sll_protocol = htons(0x0800);
        sll.sll_ifindex = ifr.ifr_ifindex;
        if (bind(fd, (struct sockaddr *)&sll, sizeof(sll)) < 0) {
            LOG(3, "dd_create_rawfd: bind ifindex %s:%d failed. %s\n", ifname, ifr.ifr_ifindex,
                strerror(errno));
            dd_destory_sockfd(&fd);
            return -1;
        }
        LOG(3, "dd_create_rawfd: bind ifindex %s:%d done. \n", ifname, ifr.ifr_ifindex);
    }

    // The kernel wants a writable program; each socket gets its own copy.
    sock_filter prog[DD_FILTER_LEN];
    memcpy(prog, dd_filter, sizeof(prog));
    struct sock_fprog fprog;
    fprog.len = (unsigned short)DD_FILTER_LEN;
    fprog.filter = prog;
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof(fprog)) < 0) {
        LOG(3, "setsockopt ATTACH_FILTER failed. %s\n", strerror(errno));
        dd_destory_sockfd(&fd);
        return -1;
    }
    LOG(3, "setsockopt ATTACH_FILTER ok.\n");
    return fd;
}

int dd_create_sockfd(const char *local_ip, int port, int is_sender)
{
    if (!local_ip && port < 1)
        return -1;
    const char *role = is_sender ? "sender" : "recver";

    int32_t fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        LOG(3, "dd_create_sockfd: send msg create fd failed. %s\n", strerror(errno));
        return -1;
    }

    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
        LOG(3, "dd_create_sockfd: set opt SO_RESUEADDR failed. %s\n", strerror(errno));
        dd_destory_sockfd(&fd);
        return -1;
    }
    if (is_sender && setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)) < 0) {
        LOG(3, "dd_create_sockfd: set opt SO_BROADCASE failed. %s\n", strerror(errno));
        dd_destory_sockfd(&fd);
        return -1;
    }
    if (set_fd_timeout(fd, 0, 500) < 0) {
        LOG(3, "dd_create_sockfd: set opt SO_RCVTIMEO failed. \n");
        dd_destory_sockfd(&fd);
        return -1;
    }

    if (port < 0)
        port = 0;
    const char *ip_text = local_ip ? local_ip : "";
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)port);
    addr.sin_addr.s_addr = ip_text[0] ? inet_addr(ip_text) : htonl(INADDR_ANY);
    if (bind(fd, (struct sockaddr *)&addr, sizeof(addr)) < 0) {
        LOG(3, "dd_create_sockfd: %s bind loc addr [%s:%d] failed. %s\n", role, ip_text, port,
            strerror(errno));
        dd_destory_sockfd(&fd);
        return -1;
    }
    LOG(3, "dd_create_sockfd: %s bind loc addr [%s:%d] done. \n", role, ip_text, port);
    return fd;
}

int dd_send_msg(int fd, const char *dest_ip, int port, const void *buf, int len)
{
    if (fd < 0 || !buf || len < 0 || port < 1)
        return -1;
    const char *dest = (dest_ip && dest_ip[0]) ? dest_ip : DD_BROADCAST_IP;

    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)port);
    addr.sin_addr.s_addr = inet_addr(dest);
    ssize_t n = sendto(fd, buf, (size_t)len, 0, (struct sockaddr *)&addr, sizeof(addr));
    if (n < 0) {
        LOG(3, "dd_send_msg: send msg to [%s:%d] failed. %s\n", dest, port, strerror(errno));
        return -1;
    }
    LOG(3, "dd_send_msg: send msg to [%s:%d] Success, len: %d. \n", dest, port, (int)n);
    return 0;
}

int dd_parse_raw_frame(const uint8_t *frame, int flen, void *buf, int buflen)
{
    if (!frame || flen < 0 || !buf || buflen < 0)
        return -1;
    if (flen < DD_MIN_FRAME) {
        LOG_AS(3, "dd_recv_raw_msg", "dd_recv_raw_msg: recved buf too short for MAC+IP header.\n");
        return -1;
    }
    if (get_be16(frame + 12) != 0x0800) {
        LOG_AS(3, "dd_recv_raw_msg", "dd_recv_raw_msg: not IP packet. ignore. \n");
        return -1;
    }
    if (frame[23] != 17)
        return -1;

    int ip_hdr_len = 4 * (frame[14] & 0x0f);
    int udp_off = ETH_HDR_LEN + ip_hdr_len;
    int room = flen - udp_off;
    // With less than a UDP header left, any valid length would overrun.
    int udp_len = room >= UDP_HDR_LEN ? get_be16(frame + udp_off + 4) : 0;
    if (room < UDP_HDR_LEN || udp_len > room) {
        LOG_AS(3, "dd_recv_raw_msg", "dd_recv_raw_msg: udp len too large.\n");
        return -1;
    }
    // A length that does not even cover the UDP header is no datagram of ours.
    if (udp_len < UDP_HDR_LEN)
        return -1;
    // Checked against the whole UDP length: payloads up to buflen - 8 fit.
    if (udp_len > buflen) {
        LOG_AS(3, "dd_recv_raw_msg", "dd_recv_raw_msg: udp payload too large > buf-len\n");
        return -1;
    }
    int payload = udp_len - UDP_HDR_LEN;
    memcpy(buf, frame + udp_off + UDP_HDR_LEN, (size_t)payload);
    LOG_AS(3, "dd_recv_raw_msg", "dd_recv_raw_msg: recv data, len: %d \n", payload);
    return payload;
}

int dd_recv_raw_msg(int fd, void *buf, int buflen)
{
    if (fd < 0 || !buf || buflen < 0)
        return -1;
    uint8_t frame[DD_RAW_BUF];
    memset(frame, 0, sizeof(frame));
    ssize_t n = recv(fd, frame, sizeof(frame), 0);
    if (n < 0) {
        // The 1 s time-out and a failure are one result for the caller.
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            LOG(3, "dd_recv_raw_msg: recv failed. %s\n", strerror(errno));
        return 0;
    }
    LOG(3, "dd_recv_raw_msg: recved raw-msg, len: %d .\n", (int)n);
    return dd_parse_raw_frame(frame, (int)n, buf, buflen);
}

int dd_recv_msg(int fd, char *from_ip, int *from_port, void *buf, int buflen)
{
    if (fd < 0 || !buf || buflen < 0)
        return -1;
    struct sockaddr_in src;
    memset(&src, 0, sizeof(src));
    socklen_t slen = sizeof(src);
    ssize_t n = recvfrom(fd, buf, (size_t)buflen, 0, (struct sockaddr *)&src, &slen);
    if (n < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            LOG(3, "dd_recv_msg: recv failed. %s\n", strerror(errno));
        return -1;
    }
    char ip[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &src.sin_addr, ip, sizeof(ip));
    int port = ntohs(src.sin_port);
    LOG(3, "dd_recv_msg: recv data from: [%s:%d], len: %d \n", ip, port, (int)n);
    if (from_ip)
        strncpy(from_ip, ip, 16);
    if (from_port)
        *from_port = port;
    return 0;
}
