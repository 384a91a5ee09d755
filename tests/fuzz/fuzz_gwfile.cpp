// The gateway file that the platform's DHCP client leaves for the RE. Byte 0
// bit 0 set means no file at all; the rest is the file's content. The two
// outputs are 16-byte heap blocks, and they are then used the way the RE's
// flow uses them: as C texts in a log line.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fuzz_common.h"
#include "util/addr.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_setup_platform();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 4096)
        return 0;
    unlink(GW_IP_FILE);
    if (!(data[0] & 1)) {
        FILE *f = fopen(GW_IP_FILE, "w");
        if (!f)
            abort();
        fwrite(data + 1, 1, size - 1, f);
        fclose(f);
    }

    char *gw = (char *)malloc(16);
    char *ip = (char *)malloc(16);
    memset(gw, 0x5A, 16);
    memset(ip, 0x5A, 16);
    int32_t rc = get_gw_ip(gw, ip);
    if (rc != 0 && rc != -1)
        abort();
    if (rc == -1) {
        for (int i = 0; i < 16; i++)
            if (gw[i] || ip[i])
                abort();
    }
    // The outputs are texts of a 16-byte field: they must end inside it.
    if (!memchr(gw, 0, 16) || !memchr(ip, 0, 16)) {
        fprintf(stderr, "fuzz_gwfile: get_gw_ip left an unterminated address\n");
        abort();
    }
    // "RE triggered to get new gw:[%s] and ip:[%s] ..." reads them as texts.
    char line[128];
    snprintf(line, sizeof(line), "gw:[%s] and ip:[%s]", gw, ip);
    free(gw);
    free(ip);
    return 0;
}
