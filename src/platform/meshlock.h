// The mesh lock (one pairing at a time per router) and per-peer status files.
#pragma once

#define MESH_LOCK_FILE "/var/run/plaitd.lock"
enum { MESH_LOCK_LIFE = 240 };   // seconds a lock stays live

extern int g_mesh_locked;   // 1 while this process holds the lock it made

int tolvaAddMeshLock(void);
int tolvaRemoveMeshLock(void);
long tolvaMeshLockStatus(void);
int tolvaTryRemoveMeshLock(void);
int tolvaGetMeshLock(void);
void tolvaMeshUpdateFailureStatus(const char *mac);
void removeChar(char *s, int c);
