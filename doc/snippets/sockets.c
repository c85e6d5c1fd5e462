/* Sockets: a server on a port the system chooses, a client, one record sent.
   Callbacks run on the transport's threads. */
#define _POSIX_C_SOURCE 200809L
#include <VomKwz.h>
#include <stdatomic.h>
#include <stdio.h>
#include <time.h>

static atomic_int received;

static void on_server(int32_t event, uint32_t idn, KWRData* record) {
    (void)idn;
    if (event == SOCK_EV_DATA) atomic_store(&received, (int)record->length); /* freed after the return */
}

static void on_sent(int32_t result, uint32_t idn, KWRData* record) {
    (void)result;
    (void)idn;
    KWRRecRelease(record); /* the record is ours again */
}

int main(void) {
    KWRType type;
    KWRTypInit(&type);
    uint32_t server = 0, client = 0, port = 0;
    if (KWRTypSet(&type, 5, "Ping|1\r\nN|I4") != KWR_OK || KWSockInit(8) != 0) return 1;
    int ok = KWSockSrvOpen(0, on_server, &server) == 0 && KWSockGetPort(server, &port) == 1 && /* 1: found */
             KWSockCliOpen("127.0.0.1", port, NULL, &client) == 0;
    KWRData* rec = ok ? KWRRecAlloc(&type, NULL) : NULL; /* packed, every field null */
    if (rec && KWSockSendEx(client, rec, on_sent, 0) != 0) { /* refused: still ours */
        KWRRecRelease(rec);
        ok = 0;
    }
    const struct timespec ms = {0, 1000000};
    for (int i = 0; ok && i < 5000 && atomic_load(&received) == 0; ++i) nanosleep(&ms, NULL);
    printf("port %u: the server received a %d-byte record\n", port, atomic_load(&received));
    while (KWSockFree() != 0) nanosleep(&ms, NULL); /* -8 while connections finish */
    KWRTypFree(&type);
    return ok && atomic_load(&received) > 0 ? 0 : 1;
}
