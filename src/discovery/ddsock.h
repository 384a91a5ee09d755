// Discovery sockets: UDP sender/receiver and the filtered raw socket.
#pragma once
#include <stdint.h>

#include "conn/sockopt.h"

enum { DD_PORT = MESH_PORT, DD_RAW_BUF = 2048, DD_MIN_FRAME = 34 };
#define DD_BROADCAST_IP "255.255.255.255"

int set_fd_timeout(int fd, int seconds, int milliseconds);
int dd_create_rawfd(const char *ifname);
int dd_create_sockfd(const char *local_ip, int port, int is_sender);
int dd_send_msg(int fd, const char *dest_ip, int port, const void *buf, int len);
// Parses one Ethernet/IPv4/UDP frame held in `frame` (`flen` bytes); same
// results as dd_recv_raw_msg. Split out so the parser can be fed directly.
int dd_parse_raw_frame(const uint8_t *frame, int flen, void *buf, int buflen);
int dd_recv_raw_msg(int fd, void *buf, int buflen);
int dd_recv_msg(int fd, char *from_ip, int *from_port, void *buf, int buflen);
