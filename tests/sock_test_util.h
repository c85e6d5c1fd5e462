// Helpers shared by the transport tests: bounded waits, a process-wide
// recorder for the plain C callbacks, a record type for test messages, raw
// socket peers and hand-built frames.
#pragma once

#include <VomKwz.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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

// Polls pred every millisecond until it holds or timeoutMs pass.
template <typename Pred>
bool WaitUntil(Pred pred, int timeoutMs = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Frees the module and waits until the table is gone (its last thread ended).
inline bool ShutdownModule(int timeoutMs = 10000) {
    KWSockFree();
    return WaitUntil([] { return KWSockFree() == 0; }, timeoutMs);
}

// One callback delivery as seen by a test.
struct Event {
    int32_t code = 0;
    uint32_t idn = 0;
    uint32_t typeId = 0;
    intptr_t reserved = 0;
    std::string image;  // the record's image bytes (stream), the payload (node)
    int32_t port = 0;   // node events
    std::string addr;   // node events
};

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
        {
            std::lock_guard<std::mutex> lock(mu_);
            events_.push_back(std::move(e));
        }
        cv_.notify_all();
    }
    // Waits until at least n events satisfy match; returns them (fewer on timeout).
    std::vector<Event> WaitMatching(const std::function<bool(const Event&)>& match, size_t n = 1,
                                    int timeoutMs = 5000) {
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
    std::vector<Event> WaitCode(int32_t code, uint32_t idn, size_t n = 1, int timeoutMs = 5000) {
        return WaitMatching([=](const Event& e) { return e.code == code && (idn == 0 || e.idn == idn); }, n,
                            timeoutMs);
    }
    size_t Count(const std::function<bool(const Event&)>& match) {
        std::lock_guard<std::mutex> lock(mu_);
        size_t n = 0;
        for (const auto& e : events_) n += match(e) ? 1 : 0;
        return n;
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Event> events_;
};

inline Event FromRecord(int32_t code, uint32_t idn, const KWRData* rec) {
    Event e;
    e.code = code;
    e.idn = idn;
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

extern "C" inline void RecordNodeEvent(int32_t code, uint32_t idn, int32_t port, const char* addr, const void* data,
                                       int32_t length) {
    Event e;
    e.code = code;
    e.idn = idn;
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
    // Seq of a received image (copied into a record to read it).
    int32_t Seq(const std::string& image) const {
        if (image.size() < 12) return -1;
        int32_t v = 0;
        std::memcpy(&v, image.data() + 7, 4);
        return v;
    }
    std::string Text(const std::string& image) const {
        uint32_t len = 0, off = 0;
        if (image.size() < 20) return {};
        std::memcpy(&len, image.data() + 12, 4);
        std::memcpy(&off, image.data() + 16, 4);
        if (off == 0 || off + len > image.size()) return {};
        return image.substr(off, len);
    }

private:
    KWRType t_;
};

// ---- bytes on the wire -------------------------------------------------

inline void PutU32(std::string& s, uint32_t v) { s.append(reinterpret_cast<const char*>(&v), 4); }
inline void PutU16(std::string& s, uint16_t v) { s.append(reinterpret_cast<const char*>(&v), 2); }
inline uint32_t GetU32(const std::string& s, size_t at) {
    uint32_t v = 0;
    std::memcpy(&v, s.data() + at, 4);
    return v;
}

// A frame: int16 type id, int16 reserved, the image.
inline std::string Frame(uint16_t typeId, uint16_t reserved, const std::string& image) {
    std::string f;
    PutU16(f, typeId);
    PutU16(f, reserved);
    return f + image;
}

// The image of a control record (layout "TestTyp2|2": Type I4, Data CB) as
// the transport packs it: header bytes without the edited bit, the text after
// the 20-byte fixed part followed by a 0 byte.
inline std::string ControlImage(int32_t type, const std::string& data) {
    const uint32_t len = static_cast<uint32_t>(data.size());
    std::string img;
    PutU32(img, 20 + (len ? len + 1 : 0));
    img += '\0';  // flags
    img += '\2';  // field count
    img += '\x05';
    PutU32(img, static_cast<uint32_t>(type));
    img += '\x0B';
    PutU32(img, len);
    PutU32(img, len ? 20 : 0);
    if (len) {
        img += data;
        img += '\0';
    }
    return img;
}
inline std::string U32Bytes(uint32_t v) {
    std::string s;
    PutU32(s, v);
    return s;
}
inline std::string ControlFrame(int32_t type, const std::string& data) { return Frame(0, 0, ControlImage(type, data)); }
// The keep-alive frame: type id 0 and a 6-byte image without fields.
inline std::string KeepAliveFrame() { return Frame(0, 0, std::string("\x06\0\0\0\0\0", 6)); }

// ---- raw sockets ------------------------------------------------------

inline int RawConnect(uint32_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline int RawListen(uint32_t* port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 8) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

inline int RawAccept(int lfd, int timeoutMs = 5000) {
    pollfd p{lfd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return -1;
    return accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
}

inline bool WriteAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t r = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (r <= 0) return false;
        done += static_cast<size_t>(r);
    }
    return true;
}

// Reads exactly n bytes within timeoutMs; false on end of stream or timeout.
inline bool ReadExact(int fd, std::string* out, size_t n, int timeoutMs = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    out->resize(n);
    size_t done = 0;
    while (done < n) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) != 1) return false;
        const ssize_t r = recv(fd, &(*out)[done], n - done, 0);
        if (r <= 0) return false;
        done += static_cast<size_t>(r);
    }
    return true;
}

