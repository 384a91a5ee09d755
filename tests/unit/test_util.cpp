// Below the protocol, at the boundaries: HMAC, logs, command output and injection guard,
// environment, socket options, mesh lock; the command lines handed to the platform.
#include <gtest/gtest.h>

#include "testing.h"
#include "util/pstat.h"

TEST(Util, HmacOfEachRoleLogLevelsAndStatusRecord)
{
    EXPECT_EQ(7, log_level);   // until -l says otherwise
    log_level = 0;
    // The shared key with 'x' (CAP) or 'q' (RE) first, as a peer computes it.
    for (int role : {1, 0, 7}) {
        std::string key = g_shared_key;
        std::string want;
        key[0] = role ? 'x' : 'q';
        FILE *p = popen(
            ("printf 0a1b2c3d4e5f60 | openssl dgst -sha256 -hmac '" + key + "' -binary | base64")
                .c_str(),
            "r");
        for (int c; (c = fgetc(p)) != EOF && c != '\n';)
            want += (char)c;
        pclose(p);
        char out[128];
        int32_t len = 0;
        ASSERT_EQ(get_hmac_base64(role, "0a1b2c3d4e5f60", 3, out, &len), 0);
        EXPECT_EQ(want, out) << "role " << role;
        EXPECT_EQ(44, len) << "role " << role;
    }
    int evaluated = 0;
    std::string err = captured(stderr, [&] {
        EXPECT_EQ(0, log_mode_set(LOG_MODE_STDERR));
        EXPECT_EQ(-1, log_mode_set(2));   // an unknown mode is refused
        for (const auto &l : {std::make_pair(8, 7), {7, 7}, {-1, 0}, {3, 3}}) {
            EXPECT_EQ(0, log_level_set(l.first)) << l.first;
            EXPECT_EQ(l.second, log_level) << l.first;   // clamped to 0..7
        }
        LOG(4, "not shown %d\n", ++evaluated);
        LOG(3, "shown %d|\n", 42);
    });
    EXPECT_EQ(0, evaluated);   // a level not shown evaluates nothing
    EXPECT_NE(std::string::npos, err.find("]: shown 42|\n")) << err;
    log_mode_set(LOG_MODE_SYSLOG);
    // Exactly the text on stdout, no line feed added: the platform reads it.
    EXPECT_EQ("mesh.re.conn.fail=AUTH_FAILED:1", captured(stdout, [] {
                  report_status("%s=%s:%d", "mesh.re.conn.fail", "AUTH_FAILED", 1);
              }));
    log_level = 7;
}

TEST(Util, CommandOutputAndInjectionGuard)
{
    fake_sys_real_sleep = true;   // real commands, really waited for
    const struct {
        const char *cmd;
        int size, rc;
        size_t len;
    } cases[] = {
        {"echo", 1024, 0, 1},
        {"true", 1024, -1, 0},
        // An exact multiple of the 128-byte chunk ends in an empty read: failure.
        {"head -c 128 /dev/zero | tr '\\0' a", 1024, -1, 128},
        {"head -c 129 /dev/zero | tr '\\0' b", 1024, 0, 129},
        {"head -c 200 /dev/zero | tr '\\0' c", 150, -1, 128},   // the second chunk does not fit
        {"head -c 129 /dev/zero | tr '\\0' d", 130, 0, 129},    // it fits, terminator included
        {"printf 'abcd\\n'", 4, -1, 0},
        {"echo", 0, -1, 64}};   // 64: untouched
    char out[64], buf[16];
    for (const auto &c : cases) {
        char big[1024];
        memset(big, 'z', sizeof(big));
        memset(out, 'z', sizeof(out));
        EXPECT_EQ(tolva_exec_cmd(c.cmd, c.size ? big : out, c.size), c.rc) << c.cmd;
        EXPECT_EQ(c.size ? strnlen(big, sizeof(big)) : strnlen(out, 64), c.len) << c.cmd;
    }
    EXPECT_STREQ(getCmdResultSlow("printf abcdef", buf, 4), "abcd");
    const struct {
        const char *in;
        size_t n, dlen;
        int32_t rc;
    } b64[] = {{"abcd", 4, 8, -42}, {"abcdef", 6, 8, -42}, {"\xff\xfe\x00\x80", 4, 9, 0}};
    for (const auto &b : b64) {
        size_t olen = 0;   // base64 of 4 bytes takes 8 and the terminator
        EXPECT_EQ(b.rc, base64_encode((uint8_t *)buf, b.dlen, &olen, (const uint8_t *)b.in, b.n))
            << b.n << " bytes into " << b.dlen;
        EXPECT_EQ(b.rc ? 9u : 8u, olen) << b.n << " bytes into " << b.dlen;
    }
    EXPECT_STREQ("//4AgA==", buf);
    log_level = 0;
    for (const char *c = "@`$#,;'\\\"[]&*()|<>"; *c; c++)
        EXPECT_EQ(check_injection((std::string("ssid") + *c + "x").c_str()), -1) << *c;
    EXPECT_EQ(check_injection("My Net-5G/a.b:c=d!\n"), 0);
    captured(stdout, [] {
        EXPECT_EQ(-1, check_params("ss", "x", "y;z"));
        EXPECT_EQ(0, check_params("s-s", "a", "b"));
    });
    log_level = 7;
    fake_sys_real_sleep = false;
}

