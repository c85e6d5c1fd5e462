// Helpers shared by the transport tests: bounded waits, a process-wide
// recorder for the plain C callbacks, a record type for test messages, raw
// socket peers and hand-built frames.
#pragma once

#include <VomKwz.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace socktest {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Polls pred every millisecond until it holds or timeoutMs pass.
template <typename Pred>
bool WaitUntil(Pred pred, int timeoutMs = 5000) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Waits until fd is readable or the deadline passes.
inline bool Readable(int fd, Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd p{fd, POLLIN, 0};
    return left > 0 && poll(&p, 1, static_cast<int>(left)) == 1;
}

// Frees the module and waits until the table is gone (its last thread ended).
inline bool ShutdownModule(int timeoutMs = 10000) {
    KWSockFree();
    return WaitUntil([] { return KWSockFree() == 0; }, timeoutMs);
}

// One callback delivery as seen by a test.
struct Event {
    int32_t code = 0;
    uint32_t idn = 0, typeId = 0;
    intptr_t reserved = 0;
    std::string image{};  // the record's image bytes (stream), the payload (node)
    int32_t port = 0;     // node events
    std::string addr{};   // node events
};
using Match = std::function<bool(const Event&)>;

// Every callback of a test lands here (callbacks carry no context).
class Recorder {
public:
    static Recorder& Get() {
        static Recorder* r = new Recorder;  // never destroyed: late threads
        return *r;
    }
    void Reset() {
        std::lock_guard<std::mutex> lock(mu_);
        events_.clear();
    }
    void Add(Event e) {
        std::lock_guard<std::mutex> lock(mu_);
        events_.push_back(std::move(e));
        cv_.notify_all();
    }
    // Waits until at least n events satisfy match; returns them (fewer on timeout).
    std::vector<Event> WaitMatching(const Match& match, size_t n = 1, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(mu_);
        std::vector<Event> found;
        cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            found.clear();
            for (const auto& e : events_)
                if (match(e)) found.push_back(e);
            return found.size() >= n;
        });
        return found;
    }
    // Events with this code for idn (any idn when 0).
    std::vector<Event> WaitCode(int32_t code, uint32_t idn, size_t n = 1, int timeoutMs = 5000) {
        return WaitMatching([=](const Event& e) { return e.code == code && (idn == 0 || e.idn == idn); }, n, timeoutMs);
    }
    size_t Count(const Match& match) { return WaitMatching(match, SIZE_MAX, 0).size(); }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Event> events_;
};

inline Event FromRecord(int32_t code, uint32_t idn, const KWRData* rec) {
    Event e{code, idn};
    if (rec) {
        e.typeId = rec->typeId;
        e.reserved = reinterpret_cast<intptr_t>(rec->editSource);
        if (rec->image) e.image.assign(reinterpret_cast<const char*>(rec->image), rec->length);
    }
    return e;
}

// Stream event callback: records every event.
extern "C" inline void RecordEvent(int32_t code, uint32_t idn, KWRData* rec) {
    Recorder::Get().Add(FromRecord(code, idn, rec));
}

// Completion callback: records the result (code 100 + result, so that it
// cannot be mistaken for an event) and releases the record.
constexpr int32_t kCompletion = 100;
extern "C" inline void RecordCompletion(int32_t result, uint32_t idn, KWRData* rec) {
    Recorder::Get().Add(FromRecord(kCompletion + result, idn, rec));
    KWRRecRelease(rec);
}

// Completion callback that only releases the record.
extern "C" inline void ReleaseCompletion(int32_t, uint32_t, KWRData* rec) { KWRRecRelease(rec); }

// A copy of a received record that the transport may own (release:
// KWRRecRelease).
inline KWRData* CopyRecord(const KWRData& rec) {
    auto* copy = static_cast<KWRData*>(KWMemAlloc(sizeof(KWRData), nullptr));
    KWRRecInit(copy);
    KWRRecSet(copy, std::memcpy(std::malloc(rec.length), rec.image, rec.length));  // adopts the copied image
    copy->typeId = rec.typeId;
    return copy;
}

// Event callback of an echo server: every record goes back as it came.
extern "C" inline void EchoEvent(int32_t code, uint32_t idn, KWRData* rec) {
    if (code == SOCK_EV_DATA && rec) {
        KWRData* copy = CopyRecord(*rec);
        if (KWSockSendEx(idn, copy, ReleaseCompletion, 0) != 0) KWRRecRelease(copy);
        return;
    }
    RecordEvent(code, idn, rec);
}

