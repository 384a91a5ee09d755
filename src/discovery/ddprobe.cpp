// Discovery: the CAP's responder thread and the RE's probe.
#include "discovery/ddprobe.h"

#include <net/if.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "conn/entity.h"
#include "conn/sockopt.h"
#include "discovery/ddsock.h"
#include "platform/meshlock.h"
#include "util/addr.h"
#include "util/log.h"
#include "util/proc.h"
#include "util/sig.h"

int32_t ip_changed = 0;

namespace
{

constexpr int IP_TEXT_LEN = 16;
constexpr int RE_MAGIC_LEN = 17;   // the NUL is not compared
constexpr int CAP_MAGIC_LEN = 18;

// The probe's whole wait after its request. A CAP answers within
// milliseconds, and a second of silence still ends the wait early; but every
// frame for the port starts that second again, so without a bound a host
// sending to the port more often than once a second (several REs probing
// every 4 s do, together) keeps an unanswered probe waiting for ever, never asking
// again.
constexpr int64_t PROBE_WAIT_MS = 2000;
constexpr int RAW_TIMEOUT_MS = 1000;   // the raw socket's receive time-out
static_assert(PROBE_WAIT_MS >= RAW_TIMEOUT_MS, "a second of silence fits in the wait");

// Sender on the LAN address (kernel-chosen port, broadcast on) and the
// receiver on 0.0.0.0 at the discovery port. Both or neither.
int32_t srv_open_sockets(const char *local_ip, int32_t *sender, int32_t *recver)
{
    *sender = dd_create_sockfd(local_ip, 0, 1);
    *recver = dd_create_sockfd(nullptr, DD_PORT, 0);
    if (*sender < 0 || *recver < 0) {
        LOG_AS(3, "dd_srv_loop", "dd_srv_loop: create sock fd failed.\n");
        dd_destory_sockfd(sender);
        dd_destory_sockfd(recver);
        return -1;
    }
    return 0;
}

}   // namespace

int dd_srv_handle(char *buf, int size, const char *local_ip)
{
    // A pairing in progress: let the RE keep probing until it is over. Under
    // the pool lock, as the peer threads take and drop the mesh lock: a stale
    // lock removed here must not be one a peer has just renewed.
    pthread_mutex_lock(&lock);
    int busy = tolvaTryRemoveMeshLock();
    pthread_mutex_unlock(&lock);
    if (busy > 0) {
        LOG_AS(3, "dd_srv_loop", "dd srv: meshing\n");
        return -1;
    }
    if (memcmp(buf, DD_RE_MAGIC, RE_MAGIC_LEN) != 0) {
        LOG_AS(3, "dd_srv_loop", "dd_srv: it's not msg from RE. data:[%s]\n", buf);
        return -1;
    }

    memset(buf, 0, (size_t)size);
    memcpy(buf, DD_CAP_MAGIC, CAP_MAGIC_LEN);
    snprintf(buf + CAP_MAGIC_LEN, IP_TEXT_LEN, "%s", local_ip);
    return (int)strlen(buf) + 1;
}

int dd_clt_match(const char *buf, char *cap_ip)
{
    if (memcmp(buf, DD_CAP_MAGIC, CAP_MAGIC_LEN) != 0)
        return -1;
    LOG_AS(3, "dd_clt_probe", "dd_clt: ====== Found CAP in L2-NET. Well Done.\n");
    if (cap_ip) {
        memcpy(cap_ip, buf + CAP_MAGIC_LEN, IP_TEXT_LEN);
        cap_ip[IP_TEXT_LEN - 1] = '\0';
    }
    return 0;
}

void *dd_srv_loop(void *arg)
{
    const char *ifname = (const char *)arg;
    char local_ip[IP_TEXT_LEN];
    memset(local_ip, 0, sizeof(local_ip));
    if (ifname && ifname[0] && get_iface_ip(ifname, local_ip, IP_TEXT_LEN) != 0) {
        local_ip[0] = '\0';
        LOG(3, "dd_srv: get_iface_ip failed.\n");
    }

    int32_t sender = -1, recver = -1;
    if (srv_open_sockets(local_ip, &sender, &recver) != 0)
        return nullptr;
    LOG(3, "dd_srv: enter broadcast recving loop.\n");

    // One spare byte past the receive limit keeps the datagram a C string.
    char buf[DD_RAW_BUF + 1];
    char from_ip[IP_TEXT_LEN];
    int from_port = 0;
    for (;;) {
        if (__atomic_load_n(&stop, __ATOMIC_RELAXED))
            break;
        memset(buf, 0, sizeof(buf));
        if (dd_recv_msg(recver, from_ip, &from_port, buf, DD_RAW_BUF) != 0)
            continue;

        int len = dd_srv_handle(buf, (int)sizeof(buf), local_ip);
        if (len < 0)
            continue;
        if (dd_send_msg(sender, DD_BROADCAST_IP, DD_PORT, buf, len) == 0)
            continue;

        // A send from an address the interface no longer has fails; that is
        // the only sign of an address change we get.
        LOG(3, "dd_srv: send msg failed.\n");
        char new_ip[IP_TEXT_LEN];
        memset(new_ip, 0, sizeof(new_ip));
        if (get_iface_ip(ifname, new_ip, IP_TEXT_LEN) != 0) {
            new_ip[0] = '\0';
            LOG(3, "dd_srv: get_iface_ip failed.\n");
        }
        LOG(3, "pre ip %s new ip %s", local_ip, new_ip);
        if (!new_ip[0] || strncmp(local_ip, new_ip, IP_TEXT_LEN - 1) == 0)
            continue;

        LOG(3, "ip changed, restart server");
        memcpy(local_ip, new_ip, sizeof(local_ip));
        __atomic_store_n(&ip_changed, 1, __ATOMIC_RELAXED);
        dd_destory_sockfd(&sender);
        dd_destory_sockfd(&recver);
        if (srv_open_sockets(local_ip, &sender, &recver) != 0)
            return nullptr;
    }
    dd_destory_sockfd(&sender);
    dd_destory_sockfd(&recver);
    return nullptr;
}

