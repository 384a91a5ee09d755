// Mutual authentication: each side proves it holds the shared key.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "conn/entity.h"

struct auth_req {
    char id[16];
    char pass[128];
    char macaddr[19];
};
static_assert(sizeof(auth_req) == 163, "auth request body is 163 bytes");
static_assert(offsetof(auth_req, pass) == 16, "pass");
static_assert(offsetof(auth_req, macaddr) == 144, "macaddr");

int32_t check_auth(entity *ent, const char *id, int32_t id_len, const char *pass, int32_t pass_len);
int32_t send_auth_req(entity *ent);
int32_t send_auth_reply(entity *ent, uint8_t code, const char *text);
int32_t process_auth_req(entity *ent, const uint8_t *body);
int32_t process_auth_reply(entity *ent, const uint8_t *body);
