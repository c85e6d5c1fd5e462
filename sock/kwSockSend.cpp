// The sending thread of a slot: takes batches from the send queue, frames
// and sends them, hands each record to its completion callback, and keeps an
// idle connection alive.  For a SOCK_NODE slot it sends one datagram per pass.
//
// Frame on the stream, one per record (little-endian, unaligned):
//
//   +0  int16  the record's type id (low 16 bits)
//   +2  int16  the low 16 bits of the record's second reserved word
//   +4  L      the record image; its first 4 bytes hold L itself
//
// A batch is up to 8 records; it ends after the record that takes its bytes
// (prefixes included) past 65535.  The pieces of a batch (prefix, image,
// prefix, image, ...) leave in order through one gathering sendmsg, small
// pieces first copied together into a 4096-byte staging area, so the bytes on
// the wire are exactly the frames one after the other.  (Measured on
// loopback: one gathering call per batch beats sending the batch in 4096-byte
// pieces, for 64-byte records and for 64 KB ones.)
#include <pthread.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "sock/kwSockInt.h"

namespace kwz::sock {
namespace {

const char* const kTag = KWSOCK_TAG("SockSendThread");
constexpr uint32_t kFreedFill = 0xDDDDDDDDu;  // fill pattern of released memory

struct Batch {
    SockBuf* Nodes[kBatchRecords];
    uint8_t Prefix[kBatchRecords][kFramePrefix];
    iovec Pieces[2 * kBatchRecords];
    uint32_t Count = 0;
    uint32_t Bytes = 0;
    SockBuf* Spent = nullptr;  // completed nodes, back to the pool with the next batch
    iovec Out[2 * kBatchRecords];
    uint8_t Stage[4096];
};

// The pieces as they go to sendmsg: small ones (prefixes, small images) are
// copied one after the other into the 4096-byte staging area, large images
// are passed as they are.  Sixteen tiny pieces cost the kernel more than one
// copied block; a 64 KB image is never copied here.
constexpr size_t kStageSmall = 512;
size_t Compact(Batch& b) {
    size_t out = 0, used = 0;
    for (uint32_t i = 0; i < 2 * b.Count; ++i) {
        const iovec& p = b.Pieces[i];
        if (p.iov_len <= kStageSmall && used + p.iov_len <= sizeof b.Stage) {
            std::memcpy(b.Stage + used, p.iov_base, p.iov_len);
            if (out > 0 && static_cast<uint8_t*>(b.Out[out - 1].iov_base) + b.Out[out - 1].iov_len == b.Stage + used)
                b.Out[out - 1].iov_len += p.iov_len;
            else
                b.Out[out++] = {b.Stage + used, p.iov_len};
            used += p.iov_len;
        } else {
            b.Out[out++] = p;
        }
    }
    return out;
}

bool Corrupt(const KWRData* rec) { return !rec || rec->guard != 0 || rec->typeId == kFreedFill; }

// Takes the next batch from the head of the queue (ModCrit held).  A time
// request or answer is stamped as it is taken, and only as a batch's first
// record, so that the stamp is as close to the wire as possible.
void TakeBatch(SockItem* s, Batch& b, uint32_t maxRecords) REQUIRES(ModCrit) {
    b.Count = b.Bytes = 0;
    // The records were written by other threads: start loading all of them
    // before the dependent reads below (and their images as soon as known).
    uint32_t ahead = 0;
    for (SockBuf* p = s->Head; p && ahead < maxRecords; p = p->Next, ++ahead) __builtin_prefetch(p->Rec);
    while (s->Head && b.Count < maxRecords) {
        SockBuf* node = s->Head;
        KWRData* rec = node->Rec;
        if (Corrupt(rec)) {
            // The corrupt node stays queued; CLEANUP_FIN skips it.
            if (b.Count == 0 || !rec) {
                SockLog(1, kTag, "REC DATA CORRUPT INP");
            } else {
                SockLogF(1, kTag,
                            "REC DATA CORRUPT NEXT Rec->TypId==%d Rec->FldNum==%d Rec->DataLen==%d Rec->Reserv==%d",
                            static_cast<int>(rec->typeId), rec->fieldCount, static_cast<int>(rec->length),
                            static_cast<int>(reinterpret_cast<intptr_t>(rec->editSource)));
            }
            throw DataCorrupt("SockSendThread RE_DATACORRUPT_INP");
        }
        __builtin_prefetch(rec->image);
        if (s->Type != SOCK_NODE) {
            if (const int32_t ctl = TimeControlType(rec)) {
                if (b.Count > 0) break;
                StampTimeControl(s, rec, ctl);
            }
        }
        SockBufTake(s);
        uint8_t* prefix = b.Prefix[b.Count];
        Store<int16_t>(prefix, static_cast<int16_t>(rec->typeId));
        Store<int16_t>(prefix + 2, static_cast<int16_t>(reinterpret_cast<uintptr_t>(rec->editSource)));
        b.Pieces[2 * b.Count] = {prefix, kFramePrefix};
        b.Pieces[2 * b.Count + 1] = {rec->image, rec->length};
        b.Nodes[b.Count++] = node;
        b.Bytes += kFramePrefix + rec->length;
        if (b.Bytes > kBatchBytes) break;
    }
}

// Puts a batch back at the head (ModCrit held), when the thread must stop
// before it could send it; CLEANUP_FIN then hands it back with -6.
void ReturnBatch(SockItem* s, Batch& b) REQUIRES(ModCrit) {
    for (uint32_t i = b.Count; i-- > 0;) {
        if (!b.Nodes[i]) continue;  // already handed to its callback
        SockBufReturn(s, b.Nodes[i]);
        b.Nodes[i] = nullptr;
    }
    b.Count = 0;
}

// Sends the batch's pieces in order.  Every send uses MSG_NOSIGNAL: a peer
// that goes away never raises SIGPIPE in the host process.  A send that
// makes no progress is retried a bounded number of times: a blocking socket
// reports the elapse of its send time-out (SO_SNDTIMEO) as EAGAIN (10060 is
// the protocol's own time-out code, compared too), and after
// kSendStallTimeouts of them in a row, or that long without progress through
// interrupted calls, or kSendRetries retries, the peer is taken as gone and
// the slot closes with reason -7.  A send that returns 0 or fails while the
// slot is closing stops quietly.
bool SendBatch(SockItem* s, int fd, Batch& b) {
    size_t left = Compact(b);
    iovec* piece = b.Out;
    uint32_t timeouts = 0, retries = 0;
    uint32_t lastProgress = SockMs();
    while (left > 0) {
        msghdr msg{};
        msg.msg_iov = piece;
        msg.msg_iovlen = left;
        const ssize_t r = sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (r > 0) {
            auto sent = static_cast<size_t>(r);
            while (left > 0 && sent >= piece->iov_len) {
                sent -= piece->iov_len;
                ++piece;
                --left;
            }
            if (left > 0 && sent > 0) {
                piece->iov_base = static_cast<uint8_t*>(piece->iov_base) + sent;
                piece->iov_len -= sent;
            }
            timeouts = retries = 0;
            lastProgress = SockMs();
            continue;
        }
        if (r == 0 || s->Closing()) return false;
        const int err = errno;
        const uint32_t stall = s->SendStall;
        bool retry = false;
        if (err == EAGAIN || err == kErrTimedOut) {
            const int fl = fcntl(fd, F_GETFL);
            if (fl != -1 && (fl & O_NONBLOCK)) {
                // A socket made non-blocking behind our back: wait as long as
                // a blocking one would have.
                pollfd p{fd, POLLOUT, 0};
                poll(&p, 1, static_cast<int>(stall ? stall : kSockSendTimeout));
            }
            retry = ++timeouts < kSendStallTimeouts;
        } else if (err == EINTR) {
            retry = stall == 0 || SockMs() - lastProgress < kSendStallTimeouts * stall;
        }
        if (retry && ++retries <= kSendRetries) continue;
        const PeerTexts t = PeerTextsOf(s);
        SockLogF(2, KWSOCK_TAG("Send_Net"),
                 "send tcp/ip data ERR=%d BUFSIZE=%u (IDN=0x%X, TYPE=%u, IP=%s, NM=%s, TIMEOUT=%u)", err, b.Bytes,
                 s->OwnIdn(), s->OwnType(), t.Addr, t.Name, s->RecvTimeout.load());
        CLEANUP_SET(s, kReasonSendFail);
        return false;
    }
    return true;
}

[[noreturn]] void WalkError(SockItem* s, const Batch& b, uint32_t n, int walk) {
    uint32_t bufNum = 0, bufSize = 0;
    {
        MutexLock lock(ModCrit);
        bufNum = s->BufNum;
        bufSize = static_cast<uint32_t>(s->BufSize);
    }
    SockLogF(1, kTag, "BUFF%d ITEM Type=%d Port=%d BufNum=%d BufSize=%d BufNum_=%d BufSize_=%d", walk, s->OwnType(),
                static_cast<int>(s->Port), static_cast<int>(bufNum), static_cast<int>(bufSize),
                static_cast<int>(b.Count), static_cast<int>(b.Bytes));
    const SockBuf* node = b.Nodes[n];
    const SockBuf* next = n + 1 < b.Count ? b.Nodes[n + 1] : nullptr;
    if (node->Rec) {
        SockLogF(1, kTag, "BUFF%d ERROR n=%d Rec=%p Rec->TypId=%d Rec->Reserv=%d next=%p", walk,
                    static_cast<int>(n), static_cast<void*>(node->Rec), static_cast<int>(node->Rec->typeId),
                    static_cast<int>(reinterpret_cast<intptr_t>(node->Rec->editSource)),
                    static_cast<const void*>(next));
    } else {
        SockLogF(1, kTag, "BUFF%d ERROR n=%d Buf->Rec=nullptr next=%p", walk, static_cast<int>(n),
                    static_cast<const void*>(next));
    }
    throw DataCorrupt(walk == 1 ? "SockSendThread RE_BUFFCORRUPT1" : "SockSendThread RE_DATACORRUPT2");
}

// Hands every record of the batch to its completion callback, in order, and
// frees the nodes.  Runs on this thread without locks.  A callback that
// throws does not cost the others their call: every record gets its result,
// then the first exception goes on to close the slot.
void Complete(SockItem* s, Batch& b, int32_t result) {
    for (uint32_t i = 0; i < b.Count; ++i)
        if (Corrupt(b.Nodes[i]->Rec)) WalkError(s, b, i, 1);
    const uint32_t idn = s->OwnIdn();
    std::exception_ptr failed;
    for (uint32_t i = 0; i < b.Count; ++i) {
        SockBuf* node = b.Nodes[i];
        if (Corrupt(node->Rec)) WalkError(s, b, i, 2);
        const SockEventFn callback = node->Callback;
        KWRData* rec = node->Rec;
        b.Nodes[i] = nullptr;
        node->Next = b.Spent;
        b.Spent = node;
        if (!callback) continue;
        try {
            FlagScope busy(s, kFlagComplete);
            callback(result, idn, rec);
        } catch (...) {
            if (!failed) failed = std::current_exception();
        }
    }
    b.Count = 0;
    if (failed) std::rethrow_exception(failed);
}

// Queues the keep-alive record when the connection has sent nothing for
// SendTimeout, and reports when even that enqueue was slow.
void KeepAlive(SockItem* s, uint32_t waited, uint32_t waitStart) {
    const uint32_t tmo = s->SendTimeout;
    if (!s->IsStream() || tmo == 0) return;
    if (SockMs() - s->SendMs < tmo) return;
    const uint32_t start = SockMs();
    {
        MutexLock lock(ModCrit);
        if (s->Head == nullptr) SockBufAdd(s, &Mod().KeepAlive, nullptr, 0);
    }
    const uint32_t end = SockMs();
    const uint32_t delay = end - start;
    if (delay < tmo) return;
    const PeerTexts t = PeerTextsOf(s);
    SockLogF(3, kTag, "Delay when setting a data to the queue (IDN=0x%X, TYPE=%u, IP=%s, NM=%s, DLT=%u)",
             s->OwnIdn(), s->OwnType(), t.Addr, t.Name, delay);
    const uint32_t sendTick = s->SendMs;
    if (end - sendTick >= 4 * tmo) {
        // DT: how long the connection has now sent nothing.
        SockLogF(3, kTag,
                 "Timeout exceeded on transmission (IDN=0x%X, TYPE=%u, IP=%s, NM=%s, TMO1=%u, TMO2=%u, TM1=%u, "
                 "TM2=%u, TM3=%u, DT=%u)",
                 s->OwnIdn(), s->OwnType(), t.Addr, t.Name, waited, 4 * tmo, start - sendTick, delay,
                 start - waitStart, SockMs() - sendTick);
    }
}

// Waits on the slot's send condition for up to ms, or until an enqueue or a
// close wakes the thread.
void WaitForWork(SockItem* s, uint32_t ms) {
    MutexLock held(s->SendLock);
    std::unique_lock<std::mutex> lock(s->SendLock.native(), std::adopt_lock);
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!s->SendWake && s->SendCond.wait_until(lock, until) != std::cv_status::timeout) {
    }
    s->SendWake = false;
    lock.release();  // MutexLock unlocks
}

void SendLoop(SockItem* s, int fd) {
    Batch b;
    const bool node = s->OwnType() == SOCK_NODE;
    try {
        for (;;) {
            // A closing slot's socket is shut down: nothing queued can leave
            // any more, so the records stay queued and go back to their
            // callbacks with -6 (dropped at close) from CLEANUP_FIN.
            if (s->Closing()) break;
            bool idle = false;
            {
                MutexLock lock(ModCrit);
                RecycleBufs(b.Spent);
                b.Spent = nullptr;
                TakeBatch(s, b, node ? 1 : kBatchRecords);
                // Taking the last record makes the thread idle: enqueues
                // from now on wake it (see WakeSender).
                idle = s->Head == nullptr;
                if (idle) s->SendIdle = true;
            }
            if (b.Count > 0) {
                int32_t result = 0;
                {
                    FlagScope busy(s, kFlagSend);
                    if (node) {
                        result = SendDatagram(s, b.Nodes[0]->Rec);
                    } else if (SendBatch(s, fd, b)) {
                        MarkSend(s);
                        s->SendBytes += b.Bytes;
                    } else {
                        result = SOCK_EV_NOSEND;
                    }
                }
                Complete(s, b, result);
            }
            if (!idle) continue;
            const uint32_t waited = s->SendTimeout ? s->SendTimeout.load() : kIdleWait;
            const uint32_t waitStart = SockMs();
            WaitForWork(s, waited);
            s->SendIdle = false;
            if (s->Closing()) break;
            KeepAlive(s, waited, waitStart);
        }
    } catch (...) {
        SockLogF(1, kTag, "Catch (%s)", CaughtText());
        MutexLock lock(ModCrit);
        if (b.Count > 0) ReturnBatch(s, b);
        CLEANUP_SET_Locked(s, kReasonCorrupt);
    }
    MutexLock lock(ModCrit);
    RecycleBufs(b.Spent);
}

}  // namespace

void SockSendThread(SockItem* s) {
    pthread_setname_np(pthread_self(), "kwz-send");  // shows in top -H, gdb, perf
    const int fd = OwnedSocket(s);  // set before the thread started
    const uint32_t idn = s->OwnIdn();
    const int type = s->OwnType();
    SockLogF(5, kTag, "Start Thread (idn=%d, type=%d)", idn, type);
    MarkSend(s);
    SendLoop(s, fd);
    SockLogF(5, kTag, "Stop Thread (idn=%d, type=%d)", idn, type);
}

}  // namespace kwz::sock