// One whole frame (prefix and image), or "" on timeout / end of stream.
inline std::string ReadFrame(int fd, int timeoutMs = 5000) {
    std::string head, body;
    if (!ReadExact(fd, &head, 10, timeoutMs)) return {};
    const uint32_t len = GetU32(head, 4);
    if (len > 10 && !ReadExact(fd, &body, len - 6, timeoutMs)) return {};
    return head + body;
}

// True when the peer closed the connection within timeoutMs (bytes still
// arriving before the end are skipped).
inline bool PeerClosed(int fd, int timeoutMs = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buf[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) != 1) return false;
        const ssize_t r = recv(fd, buf, sizeof buf, 0);
        if (r <= 0) return true;
    }
}

// The library's server side of a connection from a raw client: the idn that
// got event 1 after RawConnect.
inline uint32_t AcceptedIdn(size_t nth = 1) {
    auto got = Recorder::Get().WaitCode(SOCK_EV_ACCEPT, 0, nth);
    return got.size() >= nth ? got[nth - 1].idn : 0;
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

// A one-shot gate a callback can wait on (bounded).
class Gate {
public:
    void Open() {
        {
            std::lock_guard<std::mutex> lock(mu_);
            open_ = true;
        }
        cv_.notify_all();
    }
    bool Wait(int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(mu_);
        return cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return open_; });
    }
    void Reset() {
        std::lock_guard<std::mutex> lock(mu_);
        open_ = false;
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    bool open_ = false;
};

// A second process with its stdout on a pipe (posix_spawn), killed when the
// object goes if it has not ended by then.
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
        if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
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

    // The next line of the child's output ("" on timeout or end).
    std::string ReadLine(int timeoutMs = 10000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            const size_t nl = buffer_.find('\n');
            if (nl != std::string::npos) {
                std::string line = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return {};
            pollfd p{out_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) != 1) return {};
            char chunk[512];
            const ssize_t r = read(out_, chunk, sizeof chunk);
            if (r <= 0) return {};
            buffer_.append(chunk, static_cast<size_t>(r));
        }
    }
    // The exit status, or -1 when the child has not ended within timeoutMs.
    int Wait(int timeoutMs = 10000) {
        int status = 0;
        const bool ended = WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs);
        if (!ended) return -1;
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    bool exited_ = false;
    std::string buffer_;
};

inline std::string HelperPath() { return std::string(KWZ_TEST_BIN_DIR) + "/helper_sock_peer"; }

}  // namespace socktest
