#include "server/server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "conn/sockopt.h"
#include "conn/tls.h"
#include "discovery/ddprobe.h"
#include "platform/meshlock.h"
#include "proto/frame.h"
#include "util/addr.h"
#include "util/log.h"
#include "util/proc.h"
#include "util/pstat.h"
#include "util/shell.h"
#include "util/sig.h"

// Start and end of the latest peer session; all peer threads share it and
// the last one to write wins.
struct timeval conn_duration[2];

int32_t (*server_thread_create)(pthread_t *, void *(*)(void *), void *) = sig_thread_create;

// The peer record (slot and generation) whose thread holds the mesh lock;
// slot 0 = none. Guarded by `lock`, as is every use of the mesh lock in the
// CAP (the discovery responder drops a stale one).
static int32_t mesh_lock_slot;
static uint32_t mesh_lock_gen;

static int32_t peer_mesh_lock(int32_t slot, uint32_t gen)
{
    pthread_mutex_lock(&lock);
    int32_t rc = tolvaGetMeshLock();
    if (rc >= 0) {
        mesh_lock_slot = slot;
        mesh_lock_gen = gen;
    }
    pthread_mutex_unlock(&lock);
    return rc;
}

static void peer_mesh_unlock_locked(int32_t slot, uint32_t gen)
{
    if (mesh_lock_slot != slot || mesh_lock_gen != gen)
        return;
    mesh_lock_slot = 0;
    tolvaRemoveMeshLock();
}

static void sample_uptime(void)
{
    // uptime() gives 0 when sysinfo fails: then the old sample stays.
    int32_t up = uptime();
    if (up > 0)
        current = up;
}

int32_t start_mesh_server(const char *ifname, const char *ip)
{
    char addr[16];

    if (!ifname || !ifname[0])
        ifname = "br-lan";
    // Stamped before the main entity is made, so that it counts as in
    // service and its release (at an address change) closes the socket.
    sample_uptime();
    memset(addr, 0, sizeof(addr));
    if (ip && ip[0]) {
        strncpy(addr, ip, sizeof(addr) - 1);
    } else if (get_iface_ip(ifname, addr, sizeof(addr)) < 0) {
        LOG(3, "get_iface_ip failed.\n");
        addr[0] = '\0';   // serve on any address
    }
    addr[sizeof(addr) - 1] = '\0';

    if (setup_service("CAP", ifname, addr, MESH_PORT) != 0) {
        LOG(3, "setup entity failed.\n");
        return -1;
    }
    (void)server_listening(main_ent);
    return 0;
}

int32_t server_listening(entity *main)
{
    if (!main || !main->ssl || main->fd < 0)
        return -1;

    if (listen(main->fd, SERVER_BACKLOG) == -1) {
        LOG(3, "[" ENT_FMT "] listen() failed, %s.\n", main->name, strerror(errno));
        free_entity(main);
        return -1;
    }
    set_fd_nonblocking(main->fd);
    LOG(3, "enter server looping....\n");
    change_state(main, ST_RUNNING);
    // Sample the uptime before the first peer can arrive: a peer stamped with
    // a zero start time would never count as in service, so never be freed.
    check_connection_timeout();

    for (;;) {
        fd_set rfds;
        struct timeval tv;
        int n;
        int wfd = sig_wake_fd();

        if (main->fd < 0) {
            LOG(3, "[" ENT_FMT "] no any valid fd for select(). exit server_loop. \n", main->name);
            break;
        }
        FD_ZERO(&rfds);
        FD_SET(main->fd, &rfds);
        if (wfd >= 0)
            FD_SET(wfd, &rfds);
        tv.tv_sec = 0;
        tv.tv_usec = 200000;
        n = select((wfd > main->fd ? wfd : main->fd) + 1, &rfds, NULL, NULL, &tv);
        // A signal only wakes the loop; it is acted on at the safe point below.
        if (n < 0 && errno == EINTR)
            n = 0;
        if (n < 0) {
            LOG(3, "[" ENT_FMT "] select() failed, %s.\n", main->name, strerror(errno));
            free_entity(main);
            return -1;
        }
        if (n > 0 && wfd >= 0 && FD_ISSET(wfd, &rfds))
            sig_drain();
        sig_safe_point();
        if (n > 0 && FD_ISSET(main->fd, &rfds) && handle_new_connection(main) < 0) {
            free_entity(main);
            return -1;
        }
        if (__atomic_load_n(&ip_changed, __ATOMIC_RELAXED))
            break;
        check_connection_timeout();
        if (main->state == ST_STOP) {
            LOG(3, "server exit listening loop.\n");
            break;
        }
    }
    free_entity(main);
    return 0;
}

