// Collects the CAP's radio and backhaul settings from uci into the record
// that is sent to the RE, plus the small backhaul-band and DFS queries.
#include "platform/wificonf.h"

#include <iwlib.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "util/codec.h"
#include "util/log.h"
#include "util/shell.h"

// Scratch answers of one collection run.
struct wifi_query {
    char ifname_2g[16];
    char ifname_5g[16];
    char bh_iface[16];
    char sec_2g[64];
    char sec_5g[64];
    char bsd[2];
    char sec_bh[128];
    char band[16];
};

#define SECTION_CMD "uci show wireless | grep -w \"ifname='%s'\" | cut -d '.' -f1-2"

// One getCmdResult query that leaves room for the terminator in `buf`.
static int query(const char *cmd, char *buf, size_t size)
{
    return getCmdResult(cmd, buf, (int32_t)(size - 1)) ? 0 : -1;
}

// Reads ssid, encryption and pass phrase of one radio section; its messages
// belong to the collection. The pass phrase of a "ccmp..." (WPA3) network
// lives in sae_password, of all others in key.
static int get_band_conf(const char *sec, char *ssid, size_t ssid_size, char *enc, size_t enc_size,
                         char *key, size_t key_size)
{
    char cmd[128];

    cmd_format(cmd, 127, "uci -q get %s.ssid", sec);
    if (query(cmd, ssid, ssid_size) < 0) {
        LOG_AS(3, "tolvaGetWiFiConfig", "%s, failed!\n", cmd);
        return -1;
    }
    cmd_format(cmd, 127, "uci -q get %s.encryption", sec);
    if (query(cmd, enc, enc_size) < 0) {
        LOG_AS(3, "tolvaGetWiFiConfig", "%s, failed!\n", cmd);
        return -1;
    }
    if (strncmp(enc, "ccmp", 4) == 0)
        cmd_format(cmd, 127, "uci -q get %s.sae_password", sec);
    else
        cmd_format(cmd, 127, "uci -q get %s.key", sec);
    if (query(cmd, key, key_size) < 0) {
        LOG_AS(3, "tolvaGetWiFiConfig", "%s, failed!\n", cmd);
        return -1;
    }
    return 0;
}

int tolvaGetWiFiConfig(WiFiConfig *cfg)
{
    struct wifi_query q;
    char cmd[128];
    const char *band;

    if (!cfg)
        return -1;
    memset(cfg, 0, sizeof(*cfg));
    memset(&q, 0, sizeof(q));

    cmd_format(cmd, 127, "uci -q get misc.wireless.ifname_2G");
    if (query(cmd, q.ifname_2g, sizeof(q.ifname_2g)) < 0) {
        LOG(3, "uci -q get misc.wireless.ifname_2G, failed!\n");
        return -1;
    }
    band = tolva_get_bh_band(q.band, sizeof(q.band));
    if (!band)
        band = "5g";
    cmd_format(cmd, 127, "uci -q get misc.wireless.ifname_5G");
    if (query(cmd, q.ifname_5g, sizeof(q.ifname_5g)) < 0) {
        LOG(3, "uci -q get misc.wireless.ifname_5G, failed!\n");
        return -1;
    }
    cmd_format(cmd, 127, "uci -q get misc.backhauls.backhaul_%s_ap_iface", band);
    if (query(cmd, q.bh_iface, sizeof(q.bh_iface)) < 0) {
        LOG(3, "exec %s, failed!\n", cmd);
        return -1;
    }
    cmd_format(cmd, 127, SECTION_CMD, q.ifname_2g);
    if (query(cmd, q.sec_2g, sizeof(q.sec_2g)) < 0) {
        LOG(3, "%s, failed!\n", cmd);
        return -1;
    }
    cmd_format(cmd, 127, SECTION_CMD, q.ifname_5g);
    if (query(cmd, q.sec_5g, sizeof(q.sec_5g)) < 0) {
        LOG(3, "%s, failed!\n", cmd);
        return -1;
    }
    cmd_format(cmd, 127, "uci -q get %s.bsd", q.sec_5g);
    if (query(cmd, q.bsd, sizeof(q.bsd)) < 0) {
        LOG(3, "%s, failed!\n", cmd);
        return -1;
    }
    cfg->bsd = (q.bsd[0] != '\0' && q.bsd[0] != '0') ? 1 : 0;

    if (get_band_conf(q.sec_2g, cfg->ssid_2g, sizeof(cfg->ssid_2g), cfg->enc_2g,
                      sizeof(cfg->enc_2g), cfg->key_2g, sizeof(cfg->key_2g)) < 0)
        return -1;
    if (get_band_conf(q.sec_5g, cfg->ssid_5g, sizeof(cfg->ssid_5g), cfg->enc_5g,
                      sizeof(cfg->enc_5g), cfg->key_5g, sizeof(cfg->key_5g)) < 0)
        return -1;

    cmd_format(cmd, 127, SECTION_CMD, q.bh_iface);
    if (query(cmd, q.sec_bh, sizeof(q.sec_bh)) < 0) {
        LOG(3, "%s, failed!\n", cmd);
        return -1;
    }
    if (q.sec_bh[0] != '\0') {
        cmd_format(cmd, 127, "uci -q get %s.ssid", q.sec_bh);
        if (query(cmd, cfg->bh_ssid, sizeof(cfg->bh_ssid)) < 0) {
            LOG(3, "%s, failed!\n", cmd);
            return -1;
        }
        // The backhaul is always WPA2, so its pass phrase is always in key.
        cmd_format(cmd, 127, "uci -q get %s.key", q.sec_bh);
        if (query(cmd, cfg->bh_key, sizeof(cfg->bh_key)) < 0) {
            LOG(3, "%s, failed!\n", cmd);
            return -1;
        }
    } else {
        // No backhaul network configured yet: invent one for this pairing.
        char rnd[9] = {0};
        get_random_str(rnd, sizeof(rnd));
        snprintf(cfg->bh_ssid, 32, "KvMesh_%s", rnd);
        get_random_str(cfg->bh_key, 17);
    }
    snprintf(cfg->bh_enc, 15, "psk2");
    cfg->type = 4;
    return 0;
}

