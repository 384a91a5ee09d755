// Turns the box into mesh controller or satellite by calling the platform's
// set-up script. Free texts travel base64-encoded so that no quote or other
// shell character from the peer's record can reach the command line.
#include "platform/meshinit.h"

#include <iwlib.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "util/codec.h"
#include "util/log.h"
#include "util/shell.h"
#include "util/sys.h"

#define CAP_INIT_FMT     "%s cap_init '%s' '%s' '%s' '%s' '%s' '%s' '%s' %d"
#define CAP_INIT_BSD_FMT "%s cap_init_bsd '%s' '%s' '%s' '%s' '%s' '%s' '%s' %d"
#define RE_INIT_FMT      "%s re_init '%s' '%s' '%s' '%s' '%s' '%s' '%s' '%s' '%s' %d"
#define RE_INIT_BSD_FMT  "%s re_init_bsd '%s' '%s' '%s' '%s' '%s' '%s' %d"

// The record may come off the wire: never read a field past its last byte,
// which a well-formed record holds as terminator.
static size_t field_len(const char *field, size_t size)
{
    return strnlen(field, size - 1);
}

static void field_copy(char *dst, const char *field, size_t size)
{
    size_t n = field_len(field, size);
    memcpy(dst, field, n);
    dst[n] = '\0';
}

// Base64 of a record field into `out` (zeroed first, so an empty field gives
// an empty text). Field sizes and output sizes are paired so that it fits.
static void field_b64(char *out, size_t out_size, const char *field, size_t size)
{
    size_t olen = 0;
    memset(out, 0, out_size);
    base64_encode((uint8_t *)out, out_size, &olen, (const uint8_t *)field, field_len(field, size));
}

// A band whose encryption text is a prefix of "none" (the empty text too)
// has no pass phrase; the scripts want the word "null" then.
static void band_key(char *out, size_t out_size, const char *enc, const char *key, size_t key_size)
{
    if (strncmp(enc, "none", strlen(enc)) == 0)
        snprintf(out, out_size, "null");
    else
        field_b64(out, out_size, key, key_size);
}

// The RE's scripts pick these up; a stale file from an earlier pairing must
// not survive when this record has nothing for it.
static void side_file(const char *path, const char *text, size_t len)
{
    if (len == 0) {
        unlink(path);
        return;
    }
    if (f_string_write(path, text, (uint32_t)len) < 1)
        LOG_AS(3, "tolvaInitRe", "write %s failed.\n", path);
}

int tolva_derive_mac(const char *mac, int n, char *out)
{
    unsigned char b[6] = {0};

    out[0] = '\0';
    if (!mac || iw_mac_aton(mac, b, 6) != 6)
        return -1;
    b[0] = (unsigned char)((((b[0] & 0xFC) + 4 * n + (b[0] & 0x03)) | 0x02) & 0xFF);
    if (!iw_mac_ntop(b, 6, out, 18))
        return -1;
    return 0;
}

int tolvaInitCap(const WiFiConfig *cfg, const char *re_mac, const char *re_mac_2g,
                 const char *re_mac_5g, int flag)
{
    char a[18], b[18], c[18], d[18];
    char ssid64[49], key64[89];
    char cmd[1024];

    if (!cfg || !re_mac)
        return -1;
    tolva_derive_mac(re_mac_2g, 2, a);
    tolva_derive_mac(re_mac_5g, 2, b);
    tolva_derive_mac(re_mac_2g, 1, c);
    tolva_derive_mac(re_mac_5g, 1, d);
    field_b64(ssid64, sizeof(ssid64), cfg->bh_ssid, sizeof(cfg->bh_ssid));
    field_b64(key64, sizeof(key64), cfg->bh_key, sizeof(cfg->bh_key));

    if (check_params("%s%s%s%s%s%s%s", re_mac, a, b, c, d, ssid64, key64) != 0) {
        LOG(3, "init check params failed: func[%s] line[%d].\n", "tolvaInitCap", __LINE__);
        return -1;
    }
    if (cfg->bsd == 1)
        cmd_format(cmd, 1023, CAP_INIT_BSD_FMT, MESH_SETUP_SH, re_mac, a, b, c, d, ssid64, key64,
                   flag);
    else
        cmd_format(cmd, 1023, CAP_INIT_FMT, MESH_SETUP_SH, re_mac, a, b, c, d, ssid64, key64, flag);
    sys_system(cmd);
    return 0;
}

