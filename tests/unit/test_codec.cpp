// Base64's buffer contract and the HMAC password of each role.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <string>

#include "util/codec.h"
#include "util/log.h"

TEST(Codec, Base64BufferContract)
{
    uint8_t dst[16];
    size_t olen = 0;
    ASSERT_EQ(base64_encode(dst, 9, &olen, (const uint8_t *)"\xff\xfe\x00\x80", 4), 0);
    EXPECT_STREQ((char *)dst, "//4AgA==");
    EXPECT_EQ(olen, 8u);
    // Exactly 4n bytes leave no room for the terminator: -42 and the size needed.
    memset(dst, '#', sizeof(dst));
    EXPECT_EQ(base64_encode(dst, 8, &olen, (const uint8_t *)"abcd", 4), -42);
    EXPECT_EQ(olen, 9u);
    EXPECT_EQ(base64_encode(dst, sizeof(dst), &olen, (const uint8_t *)"", 0), 0);
    EXPECT_EQ(olen, 0u);
    EXPECT_EQ(dst[0], '#');
}

// Each role signs with its own key: the shared key with 'x' (CAP) or 'q' (RE) first.
TEST(Codec, HmacPasswordMatchesOpensslPerRole)
{
    log_level = 0;
    const char *id = "0a1b2c3d4e5f60";
    for (int role : {1, 0, 7}) {
        std::string key = g_shared_key, want;
        key[0] = role ? 'x' : 'q';
        std::string cmd = std::string("printf %s '") + id + "' | openssl dgst -sha256 -hmac '" +
                          key + "' -binary | base64";
        FILE *p = popen(cmd.c_str(), "r");
        for (int c; (c = fgetc(p)) != EOF && c != '\n';)
            want += (char)c;
        pclose(p);
        char out[128];
        int32_t len = 0;
        ASSERT_EQ(get_hmac_base64(role, id, 3, out, &len), 0);
        EXPECT_EQ(std::string(out), want) << role;
        EXPECT_EQ(len, 44);
    }
    char out[128];
    int32_t len = 0;
    EXPECT_EQ(get_hmac_base64(1, nullptr, 0, out, &len), -1);
    log_level = 7;
}
