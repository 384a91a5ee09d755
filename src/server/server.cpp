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
#include "core/flow.h"
#include "discovery/ddprobe.h"
#include "platform/meshlock.h"
#include "proto/frame.h"
#include "util/log.h"
#include "util/shell.h"

// Start and end of the latest peer session; all peer threads share it and
// the last one to write wins.
struct timeval conn_duration[2];

int32_t start_mesh_server(const char *ifname, const char *ip)
{
    char addr[16];

    if (!ifname || !ifname[0])
        ifname = "br-lan";
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

int32_t setup_service(const char *name, const char *ifname, const char *ip, uint16_t port)
{
    (void)ifname;
    int32_t fd;
    int on = 1;
    struct sockaddr_in sa;

    if (!g_ssl_ctx || !name)
        return -1;

    fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        LOG(3, "sock create failed.\n");
        goto fail;
    }
    set_fd_flag(fd, 1);
    if (set_fd_keepalive(fd) != 0) {
        LOG(3, "[%s] set sock fd keepalive failed.\n", name);
        dd_destory_sockfd(&fd);
        goto fail;
    }

    main_ent = new_entity(name, fd, 1);
    if (!main_ent) {
        LOG(3, "new main entity failed. \n");
        dd_destory_sockfd(&fd);
        goto fail;
    }

    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
        LOG(3, "SO_REUSEADDR failed. %s .\n", strerror(errno));
        dd_destory_sockfd(&fd);
        goto fail;
    }

    // The RE connects from whatever address and port the kernel picks.
    if ((!ip || !ip[0]) && port == 0)
        return 0;

    memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    LOG(3, "bind address:\n");
    if (ip && ip[0]) {
        sa.sin_addr.s_addr = inet_addr(ip);
        LOG(3, "local address: %s\n", ip);
    } else {
        sa.sin_addr.s_addr = htonl(INADDR_ANY);
        LOG(3, "local address: ANY\n");
    }
    if (port) {
        sa.sin_port = htons(port);
        LOG(3, "local port: %d\n", (int)port);
    } else {
        sa.sin_port = 0;
        LOG(3, "local port: ANY\n");
    }
    if (bind(main_ent->fd, (struct sockaddr *)&sa, sizeof(sa)) == 0) {
        LOG(3, "bind local addr successful.\n");
        return 0;
    }
    LOG(3, "bind local ip: %s failed. %s .\n", ip ? ip : "", strerror(errno));
    dd_destory_sockfd(&fd);

fail:
    if (main_ent)
        free_entity(main_ent);
    return -1;
}

