// kwz serve / send / netbench / node / node-send / clock: the transport from
// the command line.  Every command stops cleanly on Ctrl-C: the signal only sets a
// flag; the main thread then closes, frees and waits for the table to go.
#include <VomKwz.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "kwz_util.h"

namespace {

using namespace kwz::tool;
using Clock = std::chrono::steady_clock;

std::atomic<bool> g_stop{false};
std::mutex g_print;  // callbacks print from the transport's threads

extern "C" void OnSignal(int) { g_stop = true; }

void CatchInterrupt() {
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

// Polls pred until it holds or timeoutMs pass; Ctrl-C ends the wait early
// unless the wait is the shutdown itself.
template <typename Pred>
bool WaitFor(Pred pred, int timeoutMs, bool interruptible = true) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (Clock::now() > end || (interruptible && g_stop)) return pred();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// Frees the module and waits (bounded) until its last thread has ended.
bool StopTransport() {
    KWSockFree();
    return WaitFor([] { return KWSockFree() == 0; }, 10000, false);
}

// ------------------------------------------------------------ records

// A received record of unknown type: its fields F0, F1, ... as the image
// describes them, after checking that the image is sound.
std::string Describe(const KWRData* rec) {
    KWRType t;
    KWRTypInit(&t);
    std::string out = "type " + std::to_string(static_cast<int32_t>(rec->typeId)) + ", " +
                      std::to_string(rec->length) + " bytes";
    if (KWRTypGen(&t, "Received", rec) != 0 || KWRRecCheck(&t, rec) != 0) {
        out += ": not a sound image";
    } else {
        for (uint8_t i = 0; i < t.fieldCount; ++i)
            out += std::string(i ? ", " : ": ") + t.fields[i].name + "(" + FieldCode(t.fields[i]) +
                   ")=" + FieldText(t.fields[i], *rec);
    }
    KWRTypFree(&t);
    return out;
}

KWRData* CopyOf(const KWRData& rec) {
    auto* image = static_cast<uint8_t*>(std::malloc(rec.length));
    auto* copy = static_cast<KWRData*>(KWMemAlloc(sizeof(KWRData), nullptr));
    if (!image || !copy) {
        std::free(image);
        KWMemFree(copy);
        return nullptr;
    }
    std::memcpy(image, rec.image, rec.length);
    KWRRecInit(copy);
    KWRRecSet(copy, image);
    copy->typeId = rec.typeId;
    return copy;
}

std::atomic<long long> g_sent{0}, g_failed{0}, g_records{0}, g_bytes{0};

extern "C" void Completed(int32_t result, uint32_t, KWRData* rec) {
    (result == 0 ? g_sent : g_failed) += 1;
    KWRRecRelease(rec);
}

// ------------------------------------------------------------ serve

std::atomic<bool> g_sink{false};

extern "C" void ServeEvent(int32_t event, uint32_t idn, KWRData* rec) {
    if (event == SOCK_EV_DATA && g_sink) {
        ++g_records;
        g_bytes += rec->length + 4;
        return;
    }
    std::lock_guard<std::mutex> lock(g_print);
    char addr[64] = {};
    switch (event) {
        case SOCK_EV_ACCEPT:
            GetPeerHostAddr(idn, addr, sizeof addr - 1);
            std::printf("[0x%08X] connection from %s\n", idn, addr);
            break;
        case SOCK_EV_DATA:
            std::printf("[0x%08X] record %s\n", idn, Describe(rec).c_str());
            break;
        default:
            std::printf("[0x%08X] %s\n", idn, event == SOCK_EV_CLOSE ? "closed" : "aborted");
            break;
    }
    std::fflush(stdout);
}

// Reports a failed open, or prints the port the system bound to *idn (port
// 0 asks for any free one) as the line a caller waits for.  idn is read
// only after ok has been computed, hence the pointer.
bool Opened(bool ok, const uint32_t* idn, uint32_t port, const char* line) {
    if (!ok) {
        StopTransport();
        Fail("port " + std::to_string(port), "cannot open");
        return false;
    }
    KWSockGetPort(*idn, &port);
    std::printf("%s %u (Ctrl-C stops)\n", line, port);
    std::fflush(stdout);
    return true;
}

int Serve(const Call& call) {
    auto port = uint32_t(call.NumberArg(0, "PORT", 0, 65535));
    uint32_t lst = 0;
    g_sink = call.Has("--sink");
    CatchInterrupt();
    if (!Opened(KWSockInit(256) == 0 && KWSockSrvOpen(port, ServeEvent, &lst) == 0, &lst, port, "listening on port"))
        return kExitFailure;
    auto last = Clock::now();
    long long lastRecords = 0, lastBytes = 0;
    while (!g_stop) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (!g_sink || Clock::now() - last < std::chrono::seconds(1)) continue;
        const double secs = std::chrono::duration<double>(Clock::now() - last).count();
        const long long r = g_records, b = g_bytes;
        if (r != lastRecords) {
            std::lock_guard<std::mutex> lock(g_print);
            std::printf("%.0f records/s, %.1f MB/s\n", (r - lastRecords) / secs, (b - lastBytes) / secs / 1e6);
            std::fflush(stdout);
        }
        last = Clock::now();
        lastRecords = r;
        lastBytes = b;
    }
    KWSockClose(lst);
    const bool clean = StopTransport();
    std::printf("stopped\n");
    return clean ? kExitOk : Fail("transport", "connections still finishing after 10 s");
}

// ------------------------------------------------------------ send, netbench

// A transport with one connection to host:port; 0, or 1 after a message.
int Connect(const std::string& host, uint32_t port, SockEventFn events, uint32_t* idn) {
    if (KWSockInit(8) != 0) return Fail("transport", "cannot start");
    if (KWSockCliOpen(host.c_str(), port, events, idn) != 0) {
        StopTransport();
        return Fail(host + ":" + std::to_string(port), "cannot connect");
    }
    return kExitOk;
}

int Send(const Call& call) {
    const auto port = uint32_t(call.NumberArg(1, "PORT", 0, 65535));
    const int64_t count = call.Number("--count", 1, 100000000, 1);
    const int64_t priority = call.Number("--priority", 0, 0xFFFFFFFFll, 0);
    TypeHolder type;
    RecordHolder holder;
    KWRData& rec = holder.r;
    if (!LoadType(UnescapeDefinition(call.Arg(2)), 1, &type.t)) return kExitFailure;
    if (KWRRecNew(&type.t, &rec) != 0) return Fail("record", "cannot be made");
    for (size_t i = 3; i < call.Count(); ++i)
        if (!AssignField(type.t, &rec, call.Arg(i))) return kExitFailure;
    if (KWRRecPack(&type.t, &rec, 1, 0) != 0) return Fail("record", "cannot be packed");
    uint32_t idn = 0;
    int rc = Connect(call.Arg(0), port, nullptr, &idn);
    if (rc == 0) {
        CatchInterrupt();
        for (long long i = 0; i < count && !g_stop; ++i) {
            KWRData* copy = CopyOf(rec);
            if (!copy || KWSockSendEx(idn, copy, Completed, static_cast<uint32_t>(priority)) != 0) {
                if (copy) KWRRecRelease(copy);
                ++g_failed;
                break;
            }
            // Keep the queue short: the transport itself never refuses work.
            WaitFor([&] { return i + 1 - g_sent - g_failed < 1024; }, 60000);
        }
        WaitFor([&] { return g_sent + g_failed >= count || g_failed > 0; }, 60000);
        std::printf("sent %lld record%s of %u bytes%s\n", g_sent.load(), g_sent == 1 ? "" : "s", rec.length,
                    g_failed ? " (some failed)" : "");
        rc = g_failed || g_sent < count ? 1 : 0;
        KWSockClose(idn);
        StopTransport();
        if (rc) Fail(call.Arg(0) + ":" + std::to_string(port), "not every record was sent");
    }
    return rc;
}

int NetBench(const Call& call) {
    const auto port = uint32_t(call.NumberArg(1, "PORT", 0, 65535));
    const int64_t size = call.Number("--size", 26, 16 << 20, 1024);
    const int64_t seconds = call.Number("--seconds", 1, 3600, 5);
    TypeHolder holder;
    KWRType& type = holder.t;
    KWRTypSet(&type, 1, "Bench|2\r\nSeq|I4\r\nData|CB");
    RecordHolder recHolder;
    KWRData& rec = recHolder.r;
    KWRRecNew(&type, &rec);
    const std::string payload(static_cast<size_t>(size - 21), 'b');  // image = 20 + data + 1
    KWRSetAsText(&type.fields[1], &rec, static_cast<int32_t>(payload.size()), payload.data());
    KWRRecPack(&type, &rec, 1, 0);
    uint32_t idn = 0;
    int rc = Connect(call.Arg(0), port, nullptr, &idn);
    if (rc == 0) {
        CatchInterrupt();
        const long long window = std::max(16ll, (8ll << 20) / size);
        const auto start = Clock::now(), end = start + std::chrono::seconds(seconds);
        long long queued = 0;
        while (Clock::now() < end && !g_stop && !g_failed) {
            if (queued - g_sent - g_failed >= window) {
                std::this_thread::yield();
                continue;
            }
            KWRData* copy = CopyOf(rec);
            if (!copy || KWSockSendEx(idn, copy, Completed, 0) != 0) break;
            ++queued;
        }
        WaitFor([&] { return g_sent + g_failed >= queued; }, 30000);
        const double secs = std::chrono::duration<double>(Clock::now() - start).count();
        std::printf("%lld records of %lld bytes in %.2f s: %.0f records/s, %.1f MB/s\n", g_sent.load(), static_cast<long long>(size), secs,
                    g_sent / secs, g_sent * (size + 4) / secs / 1e6);
        rc = g_failed ? 1 : 0;
        KWSockClose(idn);
        StopTransport();
        if (rc) Fail(call.Arg(0) + ":" + std::to_string(port), "a send failed");
    }
    return rc;
}

// ------------------------------------------------------------ clock

// One synchronisation: the difference in ms and the wall time it took.
bool SyncOnce(uint32_t idn, int32_t* diff, double* roundMs, int32_t* zone1, int32_t* zone2) {
    const auto start = Clock::now();
    if (KWSockTimeSynchro(idn) != 1) return false;
    uint32_t s = 0, ms = 0, z1 = 0, z2 = 0;
    if (!WaitFor([&] { return KWSockTimeDlt(idn, &s, &ms) == 1; }, 5000)) return false;
    *roundMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    *diff = static_cast<int32_t>(s) * 1000 + static_cast<int32_t>(ms);
    KWSockTimeZone(idn, &z1, &z2);
    *zone1 = static_cast<int32_t>(z1);
    *zone2 = static_cast<int32_t>(z2);
    return true;
}

int ClockCmd(const Call& call) {
    const auto port = uint32_t(call.NumberArg(1, "PORT", 0, 65535));
    const int64_t count = call.Number("--count", 1, 1000, 5);
    const std::string host = call.Arg(0);
    if (KWSockInit(8) != 0) return Fail("transport", "cannot start");
    CatchInterrupt();
    std::vector<int32_t> diffs;
    for (long long i = 0; i < count && !g_stop; ++i) {
        // A fresh connection per measurement: a new answer is then the only
        // thing that can set the synchronised flag.
        uint32_t idn = 0;
        if (KWSockCliOpen(host.c_str(), port, nullptr, &idn) != 0) {
            Fail(host + ":" + std::to_string(port), "cannot connect");
            break;
        }
        int32_t diff = 0, z1 = 0, z2 = 0;
        double round = 0;
        if (SyncOnce(idn, &diff, &round, &z1, &z2)) {
            std::printf("peer clock %+d ms, round trip %.2f ms, peer zone values %d/%d\n", diff, round, z1, z2);
            diffs.push_back(diff);
        } else {
            Fail(host + ":" + std::to_string(port), "no time answer");
        }
        KWSockClose(idn);
    }
    if (diffs.size() > 1) {
        const auto mm = std::minmax_element(diffs.begin(), diffs.end());
        double mean = 0;
        for (int32_t d : diffs) mean += d;
        mean /= static_cast<double>(diffs.size());
        // The median stands for the clock: a sync whose round trip crossed a
        // step of the 4 ms tick is 2 s off and pulls the mean, not the median.
        std::vector<int32_t> sorted = diffs;
        std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2),
                         sorted.end());
        std::printf("%zu measurements: median %+d ms, mean %+.1f ms, spread %d ms (%+d .. %+d)\n", diffs.size(),
                    sorted[sorted.size() / 2], mean, *mm.second - *mm.first, *mm.first, *mm.second);
    }
    StopTransport();
    return diffs.empty() ? 1 : 0;
}

