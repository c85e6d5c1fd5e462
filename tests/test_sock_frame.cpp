// Frames on the wire, checked byte for byte against a raw socket peer: the
// host identification, golden frames, priorities and batches, keep-alives,
// time-out negotiation, corrupt heads, the receive limit, control records
// and completion results.  Then time synchronisation between the two ends of
// a connection on one host: the measured difference, the synchronised
// flags, the zone values and their override, and the stamping of the request
// when it is sent.
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "kwz_test_util.h"
#include "sock_test_util.h"

using namespace socktest;
using kwztest::LogCapture;

namespace {

// Records the queue length seen from inside a completion (code 300 + BufNum).
extern "C" void CountingCompletion(int32_t, uint32_t idn, KWRData* rec) {
    Recorder::Get().Add(FromRecord(300 + static_cast<int32_t>(StateOf(idn).bufNum), idn, rec));
    KWRRecRelease(rec);
}

// The Data bytes of a time answer (control Type 5).
struct TimeAnswer {
    uint32_t tick, unused;  // the request's tick, echoed
    KWTimeStamp stamp;      // the answering side's UTC time and zone values
};
static_assert(sizeof(TimeAnswer) == 24, "a time answer carries 24 bytes");

std::string Golden(const char* name) {
    std::ifstream in(std::string(KWZ_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class sock_frame : public RawPeerFixture<16> {
protected:
    MsgType msg_;
};

TEST_F(sock_frame, TheClientIdentifiesItselfFirstAndFramesMatchTheGoldenBytes) {
    uint32_t cli = 0;
    const int raw = ClientToRaw(&cli);

    KWRData* rec = msg_.New(7, "hello");
    rec->editSource = reinterpret_cast<KWRData*>(static_cast<uintptr_t>(0xABCD1234));  // low 16 bits travel
    ASSERT_EQ(KWSockSendEx(cli, rec, RecordCompletion, 0), 0);
    EXPECT_EQ(ReadFrame(raw), Golden("sock_frame_msg.bin"));

    EXPECT_EQ(KWSockSetSendTimeout(cli, 2000), 1);
    EXPECT_EQ(ReadFrame(raw), Golden("sock_frame_timeout.bin"));

    // Counted with their 4-byte prefixes.
    const uint64_t sent = ControlFrame(1, HostName()).size() + 30 + 29;
    EXPECT_TRUE(WaitUntil([&] { return StateOf(cli).sendBytes == sent; }));
    // The ticks are GetTickCount values: within a second's jump of it.
    const SockState st = StateOf(cli);
    for (uint32_t tick : {st.sendTick, st.recvTick}) {
        const auto age = static_cast<int32_t>(GetTickCount() - tick);
        EXPECT_TRUE(age > -1010000 && age < 1010000) << age;
    }
}

// Each row: the priorities of records queued in that order while the
// sending thread is held; they must leave as a stable sort, highest first.
TEST_F(sock_frame, PrioritiesLeaveHighestFirstAndEqualOnesInOrder) {
    std::vector<uint32_t> mixed;
    uint32_t x = 12345;
    const uint32_t choices[] = {0, 1, 5, 7, 9, 0xFFFFFFFFu};
    for (int i = 0; i < 60; ++i) {
        x = x * 1103515245u + 12345u;
        mixed.push_back(choices[(x >> 16) % 6]);
    }
    const std::vector<std::vector<uint32_t>> rows = {
        {0, 5, 5, 9, 5},           // the third 5 walks past two equal ones
        {7, 0, 7, 0, 9, 1, 9, 7},  // runs that grow at their ends
        {0xFFFFFFFFu, 3, 0xFFFFFFFFu, 0, 3},
        mixed,
    };
    for (const auto& priorities : rows) {
        uint32_t cli = 0;
        const int raw = ClientToRaw(&cli);
        GateOpen() = false;
        ASSERT_TRUE(HoldSender(cli, msg_));
        ASSERT_FALSE(ReadFrame(raw).empty());
        std::vector<std::pair<uint32_t, int32_t>> expected;
        for (size_t i = 0; i < priorities.size(); ++i) {
            const auto seq = static_cast<int32_t>(10 + i);
            ASSERT_EQ(KWSockSendEx(cli, msg_.New(seq), ReleaseCompletion, priorities[i]), 0);
            expected.emplace_back(priorities[i], seq);
        }
        EXPECT_EQ(StateOf(cli).bufNum, priorities.size());
        std::stable_sort(expected.begin(), expected.end(),
                         [](const auto& a, const auto& b) { return a.first > b.first; });
        GateOpen() = true;
        std::vector<int32_t> order, want;
        for (const auto& e : expected) {
            want.push_back(e.second);
            order.push_back(msg_.Seq(ReadFrame(raw).substr(4)));
        }
        EXPECT_EQ(order, want) << priorities.size() << " records";
        KWSockClose(cli);
    }
}

TEST_F(sock_frame, NineRecordsLeaveInTwoBatches) {
    uint32_t cli = 0;
    const int raw = ClientToRaw(&cli);
    ASSERT_TRUE(HoldSender(cli, msg_));
    for (int32_t seq = 20; seq < 29; ++seq) ASSERT_EQ(KWSockSendEx(cli, msg_.New(seq), CountingCompletion, 0), 0);
    GateOpen() = true;
    for (int i = 0; i < 10; ++i) ASSERT_FALSE(ReadFrame(raw).empty());
    // While the first batch completes, the ninth record is still queued.
    auto done = Recorder::Get().WaitMatching([](const Event& e) { return e.code >= 300; }, 9);
    ASSERT_EQ(done.size(), 9u);
    for (const auto& e : done) EXPECT_EQ(e.code, msg_.Seq(e.image) < 28 ? 301 : 300) << msg_.Seq(e.image);
}

TEST_F(sock_frame, AnIdleConnectionSendsKeepAlivesThatThePeerDrops) {
    uint32_t cli = 0;
    const int raw = ClientToRaw(&cli);
    // 100 ms is raised to 1250; the peer is told 5000.
    EXPECT_EQ(KWSockSetSendTimeout(cli, 100), 1);
    EXPECT_EQ(ReadFrame(raw), ControlFrame(2, U32Bytes(5000)));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ReadFrame(raw, 4000), Golden("sock_frame_keepalive.bin"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1000ms);

    // The receiving side reads keep-alives without an event (the first event
    // is the record that follows) but counts their bytes.
    uint32_t srv = 0;
    const int peer = RawToServer(&srv);
    const std::string image = msg_.Image(5, "after");
    ASSERT_TRUE(WriteAll(peer, KeepAliveFrame() + Frame(MsgType::kId, 0, image)));
    auto got = Recorder::Get().WaitCode(SOCK_EV_DATA, srv);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(msg_.Seq(got[0].image), 5);
    EXPECT_EQ(uint64_t{StateOf(srv).recvBytes}, 10u + 4 + image.size());  // a copy: the field is 4-aligned
}

TEST_F(sock_frame, TimeoutRequestsCarryTheNegotiatedValues) {
    uint32_t cli = 0;
    const int raw = ClientToRaw(&cli);
    // KWSockSetRecvTimeout asks the peer for a keep-alive interval (Type 3).
    const std::pair<uint32_t, uint32_t> recv[] = {{2000, 1250}, {1, 1250}, {4999, 1250}, {5000, 1250}, {20000, 5000}};
    for (const auto& [ms, asked] : recv) {
        EXPECT_EQ(KWSockSetRecvTimeout(cli, ms), 1);
        EXPECT_EQ(ReadFrame(raw), ControlFrame(3, U32Bytes(asked))) << ms;
        EXPECT_EQ(StateOf(cli).recvTimeout, 0u);  // changes only with the peer's answer
    }
    EXPECT_EQ(KWSockSetRecvTimeout(cli, 0), 1);  // already in force: nothing sent
    ASSERT_TRUE(WriteAll(raw, ControlFrame(2, U32Bytes(8000))));  // a peer's answer sets it
    EXPECT_TRUE(WaitUntil([&] { return StateOf(cli).recvTimeout == 8000; }));
    // KWSockSetSendTimeout tells the peer four times the interval (Type 2).
    const std::tuple<uint32_t, uint32_t, uint32_t> send[] = {{3000, 3000, 12000}, {1249, 1250, 5000}, {0, 0, 0}};
    for (const auto& [ms, kept, told] : send) {
        EXPECT_EQ(KWSockSetSendTimeout(cli, ms), 1);
        EXPECT_EQ(ReadFrame(raw), ControlFrame(2, U32Bytes(told))) << ms;
        EXPECT_EQ(StateOf(cli).sendTimeout, kept);
    }
    EXPECT_EQ(KWSockSetSendTimeout(cli, 0), 1);
    // The next frame is a record: nothing was sent for the unchanged values.
    ASSERT_EQ(KWSockSendEx(cli, msg_.New(3), RecordCompletion, 0), 0);
    EXPECT_EQ(msg_.Seq(ReadFrame(raw).substr(4)), 3);

    LogCapture log;
    EXPECT_EQ(KWSockSetRecvTimeout(0x7777, 10), 0);
    EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockSetRecvTimeout", "SE_NOSOCK (idn=30583)"));
}

// A raw peer drives the server's receive time-out down with a Type 2 record
// and then stays silent: the connection closes after logging the expiry.
// What the peer asks is clamped: 300 and 250 ms both become 1250.
TEST_F(sock_frame, AnIdleServerConnectionTimesOut) {
    uint32_t srv = 0;
    const int raw = RawToServer(&srv);
    LogCapture log;
    ASSERT_TRUE(WriteAll(raw, ControlFrame(3, U32Bytes(300))));
    EXPECT_EQ(ReadFrame(raw), ControlFrame(2, U32Bytes(5000)));  // the answer: 4 x 1250
    EXPECT_EQ(StateOf(srv).sendTimeout, 1250u);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(WriteAll(raw, ControlFrame(2, U32Bytes(250))));
    EXPECT_TRUE(WaitUntil([&] { return StateOf(srv).recvTimeout == 1250; }));
    EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_ABORT, srv, 1, 8000).size(), 1u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1250ms);
    EXPECT_TRUE(log.Has("Kwz.kwSock.Recv_All", "Expired the timeout for data reception"));
    EXPECT_TRUE(log.Has("Kwz.kwSock._SetRecvTimeout", "tnew=1250, told=20000"));
    EXPECT_TRUE(PeerClosed(raw));
}

// The receive limit is set on the listener and inherited by the accepted
// connection: a frame of exactly the limit passes, corrupt heads and longer
// ones abort.
TEST_F(sock_frame, CorruptHeadsAndOversizedFramesAbortTheConnection) {
    EXPECT_EQ(KWSockSetRecvLimit(0x7777, 1), SE_NOSOCK);
    const std::string fits = msg_.Image(1, std::string(19, 'a'));  // 20 + 20 = 40 bytes
    const std::pair<uint32_t, const char*> cases[] = {{0, "Sock abort. Data corrupt"}, {5, "Sock abort. Data corrupt"},
                                                      {41, "Sock abort. Record too long"},
                                                      {0xFFFFFFFFu, "Sock abort. Record too long"}};
    for (const auto& [length, text] : cases) {
        Recorder::Get().Reset();
        uint32_t srv = 0;
        const int raw = RawToServer(&srv, 40);
        LogCapture log;
        ASSERT_TRUE(WriteAll(raw, Frame(MsgType::kId, 0, fits)));
        EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_DATA, srv).size(), 1u);
        ASSERT_TRUE(WriteAll(raw, Frame(MsgType::kId, 0, U32Bytes(length) + std::string(2, '\0'))));
        EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_ABORT, srv).size(), 1u) << length;
        EXPECT_TRUE(log.Has("Kwz.kwSock.SockRecvThread", text)) << length;
        EXPECT_TRUE(PeerClosed(raw));
    }
}