int32_t server_listening(entity *main)
{
    if (!main || !main->ssl || main->fd < 0)
        return -1;

    if (listen(main->fd, SERVER_BACKLOG) == -1) {
        LOG(3, "[%.64s] listen() failed, %s.\n", main->name, strerror(errno));
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

        if (main->fd < 0) {
            LOG(3, "[%.64s] no any valid fd for select(). exit server_loop. \n", main->name);
            break;
        }
        FD_ZERO(&rfds);
        FD_SET(main->fd, &rfds);
        tv.tv_sec = 0;
        tv.tv_usec = 200000;
        n = select(main->fd + 1, &rfds, NULL, NULL, &tv);
        // A signal that only logs (SIGUSR1 on a CAP) must not end the server.
        if (n < 0 && errno == EINTR)
            n = 0;
        if (n < 0) {
            LOG(3, "[%.64s] select() failed, %s.\n", main->name, strerror(errno));
            free_entity(main);
            return -1;
        }
        if (n > 0 && FD_ISSET(main->fd, &rfds) && handle_new_connection(main) < 0) {
            free_entity(main);
            return -1;
        }
        if (ip_changed)
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
    pthread_attr_t attr;
    int rc;

    nfd = accept(main->fd, (struct sockaddr *)&peer, &plen);
    if (nfd < 0) {
        LOG(3, "[%.64s] accept() failed, %s.\n", main->name, strerror(errno));
        return -1;
    }
    set_fd_flag(nfd, 1);
    if (set_fd_keepalive(nfd) != 0) {
        LOG(3, "[%.64s] set sock fd keepalive failed.\n", main->name);
        dd_destory_sockfd(&nfd);
        return -1;
    }
    snprintf(pname, sizeof(pname), "peer-%s", inet_ntoa(peer.sin_addr));

    // One pairing at a time: a second RE is told to come back later.
    if (g_srving_cnt > 0) {
        LOG(3, "WARN: Cap overload threshold: %d. reject [%s] serving , need try again.\n",
            (int)OVERLOAD_THRESHOLD, pname);
        dd_destory_sockfd(&nfd);
        for (int i = 1; i < ENT_POOL_SIZE; i++) {
            if (ent_pool[i].start_ts)
                LOG(3, "[%.64s] is alive, fd: %d.\n", ent_pool[i].name, ent_pool[i].fd);
        }
        return 0;
    }

    ent = new_entity(pname, nfd, 0);
    if (!ent) {
        dd_destory_sockfd(&nfd);
        return -1;
    }
    LOG(3, "incoming peer: %.64s with fd: %d\n", ent->name, nfd);
    change_state(ent, ST_TCP_DONE);

    // Created detached: the peer thread may release (zero) its entity before
    // this thread could read the id back to detach it.
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    rc = pthread_create(&ent->thread, &attr, server_loop, ent);
    pthread_attr_destroy(&attr);
    if (rc < 0) {
        LOG(3, "[%.64s] thread create for [%.64s] failed, %s.\n", main->name, ent->name, strerror(errno));
        free_entity(ent);
        return -1;
    }
    LOG(3, "new thread %d for [%.64s] create done. \n", (int)ent->thread, ent->name);
    return 0;
}

// The peer's thread may be blocked inside its TLS session, so freeing the
// session here would pull it from under that thread. Shutting the socket
// down makes the thread's pending or next read fail instead, and the thread
// then releases its own record as it does for any broken connection.
static void wake_peer(const entity *ent)
{
    if (ent->fd >= 0)
        shutdown(ent->fd, SHUT_RDWR);
}

void check_connection_timeout(void)
{
    // uptime() gives 0 when sysinfo fails: then the old sample stays.
    int32_t up = uptime();
    if (up > 0)
        current = up;

    pthread_mutex_lock(&lock);
    for (int i = 1; i < ENT_POOL_SIZE && current > 0; i++) {
        entity *ent = &ent_pool[i];
        uint32_t now = (uint32_t)current;

        if (!ent->start_ts)
            continue;
        // Uptime below the start stamp cannot happen for a live session:
        // drop the peer rather than trust the stamp.
        if (now < ent->start_ts || now - ent->start_ts >= SERVING_TIMEOUT) {
            LOG(3, "[%.64s] serving time: %d too long > timeout: %d, disconnect it, current ts: %d .\n",
                ent->name, (int)(now - ent->start_ts), (int)SERVING_TIMEOUT, (int)current);
            wake_peer(ent);
        }
    }
    pthread_mutex_unlock(&lock);
}

// Once this thread (or a failed handshake) has released the record, the
// slot may already serve the next peer under another thread: only the
// thread the record names may go on using it or release it.
static bool record_is_mine(const entity *ent)
{
    return pthread_equal(ent->thread, pthread_self()) != 0;
}

void *server_loop(void *arg)
{
    entity *ent = (entity *)arg;
    char name[64];

    // The sweep may zero the record while this thread runs; keep the name.
    memcpy(name, ent->name, sizeof(name) - 1);
    name[sizeof(name) - 1] = '\0';
    if (ent->thread)
        LOG(3, "thread %d start for client %s.\n", (int)ent->thread, name);
    else
        LOG(3, "client %s start...\n", name);
    ent->thread = pthread_self();

    if (tolvaGetMeshLock() < 0) {
        // Another pairing is running; the peer's MAC is not known yet.
        tolvaMeshUpdateFailureStatus(ent->macaddr);
    } else {
        gettimeofday(&conn_duration[0], NULL);
        if (ssl_accept(ent) != 0) {
            report_status("%s=%s:%d", "mesh.re.conn.fail", "CONNECT_FAILED", 1);
            LOG(3, "[%s] ssl_accept failed.\n", name);
        } else {
            while (ent->ssl && ent->state != ST_STOP && record_is_mine(ent))
                recv_message(ent);
            if (ent->thread)
                LOG(3, "[%s] thread %d end .\n", name, (int)ent->thread);
            else
                LOG(3, "[%s] client stop...\n", name);
            gettimeofday(&conn_duration[1], NULL);
            report_status("%s=%s:%d", "mesh.re.conn.duration", "wire",
                          (int)(conn_duration[1].tv_sec - conn_duration[0].tv_sec));
            report_status("%s=%s:%s", "mesh.re.conn.type", "wire", "1");
        }
        tolvaRemoveMeshLock();
    }

    pthread_mutex_lock(&lock);
    if (record_is_mine(ent))
        free_entity_lock(ent, 0);
    pthread_mutex_unlock(&lock);
    OPENSSL_thread_stop();
    pthread_exit(NULL);
}
