// The stop request from another thread: a script looping for ever on one
// thread ends with -46 when a second thread calls KWCalcStackStop, and the
// stack is left empty.  Runs under ThreadSanitizer (the _threads suffix).
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

std::atomic<int> gCallsStarted{0};

// Counts calls on the stack so that the stopping thread knows the loop runs.
int32_t CountCalls(KWCalcStack*) {
    gCallsStarted.fetch_add(1);
    return 0;
}

TEST(CalcThreads, StopFromAnotherThread) {
    KWCalcDef* calc = nullptr;
    ASSERT_EQ(KWCalcCreate(&calc, nullptr, nullptr), 0);
    ASSERT_EQ(KWCalcFunAddI(calc, "forever(){var i;i=0;while(1){i=i+1;}}", nullptr, 0, 0), 0);
    ASSERT_EQ(KWCalcFunAddI(calc, "spin(n){var a;a=[n,\"x\"];while(1){a[0]=a[0]+1;}}", nullptr, 0, 0), 0);
    ASSERT_EQ(KWCalcFunAddI(calc, "one(){Result=1;}", nullptr, 0, 0), 0);
    // Runs as a plan (no hook, no budget): the plan reads the stop bit at its back edges.
    ASSERT_EQ(KWCalcFunAddI(calc, "plan(n){var i;i=0;while(1){i=i+n;if(i>1000){i=0;}}}", nullptr, 0, 0), 0);
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(calc, &s, 16), 0);
    KWCalcStackSetHooks(s, &CountCalls, nullptr);
    struct Row {
        const char* name;
        int32_t args;  // Int arguments pushed
        bool hook;     // the debug hook tells when the call started; else a pause
    };
    const Row rows[] = {{"forever", 0, true}, {"spin", 1, true}, {"plan", 1, false}};
    for (const Row& r : rows) {
        gCallsStarted = 0;
        KWCalcStackSetHooks(s, r.hook ? &CountCalls : nullptr, nullptr);
        for (int32_t i = 0; i < r.args; ++i) CVarSetInt(KWCalcStackPush(s), i + 1);
        int32_t st = 0;
        std::atomic<bool> started{false};
        std::chrono::steady_clock::duration took{};
        std::thread run([&] {
            started = true;
            const auto t0 = std::chrono::steady_clock::now();
            st = KWCalcFun2(s, r.name);
            took = std::chrono::steady_clock::now() - t0;
        });
        if (r.hook) {
            while (gCallsStarted.load() == 0) std::this_thread::yield();
        } else {
            while (!started) std::this_thread::yield();
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
        KWCalcStackStop(s);
        run.join();
        EXPECT_EQ(st, -46) << r.name;
        if (!r.hook) {
            EXPECT_GE(took, std::chrono::milliseconds(20)) << r.name << ": it ended before the stop";
        }
        EXPECT_EQ(KWCalcStackPop(s, nullptr), -47) << r.name << ": the stack holds more";
        // The request stays until the stack is cleared: a stop that comes
        // before a run ends that run too.
        EXPECT_EQ(KWCalcFun2(s, "one"), -46) << r.name;
        KWCalcStackClear(s);
        EXPECT_EQ(KWCalcFun2(s, "one"), 0) << r.name;
        EXPECT_EQ(KWCalcStackPop(s, nullptr), 0);
    }
    KWCalcStackFree(s);
    KWCalcDestroy(calc);
}

}  // namespace
