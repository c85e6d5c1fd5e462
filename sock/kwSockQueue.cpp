// The send queue: SockBufAdd inserts by priority, the send thread takes from
// the head, KWSockSendEx is the caller's way in and KWSockSetSendLimit bounds
// it; MakeControl builds the transport's own control records (type id 0,
// layout "TestTyp2|2\r\nType|I4\r\nData|CB").
#include <cstdlib>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "base/kwMem.h"
#include "rec/kwRecImage.h"
#include "rec/kwRecord.h"
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
        MutexLock wake(s->SendLock);  // ModCrit -> SendLock
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

namespace {

// Links node into the sorted queue.  Priority 0 is appended.  Priority p > 0
// goes after the last node of priority >= p, so equal priorities keep their
// order and every prioritised record goes before all ordinary ones: 0, 5, 5,
// 9 queued in that order leave as 9, 5, 5, 0.  The walk visits one node per
// run of equal priority (its first, which knows the run's end), so a queue
// of thousands of records of one priority costs one step.
void Link(SockItem* s, SockBuf* node) REQUIRES(ModCrit) {
    const uint32_t p = node->Priority;
    node->Next = nullptr;
    node->RunEnd = node;
    if (p == 0) {
        if (s->Tail) s->Tail->Next = node;
        else s->Head = node;
        s->Tail = node;
        return;
    }
    if (!s->Head || p > s->Head->Priority) {
        node->Next = s->Head;
        s->Head = node;
        if (!s->Tail) s->Tail = node;
        return;
    }
    // The runs of priority 0 never come before a run of priority >= p, so
    // the walk stays among runs whose first node knows its end.
    SockBuf* run = s->Head;
    for (;;) {
        SockBuf* end = run->RunEnd;
        SockBuf* next = end->Next;
        if (run->Priority == p || !next || next->Priority < p) {
            node->Next = next;
            end->Next = node;
            if (run->Priority == p) run->RunEnd = node;  // else node starts a run of its own
            if (!next) s->Tail = node;
            return;
        }
        run = next;
    }
}

}  // namespace

SockBuf* SockBufTake(SockItem* s) {
    SockBuf* node = s->Head;
    SockBuf* next = node->Next;
    // The next node inherits the run when it belongs to it.
    if (next && node->Priority != 0 && node->RunEnd != node) next->RunEnd = node->RunEnd;
    s->Head = next;
    if (!next) s->Tail = nullptr;
    node->Next = nullptr;
    node->RunEnd = node;
    --s->BufNum;
    s->BufSize -= node->Rec->length;
    if (node->Rec == s->QueuedTimeAnswer) s->QueuedTimeAnswer = nullptr;
    if (node->Rec == s->QueuedTimeoutAnswer) s->QueuedTimeoutAnswer = nullptr;
    return node;
}

void SockBufReturn(SockItem* s, SockBuf* node) {
    SockBuf* head = s->Head;
    node->Next = head;
    node->RunEnd = (head && node->Priority != 0 && head->Priority == node->Priority) ? head->RunEnd : node;
    s->Head = node;
    if (!s->Tail) s->Tail = node;
    ++s->BufNum;
    s->BufSize += node->Rec->length;
}

SockBuf* SockBufDetach(SockItem* s, uint32_t* count, uint64_t* bytes) {
    SockBuf* queue = s->Head;
    *count = s->BufNum;
    *bytes = s->BufSize;
    s->Head = s->Tail = nullptr;
    s->BufNum = 0;
    s->BufSize = 0;
    s->QueuedTimeAnswer = s->QueuedTimeoutAnswer = nullptr;
    return queue;
}

int SockBufAdd(SockItem* s, KWRData* rec, SockEventFn callback, uint32_t priority) {
    static const char* const tag = KWSOCK_TAG("SockBufAdd");
    if (rec && rec->guard != 0) {
        SockLog(1, tag, "REC DATA CORRUPT");
        throw DataCorrupt("SockBufAdd RE_DATACORRUPT");
    }
    if (s->Type == SOCK_LISTEN || s->Closing() || s->Socket < 0) {
        SockLogF(2, tag, "SE_NOSOCK (idn=0x%x, type=0x%x, flags=0x%x, data=%p)", s->Idn, s->Type, s->Flags.load(),
                 s->Dat.load());
        return 0;
    }
    if (!rec) return 0;
    Module& m = Mod();
    SockBuf* node = m.FreeBufs;
    if (node) {
        m.FreeBufs = node->Next;
        --m.FreeBufNum;
    } else {
        node = static_cast<SockBuf*>(std::calloc(1, sizeof(SockBuf)));
    }
    if (!node) {
        SockLog(2, tag, "SE_NOMEM (kwz_calloc)");
        return 0;
    }
    node->Rec = rec;
    node->Callback = callback;
    node->Priority = priority;
    Link(s, node);
    ++s->BufNum;
    s->BufSize += rec->length;
    WakeSender(s);
    return 1;
}

