// What any host on the LAN can put before the daemon. Byte 0 bits 0-1 pick the reader: 0 a
// discovery datagram at the CAP's responder and the RE's matcher (bit 2: a pairing holds the
// mesh lock; bits 3-4: the CAP's address), 1 an Ethernet frame at the raw-socket parser (bits
// 2-7: its buffer, 0 for the RE's 2048 bytes, else 32 bytes each), 2 the gateway file (bit 2: no
// file); the rest is the input. Each decision is worked out here from the format, independently.
#include "testing.h"

#define CHECK(c) ((c) ? (void)0 : (fprintf(stderr, "fuzz_lan: %s\n", #c), abort()))
#define BE16(p)  ((p)[0] << 8 | (p)[1])

namespace
{

const char *const kCapIp[4] = {"", "10.0.0.1", "192.168.100.254", "255.255.255.255"};
const char kZero[32] = {0};

// The RE reads a CAP's answer: the magic, then the address text (at most 15 characters).
void check_answer(const char *buf)
{
    char cap_ip[16] = "ZZZZZZZZZZZZZZZ";
    const bool ours = memcmp(buf, "KORVANE_CAP_DDv1.0", 18) == 0;
    CHECK((dd_clt_match(buf, cap_ip) == 0) == ours);
    CHECK(ours ? strncmp(cap_ip, buf + 18, 15) == 0 && memchr(cap_ip, 0, 16) : cap_ip[0] == 'Z');
}

void datagram(const uint8_t *d, size_t size, int sel)
{
    const char *ip = kCapIp[(sel >> 3) & 3];
    tolvaRemoveMeshLock();
    if (sel & 4)
        tolvaAddMeshLock();
    char buf[DD_RAW_BUF + 1] = {0};   // as received: at most 2048 bytes, then a NUL
    memcpy(buf, d, size);
    check_answer(buf);
    // Answered only when no pairing runs and it starts with the request's 17 characters.
    const bool request = size >= 17 && memcmp(d, "KORVANE_RE_DDv1.0", 17) == 0;
    const int len = dd_srv_handle(buf, (int)sizeof(buf), ip);
    CHECK((len >= 0) == (request && !(sel & 4)));
    CHECK(len < 0 || (len == 19 + (int)strlen(ip) && memcmp(buf, "KORVANE_CAP_DDv1.0", 18) == 0 &&
                      memcmp(buf + 18, ip, strlen(ip) + 1) == 0));
}

void frame(const uint8_t *f, size_t size, int sel)
{
    const int flen = (int)size;
    const int buflen = (sel >> 2) ? (sel >> 2) * 32 : DD_RAW_BUF;
    uint8_t buf[DD_RAW_BUF];
    memset(buf, 0x5a, sizeof(buf));
    // IPv4 carrying UDP, whose datagram (its length field covering at least the 8-byte header)
    // lies within the frame behind the IPv4 header that byte 14 sizes, and fits `buflen`.
    const int udp = 14 + (flen > 14 ? 4 * (f[14] & 15) : 0);
    const int len = udp + 8 <= flen ? BE16(f + udp + 4) : -1;
    const bool ip_udp = flen >= 34 && BE16(f + 12) == 0x0800 && f[23] == 17;
    const bool ok = ip_udp && len >= 8 && udp + len <= flen && len <= buflen;
    const int n = dd_parse_raw_frame(f, flen, buf, buflen);
    CHECK(n >= -1 && (n >= 0) == ok);
    CHECK(!ok || (n == len - 8 && memcmp(buf, f + udp + 8, (size_t)n) == 0));
    for (int i = n > 0 ? n : 0; i < DD_RAW_BUF; i++)
        CHECK(buf[i] == 0x5a);   // nothing written behind the payload
    if (n > 0 && buflen == DD_RAW_BUF)
        check_answer((const char *)buf);   // as the probe goes on with it
}

// The line fgets (128 bytes) reads from `at` as a text (up to a NUL), without blanks, tabs,
// CR and LF around, cut to 15 characters, into `out`; returns where the line ends.
size_t field(const uint8_t *d, size_t size, size_t at, char *out)
{
    size_t end = at;
    while (end < size && end - at < 127 && (end == at || d[end - 1] != '\n'))
        end++;
    size_t stop = at + strnlen((const char *)d + at, end - at);
    while (at < stop && strchr(" \t\r\n", d[at]))
        at++;
    while (stop > at && strchr(" \t\r\n", d[stop - 1]))
        stop--;
    memcpy(out, d + at, stop - at < 15 ? stop - at : 15);
    return end;
}

void gw_file(const uint8_t *d, size_t size, int sel)
{
    unlink(GW_IP_FILE);
    FILE *fp = (sel & 4) ? nullptr : fopen(GW_IP_FILE, "w");
    CHECK((sel & 4) || (fp && fwrite(d, 1, size, fp) == size && fclose(fp) == 0));
    char got[2][16] = {"ZZZZZZZZZZZZZZZ", "ZZZZZZZZZZZZZZZ"};
    char want[2][16] = {};
    // Two lines: the gateway, then the box's own address, each zero-padded; else both empty.
    const size_t first = field(d, size, 0, want[0]);
    field(d, size, first, want[1]);
    const bool two = !(sel & 4) && first < size;
    CHECK(get_gw_ip(got[0], got[1]) == (two ? 0 : -1));
    CHECK(memcmp(got, two ? want[0] : kZero, sizeof(got)) == 0);
}

void (*const kReader[3])(const uint8_t *, size_t, int) = {datagram, frame, gw_file};

}   // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const char *only = getenv("FUZZ_LAN_ONLY");
    const int sel = size ? data[0] : 3;
    // A datagram of up to 2048 bytes, a frame or a file of up to 4096.
    if ((sel & 3) == 3 || (only && (sel & 3) != atoi(only)) ||
        size - 1 > ((sel & 3) ? 2 : 1) * (size_t)DD_RAW_BUF)
        return 0;
    log_mode = LOG_MODE_STDERR;
    kReader[sel & 3](data + 1, size - 1, sel);
    return 0;
}
