// Questions asked of the platform before pairing, and the pairing light.
#include "platform/env.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "util/log.h"
#include "util/shell.h"
#include "util/sys.h"

char g_macaddr[19];
int8_t g_mesh_light = 0;

enum { ENV_OUT_SIZE = 1024 };

// Runs `cmd` into the zeroed `out` of ENV_OUT_SIZE bytes.
static int32_t env_query(const char *cmd, char *out)
{
    memset(out, 0, ENV_OUT_SIZE);
    return tolva_exec_cmd(cmd, out, ENV_OUT_SIZE);
}

int32_t tolva_check_env(void)
{
    char out[ENV_OUT_SIZE];
    // Not in factory-test mode.
    if (env_query("cat /proc/veltrasso/ft_mode", out) != 0 || out[0] != '0')
        return -1;
    // Board data with a serial number present.
    if (env_query("boardkv get SN", out) != 0 || strlen(out) < 4)
        return -1;
    if (env_query("macinfo wan 2>/dev/null", out) != 0 || out[0] == '\0')
        return -1;
    // strncpy semantics: a text of 19 characters or more fills the field
    // without a terminator.
    const char *mac = str_trim(out);
    memset(g_macaddr, 0, sizeof(g_macaddr));
    memcpy(g_macaddr, mac, strnlen(mac, sizeof(g_macaddr)));
    LOG(3, "g_macinfo wan return: [%.19s]\n", g_macaddr);
    return 0;
}

int32_t check_boot_ready(void)
{
    char out[ENV_OUT_SIZE];
    if (env_query("cat /tmp/boot_check_done 2>/dev/null", out) != 0) {
        LOG(3, "check boot status: read status failed.\n");
        return -1;
    }
    if (out[0] != '0' && out[0] != '\0') {
        LOG(3, "check boot status: boot procedure finished.\n");
        return 0;
    }
    LOG(3, "check boot status: boot not done.\n");
    return -1;
}

int32_t is_initted(void)
{
    char out[ENV_OUT_SIZE];
    if (env_query("uci -q get veltrasso.common.INITTED", out) != 0) {
        LOG(3, "check initted status failed.\n");
        return -1;
    }
    if (strncmp(out, "YES", 3) != 0)
        return -1;
    LOG(3, "system already initted.");
    return 0;
}

int32_t check_cable_pluged(int32_t port)
{
    int up = is_intf_link_up(port == 1 ? "wan" : "lan");
    // The state word is passed but never printed: the text has one conversion.
    LOG(3, "check cable pluged: %s is .\n", port == 1 ? "WAN" : "LAN");
    return up == 1 ? 0 : -1;
}

int32_t is_intf_link_up(const char *name)
{
    static const char cmd[] = "/sbin/linkprobe link";
    FILE *fp = sys_popen(cmd, "r");
    if (!fp) {
        LOG(3, "Error: popen error: [can not open: %s]", cmd);
        return 0;
    }
    int32_t up = 0;
    char line[256];
    memset(line, 0, sizeof(line));
    // Plain substring tests, anywhere in the line.
    while (fgets(line, sizeof(line), fp)) {
        if (strstr(line, name) && strstr(line, "up")) {
            up = 1;
            break;
        }
        memset(line, 0, sizeof(line));
    }
    sys_pclose(fp);
    return up;
}

int32_t get_wan_ifname(char out[16])
{
    char buf[16];
    memset(buf, 0, sizeof(buf));
    if (tolva_exec_cmd("uci -q get network.wan.ifname", buf, sizeof(buf)) != 0 || buf[0] == '\0')
        return -1;
    memset(out, 0, 16);
    // The name ends at the first character that is not a letter or digit,
    // so a VLAN name such as eth0.2 gives its base device.
    for (int i = 0; i < 16 && isalnum((unsigned char)buf[i]); i++)
        out[i] = buf[i];
    return 0;
}

void switch_conning_light(int32_t state)
{
    if (state == 1)
        sys_system("vsled meshing ");
    else if (state == 2)
        sys_system("vsled mesh_join ");
    else if (__atomic_load_n(&g_mesh_light, __ATOMIC_RELAXED) != 0)
        sys_system("vsled mesh_finish ");
    // A peer thread and the clean-up may both switch it.
    __atomic_store_n(&g_mesh_light, (int8_t)state, __ATOMIC_RELAXED);
}
