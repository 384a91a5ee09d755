// Socket descriptor options shared by the TCP and discovery sockets, the
// port both use, and the main TCP socket of either role.
#pragma once
#include <stdint.h>

// The CAP's pairing server (TCP) and discovery (UDP) share it.
enum { MESH_PORT = 19553 };

void dd_destory_sockfd(int32_t *fd);
void set_fd_flag(int32_t fd, uint32_t flags);
void set_fd_nonblocking(int32_t fd);
int32_t set_fd_keepalive(int32_t fd);   // 3 s idle, 1 s interval, 3 probes
// Every message goes out in one write: send it at once, not after the ACK of
// the previous one. 0 or -1.
int32_t set_fd_nodelay(int32_t fd);
// Makes the main entity (`main_ent`, named `name`) on a new TCP socket with
// keep-alive, no send delay and SO_REUSEADDR, bound to ip:port; with neither given it stays
// unbound (the RE). 0 or -1, the entity released.
int32_t setup_service(const char *name, const char *ifname, const char *ip, uint16_t port);
