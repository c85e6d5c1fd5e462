// Soak test of the transport: 8 client connections send 100,000 records each
// (random sizes, sequence numbers inside) to one server in this process.
// Checks that every record arrives exactly once and in order per connection
// with its bytes intact, that every completion reports success, that both
// ends count the same bytes, and that every queue is empty at the end.
// Bounded: gives up after two minutes.  Exit status 0 when all holds.
//
//   sock_soak [records-per-connection]
#include <VomKwz.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kConns = 8;
constexpr int64_t kWindow = 2048;

KWRType g_type;  // "Soak|3\r\nConn|I4\r\nSeq|I4\r\nData|CB", id 21

std::atomic<int64_t> g_expected[kConns];
std::atomic<int64_t> g_received{0}, g_errors{0}, g_closes{0};
std::atomic<uint32_t> g_serverIdn[kConns];
std::atomic<int64_t> g_done[kConns], g_failed{0};

uint8_t Pattern(int32_t conn, int32_t seq, uint32_t i) { return static_cast<uint8_t>(conn * 31 + seq * 7 + i); }

void ServerEvent(int32_t event, uint32_t idn, KWRData* rec) {
    if (event != SOCK_EV_DATA) {
        if (event != SOCK_EV_ACCEPT) ++g_closes;
        return;
    }
    int32_t conn = -1, seq = -1;
    uint32_t len = 0;
    const char* data = nullptr;
    if (KWRRecCheck(&g_type, rec) != 0 || KWRGetAsInt32(&g_type.fields[0], rec, &conn) != 0 ||
        KWRGetAsInt32(&g_type.fields[1], rec, &seq) != 0 || conn < 0 || conn >= kConns) {
        ++g_errors;
        return;
    }
    KWRGetTextRef(&g_type.fields[2], rec, &len, &data);
    g_serverIdn[conn] = idn;
    if (seq != g_expected[conn]) {
        if (g_errors++ < 10) std::fprintf(stderr, "conn %d: seq %d, expected %lld\n", conn, seq, (long long)g_expected[conn].load());
    }
    g_expected[conn] = seq + 1;
    for (uint32_t i = 0; i < len; i += 97) {
        if (static_cast<uint8_t>(data[i]) != Pattern(conn, seq, i)) {
            ++g_errors;
            break;
        }
    }
    ++g_received;
}

void Completed(int32_t result, uint32_t, KWRData* rec) {
    int32_t conn = 0;
    KWRGetAsInt32(&g_type.fields[0], rec, &conn);
    if (result != 0) ++g_failed;
    ++g_done[conn];
    KWRRecRelease(rec);
}

// 80 % up to 256 bytes, 15 % up to 4 KB, 5 % up to 64 KB.
uint32_t RandomSize(std::mt19937& rng) {
    const uint32_t pick = rng() % 100;
    if (pick < 80) return rng() % 257;
    if (pick < 95) return rng() % 4097;
    return rng() % 65537;
}

void Client(int conn, uint32_t cli, int64_t count) {
    std::mt19937 rng(static_cast<uint32_t>(conn) * 7919u + 1);
    std::string data;
    for (int64_t seq = 0; seq < count; ++seq) {
        while (seq - g_done[conn] >= kWindow) std::this_thread::yield();
        const uint32_t size = RandomSize(rng);
        data.resize(size);
        for (uint32_t i = 0; i < size; ++i) data[i] = static_cast<char>(Pattern(conn, static_cast<int32_t>(seq), i));
        KWRData* rec = KWRRecAlloc(&g_type, nullptr);
        KWRSetAsInt32(&g_type.fields[0], rec, conn);
        KWRSetAsInt32(&g_type.fields[1], rec, static_cast<int32_t>(seq));
        KWRSetAsText(&g_type.fields[2], rec, static_cast<int32_t>(size), data.data());
        KWRRecPack(&g_type, rec, 1, 0);
        if (KWSockSendEx(cli, rec, Completed, 0) != 0) {
            ++g_failed;
            KWRRecRelease(rec);
            return;
        }
    }
}

template <typename Pred>
bool WaitFor(Pred pred, int seconds) {
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (!pred()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

SockState State(uint32_t idn) {
    SockState st{};
    KWSockGetState(idn, &st);
    return st;
}

}  // namespace

int main(int argc, char** argv) {
    const int64_t count = argc > 1 ? std::atoll(argv[1]) : 100000;
    KWRTypInit(&g_type);
    KWRTypSet(&g_type, 21, "Soak|3\r\nConn|I4\r\nSeq|I4\r\nData|CB");
    if (KWSockInit(32) != 0) return 1;
    uint32_t lst = 0, port = 0;
    if (KWSockSrvOpen(0, ServerEvent, &lst) != 0 || !KWSockGetPort(lst, &port)) return 1;
    uint32_t cli[kConns];
    for (int c = 0; c < kConns; ++c) {
        if (KWSockCliOpen("127.0.0.1", port, nullptr, &cli[c]) != 0) return 1;
    }
    const auto start = Clock::now();
    std::vector<std::thread> senders;
    for (int c = 0; c < kConns; ++c) senders.emplace_back(Client, c, cli[c], count);
    for (auto& t : senders) t.join();
    const int64_t total = count * kConns;
    bool ok = WaitFor([&] { return g_received + g_errors >= total; }, 120);
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();
    ok = WaitFor([&] {
             for (int c = 0; c < kConns; ++c)
                 if (g_done[c] < count) return false;
             return true;
         }, 10) && ok;

    uint64_t bytes = 0;
    for (int c = 0; c < kConns; ++c) {
        // Both ends count every frame with its prefix, keep-alives included.
        const bool same = WaitFor([&] { return State(cli[c]).sendBytes == State(g_serverIdn[c]).recvBytes; }, 10);
        const SockState cs = State(cli[c]), ss = State(g_serverIdn[c]);
        bytes += ss.recvBytes;
        if (!same || cs.bufNum != 0 || cs.bufSize != 0 || g_expected[c] != count) {
            std::fprintf(stderr, "conn %d: sent %llu bytes, server got %llu; queue %u records / %u bytes; %lld in order\n", c,
                         (unsigned long long)cs.sendBytes, (unsigned long long)ss.recvBytes, cs.bufNum, cs.bufSize,
                         (long long)g_expected[c].load());
            ok = false;
        }
    }
    for (int c = 0; c < kConns; ++c) KWSockClose(cli[c]);
    KWSockClose(lst);
    ok = WaitFor([] { return g_closes >= kConns; }, 10) && ok;
    KWSockFree();
    ok = WaitFor([] { return KWSockFree() == 0; }, 10) && ok;
    ok = ok && g_errors == 0 && g_failed == 0 && g_received == total;
    std::printf("sock_soak: %lld records (%.1f MB) over %d connections in %.1f s: %.0f records/s; errors %lld, failed %lld: %s\n",
                (long long)g_received.load(), bytes / 1e6, kConns, secs, g_received / secs, (long long)g_errors.load(),
                (long long)g_failed.load(), ok ? "OK" : "FAILED");
    KWRTypFree(&g_type);
    return ok ? 0 : 1;
}