// ------------------------------------------------------------ nodes

extern "C" void NodePrint(int32_t event, uint32_t, int32_t port, const char* addr, const void* data,
                          int32_t length) {
    if (event != SOCK_EV_DATA) return;
    std::lock_guard<std::mutex> lock(g_print);
    std::printf("%s:%d  %d bytes  %s\n", addr, port, length,
                QuoteText(static_cast<const char*>(data), static_cast<size_t>(length), 96).c_str());
    std::fflush(stdout);
}

std::atomic<int32_t> g_nodeResult{1};

extern "C" void NodeSent(int32_t event, uint32_t, int32_t, const char*, const void*, int32_t) {
    g_nodeResult = event;
}

int Node(const Call& call) {
    auto port = uint32_t(call.NumberArg(0, "PORT", 0, 65535));
    uint32_t idn = 0;
    CatchInterrupt();
    if (!Opened(KWSockInit(4) == 0 && KWSockNodeOpen(port, NodePrint, &idn) == 0, &idn, port, "datagrams to port"))
        return kExitFailure;
    while (!g_stop) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    KWSockClose(idn);
    return StopTransport() ? kExitOk : Fail("transport", "did not stop within 10 s");
}

int NodeSend(const Call& call) {
    const auto port = uint32_t(call.NumberArg(1, "PORT", 0, 65535));
    const std::string& host = call.Arg(0);
    const std::string& text = call.Arg(2);
    uint32_t idn = 0;
    if (KWSockInit(4) != 0 || KWSockNodeOpen(0, nullptr, &idn) != 0) {
        StopTransport();
        return Fail("transport", "cannot open a node");
    }
    int rc = kExitFailure;
    if (KWSockSendNode(idn, static_cast<int32_t>(port), host.c_str(), text.data(), static_cast<int32_t>(text.size()),
                       NodeSent) == 0 &&
        WaitFor([] { return g_nodeResult <= 0; }, 5000))
        rc = g_nodeResult == 0 ? kExitOk : kExitFailure;
    if (rc == kExitOk)
        std::printf("sent %zu bytes to %s:%u\n", text.size(), host.c_str(), port);
    else
        Fail(host + ":" + std::to_string(port), "not sent (" + std::to_string(text.size()) + " bytes)");
    KWSockClose(idn);
    StopTransport();
    return rc;
}

}  // namespace

