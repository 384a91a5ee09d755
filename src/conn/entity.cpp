// Connection records: the fixed pool, their states and their release.
#include "conn/entity.h"

#include <string.h>
#include <unistd.h>

#include "conn/tls.h"
#include "util/codec.h"
#include "util/log.h"
#include "util/proc.h"
#include "util/sig.h"

entity ent_pool[ENT_POOL_SIZE];
entity *main_ent;
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
int32_t g_srving_cnt;
int32_t current;

const char *ENT_STATUS_STR[32] = {
    "ST_NONE",      "ST_STOP",        "ST_TCP_DONE", "ST_SSL_DONE",
    "ST_AUTH_SENT", "ST_AUTH_SENT_2", "ST_RUNNING",
};

void change_state(entity *ent, int32_t state)
{
    if (!ent)
        return;
    LOG(3, "[" ENT_FMT "]: %s -> %s \n", ent->name, ENT_STATUS_STR[ent->state],
        ENT_STATUS_STR[state]);
    ent->state = state;
}

// Who may release a peer record. A record handed to a peer thread belongs to
// that thread until it ends; its serving share (its count in g_srving_cnt)
// may be given back earlier, once, by whoever holds the record's generation.
// Guarded by `lock`.
struct slot_info {
    uint32_t gen;     // bumped for every record created in the slot
    int8_t counted;   // the record's share of g_srving_cnt is still held
    int8_t handed;    // a peer thread owns the record
};
static slot_info slots[ENT_POOL_SIZE];
static int32_t live_threads;
// The record (slot and generation) that this peer thread owns.
static __thread int32_t own_slot = -1;
static __thread uint32_t own_gen;

static int32_t slot_of(const entity *ent)
{
    return (int32_t)(ent - ent_pool);
}

static bool is_peer_record(const entity *ent)
{
    return g_is_server && ent != main_ent && slot_of(ent) > 0 && slot_of(ent) < ENT_POOL_SIZE;
}

uint32_t ent_gen(const entity *ent)
{
    pthread_mutex_lock(&lock);
    uint32_t gen = slots[slot_of(ent)].gen;
    pthread_mutex_unlock(&lock);
    return gen;
}

uint32_t ent_gen_locked(int32_t slot)
{
    return slot >= 0 && slot < ENT_POOL_SIZE ? slots[slot].gen : 0;
}

int32_t ent_release_share_locked(int32_t slot, uint32_t gen)
{
    if (slot < 1 || slot >= ENT_POOL_SIZE || slots[slot].gen != gen || !slots[slot].counted)
        return 0;
    slots[slot].counted = 0;
    if (g_srving_cnt > 0)
        g_srving_cnt--;
    return 1;
}

int32_t ent_release_share(int32_t slot, uint32_t gen)
{
    pthread_mutex_lock(&lock);
    int32_t done = ent_release_share_locked(slot, gen);
    pthread_mutex_unlock(&lock);
    return done;
}

int32_t ent_share_held_locked(int32_t slot)
{
    return slot > 0 && slot < ENT_POOL_SIZE && slots[slot].counted;
}

int32_t ent_handed_locked(int32_t slot)
{
    return slot > 0 && slot < ENT_POOL_SIZE && slots[slot].handed;
}

uint32_t ent_hand_over(entity *ent)
{
    pthread_mutex_lock(&lock);
    slot_info *si = &slots[slot_of(ent)];
    si->handed = 1;
    live_threads++;
    uint32_t gen = si->gen;
    pthread_mutex_unlock(&lock);
    return gen;
}

void ent_hand_back(entity *ent)
{
    pthread_mutex_lock(&lock);
    slots[slot_of(ent)].handed = 0;
    live_threads--;
    pthread_mutex_unlock(&lock);
}

void ent_adopt(entity *ent, uint32_t gen)
{
    own_slot = slot_of(ent);
    own_gen = gen;
    pthread_mutex_lock(&lock);
    ent->thread = pthread_self();
    pthread_mutex_unlock(&lock);
}

void ent_thread_done(void)
{
    pthread_mutex_lock(&lock);
    if (own_slot > 0 && slots[own_slot].gen == own_gen)
        slots[own_slot].handed = 0;
    live_threads--;
    pthread_mutex_unlock(&lock);
    own_slot = -1;
}

int32_t ent_live_threads(void)
{
    pthread_mutex_lock(&lock);
    int32_t n = live_threads;
    pthread_mutex_unlock(&lock);
    return n;
}