TEST(Util, EnvironmentChecks)
{
    log_level = 0;
    fake_sys_install();
    const struct {
        const char *cmd, *out;
        int32_t (*fn)();
        int32_t rc;
    } checks[] = {
        {"cat /proc/veltrasso/ft_mode", "0\n", nullptr, 0},
        {"boardkv get SN", "SN12\n", nullptr, 0},
        {"macinfo wan 2>/dev/null", "0123456789abcdefghijk\n", tolva_check_env, 0},
        // A serial of 4 characters, line feed included, is enough.
        {"boardkv get SN", "SN\n", tolva_check_env, -1},
        {"boardkv get SN", "SN1\n", tolva_check_env, 0},
        {"macinfo wan 2>/dev/null", "", tolva_check_env, -1},
        {"uci -q get veltrasso.common.INITTED", "YESTERDAY\n", is_initted, 0},
        {"uci -q get veltrasso.common.INITTED", "yes\n", is_initted, -1},
        {"cat /tmp/boot_check_done 2>/dev/null", "1\n", check_boot_ready, 0},
        {"cat /tmp/boot_check_done 2>/dev/null", "0\n", check_boot_ready, -1},
        {"/sbin/linkprobe link", "wan down\nplan: up\n", [] { return check_cable_pluged(1); }, -1},
        {"/sbin/linkprobe link", "wan down\nplan: up\n", [] { return check_cable_pluged(0); },
         0}};   // "lan", "up"
    for (const auto &c : checks) {
        fake_sys_answer(c.cmd, c.out);
        EXPECT_EQ(c.rc, c.fn ? c.fn() : 0) << c.cmd << " " << c.out;
    }
    fake_sys_install();
    fake_sys_answer("cat /proc/veltrasso/ft_mode", "1\n");   // a factory box stops at step 1
    EXPECT_EQ(-1, tolva_check_env());
    EXPECT_FALSE(fake_sys_ran("boardkv get SN"));
    EXPECT_EQ(std::string(g_macaddr, sizeof(g_macaddr)), "0123456789abcdefghi");   // no terminator
    char name[16];
    char mac[19] = {0};
    fake_sys_answer("uci -q get network.wan.ifname", "br-wan\n");
    EXPECT_EQ(0, get_wan_ifname(name));
    EXPECT_STREQ("br", name);   // cut at the first non-alphanumeric
    fake_sys_router();
    EXPECT_EQ(0, getWifiMac(mac, 1));
    EXPECT_STREQ("28:6c:07:11:22:34", mac);
    fake_sys_answer("*", FAKE_SYS_FAIL);   // no command can be started
    const int32_t rcs[] = {tolva_exec_cmd("x", name, 16), getWifiMac(mac, 0), check_boot_ready(),
                           is_initted(), tolva_check_env()};
    for (size_t i = 0; i < 5; i++)
        EXPECT_EQ(-1, rcs[i]) << "call " << i << " without a shell";
    EXPECT_EQ(nullptr, getCmdResult("x", name, 8));
    sys_set_ops(nullptr);
    log_level = 7;
}