// Type-0 records are the transport's own and never reach the caller, however
// malformed; the record after them arrives with its prefix words
// sign-extended.
TEST_F(sock_frame, ControlRecordsNeverReachTheCallerAndPrefixWordsArriveSignExtended) {
    uint32_t srv = 0;
    const int raw = RawToServer(&srv);
    char name[64] = "unchanged";
    const auto peerName = [&] { GetPeerHostName(srv, name, sizeof name); return std::string(name); };
    ASSERT_TRUE(WriteAll(raw, ControlFrame(1, "")));  // an empty name changes nothing
    ASSERT_TRUE(WriteAll(raw, ControlFrame(9, "ignored")));
    std::string bad = ControlImage(1, "evil");
    bad[6] = 0x0B;  // the Type slot claims to be a "CB": the image is not a TestTyp2 image
    ASSERT_TRUE(WriteAll(raw, Frame(0, 0, bad)));
    std::string three = ControlImage(1, "three");
    three[5] = 3;  // three fields: neither control nor keep-alive, dropped
    ASSERT_TRUE(WriteAll(raw, Frame(0, 0, three)));
    const std::string image = msg_.Image(9, "still open");
    ASSERT_TRUE(WriteAll(raw, Frame(0xFFFE, 0x8001, image)));
    auto got = Recorder::Get().WaitCode(SOCK_EV_DATA, srv);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].typeId, 0xFFFFFFFEu);
    EXPECT_EQ(got[0].reserved, -32767);
    EXPECT_EQ(got[0].image, image);
    EXPECT_EQ(peerName(), "");
    ASSERT_TRUE(WriteAll(raw, ControlFrame(1, "peer-x")));
    EXPECT_TRUE(WaitUntil([&] { return peerName() == "peer-x"; }));
    EXPECT_EQ(Recorder::Get().Count([](const Event& e) { return e.code == SOCK_EV_DATA; }), 1u);
}

