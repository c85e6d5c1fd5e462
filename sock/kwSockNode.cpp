// Datagram nodes (SOCK_NODE slots): UDP endpoints that send to and receive
// from any address, with broadcast and multicast.  A queued datagram is a
// record of "NodeData|3\r\nPort|I4\r\nAddr|CB\r\nData|CB"; the record
// structure's second reserved word carries the caller's completion callback,
// which the adapter NodeComplete calls with the datagram's fields.  The
// sending thread of kwSockSend.cpp sends them one per pass.
#include <pthread.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "sock/kwSockInt.h"

namespace kwz::sock {
namespace {

const char* const kNet = KWSOCK_TAG("SockNodeOpen_Net");

// The first IPv4 address of a host name (network order); false when none.
bool Resolve(const char* name, uint32_t* addr, int* err) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    *err = getaddrinfo(name, nullptr, &hints, &found);
    if (*err != 0 || !found) {
        if (found) freeaddrinfo(found);
        return false;
    }
    *addr = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(found);
    return true;
}

struct NodeFields {
    int32_t Port = 0;
    const char* Addr = "";
    const char* Data = nullptr;
    uint32_t Length = 0;
};

NodeFields ReadNode(const KWRData* rec) {
    const KWRType& t = Mod().NodeTyp;
    NodeFields f;
    kwz::rec::ReadInt32(&t.fields[0], rec, &f.Port);
    uint32_t n = 0;
    const char* text = nullptr;
    if (kwz::rec::GetTextRef(&t.fields[1], rec, &n, &text) == KWR_OK && text) f.Addr = text;  // 0-terminated in the image
    if (kwz::rec::GetTextRef(&t.fields[2], rec, &f.Length, &f.Data) != KWR_OK || !f.Data) f.Length = 0;
    return f;
}

// Completion adapter: the caller's callback gets the datagram's fields.
void NodeComplete(int32_t event, uint32_t idn, KWRData* rec) {
    if (auto callback = reinterpret_cast<SockNodeEventFn>(reinterpret_cast<void*>(rec->editSource))) {
        const NodeFields f = ReadNode(rec);
        callback(event, idn, f.Port, f.Addr, f.Data, static_cast<int32_t>(f.Length));
    }
    rec->editSource = nullptr;
    kwz::rec::RecRelease(rec);
}

}  // namespace

int32_t SendDatagram(SockItem* s, KWRData* rec) {
    static const char* const tag = KWSOCK_TAG("SendNode_Net");
    const int fd = s->Socket;
    if (fd < 0) return SOCK_EV_NOSEND;
    const NodeFields f = ReadNode(rec);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(f.Port));
    if (!*f.Addr) {
        to.sin_addr.s_addr = s->OwnAddr;  // the own host, resolved at open
    } else if (std::strcmp(f.Addr, "*") == 0) {
        to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    } else if (!inet_aton(f.Addr, &to.sin_addr)) {
        uint32_t addr = 0;
        int err = 0;
        if (!Resolve(f.Addr, &addr, &err)) {
            SockLogF(3, tag, "gethostbyname (addr=%s err=%d)", f.Addr, err);
            return SOCK_EV_NOSEND;
        }
        to.sin_addr.s_addr = addr;
    }
    const auto* dest = reinterpret_cast<const sockaddr*>(&to);
    if (f.Length == static_cast<uint32_t>(INT_MAX)) {
        // A payload of exactly INT_MAX bytes goes out as two calls: kept as it is.
        const uint32_t first = f.Length / 2;
        if (sendto(fd, f.Data, first, MSG_NOSIGNAL, dest, sizeof to) < 0) {
            SockLogF(2, tag, "sendto 1(err=%d)", errno);
            return SOCK_EV_NOSEND;
        }
        if (sendto(fd, f.Data + first, f.Length - first, MSG_NOSIGNAL, dest, sizeof to) < 0) {
            SockLogF(2, tag, "sendto 2(err=%d)", errno);
            return SOCK_EV_NOSEND;
        }
    } else if (sendto(fd, f.Data, f.Length, MSG_NOSIGNAL, dest, sizeof to) < 0) {
        SockLogF(2, tag, "sendto (err=%d)", errno);
        return SOCK_EV_NOSEND;
    }
    MarkSend(s);
    s->SendBytes += rec->length;
    return 0;
}