// A peer pulled off the cable is noticed in about 6 s: probes after 3 s idle, 1 s apart, 3 of them.
TEST(Util, SocketOptionsReadBackAndCloseOnce)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int null = open("/dev/null", O_RDONLY);
    ASSERT_EQ(0, set_fd_keepalive(fd));
    const int want[][3] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                           {IPPROTO_TCP, TCP_KEEPIDLE, 3},
                           {IPPROTO_TCP, TCP_KEEPINTVL, 1},
                           {IPPROTO_TCP, TCP_KEEPCNT, 3}};
    for (const auto &w : want) {
        int v = -1;
        socklen_t l = sizeof(v);
        EXPECT_EQ(0, getsockopt(fd, w[0], w[1], &v, &l));
        EXPECT_EQ(w[2], v) << "option " << w[1];
    }
    EXPECT_EQ(-1, set_fd_keepalive(-1));     // no socket
    EXPECT_EQ(-1, set_fd_keepalive(null));   // not a socket
    set_fd_flag(fd, FD_CLOEXEC);
    set_fd_nonblocking(fd);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(O_NONBLOCK, fcntl(fd, F_GETFL) & O_NONBLOCK);
    int32_t n = fd;
    dd_destory_sockfd(&n);
    int reuse = dup(null);   // likely the same number: a second close must leave it
    dd_destory_sockfd(&n);
    dd_destory_sockfd(nullptr);
    EXPECT_EQ(-1, n);
    EXPECT_NE(-1, fcntl(reuse, F_GETFD));
    int keep = dup(0);   // descriptor 0 is one like any other (a daemon started with stdin closed)
    close(0);
    n = dup(null);
    dd_destory_sockfd(&n);
    EXPECT_EQ(-1, n);
    EXPECT_EQ(-1, fcntl(0, F_GETFD));
    dup2(keep, 0);
    close(keep);
    close(reuse);
    close(null);
}

TEST(Util, MeshLockLifeOwnershipAndStatusFile)
{
    log_level = 0;
    unlink(MESH_LOCK_FILE);
    EXPECT_EQ(tolvaMeshLockStatus(), 0);
    fake_sys_uptime = 1000;
    const int ages[][3] = {
        {240, 0, 1}, {-100, 0, 1}, {241, 0, 0}, {241, 1, 0}};   // age, ours, live
    for (const auto &a : ages) {
        SCOPED_TRACE("a lock " + std::to_string(a[0]) + " s old, ours: " + std::to_string(a[1]));
        std::string s = std::to_string(1000 - a[0]);
        f_string_write(MESH_LOCK_FILE, s.data(), (uint32_t)s.size());
        g_mesh_locked = a[1];
        EXPECT_EQ(a[2], tolvaTryRemoveMeshLock());
        EXPECT_EQ(a[1] && !a[2] ? -1 : 0, access(MESH_LOCK_FILE, F_OK)) << "removed only when ours";
    }
    EXPECT_EQ(g_mesh_locked, 0);
    f_string_write(MESH_LOCK_FILE, "1", 1);
    EXPECT_EQ(0, tolvaRemoveMeshLock());
    EXPECT_EQ(0, access(MESH_LOCK_FILE, F_OK));   // not ours: untouched
    unlink(MESH_LOCK_FILE);
    EXPECT_EQ(1, tolvaGetMeshLock());
    EXPECT_EQ(1, g_mesh_locked);
    EXPECT_EQ(-1, tolvaGetMeshLock());
    EXPECT_EQ(1000, tolvaMeshLockStatus());
    EXPECT_EQ(0, tolvaRemoveMeshLock());
    EXPECT_EQ(-1, access(MESH_LOCK_FILE, F_OK));
    // A refused peer's mark: its MAC without colons, cut to 17 characters first.
    f_string_write("/tmp/112233445566-status", "previous content", 16);
    tolvaMeshUpdateFailureStatus("11:22:33:44:55:66:77");
    char st[17] = {0};
    EXPECT_EQ(1, f_string_read("/tmp/112233445566-status", st, 6));
    EXPECT_STREQ("failed", st);
    log_level = 7;
    fake_sys_uptime = 0;
}

