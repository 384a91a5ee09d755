// Configuration exchange: the CAP's record and text, the RE's acknowledgement.
#include "proto/sync.h"

#include <string.h>
#include <sys/socket.h>

#include "platform/env.h"
#include "platform/meshinit.h"
#include "proto/frame.h"
#include "util/log.h"
#include "util/proc.h"
#include "util/pstat.h"
#include "util/shell.h"

char g_locate[64] = "default";
int32_t g_is_success = 0;

enum { INITBUF_SIZE = 1024 };

// The configuration the RE accepted, kept from process_sync_req until
// sync_init_re applies it. Only the RE's main thread touches it.
static struct {
    WiFiConfig conf;
    char text[MSG_BUF_SIZE - SYNC_TEXT_OFFSET + 1];
} accepted;

int32_t send_mesh_conf(entity *ent)
{
    if (!ent)
        return -1;
    if (tolvaGetWiFiConfig(&ent->wifi_conf) != 0) {
        LOG(3, "GetWifiConfig failed, need drop connections.\n");
        return -1;
    }

    char ext[INITBUF_SIZE];
    memset(ext, 0, sizeof(ext));
    if (!getCmdResultSlow(MESH_INITBUF_CMD, ext, INITBUF_SIZE - 1) || ext[0] == 0) {
        LOG(3, "[" ENT_FMT "] mesh_ops.sh initbuf failed.\n", ent->name);
        return -1;
    }
    if (g_locate[0] != 0) {
        // At most 62 characters and the terminator.
        size_t len = strnlen(g_locate, 62);
        memcpy(ent->wifi_conf.locale, g_locate, len);
        ent->wifi_conf.locale[len] = 0;
    }
    LOG(3, "[" ENT_FMT "] send config with ext-jsonBuf: [%s]\n", ent->name, ext);

    // Record, then the text and its terminator. A text too long for one
    // frame is refused by send_message.
    size_t n = strlen(ext);
    uint8_t body[SYNC_TEXT_OFFSET + INITBUF_SIZE];
    size_t body_len = SYNC_TEXT_OFFSET + n + 1;
    memset(body, 0, body_len);
    memcpy(body, &ent->wifi_conf, sizeof(ent->wifi_conf));
    memcpy(body + SYNC_TEXT_OFFSET, ext, n);
    if (send_message(ent, MSG_SYNC_REQ, body, (int32_t)body_len) > 0)
        return 0;
    LOG(3, "[" ENT_FMT "] send_mesh_conf failed.\n", ent->name);
    return -1;
}

int32_t process_sync_req(entity *ent, const uint8_t *body)
{
    if (!ent || !body)
        return -1;
    // The text may run to the end of the receive buffer; keep a terminated copy.
    char *text = accepted.text;
    memset(text, 0, sizeof(accepted.text));
    msg_put_text(text, (const char *)body + SYNC_TEXT_OFFSET, sizeof(accepted.text) - 1);
    memcpy(&accepted.conf, body, sizeof(accepted.conf));

    if (text[0] == 0) {
        send_sync_reply(ent, REPLY_FAIL, "read jsonBuf with NULL.");
        return -1;
    }
    if (send_sync_reply(ent, REPLY_OK, "recv config sync correctly.\n") != 0) {
        LOG(3, "[" ENT_FMT "] send_sync_reply to peer failed. donot to init CAP/RE\n", ent->name);
        return -1;
    }
    // Close before the platform scripts run: they may restart the network.
    entity_disconnect(ent);
    return SYNC_ACCEPTED;
}

int32_t sync_init_re(entity *ent)
{
    const char *text = accepted.text;
    pstat_phase(PS_INITIALISING);
    switch_conning_light(2);
    LOG(3, "[" ENT_FMT "] NOTE: execute tolvaInitRE procedure ........\n", ent->name);
    LOG(3, "[" ENT_FMT "] initRE json: [%s] \n", ent->name, text);
    if (!g_dry_run) {
        if (tolvaInitRe(&accepted.conf, text, 1) != 0)
            LOG(3, "[" ENT_FMT "] init RE failed, need reset.\n", ent->name);
        // Counted as paired even when the script reported failure.
        g_is_success = 1;
    }
    pstat_phase(PS_PAIRED);
    switch_conning_light(0);
    change_state(ent, ST_STOP);
    free_entity(ent);
    return 0;
}

