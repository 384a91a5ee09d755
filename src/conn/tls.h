// The process-wide TLS context, the server handshake and bounded record I/O.
#pragma once
#include <stdint.h>
#include <openssl/ssl.h>

#include "conn/entity.h"

enum { ENT_IO_MAX = 2048, SSL_ACCEPT_TIMEOUT = 30 };

extern SSL_CTX *g_ssl_ctx;
extern const char *certfile;   // "/tmp/mq/cc/veltrasso_ct"
extern const char *keyfile;    // "/tmp/mq/cc/veltrasso_ky"
extern const char *cafile;     // "/usr/share/veltrasso/cc/mq_a1"

int32_t ssl_init(void);
void ssl_uninit(void);
int32_t ssl_accept(entity *ent);
int32_t entity_read_write(entity *ent, int32_t is_read, uint8_t *buf, uint32_t len);
int32_t entity_read(entity *ent, uint8_t *buf, uint32_t len);
int32_t entity_write(entity *ent, const uint8_t *buf, uint32_t len);
