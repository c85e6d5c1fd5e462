// The socket module's life: KWSockInit sizes the table and prepares the
// records every connection needs, KWSockFree suspends the module and closes
// every slot, and ModDataClear releases the table once the last slot's last
// thread has ended.  Slot lookup and allocation live here too.
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "sock/kwSockInt.h"

namespace kwz::sock {

Mutex ModCrit;

void SockLog(int32_t level, const char* tag, const char* text) noexcept {
    try {
        Log(level, tag, text);
    } catch (...) {
    }
}

void SockLogF(int32_t level, const char* tag, const char* format, ...) noexcept {
    if (!LogEnabled(level)) return;
    char text[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    SockLog(level, tag, text);
}

namespace {

const char* const kNodeDef = "NodeData|3\r\nPort|I4\r\nAddr|CB\r\nData|CB";
const char* const kTestDef = "TestTyp2|2\r\nType|I4\r\nData|CB";

// Releases the table and whatever the records and types hold.
void ReleaseAll(Module& m) REQUIRES(ModCrit) {
    m.SockArr.clear();
    m.SockNum = 0;
    FreeBufPool();
    if (m.KeepAlive.image) kwz::rec::RecFree(&m.KeepAlive);
    if (m.HostRec.image) kwz::rec::RecFree(&m.HostRec);
    kwz::rec::TypFree(&m.TestTyp2);
    kwz::rec::TypFree(&m.NodeTyp);
}

// The keep-alive record: type id 0 and no fields.  An empty type has data
// length 6, so its image is just the head: L = 6, flags 0, count 0.  The
// receiver reads the 10-byte frame head and drops it.
bool MakeKeepAlive(Module& m) {
    KWRType empty;
    kwz::rec::TypInit(&empty);
    if (kwz::rec::TypSetA(&empty, 0, nullptr, 0, nullptr) != KWR_OK) return false;
    kwz::rec::RecInit(&m.KeepAlive);
    const uint32_t rc = kwz::rec::RecNew(&empty, &m.KeepAlive);
    kwz::rec::TypFree(&empty);
    return rc == KWR_OK;
}

// The host-identification record: control Type 1 with the host name.
bool MakeHostRecord(Module& m) {
    kwz::rec::RecInit(&m.HostRec);
    if (kwz::rec::RecNew(&m.TestTyp2, &m.HostRec) != KWR_OK) return false;
    KWRField* type = kwz::rec::FldByNum(&m.TestTyp2, 0);
    KWRField* data = kwz::rec::FldByNum(&m.TestTyp2, 1);
    const auto n = static_cast<int32_t>(strnlen(m.HostName, sizeof m.HostName));
    return kwz::rec::WriteInt32(type, &m.HostRec, 1) == KWR_OK &&
           kwz::rec::SetAsText(data, &m.HostRec, n, m.HostName) == KWR_OK &&
           kwz::rec::RecPack(&m.TestTyp2, &m.HostRec, 1, 0) == KWR_OK;
}

}  // namespace

Module& Mod() {
    static Module* module = new Module;  // never destroyed: see kwSockInt.h
    return *module;
}

SockItem* FindSlot(uint32_t idn, bool allocated) {
    Module& m = Mod();
    // The index field has 16 bits but the lookup keeps a 15-bit mask; tables
    // are never larger than 0x8000 slots, so nothing is lost.
    const uint32_t idx = idn & 0x7FFF;
    if (idx >= static_cast<uint32_t>(m.SockNum)) return nullptr;
    SockItem* s = m.SockArr[idx].get();
    if (s->Idn != idn) return nullptr;
    if (allocated && s->Type == SOCK_FREE) return nullptr;
    return s;
}

SockItem* AllocOpenSlot(uint8_t type, void* event, uint32_t port, const char* tag, int32_t level) {
    Module& m = Mod();
    SockItem* s = SockGetFreeIdx(type);
    if (!s) {
        SockLogF(level, tag, "There are no available sockets (all=%d, use=%d)", m.SockNum, m.SockUse.load());
        return nullptr;
    }
    s->Event = event;
    s->Port = port;
    return s;
}

SockItem* FindSlotLogged(uint32_t idn, bool allocated, const char* tag, bool withIdnText, bool streamOnly) {
    if (Mod().SockNum == 0) {
        SockLog(3, tag, "SE_NOINIT");
        return nullptr;
    }
    SockItem* s = FindSlot(idn, allocated);
    if (!s || (streamOnly && !s->IsStream())) {
        SockLogF(2, tag, withIdnText ? "SE_NOSOCK (idn=%d)" : "SE_NOSOCK (%d)", static_cast<int>(idn));
        return nullptr;
    }
    return s;
}

SockItem* SockGetFreeIdx(uint8_t type) {
    Module& m = Mod();
    if (!m.ModActive) return nullptr;
    for (int32_t i = 0; i < m.SockNum; ++i) {
        SockItem* s = m.SockArr[i].get();
        if (s->Type != SOCK_FREE) continue;
        s->Type = type;
        s->Event = nullptr;
        // Generations run 1..16383 and wrap.
        s->Idn = ((((s->Idn >> 16) % 16383) + 1) << 16) + static_cast<uint32_t>(i);
        s->Flags = 0;
        s->Dat = nullptr;
        s->RecvTick = 0;
        s->SendTick = 0;
        s->RecvMs = 0;
        s->SendMs = 0;
        s->LastError = 0;
        s->Head = s->Tail = nullptr;
        s->BufNum = 0;
        s->BufSize = 0;
        s->SendLimit = 0;
        s->QueuedTimeAnswer = s->QueuedTimeoutAnswer = nullptr;
        s->SendStall = 0;
        s->Port = 0;
        s->ThreadNum = 0;
        std::free(s->HostName);
        std::free(s->HostAddr);
        s->HostName = s->HostAddr = nullptr;
        s->RecvBytes = 0;
        s->SendBytes = 0;
        s->Time = SockTime{};
        s->RecvLimit = 0;
        s->RecvTimeout = type == SOCK_SRV ? kSrvRecvTimeout : 0;
        s->SendTimeout = type == SOCK_CLI ? kCliSendTimeout : 0;
        {
            MutexLock wake(s->SendLock);
            s->SendWake = false;
        }
        s->SendIdle = false;
        ++m.SockUse;
        return s;
    }
    return nullptr;
}

void ModDataClear() {
    Module& m = Mod();
    if (m.ModActive || m.SockUse != 0 || m.SockNum == 0) return;
    SockLog(5, KWSOCK_TAG("_ModDataClear"), "");
    ReleaseAll(m);
}

int SetTimeoutOpt(int fd, int option, uint32_t ms) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    return setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv);
}

