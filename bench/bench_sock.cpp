// The transport on loopback against its peers in the same run:
//   - RawTcp: a plain blocking TCP socket pair carrying the very same frame
//     bytes, written in 64 KB pieces (the physical limit of the machine);
//   - Zmq: ZeroMQ PUSH/PULL (one-way) and REQ/REP (round trip) carrying
//     messages of the same size as our frames.
// One-way benchmarks count records per second at the receiver (items) and
// frame bytes per second; every sender keeps a bounded window in flight.
// Round trips report the median and the 99th percentile in microseconds.
#include <VomKwz.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

template <typename Pred>
bool Spin(Pred pred, int timeoutMs = 10000) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (Clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

// ---------------------------------------------------------------- records

KWRType g_type;  // "Bench|2\r\nSeq|I4\r\nData|CB", id 9

// A packed record whose image is exactly `image` bytes (at least 21).
KWRData MakeImage(int64_t image) {
    KWRData rec;
    KWRRecInit(&rec);
    KWRRecNew(&g_type, &rec);
    const std::string data(static_cast<size_t>(image - 21), 'd');  // 20 fixed + data + 0
    KWRSetAsText(&g_type.fields[1], &rec, static_cast<int32_t>(data.size()), data.data());
    KWRRecPack(&g_type, &rec, 1, 0);
    return rec;
}

KWRData* Copy(const KWRData& rec) {
    auto* image = static_cast<uint8_t*>(std::malloc(rec.length));
    std::memcpy(image, rec.image, rec.length);
    auto* copy = static_cast<KWRData*>(KWMemAlloc(sizeof(KWRData), nullptr));
    KWRRecInit(copy);
    KWRRecSet(copy, image);
    copy->typeId = rec.typeId;
    return copy;
}

std::atomic<int64_t> g_received{0}, g_completed{0}, g_closes{0}, g_answers{0};
std::atomic<uint32_t> g_server{0};
std::atomic<bool> g_echo{false};

void Released(int32_t, uint32_t, KWRData* rec) {
    ++g_completed;
    KWRRecRelease(rec);
}

void ServerEvent(int32_t event, uint32_t idn, KWRData* rec) {
    if (event == SOCK_EV_DATA) {
        if (g_echo) KWSockSendEx(idn, Copy(*rec), Released, 0);
        ++g_received;
    } else if (event == SOCK_EV_ACCEPT) {
        g_server = idn;
    } else {
        ++g_closes;
    }
}

// The round trip's client blocks until its answer arrives, as a raw recv
// or zmq_recv does.
std::mutex g_answerMu;
std::condition_variable g_answerCv;

void ClientEvent(int32_t event, uint32_t, KWRData*) {
    if (event == SOCK_EV_DATA) {
        {
            std::lock_guard<std::mutex> lock(g_answerMu);
            ++g_answers;
        }
        g_answerCv.notify_one();
    } else {
        ++g_closes;
    }
}

// A connected pair on loopback for one benchmark run.
struct KwzPair {
    uint32_t lst = 0, cli = 0;
    bool ok = false;
    explicit KwzPair(bool echo) {
        g_received = g_completed = g_closes = g_answers = 0;
        g_server = 0;
        g_echo = echo;
        uint32_t port = 0;
        ok = KWSockSrvOpen(0, ServerEvent, &lst) == 0 && KWSockGetPort(lst, &port) &&
             KWSockCliOpen("127.0.0.1", port, ClientEvent, &cli) == 0 && Spin([] { return g_server != 0; });
    }
    ~KwzPair() {
        KWSockClose(cli);
        KWSockClose(lst);
        Spin([] { return g_closes >= 3; });  // client, server side, listener
    }
};

// Records in flight come from a pool: the completion callback hands each
// record back for the next send, as an application that keeps its buffers
// does (the raw TCP peer reuses its buffer too).  The window is the pool.
std::mutex g_poolMu;
std::vector<KWRData*> g_pool;

void BackToPool(int32_t, uint32_t, KWRData* rec) {
    std::lock_guard<std::mutex> lock(g_poolMu);
    g_pool.push_back(rec);
}

KWRData* FromPool() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(g_poolMu);
            if (!g_pool.empty()) {
                KWRData* r = g_pool.back();
                g_pool.pop_back();
                return r;
            }
        }
        std::this_thread::yield();
    }
}