void SockRecvNodeThread(SockItem* s) {
    pthread_setname_np(pthread_self(), "kwz-node");  // shows in top -H, gdb, perf
    static const char* const tag = KWSOCK_TAG("SockRecvNodeThread");
    const int fd = OwnedSocket(s);  // set before the thread started
    const int idn = static_cast<int>(s->OwnIdn());
    const int type = s->OwnType();
    SockLogF(5, tag, "Start Thread (idn=%d, type=%d)", idn, type);
    // Room for the largest datagram and the 0 byte added after the data.
    std::unique_ptr<char[]> buf(new (std::nothrow) char[kMaxDatagram + 1]);
    if (!buf) {
        SockLogF(2, tag, "SE_NOMEM (kwz_malloc, len=%d)", kMaxDatagram + 1);
        CLEANUP_SET(s, kReasonNoBuffer);
    }
    while (buf && !s->Closing()) {
        sockaddr_in from{};
        socklen_t fromLen = sizeof from;
        errno = 0;
        const ssize_t r = recvfrom(fd, buf.get(), kMaxDatagram, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
        if (s->Closing()) break;
        const int err = errno;
        if (r < 0) {
            // An earlier datagram to a closed port comes back as the
            // protocol's reset code 10054; a Linux UDP socket reports it as
            // ECONNREFUSED (or ECONNRESET).  Retried, like interrupts.
            if (err == kErrConnReset || err == ECONNREFUSED || err == ECONNRESET || err == EINTR) continue;
            if (err == EAGAIN) {
                pollfd p{fd, POLLIN, 0};
                poll(&p, 1, 1000);
                continue;
            }
            SockLogF(2, tag, "Recv Data Abort (idn=%d, errno=%d)", idn, err);
            CLEANUP_SET(s, kReasonAbort);
            break;
        }
        if (r == 0 && err != 0) {
            SockLogF(2, tag, "Recv Data Error (idn=%d, errno=%d)", idn, err);
            CLEANUP_SET(s, kReasonNone);
            break;
        }
        buf[r] = 0;
        s->RecvBytes += static_cast<uint64_t>(r);
        MarkRecv(s);
        char addr[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &from.sin_addr, addr, sizeof addr);
        if (SockNodeEventFn event = s->NodeEvent()) {
            FlagScope busy(s, kFlagEvent);
            event(SOCK_EV_DATA, static_cast<uint32_t>(idn), ntohs(from.sin_port), addr, buf.get(),
                  static_cast<int32_t>(r));
        }
    }
    SockLogF(5, tag, "Stop Thread (idn=%d, type=%d)", idn, type);
}

}  // namespace kwz::sock

using namespace kwz;
using namespace kwz::sock;

namespace {

// "a.b.c.d" or "a.b.c.d,e.f.g.h" (group and interface); false when either
// half is not a dotted address.
bool ParseGroup(const char* text, in_addr* group, in_addr* iface) {
    if (!text) return false;
    char buf[64];
    const size_t n = strnlen(text, sizeof buf);
    if (n >= sizeof buf) return false;
    std::memcpy(buf, text, n + 1);
    char* comma = std::strchr(buf, ',');
    iface->s_addr = htonl(INADDR_ANY);
    if (comma) {
        *comma = 0;
        if (!inet_aton(comma + 1, iface)) return false;
    }
    return inet_aton(buf, group) != 0;
}

// A null value pointer reads as 0 for the numeric options.
int32_t NumberAt(const void* value) { return value ? Load<int32_t>(value) : 0; }

int32_t SockNodeOpen(uint32_t port, SockNodeEventFn callback, uint32_t* idn) {
    static const char* const tag = KWSOCK_TAG("KWSockNodeOpen");
    if (idn) *idn = 0;
    Module& m = Mod();
    SockItem* s = nullptr;
    char host[sizeof m.HostName];
    {
        MutexLock lock(ModCrit);
        if (m.SockNum == 0) {
            SockLog(3, tag, "SE_NOINIT");
            return SE_NOINIT;
        }
        s = AllocOpenSlot(SOCK_NODE, FnPtr(callback), port, tag, 2);  // nodes log a full table at level 2
        if (!s) return SE_OPEN;
        std::memcpy(host, m.HostName, sizeof host);
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        SockLogF(2, kNet, "socket (err=%d)", errno);
        CLEANUP_FIN(s);
        return SE_OPEN;
    }
    AttachSocket(s, fd);
    // The own host's address serves datagrams sent with an empty address.  A
    // host name that does not resolve (common in containers) falls back to
    // the loop-back address instead of failing the open.
    uint32_t own = 0;
    int err = 0;
    if (!Resolve(host, &own, &err)) {
        SockLogF(3, kNet, "gethostbyname (hostname=%s err=%d)", host, err);
        own = htonl(INADDR_LOOPBACK);
    }
    s->OwnAddr = own;  // read by the send thread, which starts below
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        SockLogF(2, "SKwz.kwSock.SockNodeOpen_Net", "bind (err=%d)", errno);  // leading S: kept
        CLEANUP_FIN(s);
        return SE_OPEN;
    }
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    SetIntOpt(fd, SOL_SOCKET, SO_BROADCAST, 1);  // Linux wants an int here
    uint32_t given = 0;
    {
        MutexLock lock(ModCrit);
        s->Port = ntohs(addr.sin_port);  // port 0 asked the system to choose
        MarkRecv(s);
        MarkSend(s);
        given = s->Idn;
    }
    s->ThreadNum += 2;
    m.ThreadNum += 2;
    StartThread(s, SockRecvNodeThread, KWSOCK_TAG("SockRecvNodeThread"));
    StartThread(s, SockSendThread, KWSOCK_TAG("SockSendThread"));
    if (idn) *idn = given;
    return 0;
}

