// Command line, signal handling and the top-level flow of each role.
#include "core/flow.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/client.h"
#include "conn/entity.h"
#include "conn/tls.h"
#include "discovery/ddprobe.h"
#include "platform/env.h"
#include "platform/meshlock.h"
#include "proto/sync.h"
#include "server/server.h"
#include "util/addr.h"
#include "util/log.h"
#include "util/proc.h"
#include "util/pstat.h"
#include "util/shell.h"
#include "util/sig.h"
#include "util/sys.h"

// One usage line a line, as printed.
// clang-format off
static constexpr const char *usage_lines[] = {
    "-C                  mode client",
    "-S                  mode server",
    "-d                  dry run",
    "-i ifname           bind interface",
    "-l level            log level",
    "-o                  log out to stderr, default to syslog",
};
// clang-format on
static_assert(sizeof(usage_lines) / sizeof(usage_lines[0]) == 6, "six usage lines");

void usage(void)
{
    for (const char *line : usage_lines)
        puts(line);
}

int32_t parse_args(int argc, char **argv)
{
    int opt;
    optind = 0;   // rescan from the start (both glibc and musl honour 0)
    while ((opt = getopt(argc, argv, "i:t:l:CdoSh")) != -1) {
        switch (opt) {
        case 'i':
            memset(g_ifname, 0, sizeof(g_ifname));
            // One less than the buffer allows: names keep at most 14 characters.
            snprintf(g_ifname, sizeof(g_ifname) - 1, "%s", optarg);
            break;
        case 't':
            g_exit_timeout = atoi(optarg);
            break;
        case 'l':
            log_level_set(atoi(optarg));
            break;
        case 'C':
            g_is_server = 0;
            break;
        case 'd':
            g_dry_run = 1;
            break;
        case 'o':
            log_mode_set(LOG_MODE_STDERR);
            break;
        case 'S':
            g_is_server = 1;
            break;
        case 'h':
            usage();
            return PLAITD_PARSE_EXIT_OK;
        default:
            usage();
            return PLAITD_PARSE_EXIT_BAD;
        }
    }
    return PLAITD_PARSE_RUN;
}

// The handler only notes the signal and wakes the main thread; the work is
// done by sig_safe_point, on the main thread, where it holds no lock and is
// inside no TLS call and no allocation.
void sig_handler(int sig)
{
    if (sig == SIGUSR1) {
        g_sig_usr1 = 1;
    } else {
        g_sig_stop = sig;
        // As the watchdog does: a stop noted just before the RE blocks in a
        // read of its connection must not wait for the CAP to send.
        int fd = g_sig_cut_fd;
        if (fd >= 0) {
            int saved = errno;
            shutdown(fd, SHUT_RDWR);
            errno = saved;
        }
    }
    sig_wake();
}

// Set while br-lan holds the uplink address of the clash path.
static int32_t re_lan_moved;
static void re_set_lan_ip(const char *ip);

// A peer thread that did not end in time (a platform script that hangs)
// may still run: then the process ends without the exit handlers, which
// would tear down OpenSSL and the C library under it.
[[noreturn]] static void flow_exit(int status)
{
    if (ent_live_threads() > 0) {
        fflush(nullptr);
        _exit(status & 0xff);
    }
    exit(status);
}

static void sig_stop_now(int sig)
{
    LOG(3, "NOTE: get sig: %d.\n", sig);
    cleanup_mesh_cable();
    if (re_lan_moved) {
        LOG(3, "NOTE: !!! restore br-lan ip to origin ip-addr.\n");
        re_set_lan_ip(g_default_lan_ip);
    }
    flow_exit(-1);
}

// What the main thread's safe points run (see sig_safe_point): a stop runs
// the clean-up and exits 255, SIGUSR1 refreshes the RE's addresses, an
// expired RE watchdog runs its time-out path.
static void flow_signals(void)
{
    if (g_sig_stop)
        sig_stop_now(g_sig_stop);
    if (g_sig_usr1) {
        g_sig_usr1 = 0;
        LOG(3, "NOTE: get sig: %d.\n", SIGUSR1);
        if (!g_is_server) {
            if (get_gw_ip(g_gw_srv_ip, g_local_wan_ip) == 0) {
                get_wan_ifname(g_ifname);
                g_retry_flag = 1;
            } else {
                g_retry_flag = 0;
            }
            LOG(3, "RE triggered to get new gw:[%s] and ip:[%s] from iface: [%s]\n", g_gw_srv_ip,
                g_local_wan_ip, g_ifname);
        }
        // A stop noted while the refresh ran its commands.
        if (g_sig_stop)
            sig_stop_now(g_sig_stop);
    }
    if (!g_is_server)
        client_timer_expired();
}