void BM_KwzOneWay(benchmark::State& state) {
    const int64_t image = state.range(0);
    KWRData rec = MakeImage(image);
    KwzPair pair(false);
    if (!pair.ok) state.SkipWithError("no connection");
    const int64_t window = std::max<int64_t>(64, (4 << 20) / image);
    for (int64_t i = 0; i < window; ++i) g_pool.push_back(Copy(rec));
    int64_t queued = 0;
    for (auto _ : state) {
        KWSockSendEx(pair.cli, FromPool(), BackToPool, 0);
        ++queued;
    }
    Spin([&] { return g_received >= queued; });
    Spin([&] {
        std::lock_guard<std::mutex> lock(g_poolMu);
        return static_cast<int64_t>(g_pool.size()) == window;
    });
    for (KWRData* r : g_pool) KWRRecRelease(r);
    g_pool.clear();
    state.SetItemsProcessed(queued);
    state.SetBytesProcessed(queued * (image + 4));
    KWRRecFree(&rec);
}

void BM_KwzRoundTrip(benchmark::State& state) {
    KWRData rec = MakeImage(state.range(0));
    KwzPair pair(true);
    if (!pair.ok) state.SkipWithError("no connection");
    std::vector<double> us;
    int64_t expected = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        KWSockSendEx(pair.cli, Copy(rec), Released, 0);
        ++expected;
        std::unique_lock<std::mutex> lock(g_answerMu);
        g_answerCv.wait(lock, [&] { return g_answers >= expected; });
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    std::sort(us.begin(), us.end());
    if (!us.empty()) {
        state.counters["p50_us"] = us[us.size() / 2];
        state.counters["p99_us"] = us[us.size() * 99 / 100];
    }
    KWRRecFree(&rec);
}

// ---------------------------------------------------------------- raw TCP

