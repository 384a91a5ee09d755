// Helpers below the protocol, at their boundaries: HMAC of each role, log
// levels, command output chunks, the injection guard, environment checks,
// socket options, the mesh lock's life.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <string>

#include "capture.h"
#include "conn/sockopt.h"
#include "platform/env.h"
#include "fake_sys.h"
#include "platform/meshlock.h"
#include "util/addr.h"
#include "util/codec.h"
#include "util/log.h"
#include "util/shell.h"

TEST(Util, HmacOfEachRoleLogLevelsAndStatusRecord)
{
    EXPECT_EQ(7, log_level);   // until -l says otherwise
    log_level = 0;
    for (int role : {1, 0, 7}) {   // the shared key with 'x' (CAP) or 'q' (RE) first, as a peer computes it
        std::string key = g_shared_key, want;
        key[0] = role ? 'x' : 'q';
        FILE *p = popen(("printf 0a1b2c3d4e5f60 | openssl dgst -sha256 -hmac '" + key + "' -binary | base64").c_str(), "r");
        for (int c; (c = fgetc(p)) != EOF && c != '\n';)
            want += (char)c;
        pclose(p);
        char out[128];
        int32_t len = 0;
        ASSERT_EQ(get_hmac_base64(role, "0a1b2c3d4e5f60", 3, out, &len), 0);
        EXPECT_EQ(want + "/44", std::string(out) + "/" + std::to_string(len)) << role;
    }
    int evaluated = 0;
    std::string err = captured(stderr, [&] {
        EXPECT_EQ(log_mode_set(LOG_MODE_STDERR) + log_mode_set(2), -1);   // an unknown mode is refused
        for (const auto &l : {std::make_pair(8, 7), {7, 7}, {-1, 0}, {3, 3}})
            EXPECT_EQ(l.second, log_level_set(l.first) + log_level) << l.first;   // clamped to 0..7
        LOG(4, "not shown %d\n", ++evaluated);
        LOG(3, "shown %d|\n", 42);
    });
    EXPECT_TRUE(evaluated == 0 && err.find("]: shown 42|\n") != std::string::npos) << err;   // nothing evaluated
    log_mode_set(LOG_MODE_SYSLOG);
    // Exactly the text on stdout, no line feed added: the platform reads it.
    EXPECT_EQ("mesh.re.conn.fail=AUTH_FAILED:1",
              captured(stdout, [] { report_status("%s=%s:%d", "mesh.re.conn.fail", "AUTH_FAILED", 1); }));
    log_level = 7;
}

TEST(Util, CommandOutputAndInjectionGuard)
{
    const struct { const char *cmd; int size, rc; size_t len; } cases[] = {
        {"echo", 1024, 0, 1}, {"true", 1024, -1, 0},
        // An exact multiple of the 128-byte chunk ends in an empty read: failure.
        {"head -c 128 /dev/zero | tr '\\0' a", 1024, -1, 128}, {"head -c 129 /dev/zero | tr '\\0' b", 1024, 0, 129},
        {"head -c 200 /dev/zero | tr '\\0' c", 150, -1, 128},   // the second chunk does not fit
        {"head -c 129 /dev/zero | tr '\\0' d", 130, 0, 129},     // it fits exactly, terminator included
        {"printf 'abcd\\n'", 4, -1, 0}, {"echo", 0, -1, 64}};    // 64: untouched
    char out[64], buf[16];
    for (const auto &c : cases) {
        char big[1024];
        memset(big, 'z', sizeof(big)), memset(out, 'z', sizeof(out));
        EXPECT_EQ(tolva_exec_cmd(c.cmd, c.size ? big : out, c.size), c.rc) << c.cmd;
        EXPECT_EQ(c.size ? strnlen(big, sizeof(big)) : strnlen(out, 64), c.len) << c.cmd;
    }
    EXPECT_STREQ(getCmdResultSlow("printf abcdef", buf, 4), "abcd");
    size_t olen = 0;   // base64 of 4 bytes takes 8 and the terminator
    EXPECT_TRUE(base64_encode((uint8_t *)buf, 8, &olen, (const uint8_t *)"abcd", 4) == -42 && olen == 9);
    EXPECT_TRUE(base64_encode((uint8_t *)buf, 8, &olen, (const uint8_t *)"abcdef", 6) == -42 && olen == 9);
    EXPECT_TRUE(base64_encode((uint8_t *)buf, 9, &olen, (const uint8_t *)"\xff\xfe\x00\x80", 4) == 0 && !strcmp(buf, "//4AgA=="));
    log_level = 0;
    for (const char *c = "@`$#,;'\\\"[]&*()|<>"; *c; c++)
        EXPECT_EQ(check_injection((std::string("ssid") + *c + "x").c_str()), -1) << *c;
    EXPECT_EQ(check_injection("My Net-5G/a.b:c=d!\n"), 0);
    int refused = 0, clean = 0;
    captured(stdout, [&] { refused = check_params("ss", "x", "y;z"), clean = check_params("s-s", "a", "b"); });
    EXPECT_TRUE(refused == -1 && clean == 0);
    log_level = 7;
}