// Each phase as written; a change renames a new file over it, a repeated call writes none.
TEST(Util, StatusFileAtEachPhase)
{
    memset(&g_pstat, 0, sizeof(g_pstat));
    g_is_server = 0;
    fake_sys_uptime = 300;
    pstat_begin(PS_CONNECTING, "192.168.77.1\"}");
    pstat_macs("28:6C:07:20:00:01", nullptr, "x");
    const struct {
        int32_t phase;
        const char *name;
        int failed, pairings;   // after the time-out in auth; pairings so far
    } rows[] = {{PS_DISCOVERY, "discovery", 0, 0},
                {PS_CONNECTING, "connecting", 0, 0},
                {PS_TLS, "tls", 0, 0},
                {PS_AUTH, "auth", 0, 0},
                {PS_FAILED, "failed", 1, 0},
                {PS_CONFIG, "config", 1, 0},
                {PS_INITIALISING, "initialising", 1, 0},
                {PS_PAIRED, "paired", 1, 1},
                {PS_WAITING, "waiting", 1, 1}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        struct stat was = {}, now = {};
        stat(PSTAT_FILE, &was);
        r.phase == PS_FAILED ? pstat_fail("TIMEOUT") : pstat_phase(r.phase);
        stat(PSTAT_FILE, &now);
        EXPECT_NE(now.st_ino, was.st_ino);
        pstat_phase(r.phase);
        stat(PSTAT_FILE, &was);
        EXPECT_EQ(was.st_ino, now.st_ino);
        char want[PSTAT_TEXT_SIZE], got[PSTAT_TEXT_SIZE] = {0};
        snprintf(want, sizeof(want),
                 "{\"role\":\"re\",\"pid\":%d,\"phase\":\"%s\",\"since\":300,\"peer\":{\"addr\":"
                 "\"192.168.77.1??\",\"mac\":\"28:6C:07:20:00:01\",\"mac2\":\"\",\"mac5\":\"?\"},"
                 "\"last_failure\":{\"reason\":\"%s\",\"phase\":\"%s\"},\"attempts\":1,"
                 "\"pairings\":%d,\"refusals\":0}\n",
                 (int)getpid(), r.name, r.failed ? "TIMEOUT" : "", r.failed ? "auth" : "",
                 r.pairings);
        f_string_read(PSTAT_FILE, got, sizeof(got) - 1);
        EXPECT_STREQ(got, want);
    }
}

