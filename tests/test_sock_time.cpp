// Time synchronisation between the two ends of a connection on one host:
// the measured difference, the synchronised flags, the zone values and their
// override, and the stamping of the request when it is sent.
#include <tuple>

#include "kwz_test_util.h"
#include "sock_test_util.h"

using namespace socktest;
using kwztest::LogCapture;

namespace {

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