TEST(Util, EnvironmentChecks)
{
    log_level = 0;
    fake_sys_install();
    const struct { const char *cmd, *out; int32_t (*fn)(); int32_t rc; } checks[] = {
        {"cat /proc/veltrasso/ft_mode", "0\n", nullptr, 0}, {"boardkv get SN", "SN12\n", nullptr, 0},
        {"macinfo wan 2>/dev/null", "0123456789abcdefghijk\n", tolva_check_env, 0},
        // A serial of 4 characters, line feed included, is enough.
        {"boardkv get SN", "SN\n", tolva_check_env, -1}, {"boardkv get SN", "SN1\n", tolva_check_env, 0},
        {"macinfo wan 2>/dev/null", "", tolva_check_env, -1},
        {"uci -q get veltrasso.common.INITTED", "YESTERDAY\n", is_initted, 0},
        {"uci -q get veltrasso.common.INITTED", "yes\n", is_initted, -1},
        {"cat /tmp/boot_check_done 2>/dev/null", "1\n", check_boot_ready, 0},
        {"cat /tmp/boot_check_done 2>/dev/null", "0\n", check_boot_ready, -1},
        {"/sbin/linkprobe link", "wan down\nplan: up\n", [] { return check_cable_pluged(1); }, -1},
        {"/sbin/linkprobe link", "wan down\nplan: up\n", [] { return check_cable_pluged(0); }, 0},   // "lan", "up"
        {"cat /proc/veltrasso/ft_mode", "1\n", tolva_check_env, -1}};
    for (const auto &c : checks) {
        fake_sys_answer(c.cmd, c.out);
        EXPECT_EQ(c.rc, c.fn ? c.fn() : 0) << c.cmd << " " << c.out;
    }
    EXPECT_EQ(fake_sys_log().back(), "popen: cat /proc/veltrasso/ft_mode");   // a factory box stops at step 1
    EXPECT_EQ(std::string(g_macaddr, sizeof(g_macaddr)), "0123456789abcdefghi");   // no terminator
    char name[16], mac[19] = {0};
    fake_sys_answer("uci -q get network.wan.ifname", "br-wan\n");
    EXPECT_TRUE(get_wan_ifname(name) == 0 && !strcmp(name, "br")) << name;   // cut at the first non-alphanumeric
    fake_sys_router();
    EXPECT_TRUE(getWifiMac(mac, 1) == 0 && !strcmp(mac, "28:6c:07:11:22:34")) << mac;
    fake_sys_answer("*", FAKE_SYS_FAIL);   // no command can be started
    EXPECT_TRUE(tolva_exec_cmd("x", name, 16) == -1 && getWifiMac(mac, 0) == -1 && !getCmdResult("x", name, 8));
    EXPECT_TRUE(check_boot_ready() == -1 && is_initted() == -1 && tolva_check_env() == -1);
    fake_sys_uninstall();
    log_level = 7;
}

