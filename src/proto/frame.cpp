// The message frame carried over TLS: 44-byte header, then the body.
#include "proto/frame.h"

#include <arpa/inet.h>
#include <string.h>

#include "conn/tls.h"
#include "proto/auth.h"
#include "proto/sync.h"
#include "util/log.h"
#include "util/proc.h"

void msg_put_text(char *dst, const char *src, size_t max)
{
    memcpy(dst, src, strnlen(src, max));
}

int32_t send_reply(entity *ent, uint16_t type, uint8_t code, const char *text)
{
    msg_reply reply;
    memset(&reply, 0, sizeof(reply));
    reply.code = (int8_t)code;
    if (text)
        msg_put_text(reply.text, text, sizeof(reply.text));
    return send_message(ent, type, (const uint8_t *)&reply, (int32_t)sizeof(reply));
}

int32_t send_message(entity *ent, uint16_t type, const uint8_t *body, int32_t body_len)
{
    if (!body || body_len < 0)
        return -1;
    if (body_len > MSG_BODY_MAX) {
        LOG(3, "[" ENT_FMT "], send_message with too large size: %d.\n", ent ? ent->name : "",
            body_len);
        return -1;
    }

    uint8_t buf[MSG_BUF_SIZE];
    memset(buf, 0, sizeof(buf));
    msg_hdr hdr;
    memset(&hdr, 0, sizeof(hdr));
    hdr.version = htons(MSG_VERSION);
    hdr.body_len = htons((uint16_t)body_len);
    hdr.type = htons(type);
    // Only the RE announces its radios; a CAP's frames carry zero MACs.
    if (g_is_server == 0 && ent) {
        msg_put_text(hdr.mac2, ent->mac2, sizeof(ent->mac2));
        msg_put_text(hdr.mac5, ent->mac5, sizeof(ent->mac5));
    }
    memcpy(buf, &hdr, sizeof(hdr));
    memcpy(buf + MSG_HDR_SIZE, body, (size_t)body_len);

    const char *name = ent ? ent->name : "";
    LOG(3, "[-] [" ENT_FMT "] send msg, type: [%d], body len: %d.\n", name, type, body_len);
    int32_t ret = entity_write(ent, buf, (uint32_t)(MSG_HDR_SIZE + body_len));
    // A write that hit end of stream has released the record: its name then
    // reads as empty, as `name` points into it.
    if (ret > 0) {
        LOG(3, "[" ENT_FMT "] sent msg, type: [%d], body len: %d, DONE. \n", name, type, body_len);
        return ret;
    }
    LOG(3, "Err: send message to [" ENT_FMT "] failed, code: %d. disconnecting.\n", name, ret);
    return -1;
}

// Reads one frame's header and body into `body` (MSG_BUF_SIZE bytes) and
// gives its type; 0, or -1 after logging why.
static int32_t recv_frame(entity *ent, uint8_t *body, uint16_t *type)
{
    int32_t ret = entity_read(ent, body, MSG_HDR_SIZE);
    if (ret != MSG_HDR_SIZE) {
        LOG(3, "error read return: %d\n", ret);
        return -1;
    }
    msg_hdr hdr;
    memcpy(&hdr, body, sizeof(hdr));
    uint16_t version = ntohs(hdr.version);
    if (version != MSG_VERSION) {
        LOG(3, "msg version not match: %x\n", version);
        return -1;
    }
    uint16_t body_len = ntohs(hdr.body_len);
    *type = ntohs(hdr.type);

    // The CAP learns the RE's radio MACs from the first frame that carries them.
    if (g_is_server) {
        if (ent->mac2[0] == 0 && hdr.mac2[0] != 0)
            msg_put_text(ent->mac2, hdr.mac2, sizeof(hdr.mac2));
        if (ent->mac5[0] == 0 && hdr.mac5[0] != 0)
            msg_put_text(ent->mac5, hdr.mac5, sizeof(hdr.mac5));
    }

    // Same buffer as the header: a short body leaves header bytes behind it.
    ret = entity_read(ent, body, body_len);
    if (ret != body_len) {
        LOG(3, "error read return: %d\n", ret);
        return -1;
    }
    LOG(3, "[+] [" ENT_FMT "] recv msg, type: %d, body len: %d \n", ent->name, *type, body_len);
    return 0;
}

int32_t recv_message(entity *ent)
{
    uint8_t body[MSG_BUF_SIZE];
    memset(body, 0, sizeof(body));
    if (!ent)
        return -1;

    uint16_t type = 0;
    int32_t ret;
    if (recv_frame(ent, body, &type) != 0)
        goto read_error;
    switch (type) {
    case MSG_AUTH_REPLY:
        ret = process_auth_reply(ent, body);
        break;
    case MSG_AUTH_REQ:
        ret = process_auth_req(ent, body);
        break;
    case MSG_SYNC_REQ:
        ret = g_is_server ? -1 : process_sync_req(ent, body);
        break;
    case MSG_SYNC_REPLY:
        ret = process_sync_reply(ent, body);
        break;
    default:
        LOG(3, "[" ENT_FMT "] not supported msg-type: %d .\n", ent->name, type);
        goto read_error;
    }
    if (ret == 0 || ret == SYNC_ACCEPTED)
        return ret;
    LOG(3, "[" ENT_FMT "] process error.\n", ent->name);
    free_entity(ent);
    return -1;

read_error:
    LOG(3, "[" ENT_FMT "] read error.\n", ent->name);
    free_entity(ent);
    return -1;
}
