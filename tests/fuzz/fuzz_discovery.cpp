// Discovery datagrams at both ends. Byte 0: bit 0 picks the CAP's responder
// (0) or the RE's probe (1); for the responder bit 1 puts a live mesh lock
// in place. Responder: byte 1 is the length of the `ifconfig` output that
// gives the LAN address, then that output, then the datagram as the UDP
// receive leaves it (at most 2048 bytes, NUL behind). Probe: the rest is a
// raw Ethernet frame, parsed as the raw socket's receive does, and a payload
// is matched against the CAP's answer.
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

namespace {

void responder(const uint8_t *data, size_t size, bool locked)
{
    if (size < 1)
        return;
    size_t iplen = data[0];
    data++;
    size--;
    if (iplen > size)
        iplen = size;
    fake_sys_install();
    fake_sys_answer("ifconfig *", std::string((const char *)data, iplen));
    data += iplen;
    size -= iplen;

    if (locked) {
        char stamp[32];
        snprintf(stamp, sizeof(stamp), "%d", uptime());
        f_string_write(MESH_LOCK_FILE, stamp, (uint32_t)strlen(stamp));
    } else {
        unlink(MESH_LOCK_FILE);
    }

    char local_ip[16];
    memset(local_ip, 0, sizeof(local_ip));
    if (get_iface_ip("br-lan", local_ip, 16) != 0)
        local_ip[0] = '\0';
    if (memchr(local_ip, 0, sizeof(local_ip)) == nullptr)
        abort();

    // The responder's own buffer: 2048 bytes received, one spare NUL.
    char buf[DD_RAW_BUF + 1];
    memset(buf, 0, sizeof(buf));
    memcpy(buf, data, size < (size_t)DD_RAW_BUF ? size : (size_t)DD_RAW_BUF);
    int len = dd_srv_handle(buf, (int)sizeof(buf), local_ip);
    if (len == -1)
        return;
    if (locked || len < 19 || len > 18 + 16 || (size_t)len != strlen(buf) + 1)
        abort();
    if (memcmp(buf, DD_CAP_MAGIC, 18) != 0 || strcmp(buf + 18, local_ip) != 0)
        abort();
}

void probe(const uint8_t *data, size_t size)
{
    if (size > DD_RAW_BUF)
        return;
    uint8_t *frame = (uint8_t *)malloc(size ? size : 1);
    memcpy(frame, data, size);
    char buf[DD_RAW_BUF];
    memset(buf, 0, sizeof(buf));
    int n = dd_parse_raw_frame(frame, (int)size, buf, DD_RAW_BUF);
    free(frame);
    if (n <= 0)
        return;
    char *cap_ip = (char *)malloc(16);
    memset(cap_ip, 0x5A, 16);
    if (dd_clt_match(buf, cap_ip) == 0) {
        if (strnlen(cap_ip, 16) > 15 || memcmp(buf, DD_CAP_MAGIC, 18) != 0)
            abort();
    } else if (memcmp(cap_ip, "\x5A\x5A\x5A\x5A", 4) != 0) {
        abort();
    }
    free(cap_ip);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_setup_platform();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 4096)
        return 0;
    if (data[0] & 1)
        probe(data + 1, size - 1);
    else
        responder(data + 1, size - 1, (data[0] & 2) != 0);
    return 0;
}
