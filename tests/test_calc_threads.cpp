// The stop request from another thread: a script looping for ever on one
// thread ends with -46 when a second thread calls KWCalcStackStop, and the
// stack is left empty.  Runs under ThreadSanitizer (the _threads suffix).
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <atomic>
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
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(calc, &s, 16), 0);
    KWCalcStackSetHooks(s, &CountCalls, nullptr);
    struct Row {
        const char* name;
        int32_t args;  // Int arguments pushed
    };
    const Row rows[] = {{"forever", 0}, {"spin", 1}};
    for (const Row& r : rows) {
        gCallsStarted = 0;
        for (int32_t i = 0; i < r.args; ++i) CVarSetInt(KWCalcStackPush(s), i);
        int32_t st = 0;
        std::thread run([&] { st = KWCalcFun2(s, r.name); });
        while (gCallsStarted.load() == 0) std::this_thread::yield();
        KWCalcStackStop(s);
        run.join();
        EXPECT_EQ(st, -46) << r.name;
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
