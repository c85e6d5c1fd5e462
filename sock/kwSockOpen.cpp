// Opening stream endpoints: KWSockCliOpen connects a client, KWSockSrvOpen
// opens a listening socket whose thread (SockListenThreadNet) accepts
// connections into SOCK_SRV slots.  Both take ModCrit only inside slot
// allocation and release; the network calls run without it.
#include <pthread.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <strings.h>
#include <system_error>
#include <thread>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "sock/kwSockInt.h"

namespace kwz::sock {
namespace {

// The listening thread's parameter block: the bound address, reused as the
// address buffer of every accept, and the listening slot's index.
struct SockListenPrm {
    sockaddr_in Addr;
    int32_t Index;
};

char* CopyText(const char* text) {
    if (!text) return nullptr;
    const size_t n = std::strlen(text);
    auto* copy = static_cast<char*>(std::malloc(n + 1));
    if (copy) std::memcpy(copy, text, n + 1);
    return copy;
}

void SetHostName(SockItem* s, const char* text) EXCLUDES(ModCrit) {
    char* copy = CopyText(text);
    MutexLock lock(ModCrit);
    std::free(s->HostName);
    s->HostName = copy;
}

void SetHostAddr(SockItem* s, const char* text) EXCLUDES(ModCrit) {
    char* copy = CopyText(text);
    MutexLock lock(ModCrit);
    std::free(s->HostAddr);
    s->HostAddr = copy;
}

// Starts body on a detached thread; false when the system refuses one (no
// thread, or no memory for its start-up).
template <typename Body>
bool Spawn(Body body, const char* tag) noexcept {
    try {
        std::thread(std::move(body)).detach();
        return true;
    } catch (const std::system_error& e) {
        SockLogF(2, tag, "thread (err=%d)", e.code().value());
    } catch (...) {
        SockLogF(2, tag, "thread (%s)", CaughtText());
    }
    return false;
}

// A counted thread that could not start ends in its own place.
void StartFailed(SockItem* s) {
    CLEANUP_SET(s, kReasonNoBuffer);
    CLEANUP_FIN(s);
    --Mod().ThreadNum;
}

// accept() failures that leave the listening socket usable: errors of the
// connection being accepted (Linux passes them on through accept) and
// shortages of descriptors or memory, which pass.
bool TransientAcceptError(int err) {
    switch (err) {
        case EINTR: case ECONNABORTED: case EPROTO: case ENETDOWN: case ENOPROTOOPT: case EHOSTDOWN:
        case ENONET: case EHOSTUNREACH: case EOPNOTSUPP: case ENETUNREACH: case EPERM:
        case EMFILE: case ENFILE: case ENOBUFS: case ENOMEM:
            return true;
        default:
            return false;
    }
}

int32_t SockCount() EXCLUDES(ModCrit) {
    MutexLock lock(ModCrit);
    return Mod().SockNum;
}

// The peer's dotted address, or the two fixed texts callers know.
void ReadPeerAddr(SockItem* s, int fd) {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    char text[INET_ADDRSTRLEN] = {};
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) {
        SetHostAddr(s, "ERR.ORI.NIP.ADR");
    } else if (!inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text)) {
        SetHostAddr(s, "ERR.OR.IP.ADR");
    } else {
        SetHostAddr(s, text);
    }
}