// A time request is answered with the tick echoed and the answering side's
// UTC time and zone values (or the zone set on the slot).
TEST_F(sock_frame, ATimeRequestIsAnsweredWithTheStampedTime) {
    uint32_t srv = 0;
    const int raw = RawToServer(&srv);
    ASSERT_EQ(KWSockTimeZoneSet(srv, 180, 1), 1);
    ASSERT_TRUE(WriteAll(raw, ControlFrame(4, U32Bytes(0xCAFEF00D))));
    const std::string answer = ReadFrame(raw);
    ASSERT_EQ(answer.size(), 4u + 20 + 25);
    TimeAnswer a{};
    std::memcpy(&a, answer.data() + 4 + 20, sizeof a);
    EXPECT_EQ(a.tick, 0xCAFEF00Du);
    EXPECT_LE(std::llabs(a.stamp.seconds - CTimeNow()), 2);
    EXPECT_EQ(a.stamp.zoneMinutes, 180);
    EXPECT_EQ(a.stamp.daylight, 1);
}

// The request carries GetTickCount (the library's tick, seconds x 1000 plus
// microseconds), and the answer gives D - R / 2: here the peer's clock is an
// hour and 250 ms ahead and it echoes a tick 2,000 older than the one sent, so
// R counts 2,000 more and the difference comes out 1,000 below 3,600,250.
// The round trip itself adds a step of 4,000 when it crosses one of the coarse
// clock: a few exchanges give one that does not.
TEST_F(sock_frame, ATimeAnswerGivesDMinusHalfTheRoundTrip) {
    uint32_t cli = 0;
    const int raw = ClientToRaw(&cli);
    const int64_t best = SmallestError(
        [&](int i, int64_t* error) {
            const auto tag = static_cast<int16_t>(i + 1);
            AtTickStep();
            if (KWSockTimeSynchro(cli) != 1) return false;
            const std::string request = ReadFrame(raw);
            if (request.size() != 4u + 20 + 5) return false;
            const auto tick = static_cast<uint32_t>(MsgType::GetI32(request.substr(4 + 20, 4), 0));
            const auto age = static_cast<int32_t>(GetTickCount() - tick);
            EXPECT_TRUE(age > -1010000 && age < 1010000) << age;  // a GetTickCount value
            KWTimeStamp now{};
            CTimeUTC(&now);
            const int64_t ahead = now.seconds * 1000 + now.millis + 3600250;
            const TimeAnswer a{tick - 2000, 0, {ahead / 1000, static_cast<uint16_t>(ahead % 1000), tag, 0}};
            if (!WriteAll(raw, ControlFrame(5, std::string(reinterpret_cast<const char*>(&a), sizeof a)))) return false;
            if (!WaitUntil([&] { return SyncZone(cli).first == tag; })) return false;
            const auto [synced, d] = SyncDifference(cli);
            EXPECT_EQ(synced, 1);
            *error = d - 3599250;
            return true;
        },
        50);
    EXPECT_LE(std::llabs(best), 50);
}

