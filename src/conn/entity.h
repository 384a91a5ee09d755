// Connection records: the fixed pool, their states and their release.
#pragma once
#include <pthread.h>
#include <stdint.h>
#include <openssl/ssl.h>

#include "platform/wificonf.h"

enum ent_state : int32_t {
    ST_NONE = 0,
    ST_STOP = 1,
    ST_TCP_DONE = 2,
    ST_SSL_DONE = 3,
    ST_AUTH_SENT = 4,
    ST_AUTH_SENT_2 = 5,
    ST_RUNNING = 6,
};

enum { ENT_POOL_SIZE = 8 };

struct entity {
    char name[64];
    char id[16];
    char pass[128];
    int32_t fd;
    int32_t slot;
    pthread_t thread;
    SSL *ssl;
    int32_t state;
    uint32_t start_ts;
    char mac2[19];
    char mac5[19];
    char macaddr[19];
    WiFiConfig wifi_conf;
};

extern entity ent_pool[ENT_POOL_SIZE];
extern entity *main_ent;
extern pthread_mutex_t lock;
extern int32_t g_srving_cnt;
extern int32_t current;
extern const char *ENT_STATUS_STR[32];

void change_state(entity *ent, int32_t state);
entity *new_entity(const char *name, int32_t fd, int32_t is_main);
void free_entity_lock(entity *ent, int32_t take_lock);
void free_entity(entity *ent);
void entity_disconnect(entity *ent);