// A command starts with no signal blocked and SIGPIPE (bit 12) not ignored, though
// the thread that runs it blocks them all and the daemon handles SIGPIPE.
TEST(Util, CommandsStartWithCleanSignalState)
{
    sig_install([](int) {}, [] {});
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    char out[64] = {0};
    char *end;
    FILE *p =
        sys_popen("sed -n 's/^Sig\\(Blk\\|Ign\\):\\s*/0x/p' /proc/$$/status | tr '\\n' ' '", "r");
    ASSERT_NE(nullptr, p);
    ASSERT_NE(nullptr, fgets(out, sizeof(out), p));
    ASSERT_EQ(0, sys_pclose(p));
    EXPECT_EQ(0u, strtoull(out, &end, 16)) << "blocked: " << out;
    EXPECT_EQ(0u, strtoull(end, nullptr, 16) & 1ull << (SIGPIPE - 1)) << "ignored: " << end;
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

TEST(Platform, CollectionVariants)
{
    // Only the first four characters of the encryption pick sae_password; bsd is on for any first character but "0".
    const struct {
        const char *enc, *key, *bsd_answer;
        int bsd;
    } cases[] = {{"ccmp", "sae-secret", "0\n", 0},
                 {"ccmp256", "sae-secret", "", 0},
                 {"psk2+ccmp", "psk-secret", "\n", 0},
                 {"none", "psk-secret", "2\n", 1},
                 {"psk2", "psk-secret", "01\n", 0}};
    fake_sys_install();
    fake_sys_router();
    WiFiConfig cfg;
    WiFiConfig again;
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("encryption ") + c.enc + ", bsd answer " + c.bsd_answer);
        fake_sys_answer("uci -q get wireless.wifi2.encryption", std::string(c.enc) + "\n");
        fake_sys_answer("uci -q get wireless.wifi1.bsd", c.bsd_answer);
        ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
        EXPECT_STREQ(c.key, cfg.key_2g);
        EXPECT_STREQ(c.enc, cfg.enc_2g);
        EXPECT_EQ(c.bsd, cfg.bsd);
    }
    // The backhaul band picks the AP; 16 characters do not fit a 16-byte band: 5g.
    char band[16];
    fake_sys_answer("mesh_tool backhaul get band", "2g");
    fake_sys_answer("uci -q get misc.backhauls.backhaul_2g_ap_iface", "wl5\n");
    EXPECT_EQ(band, tolva_get_bh_band(band, sizeof(band)));
    EXPECT_STREQ("2g", band);
    EXPECT_EQ(0, tolvaGetWiFiConfig(&cfg));
    EXPECT_TRUE(fake_sys_ran("uci -q get misc.backhauls.backhaul_2g_ap_iface"));
    for (const char *b : {"abcdefghijklmnop", ""}) {
        fake_sys_answer("mesh_tool backhaul get band", b);
        EXPECT_EQ(nullptr, tolva_get_bh_band(band, sizeof(band))) << b;
    }
    // The band set goes with the band the tool printed; DFS support is a number.
    const char *const tool[][4] = {{"5g", "0\n", "2\n", "0"},
                                   {"5g", "1\n", "0\n", "-1"},
                                   {"", "0\n", "", "-1"},
                                   {"5g", "", "", "-1"}};
    for (const auto &t : tool) {
        fake_sys_answer("mesh_tool backhaul get band 2g", t[0]);
        fake_sys_answer("mesh_tool backhaul set band 5g;echo $?", t[1]);
        fake_sys_answer("uci -q get misc.mesh.support_dfs", t[2]);
        EXPECT_EQ(atoi(t[3]), tolva_set_bh_band("2g")) << t[0] << t[1];
        EXPECT_EQ(t[2][0] > '0', tolva_mesh_support_dfs()) << t[2];
    }
    int32_t freqs[4];
    EXPECT_EQ(-1, tolva_set_bh_band(nullptr));
    EXPECT_EQ(-1, tolva_get_freq_list(1, "lo", freqs));   // no wireless here
    // No backhaul section yet: a new random network each time.
    fake_sys_answer("uci show wireless | grep -w \"ifname='wl5'\" | cut -d '.' -f1-2", "");
    ASSERT_EQ(0, tolvaGetWiFiConfig(&cfg));
    ASSERT_EQ(0, tolvaGetWiFiConfig(&again));
    EXPECT_EQ("KvMesh_", std::string(cfg.bh_ssid, 7));
    EXPECT_EQ(8u, strspn(cfg.bh_ssid + 7, "0123456789abcdef")) << cfg.bh_ssid;
    EXPECT_EQ(16u, strspn(cfg.bh_key, "0123456789abcdef")) << cfg.bh_key;
    EXPECT_EQ(31u, strlen(cfg.bh_ssid) + strlen(cfg.bh_key));
    EXPECT_STRNE(cfg.bh_ssid, again.bh_ssid);
    EXPECT_STRNE(cfg.bh_key, again.bh_key);
    fake_sys_answer("uci show wireless | grep -w \"ifname='wl0'\" | cut -d '.' -f1-2",
                    FAKE_SYS_FAIL);
    EXPECT_EQ(-1, tolvaGetWiFiConfig(&cfg));   // a query that cannot run
}

