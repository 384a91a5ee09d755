// Base64 text, random hexadecimal identities and the HMAC-derived password.
#include "util/codec.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "util/log.h"

const char g_shared_key[33] = "5f0c2a9e71b4d3866a0e9c1f24b7d058";

static constexpr char b64_alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static_assert(sizeof(b64_alphabet) == 65, "64 symbols");

// Encodes the `rem` (1 or 2) trailing bytes with their padding.
static void b64_tail(uint8_t *d, const uint8_t *s, size_t rem)
{
    uint32_t v = (uint32_t)s[0] << 16 | (rem > 1 ? (uint32_t)s[1] << 8 : 0);
    d[0] = (uint8_t)b64_alphabet[(v >> 18) & 0x3f];
    d[1] = (uint8_t)b64_alphabet[(v >> 12) & 0x3f];
    d[2] = rem > 1 ? (uint8_t)b64_alphabet[(v >> 6) & 0x3f] : '=';
    d[3] = '=';
}

int32_t base64_encode(uint8_t *dst, size_t dlen, size_t *olen, const uint8_t *src, size_t slen)
{
    if (slen == 0) {
        *olen = 0;
        return 0;
    }
    size_t n = slen / 3 + (slen % 3 != 0);
    if (n >= 0x40000000) {
        *olen = (size_t)-1;
        return B64_ERR_BUFFER_TOO_SMALL;
    }
    size_t need = 4 * n + 1;
    if (!dst || dlen < need) {
        *olen = need;
        return B64_ERR_BUFFER_TOO_SMALL;
    }
    uint8_t *d = dst;
    size_t i = 0;
    for (; i + 3 <= slen; i += 3, d += 4) {
        uint32_t v = (uint32_t)src[i] << 16 | (uint32_t)src[i + 1] << 8 | src[i + 2];
        d[0] = (uint8_t)b64_alphabet[(v >> 18) & 0x3f];
        d[1] = (uint8_t)b64_alphabet[(v >> 12) & 0x3f];
        d[2] = (uint8_t)b64_alphabet[(v >> 6) & 0x3f];
        d[3] = (uint8_t)b64_alphabet[v & 0x3f];
    }
    if (i < slen) {
        b64_tail(d, src + i, slen - i);
        d += 4;
    }
    *d = '\0';
    *olen = (size_t)(d - dst);
    return 0;
}

int32_t get_random_str(char *buf, int32_t size)
{
    if (!buf)
        return -1;
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        perror("Open urandom");
        return -1;
    }
    int32_t count = (size - 1) / 2;
    if (count < 0)
        count = 0;         // negative sizes: nothing but the terminator
    unsigned char b = 0;   // an end-of-file read keeps the previous byte
    for (int32_t i = 0; i < count; i++) {
        if (read(fd, &b, 1) < 0) {
            perror("Read urandom");
            close(fd);
            return -1;
        }
        snprintf(buf + 2 * i, 3, "%02x", b);
    }
    buf[2 * count] = '\0';
    close(fd);
    return 0;
}

// HMAC-SHA256 of `id` under `key`; 0 and the digest length on success.
static int32_t hmac_sha256(const char *key, const char *id, unsigned char *md, unsigned int *md_len)
{
    HMAC_CTX *ctx = HMAC_CTX_new();
    if (!ctx)
        return -1;
    int ok = HMAC_Init_ex(ctx, key, (int)strlen(key), EVP_sha256(), nullptr) &&
             HMAC_Update(ctx, (const unsigned char *)id, strlen(id)) && HMAC_Final(ctx, md, md_len);
    HMAC_CTX_free(ctx);
    return ok ? 0 : -1;
}

int32_t get_hmac_base64(int32_t role_flag, const char *id, int32_t id_len, char *out,
                        int32_t *out_len)
{
    (void)id_len;   // the identity is a text; its length is taken from it
    unsigned char md[64];
    unsigned int md_len = 0;
    char key[sizeof(g_shared_key)];
    memset(md, 0, sizeof(md));
    memcpy(key, g_shared_key, sizeof(key));
    if (!id || !out)
        return -1;
    key[0] = role_flag ? 'x' : 'q';
    size_t olen = 0;
    if (hmac_sha256(key, id, md, &md_len) < 0 ||
        base64_encode((uint8_t *)out, 128, &olen, md, md_len) != 0) {
        LOG(3, "Err: gen pass base64 failed.\n");
        return -1;
    }
    if (out_len)
        *out_len = (int32_t)olen;
    LOG(3, "INF: id: %s, pass: %s , key: %s\n", id, out, key);
    return 0;
}