int SetIntOpt(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof value);
}

namespace {

// Builds the table and the records every connection needs.  Any failure,
// an allocation that throws included, leaves no table behind.
int32_t SockInit(int32_t sockMax) EXCLUDES(ModCrit) {
    static const char* const tag = KWSOCK_TAG("KWSockInit");
    Module& m = Mod();
    m.FirstInit = true;
    MutexLock lock(ModCrit);
    if (m.ModActive) return 0;
    if (m.SockNum != 0) {
        SockLog(3, tag, "SE_SUSPEND");
        return SE_SUSPEND;
    }
    if (sockMax <= 0) {
        SockLog(3, tag, "SE_NOINIT");
        return SE_NOINIT;
    }
    SockLogF(5, tag, "SockMax=%d", sockMax);
    // Slots past index 0x7FFF could never be named by an idn (15-bit mask).
    const int32_t count = sockMax < kMaxSlots ? sockMax : kMaxSlots;
    try {
        m.SockArr.clear();
        m.SockArr.reserve(static_cast<size_t>(count));
        for (int32_t i = 0; i < count; ++i) {
            auto s = std::make_unique<SockItem>();
            s->Idn = (static_cast<uint32_t>(i + 1) << 16) + static_cast<uint32_t>(i);
            m.SockArr.push_back(std::move(s));
        }
    } catch (const std::bad_alloc&) {
        SockLog(2, tag, "SE_NOMEM (SockArr)");
        ReleaseAll(m);
        return SE_NOINIT;
    }
    m.SockNum = count;

    if (gethostname(m.HostName, sizeof m.HostName) != 0) {
        SockLogF(2, tag, "gethostname (err=%d)", errno);
        ReleaseAll(m);
        return SE_NOINIT;
    }
    m.HostName[sizeof m.HostName - 1] = 0;

    kwz::rec::TypInit(&m.NodeTyp);
    kwz::rec::TypInit(&m.TestTyp2);
    const char* failure = nullptr;
    if (kwz::rec::TypSet(&m.NodeTyp, 0, kNodeDef) != KWR_OK) failure = "SE_NOMEM (KWRTypSet.1)";
    else if (!MakeKeepAlive(m)) failure = "SE_NOMEM (KWRRecNew.1)";
    else if (kwz::rec::TypSet(&m.TestTyp2, 0, kTestDef) != KWR_OK) failure = "SE_NOMEM (KWRTypSet.2)";
    else if (!MakeHostRecord(m)) failure = "SE_NOMEM (KWRRecNew.2)";
    if (failure) {
        SockLog(2, tag, failure);
        ReleaseAll(m);
        return SE_NOINIT;
    }
    m.ModActive = true;
    return 0;
}

int32_t SockFree() EXCLUDES(ModCrit) {
    Module& m = Mod();
    MutexLock lock(ModCrit);
    if (!m.ModActive) return m.SockNum == 0 ? 0 : SE_SUSPEND;
    m.ModActive = false;
    SockLog(5, KWSOCK_TAG("KWSockFree"), "");
    for (int32_t i = 0; i < m.SockNum; ++i) {
        SockItem* s = m.SockArr[i].get();
        if (s->Type == SOCK_FREE) continue;
        // The caller asked to stop: no close events reach it any more.
        s->Event = nullptr;
        CLEANUP_SET_Locked(s, kReasonNone);
    }
    if (m.SockUse == 0) ModDataClear();
    return m.SockNum == 0 ? 0 : SE_SUSPEND;
}

int32_t SockIsActive() EXCLUDES(ModCrit) {
    Module& m = Mod();
    MutexLock lock(ModCrit);
    if (m.ModActive) return 0;
    return m.SockNum != 0 ? SE_SUSPEND : SE_NOINIT;
}

}  // namespace

}  // namespace kwz::sock

using namespace kwz;
using namespace kwz::sock;

extern "C" {

KWZ_API int32_t KWSockInit(int32_t sockMax) {
    return CEdge(KWSOCK_TAG("KWSockInit"), SE_NOINIT, SE_NOINIT, [&] { return SockInit(sockMax); });
}

KWZ_API int32_t KWSockFree(void) {
    return CEdge(KWSOCK_TAG("KWSockFree"), SE_SUSPEND, SE_SUSPEND, [] { return SockFree(); });
}

KWZ_API int32_t KWSockIsActive(void) {
    return CEdge(KWSOCK_TAG("KWSockIsActive"), SE_NOINIT, SE_NOINIT, [] { return SockIsActive(); });
}

}  // extern "C"
