// Descriptor options shared by the TCP and discovery sockets, and the main
// TCP socket of either role.
#include "conn/sockopt.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "conn/entity.h"
#include "conn/tls.h"
#include "util/log.h"

void dd_destory_sockfd(int32_t *fd)
{
    if (!fd || *fd < 0)
        return;
    close(*fd);
    *fd = -1;
}

void set_fd_flag(int32_t fd, uint32_t flags)
{
    if (fd < 0)
        return;
    int cur = fcntl(fd, F_GETFD);
    if (cur < 0)
        return;
    fcntl(fd, F_SETFD, cur | (int)flags);
}

void set_fd_nonblocking(int32_t fd)
{
    if (fd < 0)
        return;
    int cur = fcntl(fd, F_GETFL);
    if (cur < 0)
        return;
    fcntl(fd, F_SETFL, cur | O_NONBLOCK);
}

// Short keep-alive: a peer pulled off the cable is noticed in about 6 s.
struct keepalive_opt {
    int level;
    int name;
    int value;
    const char *fail_fmt;
};

static constexpr keepalive_opt keepalive_opts[] = {
    {SOL_SOCKET, SO_KEEPALIVE, 1, "fd: %d SO_KEEPALIVE failed.\n"},
    {IPPROTO_TCP, TCP_KEEPIDLE, 3, "fd: %d SO_KEEPIDLE failed.\n"},
    {IPPROTO_TCP, TCP_KEEPINTVL, 1, "fd: %d SO_KEEPINTVL failed.\n"},
    {IPPROTO_TCP, TCP_KEEPCNT, 3, "fd: %d SO_KEEPCNT failed.\n"},
};

int32_t set_fd_keepalive(int32_t fd)
{
    if (fd < 0)
        return -1;
    for (const keepalive_opt &o : keepalive_opts) {
        int v = o.value;
        if (setsockopt(fd, o.level, o.name, &v, sizeof(v)) < 0) {
            LOG(3, o.fail_fmt, fd);
            return -1;
        }
    }
    LOG(3, "fd: %d set fd keepalive done.\n", fd);
    return 0;
}

int32_t set_fd_nodelay(int32_t fd)
{
    int on = 1;
    if (fd < 0)
        return -1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) < 0) {
        LOG(3, "fd: %d TCP_NODELAY failed. %s\n", fd, strerror(errno));
        return -1;
    }
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

    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        LOG(3, "sock create failed.\n");
        goto fail;
    }
    if (set_fd_keepalive(fd) != 0) {
        LOG(3, "[%s] set sock fd keepalive failed.\n", name);
        dd_destory_sockfd(&fd);
        goto fail;
    }
    // Without it the second of two small writes in a row (the RE's TLS
    // Finished and its first request, the CAP's reply and its own request)
    // waits some 40 ms for the peer's delayed ACK. Only slower without it.
    set_fd_nodelay(fd);

    main_ent = new_entity(name, fd, 1);
    if (!main_ent) {
        LOG(3, "new main entity failed. \n");
        dd_destory_sockfd(&fd);
        goto fail;
    }

    // From here the socket is the main entity's: its release closes it.
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
        LOG(3, "SO_REUSEADDR failed. %s .\n", strerror(errno));
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

fail:
    if (main_ent) {
        // Released even when no uptime was sampled, so its socket is closed.
        if (!main_ent->start_ts)
            main_ent->start_ts = 1;
        free_entity(main_ent);
    }
    return -1;
}