int tolvaInitRe(const WiFiConfig *cfg, const char *extra, int flag)
{
    char ssid2[49], key2[89], ssid5[49], key5[89];
    char bh_ssid64[49], bh_key64[89], locale64[89];
    char enc2[sizeof(cfg->enc_2g)], enc5[sizeof(cfg->enc_5g)], bh_enc[sizeof(cfg->bh_enc)];
    char cmd[2048];
    int rc;

    if (!cfg)
        return -1;
    // Side files come first: they change even when the check below refuses.
    side_file(BH_MACLIST_2G_FILE, cfg->bh_maclist_2g,
              field_len(cfg->bh_maclist_2g, sizeof(cfg->bh_maclist_2g)));
    side_file(BH_MACLIST_5G_FILE, cfg->bh_maclist_5g,
              field_len(cfg->bh_maclist_5g, sizeof(cfg->bh_maclist_5g)));
    side_file(EXTRA_WIFI_PARAM_FILE, extra, extra ? strlen(extra) : 0);

    field_copy(enc2, cfg->enc_2g, sizeof(cfg->enc_2g));
    field_copy(enc5, cfg->enc_5g, sizeof(cfg->enc_5g));
    field_copy(bh_enc, cfg->bh_enc, sizeof(cfg->bh_enc));

    field_b64(ssid2, sizeof(ssid2), cfg->ssid_2g, sizeof(cfg->ssid_2g));
    band_key(key2, sizeof(key2), enc2, cfg->key_2g, sizeof(cfg->key_2g));
    field_b64(bh_ssid64, sizeof(bh_ssid64), cfg->bh_ssid, sizeof(cfg->bh_ssid));
    field_b64(bh_key64, sizeof(bh_key64), cfg->bh_key, sizeof(cfg->bh_key));

    if (cfg->locale[0] != '\0') {
        field_b64(locale64, sizeof(locale64), cfg->locale, sizeof(cfg->locale));
        cmd_format(cmd, sizeof(cmd) - 1, "/usr/bin/lua /usr/sbin/mesh_info.lua locale %s",
                   locale64);
        sys_system(cmd);
    }

    if (cfg->bsd == 1) {
        if (check_params("%s%s%s%s%s%s", ssid2, key2, enc2, bh_ssid64, bh_key64, bh_enc) != 0) {
            LOG(3, "init check params failed: func[%s] line[%d].\n", "tolvaInitRe", __LINE__);
            return -1;
        }
        cmd_format(cmd, 2047, RE_INIT_BSD_FMT, MESH_SETUP_SH, ssid2, key2, enc2, bh_ssid64,
                   bh_key64, bh_enc, flag);
    } else {
        field_b64(ssid5, sizeof(ssid5), cfg->ssid_5g, sizeof(cfg->ssid_5g));
        band_key(key5, sizeof(key5), enc5, cfg->key_5g, sizeof(cfg->key_5g));
        if (check_params("%s%s%s%s%s%s%s%s%s", ssid2, key2, enc2, ssid5, key5, enc5, bh_ssid64,
                         bh_key64, bh_enc) != 0) {
            LOG(3, "init check params failed: func[%s] line[%d].\n", "tolvaInitRe", __LINE__);
            return -1;
        }
        cmd_format(cmd, 2047, RE_INIT_FMT, MESH_SETUP_SH, ssid2, key2, enc2, ssid5, key5, enc5,
                   bh_ssid64, bh_key64, bh_enc, flag);
    }

    rc = sys_system(cmd);
    if (rc == -1)
        return -1;
    // A script killed by a signal is counted as done.
    if (rc & 0x7F)
        return 0;
    return ((rc >> 8) & 0xFF) != 0 ? 1 : 0;
}

int tolvaCleanCap(const char *mac)
{
    char cmd[128];

    if (!mac)
        return -1;
    if (check_params("%s", mac) != 0) {
        LOG(3, "init check params failed: func[%s] line[%d].\n", "tolvaCleanCap", __LINE__);
        return -1;
    }
    cmd_format(cmd, 127, "%s cap_clean '%s' '%s'", MESH_SETUP_SH, "wl9", mac);
    sys_system(cmd);
    return 0;
}
