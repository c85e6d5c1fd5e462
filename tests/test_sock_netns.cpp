// Broadcast and multicast between two hosts: two network namespaces joined
// by a veth pair, made and removed by the test, with helper_sock_peer
// receiving in one and sending from the other.  Skipped where the kernel (or
// the lack of privileges) refuses network namespaces.
#include <unistd.h>

#include "sock_test_util.h"

using namespace socktest;

namespace {

std::string IpTool() {
    for (const char* p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
        if (access(p, X_OK) == 0) return p;
    return {};
}

// Runs `ip args...`; true when it exits with 0.
bool Ip(const std::vector<std::string>& args) {
    std::vector<std::string> argv{IpTool()};
    argv.insert(argv.end(), args.begin(), args.end());
    Child c(argv);
    return c.Started() && c.Wait(10000) == 0;
}

// Namespaces "<tag>a" and "<tag>b", addresses <net>.1 and <net>.2.
class TwoHosts {
public:
    TwoHosts() {
        const std::string tag = "kwz" + std::to_string(getpid());
        a_ = tag + "a";
        b_ = tag + "b";
        net_ = "10.201." + std::to_string(getpid() % 250) + ".";
        const std::string va = "kva" + std::to_string(getpid()), vb = "kvb" + std::to_string(getpid());
        if (!Ip({"netns", "add", a_})) return;
        created_ = true;
        ok_ = Ip({"netns", "add", b_}) && Ip({"link", "add", va, "netns", a_, "type", "veth", "peer", "name", vb, "netns", b_}) &&
              Ip({"-n", a_, "addr", "add", net_ + "1/24", "dev", va}) && Ip({"-n", b_, "addr", "add", net_ + "2/24", "dev", vb}) &&
              Ip({"-n", a_, "link", "set", va, "up"}) && Ip({"-n", b_, "link", "set", vb, "up"}) &&
              Ip({"-n", a_, "link", "set", "lo", "up"}) && Ip({"-n", b_, "link", "set", "lo", "up"}) &&
              // The limited broadcast address leaves by the default route.
              Ip({"-n", b_, "route", "add", "default", "dev", vb});
    }
    ~TwoHosts() {
        if (!created_) return;
        Ip({"netns", "del", a_});
        Ip({"netns", "del", b_});
    }
    std::string Addr(int host) const { return net_ + std::to_string(host); }
    // cmd run inside namespace A (a) or B.
    std::vector<std::string> In(bool a, const std::vector<std::string>& cmd) const {
        std::vector<std::string> argv{IpTool(), "netns", "exec", a ? a_ : b_};
        argv.insert(argv.end(), cmd.begin(), cmd.end());
        return argv;
    }
    std::string a_, b_, net_;
    bool created_ = false, ok_ = false;
};

class sock_netns : public ::testing::Test {
protected:
    void SetUp() override {
        if (IpTool().empty()) GTEST_SKIP() << "no ip tool (iproute2) on this machine";
        hosts_ = std::make_unique<TwoHosts>();
        if (!hosts_->ok_)
            GTEST_SKIP() << "the kernel refuses network namespaces here (ip netns add failed; needs CAP_SYS_ADMIN)";
    }
    // Starts a receiver in A, then a sender in B; the receiver's report.
    std::string Exchange(const std::vector<std::string>& recvArgs, const std::vector<std::string>& sendArgs) {
        Child receiver(hosts_->In(true, recvArgs));
        if (receiver.ReadLine() != "READY") return "receiver not ready";
        Child sender(hosts_->In(false, sendArgs));
        const std::string sent = sender.ReadLine();
        if (sender.Wait() != 0) return "sender failed: " + sent;
        const std::string got = receiver.ReadLine(5000);
        receiver.Wait(5000);
        return got;
    }
    std::unique_ptr<TwoHosts> hosts_;
};

constexpr const char* kPort = "40123";

TEST_F(sock_netns, ABroadcastReachesTheOtherHost) {
    const std::string got =
        Exchange({HelperPath(), "node-recv", kPort}, {HelperPath(), "node-send", "*", kPort, "hello-broadcast"});
    EXPECT_EQ(got, "DGRAM " + hosts_->Addr(2) + " hello-broadcast");
}

TEST_F(sock_netns, AMulticastGroupMemberOnTheOtherHostReceives) {
    const std::string group = "239.77.0.1";
    const std::string got = Exchange({HelperPath(), "node-recv", kPort, group + "," + hosts_->Addr(1)},
                                     {HelperPath(), "node-send", group, kPort, "hello-multicast", hosts_->Addr(2)});
    EXPECT_EQ(got, "DGRAM " + hosts_->Addr(2) + " hello-multicast");
}

}  // namespace