KWZ_COMMAND(serve, {200, "transport", "serve", "PORT [--sink]", "print every record received on PORT (0: any free port)",
                    1, 1, {{"--sink", nullptr, nullptr, "count the records and print the rate instead"}},
                    "The first line names the port it listens on; Ctrl-C stops it."}) {
    return Serve(call);
}
KWZ_COMMAND(send, {210, "transport", "send", "HOST PORT \"DEF\" [field=value ...] [--count N] [--priority P]",
                   "send records of a type to a kwz serve", 3, -1,
                   {{"--count", nullptr, "N", "send the record N times (default 1)"},
                    {"--priority", nullptr, "P", "the send priority, 0..4294967295 (default 0)"}},
                   "The values are read as `kwz record` reads them."}) {
    return Send(call);
}
KWZ_COMMAND(netbench, {220, "transport", "netbench", "HOST PORT [--size N] [--seconds S]",
                       "throughput against kwz serve --sink", 2, 2,
                       {{"--size", nullptr, "N", "bytes per record image, 26..16777216 (default 1024)"},
                        {"--seconds", nullptr, "S", "how long to send, 1..3600 (default 5)"}}}) {
    return NetBench(call);
}
KWZ_COMMAND(clock, {230, "transport", "clock", "HOST PORT [--count N]", "measure the clock difference to a kwz serve", 2,
                    2, {{"--count", nullptr, "N", "measurements, 1..1000 (default 5)"}}}) {
    return ClockCmd(call);
}
KWZ_COMMAND(node, {240, "transport", "node", "PORT", "print the datagrams that arrive on PORT (0: any free port)", 1, 1,
                   {}, "The first line names the port; Ctrl-C stops it."}) {
    return Node(call);
}
KWZ_COMMAND(node_send, {250, "transport", "node-send", "HOST|* PORT TEXT", "send one datagram (* broadcasts)", 3, 3}) {
    return NodeSend(call);
}