int32_t SockSendNode(uint32_t idn, int32_t port, const char* address, const void* data, int32_t length,
                               SockNodeEventFn completion) {
    static const char* const tag = KWSOCK_TAG("KWSockSendNode");
    Module& m = Mod();
    MutexLock lock(ModCrit);
    if (!m.ModActive) {
        SockLog(3, tag, "SE_NOINIT");
        return SE_NOINIT;
    }
    SockItem* s = FindSlot(idn, true);
    if (!s || s->Type != SOCK_NODE) {
        SockLogF(2, tag, "SE_NOSOCK (%d)", static_cast<int>(idn));
        return SE_NOSOCK;
    }
    if (length < 0 || (length > 0 && !data)) {
        SockLogF(2, tag, "SE_DATANOSEND (len=%d)", length);
        return SE_DATANOSEND;
    }
    if (!address) address = "";
    KWRVal cells[3] = {};
    cells[0].type = iFldType_Int32;
    Store<int32_t>(cells[0].value, port);
    cells[1].type = iFldType_Blob;
    Store<uint32_t>(cells[1].value, static_cast<uint32_t>(std::strlen(address)));
    Store<const void*>(cells[1].value + 4, address);
    cells[2].type = iFldType_Blob;
    Store<uint32_t>(cells[2].value, static_cast<uint32_t>(length));
    Store<const void*>(cells[2].value + 4, data);

    auto* rec = static_cast<KWRData*>(MemAlloc(sizeof(KWRData)));
    if (!rec) {
        SockLog(2, tag, "SE_NOMEM (kwz_calloc)");
        return -1;
    }
    kwz::rec::RecInit(rec);
    uint32_t size = 0;
    kwz::rec::SetBuff(&m.NodeTyp, nullptr, cells, &size);
    void* image = std::malloc(size);
    if (!image || kwz::rec::SetBuff(&m.NodeTyp, image, cells, &size) != KWR_OK || kwz::rec::RecSet(rec, image) != KWR_OK) {
        SockLog(2, tag, "SE_NOMEM (KWRRecNew)");
        std::free(image);
        MemFree(rec);
        return -1;
    }
    rec->typeId = m.NodeTyp.id;
    rec->editSource = reinterpret_cast<KWRData*>(reinterpret_cast<void*>(completion));
    if (!SockBufAdd(s, rec, NodeComplete, 0)) {
        SockLog(2, tag, "SE_DATANOSEND");
        rec->editSource = nullptr;
        kwz::rec::RecRelease(rec);
        return SE_DATANOSEND;
    }
    return 0;
}

int32_t SockNodeSetOpt(uint32_t idn, int32_t option, const void* value) {
    static const char* const tag = KWSOCK_TAG("KWSockNodeSetOpt");
    Module& m = Mod();
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, tag);
    if (!s) return m.SockNum == 0 ? SE_NOINIT : SE_NOSOCK;
    const int fd = s->Socket;
    if (fd < 0 || option < 1 || option > 5) return 0;
    int rc = 0;
    switch (option) {
        case 1:
        case 2: {
            ip_mreq req{};
            if (!ParseGroup(static_cast<const char*>(value), &req.imr_multiaddr, &req.imr_interface)) {
                SockLogF(2, tag, "SE_OPTION (option=%d)", option);
                return SE_OPTION;
            }
            rc = setsockopt(fd, IPPROTO_IP, option == 1 ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &req, sizeof req);
            break;
        }
        case 3:
            // The count plus one: deliberate, callers pass the hops beyond the first.
            rc = SetIntOpt(fd, IPPROTO_IP, IP_MULTICAST_TTL, NumberAt(value) + 1);
            break;
        case 4: {
            in_addr iface{};
            iface.s_addr = htonl(INADDR_ANY);
            const char* text = static_cast<const char*>(value);
            if (text && *text && !inet_aton(text, &iface)) {
                SockLogF(2, tag, "SE_OPTION (option=%d)", option);
                return SE_OPTION;
            }
            rc = setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &iface, sizeof iface);
            break;
        }
        default:
            rc = SetIntOpt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, NumberAt(value));
            break;
    }
    if (rc != 0) {
        SockLogF(2, tag, "SE_OPTION (option=%d, err=%d)", option, errno);
        return SE_OPTION;
    }
    return 0;
}

}  // namespace

extern "C" {

KWZ_API int32_t KWSockNodeOpen(uint32_t port, SockNodeEventFn callback, uint32_t* idn) {
    return CEdge(KWSOCK_TAG("KWSockNodeOpen"), SE_OPEN, SE_OPEN, [&] { return SockNodeOpen(port, callback, idn); });
}

KWZ_API int32_t KWSockSendNode(uint32_t idn, int32_t port, const char* address, const void* data, int32_t length,
                               SockNodeEventFn completion) {
    return CEdge(KWSOCK_TAG("KWSockSendNode"), -1, SE_DATANOSEND,
                 [&] { return SockSendNode(idn, port, address, data, length, completion); });
}

KWZ_API int32_t KWSockNodeSetOpt(uint32_t idn, int32_t option, const void* value) {
    return CEdge(KWSOCK_TAG("KWSockNodeSetOpt"), SE_OPTION, SE_OPTION, [&] { return SockNodeSetOpt(idn, option, value); });
}

}  // extern "C"