// A peer pulled off the cable is noticed in about 6 s: probes after 3 s idle, 1 s apart, 3 of them.
TEST(Util, SocketOptionsReadBackAndCloseOnce)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0), null = open("/dev/null", O_RDONLY), v;
    ASSERT_EQ(0, set_fd_keepalive(fd));
    const int want[][3] = {{SOL_SOCKET, SO_KEEPALIVE, 1}, {IPPROTO_TCP, TCP_KEEPIDLE, 3}, {IPPROTO_TCP, TCP_KEEPINTVL, 1},
                           {IPPROTO_TCP, TCP_KEEPCNT, 3}};
    for (const auto &w : want) {
        socklen_t l = sizeof(v);
        EXPECT_TRUE(getsockopt(fd, w[0], w[1], &(v = -1), &l) == 0 && v == w[2]) << w[1] << " " << v;
    }
    EXPECT_EQ(-2, set_fd_keepalive(-1) + set_fd_keepalive(null));   // no socket, twice
    set_fd_flag(fd, FD_CLOEXEC), set_fd_nonblocking(fd);
    EXPECT_TRUE(fcntl(fd, F_GETFD) == FD_CLOEXEC && fcntl(fd, F_GETFL) & O_NONBLOCK);
    int32_t n = fd;
    dd_destory_sockfd(&n);
    int reuse = dup(null);   // likely the same number: a second close must leave it
    dd_destory_sockfd(&n), dd_destory_sockfd(nullptr);
    EXPECT_TRUE(n == -1 && fcntl(reuse, F_GETFD) != -1);
    close(reuse), close(null);
}

TEST(Util, MeshLockLifeOwnershipAndStatusFile)
{
    log_level = 0;
    unlink(MESH_LOCK_FILE);
    EXPECT_EQ(tolvaMeshLockStatus(), 0);
    const int ages[][3] = {{240, 0, 1}, {-100, 0, 1}, {241, 0, 0}, {241, 1, 0}};   // age, ours, live
    for (const auto &a : ages)
        for (long now = -1; now != uptime();) {   // again if the uptime second turned over
            now = uptime();
            std::string s = std::to_string(now - a[0]);
            f_string_write(MESH_LOCK_FILE, s.data(), (uint32_t)s.size());
            g_mesh_locked = a[1];
            EXPECT_EQ(a[2], tolvaTryRemoveMeshLock()) << a[0];
            EXPECT_EQ(a[1] && !a[2] ? -1 : 0, access(MESH_LOCK_FILE, F_OK)) << "a stale lock is removed only when ours";
        }
    EXPECT_EQ(g_mesh_locked, 0);
    f_string_write(MESH_LOCK_FILE, "1", 1);
    EXPECT_EQ(tolvaRemoveMeshLock(), 0);   // not ours: untouched
    EXPECT_EQ(access(MESH_LOCK_FILE, F_OK), 0);
    unlink(MESH_LOCK_FILE);
    EXPECT_TRUE(tolvaGetMeshLock() == 1 && g_mesh_locked == 1 && tolvaGetMeshLock() == -1);
    EXPECT_GE(tolvaMeshLockStatus(), uptime() - 1);
    EXPECT_TRUE(tolvaRemoveMeshLock() == 0 && access(MESH_LOCK_FILE, F_OK) != 0);
    // A refused peer's mark: its MAC without colons, cut to 17 characters first.
    f_string_write("/tmp/112233445566-status", "previous content", 16);
    tolvaMeshUpdateFailureStatus("11:22:33:44:55:66:77");
    char st[17] = {0};
    EXPECT_TRUE(f_string_read("/tmp/112233445566-status", st, 6) == 1 && !strcmp(st, "failed")) << st;
    log_level = 7;
}
