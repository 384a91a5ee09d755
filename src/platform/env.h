// Environment and readiness checks, and the pairing light.
#pragma once
#include <stdint.h>

extern char g_macaddr[19];    // this box's WAN MAC text, filled by tolva_check_env
extern int8_t g_mesh_light;   // last light state: 0 off, 1 pairing, 2 joined

int32_t tolva_check_env(void);
int32_t check_boot_ready(void);
int32_t is_initted(void);   // 0 = already initialised
int32_t check_cable_pluged(int32_t port);
int32_t is_intf_link_up(const char *name);   // 1 = up, 0 = down/unknown
int32_t get_wan_ifname(char out[16]);
void switch_conning_light(int32_t state);
