// Discovery responder (CAP) and probe (RE), and interface address queries.
#pragma once

#define DD_RE_MAGIC "KORVANE_RE_DDv1.0"    // 17 characters + NUL are sent
#define DD_CAP_MAGIC "KORVANE_CAP_DDv1.0"  // 18 characters, then the address

int dd_srv_probe(const char *ifname);
void *dd_srv_loop(void *ifname);
int dd_clt_probe(const char *ifname, char *cap_ip);
int get_iface_ip(const char *ifname, char *out, int len);
int get_iface_mac(const char *ifname, char *out, int len);
