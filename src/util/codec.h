// Base64, random hexadecimal identities and the HMAC credential derivation.
#pragma once
#include <stddef.h>
#include <stdint.h>

enum { B64_ERR_BUFFER_TOO_SMALL = -42 };

// Role key characters: a non-zero role flag derives with 'x', zero with 'q'.
extern const char g_shared_key[33];

int32_t base64_encode(uint8_t *dst, size_t dlen, size_t *olen, const uint8_t *src, size_t slen);
int32_t get_random_str(char *buf, int32_t size);
// `out` must hold at least 64 bytes; `out_len` receives the text length.
int32_t get_hmac_base64(int32_t role_flag, const char *id, int32_t id_len, char *out,
                        int32_t *out_len);
