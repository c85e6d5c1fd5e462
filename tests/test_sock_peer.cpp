// Two processes exchange records both ways: the helper process listens,
// greets, echoes and reports; this process connects, sends and checks.
#include <algorithm>
#include <set>

#include "sock_test_util.h"

using namespace socktest;

namespace {

TEST(sock_peer, TwoProcessesExchangeRecordsBothWays) {
    Recorder::Get().Reset();
    Child peer({HelperPath(), "server"});
    ASSERT_TRUE(peer.Started());
    const std::string first = peer.ReadLine();
    ASSERT_EQ(first.rfind("PORT ", 0), 0u) << first;
    const uint32_t port = static_cast<uint32_t>(std::stoul(first.substr(5)));

    ASSERT_EQ(KWSockInit(4), 0);
    MsgType msg;
    uint32_t cli = 0;
    ASSERT_EQ(KWSockCliOpen("127.0.0.1", port, RecordEvent, &cli), 0);
    // The record of each seq (and its echo, the text reversed, seq + 1000).
    const auto Text = [](int32_t seq) { return "record " + std::to_string(seq) + std::string(seq * 37u, 'z'); };
    constexpr int kCount = 40;
    for (int32_t seq = 1; seq <= kCount; ++seq)
        ASSERT_EQ(KWSockSendEx(cli, msg.New(seq, Text(seq)), RecordCompletion, static_cast<uint32_t>(seq % 4)), 0);
    auto data = Recorder::Get().WaitCode(SOCK_EV_DATA, cli, kCount + 5, 10000);
    ASSERT_EQ(data.size(), static_cast<size_t>(kCount + 5));
    // Five greetings (500 to 504) and an echo of each record.
    std::set<int32_t> seqs, expected{500, 501, 502, 503, 504};
    for (int32_t seq = 1; seq <= kCount; ++seq) expected.insert(1000 + seq);
    for (const auto& e : data) {
        const int32_t seq = msg.Seq(e.image);
        std::string text = seq >= 1000 ? Text(seq - 1000) : "greeting";
        if (seq >= 1000) std::reverse(text.begin(), text.end());
        EXPECT_EQ(e.typeId, MsgType::kId);
        EXPECT_EQ(e.image, msg.Image(seq, text)) << seq;
        seqs.insert(seq);
    }
    EXPECT_EQ(seqs, expected);
    EXPECT_EQ(Recorder::Get().WaitCode(kCompletion + 0, cli, kCount).size(), static_cast<size_t>(kCount));

    EXPECT_EQ(KWSockClose(cli), 0);
    EXPECT_EQ(peer.ReadLine(), "DONE recv=" + std::to_string(kCount));
    EXPECT_EQ(peer.Wait(), 0);
    EXPECT_TRUE(ShutdownModule());
}

}  // namespace