char *tolva_get_bh_band(char *out, size_t size)
{
    char cmd[64];
    char buf[128];
    size_t len;

    if (!out || size == 0)
        return nullptr;
    cmd_format(cmd, 63, "mesh_tool backhaul get band");
    memset(buf, 0, sizeof(buf));
    if (tolva_exec_cmd(cmd, buf, sizeof(buf)) != 0 || buf[0] == '\0') {
        LOG(3, "tolva_exec_cmd: %s failed!\n", cmd);
        return nullptr;
    }
    // The tool ends its answer with a line feed; the band goes into a key name.
    str_trim(buf);
    len = strlen(buf);
    if (len >= size) {
        LOG(3, "bufsize too small, need: %d, current: %d, content: %s\n", (int)len, (int)size, buf);
        return nullptr;
    }
    memcpy(out, buf, len + 1);
    return out;
}

int tolva_mesh_support_dfs(void)
{
    char cmd[64];
    char buf[64];

    cmd_format(cmd, 63, "uci -q get misc.mesh.support_dfs");
    memset(buf, 0, sizeof(buf));
    if (tolva_exec_cmd(cmd, buf, sizeof(buf)) != 0) {
        LOG(3, "tolva_exec_cmd: %s failed!\n", cmd);
        return 0;
    }
    if (buf[0] == '\0')
        return 0;
    return atoi(buf) != 0 ? 1 : 0;
}

int tolva_set_bh_band(const char *band)
{
    char cmd[64];
    char buf[128];

    if (!band)
        return -1;
    cmd_format(cmd, 63, "mesh_tool backhaul get band %s", band);
    memset(buf, 0, sizeof(buf));
    if (tolva_exec_cmd(cmd, buf, sizeof(buf)) != 0 || buf[0] == '\0')
        return -1;
    // The set goes with the band the tool printed, not with `band`.
    cmd_format(cmd, 63, "mesh_tool backhaul set band %s;echo $?", buf);
    if (tolva_exec_cmd(cmd, buf, sizeof(buf)) != 0)
        return -1;
    return atoi(buf) == 0 ? 0 : -1;
}

int tolva_check_mac_str(const char *mac)
{
    static const int pair_at[6] = {0, 3, 6, 9, 12, 15};
    unsigned int hi, lo;

    if (!mac || strlen(mac) != 17)
        return -1;
    for (int i = 0; i < 6; i++) {
        if (sscanf(mac + pair_at[i], "%1X%1X", &hi, &lo) != 2)
            return -1;
        if (i < 5 && mac[pair_at[i] + 2] != ':')
            return -1;
    }
    return 0;
}

int tolva_get_freq_list(int skfd, const char *ifname, int32_t *out)
{
    iwrange range;

    if (skfd <= 0 || !ifname || !out)
        return -1;
    memset(&range, 0, sizeof(range));
    if (iw_get_range_info(skfd, ifname, &range) < 0)
        return -1;
    int count = range.num_frequency;
    if (count > IW_MAX_FREQUENCIES)
        count = IW_MAX_FREQUENCIES;
    for (int i = 0; i < count; i++)
        out[i] = (int32_t)(iw_freq2float(&range.freq[i]) / 100000.0);
    return count;
}
