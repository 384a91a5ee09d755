// Socket close, the mesh lock's life and the per-peer status files.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <unistd.h>

#include "conn/sockopt.h"
#include "platform/meshlock.h"
#include "util/log.h"
#include "util/shell.h"

static std::string slurp(const char *path)
{
    std::ifstream f(path);
    return std::string(std::istreambuf_iterator<char>(f), {});
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

TEST(SockOpt, CloseOnlyOnce)
{
    int tcp = socket(AF_INET, SOCK_STREAM, 0);
    int32_t fd = tcp;
    dd_destory_sockfd(&fd);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(fcntl(tcp, F_GETFD), -1);
    int reuse = socket(AF_INET, SOCK_STREAM, 0);   // likely the same number
    dd_destory_sockfd(&fd);
    dd_destory_sockfd(nullptr);
    EXPECT_NE(fcntl(reuse, F_GETFD), -1);
    close(reuse);
}

// A peer pulled off the cable is noticed in about 6 s: probes after 3 s idle, 1 s apart, 3 of them.
TEST(SockOpt, OptionsReadBack)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0), null = open("/dev/null", O_RDONLY);
    ASSERT_EQ(0, set_fd_keepalive(fd));
    const struct { int level, name, value; } want[] = {
        {SOL_SOCKET, SO_KEEPALIVE, 1}, {IPPROTO_TCP, TCP_KEEPIDLE, 3}, {IPPROTO_TCP, TCP_KEEPINTVL, 1}, {IPPROTO_TCP, TCP_KEEPCNT, 3}};
    for (const auto &w : want) {
        int v = -1;
        socklen_t l = sizeof(v);
        ASSERT_EQ(0, getsockopt(fd, w.level, w.name, &v, &l));
        EXPECT_EQ(w.value, v) << w.name;
    }
    EXPECT_EQ(-1, set_fd_keepalive(-1));
    EXPECT_EQ(-1, set_fd_keepalive(null));   // not a socket
    set_fd_flag(fd, FD_CLOEXEC);
    set_fd_nonblocking(fd);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    close(fd);
    close(null);
}

TEST(MeshLock, LifeOwnershipAndStamps)
{
    log_level = 0;
    EXPECT_EQ(tolvaMeshLockStatus(), 0);   // no file
    write_stamp(0);
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

    // Failure marks: the MAC without colons, cut to 17 characters first.
    f_string_write("/tmp/AAbbCCddEEff-status", "previous content", 16);
    tolvaMeshUpdateFailureStatus("AA:bb:CC:dd:EE:ff");
    EXPECT_EQ(slurp("/tmp/AAbbCCddEEff-status"), "failed");
    tolvaMeshUpdateFailureStatus("11:22:33:44:55:66:77");
    EXPECT_EQ(slurp("/tmp/112233445566-status"), "failed");
    log_level = 7;
}