TEST(Platform, CommandLineVariantsAndScriptStatus)
{
    fake_sys_install();
    WiFiConfig cfg{};
    strcpy(cfg.ssid_2g, "Home-2G");
    strcpy(cfg.key_2g, "secret123");
    strcpy(cfg.enc_2g, "none");
    strcpy(cfg.bh_ssid, "KvMesh_ab12cd34");
    strcpy(cfg.bh_key, "k3y");
    strcpy(cfg.bh_enc, "psk2");
    strcpy(cfg.locale, "US");
    cfg.bsd = 1;   // band steering: one network; the locale first, base64, unquoted
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    cfg.bsd = 0;
    cfg.locale[0] = 0;
    strcpy(cfg.enc_2g, "nonexx");   // not a prefix of "none"
    strcpy(cfg.enc_5g, "psk2");     // an empty key stays ''
    ASSERT_EQ(0, tolvaInitRe(&cfg, "", 1));
    cfg.bsd = 1;
    ASSERT_EQ(0,
              tolvaInitCap(&cfg, "AA:BB:CC:DD:EE:01", "28:11:22:33:44:55", "2a:11:22:33:44:66", 1));
    cfg.bsd = 0;   // first octet o + 4n wraps past 0xff and keeps its low two bits, bit 1 set
    ASSERT_EQ(0,
              tolvaInitCap(&cfg, "AA:BB:CC:DD:EE:01", "fd:6c:07:20:00:02", "fe:6c:07:20:00:03", 1));
    EXPECT_EQ(-1, tolvaInitCap(&cfg, "AA:BB;reboot", "28:11:22:33:44:55", "2a:11:22:33:44:66", 1));
    for (const char *mac : {"AA:BB:CC:DD:EE:0", "AA:BB:CC:DD:EE:01:", "AA-BB-CC-DD-EE-01",
                            "AA:BB:CC:DD:EE:0G", (const char *)0})
        EXPECT_EQ(-1, tolva_check_mac_str(mac)) << (mac ? mac : "null");
    EXPECT_EQ(0, tolva_check_mac_str("28:6C:07:aB:cd:EF"));
    EXPECT_EQ(-1, tolvaCleanCap("AA:BB:CC:DD:EE:01`id`"));
    ASSERT_EQ(0, tolvaCleanCap("AA:BB:CC:DD:EE:01"));
    EXPECT_EQ(std::vector<std::string>(
                  {"/usr/bin/lua /usr/sbin/mesh_info.lua locale VVM=",
                   "/usr/sbin/mesh_setup.sh re_init_bsd 'SG9tZS0yRw==' 'null' 'none' "
                   "'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 'psk2' 1",
                   "/usr/sbin/mesh_setup.sh re_init 'SG9tZS0yRw==' 'c2VjcmV0MTIz' 'nonexx' '' '' "
                   "'psk2' 'S3ZNZXNoX2FiMTJjZDM0' "
                   "'azN5' 'psk2' 1",
                   "/usr/sbin/mesh_setup.sh cap_init_bsd 'AA:BB:CC:DD:EE:01' '32:11:22:33:44:55' "
                   "'32:11:22:33:44:66' "
                   "'2E:11:22:33:44:55' '2E:11:22:33:44:66' 'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 1",
                   "/usr/sbin/mesh_setup.sh cap_init 'AA:BB:CC:DD:EE:01' '07:6C:07:20:00:02' "
                   "'06:6C:07:20:00:03' "
                   "'03:6C:07:20:00:02' '02:6C:07:20:00:03' 'S3ZNZXNoX2FiMTJjZDM0' 'azN5' 1",
                   "/usr/sbin/mesh_setup.sh cap_clean 'wl9' 'AA:BB:CC:DD:EE:01'"}),
              fake_sys_system_cmds());
    // Exit 0 and death by a signal count as done, exit 1 or 3 as 1, no shell as -1.
    const int st[][2] = {{0, 0}, {1 << 8, 1}, {3 << 8, 1}, {9, 0}, {-1, -1}};
    for (const auto &s : st) {
        fake_sys_system_status(s[0]);
        EXPECT_EQ(s[1], tolvaInitRe(&cfg, "", 1)) << "status " << s[0];
    }
}
