// Socket descriptor options shared by the TCP and discovery sockets.
#pragma once
#include <stdint.h>

void dd_destory_sockfd(int32_t *fd);
void set_fd_flag(int32_t fd, uint32_t flags);
void set_fd_nonblocking(int32_t fd);
int32_t set_fd_keepalive(int32_t fd);   // 3 s idle, 1 s interval, 3 probes
