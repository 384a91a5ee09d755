// The mesh lock: one pairing at a time per router, across threads and
// processes. The lock file holds the uptime at which it was taken, so a
// reboot (and a clean /var/run) ends every lock.
#include "platform/meshlock.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "util/log.h"
#include "util/shell.h"

int g_mesh_locked = 0;

int tolvaAddMeshLock(void)
{
    LOG(5, "tolva mesh Locked\n");
    FILE *fp = fopen(MESH_LOCK_FILE, "we");
    if (!fp)
        return -1;
    __atomic_store_n(&g_mesh_locked, 1, __ATOMIC_RELAXED);
    fprintf(fp, "%ld", (long)uptime());
    fclose(fp);
    return 1;
}

int tolvaRemoveMeshLock(void)
{
    // Peer threads, the discovery thread and the clean-up may all get here.
    if (!__atomic_exchange_n(&g_mesh_locked, 0, __ATOMIC_RELAXED))
        return 0;
    LOG(5, "tolva mesh unLocked\n");
    return unlink(MESH_LOCK_FILE);
}

long tolvaMeshLockStatus(void)
{
    char buf[33];   // 32 bytes read, one spare so atol always sees an end
    memset(buf, 0, sizeof(buf));
    f_string_read(MESH_LOCK_FILE, buf, 32);
    if (buf[0] == '\0')
        return 0;
    return atol(buf);
}

int tolvaTryRemoveMeshLock(void)
{
    long stamp = tolvaMeshLockStatus();
    if (stamp == 0)
        return 0;
    // A stamp ahead of now gives a negative age: still live.
    if ((long)uptime() - stamp < MESH_LOCK_LIFE + 1)
        return 1;
    // Stale. Only our own file is removed; another process's stays on disk
    // but counts as free.
    tolvaRemoveMeshLock();
    return 0;
}

int tolvaGetMeshLock(void)
{
    if (tolvaTryRemoveMeshLock() != 0)
        return -1;
    return tolvaAddMeshLock();
}

void tolvaMeshUpdateFailureStatus(const char *mac)
{
    char m[18];
    char path[128];
    memset(m, 0, sizeof(m));
    if (mac)
        strncpy(m, mac, sizeof(m) - 1);
    removeChar(m, ':');
    snprintf(path, sizeof(path), "/tmp/%s-status", m);
    f_string_write(path, "failed", 6);
}

void removeChar(char *s, int c)
{
    if (!s)
        return;
    char *w = s;
    for (const char *r = s; *r; r++)
        if (*r != (char)c)
            *w++ = *r;
    *w = '\0';
}
