/* The idle CAP's wake-ups and nothing else: a 200 ms select on a listening
 * socket followed by sysinfo in one thread, a UDP receive with a 500 ms
 * time-out in another. */
#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

static void *rx(void *arg)
{
    (void)arg;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in sa;
    memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    bind(fd, (struct sockaddr *)&sa, sizeof(sa));
    struct timeval tv = {0, 500000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    char buf[2048];
    for (;;)
        recvfrom(fd, buf, sizeof(buf), 0, NULL, NULL);
    return NULL;
}

int main(void)
{
    pthread_t t;
    pthread_create(&t, NULL, rx, NULL);
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in sa;
    memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    bind(lfd, (struct sockaddr *)&sa, sizeof(sa));
    listen(lfd, 5);
    fprintf(stderr, "ticker: ready\n");
    for (;;) {
        fd_set r;
        FD_ZERO(&r);
        FD_SET(lfd, &r);
        struct timeval tv = {0, 200000};
        select(lfd + 1, &r, NULL, NULL, &tv);
        struct sysinfo si;
        sysinfo(&si);
    }
}