TEST_F(sock_frame, RecordsStillQueuedAtCloseComeBackDropped) {
    uint32_t cli = 0;
    ClientToRaw(&cli);
    ASSERT_TRUE(HoldSender(cli, msg_));
    for (int32_t seq = 2; seq <= 4; ++seq) ASSERT_EQ(KWSockSendEx(cli, msg_.New(seq), RecordCompletion, 0), 0);
    EXPECT_EQ(KWSockClose(cli), 0);
    GateOpen() = true;
    auto dropped = Recorder::Get().WaitCode(kCompletion + SOCK_EV_DROPPED, cli, 3);
    ASSERT_EQ(dropped.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(msg_.Seq(dropped[i].image), i + 2);
    EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_CLOSE, cli).size(), 1u);
    EXPECT_EQ(Recorder::Get().WaitCode(kCompletion + 0, cli).size(), 1u);  // the first one was sent
}

// A peer that resets the connection: the client aborts, and every record it
// was given comes back to its completion, sent (0), failed (-7) or dropped (-6).
TEST_F(sock_frame, APeerResetAbortsAndEveryRecordComesBack) {
    uint32_t cli = 0;
    const int raw = ClientToRaw(&cli);
    const linger reset{1, 0};
    setsockopt(raw, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    const int small = 65536;
    setsockopt(raw, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    constexpr int kCount = 200;  // 12 MB: more than the client's send buffer can hold
    for (int32_t seq = 0; seq < kCount; ++seq)
        ASSERT_EQ(KWSockSendEx(cli, msg_.New(seq, std::string(60000, 'r')), RecordCompletion, 0), 0);
    close(raw);  // linger 0: a reset, not an orderly end
    fds_.pop_back();
    EXPECT_EQ(Recorder::Get().WaitCode(SOCK_EV_ABORT, cli).size(), 1u);
    auto done = Recorder::Get().WaitMatching([](const Event& e) { return e.code >= 90; }, kCount);
    ASSERT_EQ(done.size(), static_cast<size_t>(kCount));
    for (const auto& e : done)
        EXPECT_TRUE(e.code == kCompletion || e.code == kCompletion + SOCK_EV_NOSEND ||
                    e.code == kCompletion + SOCK_EV_DROPPED) << e.code;
    // More than the socket buffers hold was queued: some records never left.
    EXPECT_GT(Recorder::Get().Count([](const Event& e) { return e.code < kCompletion && e.code >= 90; }), 0u);
}

TEST_F(sock_frame, SendRefusals) {
    uint32_t cli = 0, lst = 0;
    ClientToRaw(&cli);
    ASSERT_EQ(KWSockSrvOpen(0, RecordEvent, &lst), 0);
    KWRData* rec = msg_.New(1);
    LogCapture log;
    rec->guard = 1;
    try {
        KWSockSendEx(cli, rec, nullptr, 0);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "KWSockSendEx RE_DATACORRUPT");
    }
    rec->guard = 0;
    EXPECT_THROW(KWSockSendEx(cli, nullptr, nullptr, 0), std::runtime_error);
    EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockSendEx", "REC DATA CORRUPT"));
    EXPECT_EQ(KWSockSendEx(0x7777, rec, nullptr, 0), SE_NOSOCK);
    EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockSendEx", "SE_NOSOCK (30583)"));
    EXPECT_EQ(KWSockSendEx(lst, rec, nullptr, 0), SE_DATANOSEND);
    EXPECT_TRUE(log.Has("Kwz.kwSock.SockBufAdd", "type=0x1"));
    EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockSendEx", "no SockBufAdd"));
    KWRSetAsText(&msg_.type()->fields[1], rec, 40, nullptr);  // the text leaves the image
    EXPECT_EQ(rec->state, 255);
    EXPECT_EQ(KWSockSendEx(cli, rec, nullptr, 0), SE_DATANOSEND);
    KWRRecRelease(rec);
}

// ---- time synchronisation ----------------------------------------------------

class sock_time : public SockFixture<8> {
protected:
    void SetUp() override {
        SockFixture::SetUp();
        ASSERT_EQ(KWSockSrvOpen(0, RecordEvent, &lst_), 0);
        ASSERT_EQ(KWSockCliOpen("127.0.0.1", ListenPort(lst_), RecordEvent, &cli_), 0);
        srv_ = AcceptedIdn();
        ASSERT_NE(srv_, 0u);
    }
    bool Synced(uint32_t idn) { return WaitUntil([&] { return SyncDifference(idn).first == 1; }); }
    // The round trip is measured with GetTickCount, which moves in steps of
    // 4,000 (4 ms or more of the coarse clock) and jumps back at every
    // second: a sync whose round trip crosses a step is 2 s off, one across a
    // second wildly off.  Each sync starts just after a step (AtTickStep) and
    // is told apart from the one before by a zone value that the peer is
    // made to send; the smallest difference of a few syncs must come out
    // small.  With `held`, the request waits 300 ms in the requester's queue.
    int64_t CleanDifference(uint32_t idn, uint32_t peer, bool held = false) {
        MsgType msg;
        const int64_t best = SmallestError(
            [&](int i, int64_t* error) {
                const int32_t tag = i + 1;
                EXPECT_EQ(KWSockTimeZoneSet(peer, tag, 0), 1);
                GateOpen() = false;
                if (held && !HoldSender(idn, msg)) return false;
                if (!held) AtTickStep();
                if (KWSockTimeSynchro(idn) != 1) return false;
                if (held) {
                    std::this_thread::sleep_for(300ms);
                    AtTickStep();
                    GateOpen() = true;
                }
                if (!WaitUntil([&] { return SyncZone(idn).first == tag; })) return false;
                *error = SyncDifference(idn).second;
                return true;
            },
            50);
        EXPECT_EQ(KWSockTimeZoneSet(peer, -1, 0), 1);
        return best;
    }
    uint32_t lst_ = 0, cli_ = 0, srv_ = 0;
};

TEST_F(sock_time, BothEndsMeasureASmallDifference) {
    EXPECT_EQ(SyncDifference(cli_), std::make_pair(0, 0));  // nothing before an answer
    uint32_t s = 7, ms = 7, z = 7;
    EXPECT_EQ(KWSockTimeDltAbo(cli_, &s, &ms, &z), 0);
    EXPECT_EQ(std::make_tuple(s, ms, z), std::make_tuple(0u, 0u, 0u));
    EXPECT_EQ(SyncZone(cli_).first, -99);

    ASSERT_EQ(KWSockTimeSynchro(cli_), 1);
    ASSERT_TRUE(Synced(cli_));
    KWTimeStamp local{};
    CTimeUTC(&local);
    EXPECT_EQ(SyncZone(cli_), std::make_pair(int32_t{local.zoneMinutes}, int32_t{local.daylight}));
    EXPECT_EQ(KWSockTimeDltAbo(cli_, &s, &ms, &z), 1);
    EXPECT_EQ(static_cast<int32_t>(s) * 1000 + static_cast<int32_t>(ms), SyncDifference(cli_).second);
    EXPECT_EQ(static_cast<int32_t>(z), int32_t{local.zoneMinutes});

    // A request clears the flag of the answering side only.  The answering
    // side clears it just after queueing the answer, so the requester may
    // see the answer first: the check waits (bounded) for the flag to drop.
    const auto Unsynced = [](uint32_t idn) { return WaitUntil([&] { return SyncDifference(idn).first == 0; }); };
    ASSERT_EQ(KWSockTimeSynchro(srv_), 1);
    ASSERT_TRUE(Synced(srv_));
    EXPECT_TRUE(Unsynced(cli_));
    ASSERT_EQ(KWSockTimeSynchro(cli_), 1);
    ASSERT_TRUE(Synced(cli_));
    EXPECT_TRUE(Unsynced(srv_));

    // Both clocks are the same one: the difference is D - R / 2 of a few ms.
    EXPECT_LE(std::llabs(CleanDifference(cli_, srv_)), 50);
    EXPECT_LE(std::llabs(CleanDifference(srv_, cli_)), 50);
}

// The request's tick is stamped as it leaves, not as it is queued: a request
// held in the queue for 300 ms still measures a short round trip (stamped at
// the queue, it would be 300,000 ticks long and the difference 150 s off).
TEST_F(sock_time, TheRequestIsStampedWhenSent) {
    EXPECT_LE(std::llabs(CleanDifference(cli_, srv_, true)), 50);
}

TEST_F(sock_time, ZoneValuesCanBeOverriddenOnEitherSide) {
    // Set on the answering side: the answers carry it.
    ASSERT_EQ(KWSockTimeZoneSet(srv_, 120, 1), 1);
    ASSERT_EQ(KWSockTimeSynchro(cli_), 1);
    ASSERT_TRUE(Synced(cli_));
    EXPECT_EQ(SyncZone(cli_), std::make_pair(120, 1));
    // Set on the reading side: shown instead of the peer's, until removed.
    ASSERT_EQ(KWSockTimeZoneSet(cli_, 3, 0), 1);
    EXPECT_EQ(SyncZone(cli_), std::make_pair(3, 0));
    uint32_t s = 0, ms = 0, z = 0;
    EXPECT_EQ(KWSockTimeDltAbo(cli_, &s, &ms, &z), 1);
    EXPECT_EQ(z, 3u);
    ASSERT_EQ(KWSockTimeZoneSet(cli_, -1, 0), 1);
    EXPECT_EQ(SyncZone(cli_), std::make_pair(120, 1));
    // Removing the answering side's override: its own zone again.
    ASSERT_EQ(KWSockTimeZoneSet(srv_, -1, 0), 1);
    ASSERT_EQ(KWSockTimeSynchro(cli_), 1);
    KWTimeStamp local{};
    CTimeUTC(&local);
    EXPECT_TRUE(WaitUntil([&] {
        return SyncZone(cli_) == std::make_pair(int32_t{local.zoneMinutes}, int32_t{local.daylight});
    }));
}

TEST_F(sock_time, OnlyStreamConnectionsSynchronise) {
    uint32_t node = 0;
    ASSERT_EQ(KWSockNodeOpen(0, nullptr, &node), 0);
    LogCapture log;
    for (uint32_t idn : {lst_, node, 0x7777u}) {
        EXPECT_EQ(KWSockTimeSynchro(idn), 0);
        EXPECT_EQ(KWSockTimeZoneSet(idn, 1, 1), 0);
        EXPECT_EQ(SyncDifference(idn).first, 0);
        EXPECT_TRUE(log.Has("Kwz.kwSock.KWSockTimeSynchro", "SE_NOSOCK (idn=" + std::to_string(idn) + ")"));
    }
}

}  // namespace
