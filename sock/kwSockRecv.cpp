// The receiving thread of a stream slot: reads frames (see kwSockSend.cpp
// for the layout), hands records to the caller's event callback with event 0,
// acts on control records (type id 0, two fields) and drops other type-0
// records such as the keep-alive.
//
// Reads go through a 64 KB block (BuffRecvDsc), so that many small frames
// cost one recv.  Large records skip the block: after a large frame the next
// head is read on its own, and a body of 16 KB or more that the block does
// not hold goes straight from the socket into the record's image.  The bytes
// are the same either way; only the copies differ.
#include <pthread.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "base/kwBase.h"
#include "rec/kwRecImage.h"
#include "sock/kwSockInt.h"

namespace kwz::sock {
namespace {

const char* const kTag = KWSOCK_TAG("SockRecvThread");

struct BuffRecvDsc {
    std::unique_ptr<uint8_t[]> Block;
    uint32_t Pos = 0;  // next byte to serve
    uint32_t End = 0;  // end of the bytes read
    uint32_t Cap = kRecvBlock;
    bool Large = false;  // the last frame was large: read the next head alone
};

constexpr uint32_t kDirectMin = 16384;

// True when end of stream on fd was a reset rather than the peer's orderly
// close.  A Linux socket keeps one pending error after a reset, and whichever
// call comes first takes it: when the send thread's sendmsg did, recv sees
// only the end of the stream.  The state tells them apart: the peer's close
// leaves CLOSE_WAIT, a reset CLOSE.  Callers take a reset for a failure of
// the connection (close event 3), whichever thread met it first.
bool WasReset(int fd) {
    tcp_info info{};
    socklen_t len = sizeof info;
    return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0 && info.tcpi_state == TCP_CLOSE;
}

// Time-out branch of RecvAll: 0 to give up quietly, -1 to give up, 1 to wait on.
int RecvTimedOut(SockItem* s) {
    if (s->Closing()) return 0;
    if (!s->IsStream()) return -1;
    const uint32_t tmo = s->RecvTimeout;
    if (tmo == 0) return 1;
    const uint32_t since = SockMs() - s->RecvMs;
    if (since <= tmo) return 1;
    const PeerTexts t = PeerTextsOf(s);
    SockLogF(3, KWSOCK_TAG("Recv_All"),
             "Expired the timeout for data reception (IDN=0x%X, TYPE=%u, IP=%s, NM=%s, TIMEOUT=%u, TIME=%u)",
             s->OwnIdn(), s->OwnType(), t.Addr, t.Name, tmo, since);
    return s->Closing() ? 0 : -1;
}

// Reads exactly n bytes: 1 done, 0 end of stream or closing, negative failure.
int RecvAll(SockItem* s, int fd, BuffRecvDsc& b, uint8_t* dst, uint32_t n) {
    FlagScope busy(s, kFlagRecv);
    while (n > 0) {
        if (b.Pos < b.End) {
            const uint32_t take = n < b.End - b.Pos ? n : b.End - b.Pos;
            std::memcpy(dst, b.Block.get() + b.Pos, take);
            b.Pos += take;
            dst += take;
            n -= take;
            continue;
        }
        if (s->Socket < 0) return -1;
        const bool direct = n >= kDirectMin;
        ssize_t r;
        if (direct) {
            // The body straight into the image, and the next frame's head
            // (when it is there already) into the block, in one call.
            iovec parts[2] = {{dst, n}, {b.Block.get(), kFrameHead}};
            msghdr msg{};
            msg.msg_iov = parts;
            msg.msg_iovlen = 2;
            r = recvmsg(fd, &msg, 0);
        } else {
            r = recv(fd, b.Block.get(), b.Large ? n : b.Cap, 0);
        }
        if (r > 0) {
            // Taken when bytes arrive rather than per call: one clock read
            // per recv, and a slow large frame still counts as traffic.
            MarkRecv(s);
            auto got = static_cast<uint32_t>(r);
            if (direct) {
                const uint32_t body = got < n ? got : n;
                dst += body;
                n -= body;
                b.Pos = 0;
                b.End = got - body;
            } else {
                b.Pos = 0;
                b.End = got;
            }
            continue;
        }
        if (r == 0 && (s->Closing() || !WasReset(fd))) return 0;
        const int err = r == 0 ? ECONNRESET : errno;
        const int fl = fcntl(fd, F_GETFL);
        const bool nonBlocking = fl != -1 && (fl & O_NONBLOCK);
        // 10060 is the protocol's own time-out code; on Linux a blocking
        // socket whose SO_RCVTIMEO elapses fails with EAGAIN.
        if (err == kErrTimedOut || (err == EAGAIN && !nonBlocking)) {
            const int verdict = RecvTimedOut(s);
            if (verdict <= 0) return verdict;
            continue;
        }
        if (err == EINTR || err == EAGAIN) {
            // Wait for data on a socket that really is non-blocking (the
            // select wait, without select's descriptor limit).
            pollfd p{fd, POLLIN, 0};
            poll(&p, 1, 5000);
            int pending = 0;
            socklen_t len = sizeof pending;
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &len);
            if (fl != -1) fcntl(fd, F_SETFL, fl);
            if (pending == 0) continue;
        }
        if (err != kErrInterrupted && LogEnabled(4)) {
            const PeerTexts t = PeerTextsOf(s);
            SockLogF(4, KWSOCK_TAG("Recv_Net"), "The error gap of the channel (IDN=0x%X, TYPE=%u, IP=%s, NM=%s, WSERR=%u)",
                     s->OwnIdn(), s->OwnType(), t.Addr, t.Name, static_cast<unsigned>(err));
        }
        return s->Closing() ? 0 : -1;
    }
    return 1;
}

// A received record that owns its image; freed however the callback ends.
class Received {
public:
    explicit Received(uint8_t* image) {
        kwz::rec::RecInit(&rec_);
        kwz::rec::RecSet(&rec_, image);  // adopts the block; L >= 6 was checked
    }
    ~Received() {
        rec_.editSource = nullptr;
        kwz::rec::RecFree(&rec_);
    }
    Received(const Received&) = delete;
    Received& operator=(const Received&) = delete;
    KWRData* get() { return &rec_; }

private:
    KWRData rec_;
};

void Deliver(SockItem* s, uint8_t* image, int16_t typeId, int16_t reserved) {
    Received rec(image);
    // The prefix's two words come back sign-extended.
    rec.get()->typeId = static_cast<uint32_t>(static_cast<int32_t>(typeId));
    rec.get()->editSource = reinterpret_cast<KWRData*>(static_cast<intptr_t>(reserved));
    if (SockEventFn event = s->StreamEvent()) {
        FlagScope busy(s, kFlagEvent);
        event(SOCK_EV_DATA, s->OwnIdn(), rec.get());
    }
}

void Control(SockItem* s, int fd, uint8_t* image) {
    Received rec(image);
    // Control records come from outside: check the image before reading it.
    if (kwz::rec::RecCheck(&Mod().TestTyp2, rec.get()) == KWR_OK) {
        HandleControl(s, fd, rec.get());
    } else {
        SockLogF(3, kTag, "Control record corrupt (idn=%d, type=%d, len=%u)", s->OwnIdn(), s->OwnType(),
                 rec.get()->length);
    }
}

// The frame loop; returns when the slot closes or must close.
void RecvLoop(SockItem* s, int fd, BuffRecvDsc& b) {
    const int idn = static_cast<int>(s->OwnIdn());
    const int type = s->OwnType();
    while (!s->Closing()) {
        uint8_t head[kFrameHead];
        int r = RecvAll(s, fd, b, head, kFrameHead);
        if (r <= 0) {
            SockLogF(5, kTag, r == 0 ? "Sock close (idn=%d, type=%d)" : "Sock abort (idn=%d, type=%d)", idn, type);
            CLEANUP_SET(s, r == 0 ? kReasonNone : kReasonAbort);
            return;
        }
        const auto typeId = Load<int16_t>(head);
        const auto reserved = Load<int16_t>(head + 2);
        const uint32_t len = LoadU32(head + kFramePrefix);
        if (len < rec::kImageHead) {
            SockLogF(2, kTag, "Sock abort. Data corrupt (idn=%d, type=%d)", idn, type);
            CLEANUP_SET(s, kReasonCorrupt);
            return;
        }
        const uint32_t limit = s->RecvLimit;
        if (limit != 0 && len > limit) {
            SockLogF(2, kTag, "Sock abort. Record too long (idn=%d, type=%d, len=%u, limit=%u)", idn, type, len,
                     limit);
            CLEANUP_SET(s, kReasonCorrupt);
            return;
        }
        b.Large = len >= kDirectMin;
        if (typeId == 0 && len == rec::kImageHead) {  // the keep-alive: nothing more to read
            s->RecvBytes += len + kFramePrefix;
            continue;
        }
        auto* image = static_cast<uint8_t*>(std::malloc(len));
        if (!image) {
            SockLogF(2, kTag, "SE_NOMEM (kwz_malloc len=%d)", static_cast<int>(len));
            CLEANUP_SET(s, kReasonNoBuffer);
            return;
        }
        std::memcpy(image, head + kFramePrefix, rec::kImageHead);
        if (len > rec::kImageHead) {
            r = RecvAll(s, fd, b, image + rec::kImageHead, len - rec::kImageHead);
            if (r <= 0) {
                std::free(image);
                SockLogF(5, kTag, r == 0 ? "Sock close (idn=%d, type=%d)" : "Sock abort (idn=%d, type=%d)", idn, type);
                CLEANUP_SET(s, r == 0 ? kReasonNone : kReasonAbort);
                return;
            }
        }
        s->RecvBytes += len + kFramePrefix;
        // Type id 0 with the two fields of a control record is the
        // transport's own; other type-0 records (the keep-alive) are dropped.
        if (typeId != 0) Deliver(s, image, typeId, reserved);
        else if (head[kFramePrefix + rec::kImageCount] == 2) Control(s, fd, image);
        else std::free(image);
    }
}

}  // namespace

void SockRecvThread(SockItem* s) {
    pthread_setname_np(pthread_self(), "kwz-recv");  // shows in top -H, gdb, perf
    const int fd = OwnedSocket(s);  // set before the thread started
    const int idn = static_cast<int>(s->OwnIdn());
    const int type = s->OwnType();
    SockLogF(5, kTag, "Start Thread (idn=%d, type=%d)", idn, type);
    BuffRecvDsc b;
    b.Block.reset(new (std::nothrow) uint8_t[kRecvBlock]);
    if (!b.Block) {
        SockLogF(2, kTag, "SE_NOMEM (kwz_malloc, len=%d)", static_cast<int>(kRecvBlock));
        CLEANUP_SET(s, kReasonNoBuffer);
    } else {
        if (type == SOCK_SRV) {
            if (SockEventFn event = s->StreamEvent()) {
                FlagScope busy(s, kFlagEvent);
                event(SOCK_EV_ACCEPT, static_cast<uint32_t>(idn), nullptr);
            }
        }
        MarkRecv(s);
        RecvLoop(s, fd, b);
    }
    SockLogF(5, kTag, "Stop Thread (idn=%d, type=%d)", idn, type);
}

}  // namespace kwz::sock
