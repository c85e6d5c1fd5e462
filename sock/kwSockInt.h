// Internal interface of the socket module kwSock: the module state, the slot
// of the socket table, the send-queue node and the functions that the module's
// files share.  Nothing here is exported.
//
// Threads.  Every stream slot (SOCK_SRV, SOCK_CLI) runs a receiving and a
// sending thread, a SOCK_LISTEN slot one listening thread, a SOCK_NODE slot a
// datagram receiving thread and the sending thread.  All are detached; the
// last of a slot's threads to end finalises the slot (CLEANUP_FIN).
//
// Locks.  ModCrit guards the table, every slot's plain (non-atomic) fields
// and every send queue; each slot has its own SendLock, held only around the
// send thread's condition wait and around the wake-up flag.  The fields they
// guard say so (GUARDED_BY), and functions that need ModCrit held say REQUIRES:
// clang checks both (-Wthread-safety, see kwSockLock.h).
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
#include <vector>

#include "base/kwLog.h"
#include "base/kwTime.h"
#include "rec/kwRecCore.h"
#include "sock/kwSockLock.h"

namespace kwz::sock {

// Log tags: "Kwz.kwSock.<function>".
#define KWSOCK_TAG(fn) "Kwz.kwSock." fn

// The transport's log lines.  A log sink that throws cannot break the
// transport's bookkeeping: what it throws is dropped here.
void SockLog(int32_t level, const char* tag, const char* text) noexcept;
void SockLogF(int32_t level, const char* tag, const char* format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

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
constexpr int32_t kReasonSendFail = -7;  // a send failed (or stalled)

constexpr uint32_t kPrioTop = 0xFFFFFFFFu;  // control records go first
constexpr uint32_t kFramePrefix = 4;        // int16 type id, int16 reserved
constexpr uint32_t kFrameHead = 10;         // prefix + image length, flags, count
constexpr uint32_t kRecvBlock = 65536;      // receiving thread's block
constexpr uint32_t kBatchRecords = 8;       // records per batch at most
constexpr uint32_t kBatchBytes = 65535;     // a batch ends after exceeding this
constexpr uint32_t kSockRecvTimeout = 5000; // SO_RCVTIMEO of stream sockets, ms
constexpr uint32_t kSockSendTimeout = 5000; // SO_SNDTIMEO of server connections when none is set
constexpr uint32_t kSrvRecvTimeout = 20000; // RecvTimeout of a new SOCK_SRV slot
constexpr uint32_t kCliSendTimeout = 5000;  // SendTimeout of a new SOCK_CLI slot
constexpr uint32_t kIdleWait = 5000;        // send thread's wait when SendTimeout is 0
constexpr int32_t kMaxDatagram = 65507;     // largest UDP payload over IPv4
constexpr int32_t kMaxSlots = 0x8000;       // idns keep a 15-bit index mask

// Time-out values a connection takes from its peer (control Types 2 and 3),
// clamped as KWSockSetSendTimeout clamps the caller's own: 1..1249 become
// 1250.  A server connection never takes "none" (0) nor more than ten
// minutes: a peer could otherwise hold a slot forever or make the server
// send a keep-alive every millisecond.
constexpr uint32_t kMinTimeout = 1250;
constexpr uint32_t kSrvMaxTimeout = 600000;

// A send that makes no progress: a blocking socket reports the elapse of its
// send time-out as EAGAIN.  After two such time-outs in a row (or, for
// interrupted sends, twice the time-out without progress, and at most
// kSendRetries retries in all) the peer is taken as gone: reason -7.
constexpr uint32_t kSendStallTimeouts = 2;
constexpr uint32_t kSendRetries = 1000;

// Error numbers that the protocol defines for its peers, compared as plain
// numbers where a Linux code is compared too: the interrupted call, the
// reset connection and the time-out.  No Linux errno has these values.
constexpr int kErrInterrupted = 10004;
constexpr int kErrConnReset = 10054;
constexpr int kErrTimedOut = 10060;

// The module mutex (ModCrit): guards the table, every slot's fields marked
// GUARDED_BY(ModCrit) and every send queue.  A namespace-scope object with a
// trivial destructor, so that detached threads still finishing at process
// exit find it alive.
extern Mutex ModCrit;

// One queued record.  The queue owns Rec until Callback has run (records
// without a callback stay the caller's: the host-identification and the
// keep-alive record).
//
// The queue is sorted by priority, highest first, and falls into runs of
// equal priority.  The first node of each run with a priority above 0 knows
// the run's last node (RunEnd), so an insert steps from run to run, never
// from record to record: its cost does not grow with the records waiting.
struct SockBuf {
    KWRData* Rec;
    SockEventFn Callback;  // may be null
    uint32_t Priority;     // 0 = ordinary
    SockBuf* Next;
    SockBuf* RunEnd;       // on a run's first node: the run's last node
};

// Time synchronisation state of a stream slot, guarded by ModCrit as a
// whole: an answer's difference and zone values are published together, so a
// reader never sees the seconds of one answer with the milliseconds of
// another.
struct SockTime {
    int32_t DltSec = 0;    // measured difference, whole seconds
    int32_t DltMs = 0;     // and milliseconds, same sign
    int32_t Zone1 = 0;     // the peer's zone values
    int32_t Zone2 = 0;
    int32_t SetZone1 = -1; // override set by KWSockTimeZoneSet, -1 = none
    int32_t SetZone2 = 0;
    bool Synced = false;
};

// One slot of the socket table.  Fields marked GUARDED_BY(ModCrit) are read
// and written with ModCrit held; the others are atomic or written only
// before the slot's threads start.
struct SockItem {
    uint8_t Type GUARDED_BY(ModCrit) = SOCK_FREE;  // SockType
    uint32_t Idn GUARDED_BY(ModCrit) = 0;          // index | generation << 16
    std::atomic<void*> Event{nullptr};       // SockEventFn, or SockNodeEventFn for SOCK_NODE
    std::atomic<uint32_t> Flags{0};
    std::atomic<void*> Dat{nullptr};
    std::atomic<uint32_t> RecvTick{0};       // GetTickCount of the last receive (see SockTick)
    std::atomic<uint32_t> SendTick{0};       // GetTickCount of the last transmission
    std::atomic<uint32_t> RecvMs{0};         // SockMs of the last receive: for time-outs
    std::atomic<uint32_t> SendMs{0};         // SockMs of the last transmission: for keep-alive
    std::atomic<uint32_t> RecvTimeout{0};
    std::atomic<uint32_t> SendTimeout{0};
    std::atomic<uint32_t> SendStall{0};      // the socket's SO_SNDTIMEO in ms, 0 = none
    std::atomic<int32_t> LastError{0};
    Mutex SendLock;
    std::condition_variable SendCond;
    bool SendWake GUARDED_BY(SendLock) = false;
    std::atomic<bool> SendIdle{false};       // the send thread found the queue empty and may wait
    SockBuf* Head GUARDED_BY(ModCrit) = nullptr;  // send queue
    SockBuf* Tail GUARDED_BY(ModCrit) = nullptr;
    uint32_t BufNum GUARDED_BY(ModCrit) = 0;      // records queued
    uint64_t BufSize GUARDED_BY(ModCrit) = 0;     // image bytes queued
    uint64_t SendLimit GUARDED_BY(ModCrit) = 0;   // KWSockSetSendLimit, 0 = none
    // The transport's own answers still waiting in the queue: a newer request
    // of the peer updates them instead of queueing another (one time answer
    // and one time-out answer per connection at most).
    KWRData* QueuedTimeAnswer GUARDED_BY(ModCrit) = nullptr;
    KWRData* QueuedTimeoutAnswer GUARDED_BY(ModCrit) = nullptr;
    uint32_t Port = 0;                       // host order
    std::atomic<int> Socket{-1};             // -1 once closing
    int OwnedFd GUARDED_BY(ModCrit) = -1;    // closed by CLEANUP_FIN
    std::atomic<int32_t> ThreadNum{0};
    char* HostName GUARDED_BY(ModCrit) = nullptr;  // owned text
    char* HostAddr GUARDED_BY(ModCrit) = nullptr;  // owned text
    std::atomic<uint64_t> RecvBytes{0};
    std::atomic<uint64_t> SendBytes{0};
    SockTime Time GUARDED_BY(ModCrit);
    std::atomic<uint32_t> RecvLimit{0};      // largest image accepted, 0 = any
    uint32_t OwnAddr = 0;                    // SOCK_NODE: the own host's address (network order)

    // Idn and Type change only in SockGetFreeIdx, before the slot's threads
    // start, and in the last step of CLEANUP_FIN, after they have all ended:
    // the slot's own threads and its open function read them without ModCrit.
    uint32_t OwnIdn() const NO_THREAD_SAFETY_ANALYSIS { return Idn; }
    uint8_t OwnType() const NO_THREAD_SAFETY_ANALYSIS { return Type; }

    bool Closing() const { return (Flags.load() & kFlagClosing) != 0; }
    bool IsStream() const { return OwnType() == SOCK_SRV || OwnType() == SOCK_CLI; }
    SockEventFn StreamEvent() const { return reinterpret_cast<SockEventFn>(Event.load()); }
    SockNodeEventFn NodeEvent() const { return reinterpret_cast<SockNodeEventFn>(Event.load()); }
};

// Sets a flag bit of a slot for its scope: around every callback and every
// send or receive, so that the bit is cleared however the call ends.
class FlagScope {
public:
    FlagScope(SockItem* s, uint32_t bit) : s_(s), bit_(bit) { s_->Flags.fetch_or(bit_); }
    ~FlagScope() { s_->Flags.fetch_and(~bit_); }
    FlagScope(const FlagScope&) = delete;
    FlagScope& operator=(const FlagScope&) = delete;

private:
    SockItem* s_;
    uint32_t bit_;
};

// The module's state, one per process.  Never destroyed: detached socket
// threads may still be on their way out when the process exits.
struct Module {
    std::atomic<bool> FirstInit{false};
    std::atomic<bool> ModActive{false};
    std::vector<std::unique_ptr<SockItem>> SockArr GUARDED_BY(ModCrit);
    int32_t SockNum GUARDED_BY(ModCrit) = 0;
    std::atomic<int32_t> SockUse{0};
    std::atomic<int32_t> ThreadNum{0};
    char HostName[256] = {};
    KWRType NodeTyp{};   // "NodeData|3": Port I4, Addr CB, Data CB
    KWRType TestTyp2{};  // "TestTyp2|2": Type I4, Data CB (control records)
    KWRData HostRec{};   // control record Type 1 carrying HostName
    KWRData KeepAlive{}; // type id 0, no fields: a 6-byte image
    SockBuf* FreeBufs GUARDED_BY(ModCrit) = nullptr;  // spare queue nodes
    uint32_t FreeBufNum GUARDED_BY(ModCrit) = 0;
};

Module& Mod();

// Callbacks are kept as untyped pointers; the slot's Type says which kind.
inline void* FnPtr(SockEventFn f) { return reinterpret_cast<void*>(f); }
inline void* FnPtr(SockNodeEventFn f) { return reinterpret_cast<void*>(f); }

// Each slot keeps two clocks.  RecvTick, SendTick and the time request's
// stamp are the library's 32-bit tick, GetTickCount: callers read the first
// two through KWSockGetState and peers echo the stamp.  That tick adds
// microseconds to the second count, so its differences are no durations (4 ms
// steps of the coarse clock, a jump back at every second).  Time-outs must
// measure idle time, so the time-out and keep-alive decisions use
// RecvMs/SendMs, the low 32 bits of the steady clock's milliseconds, taken at
// the same moments.  The time synchronisation measures its round trip with
// the tick itself, as peers expect.
inline uint32_t SockTick() { return static_cast<uint32_t>(kwz::CoarseTicks()); }
inline uint32_t SockMs() { return static_cast<uint32_t>(kwz::SteadyMs()); }
inline void MarkRecv(SockItem* s) {
    s->RecvMs = SockMs();
    s->RecvTick = SockTick();
}
inline void MarkSend(SockItem* s) {
    s->SendMs = SockMs();
    s->SendTick = SockTick();
}

// Slot lookup: the slot named by idn (15-bit index mask, exact Idn match),
// or null.  allocated: also require Type != SOCK_FREE.
SockItem* FindSlot(uint32_t idn, bool allocated) REQUIRES(ModCrit);
// FindSlot for the API functions: logs "SE_NOINIT" (level 3) without a table
// and "SE_NOSOCK (idn=%d)" -- or "SE_NOSOCK (%d)" when withIdnText is false --
// (level 2) for an unknown idn, or, with streamOnly, for a slot that is not
// SOCK_SRV/SOCK_CLI; null then.
SockItem* FindSlotLogged(uint32_t idn, bool allocated, const char* tag, bool withIdnText = true,
                         bool streamOnly = false) REQUIRES(ModCrit);
// The slot of an open function: SockGetFreeIdx, then the caller's callback
// and port; logs "There are no available sockets" at the given level and
// returns null when the table is full.
SockItem* AllocOpenSlot(uint8_t type, void* event, uint32_t port, const char* tag, int32_t level)
    REQUIRES(ModCrit);
// Allocates the first free slot with a new generation; null when the module
// is not active or the table is full.
SockItem* SockGetFreeIdx(uint8_t type) REQUIRES(ModCrit);
void ModDataClear() REQUIRES(ModCrit);

// Closing (kwSockClose.cpp).  CLEANUP_SET marks the slot closing with the
// reason (nothing when it already is); CLEANUP_SET_Locked is the same with
// ModCrit already held.  CLEANUP_FIN never throws.
void CLEANUP_SET(SockItem* s, int32_t reason) EXCLUDES(ModCrit);
void CLEANUP_SET_Locked(SockItem* s, int32_t reason) REQUIRES(ModCrit);
void CLEANUP_FIN(SockItem* s) noexcept EXCLUDES(ModCrit);
// Gives the slot its descriptor; a slot that is already closing gets it shut
// down at once.
void AttachSocket(SockItem* s, int fd) EXCLUDES(ModCrit);
// The slot's descriptor as its threads use it (set before they start).
int OwnedSocket(SockItem* s) EXCLUDES(ModCrit);
// Copies of the slot's texts for log lines ("" when absent).
struct PeerTexts {
    char Addr[64];
    char Name[128];
};
PeerTexts PeerTextsOf(SockItem* s) EXCLUDES(ModCrit);

// Thread start-up (kwSockOpen.cpp): threads are counted (module and slot)
// before they start; a thread that cannot be started closes the slot with
// reason -1 and is finalised in its place.  RunThread is every thread's
// frame: it runs the body, catches whatever the body lets out (logged under
// tag, the slot closed with reason 3), finalises and uncounts the thread.
void StartStreamThreads(SockItem* s);
void StartThread(SockItem* s, void (*body)(SockItem*), const char* tag);
void RunThread(SockItem* s, void (*body)(SockItem*), const char* tag) noexcept;
// "Catch (...)" text of an exception caught by a thread: what() of a
// standard exception, else a fixed text.  Call inside a catch block only.
const char* CaughtText() noexcept;

// Queue (kwSockQueue.cpp).  SockBufAdd gives 1 when queued, 0 when refused;
// it throws DataCorrupt for a record whose guard byte is set.
int SockBufAdd(SockItem* s, KWRData* rec, SockEventFn callback, uint32_t priority) REQUIRES(ModCrit);
// Takes the head node off the queue (which must not be empty).
SockBuf* SockBufTake(SockItem* s) REQUIRES(ModCrit);
// Puts a node back at the head, where it came from.
void SockBufReturn(SockItem* s, SockBuf* node) REQUIRES(ModCrit);
// Detaches the whole queue (CLEANUP_FIN): its first node, with the count and
// the bytes it holds.
SockBuf* SockBufDetach(SockItem* s, uint32_t* count, uint64_t* bytes) REQUIRES(ModCrit);
// Wakes the send thread: only when it is idle, or always with force
// (closing).
void WakeSender(SockItem* s, bool force = false) REQUIRES(ModCrit);
// Spare queue nodes: a chain of used nodes goes back to the module's pool (or
// is freed when the pool is full); FreeBufPool empties it.
void RecycleBufs(SockBuf* chain) REQUIRES(ModCrit);
void FreeBufPool() REQUIRES(ModCrit);
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
int32_t SendDatagram(SockItem* s, KWRData* rec);

// Control records received on a stream slot (kwSockCtl.cpp); rec is a
// checked TestTyp2 image.
void HandleControl(SockItem* s, int fd, const KWRData* rec) EXCLUDES(ModCrit);
// Control record layout tests for the send thread: Type 4 or 5 with enough
// Data bytes to stamp.
int32_t TimeControlType(const KWRData* rec);
void StampTimeControl(SockItem* s, KWRData* rec, int32_t type) REQUIRES(ModCrit);
// The Data bytes of a TestTyp2-shaped image, or null when the image does not
// have that shape or the text is shorter than need.
uint8_t* ControlData(const KWRData* rec, uint32_t need);

// Sets the socket's send time-out (SO_SNDTIMEO) and remembers it for the
// stall rule of the send thread.  A server connection always keeps one: 0
// gives it the default of 5000 ms; a client's 0 means none.
void ApplySendTimeout(SockItem* s, int fd, uint32_t ms);
// A time-out value received from the peer, clamped (see kMinTimeout).
uint32_t ClampPeerTimeout(SockItem* s, uint32_t ms);

// Socket options with the value types Linux requires.  The protocol speaks
// of 4-byte millisecond values; a struct timeval of that many ms is what
// makes SO_RCVTIMEO/SO_SNDTIMEO take effect here.
int SetTimeoutOpt(int fd, int option, uint32_t ms);
int SetIntOpt(int fd, int level, int option, int value);

}  // namespace kwz::sock