entity *new_entity(const char *name, int32_t fd, int32_t is_main)
{
    if (fd < 0) {
        LOG(3, "[%s] fd not valid for new_entity.\n", name);
        return nullptr;
    }

    int32_t slot = 0;
    if (is_main) {
        // The RE stamps nothing (it never samples the uptime): there the
        // connection of an attempt that ended early is what marks it in use.
        if (main_ent && (main_ent->start_ts != 0 || (!g_is_server && main_ent->ssl))) {
            LOG(3, "[%s] free old main entity [%s] before using it.\n", name, main_ent->name);
            free_entity(main_ent);
        }
        ent_pool[0].slot = 0;
    } else {
        pthread_mutex_lock(&lock);
        // A slot is free when it holds no session and no thread still owns it.
        for (slot = 1; slot < ENT_POOL_SIZE; slot++)
            if (!ent_pool[slot].ssl && !slots[slot].handed)
                break;
        if (slot == ENT_POOL_SIZE) {
            // No share taken: a refusal must not count as a peer in service.
            LOG(3, "no free slot. ignore connection.\n");
            pthread_mutex_unlock(&lock);
            return nullptr;
        }
        g_srving_cnt++;
        slots[slot].gen++;
        slots[slot].counted = 1;
        slots[slot].handed = 0;
        ent_pool[slot].slot = slot;
        pthread_mutex_unlock(&lock);
    }

    entity *ent = &ent_pool[slot];
    // Bounded copy: a 64-byte label is kept unterminated.
    strncpy(ent->name, name, sizeof(ent->name));
    LOG(3, "new entity [%s] saved at pool[%d]\n", name, slot);
    ent->fd = fd;

    const char *fail = nullptr;
    int32_t length = 0;
    ent->ssl = SSL_new(g_ssl_ctx);
    if (!ent->ssl)
        fail = "[%s] SLL new failed.\n";
    else if (SSL_set_fd(ent->ssl, fd) != 1)
        fail = "[%s] ssl bind failed.\n";
    else if (get_random_str(ent->id, 15) != 0)
        fail = "[%s] gen id failed.\n";
    else if (get_hmac_base64(g_is_server, ent->id, (int32_t)strlen(ent->id), ent->pass, &length) !=
             0)
        fail = "[%s] gen pass failed.\n";
    if (fail) {
        LOG(3, fail, name);
        // The socket stays the caller's, as on a refusal: it closes it once.
        // Closed here as well, the number could already be another thread's.
        ent->fd = -1;
        // Stamped so that the release takes it back, slot and share included.
        if (!ent->start_ts)
            ent->start_ts = 1;
        free_entity(ent);
        return nullptr;
    }

    ent->thread = 0;
    ent->state = ST_STOP;
    ent->start_ts = (uint32_t)current;
    LOG(3, "[%s] new entity done. \n", name);
    return ent;
}

static void disconnect_locked(entity *ent);

// A record that is all zero was released already: releasing it again must
// not close fd 0. On the CAP a record not in service (start_ts 0) is left
// alone. A peer record handed to a thread is released by that thread only.
static bool entity_may_release(const entity *ent)
{
    // Ownership first: the fields of a record handed to another thread are
    // that thread's to write, and are not read here.
    if (is_peer_record(ent)) {
        int32_t slot = slot_of(ent);
        if (slots[slot].handed && (own_slot != slot || own_gen != slots[slot].gen))
            return false;
    }
    if (!ent->ssl && ent->state == ST_NONE && ent->fd == 0 && ent->start_ts == 0)
        return false;
    return ent->start_ts != 0 || !g_is_server;
}

void free_entity_lock(entity *ent, int32_t take_lock)
{
    if (!ent)
        return;
    if (take_lock == 1)
        pthread_mutex_lock(&lock);
    if (!entity_may_release(ent)) {
        if (take_lock == 1)
            pthread_mutex_unlock(&lock);
        return;
    }

    if (ent == main_ent)
        LOG(3, "[" ENT_FMT "] freeing main entity\n", ent->name);
    else
        LOG(3, "freeing entity [" ENT_FMT "] at slot[%d]\n", ent->name, ent->slot);
    change_state(ent, ST_STOP);

    if (ent->ssl) {
        LOG(3, "[" ENT_FMT "] ssl shutdown and free.\n", ent->name);
        int ret = SSL_shutdown(ent->ssl);
        LOG(3, "[" ENT_FMT "] ssl_shutdown code: %d \n", ent->name, ret);
        SSL_clear(ent->ssl);
        SSL_free(ent->ssl);
        ent->ssl = nullptr;
    }
    // Only peers count as in service; the main entity never held a share.
    if (is_peer_record(ent))
        ent_release_share_locked(slot_of(ent), slots[slot_of(ent)].gen);
    disconnect_locked(ent);

    LOG(3, "[" ENT_FMT "] memset entity at pool[%d]\n", ent->name, ent->slot);
    memset(ent, 0, sizeof(*ent));

    if (take_lock == 1)
        pthread_mutex_unlock(&lock);
}

void free_entity(entity *ent)
{
    free_entity_lock(ent, 1);
}

// The sweep and the clean-up read a peer's fd under `lock` to shut it down:
// it is closed under the lock too, so that they never hit a reused number.
static void disconnect_locked(entity *ent)
{
    if (ent->ssl) {
        LOG(3, "[" ENT_FMT "] SSL_shutdown to peer.\n", ent->name);
        SSL_shutdown(ent->ssl);
    }
    if (ent->fd >= 0) {
        LOG(3, "[" ENT_FMT "] disconnect to peer, close fd %d \n", ent->name, ent->fd);
        // The RE's watchdog must not cut a number that is closed (and may be reused).
        if (ent->fd == g_sig_cut_fd)
            g_sig_cut_fd = -1;
        close(ent->fd);
    }
    ent->fd = -1;
}

void entity_disconnect(entity *ent)
{
    if (!ent)
        return;
    bool peer = is_peer_record(ent);
    if (peer)
        pthread_mutex_lock(&lock);
    disconnect_locked(ent);
    if (peer)
        pthread_mutex_unlock(&lock);
}
