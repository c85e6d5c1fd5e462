// Closing a slot.  CLEANUP_SET marks it closing (the only place that does)
// and shuts its socket down, which wakes whatever thread waits on it;
// CLEANUP_FIN runs as each of the slot's threads ends, and the last one out
// hands queued records back, delivers the close event and frees the slot.
// Closing never joins a thread.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "sock/kwSockInt.h"

namespace kwz::sock {

void CLEANUP_SET_Locked(SockItem* s, int32_t reason) {
    if (s->Closing()) return;
    s->LastError = reason;
    s->Flags.fetch_or(kFlagClosing);
    const int fd = s->Socket.exchange(-1);
    WakeSender(s, true);
    // The descriptor stays open (OwnedFd) until CLEANUP_FIN; shutting it down
    // both ways makes every blocked recv, send, accept and recvfrom return.
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
}

void CLEANUP_SET(SockItem* s, int32_t reason) {
    MutexLock lock(ModCrit);
    CLEANUP_SET_Locked(s, reason);
}

void AttachSocket(SockItem* s, int fd) {
    MutexLock lock(ModCrit);
    s->OwnedFd = fd;
    if (s->Closing()) {
        shutdown(fd, SHUT_RDWR);  // closed while it was being opened
        return;
    }
    s->Socket = fd;
}

int OwnedSocket(SockItem* s) {
    MutexLock lock(ModCrit);
    return s->OwnedFd;
}

PeerTexts PeerTextsOf(SockItem* s) {
    PeerTexts t{};
    MutexLock lock(ModCrit);
    if (s->HostAddr) std::strncpy(t.Addr, s->HostAddr, sizeof t.Addr - 1);
    if (s->HostName) std::strncpy(t.Name, s->HostName, sizeof t.Name - 1);
    return t;
}

namespace {

const char* const kFinTag = KWSOCK_TAG("CLEANUP_FIN");

// What CLEANUP_FIN knows of the slot while it finishes without the lock.
struct Finishing {
    SockItem* S;
    uint32_t Idn;
    uint8_t Type;
    SockBuf* Queue;    // records still queued, in order
    uint32_t Count;    // how many are left in Queue
    uint64_t Bytes;    // and their image bytes
};

// An exception met while finishing: logged with the queue still left and the
// exception's text; CLEANUP_FIN then goes on with the next step.
void LogCaught(const Finishing& f, const char* step) noexcept {
    SockLog(1, kFinTag, "CATCH BEGIN");
    SockLogF(1, kFinTag, "Type(0x%x), flags(0x%x), bufnum(%ld), bufsize(%ld)", f.Type, f.S->Flags.load(),
             static_cast<long>(f.Count), static_cast<long>(f.Bytes));
    SockLogF(1, kFinTag, "%s: %s", step, CaughtText());
}

// Step 4: every queued record back to its completion callback with -6 (the
// callback owns it from then on), in order.  A callback that throws is
// logged and the next record still gets its call.
void HandBack(Finishing& f) noexcept {
    while (f.Queue) {
        SockBuf* b = f.Queue;
        f.Queue = b->Next;
        --f.Count;
        f.Bytes -= b->Rec ? b->Rec->length : 0;
        if (b->Callback && b->Rec && b->Rec->guard == 0) {
            try {
                FlagScope busy(f.S, kFlagComplete);
                b->Callback(SOCK_EV_DROPPED, f.Idn, b->Rec);
            } catch (...) {
                LogCaught(f, "completion");
            }
        }
        std::free(b);
    }
}

// Step 5: the close event.
void DeliverClose(Finishing& f) noexcept {
    SockEventFn event = f.S->StreamEvent();
    if (!event) return;
    const int32_t reason = f.S->LastError;
    try {
        FlagScope busy(f.S, kFlagEvent);
        if (f.Type == SOCK_NODE) {
            const int32_t code = reason == kReasonNone ? SOCK_EV_CLOSE : SOCK_EV_ABORT;
            f.S->NodeEvent()(code, f.Idn, 0, nullptr, nullptr, 0);
        } else {
            const bool orderly = reason == kReasonNone || reason == kReasonIdle;
            event(orderly ? SOCK_EV_CLOSE : SOCK_EV_ABORT, f.Idn, nullptr);
        }
    } catch (...) {
        LogCaught(f, "close event");
    }
}

}  // namespace

void CLEANUP_FIN(SockItem* s) noexcept {
    Module& m = Mod();
    if (!s->Closing()) CLEANUP_SET(s, kReasonNone);
    const int32_t left = s->ThreadNum.fetch_sub(1) - 1;
    if (left > 0) return;  // only the last one out goes on

    Finishing f{s, 0, SOCK_FREE, nullptr, 0, 0};
    {
        MutexLock lock(ModCrit);
        f.Queue = SockBufDetach(s, &f.Count, &f.Bytes);
        f.Idn = s->Idn;
        f.Type = s->Type;
    }
    SockLogF(3, KWSOCK_TAG("CLEANUP_FIN NUM"), "(Idn(0x%X), Type(0x%x), flags(0x%x), ThreadNum(%ld) dat(%s) LastError(%d)",
             f.Idn, f.Type, s->Flags.load(), static_cast<long>(left), s->Dat.load() ? "data" : "null",
             s->LastError.load());
    HandBack(f);
    DeliverClose(f);

    // Last, under ModCrit: the slot is free again.  Nothing may touch it
    // after this block: ModDataClear may destroy it.
    MutexLock lock(ModCrit);
    s->ThreadNum = 0;
    s->Event = nullptr;
    s->Dat = nullptr;
    std::free(s->HostName);
    std::free(s->HostAddr);
    s->HostName = s->HostAddr = nullptr;
    s->Socket = -1;
    if (s->OwnedFd >= 0) close(s->OwnedFd);
    s->OwnedFd = -1;
    s->Type = SOCK_FREE;
    --m.SockUse;
    if (!m.ModActive && m.SockUse == 0) ModDataClear();
}

}  // namespace kwz::sock

using namespace kwz;
using namespace kwz::sock;

namespace {

int32_t SockClose(uint32_t idn) EXCLUDES(ModCrit) {
    static const char* const tag = KWSOCK_TAG("KWSockClose");
    SockLogF(5, tag, "Idn  (%d)", static_cast<int>(idn));  // two blanks: kept
    Module& m = Mod();
    if (!m.FirstInit) {
        SockLog(3, tag, "The module is not initialized");
        return SE_NOINIT;
    }
    MutexLock lock(ModCrit);
    if (!m.ModActive) {
        if (m.SockNum != 0) {
            SockLog(3, tag, "SE_SUSPEND");
            return SE_SUSPEND;
        }
        SockLog(3, tag, "SE_NOINIT");
        return SE_NOINIT;
    }
    SockItem* s = FindSlot(idn, false);
    if (!s) {
        SockLogF(2, tag, "SE_NOSOCK (%d)", static_cast<int>(idn));
        return SE_NOSOCK;
    }
    if (s->Type == SOCK_FREE || s->Closing()) return 0;
    CLEANUP_SET_Locked(s, kReasonNone);
    return 0;
}

}  // namespace

extern "C" KWZ_API int32_t KWSockClose(uint32_t idn) {
    return CEdge(KWSOCK_TAG("KWSockClose"), SE_NOSOCK, SE_NOSOCK, [&] { return SockClose(idn); });
}
