// Helpers below the protocol: base64/HMAC, logger and status record, command
// output and the injection guard, environment checks on canned command
// outputs, the gateway file, socket options, the mesh lock.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture.h"
#include "conn/sockopt.h"
#include "core/env.h"
#include "fake_sys.h"
#include "platform/meshlock.h"
#include "util/addr.h"
#include "util/codec.h"
#include "util/log.h"
#include "util/shell.h"

static std::string file(const char *path)
{
    char buf[64] = {0};
    FILE *f = fopen(path, "r");
    size_t n = f ? fread(buf, 1, sizeof(buf) - 1, f) : 0;
    if (f)
        fclose(f);
    return std::string(buf, n);
}

TEST(Util, Base64HmacAndRandomText)
{
    uint8_t dst[16];
    size_t olen = 0;
    ASSERT_EQ(base64_encode(dst, 9, &olen, (const uint8_t *)"\xff\xfe\x00\x80", 4), 0);
    EXPECT_EQ(std::string("//4AgA==") + std::to_string(olen), (char *)dst + std::to_string(8));
    EXPECT_EQ(base64_encode(dst, 8, &olen, (const uint8_t *)"abcd", 4), -42);   // no room for the NUL
    EXPECT_EQ(olen, 9u);
    memset(dst, '#', sizeof(dst));
    EXPECT_EQ(base64_encode(dst, sizeof(dst), &olen, (const uint8_t *)"", 0), 0);
    EXPECT_TRUE(olen == 0 && dst[0] == '#');
    log_level = 0;
    for (int role : {1, 0, 7}) {   // the shared key with 'x' (CAP) or 'q' (RE) first
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
    char out[128], rnd[16];
    EXPECT_EQ(get_hmac_base64(1, nullptr, 0, out, nullptr), -1);
    memset(rnd, 'z', sizeof(rnd));
    EXPECT_EQ(0, get_random_str(rnd, 15));
    EXPECT_TRUE(strspn(rnd, "0123456789abcdef") == 14 && rnd[14] == 0) << rnd;
    EXPECT_EQ(-1, get_random_str(nullptr, 15));
}

TEST(Util, LogLevelsAndStatusRecord)
{
    int evaluated = 0;
    std::string err = captured(stderr, [&] {
        EXPECT_EQ(log_mode_set(LOG_MODE_STDERR), 0);
        const int levels[][2] = {{8, 7}, {7, 7}, {-1, 0}, {0, 0}, {3, 3}};   // clamped to 0..7
        for (const auto &l : levels)
            EXPECT_EQ(l[1], (log_level_set(l[0]), log_level)) << l[0];
        EXPECT_EQ(log_mode_set(2), -1);
        EXPECT_EQ(log_mode, LOG_MODE_STDERR);
        LOG(4, "not shown %d\n", ++evaluated);
        LOG(3, "shown %d|\n", 42);
    });
    EXPECT_EQ(evaluated, 0);   // a filtered message evaluates nothing
    EXPECT_NE(std::string::npos, err.find("]: shown 42|\n")) << err;
    log_mode_set(LOG_MODE_SYSLOG);
    // Exactly the text on stdout, no line feed added: the platform reads it.
    EXPECT_EQ(captured(stdout, [] { report_status("%s=%s:%d", "mesh.re.conn.fail", "AUTH_FAILED", 1); }),
              "mesh.re.conn.fail=AUTH_FAILED:1");
    log_level = 7;
}

TEST(Util, CommandOutputInjectionGuardTrimAndFiles)
{
    const struct { const char *cmd; int size, rc; size_t len; } cases[] = {
        {"echo", 1024, 0, 1}, {"true", 1024, -1, 0},
        // An exact multiple of the 128-byte chunk ends in an empty read: failure.
        {"head -c 128 /dev/zero | tr '\\0' a", 1024, -1, 128}, {"head -c 129 /dev/zero | tr '\\0' b", 1024, 0, 129},
        {"head -c 200 /dev/zero | tr '\\0' c", 150, -1, 128},   // the second chunk does not fit
        {"printf 'abcd\\n'", 4, -1, 0}, {"echo", 0, -1, 1024}, {nullptr, 9, -1, 1024}};   // 1024: untouched
    char out[1024], buf[32];
    for (const auto &c : cases) {
        memset(out, 'z', sizeof(out));
        EXPECT_EQ(tolva_exec_cmd(c.cmd, out, c.size), c.rc) << c.cmd;
        EXPECT_EQ(strnlen(out, sizeof(out)), c.len) << c.cmd;
    }
    EXPECT_EQ(-1, tolva_exec_cmd("echo", nullptr, 9));
    EXPECT_STREQ(getCmdResult("echo hi", buf, sizeof(buf) - 1), "hi");
    memset(buf, 'x', sizeof(buf));
    EXPECT_STREQ(getCmdResult("true", buf + 1, 8), "");
    EXPECT_EQ(buf[0], 'x');
    EXPECT_STREQ(getCmdResultSlow("printf abcdef", buf, 4), "abcd");
    log_level = 0;
    for (const char *c = "@`$#,;'\\\"[]&*()|<>"; *c; c++)
        EXPECT_EQ(check_injection((std::string("ssid") + *c + "x").c_str()), -1) << *c;
    EXPECT_EQ(check_injection("My Net-5G/a.b:c=d!\n"), 0);
    int refused = 0, clean = 0;
    captured(stdout, [&] { refused = check_params("ss", "x", "y;z"), clean = check_params("s-s", "a", "b"); });
    EXPECT_TRUE(refused == -1 && clean == 0);
    char blanks[] = "   ", mixed[] = "\t ab c \r\n", vt[] = "\vx\f";
    EXPECT_STREQ(str_trim(blanks), "");
    EXPECT_EQ(str_trim(mixed), mixed);
    EXPECT_STREQ(mixed, "ab c");
    EXPECT_STREQ(str_trim(vt), "\vx\f");   // only blank, tab, CR and LF go
    EXPECT_EQ(f_string_write("/tmp/fs", "hello", 5), 1);
    char rd[16] = {0};
    EXPECT_EQ(f_string_read("/tmp/fs", rd, 10), 0);
    EXPECT_STREQ(rd, "hello");   // copied even though short
    EXPECT_EQ(f_string_read("/tmp/fs", rd, 5), 1);
    log_level = 7;
}

TEST(Util, EnvironmentChecksLightAndGatewayFile)
{
    log_level = 0;
    fake_sys_install();
    const struct { const char *cmd, *out; int32_t (*fn)(); int32_t rc; } checks[] = {
        {"cat /proc/veltrasso/ft_mode", "0\n", nullptr, 0}, {"boardkv get SN", "SN12\n", nullptr, 0},
        {"macinfo wan 2>/dev/null", "0123456789abcdefghijk\n", tolva_check_env, 0},   // a serial of 4 characters (line feed included) is enough
        {"boardkv get SN", "SN\n", tolva_check_env, -1}, {"boardkv get SN", "SN1\n", tolva_check_env, 0},
        {"macinfo wan 2>/dev/null", "", tolva_check_env, -1},
        {"uci -q get veltrasso.common.INITTED", "YESTERDAY\n", is_initted, 0},
        {"uci -q get veltrasso.common.INITTED", "yes\n", is_initted, -1},
        {"cat /tmp/boot_check_done 2>/dev/null", "1\n", check_boot_ready, 0},
        {"cat /tmp/boot_check_done 2>/dev/null", "0\n", check_boot_ready, -1},
        {"cat /tmp/boot_check_done 2>/dev/null", "", check_boot_ready, -1},
        {"/sbin/linkprobe link", "wan down\nplan: up\n", [] { return check_cable_pluged(1); }, -1},
        {"/sbin/linkprobe link", "wan down\nplan: up\n", [] { return check_cable_pluged(0); }, 0},   // "lan", "up"
        {"/sbin/linkprobe link", "wan: up\n", [] { return check_cable_pluged(1); }, 0},
        {"cat /proc/veltrasso/ft_mode", "1\n", tolva_check_env, -1}};
    for (const auto &c : checks) {
        fake_sys_answer(c.cmd, c.out);
        EXPECT_EQ(c.rc, c.fn ? c.fn() : 0) << c.cmd << " " << c.out;
    }
    EXPECT_EQ(fake_sys_log().back(), "popen: cat /proc/veltrasso/ft_mode");   // a factory box stops at step 1
    EXPECT_EQ(std::string(g_macaddr, sizeof(g_macaddr)), "0123456789abcdefghi");   // no terminator
    g_mesh_light = 0;
    for (int state : {0, 1, 0, 2, 5})
        switch_conning_light(state);
    EXPECT_EQ(fake_sys_system_cmds(), (std::vector<std::string>{"vsled meshing ", "vsled mesh_finish ", "vsled mesh_join ",
                                                                 "vsled mesh_finish "}));
    char name[16], gw[16], ip[16];
    fake_sys_answer("uci -q get network.wan.ifname", "br-wan\n");
    EXPECT_EQ(get_wan_ifname(name), 0);
    EXPECT_STREQ(name, "br");   // cut at the first non-alphanumeric
    fake_sys_answer("uci -q get wireless.wifi1.macaddr", "28:6c:07:11:22:34\n");
    fake_sys_answer("uci -q get misc.wireless.if_5G", "wifi1\n");
    char mac[19] = {0};
    EXPECT_TRUE(getWifiMac(mac, 3) == -1 && getWifiMac(mac, 1) == 0 && !strcmp(mac, "28:6c:07:11:22:34")) << mac;
    fake_sys_uninstall();
    const struct { const char *text; int32_t rc; const char *gw, *ip; } files[] = {
        {nullptr, -1, "", ""}, {"10.0.0.1\n", -1, "", ""}, {"  10.0.0.1 \r\n\t10.0.0.7\r\nextra\n", 0, "10.0.0.1", "10.0.0.7"},
        // Over-long lines are cut to 15 characters, never left unterminated.
        {"192.168.100.2000\n10.10.10.10.10.10\n", 0, "192.168.100.200", "10.10.10.10.10."}};
    for (const auto &c : files) {
        unlink(GW_IP_FILE);
        if (c.text)
            f_string_write(GW_IP_FILE, c.text, (uint32_t)strlen(c.text));
        memset(gw, 'z', 16), memset(ip, 'z', 16);
        EXPECT_EQ(c.rc, get_gw_ip(gw, ip)) << c.text;
        EXPECT_EQ(std::string(c.gw) + "/" + c.ip, std::string(gw) + "/" + ip);
    }
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
        EXPECT_EQ(0, getsockopt(fd, w[0], w[1], &(v = -1), &l));
        EXPECT_EQ(w[2], v) << w[1];
    }
    EXPECT_EQ(-1, set_fd_keepalive(-1));
    EXPECT_EQ(-1, set_fd_keepalive(null));   // not a socket
    set_fd_flag(fd, FD_CLOEXEC), set_fd_nonblocking(fd);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    int32_t n = fd;
    dd_destory_sockfd(&n);
    EXPECT_TRUE(n == -1 && fcntl(fd, F_GETFD) == -1);
    int reuse = dup(null);   // likely the same number: a second close must leave it
    dd_destory_sockfd(&n), dd_destory_sockfd(nullptr);
    EXPECT_NE(fcntl(reuse, F_GETFD), -1);
    close(reuse), close(null);
}

