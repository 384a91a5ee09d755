// A whole pairing over loopback: a CAP (plaitd -S) and an RE (plaitd -C) forked from the
// test, each with its own /run; what each side hands the (recorded) platform is compared.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "testing.h"

namespace
{

const bool net_ok = netns_enter_private();

std::string slurp(const std::string &path)
{
    std::string s(8192, 0);
    FILE *f = fopen(path.c_str(), "r");
    s.resize(f ? fread(&s[0], 1, s.size(), f) : 0);
    if (f)
        fclose(f);
    return s;
}

void dump_commands(void)
{
    FILE *f = fopen(("/tmp/pair-" + std::to_string(g_is_server)).c_str(), "w");
    for (const auto &c : fake_sys_system_cmds())
        fprintf(f, "%s\n", c.c_str());
    fclose(f);
}

// Runs the daemon with argv in a child; its commands go to /tmp/pair-<role>, its stdout to /tmp/out-<role>.
pid_t daemon_child(const char *role)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0 ||
        !freopen((std::string("/tmp/out") + role).c_str(), "w", stdout))
        _exit(99);
    fake_sys_install();
    fake_sys_router();
    const char *const answers[][2] = {{"cat /proc/veltrasso/ft_mode", "0\n"},
                                      {"boardkv get SN", "SN1\n"},
                                      {"macinfo wan 2>/dev/null", "28:6c:07:20:00:01\n"},
                                      {"cat /tmp/boot_check_done 2>/dev/null", "1\n"},
                                      {"/sbin/linkprobe link", "wan: up\n"},
                                      {"ifconfig lo |grep -o \"inet addr*", "127.0.0.1\n"},
                                      {"ifconfig lo |grep -o \"HWaddr*", "28:6c:07:20:00:01\n"}};
    for (const auto &a : answers)
        fake_sys_answer(a[0], a[1]);
    atexit(dump_commands);   // either way out: the RE's return, the CAP's SIGTERM clean-up
    const char *argv[] = {"plaitd", role, "-o", "-l", "3", "-i", "lo", nullptr};
    exit(plaitd_main(7, const_cast<char **>(argv)) & 0xff);
}

int exit_status(pid_t pid, int secs)   // killed after secs
{
    int st = 0;
    for (int i = 0; i < secs * 100 && waitpid(pid, &st, WNOHANG) == 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (waitpid(pid, &st, WNOHANG) == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &st, 0);
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : -WTERMSIG(st);
}

}   // namespace

TEST(Pairing, CapAndReHandThePlatformTheConfiguration)
{
    ASSERT_TRUE(net_ok);
    SSL_CTX *a, *b;
    ASSERT_TRUE(tls_setup("/tmp/pairtls", &a, &b));   // certificate, key and CA for both
    SSL_CTX_free(a);                                  // the daemons make their own
    SSL_CTX_free(b);
    f_string_write(GW_IP_FILE, "127.0.0.1\n127.0.0.1\n", 20);
    ASSERT_EQ(0,
              system("ip route add default dev lo"));   // the discovery broadcasts stay on loopback
    pid_t cap = daemon_child("-S");
    std::this_thread::sleep_for(
        std::chrono::milliseconds(200));   // listening (the RE retries anyway)
    EXPECT_EQ(0, exit_status(daemon_child("-C"), 15));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));   // the CAP's peer thread ends
    kill(cap, SIGTERM);
    EXPECT_EQ(255, exit_status(cap, 5));
    EXPECT_EQ(
        "vsled mesh_join \n/usr/bin/lua /usr/sbin/mesh_info.lua locale ZGVmYXVsdA==\n"
        "/usr/sbin/mesh_setup.sh re_init 'SG9tZS0yRw==' 'cHNrLXNlY3JldA==' 'psk2' 'SG9tZS01Rw==' "
        "'c2FlLXNlY3JldC01' 'ccmp' 'S3ZNZXNoXzBhMWIyYzNk' 'MDAxMTIyMzM0NDU1NjZmZg==' 'psk2' 1\n"
        "vsled mesh_finish \n",
        slurp("/tmp/pair-0"));
    EXPECT_EQ(
        "vsled meshing \n/usr/sbin/mesh_setup.sh cap_init '28:6c:07:20:00:01' '32:6C:07:11:22:33' "
        "'32:6C:07:11:22:34' '2E:6C:07:11:22:33' '2E:6C:07:11:22:34' 'S3ZNZXNoXzBhMWIyYzNk' "
        "'MDAxMTIyMzM0NDU1NjZmZg==' 1\nvsled mesh_finish \n",
        slurp("/tmp/pair-1"));
    // The CAP's status records close its output (the argument checks print before them); none on the RE.
    std::string out = slurp("/tmp/out-S");
    std::string tail = out.substr(out.rfind('\n') + 1);
    size_t at = tail.find("wire:");
    if (at != tail.npos && at + 5 < tail.size())
        tail[at + 5] = 'N';   // the seconds it took
    EXPECT_EQ("mesh.re.conn.duration=wire:Nmesh.re.conn.type=wire:1", tail) << out;
    EXPECT_EQ(std::string::npos, slurp("/tmp/out-C").find("mesh.re.conn")) << slurp("/tmp/out-C");
}
