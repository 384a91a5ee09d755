// Socket options, the mesh lock's life and the per-peer status files.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <unistd.h>

#include "conn/sockopt.h"
#include "platform/meshlock.h"
#include "util/log.h"
#include "util/shell.h"

static int opt(int fd, int level, int name)
{
    int v = -1;
    socklen_t l = sizeof(v);
    getsockopt(fd, level, name, &v, &l);
    return v;
}

static std::string slurp(const char *path)
{
    char buf[64] = {0};
    FILE *f = fopen(path, "r");
    size_t n = f ? fread(buf, 1, sizeof(buf) - 1, f) : 0;
    if (f)
        fclose(f);
    return std::string(buf, n);
}

static void write_stamp(long stamp)
{
    std::string s = std::to_string(stamp);
    f_string_write(MESH_LOCK_FILE, s.data(), (uint32_t)s.size());
}

// Asks about a lock `age` seconds old; again if the uptime second turned over.
static int try_at_age(long age, int owned)
{
    for (;;) {
        long now = uptime();
        write_stamp(now - age);
        g_mesh_locked = owned;
        int r = tolvaTryRemoveMeshLock();
        if (uptime() == now)
            return r;
    }
}

TEST(SockOpt, KeepaliveFlagsAndClose)
{
    log_level = 0;
    int tcp = socket(AF_INET, SOCK_STREAM, 0), udp = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(set_fd_keepalive(tcp), 0);
    EXPECT_EQ(opt(tcp, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(opt(tcp, IPPROTO_TCP, TCP_KEEPIDLE), 3);
    EXPECT_EQ(opt(tcp, IPPROTO_TCP, TCP_KEEPINTVL), 1);
    EXPECT_EQ(opt(tcp, IPPROTO_TCP, TCP_KEEPCNT), 3);
    EXPECT_EQ(set_fd_keepalive(udp), -1);
    EXPECT_EQ(opt(udp, SOL_SOCKET, SO_KEEPALIVE), 1);   // step 1 ran, the TCP options failed
    EXPECT_EQ(set_fd_keepalive(-1), -1);

    fcntl(udp, F_SETFL, O_APPEND);
    set_fd_nonblocking(udp);
    EXPECT_EQ(fcntl(udp, F_GETFL) & (O_APPEND | O_NONBLOCK), O_APPEND | O_NONBLOCK);
    set_fd_flag(udp, FD_CLOEXEC);
    set_fd_flag(udp, 0);
    EXPECT_EQ(fcntl(udp, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

    int32_t fd = tcp, none = -1;
    dd_destory_sockfd(&fd);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(fcntl(tcp, F_GETFD), -1);
    dd_destory_sockfd(&none);
    EXPECT_EQ(none, -1);
    dd_destory_sockfd(nullptr);
    close(udp);
    log_level = 7;
}

TEST(MeshLock, LifeOwnershipAndStamps)
{
    log_level = 0;
    EXPECT_EQ(tolvaMeshLockStatus(), 0);   // no file
    write_stamp(0);
    EXPECT_EQ(tolvaTryRemoveMeshLock(), 0);
    f_string_write(MESH_LOCK_FILE, "", 0);
    EXPECT_EQ(tolvaTryRemoveMeshLock(), 0);

    EXPECT_EQ(try_at_age(240, 0), 1);
    EXPECT_EQ(try_at_age(-100, 0), 1);   // stamp ahead of uptime
    EXPECT_EQ(try_at_age(241, 0), 0);    // stale but foreign: stays on disk
    EXPECT_EQ(access(MESH_LOCK_FILE, F_OK), 0);
    EXPECT_EQ(try_at_age(241, 1), 0);    // stale and ours: removed
    EXPECT_NE(access(MESH_LOCK_FILE, F_OK), 0);
    EXPECT_EQ(g_mesh_locked, 0);

    write_stamp(uptime());
    EXPECT_EQ(tolvaRemoveMeshLock(), 0);   // not ours: untouched
    EXPECT_EQ(access(MESH_LOCK_FILE, F_OK), 0);
    EXPECT_EQ(tolvaGetMeshLock(), -1);

    unlink(MESH_LOCK_FILE);
    long before = uptime();
    EXPECT_EQ(tolvaGetMeshLock(), 1);
    EXPECT_EQ(g_mesh_locked, 1);
    EXPECT_GE(tolvaMeshLockStatus(), before);
    EXPECT_EQ(slurp(MESH_LOCK_FILE), std::to_string(tolvaMeshLockStatus()));
    EXPECT_EQ(tolvaRemoveMeshLock(), 0);
    EXPECT_NE(access(MESH_LOCK_FILE, F_OK), 0);
    log_level = 7;
}

TEST(MeshLock, FailureStatusFileName)
{
    f_string_write("/tmp/AAbbCCddEEff-status", "previous content", 16);
    tolvaMeshUpdateFailureStatus("AA:bb:CC:dd:EE:ff");
    EXPECT_EQ(slurp("/tmp/AAbbCCddEEff-status"), "failed");
    tolvaMeshUpdateFailureStatus("11:22:33:44:55:66:77");   // cut to 17 first
    EXPECT_EQ(slurp("/tmp/112233445566-status"), "failed");
    EXPECT_NE(access("/tmp/11223344556677-status", F_OK), 0);
}
