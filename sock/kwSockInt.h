// Internal interface of the socket module kwSock: the module state, the slot
// of the socket table, the send-queue node and the functions that the module's
// files share.  Nothing here is exported.
//
// Threads.  Every stream slot (SOCK_SRV, SOCK_CLI) runs a receiving and a
// sending thread, a SOCK_LISTEN slot one listening thread, a SOCK_NODE slot a
// datagram receiving thread and the sending thread.  All are detached; the
// last of a slot's threads to end finalises the slot (CLEANUP_FIN).
//
// Locks.  Mod().ModCrit guards the table, every slot's plain (non-atomic)
// fields and every send queue.  Each slot has its own SendLock, held only
// around the send thread's condition wait and around the wake-up flag.
// Lock order: ModCrit before a slot's SendLock, never the reverse (the send
// thread never takes ModCrit while it holds SendLock).  No callback of the
// caller ever runs under either lock.
//
// Descriptors.  CLEANUP_SET shuts a slot's socket down, which wakes every
// thread blocked on it, and takes it out of the slot (Socket = -1); the
// descriptor itself (OwnedFd) is closed by CLEANUP_FIN when the last thread
// has ended, so that no thread can ever read or write a descriptor number
// that the system has already handed to another socket.
#pragma once

#include <VomKwz.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace kwz::sock {

// Log tags: "Kwz.kwSock.<function>".
#define KWSOCK_TAG(fn) "Kwz.kwSock." fn

// Slot flags (SockItem::Flags).
constexpr uint32_t kFlagSend = 0x01;     // a send is in progress
constexpr uint32_t kFlagRecv = 0x02;     // a receive is in progress
constexpr uint32_t kFlagComplete = 0x04; // a completion callback is running
constexpr uint32_t kFlagEvent = 0x08;    // an event callback is running
constexpr uint32_t kFlagClosing = 0x10;  // closing (set only by CLEANUP_SET)

// Close reasons (SockItem::LastError).
constexpr int32_t kReasonNone = 0;       // ordinary close or end of stream
constexpr int32_t kReasonIdle = 2;       // the send thread found the slot closing
constexpr int32_t kReasonAbort = 3;      // a receive failed, listener died
constexpr int32_t kReasonNoBuffer = -1;  // no receive buffer
constexpr int32_t kReasonCorrupt = -6;   // corrupt data received (or over the limit)
constexpr int32_t kReasonSendFail = -7;  // a send failed

constexpr uint32_t kPrioTop = 0xFFFFFFFFu;  // control records go first
constexpr uint32_t kFramePrefix = 4;        // int16 type id, int16 reserved
constexpr uint32_t kFrameHead = 10;         // prefix + image length, flags, count
constexpr uint32_t kRecvBlock = 65536;      // receiving thread's block
constexpr uint32_t kBatchRecords = 8;       // records per batch at most
constexpr uint32_t kBatchBytes = 65535;     // a batch ends after exceeding this
constexpr uint32_t kSockRecvTimeout = 5000; // SO_RCVTIMEO of stream sockets, ms
constexpr uint32_t kSrvRecvTimeout = 20000; // RecvTimeout of a new SOCK_SRV slot
constexpr uint32_t kCliSendTimeout = 5000;  // SendTimeout of a new SOCK_CLI slot
constexpr uint32_t kIdleWait = 5000;        // send thread's wait when SendTimeout is 0
constexpr int32_t kMaxDatagram = 65507;     // largest UDP payload over IPv4
constexpr int32_t kMaxSlots = 0x8000;       // idns keep a 15-bit index mask

// Error numbers of the platform the protocol comes from, compared as plain
// numbers where a Linux code is compared too: WSAEINTR, WSAECONNRESET and
// WSAETIMEDOUT.  No Linux errno has these values.
constexpr int kErrInterrupted = 10004;
constexpr int kErrConnReset = 10054;
constexpr int kErrTimedOut = 10060;

// One queued record.  The queue owns Rec until Callback has run (records
// without a callback stay the caller's: the host-identification and the
// keep-alive record).
struct SockBuf {
    KWRData* Rec;
    SockEventFn Callback;  // may be null
    uint32_t Priority;     // 0 = ordinary
    SockBuf* Next;
};

// Time synchronisation state of a stream slot.  Written by the receiving
// thread, read by callers; every field is atomic.
struct SockTime {
    std::atomic<int32_t> DltSec{0};    // measured difference, whole seconds
    std::atomic<int32_t> DltMs{0};     // and milliseconds, same sign
    std::atomic<int32_t> Zone1{0};     // the peer's zone values
    std::atomic<int32_t> Zone2{0};
    std::atomic<int32_t> SetZone1{-1}; // override set by KWSockTimeZoneSet, -1 = none
    std::atomic<int32_t> SetZone2{0};
    std::atomic<bool> Synced{false};
    void Clear() {
        DltSec = 0;
        DltMs = 0;
        Zone1 = 0;
        Zone2 = 0;
        SetZone1 = -1;
        SetZone2 = 0;
        Synced = false;
    }
};

