// Address queries: the uplink gateway file left by the platform's DHCP
// client, the Wi-Fi MAC address of one band, and an interface's addresses.
#include "util/addr.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "util/log.h"
#include "util/shell.h"
#include "util/sys.h"

// Reads the next line, trimmed, into a 16-byte output (at most 15
// characters and the terminating zero); -1 at end of file.
static int32_t read_addr_line(FILE *fp, char *dst)
{
    char line[128];
    memset(line, 0, sizeof(line));
    if (!fgets(line, sizeof(line), fp))
        return -1;
    strncpy(dst, str_trim(line), 15);
    dst[15] = 0;
    return 0;
}

static int32_t read_gw_file(char *gw, char *ip)
{
    FILE *fp = fopen(GW_IP_FILE, "re");
    if (!fp) {
        LOG(3, "fopen file error: %s\n", strerror(errno));
        return -1;
    }
    int32_t ret = -1;
    if (read_addr_line(fp, gw) < 0)
        LOG(3, "1. read gw ip failed.\n");
    else if (read_addr_line(fp, ip) < 0)
        LOG(3, "2. read local ip failed.\n");
    else
        ret = 0;
    fclose(fp);
    return ret;
}

int32_t get_gw_ip(char *gw, char *ip)
{
    memset(gw, 0, 16);
    memset(ip, 0, 16);
    if (read_gw_file(gw, ip) == 0)
        return 0;
    memset(gw, 0, 16);
    memset(ip, 0, 16);
    return -1;
}

// Runs `cmd` and reads one line of at most size - 1 characters into `line`
// (zeroed first); -1 when the command cannot be started.
static int32_t read_cmd_line(const char *cmd, char *line, int size)
{
    memset(line, 0, (size_t)size);
    FILE *fp = sys_popen(cmd, "r");
    if (!fp) {
        LOG(3, "Can't pipe '%s': %s\n", cmd, strerror(errno));
        return -1;
    }
    if (!fgets(line, size, fp))
        line[0] = '\0';
    sys_pclose(fp);
    return 0;
}

static const char *const band_ifname_keys[] = {
    "misc.wireless.if_2G",
    "misc.wireless.if_5G",
    "misc.wireless.if_5GH",
};

int32_t getWifiMac(char *out, int32_t band)
{
    if (!out || band < 0 || band > 2)
        return -1;
    char cmd[128];
    char ifname[16];
    char mac[19];
    snprintf(cmd, sizeof(cmd), "uci -q get %s", band_ifname_keys[band]);
    if (read_cmd_line(cmd, ifname, sizeof(ifname)) < 0)
        return -1;
    ifname[strcspn(ifname, "\n")] = '\0';
    snprintf(cmd, sizeof(cmd), "uci -q get wireless.%s.macaddr", ifname);
    if (read_cmd_line(cmd, mac, sizeof(mac)) < 0)
        return -1;
    // Only a whole line counts: a missing option or a cut answer leaves
    // `out` as the caller zeroed it.
    const char *nl = strchr(mac, '\n');
    if (nl)
        memcpy(out, mac, (size_t)(nl - mac));
    return 0;
}

static int32_t iface_query(const char *cmd_fmt, const char *ifname, char *out, int len)
{
    if (!ifname || !out || len <= 0)
        return -1;
    char cmd[256];
    char result[2048];
    memset(result, 0, sizeof(result));
    snprintf(cmd, sizeof(cmd), cmd_fmt, ifname);
    if (tolva_exec_cmd(cmd, result, 1024) != 0 || !result[0])
        return -1;
    strncpy(out, str_trim(result), (size_t)len);
    out[len - 1] = '\0';
    return 0;
}

int get_iface_ip(const char *ifname, char *out, int len)
{
    if (iface_query("ifconfig %s |grep -o \"inet addr:[0-9.]*\"|awk -F: '{print $2}'", ifname, out,
                    len) != 0)
        return -1;
    LOG(3, "get_iface_ip: [%s] = [%s]\n", ifname, out);
    return 0;
}

int get_iface_mac(const char *ifname, char *out, int len)
{
    if (iface_query("ifconfig %s |grep -o \"HWaddr [0-9A-Z.:]*\"|awk '{print $2}'", ifname, out,
                    len) != 0)
        return -1;
    LOG(3, "get_iface_mac: [%s] = [%s]\n", ifname, out);
    return 0;
}
