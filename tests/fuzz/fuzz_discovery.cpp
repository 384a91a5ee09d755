// Discovery datagrams at both ends. Byte 0 bit 0 picks the RE's probe (1) or
// the CAP's responder (0; bit 1 puts a live mesh lock in place). Probe: the
// rest is an Ethernet frame as the raw socket receives it, in a heap block of
// its size; only a well-formed UDP datagram yields a payload, exactly its
// bytes, and nothing behind them is written; a payload is then matched
// against the CAP's answer. Responder: byte 1 is the length of the `ifconfig`
// output that gives the LAN address, then that output, then the datagram.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "discovery/ddprobe.h"
#include "discovery/ddsock.h"
#include "fake_sys.h"
#include "fuzz_common.h"
#include "platform/meshlock.h"
#include "util/addr.h"
#include "util/shell.h"

#define CHECK(c) ((c) ? (void)0 : (fprintf(stderr, "fuzz_discovery: %s\n", #c), abort()))

static void probe(const uint8_t *data, int flen)
{
    uint8_t *frame = (uint8_t *)malloc(flen ? flen : 1);
    memcpy(frame, data, flen);
    char buf[DD_RAW_BUF];
    memset(buf, 0x5a, sizeof(buf));
    int n = dd_parse_raw_frame(frame, flen, buf, DD_RAW_BUF);
    CHECK(n >= -1 && n <= DD_RAW_BUF - 8);
    if (n >= 0) {
        int udp = 14 + 4 * (frame[14] & 0x0f), udp_len = udp + 8 <= flen ? frame[udp + 4] << 8 | frame[udp + 5] : -1;
        CHECK(udp + 8 <= flen && n == udp_len - 8 && udp + udp_len <= flen && memcmp(buf, frame + udp + 8, n) == 0);
    }
    for (int i = n > 0 ? n : 0; i < DD_RAW_BUF; i++)
        CHECK(buf[i] == 0x5a);
    free(frame);
    char cap_ip[16];
    memset(cap_ip, 0x5a, sizeof(cap_ip));
    if (n > 0 && dd_clt_match(buf, cap_ip) == 0)
        CHECK(memchr(cap_ip, 0, 16) && memcmp(buf, DD_CAP_MAGIC, 18) == 0);
    else
        CHECK(cap_ip[0] == 0x5a);
}

static void responder(const uint8_t *data, size_t size, bool locked)
{
    size_t iplen = size ? data[0] : 0;
    data += size ? 1 : 0, size -= size ? 1 : 0;
    iplen = iplen < size ? iplen : size;
    fake_sys_install();
    fake_sys_answer("ifconfig *", std::string((const char *)data, iplen));
    data += iplen, size -= iplen;
    unlink(MESH_LOCK_FILE);
    if (locked) {
        std::string stamp = std::to_string(uptime());
        f_string_write(MESH_LOCK_FILE, stamp.c_str(), (uint32_t)stamp.size());
    }
    char ip[16] = {0};
    if (get_iface_ip("br-lan", ip, 16) != 0)
        ip[0] = '\0';
    CHECK(memchr(ip, 0, sizeof(ip)));
    char buf[DD_RAW_BUF + 1] = {0};   // 2048 bytes received, one spare NUL
    memcpy(buf, data, size < (size_t)DD_RAW_BUF ? size : (size_t)DD_RAW_BUF);
    bool request = memcmp(buf, DD_RE_MAGIC, 17) == 0;
    int len = dd_srv_handle(buf, (int)sizeof(buf), ip);
    // Answered exactly when it is a request and no pairing runs: magic, address, NUL.
    CHECK((len != -1) == (request && !locked));
    if (len != -1)
        CHECK(len == 19 + (int)strlen(ip) && memcmp(buf, DD_CAP_MAGIC, 18) == 0 && strcmp(buf + 18, ip) == 0);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_setup_platform();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > DD_RAW_BUF + 1)
        return 0;
    if (data[0] & 1)
        probe(data + 1, (int)size - 1);
    else
        responder(data + 1, size - 1, (data[0] & 2) != 0);
    return 0;
}
