// The send queue: SockBufAdd inserts by priority, KWSockSendEx is the
// caller's way in, and MakeControl builds the transport's own control
// records (type id 0, layout "TestTyp2|2\r\nType|I4\r\nData|CB").
#include <cstdlib>
#include <stdexcept>

#include "base/kwBase.h"
#include "sock/kwSockInt.h"

namespace kwz::sock {

namespace {
constexpr uint32_t kPoolMax = 4096;
}

// The send thread sets SendIdle under ModCrit when it takes the queue's last
// record, so an enqueue (also under ModCrit) that follows sees it and wakes
// the thread; while the thread is busy, an enqueue costs no lock at all.
void WakeSender(SockItem* s, bool force) {
    if (!force && !s->SendIdle.load()) return;
    {
        std::lock_guard<std::mutex> wake(s->SendLock);  // ModCrit -> SendLock
        s->SendWake = true;
    }
    s->SendCond.notify_one();
}

void RecycleBufs(SockBuf* chain) {
    Module& m = Mod();
    while (chain) {
        SockBuf* b = chain;
        chain = b->Next;
        if (m.FreeBufNum < kPoolMax) {
            b->Next = m.FreeBufs;
            m.FreeBufs = b;
            ++m.FreeBufNum;
        } else {
            std::free(b);
        }
    }
}

void FreeBufPool() {
    Module& m = Mod();
    while (m.FreeBufs) {
        SockBuf* b = m.FreeBufs;
        m.FreeBufs = b->Next;
        std::free(b);
    }
    m.FreeBufNum = 0;
}

// Queue order: priority p > 0 goes before every node of lower priority and
// after every node of priority >= p (equal priorities keep their order);
// priority 0 is appended.  So 0, 5, 5, 9 queued in that order leave as
// 9, 5, 5, 0.  Returns 1 when queued, 0 when refused.  ModCrit held.
int SockBufAdd(SockItem* s, KWRData* rec, SockEventFn callback, uint32_t priority) {
    static const char* const tag = KWSOCK_TAG("SockBufAdd");
    if (rec && rec->guard != 0) {
        LogMessage(1, tag, "REC DATA CORRUPT");
        throw std::runtime_error("SockBufAdd RE_DATACORRUPT");
    }
    if (s->Type == SOCK_LISTEN || s->Closing() || s->Socket < 0) {
        LogMessageF(2, tag, "SE_NOSOCK (idn=0x%x, type=0x%x, flags=0x%x, data=%p)", s->Idn, s->Type,
                    s->Flags.load(), s->Dat.load());
        return 0;
    }
    if (!rec) return 0;
    Module& m = Mod();
    SockBuf* node = m.FreeBufs;
    if (node) {
        m.FreeBufs = node->Next;
        --m.FreeBufNum;
        node->Next = nullptr;
    } else {
        node = static_cast<SockBuf*>(std::calloc(1, sizeof(SockBuf)));
    }
    if (!node) {
        LogMessage(2, tag, "SE_NOMEM (kwz_calloc)");
        return 0;
    }
    node->Rec = rec;
    node->Callback = callback;
    node->Priority = priority;
    if (priority == 0) {
        if (s->Tail) s->Tail->Next = node;
        else s->Head = node;
        s->Tail = node;
    } else if (!s->Head || priority > s->Head->Priority) {
        node->Next = s->Head;
        s->Head = node;
        if (!s->Tail) s->Tail = node;
    } else {
        SockBuf* at = s->Head;
        while (at->Next && at->Next->Priority >= priority) at = at->Next;
        node->Next = at->Next;
        at->Next = node;
        if (!node->Next) s->Tail = node;
    }
    ++s->BufNum;
    s->BufSize += rec->length;
    WakeSender(s);
    return 1;
}

KWRData* MakeControl(int32_t type, const void* data, uint32_t len, const char* tag) {
    Module& m = Mod();
    auto* rec = static_cast<KWRData*>(KWMemAlloc(sizeof(KWRData), nullptr));
    if (!rec) {
        LogMessage(2, tag, "SE_NOMEM (kwz_malloc)");
        return nullptr;
    }
    KWRRecInit(rec);
    if (KWRRecNew(&m.TestTyp2, rec) != KWR_OK ||
        KWRSetAsInt32(KWRFldByNum(&m.TestTyp2, 0), rec, type) != KWR_OK ||
        KWRSetAsText(KWRFldByNum(&m.TestTyp2, 1), rec, static_cast<int32_t>(len), data) != KWR_OK) {
        LogMessage(2, tag, "SE_NOMEM (KWRRecNew)");
        KWRRecRelease(rec);
        return nullptr;
    }
    if (KWRRecPack(&m.TestTyp2, rec, 1, 0) != KWR_OK) {
        LogMessage(2, tag, "SE_NOMEM (KWRRecPack)");
        KWRRecRelease(rec);
        return nullptr;
    }
    return rec;
}

void ReleaseRecord(int32_t, uint32_t, KWRData* rec) { KWRRecRelease(rec); }

}  // namespace kwz::sock

using namespace kwz;
using namespace kwz::sock;

// The record must be packed: its image is its frame body as it stands.
// Records that cannot be framed (no image, a length field that disagrees with
// the record, texts still outside the image) are refused with -7, since
// sending them would break the stream for every later record.
extern "C" KWZ_API int32_t KWSockSendEx(uint32_t idn, KWRData* record, SockEventFn completion,
                                        uint32_t priority) {
    static const char* const tag = KWSOCK_TAG("KWSockSendEx");
    if (!record || record->guard != 0) {
        LogMessage(1, tag, "REC DATA CORRUPT");
        throw std::runtime_error("KWSockSendEx RE_DATACORRUPT");
    }
    Module& m = Mod();
    std::lock_guard<std::mutex> lock(m.ModCrit);
    if (!m.ModActive) {
        LogMessage(3, tag, "SE_NOINIT");
        return SE_NOINIT;
    }
    SockItem* s = FindSlot(idn, true);
    if (!s || s->Type == SOCK_NODE) {
        LogMessageF(2, tag, "SE_NOSOCK (%d)", static_cast<int>(idn));
        return SE_NOSOCK;
    }
    if (!record->image || record->length < 6 || LoadU32(record->image) != record->length || record->state == 255) {
        LogMessageF(2, tag, "SE_DATANOSEND (record not packed, len=%u, state=%u)", record->length,
                    record->state);
        return SE_DATANOSEND;
    }
    if (!SockBufAdd(s, record, completion, priority)) {
        LogMessage(2, tag, "no SockBufAdd");
        return SE_DATANOSEND;
    }
    return 0;
}