extern "C" inline void RecordNodeEvent(int32_t code, uint32_t idn, int32_t port, const char* addr, const void* data,
                                       int32_t length) {
    Event e{code, idn};
    e.port = port;
    e.addr = addr ? addr : "(null)";
    if (data) e.image.assign(static_cast<const char*>(data), static_cast<size_t>(length));
    Recorder::Get().Add(std::move(e));
}

// Node completion callback: code 100 + result, with the datagram's fields.
extern "C" inline void RecordNodeCompletion(int32_t result, uint32_t idn, int32_t port, const char* addr,
                                            const void* data, int32_t length) {
    RecordNodeEvent(kCompletion + result, idn, port, addr, data, length);
}

// A gate that callbacks wait on (bounded), opened by the test; a plain
// atomic, so threads still waiting at exit find it alive.
inline std::atomic<bool>& GateOpen() {
    static std::atomic<bool> open{false};
    return open;
}
inline bool WaitGate() { return WaitUntil([] { return GateOpen().load(); }, 10000); }

// Records the completion, then holds the sending thread until the gate opens.
extern "C" inline void BlockingCompletion(int32_t result, uint32_t idn, KWRData* rec) {
    RecordCompletion(result, idn, rec);
    WaitGate();
}

inline std::string HostName() {
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    return host;
}

inline uint32_t ListenPort(uint32_t idn) {
    uint32_t port = 0;
    KWSockGetPort(idn, &port);
    return port;
}

inline SockState StateOf(uint32_t idn) {
    SockState st{};
    KWSockGetState(idn, &st);
    return st;
}

// The library's server side of a connection from a raw client: the idn that
// got event 1 (the nth such event).
inline uint32_t AcceptedIdn(size_t nth = 1) {
    auto got = Recorder::Get().WaitCode(SOCK_EV_ACCEPT, 0, nth);
    return got.size() >= nth ? got[nth - 1].idn : 0;
}

// Test messages: "Msg|2\r\nSeq|I4\r\nText|CB", type id 77.
class MsgType {
public:
    static constexpr uint32_t kId = 77;
    MsgType() {
        KWRTypInit(&t_);
        EXPECT_EQ(KWRTypSet(&t_, kId, "Msg|2\r\nSeq|I4\r\nText|CB"), 0u);
    }
    ~MsgType() { KWRTypFree(&t_); }
    MsgType(const MsgType&) = delete;
    MsgType& operator=(const MsgType&) = delete;
    const KWRType* type() const { return &t_; }

    // A packed record allocated for the transport (release: KWRRecRelease).
    KWRData* New(int32_t seq, const std::string& text = "") const {
        KWRData* r = KWRRecAlloc(&t_, nullptr);
        EXPECT_NE(r, nullptr);
        KWRSetAsInt32(&t_.fields[0], r, seq);
        KWRSetAsText(&t_.fields[1], r, static_cast<int32_t>(text.size()), text.data());
        EXPECT_EQ(KWRRecPack(&t_, r, 1, 0), 0u);
        return r;
    }
    // The packed image of such a record.
    std::string Image(int32_t seq, const std::string& text = "") const {
        KWRData* r = New(seq, text);
        std::string img(reinterpret_cast<const char*>(r->image), r->length);
        KWRRecRelease(r);
        return img;
    }
    // Seq read back from a received image.
    static int32_t Seq(const std::string& image) { return image.size() < 12 ? -1 : GetI32(image, 7); }
    static int32_t GetI32(const std::string& s, size_t at) {
        int32_t v = 0;
        std::memcpy(&v, s.data() + at, 4);
        return v;
    }

private:
    KWRType t_;
};

// Waits until the coarse clock behind GetTickCount steps, so that an exchange
// started now has a whole step (4 ms or more) before the tick moves; a step
// in the last 50 ms of a second is skipped, since the tick jumps back at the
// next second.  A clock exchange is measured cleanly only inside one step.
inline void AtTickStep() {
    timespec a{}, b{};
    clock_gettime(CLOCK_REALTIME_COARSE, &a);
    for (;;) {
        std::this_thread::yield();
        clock_gettime(CLOCK_REALTIME_COARSE, &b);
        if (b.tv_nsec == a.tv_nsec && b.tv_sec == a.tv_sec) continue;
        if (b.tv_nsec < 950000000) return;
        a = b;
    }
}

