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
    constexpr int kCount = 40;
    for (int32_t seq = 1; seq <= kCount; ++seq) {
        const std::string text = "record " + std::to_string(seq) + std::string(static_cast<size_t>(seq * 37), 'z');
        ASSERT_EQ(KWSockSendEx(cli, msg.New(seq, text), RecordCompletion, static_cast<uint32_t>(seq % 4)), 0);
    }
    auto data = Recorder::Get().WaitCode(SOCK_EV_DATA, cli, kCount + 5, 10000);
    ASSERT_EQ(data.size(), static_cast<size_t>(kCount + 5));
    std::set<int32_t> greetings, echoes;
    for (const auto& e : data) {
        EXPECT_EQ(e.typeId, MsgType::kId);
        const int32_t seq = msg.Seq(e.image);
        if (seq >= 1000) {
            echoes.insert(seq - 1000);
            std::string text = msg.Text(e.image);
            std::reverse(text.begin(), text.end());
            EXPECT_EQ(text.rfind("record " + std::to_string(seq - 1000), 0), 0u);
        } else {
            greetings.insert(seq);
            EXPECT_EQ(msg.Text(e.image), "greeting");
        }
    }
    EXPECT_EQ(greetings, (std::set<int32_t>{500, 501, 502, 503, 504}));
    EXPECT_EQ(echoes.size(), static_cast<size_t>(kCount));
    EXPECT_EQ(Recorder::Get().WaitCode(kCompletion + 0, cli, kCount).size(), static_cast<size_t>(kCount));

    EXPECT_EQ(KWSockClose(cli), 0);
    EXPECT_EQ(peer.ReadLine(), "DONE recv=" + std::to_string(kCount));
    EXPECT_EQ(peer.Wait(), 0);
    EXPECT_TRUE(ShutdownModule());
}

}  // namespace