void SockListenThreadNet(SockItem* ls, SockListenPrm* raw) {
    pthread_setname_np(pthread_self(), "kwz-listen");  // shows in top -H, gdb, perf
    static const char* const tag = KWSOCK_TAG("SockListenThreadNet");
    Module& m = Mod();
    std::unique_ptr<SockListenPrm> prm(raw);
    const int lfd = OwnedSocket(ls);  // set before the thread started
    SockLogF(5, tag, "Start Thread (idx=%d, port=%d)", prm->Index, ls->Port);
    int lastErr = 0;
    try {
        while (!ls->Closing()) {
            socklen_t len = sizeof prm->Addr;
            const int cfd = accept4(lfd, reinterpret_cast<sockaddr*>(&prm->Addr), &len, SOCK_CLOEXEC);
            if (cfd < 0) {
                lastErr = errno;
                // Closing the listening socket is what ends a blocked accept;
                // a failure that only concerns one connection or a passing
                // shortage keeps the listener up.
                if (!ls->Closing() && TransientAcceptError(lastErr)) {
                    if (lastErr == EMFILE || lastErr == ENFILE || lastErr == ENOBUFS || lastErr == ENOMEM)
                        std::this_thread::sleep_for(std::chrono::milliseconds(10));
                    continue;
                }
                SockLogF(5, tag, "INVALID_SOCKET (err=%d)", lastErr);
                break;
            }
            SockItem* s = nullptr;
            {
                MutexLock lock(ModCrit);
                s = SockGetFreeIdx(SOCK_SRV);
                if (s) {
                    s->Port = ls->Port;
                    s->Event = ls->Event.load();
                    s->RecvLimit = ls->RecvLimit.load();
                    s->SendLimit = ls->SendLimit;
                }
            }
            if (!s) {
                SockLogF(3, tag, "There are no available sockets (all=%d, use=%d)", SockCount(), m.SockUse.load());
                shutdown(cfd, SHUT_RDWR);
                close(cfd);
                continue;
            }
            AttachSocket(s, cfd);
            if (SetTimeoutOpt(cfd, SO_RCVTIMEO, kSockRecvTimeout) != 0) {
                SockLogF(2, tag, "setsockopt (SO_RCVTIMEO, err=%d)", errno);
                CLEANUP_FIN(s);
                continue;
            }
            // A peer that stops reading must not hold the send thread
            // forever: server connections always have a send time-out.
            ApplySendTimeout(s, cfd, 0);
            ReadPeerAddr(s, cfd);
            uint32_t idn = 0;
            {
                MutexLock lock(ModCrit);
                MarkRecv(s);
                MarkSend(s);
                idn = s->Idn;
            }
            StartStreamThreads(s);
            SockLogF(5, tag, "New SRV connection (idn=%d, port=%d)", idn, ls->Port);
            MarkRecv(ls);
        }
    } catch (...) {
        uint32_t bufNum = 0;
        uint64_t bufSize = 0;
        {
            MutexLock lock(ModCrit);
            bufNum = ls->BufNum;
            bufSize = ls->BufSize;
        }
        SockLogF(1, tag, "Catch (Type(0x%x), flags(0x%x), bufnum(%ld), bufsize(%ld)) %s", ls->OwnType(),
                 ls->Flags.load(), static_cast<long>(bufNum), static_cast<long>(bufSize), CaughtText());
    }
    SockLogF(5, tag, "Stop Thread (idx=%d, port=%d)", prm->Index, ls->Port);
    if (!ls->Closing()) {
        SockLogF(1, tag, "Crash (Type(0x%x), flags(0x%x), Err(%d))", ls->OwnType(), ls->Flags.load(), lastErr);
        CLEANUP_SET(ls, kReasonAbort);
    }
}

// The frame of every thread of a slot (see RunThread).
template <typename Body>
void RunThreadOf(SockItem* s, const char* tag, Body&& body) noexcept {
    try {
        body();
    } catch (...) {
        SockLogF(1, tag, "Catch (idn=%d, type=%d, %s)", static_cast<int>(s->OwnIdn()), s->OwnType(), CaughtText());
        CLEANUP_SET(s, kReasonAbort);
    }
    CLEANUP_FIN(s);
    --Mod().ThreadNum;
}

}  // namespace

const char* CaughtText() noexcept {
    try {
        throw;
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "exception of unknown type";
    }
}

void RunThread(SockItem* s, void (*body)(SockItem*), const char* tag) noexcept {
    RunThreadOf(s, tag, [&] { body(s); });
}

void StartStreamThreads(SockItem* s) {
    // Counted before they start, so that a thread that ends at once cannot
    // finalise the slot under the other's feet.
    s->ThreadNum += 2;
    Mod().ThreadNum += 2;
    StartThread(s, SockRecvThread, KWSOCK_TAG("SockRecvThread"));
    StartThread(s, SockSendThread, KWSOCK_TAG("SockSendThread"));
}

void StartThread(SockItem* s, void (*body)(SockItem*), const char* tag) {
    if (!Spawn([s, body, tag] { RunThread(s, body, tag); }, tag)) StartFailed(s);
}

}  // namespace kwz::sock

using namespace kwz;
using namespace kwz::sock;

namespace {

int32_t SockCliOpen(const char* address, uint32_t port, SockEventFn callback, uint32_t* idn) {
    static const char* const tag = KWSOCK_TAG("KWSockCliOpen");
    static const char* const net = KWSOCK_TAG("SockCliOpen_Net");
    if (idn) *idn = 0;
    Module& m = Mod();
    SockItem* s = nullptr;
    bool refused = false;
    {
        MutexLock lock(ModCrit);
        if (!m.ModActive) {
            SockLog(3, tag, "SE_NOINIT");
            return SE_NOINIT;
        }
        s = AllocOpenSlot(SOCK_CLI, FnPtr(callback), port, tag, 3);
        if (!s) return SE_OPEN;
        // Only the name is compared: a numeric loop-back address is allowed.
        refused = !address || !*address || strcasecmp(address, m.HostName) == 0;
    }
    if (refused) {
        SockLog(2, tag, "Incorrect server address");
        CLEANUP_FIN(s);
        return SE_OPEN;
    }

    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        SockLogF(2, net, "socket (err=%d)", errno);
        CLEANUP_FIN(s);
        return SE_OPEN;
    }
    AttachSocket(s, fd);

    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_aton(address, &addr.sin_addr)) {
        SetHostName(s, address);
    } else {
        // getaddrinfo is the thread-safe form of the host-name lookup.
        addrinfo hints{};
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_CANONNAME;
        addrinfo* found = nullptr;
        const int rc = getaddrinfo(address, nullptr, &hints, &found);
        if (rc != 0 || !found) {
            SockLogF(2, net, "gethostbyname (err=%d, srvaddr=%s)", rc, address);
            if (found) freeaddrinfo(found);
            CLEANUP_FIN(s);
            return SE_OPEN;
        }
        addr.sin_addr = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr;
        SetHostName(s, found->ai_canonname ? found->ai_canonname : address);
        freeaddrinfo(found);
    }

    const char* failed = nullptr;
    int level = 2;
    if (SetIntOpt(fd, SOL_SOCKET, SO_REUSEADDR, 1) != 0) failed = "setsockopt (SO_REUSEADDR, err=%d)";
    else if (SetTimeoutOpt(fd, SO_RCVTIMEO, kSockRecvTimeout) != 0) failed = "setsockopt (SO_RCVTIMEO, err=%d)";
    else if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        failed = "connect (err=%d)";
        level = 5;  // refusals are routine
    }
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (!failed && getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) failed = "getpeername (err=%d)";
    if (failed) {
        SockLogF(level, net, failed, errno);
        CLEANUP_FIN(s);
        return SE_OPEN;
    }
    char text[INET_ADDRSTRLEN] = {};
    SetHostAddr(s, inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text) ? text : "ERR.OR.IP.ADR");

    uint32_t given = 0;
    {
        MutexLock lock(ModCrit);
        MarkRecv(s);
        MarkSend(s);
        given = s->Idn;
    }
    StartStreamThreads(s);
    {
        // The host identification leaves first: highest priority, queued
        // before the caller can queue anything.  Kept by the module, so no
        // completion callback.
        MutexLock lock(ModCrit);
        if (s->Idn == given && s->Type == SOCK_CLI) SockBufAdd(s, &m.HostRec, nullptr, kPrioTop);
    }
    if (idn) *idn = given;
    return 0;
}