// Repeats try_once (which gives its error, or nothing when it could not run)
// until one error is within tolerance, at most 40 times and for at most 20 s:
// the smallest error seen.  A clock exchange only comes out clean when its
// round trip stays inside one step of the coarse tick; on a loaded machine
// (or under a sanitizer) many do not, and one clean exchange is what the
// checks need.
template <typename Try>
int64_t SmallestError(Try try_once, int64_t tolerance) {
    int64_t best = INT64_MAX;
    const auto end = Clock::now() + std::chrono::seconds(20);
    for (int i = 0; i < 40 && std::llabs(best) > tolerance && Clock::now() < end; ++i) {
        int64_t error = 0;
        if (!try_once(i, &error)) break;
        if (std::llabs(error) < std::llabs(best)) best = error;
    }
    return best;
}

// KWSockTimeDlt's result and the difference (seconds * 1000 + milliseconds).
inline std::pair<int32_t, int32_t> SyncDifference(uint32_t idn) {
    uint32_t s = 7, ms = 7;
    const int32_t result = KWSockTimeDlt(idn, &s, &ms);
    return {result, static_cast<int32_t>(s) * 1000 + static_cast<int32_t>(ms)};
}

// The zone values KWSockTimeZone reports, or -99 twice when it refuses.
inline std::pair<int32_t, int32_t> SyncZone(uint32_t idn) {
    uint32_t z1 = 7, z2 = 7;
    if (!KWSockTimeZone(idn, &z1, &z2)) return {-99, -99};
    return {static_cast<int32_t>(z1), static_cast<int32_t>(z2)};
}

// Sends record 1 with BlockingCompletion and waits until the sending thread
// sits in it (state flag 0x04), so that what is sent next stays queued.
inline bool HoldSender(uint32_t idn, const MsgType& msg) {
    return KWSockSendEx(idn, msg.New(1), BlockingCompletion, 0) == 0 &&
           WaitUntil([&] { return (StateOf(idn).flags & 0x04) != 0; });
}

// Base of the fixtures: a clean recorder and a closed gate; the module set up
// with kSlots slots (not when 0) and shut down afterwards.
template <int kSlots>
class SockFixture : public ::testing::Test {
protected:
    void SetUp() override {
        Recorder::Get().Reset();
        GateOpen() = false;
        ASSERT_EQ(kSlots ? KWSockInit(kSlots) : 0, 0);
    }
    void TearDown() override {
        GateOpen() = true;
        EXPECT_TRUE(ShutdownModule());
    }
};

// ---- bytes on the wire -------------------------------------------------

