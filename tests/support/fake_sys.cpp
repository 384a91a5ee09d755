#include <sys/syscall.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <deque>
#include <mutex>

#include "testing.h"

bool fake_sys_real_sleep;
std::atomic<int> fake_sys_naps;
extern "C" int usleep(useconds_t us)
{
    fake_sys_naps++;
    if (fake_sys_real_sleep)
        std::this_thread::sleep_for(std::chrono::microseconds(us));
    return 0;
}

int32_t fake_sys_uptime;
extern "C" int sysinfo(struct sysinfo *si) noexcept
{
    int rc = (int)syscall(SYS_sysinfo, si);
    if (fake_sys_uptime > 0)
        si->uptime = fake_sys_uptime;
    return rc;
}

namespace
{
std::vector<std::pair<std::string, std::string>> rules;   // pattern, output
std::vector<std::string> asked, ran;                      // popen(), system()
std::deque<std::string> buffers;                          // fmemopen keeps pointers into these
int sys_status;
std::function<void(const std::string &)> hook;
std::recursive_mutex mu;   // the daemon's threads run commands at once

FILE *fake_popen(const char *cmd, const char *)
{
    std::lock_guard<std::recursive_mutex> g(mu);
    asked.push_back(cmd);
    if (hook)
        hook(cmd);
    for (auto it = rules.rbegin(); it != rules.rend(); ++it) {
        const std::string &pat = it->first;
        bool prefix = !pat.empty() && pat.back() == '*';
        if (prefix ? strncmp(cmd, pat.c_str(), pat.size() - 1) != 0 : pat != cmd)
            continue;
        if (it->second.empty())
            break;
        if (it->second == FAKE_SYS_FAIL)
            return nullptr;
        buffers.push_back(it->second);
        return fmemopen(&buffers.back()[0], buffers.back().size(), "r");
    }
    return fopen("/dev/null", "r");
}

int fake_system(const char *cmd)
{
    std::lock_guard<std::recursive_mutex> g(mu);
    ran.push_back(cmd);
    if (hook)
        hook(cmd);
    return sys_status;
}

const sys_ops fake_ops = {fake_popen, fclose, fake_system};
}   // namespace

void fake_sys_install(void)
{
    rules.clear();
    asked.clear();
    ran.clear();
    buffers.clear();
    sys_status = 0;
    hook = nullptr;
    fake_sys_uptime = 0;
    sys_set_ops(&fake_ops);
}

void fake_sys_answer(const std::string &pattern, const std::string &output)
{
    rules.push_back({pattern, output});
}
void fake_sys_hook(std::function<void(const std::string &)> h)
{
    hook = h;
}
void fake_sys_system_status(int status)
{
    sys_status = status;
}

void fake_sys_router(void)
{
    const char *const answers[][2] = {
        {"uci -q get misc.wireless.ifname_2G", "wl1\n"},
        {"mesh_tool backhaul get band", "5g"},
        {"uci -q get misc.wireless.ifname_5G", "wl0\n"},
        {"uci -q get misc.backhauls.backhaul_5g_ap_iface", "wl5\n"},
        {"uci -q get wireless.wifi1.bsd", "0\n"},
        {"uci -q get wireless.wifi2.ssid", "Home-2G\n"},
        {"uci -q get wireless.wifi2.encryption", "psk2\n"},
        {"uci -q get wireless.wifi2.key", "psk-secret\n"},
        {"uci -q get wireless.wifi2.sae_password", "sae-secret\n"},
        {"uci -q get wireless.wifi1.ssid", "Home-5G\n"},
        {"uci -q get wireless.wifi1.encryption", "ccmp\n"},
        {"uci -q get wireless.wifi1.key", "psk-secret-5\n"},
        {"uci -q get wireless.wifi1.sae_password", "sae-secret-5\n"},
        {"uci -q get wireless.bh_ap.ssid", "KvMesh_0a1b2c3d\n"},
        {"uci -q get wireless.bh_ap.key", "00112233445566ff\n"},
        {"uci -q get misc.wireless.if_2G", "wifi2\n"},
        {"uci -q get misc.wireless.if_5G", "wifi1\n"},
        {"uci -q get wireless.wifi2.macaddr", "28:6c:07:11:22:33\n"},
        {"uci -q get wireless.wifi1.macaddr", "28:6c:07:11:22:34\n"},
        {"mesh_tool initbuf 2>/dev/null", "{\"mesh\":{\"id\":\"0a1b\"}}"}};
    for (const auto &a : answers)
        fake_sys_answer(a[0], a[1]);
    for (const char *s : {"wl1wifi2", "wl0wifi1", "wl5bh_ap"})
        fake_sys_answer(std::string("uci show wireless | grep -w \"ifname='") + std::string(s, 3) +
                            "'\" | cut -d '.' -f1-2",
                        std::string("wireless.") + (s + 3) + "\n");
}

std::vector<std::string> fake_sys_system_cmds(void)
{
    std::lock_guard<std::recursive_mutex> g(mu);
    return ran;
}

bool fake_sys_ran(const std::string &cmd)
{
    std::lock_guard<std::recursive_mutex> g(mu);
    return std::count(asked.begin(), asked.end(), cmd) + std::count(ran.begin(), ran.end(), cmd) >
           0;
}

size_t fake_sys_scripts(void)
{
    std::lock_guard<std::recursive_mutex> g(mu);
    return std::count_if(ran.begin(), ran.end(),
                         [](const std::string &c) { return c.find("mesh_setup.sh") != c.npos; });
}
