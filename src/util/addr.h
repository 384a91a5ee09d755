// Address queries: the uplink gateway file, the Wi-Fi MAC addresses and an
// interface's IPv4 and MAC address.
#pragma once
#include <stdint.h>

#define GW_IP_FILE "/tmp/cab_plaitd_gw_ip"

// Fills both 16-byte outputs from the gateway file; -1 empties both.
int32_t get_gw_ip(char *gw, char *ip);
// band 0 = 2.4 GHz, 1 = 5 GHz, 2 = second 5 GHz radio; other values give -1.
// `out` (>= 19 bytes) must be zeroed by the caller; it is left untouched when
// the platform has no address for the band.
int32_t getWifiMac(char *out, int32_t band);
// An interface's IPv4 address or MAC address as text into `out` (`len`
// bytes, always terminated); -1 when the platform reports none.
int get_iface_ip(const char *ifname, char *out, int len);
int get_iface_mac(const char *ifname, char *out, int len);
