// The Wi-Fi configuration record and its collection from uci.
#pragma once
#include <stddef.h>
#include <stdint.h>

// Wire record: carried raw in the configuration message. Every offset is
// part of the protocol.
struct WiFiConfig {
    uint8_t type;   // 4 once collected
    uint8_t bsd;    // 1 = band steering on
    char ssid_2g[33];
    char key_2g[65];
    char enc_2g[16];
    char ssid_5g[33];
    char key_5g[65];
    char enc_5g[16];
    char bh_ssid[33];
    char bh_key[65];
    char bh_enc[16];
    char bh_maclist_2g[320];
    char bh_maclist_5g[320];
    char locale[67];
};
static_assert(sizeof(WiFiConfig) == 1051, "WiFiConfig is a 1051-byte wire record");
static_assert(offsetof(WiFiConfig, bsd) == 1, "bsd");
static_assert(offsetof(WiFiConfig, ssid_2g) == 2, "ssid_2g");
static_assert(offsetof(WiFiConfig, key_2g) == 35, "key_2g");
static_assert(offsetof(WiFiConfig, enc_2g) == 100, "enc_2g");
static_assert(offsetof(WiFiConfig, ssid_5g) == 116, "ssid_5g");
static_assert(offsetof(WiFiConfig, key_5g) == 149, "key_5g");
static_assert(offsetof(WiFiConfig, enc_5g) == 214, "enc_5g");
static_assert(offsetof(WiFiConfig, bh_ssid) == 230, "bh_ssid");
static_assert(offsetof(WiFiConfig, bh_key) == 263, "bh_key");
static_assert(offsetof(WiFiConfig, bh_enc) == 328, "bh_enc");
static_assert(offsetof(WiFiConfig, bh_maclist_2g) == 344, "bh_maclist_2g");
static_assert(offsetof(WiFiConfig, bh_maclist_5g) == 664, "bh_maclist_5g");
static_assert(offsetof(WiFiConfig, locale) == 984, "locale");

int tolvaGetWiFiConfig(WiFiConfig *cfg);
char *tolva_get_bh_band(char *out, size_t size);
int tolva_mesh_support_dfs(void);
int tolva_set_bh_band(const char *band);
int tolva_check_mac_str(const char *mac);
int tolva_get_freq_list(int skfd, const char *ifname, int32_t *out);
