// The status file: role, phase of the pairing, its peer, the last failure and
// a few counts, for the platform to read. Rewritten whole (a temporary file,
// then rename) only when its text changes; it never holds a credential, a
// Wi-Fi name or a key.
#pragma once
#include <stdint.h>

#define PSTAT_FILE "/var/run/plaitd.json"

enum pstat_phase_id : int32_t {
    PS_NONE,
    PS_DISCOVERY,
    PS_CONNECTING,
    PS_TLS,
    PS_AUTH,
    PS_CONFIG,
    PS_INITIALISING,
    PS_PAIRED,
    PS_WAITING,
    PS_FAILED,
    PS_COUNT,
};

enum { PSTAT_TEXT_SIZE = 512 };

struct pstat_state {
    int32_t phase;
    int32_t since;   // uptime at the change of phase
    int32_t attempts;
    int32_t pairings;
    int32_t refusals;
    char addr[16];
    char mac[3][20];   // the peer's own, 2.4 GHz and 5 GHz MACs
    char fail_reason[16];
    int32_t fail_phase;
    char text[PSTAT_TEXT_SIZE];   // as last written
};

extern pstat_state g_pstat;

// A new phase; the move into PS_PAIRED counts a pairing.
void pstat_phase(int32_t phase);
// A new peer at `addr` (its MACs unknown yet): one more attempt, in `phase`.
// Gives the attempt's number.
int32_t pstat_begin(int32_t phase, const char *addr);
// The peer's MACs as learnt (null leaves one as it is); written with the next phase.
void pstat_macs(const char *mac, const char *mac2, const char *mac5);
// The attempt under way failed: the phase becomes PS_FAILED and the failure
// keeps `reason` and the phase it ended. Outside an attempt, or once it has
// failed already, nothing changes.
void pstat_fail(const char *reason);
void pstat_refused(void);
// A CAP's peer session `attempt` ended: unfinished, it failed, and the CAP
// waits again; a pairing stays shown until the next peer. A later attempt
// under way (the mesh lock's life ran out) is left alone.
void pstat_done(int32_t attempt);