// A text test of "same /24": the common prefix must pass exactly three dots.
int32_t capip_ip_compare(const char *a, const char *b)
{
    if (!a || !b)
        return -1;
    int dots = 0;
    for (; *a && *b && *a == *b; a++, b++)
        if (*a == '.')
            dots++;
    return dots == 3 ? 0 : 1;
}

int32_t init_mesh_cable(void)
{
    return ssl_init();
}

enum { PEER_STOP_WAIT_MS = 1000 };

void cleanup_mesh_cable(void)
{
    LOG(3, "cleanup cable-mesh resources before exit.\n");
    __atomic_store_n(&stop, 1, __ATOMIC_RELAXED);
    // Peer threads own their records: tell them to stop and give them a
    // moment to release their sessions before the context goes.
    server_stop_peers();
    for (int i = 0; i < PEER_STOP_WAIT_MS / 10 && ent_live_threads() > 0; i++)
        usleep(10000);
    for (int i = ENT_POOL_SIZE - 1; i >= 1; i--)
        free_entity(&ent_pool[i]);
    if (main_ent)
        free_entity(main_ent);
    dd_clt_probe_end();
    switch_conning_light(0);
    pthread_mutex_lock(&lock);   // as the peer threads and the responder use it
    tolvaRemoveMeshLock();
    pthread_mutex_unlock(&lock);
    ssl_uninit();
}

void install_signals(void)
{
    sig_install(sig_handler, flow_signals);
}

int32_t cap_flow(void)
{
    if (g_ifname[0])
        dd_srv_probe(g_ifname);
    init_mesh_cable();
    pstat_phase(PS_WAITING);
    do {
        __atomic_store_n(&ip_changed, 0, __ATOMIC_RELAXED);
        start_mesh_server(g_ifname, 0);
    } while (__atomic_load_n(&ip_changed, __ATOMIC_RELAXED));
    sig_safe_point();
    cleanup_mesh_cable();
    flow_exit(0);
}

static int32_t re_exit(int32_t rc)
{
    // A stop noted on the way out (while re_init ran, say) still ends with 255.
    sig_safe_point();
    cleanup_mesh_cable();
    return rc;
}

static int32_t re_initted(void)
{
    if (is_initted() != 0)
        return 0;
    LOG(3, "RE already initted, exit.\n");
    return 1;
}

// Probes until a CAP answers. 1 = the box turned out to be initialised.
static int32_t re_discover(void)
{
    pstat_phase(PS_DISCOVERY);
    for (;;) {
        if (re_initted())
            return 1;
        if (dd_clt_probe(g_ifname, g_cap_ip) == 0)
            break;
        sig_safe_point();
        LOG(3, "dd_clt: no CAP found in L2-net. just exit. \n");
        nap_ms(4000);
    }
    LOG(3, "dd_clt: CAP found in L2-net. Continue for meshing...\n");
    return 0;
}

static int32_t re_ready(void)
{
    return g_local_wan_ip[0] && g_gw_srv_ip[0] && g_retry_flag == 1 && check_cable_pluged(1) == 0;
}

// The factory LAN address of both boxes clashes with the way to the CAP.
// Compared over the length of the first text: an empty CAP address clashes.
static int32_t re_clash(void)
{
    return strncmp(g_gw_srv_ip, g_default_lan_ip, strlen(g_gw_srv_ip)) == 0 ||
           strncmp(g_cap_ip, g_default_lan_ip, strlen(g_cap_ip)) == 0;
}

static void re_set_lan_ip(const char *ip)
{
    // The address comes from the gateway file: it reaches a shell line only
    // without metacharacters.
    if (check_injection(ip) != 0)
        return;
    // Noted before the command runs, so that a stop in between restores it.
    re_lan_moved = strcmp(ip, g_default_lan_ip) != 0;
    char cmd[256];
    snprintf(cmd, sizeof(cmd),
             "uci -q set network.lan.ipaddr=%s;uci commit network;ifconfig br-lan %s", ip, ip);
    sys_system(cmd);
}

