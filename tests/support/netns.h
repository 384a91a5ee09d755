// Puts the test process in a network namespace of its own with loopback up, so
// fixed ports and broadcasts never reach the host. Call before any thread starts.
#pragma once
#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

inline bool netns_enter_private(void)
{
    int s = unshare(CLONE_NEWNET) == 0 ? socket(AF_INET, SOCK_DGRAM, 0) : -1;
    struct ifreq ifr = {};
    strcpy(ifr.ifr_name, "lo"), ifr.ifr_flags = IFF_UP;
    bool ok = s >= 0 && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    close(s);
    return ok;
}
