// Base64, random hexadecimal texts and the HMAC password.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <string>

#include "util/codec.h"
#include "util/log.h"

namespace {
std::string b64(const std::string &in)
{
    uint8_t dst[128];
    size_t olen = 0;
    EXPECT_EQ(base64_encode(dst, sizeof(dst), &olen, (const uint8_t *)in.data(), in.size()), 0);
    EXPECT_EQ(strlen((char *)dst), olen);
    return std::string((char *)dst, olen);
}

std::string run(const std::string &cmd)
{
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    for (int c; p && (c = fgetc(p)) != EOF;)
        out += (char)c;
    if (p)
        pclose(p);
    while (!out.empty() && out.back() == '\n')
        out.pop_back();
    return out;
}
}  // namespace

TEST(Codec, Base64)
{
    EXPECT_EQ(b64("Man"), "TWFu");
    EXPECT_EQ(b64("Ma"), "TWE=");
    EXPECT_EQ(b64("M"), "TQ==");
    EXPECT_EQ(b64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(b64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(b64(std::string("\xff\xfe\x00\x80", 4)), "//4AgA==");

    uint8_t dst[16];
    size_t olen = 0;
    memset(dst, '#', sizeof(dst));
    // Exactly 4n bytes leave no room for the terminator.
    EXPECT_EQ(base64_encode(dst, 8, &olen, (const uint8_t *)"abcd", 4), -42);
    EXPECT_EQ(olen, 9u);
    EXPECT_EQ(dst[0], '#');
    EXPECT_EQ(base64_encode(nullptr, 0, &olen, (const uint8_t *)"abc", 3), -42);
    EXPECT_EQ(olen, 5u);
    EXPECT_EQ(base64_encode(dst, sizeof(dst), &olen, (const uint8_t *)"", 0), 0);
    EXPECT_EQ(olen, 0u);
    EXPECT_EQ(dst[0], '#');
}

TEST(Codec, RandomHexLengths)
{
    const struct { int size; size_t digits; } cases[] = {{0, 0}, {1, 0}, {2, 0}, {15, 14}, {33, 32}};
    for (const auto &c : cases) {
        char buf[40];
        memset(buf, '#', sizeof(buf));
        ASSERT_EQ(get_random_str(buf, c.size), 0);
        EXPECT_EQ(strlen(buf), c.digits) << c.size;
        EXPECT_EQ(strspn(buf, "0123456789abcdef"), c.digits);
        EXPECT_EQ(buf[c.digits + 1], '#');
    }
    char a[33], b[33];
    get_random_str(a, 33);
    get_random_str(b, 33);
    EXPECT_STRNE(a, b);
    EXPECT_EQ(get_random_str(nullptr, 33), -1);
}

TEST(Codec, HmacPasswordMatchesOpenssl)
{
    log_level = 0;
    const char *id = "0a1b2c3d4e5f60";
    for (int role : {1, 0, 7}) {
        std::string key = g_shared_key;
        key[0] = role ? 'x' : 'q';
        std::string want = run(std::string("printf %s '") + id +
                               "' | openssl dgst -sha256 -hmac '" + key + "' -binary | base64");
        ASSERT_EQ(want.size(), 44u);
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
