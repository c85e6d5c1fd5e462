/* net_records.c - records over the network, in one program.
 *
 * A server listens on a loopback port that the system chooses; a client
 * connects to it and sends records of a type declared by a definition text,
 * each with a priority.  The transport's worker threads run the callbacks:
 * the server's counts what arrives, the client's learns that each record
 * has left.  The main thread only waits.
 *
 *   cc -std=c11 net_records.c $(pkg-config --cflags --libs VomKwz) -o net_records
 */
#define _POSIX_C_SOURCE 200809L
#include <VomKwz.h>

#include <stdatomic.h>
#include <stdio.h>
#include <time.h>

enum { kRecords = 100 };

static const char* const kReading = "Reading|3\r\nSensor|I4\r\nCelsius|F8\r\nPlace|CH12";

/* Built before the transport starts and only read afterwards: a built type
 * may be read by many threads at once. */
static KWRType g_type;

/* Written by the transport's threads, read by main: atomics. */
static atomic_int g_received;
static atomic_int g_prioritySum; /* of the first ten received, to show the order */
static atomic_int g_sent;
static atomic_int g_closed;

/* Server side: event 1 is a new connection, 0 a record (freed by the
 * library when this returns), 2 and 3 the connection's end. */
static void on_server(int32_t event, uint32_t idn, KWRData* record) {
    (void)idn;
    if (event == SOCK_EV_DATA && record->typeId == 1) {
        /* Bytes from the network: check the image before reading fields. */
        int32_t sensor = 0;
        if (KWRRecCheck(&g_type, record) != KWR_OK ||
            KWRGetAsInt32(KWRFldByName(&g_type, "Sensor"), record, &sensor) != KWR_OK)
            return;
        /* The sender gave sensor i the priority i % 10. */
        if (atomic_fetch_add(&g_received, 1) < 10) atomic_fetch_add(&g_prioritySum, sensor % 10);
    } else if (event == SOCK_EV_CLOSE || event == SOCK_EV_ABORT) {
        atomic_fetch_add(&g_closed, 1);
    }
}

/* Client side: the completion of each KWSockSendEx.  The record is ours
 * again here, and we release it. */
static void on_sent(int32_t result, uint32_t idn, KWRData* record) {
    (void)idn;
    if (result == SOCK_EV_SENT) atomic_fetch_add(&g_sent, 1);
    KWRRecRelease(record);
}

/* Waits up to five seconds for *counter to reach target. */
static int wait_for(atomic_int* counter, int target) {
    const struct timespec pause = {0, 1000000}; /* 1 ms */
    for (int i = 0; i < 5000; ++i) {
        if (atomic_load(counter) >= target) return 1;
        nanosleep(&pause, NULL);
    }
    return 0;
}

int main(void) {
    KWRType* type = &g_type;
    uint32_t server = 0, client = 0, port = 0;
    int status = 1;

    KWRTypInit(type);
    if (KWRTypSet(type, 1, kReading) != KWR_OK) {
        fprintf(stderr, "net_records: the definition is refused\n");
        return 1;
    }
    /* The socket table: a handful of slots is plenty here. */
    if (KWSockInit(8) != 0) {
        fprintf(stderr, "net_records: KWSockInit failed\n");
        KWRTypFree(type);
        return 1;
    }
    /* Port 0: the system chooses one; KWSockGetPort tells which (1: the
     * slot was found, 0: not, as the other look-ups answer). */
    if (KWSockSrvOpen(0, on_server, &server) != 0 || KWSockGetPort(server, &port) != 1) {
        fprintf(stderr, "net_records: cannot listen\n");
        goto done;
    }
    if (KWSockCliOpen("127.0.0.1", port, NULL, &client) != 0) {
        fprintf(stderr, "net_records: cannot connect to port %u\n", port);
        goto done;
    }
    printf("server on 127.0.0.1:%u, client connected\n", port);

    for (int i = 0; i < kRecords; ++i) {
        /* A new record from the library's allocator, every field null. */
        KWRData* rec = KWRRecAlloc(type, NULL);
        if (!rec) goto done;
        const uint32_t priority = (uint32_t)(i % 10);
        if (KWRSetAsInt32(KWRFldByName(type, "Sensor"), rec, i) != KWR_OK ||
            KWRSetAsDouble(KWRFldByName(type, "Celsius"), rec, 20.0 + i * 0.1) != KWR_OK ||
            KWRSetAsText(KWRFldByName(type, "Place"), rec, 7, "cellar1") != KWR_OK ||
            KWRRecPack(type, rec, 1, 0) != KWR_OK) { /* the self-contained wire form */
            KWRRecRelease(rec);
            goto done;
        }
        /* Queued: from here the record is the transport's until on_sent.
         * Higher priorities leave the queue first. */
        if (KWSockSendEx(client, rec, on_sent, priority) != 0) {
            KWRRecRelease(rec); /* refused: still ours */
            fprintf(stderr, "net_records: record %d not queued\n", i);
            goto done;
        }
    }
    if (!wait_for(&g_sent, kRecords) || !wait_for(&g_received, kRecords)) {
        fprintf(stderr, "net_records: sent %d, received %d of %d\n", atomic_load(&g_sent),
                atomic_load(&g_received), kRecords);
        goto done;
    }
    printf("sent %d records, the server received %d (mean priority of the first ten: %.1f)\n",
           atomic_load(&g_sent), atomic_load(&g_received), atomic_load(&g_prioritySum) / 10.0);
    status = 0;

done:
    if (client) KWSockClose(client);
    if (server) KWSockClose(server);
    /* KWSockFree answers -8 while connections are still finishing: repeat. */
    for (int i = 0; i < 5000 && KWSockFree() != 0; ++i) {
        const struct timespec pause = {0, 1000000};
        nanosleep(&pause, NULL);
    }
    KWRTypFree(type);
    return status;
}