struct RawPair {
    int a = -1, b = -1;
    RawPair() {
        const int l = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        bind(l, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        listen(l, 1);
        getsockname(l, reinterpret_cast<sockaddr*>(&addr), &len);
        a = socket(AF_INET, SOCK_STREAM, 0);
        connect(a, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        b = accept(l, nullptr, nullptr);
        close(l);
    }
    ~RawPair() {
        close(a);
        close(b);
    }
};

bool WriteAll(int fd, const char* p, size_t n) {
    while (n > 0) {
        const ssize_t r = send(fd, p, n, MSG_NOSIGNAL);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

void BM_RawTcpOneWay(benchmark::State& state) {
    const size_t frame = static_cast<size_t>(state.range(0)) + 4;
    const size_t chunk = static_cast<size_t>(state.range(1));
    RawPair pair;
    std::atomic<int64_t> bytes{0};
    std::thread reader([&] {
        std::vector<char> buf(chunk);
        for (;;) {
            const ssize_t r = recv(pair.b, buf.data(), buf.size(), 0);
            if (r <= 0) return;
            bytes += r;
        }
    });
    // Frames are gathered into writes of `chunk` bytes: no per-frame call.
    std::vector<char> pending(chunk + frame);
    size_t used = 0;
    const std::string one(frame, 'f');
    int64_t frames = 0;
    for (auto _ : state) {
        ++frames;
        std::memcpy(pending.data() + used, one.data(), frame);
        used += frame;
        if (used >= chunk) {
            WriteAll(pair.a, pending.data(), used);
            used = 0;
        }
    }
    WriteAll(pair.a, pending.data(), used);
    Spin([&] { return bytes >= frames * static_cast<int64_t>(frame); });
    shutdown(pair.a, SHUT_WR);
    reader.join();
    state.SetItemsProcessed(frames);
    state.SetBytesProcessed(frames * static_cast<int64_t>(frame));
}

void BM_RawTcpRoundTrip(benchmark::State& state) {
    const size_t frame = static_cast<size_t>(state.range(0)) + 4;
    RawPair pair;
    int one = 1;
    setsockopt(pair.a, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(pair.b, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::thread echo([&] {
        std::vector<char> buf(frame);
        for (;;) {
            size_t got = 0;
            while (got < frame) {
                const ssize_t r = recv(pair.b, buf.data() + got, frame - got, 0);
                if (r <= 0) return;
                got += static_cast<size_t>(r);
            }
            if (!WriteAll(pair.b, buf.data(), frame)) return;
        }
    });
    std::vector<char> buf(frame, 'r');
    std::vector<double> us;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        WriteAll(pair.a, buf.data(), frame);
        size_t got = 0;
        while (got < frame) got += static_cast<size_t>(std::max<ssize_t>(0, recv(pair.a, buf.data() + got, frame - got, 0)));
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    shutdown(pair.a, SHUT_RDWR);
    echo.join();
    std::sort(us.begin(), us.end());
    if (!us.empty()) {
        state.counters["p50_us"] = us[us.size() / 2];
        state.counters["p99_us"] = us[us.size() * 99 / 100];
    }
}

// ---------------------------------------------------------------- ZeroMQ

void BM_ZmqOneWay(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0)) + 4;
    void* ctx = zmq_ctx_new();
    void* pull = zmq_socket(ctx, ZMQ_PULL);
    void* push = zmq_socket(ctx, ZMQ_PUSH);
    zmq_bind(pull, "tcp://127.0.0.1:*");
    char endpoint[256];
    size_t len = sizeof endpoint;
    zmq_getsockopt(pull, ZMQ_LAST_ENDPOINT, endpoint, &len);
    zmq_connect(push, endpoint);
    std::atomic<int64_t> got{0};
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        std::vector<char> buf(size);
        int timeout = 100;
        zmq_setsockopt(pull, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
        while (!stop) {
            if (zmq_recv(pull, buf.data(), buf.size(), 0) >= 0) ++got;
        }
    });
    const std::string msg(size, 'z');
    int64_t sent = 0;
    for (auto _ : state) {
        zmq_send(push, msg.data(), msg.size(), 0);
        ++sent;
    }
    Spin([&] { return got >= sent; });
    stop = true;
    reader.join();
    state.SetItemsProcessed(sent);
    state.SetBytesProcessed(sent * static_cast<int64_t>(size));
    int linger = 0;
    zmq_setsockopt(push, ZMQ_LINGER, &linger, sizeof linger);
    zmq_close(push);
    zmq_close(pull);
    zmq_ctx_term(ctx);
}

void BM_ZmqRoundTrip(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0)) + 4;
    void* ctx = zmq_ctx_new();
    void* rep = zmq_socket(ctx, ZMQ_REP);
    void* req = zmq_socket(ctx, ZMQ_REQ);
    zmq_bind(rep, "tcp://127.0.0.1:*");
    char endpoint[256];
    size_t len = sizeof endpoint;
    zmq_getsockopt(rep, ZMQ_LAST_ENDPOINT, endpoint, &len);
    zmq_connect(req, endpoint);
    std::atomic<bool> stop{false};
    std::thread echo([&] {
        std::vector<char> buf(size);
        int timeout = 100;
        zmq_setsockopt(rep, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
        while (!stop) {
            const int n = zmq_recv(rep, buf.data(), buf.size(), 0);
            if (n >= 0) zmq_send(rep, buf.data(), static_cast<size_t>(n), 0);
        }
    });
    std::vector<char> buf(size, 'q');
    std::vector<double> us;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        zmq_send(req, buf.data(), size, 0);
        zmq_recv(req, buf.data(), size, 0);
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    stop = true;
    echo.join();
    std::sort(us.begin(), us.end());
    if (!us.empty()) {
        state.counters["p50_us"] = us[us.size() / 2];
        state.counters["p99_us"] = us[us.size() * 99 / 100];
    }
    int linger = 0;
    zmq_setsockopt(req, ZMQ_LINGER, &linger, sizeof linger);
    zmq_setsockopt(rep, ZMQ_LINGER, &linger, sizeof linger);
    zmq_close(req);
    zmq_close(rep);
    zmq_ctx_term(ctx);
}

// Image sizes: 64 B, 1 KB, 64 KB.
BENCHMARK(BM_KwzOneWay)->Arg(64)->Arg(1024)->Arg(65536)->UseRealTime();
BENCHMARK(BM_RawTcpOneWay)->Args({64, 65536})->Args({1024, 65536})->Args({65536, 65536})->Args({65536, 262144})->UseRealTime();
BENCHMARK(BM_ZmqOneWay)->Arg(64)->Arg(1024)->Arg(65536)->UseRealTime();
BENCHMARK(BM_KwzRoundTrip)->Arg(64)->UseRealTime();
BENCHMARK(BM_RawTcpRoundTrip)->Arg(64)->UseRealTime();
BENCHMARK(BM_ZmqRoundTrip)->Arg(64)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    KWRTypInit(&g_type);
    KWRTypSet(&g_type, 9, "Bench|2\r\nSeq|I4\r\nData|CB");
    if (KWSockInit(64) != 0) return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    KWSockFree();
    Spin([] { return KWSockFree() == 0; });
    KWRTypFree(&g_type);
    return 0;
}
