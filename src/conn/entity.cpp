// Connection records: the fixed pool, their states and their release.
#include "conn/entity.h"

#include <string.h>
#include <unistd.h>

#include "conn/tls.h"
#include "core/flow.h"
#include "util/codec.h"
#include "util/log.h"

entity ent_pool[ENT_POOL_SIZE];
entity *main_ent;
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
int32_t g_srving_cnt;
int32_t current;

const char *ENT_STATUS_STR[32] = {
    "ST_NONE", "ST_STOP", "ST_TCP_DONE", "ST_SSL_DONE", "ST_AUTH_SENT", "ST_AUTH_SENT_2", "ST_RUNNING",
};

void change_state(entity *ent, int32_t state)
{
    if (!ent)
        return;
    LOG(3, "[%.64s]: %s -> %s \n", ent->name, ENT_STATUS_STR[ent->state], ENT_STATUS_STR[state]);
    ent->state = state;
}

entity *new_entity(const char *name, int32_t fd, int32_t is_main)
{
    if (fd < 0) {
        LOG(3, "[%s] fd not valid for new_entity.\n", name);
        return nullptr;
    }

    int32_t slot = 0;
    if (is_main) {
        if (main_ent && main_ent->start_ts != 0) {
            LOG(3, "[%s] free old main entity [%s] before using it.\n", name, main_ent->name);
            free_entity(main_ent);
        }
        ent_pool[0].slot = 0;
    } else {
        pthread_mutex_lock(&lock);
        // Counted before the search: a refused peer keeps the increment.
        g_srving_cnt++;
        for (slot = 1; slot < ENT_POOL_SIZE; slot++)
            if (!ent_pool[slot].ssl)
                break;
        if (slot == ENT_POOL_SIZE) {
            LOG(3, "no free slot. ignore connection.\n");
            pthread_mutex_unlock(&lock);
            return nullptr;
        }
        ent_pool[slot].slot = slot;
        pthread_mutex_unlock(&lock);
    }

    entity *ent = &ent_pool[slot];
    // Bounded copy: a 64-byte label is kept unterminated.
    strncpy(ent->name, name, sizeof(ent->name));
    LOG(3, "new entity [%s] saved at pool[%d]\n", name, slot);
    ent->fd = fd;

    ent->ssl = SSL_new(g_ssl_ctx);
    if (!ent->ssl) {
        LOG(3, "[%s] SLL new failed.\n", name);
        free_entity(ent);
        return nullptr;
    }
    if (SSL_set_fd(ent->ssl, fd) != 1) {
        LOG(3, "[%s] ssl bind failed.\n", name);
        free_entity(ent);
        return nullptr;
    }
    if (get_random_str(ent->id, 15) != 0) {
        LOG(3, "[%s] gen id failed.\n", name);
        free_entity(ent);
        return nullptr;
    }
    int32_t length = 0;
    if (get_hmac_base64(g_is_server, ent->id, (int32_t)strlen(ent->id), ent->pass, &length) != 0) {
        LOG(3, "[%s] gen pass failed.\n", name);
        free_entity(ent);
        return nullptr;
    }

    ent->thread = 0;
    ent->state = ST_STOP;
    ent->start_ts = (uint32_t)current;
    LOG(3, "[%s] new entity done. \n", name);
    return ent;
}

// On the CAP only records in service are released; a zeroed record has
// start_ts 0, which also makes a second release harmless there. A record
// that is all zero was released already: releasing it again must not close
// fd 0.
static bool entity_is_released(const entity *ent)
{
    if (ent->start_ts == 0 && g_is_server)
        return true;
    return !ent->ssl && ent->state == ST_NONE && ent->fd == 0 && ent->start_ts == 0;
}

void free_entity_lock(entity *ent, int32_t take_lock)
{
    if (!ent || entity_is_released(ent))
        return;
    if (take_lock == 1) {
        pthread_mutex_lock(&lock);
        // Another thread may have released it while this one waited.
        if (entity_is_released(ent)) {
            pthread_mutex_unlock(&lock);
            return;
        }
    }

    if (ent == main_ent)
        LOG(3, "[%.64s] freeing main entity\n", ent->name);
    else
        LOG(3, "freeing entity [%.64s] at slot[%d]\n", ent->name, ent->slot);
    change_state(ent, ST_STOP);

    if (ent->ssl) {
        LOG(3, "[%.64s] ssl shutdown and free.\n", ent->name);
        int ret = SSL_shutdown(ent->ssl);
        LOG(3, "[%.64s] ssl_shutdown code: %d \n", ent->name, ret);
        SSL_clear(ent->ssl);
        SSL_free(ent->ssl);
        ent->ssl = nullptr;
        g_srving_cnt--;
    }
    entity_disconnect(ent);

    LOG(3, "[%.64s] memset entity at pool[%d]\n", ent->name, ent->slot);
    memset(ent, 0, sizeof(*ent));

    if (take_lock == 1)
        pthread_mutex_unlock(&lock);
}

void free_entity(entity *ent)
{
    free_entity_lock(ent, 1);
}

void entity_disconnect(entity *ent)
{
    if (!ent)
        return;
    if (ent->ssl) {
        LOG(3, "[%.64s] SSL_shutdown to peer.\n", ent->name);
        SSL_shutdown(ent->ssl);
    }
    if (ent->fd >= 0) {
        LOG(3, "[%.64s] disconnect to peer, close fd %d \n", ent->name, ent->fd);
        close(ent->fd);
    }
    ent->fd = -1;
}
