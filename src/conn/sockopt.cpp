// Descriptor options shared by the TCP and discovery sockets.
#include "conn/sockopt.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

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
