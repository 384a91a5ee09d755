// Discovery responder (CAP) and probe (RE).
#pragma once
#include <stdint.h>

#define DD_RE_MAGIC  "KORVANE_RE_DDv1.0"    // 17 characters + NUL are sent
#define DD_CAP_MAGIC "KORVANE_CAP_DDv1.0"   // 18 characters, then the address

int dd_srv_probe(const char *ifname);
// One datagram at the responder: `buf` holds it NUL-terminated in `size`
// bytes and is rewritten with the answer. Returns the answer's length to
// send, or -1 to drop the datagram.
int dd_srv_handle(char *buf, int size, const char *local_ip);
// One received payload at the probe (`buf` of DD_RAW_BUF bytes): 0 when it
// is a CAP's answer, its address then copied to `cap_ip` (16 bytes); else -1.
int dd_clt_match(const char *buf, char *cap_ip);
void *dd_srv_loop(void *ifname);
int dd_clt_probe(const char *ifname, char *cap_ip);
// Closes what a probe that found a CAP kept open (its raw socket).
void dd_clt_probe_end(void);
// Set by the responder when the CAP's address changed: the server restarts.
extern int32_t ip_changed;