int dd_srv_probe(const char *ifname)
{
    pthread_t tid = 0;
    // Detached, with the daemon's signals blocked; the result is an error number.
    int rc = sig_thread_create(&tid, dd_srv_loop, (void *)ifname);
    if (rc == 0) {
        LOG(3, "dd_srv: thread %d for CAP discovery created ok. \n", (int)tid);
        return 0;
    }
    LOG(3, "dd_srv: thread %d for CAP discovery create failed. \n", (int)tid);
    return -1;
}

// The raw socket of the last probe that found a CAP. Closing a packet socket
// waits a network grace period (some 16 ms) that the pairing which follows
// need not wait for: it is closed by the next probe or the clean-up.
static int32_t found_raw = -1;

// The request leaves on the uplink even when another interface holds the
// same address: a limited broadcast from a bound address goes out of the
// first interface that has it, and an RE stopped without its clean-up (a
// crash, a power cut) keeps br-lan on the uplink's address; its requests
// then went into br-lan and no CAP was ever found again.
static void clt_sender_on(int32_t fd, const char *ifname)
{
    if (!ifname || !ifname[0])
        return;
    char dev[IFNAMSIZ];
    memset(dev, 0, sizeof(dev));
    strncpy(dev, ifname, sizeof(dev) - 1);
    (void)setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, dev, (socklen_t)strlen(dev) + 1);
}

void dd_clt_probe_end(void)
{
    dd_destory_sockfd(&found_raw);
}

int dd_clt_probe(const char *ifname, char *cap_ip)
{
    dd_clt_probe_end();
    char local_ip[IP_TEXT_LEN];
    memset(local_ip, 0, sizeof(local_ip));
    if (ifname && ifname[0] && get_iface_ip(ifname, local_ip, IP_TEXT_LEN) != 0) {
        local_ip[0] = '\0';
        LOG(3, "dd_clt: get_iface_ip failed.\n");
    }

    int32_t sender = dd_create_sockfd(local_ip, 0, 1);
    int32_t raw = dd_create_rawfd(ifname);
    if (sender >= 0)
        clt_sender_on(sender, ifname);
    if (sender < 0 || raw < 0) {
        dd_destory_sockfd(&sender);
        dd_destory_sockfd(&raw);
        return -1;
    }
    if (dd_send_msg(sender, DD_BROADCAST_IP, DD_PORT, DD_RE_MAGIC, RE_MAGIC_LEN + 1) != 0) {
        LOG(3, "dd_clt: broadcst msg failed.\n");
        dd_destory_sockfd(&sender);
        dd_destory_sockfd(&raw);
        return -1;
    }

    char buf[DD_RAW_BUF];
    int ret = -1;
    const int64_t deadline = now_ms() + PROBE_WAIT_MS;
    for (;;) {
        // Frames that are not answers keep the loop going: a stop is not
        // left to the end of the probe.
        sig_stop_point();
        int64_t left = deadline - now_ms();
        if (left <= 0)
            break;
        // The last receive waits only for what is left of the bound.
        if (left < RAW_TIMEOUT_MS)
            set_fd_timeout(raw, 0, (int)left);
        memset(buf, 0, sizeof(buf));
        // Negative: a frame not for us (our own request among them);
        // 0: a second of silence or an error, the probe is over.
        int n = dd_recv_raw_msg(raw, buf, DD_RAW_BUF);
        if (n < 0)
            continue;
        if (n == 0)
            break;
        if (dd_clt_match(buf, cap_ip) != 0)
            continue;
        ret = 0;
        break;
    }
    if (ret == 0) {
        found_raw = raw;
        raw = -1;
    }
    dd_destory_sockfd(&sender);
    dd_destory_sockfd(&raw);
    return ret;
}
