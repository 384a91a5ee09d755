// Configuration exchange: the CAP's record and text, the RE's acknowledgement.
#pragma once
#include <stdint.h>

#include "conn/entity.h"

#define MESH_INITBUF_CMD "mesh_tool initbuf 2>/dev/null"
enum { SYNC_TEXT_OFFSET = (int)sizeof(WiFiConfig) };

extern char g_locate[64];      // "default"
extern int32_t g_is_success;   // 1 once the RE applied a configuration

int32_t send_mesh_conf(entity *ent);
// The RE's side: checks and acknowledges the configuration and closes the
// connection. SYNC_ACCEPTED (recv_message passes it on) means the caller
// now applies it with sync_init_re, which releases the record; else -1.
enum { SYNC_ACCEPTED = 1 };
int32_t process_sync_req(entity *ent, const uint8_t *body);
int32_t sync_init_re(entity *ent);
int32_t send_sync_reply(entity *ent, uint8_t code, const char *text);
int32_t process_sync_reply(entity *ent, const uint8_t *body);
void disconnect_others(entity *keep);
