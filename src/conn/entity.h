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

// How log texts print an entity's name: at most the 64 bytes of the field.
#define ENT_FMT "%.64s"

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

// Peer ownership (CAP). A peer's share of g_srving_cnt is released once per
// record: by its generation, so a stale second release is a no-op. The
// _locked forms expect `lock` held.
uint32_t ent_gen(const entity *ent);
uint32_t ent_gen_locked(int32_t slot);
int32_t ent_release_share(int32_t slot, uint32_t gen);   // 1 = released now
int32_t ent_release_share_locked(int32_t slot, uint32_t gen);
int32_t ent_share_held_locked(int32_t slot);
// A peer thread owns the slot's record: its fields were filled before it was
// handed over (so under `lock` they may be read), and it is the thread's.
int32_t ent_handed_locked(int32_t slot);
// The accepting thread hands a record to a new peer thread (before it is
// created; returns the generation) or takes it back when creation failed.
uint32_t ent_hand_over(entity *ent);
void ent_hand_back(entity *ent);
// The peer thread takes ownership at its start and gives the slot up at its end.
void ent_adopt(entity *ent, uint32_t gen);
void ent_thread_done(void);
int32_t ent_live_threads(void);   // peer threads handed a record and not yet done
void entity_disconnect(entity *ent);
