/* Datagram nodes: two UDP nodes on ports the system chooses, one datagram. */
#define _POSIX_C_SOURCE 200809L
#include <VomKwz.h>
#include <stdatomic.h>
#include <stdio.h>
#include <time.h>

static atomic_int got;

static void on_datagram(int32_t event, uint32_t idn, int32_t port, const char* address, const void* data,
                        int32_t length) {
    (void)idn;
    (void)data;
    if (event == SOCK_EV_DATA) {
        printf("%d bytes from %s:%d\n", length, address, port);
        atomic_store(&got, 1);
    }
}

int main(void) {
    uint32_t a = 0, b = 0, portB = 0;
    if (KWSockInit(4) != 0) return 1;
    int ok = KWSockNodeOpen(0, NULL, &a) == 0 && KWSockNodeOpen(0, on_datagram, &b) == 0 &&
             KWSockGetPort(b, &portB) == 1 &&
             KWSockSendNode(a, (int32_t)portB, "127.0.0.1", "hello", 5, NULL) == 0; /* "*" broadcasts */
    const struct timespec ms = {0, 1000000};
    for (int i = 0; ok && i < 5000 && !atomic_load(&got); ++i) nanosleep(&ms, NULL);
    while (KWSockFree() != 0) nanosleep(&ms, NULL);
    return ok && atomic_load(&got) ? 0 : 1;
}
