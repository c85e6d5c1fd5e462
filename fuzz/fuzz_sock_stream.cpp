// Feeds arbitrary bytes to a listening socket of the transport as one TCP
// connection's stream: frames, control records, keep-alives, corrupt heads,
// anything.  The server must neither crash, leak nor hang, and must close
// the connection when the stream ends.  Records that reach the caller are
// decoded the way a careful caller does (KWRTypGen, then KWRRecCheck).
#include <VomKwz.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace {

// Never destroyed: the server's threads outlive the last input.
struct Shared {
    std::mutex mu;
    std::condition_variable cv;
    uint64_t closes = 0;
    uint32_t port = 0;
};
Shared& G() {
    static Shared* shared = new Shared;
    return *shared;
}

void OnEvent(int32_t event, uint32_t idn, KWRData* rec) {
    if (event == SOCK_EV_ACCEPT) {
        KWSockSetRecvLimit(idn, 1u << 20);  // a hostile length cannot make us allocate more
    } else if (event == SOCK_EV_DATA && rec) {
        KWRType type;
        KWRTypInit(&type);
        if (KWRTypGen(&type, "Fuzz", rec) == 0) KWRRecCheck(&type, rec);
        KWRTypFree(&type);
    } else if (event == SOCK_EV_CLOSE || event == SOCK_EV_ABORT) {
        {
            std::lock_guard<std::mutex> lock(G().mu);
            ++G().closes;
        }
        G().cv.notify_all();
    }
}

// A client connection to the server, or -1 when none can be had within a
// few seconds (connect failing for lack of local ports, say).
int Connect() {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(G().port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int attempt = 0; attempt < 300; ++attempt) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
        if (fd >= 0) close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::fprintf(stderr, "fuzz_sock_stream: cannot connect (errno %d), input skipped\n", errno);
    return -1;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    uint32_t idn = 0;
    if (KWSockInit(8) != 0 || KWSockSrvOpen(0, OnEvent, &idn) != 0 || !KWSockGetPort(idn, &G().port)) {
        std::fprintf(stderr, "fuzz_sock_stream: cannot open the server\n");
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint64_t before = 0;
    {
        std::lock_guard<std::mutex> lock(G().mu);
        before = G().closes;
    }
    const int fd = Connect();
    if (fd < 0) return 0;  // the machine is out of ports: not the library's fault
    size_t done = 0;
    while (done < size) {  // the server may close early: stop writing then
        const ssize_t r = send(fd, data + done, size - done, MSG_NOSIGNAL);
        if (r <= 0) break;
        done += static_cast<size_t>(r);
    }
    shutdown(fd, SHUT_WR);
    std::unique_lock<std::mutex> lock(G().mu);
    const bool closed = G().cv.wait_for(lock, std::chrono::seconds(10), [&] { return G().closes > before; });
    lock.unlock();
    // Close with a reset: a clean close would leave the connection in
    // TIME_WAIT, and hundreds of thousands of inputs would exhaust the
    // loopback ports.
    const linger reset{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(fd);
    if (!closed) {
        std::fprintf(stderr, "fuzz_sock_stream: the server kept the connection open\n");
        std::abort();
    }
    return 0;
}
