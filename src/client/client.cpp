#include "client/client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "conn/sockopt.h"
#include "platform/env.h"
#include "platform/meshlock.h"
#include "proto/auth.h"
#include "proto/frame.h"
#include "proto/sync.h"
#include "util/addr.h"
#include "util/log.h"
#include "util/proc.h"
#include "util/pstat.h"
#include "util/sig.h"

int32_t g_timer_flag = 0;

int32_t start_mesh_client(const char *ifname, const char *local_ip, const char *cap_ip)
{
    char mac[19];

    g_is_success = 0;
    if (!cap_ip || !cap_ip[0]) {
        LOG(3, "connect target is invalid.\n");
        return -1;
    }
    if (!ifname || !ifname[0])
        ifname = "eth4";

    // The WAN MAC may have changed since start-up (the platform can swap it);
    // the CAP learns it from the authentication request.
    memset(mac, 0, sizeof(mac));
    if (get_iface_mac(ifname, mac, sizeof(mac)) == 0 && strncmp(mac, g_macaddr, 18) != 0) {
        LOG(3, "NOTE: replace wan ip with `ifconfig wan` instead of `macinfo wan`\n");
        memset(g_macaddr, 0, sizeof(g_macaddr));
        memcpy(g_macaddr, mac, strnlen(mac, sizeof(g_macaddr) - 1));
    }

    if (setup_service("RE", ifname, local_ip, 0) != 0) {
        LOG(3, "setup entity failed.\n");
        return -1;
    }
    pstat_begin(PS_CONNECTING, cap_ip);
    client_open_timer();
    if (client_connect(main_ent, cap_ip) != 0)
        return -1;
    client_loop();
    client_close_timer();
    pstat_fail("CONNECT_FAILED");   // unless it ended paired or failed already
    return g_is_success ? 0 : -1;
}

int32_t client_connect(entity *ent, const char *cap_ip)
{
    struct sockaddr_in sa;
    int rc;

    if (!ent || ent->fd < 0 || !ent->ssl) {
        LOG(3, "ent or ent->fd or ent->ssl invalid.\n");
        return -1;
    }
    if (!cap_ip || !cap_ip[0]) {
        LOG(3, "[" ENT_FMT "] target srv is invalid.\n", ent->name);
        return -1;
    }

    memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    sa.sin_port = htons(MESH_PORT);
    if (inet_aton(cap_ip, &sa.sin_addr) == 0) {
        LOG(3, "[" ENT_FMT "] inet_aton(%s) failed, %s.\n", ent->name, cap_ip, strerror(errno));
        goto fail;
    }
    rc = connect(ent->fd, (struct sockaddr *)&sa, sizeof(sa));
    sig_safe_point();   // a stop or the watchdog may have cut it short
    if (rc != 0) {
        LOG(3, "[" ENT_FMT "] connect(%s) failed, %s.\n", ent->name, cap_ip, strerror(errno));
        goto fail;
    }
    change_state(ent, ST_TCP_DONE);
    pstat_phase(PS_TLS);

    rc = SSL_connect(ent->ssl);
    sig_safe_point();
    if (rc != 1) {
        LOG(3, "[" ENT_FMT "] ssl connect failed: %d.\n", ent->name, SSL_get_error(ent->ssl, rc));
        goto fail;
    }
    change_state(ent, ST_SSL_DONE);
    pstat_phase(PS_AUTH);

    if (send_auth_req(ent) == 0) {
        change_state(ent, ST_AUTH_SENT);
        return 0;
    }

fail:
    pstat_fail("CONNECT_FAILED");
    client_close_timer();
    free_entity(ent);
    return -1;
}

void client_loop(void)
{
    char name[64];

    memset(name, 0, sizeof(name));
    if (main_ent)
        memcpy(name, main_ent->name, sizeof(name) - 1);

    // The request is already out; the lock covers the rest of the exchange
    // and the RE's own initialisation.
    if (tolvaGetMeshLock() < 0) {
        LOG(3, "other process locked MeshLock, retry!");
        pstat_fail("LOCK_BUSY");
        // The connection goes now: it would hold the CAP's only slot.
        free_entity(main_ent);
        nap_ms(3000);
        g_is_success = 0;
        return;
    }
    LOG(3, "client thread %s start..., locked time %d\n", name, (int)MESH_LOCK_LIFE);
    while (main_ent && main_ent->ssl && main_ent->state != ST_STOP) {
        if (recv_message(main_ent) != SYNC_ACCEPTED)
            continue;
        // The exchange is over: the watchdog must not cut into the platform scripts.
        client_close_timer();
        sync_init_re(main_ent);
    }
    stop = 1;
    tolvaRemoveMeshLock();
    LOG(3, "client thread %s stop..., unlocked\n", name);
}

void client_open_timer(void)
{
    g_timer_flag = 1;
    LOG(3, "open %d s timer for client/server interaction.\n", (int)CLIENT_TIMEOUT);
    g_sig_alarm = 0;
    g_sig_cut_fd = main_ent && main_ent->fd > 0 ? main_ent->fd : -1;
    sig_install_alarm(client_free_connect);
    alarm(CLIENT_TIMEOUT);
}

void client_close_timer(void)
{
    if (g_timer_flag != 1)
        return;
    g_timer_flag = 0;
    LOG(3, "close %d s timer\n", (int)CLIENT_TIMEOUT);
    alarm(0);
    g_sig_cut_fd = -1;
    g_sig_alarm = 0;
}

// SIGALRM: the CAP took too long. The handler only cuts the socket, so that
// the blocked call in the client fails; the time-out path itself runs on the
// main thread (client_timer_expired, from the safe point).
void client_free_connect(int sig)
{
    if (sig != SIGALRM)
        return;
    int saved = errno;
    g_sig_alarm = 1;
    int fd = g_sig_cut_fd;
    if (fd >= 0)
        shutdown(fd, SHUT_RDWR);
    sig_wake();
    errno = saved;
}

int32_t client_timer_expired(void)
{
    if (!g_sig_alarm)
        return 0;
    g_sig_alarm = 0;
    if (g_timer_flag != 1 || !main_ent)
        return 0;   // the attempt was over before the alarm was seen
    LOG_AS(3, "client_free_connect", "%d s timer reached, interaction timeout, free it.\n",
           (int)CLIENT_TIMEOUT);
    pstat_fail("TIMEOUT");
    change_state(main_ent, ST_STOP);
    if (main_ent->ssl)
        entity_disconnect(main_ent);
    return 1;
}
