// The message frame carried over TLS: 44-byte header, then the body.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "conn/entity.h"

enum : uint16_t { MSG_VERSION = 0x1001 };
enum msg_type : uint16_t {
    MSG_AUTH_REQ = 4,
    MSG_AUTH_REPLY = 5,
    MSG_SYNC_REQ = 6,
    MSG_SYNC_REPLY = 7,
};
enum { REPLY_OK = 1, REPLY_FAIL = 2 };
enum { MSG_BUF_SIZE = 2048, MSG_HDR_SIZE = 44, MSG_BODY_MAX = MSG_BUF_SIZE - MSG_HDR_SIZE };

// Header as it stands on the wire; the 16-bit numbers are big-endian.
struct msg_hdr {
    uint16_t version;
    uint16_t body_len;   // the length stands before the type
    uint16_t type;
    char mac2[19];
    char mac5[19];
};
static_assert(sizeof(msg_hdr) == MSG_HDR_SIZE, "frame header is 44 bytes");
static_assert(offsetof(msg_hdr, body_len) == 2, "body_len");
static_assert(offsetof(msg_hdr, type) == 4, "type");
static_assert(offsetof(msg_hdr, mac2) == 6, "mac2");
static_assert(offsetof(msg_hdr, mac5) == 25, "mac5");

// Body of MSG_AUTH_REPLY and MSG_SYNC_REPLY.
struct msg_reply {
    int8_t code;
    char text[31];
};
static_assert(sizeof(msg_reply) == 32, "reply body is 32 bytes");

int32_t send_message(entity *ent, uint16_t type, const uint8_t *body, int32_t body_len);
// Sends a 32-byte reply body (MSG_AUTH_REPLY or MSG_SYNC_REPLY); the result
// is that of send_message.
int32_t send_reply(entity *ent, uint16_t type, uint8_t code, const char *text);
// Bounded copy into a zeroed field; a text that fills it stays unterminated.
void msg_put_text(char *dst, const char *src, size_t max);
// Reads one frame and hands it to its handler: 0, SYNC_ACCEPTED (see
// process_sync_req), or -1 with the record released.
int32_t recv_message(entity *ent);