inline std::string U32Bytes(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

// A frame: int16 type id, int16 reserved, the image.
inline std::string Frame(uint16_t typeId, uint16_t reserved, const std::string& image) {
    return U32Bytes(typeId | uint32_t{reserved} << 16) + image;
}

// The image of a control record (layout "TestTyp2|2": Type I4, Data CB) as
// the transport packs it: header bytes without the edited bit (flags 0, two
// fields), slot codes 0x05 and 0x0B, the text after the 20-byte fixed part
// followed by a 0 byte.
inline std::string ControlImage(int32_t type, const std::string& data) {
    const uint32_t len = static_cast<uint32_t>(data.size());
    return U32Bytes(20 + (len ? len + 1 : 0)) + std::string("\0\2\5", 3) + U32Bytes(static_cast<uint32_t>(type)) +
           "\x0B" + U32Bytes(len) + U32Bytes(len ? 20 : 0) + (len ? data + '\0' : std::string());
}
inline std::string ControlFrame(int32_t type, const std::string& data) { return Frame(0, 0, ControlImage(type, data)); }
// The keep-alive frame: type id 0 and a 6-byte image without fields.
inline std::string KeepAliveFrame() { return Frame(0, 0, std::string("\x06\0\0\0\0\0", 6)); }

// ---- raw sockets ------------------------------------------------------

// A loop-back TCP socket connected to *port, or, with listening, listening
// on a port the system chose (returned in *port); -1 on failure.
inline int RawSocket(uint32_t* port, bool listening = false) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(listening ? 0 : *port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* sa = reinterpret_cast<sockaddr*>(&a);
    socklen_t len = sizeof a;
    if (listening ? bind(fd, sa, len) != 0 || listen(fd, 8) != 0 || getsockname(fd, sa, &len) != 0
                  : connect(fd, sa, len) != 0) {
        close(fd);
        return -1;
    }
    if (listening) *port = ntohs(a.sin_port);
    return fd;
}
inline int RawConnect(uint32_t port) { return RawSocket(&port); }

// A blocking send: it returns once every byte is in the socket.
inline bool WriteAll(int fd, const std::string& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// One whole frame (prefix and image), or "" on timeout / end of stream: the
// 10-byte head first, then as much more as its image length says.
inline std::string ReadFrame(int fd, int timeoutMs = 5000) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string f;
    for (size_t want = 10; f.size() < want;) {
        char buf[4096];
        const ssize_t r = Readable(fd, end) ? recv(fd, buf, std::min(sizeof buf, want - f.size()), 0) : -1;
        if (r <= 0) return {};
        f.append(buf, static_cast<size_t>(r));
        if (f.size() == 10) want = std::max<size_t>(10, 4 + static_cast<uint32_t>(MsgType::GetI32(f, 4)));
    }
    return f;
}

// True when the peer closed the connection within timeoutMs (bytes still
// arriving before the end are skipped).
inline bool PeerClosed(int fd, int timeoutMs = 5000) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    char buf[4096];
    while (Readable(fd, end))
        if (recv(fd, buf, sizeof buf, 0) <= 0) return true;
    return false;
}

// A second process with its stdout on a pipe (posix_spawnp: argv[0] without
// a slash is looked up on the PATH), killed when the object goes if it has
// not ended by then.
class Child {
public:
    explicit Child(const std::vector<std::string>& argv) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        if (posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        out_ = fds[0];
    }
    ~Child() {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) close(out_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    bool Started() const { return pid_ > 0; }

    // The next line of the child's output ("" on timeout or end), read a
    // byte at a time so that nothing past the line is taken from the pipe.
    std::string ReadLine(int timeoutMs = 10000) {
        const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
        std::string line;
        for (char c; Readable(out_, end) && read(out_, &c, 1) == 1; line += c)
            if (c == '\n') return line;
        return {};
    }
    // The exit status, or -1 when the child has not ended within timeoutMs.
    int Wait(int timeoutMs = 10000) {
        int status = 0;
        if (!WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs)) return -1;
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    bool exited_ = false;
};

// A fixture whose tests talk to the library through raw sockets; the
// sockets are closed after each test.
template <int kSlots>
class RawPeerFixture : public SockFixture<kSlots> {
protected:
    void TearDown() override {
        for (int fd : fds_) close(fd);
        SockFixture<kSlots>::TearDown();
    }
    int Keep(int fd) {
        fds_.push_back(fd);
        return fd;
    }
    // A library client connected to a raw server; the raw side's socket once
    // the client's host identification (its first frame) was read off it.
    int ClientToRaw(uint32_t* cli) {
        uint32_t port = 0;
        const int lfd = Keep(RawSocket(&port, true));
        EXPECT_EQ(KWSockCliOpen("127.0.0.1", port, RecordEvent, cli), 0);
        const int fd = Keep(Readable(lfd, Clock::now() + 5s) ? accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC) : -1);
        EXPECT_EQ(ReadFrame(fd), ControlFrame(1, HostName()));
        return fd;
    }
    // A raw client connected to a library server; *srv is the server side.
    // With limit, the listener's receive limit is set first.
    int RawToServer(uint32_t* srv, uint32_t limit = 0, SockEventFn event = RecordEvent) {
        uint32_t lst = 0;
        EXPECT_EQ(KWSockSrvOpen(0, event, &lst), 0);
        EXPECT_EQ(limit ? KWSockSetRecvLimit(lst, limit) : 0, 0);
        const int fd = Keep(RawConnect(ListenPort(lst)));
        *srv = AcceptedIdn();
        EXPECT_NE(*srv, 0u);
        return fd;
    }
    std::vector<int> fds_;
};

inline std::string HelperPath() { return std::string(KWZ_TEST_BIN_DIR) + "/helper_sock_peer"; }

}  // namespace socktest