int32_t handle_new_connection(entity *main)
{
    struct sockaddr_in peer;
    socklen_t plen = sizeof(peer);
    char pname[64];
    int32_t nfd;
    entity *ent;
    pthread_t tid = 0;
    int rc;

    // Close-on-exec from the start: a peer thread may be starting a command.
    nfd = accept4(main->fd, (struct sockaddr *)&peer, &plen, SOCK_CLOEXEC);
    if (nfd < 0) {
        LOG(3, "[" ENT_FMT "] accept() failed, %s.\n", main->name, strerror(errno));
        return -1;
    }
    if (set_fd_keepalive(nfd) != 0) {
        LOG(3, "[" ENT_FMT "] set sock fd keepalive failed.\n", main->name);
        dd_destory_sockfd(&nfd);
        return -1;
    }
    set_fd_nodelay(nfd);   // inherited from the listener on Linux; made sure of here
    snprintf(pname, sizeof(pname), "peer-%s", inet_ntoa(peer.sin_addr));

    // One pairing at a time: a second RE is told to come back later.
    pthread_mutex_lock(&lock);
    if (g_srving_cnt >= OVERLOAD_THRESHOLD) {
        LOG(3, "WARN: Cap overload threshold: %d. reject [%s] serving , need try again.\n",
            (int)OVERLOAD_THRESHOLD, pname);
        dd_destory_sockfd(&nfd);
        for (int i = 1; i < ENT_POOL_SIZE; i++) {
            if (ent_pool[i].start_ts)
                LOG(3, "[" ENT_FMT "] is alive, fd: %d.\n", ent_pool[i].name, ent_pool[i].fd);
        }
        pthread_mutex_unlock(&lock);
        pstat_refused();
        return 0;
    }
    pthread_mutex_unlock(&lock);

    ent = new_entity(pname, nfd, 0);
    if (!ent) {
        dd_destory_sockfd(&nfd);
        return -1;
    }
    LOG(3, "incoming peer: " ENT_FMT " with fd: %d\n", ent->name, nfd);
    change_state(ent, ST_TCP_DONE);

    // From here the record is the new thread's; it is created detached, with
    // the daemon's signals blocked. The result is an error number, not -1.
    ent_hand_over(ent);
    rc = server_thread_create(&tid, server_loop, ent);
    if (rc != 0) {
        ent_hand_back(ent);
        LOG(3, "[" ENT_FMT "] thread create for [" ENT_FMT "] failed, %s.\n", main->name, ent->name,
            strerror(rc));
        free_entity(ent);
        return -1;
    }
    LOG(3, "new thread %d for [" ENT_FMT "] create done. \n", (int)tid, pname);
    return 0;
}

// The peer's thread may be blocked inside its TLS session, so nothing here
// frees the session. Shutting the socket down makes the thread's pending or
// next read fail instead, and the thread then releases its own record.
static void wake_peer(const entity *ent)
{
    if (ent->fd > 0)
        shutdown(ent->fd, SHUT_RDWR);
}

void check_connection_timeout(void)
{
    sample_uptime();

    pthread_mutex_lock(&lock);
    for (int i = 1; i < ENT_POOL_SIZE && current > 0; i++) {
        entity *ent = &ent_pool[i];
        uint32_t now = (uint32_t)current;

        // A peer whose share was given back is no longer in service.
        if (!ent->start_ts || !ent_share_held_locked(i))
            continue;
        // Uptime below the start stamp cannot happen for a live session:
        // drop the peer rather than trust the stamp.
        if (now < ent->start_ts || now - ent->start_ts >= SERVING_TIMEOUT) {
            LOG(3,
                "[" ENT_FMT
                "] serving time: %d too long > timeout: %d, disconnect it, current ts: %d .\n",
                ent->name, (int)(now - ent->start_ts), (int)SERVING_TIMEOUT, (int)current);
            // The slot's share goes now, so that a thread that never reads
            // again refuses no later RE. The mesh lock stays with the thread
            // (it may be inside cap_init) until it ends or the lock's own life
            // runs out; the record's memory stays with it too.
            wake_peer(ent);
            ent_release_share_locked(i, ent_gen_locked(i));
        }
    }
    pthread_mutex_unlock(&lock);
}

void server_stop_peers(void)
{
    pthread_mutex_lock(&lock);
    for (int i = 1; i < ENT_POOL_SIZE; i++)
        if (ent_pool[i].ssl)
            wake_peer(&ent_pool[i]);
    pthread_mutex_unlock(&lock);
}

void *server_loop(void *arg)
{
    entity *ent = (entity *)arg;
    int32_t slot = (int32_t)(ent - ent_pool);
    uint32_t gen = ent_gen(ent);
    char name[64];

    ent_adopt(ent, gen);
    memcpy(name, ent->name, sizeof(name) - 1);
    name[sizeof(name) - 1] = '\0';
    LOG(3, "thread %d start for client %s.\n", (int)ent->thread, name);

    if (peer_mesh_lock(slot, gen) < 0) {
        // Another pairing is running; the peer's MAC is not known yet.
        tolvaMeshUpdateFailureStatus(ent->macaddr);
        pstat_refused();
    } else {
        // The record's name is "peer-" and the address.
        int32_t attempt = pstat_begin(PS_TLS, name + 5);
        struct timeval t0, t1;
        gettimeofday(&t0, NULL);
        pthread_mutex_lock(&lock);
        conn_duration[0] = t0;
        pthread_mutex_unlock(&lock);
        if (ssl_accept(ent) != 0) {
            report_status("%s=%s:%d", "mesh.re.conn.fail", "CONNECT_FAILED", 1);
            pstat_fail("CONNECT_FAILED");
            LOG(3, "[%s] ssl_accept failed.\n", name);
        } else {
            pstat_phase(PS_AUTH);
            while (ent->ssl && ent->state != ST_STOP)
                recv_message(ent);
            LOG(3, "[%s] thread %d end .\n", name, (int)pthread_self());
            gettimeofday(&t1, NULL);
            pthread_mutex_lock(&lock);
            conn_duration[1] = t1;
            int secs = (int)(conn_duration[1].tv_sec - conn_duration[0].tv_sec);
            pthread_mutex_unlock(&lock);
            report_status("%s=%s:%d", "mesh.re.conn.duration", "wire", secs);
            report_status("%s=%s:%s", "mesh.re.conn.type", "wire", "1");
        }
        pstat_done(attempt);   // before the lock goes: the next peer's phases are its own
        pthread_mutex_lock(&lock);
        peer_mesh_unlock_locked(slot, gen);
        pthread_mutex_unlock(&lock);
    }

    free_entity(ent);
    OPENSSL_thread_stop();
    ent_thread_done();
    pthread_exit(NULL);
}
