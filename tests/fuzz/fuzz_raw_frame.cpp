// The hand-written Ethernet/IPv4/UDP parser of the RE's raw socket. Bytes
// 0-1 give the caller's buffer length (0..2048), the rest is the frame. The
// frame and the output buffer are heap blocks of exactly their size, so ASan
// sees any access past either; bytes behind the payload must stay untouched.
#include <stdlib.h>
#include <string.h>

#include "discovery/ddsock.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_setup_platform();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size - 2 > DD_RAW_BUF)
        return 0;
    const int buflen = ((data[0] << 8) | data[1]) % (DD_RAW_BUF + 1);
    const int flen = (int)(size - 2);

    uint8_t *frame = (uint8_t *)malloc(flen ? (size_t)flen : 1);
    memcpy(frame, data + 2, (size_t)flen);
    uint8_t *buf = (uint8_t *)malloc(buflen ? (size_t)buflen : 1);
    memset(buf, 0xA5, buflen ? (size_t)buflen : 1);

    int n = dd_parse_raw_frame(frame, flen, buf, buflen);
    if (n < -1 || (n >= 0 && n > buflen - 8))
        abort();
    if (n >= 0) {
        // Only a well-formed UDP datagram yields a payload, and it is
        // copied from behind the UDP header.
        int ihl = 4 * (frame[14] & 0x0f);
        int udp = 14 + ihl;
        if (udp + 8 > flen)
            abort();
        int udp_len = (frame[udp + 4] << 8) | frame[udp + 5];
        if (n != udp_len - 8 || udp + udp_len > flen)
            abort();
        if (memcmp(buf, frame + udp + 8, (size_t)n) != 0)
            abort();
    }
    for (int i = n > 0 ? n : 0; i < buflen; i++)
        if (buf[i] != 0xA5)
            abort();
    free(buf);
    free(frame);
    return 0;
}
