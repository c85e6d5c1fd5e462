// Datagram nodes on loopback against two plain UDP sockets in the same run:
// datagrams per second received, for payloads of 64 B and 1 KB.  Both
// senders keep at most 256 datagrams unanswered by the receiver (a datagram
// lost on the way is written off after 20 ms), so the receiver's rate is
// measured rather than the kernel's drops.
#include <VomKwz.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int64_t kWindow = 256;

std::atomic<int64_t> g_received{0};

void NodeEvent(int32_t event, uint32_t, int32_t, const char*, const void*, int32_t) {
    if (event == SOCK_EV_DATA) ++g_received;
}

// Waits until the receiver is at most kWindow behind; gives up on datagrams
// that do not come within 20 ms.
void Throttle(int64_t sent, int64_t* lost) {
    auto since = Clock::now();
    int64_t last = g_received;
    while (sent - g_received - *lost >= kWindow) {
        if (g_received != last) {
            last = g_received;
            since = Clock::now();
        } else if (Clock::now() - since > std::chrono::milliseconds(20)) {
            *lost = sent - g_received;
            return;
        }
        // Sleep rather than spin: on a two-core machine a spinning producer
        // takes the core that the receiver (and, for nodes, the sending
        // thread) needs, and the run would measure that contention.
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
}

void Drain(int64_t sent, int64_t lost) {
    const auto end = Clock::now() + std::chrono::milliseconds(200);
    while (g_received + lost < sent && Clock::now() < end) std::this_thread::yield();
}

void BM_NodeDatagrams(benchmark::State& state) {
    g_received = 0;
    uint32_t a = 0, b = 0, port = 0;
    if (KWSockNodeOpen(0, nullptr, &a) != 0 || KWSockNodeOpen(0, NodeEvent, &b) != 0 || !KWSockGetPort(b, &port)) {
        state.SkipWithError("no nodes");
        return;
    }
    const std::string payload(static_cast<size_t>(state.range(0)), 'n');
    int64_t sent = 0, lost = 0;
    for (auto _ : state) {
        Throttle(sent, &lost);
        KWSockSendNode(a, static_cast<int32_t>(port), "127.0.0.1", payload.data(), static_cast<int32_t>(payload.size()),
                       nullptr);
        ++sent;
    }
    Drain(sent, lost);
    state.SetItemsProcessed(g_received);
    state.counters["lost"] = static_cast<double>(sent - g_received);
    KWSockClose(a);
    KWSockClose(b);
}

void BM_UdpDatagrams(benchmark::State& state) {
    g_received = 0;
    const int rx = socket(AF_INET, SOCK_DGRAM, 0), tx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(rx, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    getsockname(rx, reinterpret_cast<sockaddr*>(&addr), &len);
    timeval tv{0, 100000};
    setsockopt(rx, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        char buf[65536];
        while (!stop) {
            sockaddr_in from{};
            socklen_t fromLen = sizeof from;
            if (recvfrom(rx, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fromLen) >= 0) ++g_received;
        }
    });
    const std::string payload(static_cast<size_t>(state.range(0)), 'u');
    int64_t sent = 0, lost = 0;
    for (auto _ : state) {
        Throttle(sent, &lost);
        sendto(tx, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        ++sent;
    }
    Drain(sent, lost);
    stop = true;
    reader.join();
    state.SetItemsProcessed(g_received);
    state.counters["lost"] = static_cast<double>(sent - g_received);
    close(rx);
    close(tx);
}

BENCHMARK(BM_NodeDatagrams)->Arg(64)->Arg(1024)->UseRealTime();
BENCHMARK(BM_UdpDatagrams)->Arg(64)->Arg(1024)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    if (KWSockInit(16) != 0) return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    KWSockFree();
    for (int i = 0; i < 2000 && KWSockFree() != 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return 0;
}
