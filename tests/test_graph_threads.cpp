// The shared pool of storage blocks used by graphs in several threads at
// once; run under ThreadSanitizer with the other thread-safety tests.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <atomic>
#include <thread>
#include <vector>

#include "test_graph_util.h"

using namespace graphtest;

TEST(graph_pool, GraphsInSeveralThreadsAtOnce) {
    // Each thread builds, combines and drops graphs of its own; every block
    // comes from and goes back to the one shared pool.
    constexpr int kThreads = 4;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            for (int round = 0; round < 6; ++round) {
                Graph a = Make(), b = Make();
                for (uint32_t i = 0; i < 3000; ++i) {
                    GraphAppendLink(a.get(), GraphAppendNode(a.get(), i), GraphAppendNode(a.get(), (i * 7 + t) % 3000));
                    GraphAppendLink(b.get(), GraphAppendNode(b.get(), i), GraphAppendNode(b.get(), i + 1));
                }
                Graph r(GraphXor(a.get(), b.get()));
                if (!r || GraphNodeCount(r.get()) != 3001 || !Broken(r.get()).empty()) ++failures;
                if (round % 3 == 2) GraphHeapClear();
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
}
