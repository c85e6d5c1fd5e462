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
#include "sock/kwSockInt.h"

namespace kwz::sock {

void CLEANUP_SET(SockItem* s, int32_t reason, bool takeLock) {
    std::unique_lock<std::mutex> lock(Mod().ModCrit, std::defer_lock);
    if (takeLock) lock.lock();
    if (s->Closing()) return;
    s->LastError = reason;
    s->Flags.fetch_or(kFlagClosing);
    const int fd = s->Socket.exchange(-1);
    WakeSender(s, true);
    if (takeLock) lock.unlock();
    // The descriptor stays open (OwnedFd) until CLEANUP_FIN; shutting it down
    // both ways makes every blocked recv, send, accept and recvfrom return.
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
}

void AttachSocket(SockItem* s, int fd) {
    std::lock_guard<std::mutex> lock(Mod().ModCrit);
    s->OwnedFd = fd;
    if (s->Closing()) {
        shutdown(fd, SHUT_RDWR);  // closed while it was being opened
        return;
    }
    s->Socket = fd;
}

PeerTexts PeerTextsOf(SockItem* s) {
    PeerTexts t{};
    std::lock_guard<std::mutex> lock(Mod().ModCrit);
    if (s->HostAddr) std::strncpy(t.Addr, s->HostAddr, sizeof t.Addr - 1);
    if (s->HostName) std::strncpy(t.Name, s->HostName, sizeof t.Name - 1);
    return t;
}

namespace {

// Step 4 and 5 of CLEANUP_FIN: queued records back to their callbacks with
// -6, then the close event.  Runs without locks, on the last thread.
void HandBack(SockItem* s, SockBuf*& queue, uint32_t idn, uint8_t type) {
    while (queue) {
        SockBuf* b = queue;
        queue = b->Next;
        if (b->Callback && b->Rec && b->Rec->guard == 0) {
            s->Flags.fetch_or(kFlagComplete);
            b->Callback(SOCK_EV_DROPPED, idn, b->Rec);  // the callback owns the record now
            s->Flags.fetch_and(~kFlagComplete);
        }
        std::free(b);
    }
    SockEventFn event = s->StreamEvent();
    if (!event) return;
    const int32_t reason = s->LastError;
    s->Flags.fetch_or(kFlagEvent);
    if (type == SOCK_NODE) {
        const int32_t code = reason == kReasonNone ? SOCK_EV_CLOSE : SOCK_EV_ABORT;
        s->NodeEvent()(code, idn, 0, nullptr, nullptr, 0);
    } else {
        const bool orderly = reason == kReasonNone || reason == kReasonIdle;
        event(orderly ? SOCK_EV_CLOSE : SOCK_EV_ABORT, idn, nullptr);
    }
    s->Flags.fetch_and(~kFlagEvent);
}

}  // namespace

void CLEANUP_FIN(SockItem* s) {
    Module& m = Mod();
    if (!s->Closing()) CLEANUP_SET(s, kReasonNone, true);
    const int32_t left = s->ThreadNum.fetch_sub(1) - 1;
    if (left > 0) return;  // only the last one out goes on

    SockBuf* queue = nullptr;
    uint32_t idn = 0;
    uint8_t type = SOCK_FREE;
    {
        std::lock_guard<std::mutex> lock(m.ModCrit);
        queue = s->Head;
        s->Head = s->Tail = nullptr;
        s->BufNum = 0;
        s->BufSize = 0;
        idn = s->Idn;
        type = s->Type;
    }
    try {
        if (LogEnabled(3)) {
            LogMessageF(3, KWSOCK_TAG("CLEANUP_FIN NUM"),
                        "(Idn(0x%X), Type(0x%x), flags(0x%x), ThreadNum(%ld) dat(%s) LastError(%d)", idn,
                        type, s->Flags.load(), static_cast<long>(left), s->Dat.load() ? "data" : "null",
                        s->LastError.load());
        }
        HandBack(s, queue, idn, type);
    } catch (...) {
        LogMessage(1, KWSOCK_TAG("CLEANUP_FIN"), "CATCH BEGIN");
        LogMessageF(1, KWSOCK_TAG("CLEANUP_FIN"), "Type(0x%x), flags(0x%x), bufnum(%ld), bufsize(%ld)", type,
                    s->Flags.load(), 0L, 0L);
        while (queue) {
            SockBuf* b = queue;
            queue = b->Next;
            std::free(b);
        }
    }

    // Last, under ModCrit: the slot is free again.  Nothing may touch it
    // after this block: _ModDataClear may destroy it.
    std::lock_guard<std::mutex> lock(m.ModCrit);
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
    if (!m.ModActive && m.SockUse == 0) _ModDataClear();
}

}  // namespace kwz::sock

using namespace kwz;
using namespace kwz::sock;

extern "C" KWZ_API int32_t KWSockClose(uint32_t idn) {
    static const char* const tag = KWSOCK_TAG("KWSockClose");
    if (LogEnabled(5)) LogMessageF(5, tag, "Idn  (%d)", static_cast<int>(idn));  // two blanks: kept
    Module& m = Mod();
    if (!m.FirstInit) {
        LogMessage(3, tag, "The module is not initialized");
        return SE_NOINIT;
    }
    std::lock_guard<std::mutex> lock(m.ModCrit);
    if (!m.ModActive) {
        if (m.SockNum != 0) {
            LogMessage(3, tag, "SE_SUSPEND");
            return SE_SUSPEND;
        }
        LogMessage(3, tag, "SE_NOINIT");
        return SE_NOINIT;
    }
    SockItem* s = FindSlot(idn, false);
    if (!s) {
        LogMessageF(2, tag, "SE_NOSOCK (%d)", static_cast<int>(idn));
        return SE_NOSOCK;
    }
    if (s->Type == SOCK_FREE || s->Closing()) return 0;
    CLEANUP_SET(s, kReasonNone, false);
    return 0;
}