// Asks about a lock `age` seconds old; again if the uptime second turned over.
static int try_at_age(long age, int owned)
{
    for (;;) {
        long now = uptime();
        std::string s = std::to_string(now - age);
        f_string_write(MESH_LOCK_FILE, s.data(), (uint32_t)s.size());
        g_mesh_locked = owned;
        int r = tolvaTryRemoveMeshLock();
        if (uptime() == now)
            return r;
    }
}

TEST(Util, MeshLockLifeOwnershipAndStatusFiles)
{
    log_level = 0;
    unlink(MESH_LOCK_FILE);
    EXPECT_EQ(tolvaMeshLockStatus(), 0);
    const int ages[][3] = {{240, 0, 1}, {-100, 0, 1}, {241, 0, 0}, {241, 1, 0}};   // age, ours, live
    for (const auto &a : ages) {
        EXPECT_EQ(a[2], try_at_age(a[0], a[1])) << a[0];
        EXPECT_EQ(a[1] && !a[2] ? -1 : 0, access(MESH_LOCK_FILE, F_OK)) << "stale: removed only when ours";
    }
    EXPECT_EQ(g_mesh_locked, 0);
    try_at_age(0, 0);
    EXPECT_EQ(tolvaRemoveMeshLock(), 0);   // not ours: untouched
    EXPECT_EQ(access(MESH_LOCK_FILE, F_OK), 0);
    EXPECT_EQ(tolvaGetMeshLock(), -1);
    unlink(MESH_LOCK_FILE);
    long before = uptime();
    EXPECT_EQ(tolvaGetMeshLock(), 1);
    EXPECT_EQ(g_mesh_locked, 1);
    EXPECT_GE(tolvaMeshLockStatus(), before);
    EXPECT_EQ(file(MESH_LOCK_FILE), std::to_string(tolvaMeshLockStatus()));
    EXPECT_EQ(tolvaRemoveMeshLock(), 0);
    EXPECT_NE(access(MESH_LOCK_FILE, F_OK), 0);
    // Failure marks: the MAC without colons, cut to 17 characters first.
    f_string_write("/tmp/AAbbCCddEEff-status", "previous content", 16);
    tolvaMeshUpdateFailureStatus("AA:bb:CC:dd:EE:ff");
    tolvaMeshUpdateFailureStatus("11:22:33:44:55:66:77");
    EXPECT_EQ(file("/tmp/AAbbCCddEEff-status") + file("/tmp/112233445566-status"), "failedfailed");
    log_level = 7;
}