// One slot of the socket table.  Fields marked (M) are guarded by ModCrit;
// the others are atomic or written only before the slot's threads start.
struct SockItem {
    uint8_t Type = SOCK_FREE;                // (M) SockType
    uint32_t Idn = 0;                        // (M) index | generation << 16
    std::atomic<void*> Event{nullptr};       // SockEventFn, or SockNodeEventFn for SOCK_NODE
    std::atomic<uint32_t> Flags{0};
    std::atomic<void*> Dat{nullptr};
    std::atomic<uint32_t> RecvTick{0};       // GetTickCount of the last receive (see SockTick)
    std::atomic<uint32_t> SendTick{0};       // GetTickCount of the last transmission
    std::atomic<uint32_t> RecvMs{0};         // SockMs of the last receive: for time-outs
    std::atomic<uint32_t> SendMs{0};         // SockMs of the last transmission: for keep-alive
    std::atomic<uint32_t> RecvTimeout{0};
    std::atomic<uint32_t> SendTimeout{0};
    std::atomic<int32_t> LastError{0};
    std::mutex SendLock;
    std::condition_variable SendCond;
    bool SendWake = false;                   // guarded by SendLock
    std::atomic<bool> SendIdle{false};       // the send thread found the queue empty and may wait
    SockBuf* Head = nullptr;                 // (M) send queue
    SockBuf* Tail = nullptr;                 // (M)
    uint32_t BufNum = 0;                     // (M) records queued
    uint32_t BufSize = 0;                    // (M) image bytes queued
    uint32_t Port = 0;                       // host order
    std::atomic<int> Socket{-1};             // -1 once closing
    int OwnedFd = -1;                        // (M) closed by CLEANUP_FIN
    std::atomic<int32_t> ThreadNum{0};
    char* HostName = nullptr;                // (M) owned text
    char* HostAddr = nullptr;                // (M) owned text
    std::atomic<uint64_t> RecvBytes{0};
    std::atomic<uint64_t> SendBytes{0};
    SockTime Time;
    std::atomic<uint32_t> RecvLimit{0};      // largest image accepted, 0 = any
    uint32_t OwnAddr = 0;                    // SOCK_NODE: the own host's address (network order)

    bool Closing() const { return (Flags.load() & kFlagClosing) != 0; }
    bool IsStream() const { return Type == SOCK_SRV || Type == SOCK_CLI; }
    SockEventFn StreamEvent() const { return reinterpret_cast<SockEventFn>(Event.load()); }
    SockNodeEventFn NodeEvent() const { return reinterpret_cast<SockNodeEventFn>(Event.load()); }
};

// The module's state, one per process.  Never destroyed: detached socket
// threads may still be on their way out when the process exits.
struct Module {
    std::mutex ModCrit;
    std::atomic<bool> FirstInit{false};
    std::atomic<bool> ModActive{false};
    std::vector<std::unique_ptr<SockItem>> SockArr;  // (M)
    int32_t SockNum = 0;                              // (M)
    std::atomic<int32_t> SockUse{0};
    std::atomic<int32_t> ThreadNum{0};
    char HostName[256] = {};
    KWRType NodeTyp{};   // "NodeData|3": Port I4, Addr CB, Data CB
    KWRType TestTyp2{};  // "TestTyp2|2": Type I4, Data CB (control records)
    KWRData HostRec{};   // control record Type 1 carrying HostName
    KWRData KeepAlive{}; // type id 0, no fields: a 6-byte image
    SockBuf* FreeBufs = nullptr;  // (M) spare queue nodes
    uint32_t FreeBufNum = 0;      // (M)
};

Module& Mod();

// Callbacks are kept as untyped pointers; the slot's Type says which kind.
inline void* FnPtr(SockEventFn f) { return reinterpret_cast<void*>(f); }
inline void* FnPtr(SockNodeEventFn f) { return reinterpret_cast<void*>(f); }