int32_t send_sync_reply(entity *ent, uint8_t code, const char *text)
{
    if (!ent || ent->state != ST_RUNNING)
        return -1;
    if (send_reply(ent, MSG_SYNC_REPLY, code, text) > 0)
        return 0;
    LOG(3, "[" ENT_FMT "] send_sync_reply failed.\n", ent->name);
    return -1;
}

int32_t process_sync_reply(entity *ent, const uint8_t *body)
{
    if (!ent || !body || g_is_server == 0)
        return -1;
    // Only a peer that has completed the mutual authentication may answer
    // the configuration; from any other it is a message in the wrong state.
    if (ent->state != ST_RUNNING) {
        LOG(3, "[" ENT_FMT "] get sync reply in wrong status: %d \n", ent->name, ent->state);
        return -1;
    }
    // Whatever the answer, this peer's session is over.
    entity_disconnect(ent);

    msg_reply reply;
    memcpy(&reply, body, sizeof(reply));
    char text[sizeof(reply.text) + 1];
    memset(text, 0, sizeof(text));
    memcpy(text, reply.text, sizeof(reply.text));

    if (reply.code != REPLY_OK) {
        report_status("%s=%s:%d", "mesh.re.conn.fail", "SYNC_FAILED", 1);
        pstat_fail("SYNC_FAILED");
        LOG(3, "[" ENT_FMT "] sync config rejected: [%d:%s] .\n", ent->name, reply.code, text);
    } else {
        // Terminated copies: a full 19-byte MAC field carries no terminator.
        char macaddr[sizeof(ent->macaddr) + 1], mac2[sizeof(ent->mac2) + 1],
            mac5[sizeof(ent->mac5) + 1];
        memset(macaddr, 0, sizeof(macaddr));
        memset(mac2, 0, sizeof(mac2));
        memset(mac5, 0, sizeof(mac5));
        msg_put_text(macaddr, ent->macaddr, sizeof(ent->macaddr));
        msg_put_text(mac2, ent->mac2, sizeof(ent->mac2));
        msg_put_text(mac5, ent->mac5, sizeof(ent->mac5));

        LOG(3, "[" ENT_FMT "] sync config success.\n", ent->name);
        switch_conning_light(1);
        pstat_phase(PS_INITIALISING);
        LOG(3, "[" ENT_FMT "] NOTE: execute tolvaInitCap procedure ........\n", ent->name);
        LOG(3, "[" ENT_FMT "] tolvaInitCap,macaddr: %s, 2g: %s, 5g: %s\n", ent->name, macaddr, mac2,
            mac5);
        if (!g_dry_run) {
            disconnect_others(ent);
            tolvaInitCap(&ent->wifi_conf, macaddr, mac2, mac5, 1);
        }
        pstat_phase(PS_PAIRED);
        switch_conning_light(0);
    }
    change_state(ent, ST_STOP);
    free_entity(ent);
    return 0;
}

// The other peers' records belong to their threads: their sockets are shut
// down, and each thread releases its own record. A record not handed over
// yet is still being filled by the accepting thread, unlocked: it is skipped.
void disconnect_others(entity *keep)
{
    pthread_mutex_lock(&lock);
    for (int32_t i = 1; i < ENT_POOL_SIZE; i++) {
        entity *ent = &ent_pool[i];
        if (ent == keep || !ent_handed_locked(i) || !ent->ssl)
            continue;
        LOG(3, "WARN: [" ENT_FMT "] direct drop connections: [" ENT_FMT "]\n",
            keep ? keep->name : "", ent->name);
        if (ent->fd > 0)
            shutdown(ent->fd, SHUT_RDWR);
    }
    pthread_mutex_unlock(&lock);
}
