// Turning a router into mesh controller (CAP) or satellite (RE) through the
// platform's set-up script.
#pragma once
#include "platform/wificonf.h"

#define MESH_SETUP_SH         "/usr/sbin/mesh_setup.sh"
#define BH_MACLIST_2G_FILE    "/tmp/bh_maclist_2g"
#define BH_MACLIST_5G_FILE    "/tmp/bh_maclist_5g"
#define EXTRA_WIFI_PARAM_FILE "/tmp/extra_wifi_param"

// Derived backhaul MAC: first octet o -> ((o & 0xFC) + 4n + (o & 3)) | 2.
// `out` holds 18 bytes. 0 on success, -1 when `mac` does not parse.
int tolva_derive_mac(const char *mac, int n, char *out);
int tolvaInitCap(const WiFiConfig *cfg, const char *re_mac, const char *re_mac_2g,
                 const char *re_mac_5g, int flag);
int tolvaInitRe(const WiFiConfig *cfg, const char *extra, int flag);
int tolvaCleanCap(const char *mac);