static int32_t re_attempt(void)
{
    const char *srv = g_cap_ip[0] ? g_cap_ip : g_gw_srv_ip;
    return start_mesh_client(g_ifname, g_local_wan_ip, srv);
}

enum re_step { RE_NEXT, RE_DONE, RE_RESTART };

// Failed attempts in a row at one discovered CAP address before the RE asks
// again: the CAP may have moved (its server restarts on a new address), or
// the answer was forged. A CAP busy with another RE refuses at once and
// drops discovery until it is done, so probing during its pairing only waits
// for it; the count has to ride out a lost packet or a refused turn, while
// each attempt at an address nobody holds costs some 6 s (3 s of ARP, 3 s of
// wait).
enum { RE_TRIES_PER_DISCOVERY = 3 };

// The clash path: an attempt with br-lan moved to the uplink address, put
// back when it fails. A CAP outside the uplink's /24 restarts the discovery.
static re_step re_try_moved(int32_t *last)
{
    LOG(3, "NOTE: !!! br-lan and wan gateway ip are same: %s, change ip to %s\n", g_gw_srv_ip,
        g_local_wan_ip);
    re_set_lan_ip(g_local_wan_ip);
    nap_ms(100);
    *last = re_attempt();
    if (*last == 0) {
        re_lan_moved = 0;   // paired: the new address stays
        LOG(3, "RE cab mesh init done. exit.\n");
        return RE_DONE;
    }
    LOG(3, "NOTE: !!! restore br-lan ip to origin ip-addr.\n");
    re_set_lan_ip(g_default_lan_ip);
    if (capip_ip_compare(g_cap_ip, g_local_wan_ip) == 0)
        return RE_NEXT;
    sys_system("killall -9 udhcpc");
    nap_ms(5000);
    return RE_RESTART;
}

// One attempt of a ready RE; `last` keeps the client result.
static re_step re_try(int32_t *last)
{
    re_step step = RE_NEXT;
    if (re_clash())
        step = re_try_moved(last);
    else
        *last = re_attempt();
    if (step == RE_NEXT && g_is_success) {
        LOG(3, "Success, Cons, Enjoy!!!!!!!!!!!!\n");
        step = RE_DONE;
    }
    return step;
}

// One pass of the pairing loop; `last` keeps the latest client result,
// `failed` counts the failed attempts since the last discovery.
static re_step re_pair_once(int32_t *last, int32_t *failed)
{
    if (re_initted())
        return RE_DONE;
    int32_t tried = re_ready();
    re_step step = tried ? re_try(last) : RE_NEXT;
    if (step != RE_NEXT)
        return step;
    nap_ms(3000);
    // A finished attempt without success (a dry run) ends the process quietly.
    if (*last == 0)
        return RE_DONE;
    if (tried && g_ifname[0] && ++*failed >= RE_TRIES_PER_DISCOVERY) {
        LOG(3, "NOTE: CAP %s not paired in %d tries, discover again.\n", g_cap_ip, *failed);
        return RE_RESTART;
    }
    return RE_NEXT;
}

int32_t re_flow(void)
{
    init_mesh_cable();
    int32_t last = -1;
    for (;;) {
        if (g_ifname[0] && re_discover())
            return re_exit(0);
        g_retry_flag = get_gw_ip(g_gw_srv_ip, g_local_wan_ip) == 0 ? 1 : 0;
        re_step step;
        int32_t failed = 0;
        while ((step = re_pair_once(&last, &failed)) == RE_NEXT) {
        }
        if (step == RE_DONE)
            return re_exit(0);
    }
}

int plaitd_main(int argc, char **argv)
{
    int32_t rc = parse_args(argc, argv);
    if (rc != PLAITD_PARSE_RUN)
        return rc == PLAITD_PARSE_EXIT_OK ? 0 : -1;
    install_signals();
    if (tolva_check_env() != 0) {
        LOG(3, "check env failed for mode: %d, exit.\n", g_is_server);
        return -1;
    }
    while (check_boot_ready() != 0)
        nap_ms(1000);
    return g_is_server ? cap_flow() : re_flow();
}