int32_t SockSrvOpen(uint32_t port, SockEventFn callback, uint32_t* idn) {
    static const char* const tag = KWSOCK_TAG("KWSockSrvOpen");
    static const char* const net = KWSOCK_TAG("SockSrvOpen_Net");
    if (idn) *idn = 0;
    Module& m = Mod();
    SockItem* s = nullptr;
    int32_t index = 0;
    {
        MutexLock lock(ModCrit);
        if (!m.ModActive) {
            SockLog(3, tag, "SE_NOINIT");
            return SE_NOINIT;
        }
        s = AllocOpenSlot(SOCK_LISTEN, FnPtr(callback), port, tag, 3);
        if (!s) return SE_OPEN;
        index = static_cast<int32_t>(s->Idn & 0xFFFF);
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        SockLogF(2, net, "socket (err=%d)", errno);
        CLEANUP_FIN(s);
        return SE_OPEN;
    }
    AttachSocket(s, fd);
    std::unique_ptr<SockListenPrm> prm(new (std::nothrow) SockListenPrm{});
    const char* failed = nullptr;
    int err = 0;
    sockaddr_in bound{};
    socklen_t len = sizeof bound;
    if (SetIntOpt(fd, SOL_SOCKET, SO_REUSEADDR, 1) != 0) failed = "setsockopt (SO_REUSEADDR, err=%d)";
    else if (!prm) failed = "SE_NOMEM (kwz_calloc)";
    if (!failed) {
        prm->Addr.sin_family = AF_INET;
        prm->Addr.sin_port = htons(static_cast<uint16_t>(port));
        prm->Addr.sin_addr.s_addr = htonl(INADDR_ANY);
        prm->Index = index;
        if (bind(fd, reinterpret_cast<sockaddr*>(&prm->Addr), sizeof prm->Addr) != 0) failed = "bind (err=%d)";
        else if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len) != 0) failed = "getsockname (err=%d)";
        else if (listen(fd, 100) != 0) failed = "listen (err=%d)";
    }
    if (failed) {
        err = errno;
        SockLogF(2, net, failed, err);
        CLEANUP_FIN(s);  // closes the socket
        return SE_OPEN;
    }
    uint32_t given = 0;
    {
        MutexLock lock(ModCrit);
        s->Port = ntohs(bound.sin_port);  // port 0 asked the system to choose
        MarkRecv(s);
        MarkSend(s);
        given = s->Idn;
    }
    s->ThreadNum += 1;
    m.ThreadNum += 1;
    SockListenPrm* raw = prm.release();
    if (!Spawn([s, raw] { RunThreadOf(s, KWSOCK_TAG("SockListenThreadNet"), [&] { SockListenThreadNet(s, raw); }); },
               net)) {
        delete raw;
        StartFailed(s);
        return SE_OPEN;
    }
    if (idn) *idn = given;
    return 0;
}

}  // namespace

extern "C" {

KWZ_API int32_t KWSockCliOpen(const char* address, uint32_t port, SockEventFn callback, uint32_t* idn) {
    return CEdge(KWSOCK_TAG("KWSockCliOpen"), SE_OPEN, SE_OPEN, [&] { return SockCliOpen(address, port, callback, idn); });
}

KWZ_API int32_t KWSockSrvOpen(uint32_t port, SockEventFn callback, uint32_t* idn) {
    return CEdge(KWSOCK_TAG("KWSockSrvOpen"), SE_OPEN, SE_OPEN, [&] { return SockSrvOpen(port, callback, idn); });
}

}  // extern "C"