KWRData* MakeControl(int32_t type, const void* data, uint32_t len, const char* tag) {
    Module& m = Mod();
    auto* rec = static_cast<KWRData*>(MemAlloc(sizeof(KWRData)));
    if (!rec) {
        SockLog(2, tag, "SE_NOMEM (kwz_malloc)");
        return nullptr;
    }
    kwz::rec::RecInit(rec);
    if (kwz::rec::RecNew(&m.TestTyp2, rec) != KWR_OK ||
        kwz::rec::WriteInt32(kwz::rec::FldByNum(&m.TestTyp2, 0), rec, type) != KWR_OK ||
        kwz::rec::SetAsText(kwz::rec::FldByNum(&m.TestTyp2, 1), rec, static_cast<int32_t>(len), data) != KWR_OK) {
        SockLog(2, tag, "SE_NOMEM (KWRRecNew)");
        kwz::rec::RecRelease(rec);
        return nullptr;
    }
    if (kwz::rec::RecPack(&m.TestTyp2, rec, 1, 0) != KWR_OK) {
        SockLog(2, tag, "SE_NOMEM (KWRRecPack)");
        kwz::rec::RecRelease(rec);
        return nullptr;
    }
    return rec;
}

void ReleaseRecord(int32_t, uint32_t, KWRData* rec) { kwz::rec::RecRelease(rec); }

}  // namespace kwz::sock

using namespace kwz;
using namespace kwz::sock;

namespace {

// The record must be packed: its image is its frame body as it stands.
// Records that cannot be framed (no image, a length field that disagrees with
// the record, texts still outside the image) are refused with -7, since
// sending them would break the stream for every later record.
int32_t SockSendEx(uint32_t idn, KWRData* record, SockEventFn completion, uint32_t priority) EXCLUDES(ModCrit) {
    static const char* const tag = KWSOCK_TAG("KWSockSendEx");
    if (!record || record->guard != 0) {
        SockLog(1, tag, "REC DATA CORRUPT");
        throw DataCorrupt("KWSockSendEx RE_DATACORRUPT");
    }
    Module& m = Mod();
    MutexLock lock(ModCrit);
    if (!m.ModActive) {
        SockLog(3, tag, "SE_NOINIT");
        return SE_NOINIT;
    }
    SockItem* s = FindSlot(idn, true);
    if (!s || s->Type == SOCK_NODE) {
        SockLogF(2, tag, "SE_NOSOCK (%d)", static_cast<int>(idn));
        return SE_NOSOCK;
    }
    if (!record->image || record->length < rec::kImageHead || LoadU32(record->image) != record->length ||
        record->state == rec::kStateRepack) {
        SockLogF(2, tag, "SE_DATANOSEND (record not packed, len=%u, state=%u)", record->length, record->state);
        return SE_DATANOSEND;
    }
    if (s->SendLimit != 0 && s->BufSize + record->length > s->SendLimit) {
        SockLogF(3, tag, "SE_SENDLIMIT (idn=%d, queued=%llu, len=%u, limit=%llu)", static_cast<int>(idn),
                 static_cast<unsigned long long>(s->BufSize), record->length,
                 static_cast<unsigned long long>(s->SendLimit));
        return SE_SENDLIMIT;
    }
    if (!SockBufAdd(s, record, completion, priority)) {
        SockLog(2, tag, "no SockBufAdd");
        return SE_DATANOSEND;
    }
    return 0;
}

int32_t SockSetSendLimit(uint32_t idn, uint64_t maxQueuedBytes) EXCLUDES(ModCrit) {
    static const char* const tag = KWSOCK_TAG("KWSockSetSendLimit");
    Module& m = Mod();
    MutexLock lock(ModCrit);
    SockItem* s = FindSlotLogged(idn, true, tag);
    if (s && s->Type == SOCK_NODE) {
        SockLogF(2, tag, "SE_NOSOCK (idn=%d)", static_cast<int>(idn));
        s = nullptr;
    }
    if (!s) return m.SockNum == 0 ? SE_NOINIT : SE_NOSOCK;
    s->SendLimit = maxQueuedBytes;
    return 0;
}

}  // namespace

extern "C" {

// Only a corrupt record throws (DataCorrupt, a std::runtime_error).
KWZ_API int32_t KWSockSendEx(uint32_t idn, KWRData* record, SockEventFn completion, uint32_t priority) {
    return CEdgeCorrupt(KWSOCK_TAG("KWSockSendEx"), SE_DATANOSEND, SE_DATANOSEND,
                        [&] { return SockSendEx(idn, record, completion, priority); });
}

KWZ_API int32_t KWSockSetSendLimit(uint32_t idn, uint64_t maxQueuedBytes) {
    return CEdge(KWSOCK_TAG("KWSockSetSendLimit"), SE_NOSOCK, SE_NOSOCK,
                 [&] { return SockSetSendLimit(idn, maxQueuedBytes); });
}

}  // extern "C"
