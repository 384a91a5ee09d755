// Configuration exchange: the CAP's record and text, the RE's acknowledgement.
#pragma once
#include <stdint.h>

#include "conn/entity.h"

#define MESH_INITBUF_CMD "mesh_tool initbuf 2>/dev/null"
enum { SYNC_TEXT_OFFSET = (int)sizeof(WiFiConfig) };

extern char g_locate[64];   // "default"

int32_t send_mesh_conf(entity *ent);
int32_t process_sync_req(entity *ent, const uint8_t *body);
int32_t send_sync_reply(entity *ent, uint8_t code, const char *text);
int32_t process_sync_reply(entity *ent, const uint8_t *body);
void disconnect_others(entity *keep);
