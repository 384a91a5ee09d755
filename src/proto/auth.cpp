// Mutual authentication: each side proves it holds the shared key.
#include "proto/auth.h"

#include <string.h>

#include "platform/env.h"
#include "proto/frame.h"
#include "proto/sync.h"
#include "util/addr.h"
#include "util/codec.h"
#include "util/log.h"
#include "util/proc.h"
#include "util/pstat.h"

// A request body with room for terminators behind its unterminated fields.
struct auth_req_text {
    char id[sizeof(auth_req::id) + 1];
    char pass[sizeof(auth_req::pass) + 1];
    char macaddr[sizeof(auth_req::macaddr) + 1];
};

static void read_auth_req(const uint8_t *body, auth_req_text *out)
{
    auth_req req;
    memcpy(&req, body, sizeof(req));
    memset(out, 0, sizeof(*out));
    memcpy(out->id, req.id, sizeof(req.id));
    memcpy(out->pass, req.pass, sizeof(req.pass));
    memcpy(out->macaddr, req.macaddr, sizeof(req.macaddr));
}

int32_t check_auth(entity *ent, const char *id, int32_t id_len, const char *pass, int32_t pass_len)
{
    if (!id || id_len < 1 || !pass || pass_len < 1)
        return -1;

    // The peer derived its password with the other role's key.
    char expect[64];
    memset(expect, 0, sizeof(expect));
    int32_t expect_len = 0;
    if (get_hmac_base64(1 - g_is_server, id, id_len, expect, &expect_len) != 0)
        return -1;
    if (expect_len == pass_len && memcmp(expect, pass, (size_t)expect_len) == 0)
        return 0;
    change_state(ent, ST_STOP);
    return -1;
}

int32_t send_auth_req(entity *ent)
{
    if (!ent || ent->id[0] == 0 || ent->pass[0] == 0)
        return -1;
    if (ent->state != ST_SSL_DONE) {
        LOG(3, "ssl not established. not allowed to send auth.\n");
        return -1;
    }

    auth_req req;
    memset(&req, 0, sizeof(req));
    msg_put_text(req.id, ent->id, sizeof(req.id));
    msg_put_text(req.pass, ent->pass, sizeof(req.pass));
    if (g_is_server == 0) {
        if (ent->mac2[0] == 0)
            getWifiMac(ent->mac2, 0);
        if (ent->mac5[0] == 0)
            getWifiMac(ent->mac5, 1);
        msg_put_text(req.macaddr, g_macaddr, sizeof(req.macaddr));
    }

    LOG(3, "send auth_req, id:%.16s, pass:%.128s, MAC2: %.19s, MAC5:%.19s\n", ent->id, ent->pass,
        ent->mac2, ent->mac5);
    if (send_message(ent, MSG_AUTH_REQ, (const uint8_t *)&req, (int32_t)sizeof(req)) > 0)
        return 0;
    LOG(3, "[" ENT_FMT "] send_auth_req failed.\n", ent->name);
    return -1;
}

int32_t send_auth_reply(entity *ent, uint8_t code, const char *text)
{
    if (!ent)
        return -1;
    if (send_reply(ent, MSG_AUTH_REPLY, code, text) > 0)
        return 0;
    LOG(3, "[" ENT_FMT "] send_auth_reply failed.\n", ent->name);
    return -1;
}

int32_t process_auth_req(entity *ent, const uint8_t *body)
{
    if (!ent || !body)
        return -1;

    auth_req_text req;
    read_auth_req(body, &req);
    const char *reason;

    if (g_is_server) {
        if (ent->state != ST_SSL_DONE) {
            reason = "in wrong status.";
            goto fail;
        }
        LOG(3, "INF: get auth %s/%s from [" ENT_FMT "]\n", req.id, req.pass, ent->name);
        if (check_auth(ent, req.id, (int32_t)strlen(req.id), req.pass, (int32_t)strlen(req.pass)) !=
            0) {
            reason = "account/pass invalid.";
            goto fail;
        }
        // The RE's own MAC is taken from its first accepted request only.
        if (ent->macaddr[0] == 0 && req.macaddr[0] != 0)
            msg_put_text(ent->macaddr, req.macaddr, sizeof(ent->macaddr));
        send_auth_reply(ent, REPLY_OK, nullptr);
        // Still ST_SSL_DONE here, as send_auth_req requires.
        send_auth_req(ent);
        change_state(ent, ST_AUTH_SENT);
        return 0;
    }

    if (ent->state != ST_AUTH_SENT_2) {
        reason = "in wrong status.";
        goto fail;
    }
    if (check_auth(ent, req.id, (int32_t)strlen(req.id), req.pass, (int32_t)strlen(req.pass)) !=
        0) {
        reason = "account/pass invalid.";
        goto fail;
    }
    send_auth_reply(ent, REPLY_OK, nullptr);
    change_state(ent, ST_RUNNING);
    pstat_phase(PS_CONFIG);
    return 0;

fail:
    send_auth_reply(ent, REPLY_FAIL, reason);
    report_status("%s=%s:%d", "mesh.re.conn.fail", "AUTH_FAILED", 1);
    pstat_fail("AUTH_FAILED");
    if (g_is_server)
        pstat_refused();
    LOG(3, ENT_FMT " auth failed. disconnect.\n", ent->name);
    free_entity(ent);
    return -1;
}

int32_t process_auth_reply(entity *ent, const uint8_t *body)
{
    if (!ent || !body)
        return -1;

    msg_reply reply;
    memcpy(&reply, body, sizeof(reply));
    char text[sizeof(reply.text) + 1];
    memcpy(text, reply.text, sizeof(reply.text));
    text[sizeof(reply.text)] = 0;

    if (ent->state != ST_AUTH_SENT) {
        LOG(3, "[" ENT_FMT "] get auth reply in wrong status: %d \n", ent->name, ent->state);
        goto fail;
    }
    if (reply.code != REPLY_OK) {
        LOG(3, "[" ENT_FMT "] get wrong reply with [%d:%s]\n", ent->name, reply.code, text);
        goto fail;
    }

    if (g_is_server == 0) {
        // Our credentials were taken; the CAP's own request comes next.
        change_state(ent, ST_AUTH_SENT_2);
        return 0;
    }
    change_state(ent, ST_RUNNING);
    pstat_macs(ent->macaddr, ent->mac2, ent->mac5);
    pstat_phase(PS_CONFIG);
    if (send_mesh_conf(ent) == 0)
        return 0;
    report_status("%s=%s:%d", "mesh.re.conn.fail", "SYNC_FAILED", 1);
    pstat_fail("SYNC_FAILED");
    LOG(3, ENT_FMT " send sync conf falied. disconnect.\n", ent->name);
    free_entity(ent);
    return -1;

fail:
    report_status("%s=%s:%d", "mesh.re.conn.fail", "AUTH_FAILED", 1);
    pstat_fail("AUTH_FAILED");
    LOG(3, ENT_FMT " auth reply failed. disconnect.\n", ent->name);
    free_entity(ent);
    return -1;
}