// Each slot keeps two clocks.  RecvTick, SendTick and the time request's
// stamp are the library's 32-bit tick, GetTickCount: callers read the first
// two through KWSockGetState and peers echo the stamp.  That tick adds
// microseconds to the second count, so its differences are no durations (4 ms
// steps of the coarse clock, a jump back at every second).  On the platform
// this transport comes from the tick was a true millisecond count and
// "now - RecvTick > RecvTimeout" measured idle time; to keep that meaning the
// time-out and keep-alive decisions use RecvMs/SendMs, the low 32 bits of the
// steady clock's milliseconds, taken at the same moments.  The time
// synchronisation measures its round trip with the tick itself, as peers
// expect.
inline uint32_t SockTick() { return GetTickCount(); }
inline uint32_t SockMs() { return static_cast<uint32_t>(CTimeTick64()); }
inline void MarkRecv(SockItem* s) {
    s->RecvMs = SockMs();
    s->RecvTick = SockTick();
}
inline void MarkSend(SockItem* s) {
    s->SendMs = SockMs();
    s->SendTick = SockTick();
}

// Slot lookup (ModCrit held): the slot named by idn (15-bit index mask, exact
// Idn match), or null.  allocated: also require Type != SOCK_FREE.
SockItem* FindSlot(uint32_t idn, bool allocated);
// FindSlot for the API functions (ModCrit held): logs "SE_NOINIT" (level 3)
// without a table and "SE_NOSOCK (idn=%d)" -- or "SE_NOSOCK (%d)" when
// withIdnText is false -- (level 2) for an unknown idn, or, with streamOnly,
// for a slot that is not SOCK_SRV/SOCK_CLI; null then.
SockItem* FindSlotLogged(uint32_t idn, bool allocated, const char* tag, bool withIdnText = true,
                         bool streamOnly = false);
// The slot of an open function (ModCrit held): SockGetFreeIdx, then the
// caller's callback and port; logs "There are no available sockets" at the
// given level and returns null when the table is full.
SockItem* AllocOpenSlot(uint8_t type, void* event, uint32_t port, const char* tag, int32_t level);
// Allocates the first free slot with a new generation (ModCrit held); null
// when the module is not active or the table is full.
SockItem* SockGetFreeIdx(uint8_t type);
void _ModDataClear();

// Closing (kwSockClose.cpp).
void CLEANUP_SET(SockItem* s, int32_t reason, bool takeLock);
void CLEANUP_FIN(SockItem* s);
// Gives the slot its descriptor (ModCrit taken); a slot that is already
// closing gets it shut down at once.
void AttachSocket(SockItem* s, int fd);
// Copies of the slot's texts for log lines ("" when absent).
struct PeerTexts {
    char Addr[64];
    char Name[128];
};
PeerTexts PeerTextsOf(SockItem* s);

// Thread start-up (kwSockOpen.cpp): counts n threads (module and slot) before
// starting; a thread that cannot be started closes the slot with reason -1
// and is finalised in its place.
void StartStreamThreads(SockItem* s);
void StartThread(SockItem* s, void (*body)(SockItem*), const char* tag);

// Queue (kwSockQueue.cpp).
int SockBufAdd(SockItem* s, KWRData* rec, SockEventFn callback, uint32_t priority);
// Wakes the send thread (ModCrit held): only when it is idle, or always with
// force (closing).
void WakeSender(SockItem* s, bool force = false);
// Spare queue nodes (ModCrit held): a chain of used nodes goes back to the
// module's pool (or is freed when the pool is full); FreeBufPool empties it.
void RecycleBufs(SockBuf* chain);
void FreeBufPool();
// A packed control record (TestTyp2, type id 0) of the given Type with len
// Data bytes (zeros when data is null); null after logging under tag.
KWRData* MakeControl(int32_t type, const void* data, uint32_t len, const char* tag);
// Completion callback of the records the transport makes itself.
void ReleaseRecord(int32_t event, uint32_t idn, KWRData* rec);

// Threads.
void SockSendThread(SockItem* s);       // kwSockSend.cpp
void SockRecvThread(SockItem* s);       // kwSockRecv.cpp
void SockRecvNodeThread(SockItem* s);   // kwSockNode.cpp
// Sends one queued datagram record of a SOCK_NODE slot: 0 or -7.
int32_t SendNode_Net(SockItem* s, KWRData* rec);

// Control records received on a stream slot (kwSockCtl.cpp); rec is a
// checked TestTyp2 image.
void HandleControl(SockItem* s, int fd, const KWRData* rec);
// Control record layout tests for the send thread: Type 4 or 5 with enough
// Data bytes to stamp.
int32_t TimeControlType(const KWRData* rec);
void StampTimeControl(SockItem* s, KWRData* rec, int32_t type);

// Socket options with the value types Linux requires.  The protocol speaks
// of 4-byte millisecond values; a struct timeval of that many ms is what
// makes SO_RCVTIMEO/SO_SNDTIMEO take effect here.
int SetTimeoutOpt(int fd, int option, uint32_t ms);
int SetIntOpt(int fd, int level, int option, int value);

}  // namespace kwz::sock
