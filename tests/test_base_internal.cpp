// The fault-injection harness itself, on the shared basics.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <string>
#include <vector>

#include "base/kwMem.h"
#include "fault_harness.h"

TEST(fault, EveryAllocationFailsOnceThenTheRunCompletes) {
    // Three allocations: two library blocks and one std::vector buffer.
    std::vector<int> seen;
    const int64_t failures = kwz::test::ForEachAllocationFailure([&](auto fired) {
        void* a = KWMemAlloc(16, nullptr);
        void* b = a ? KWMemAlloc(16, nullptr) : nullptr;
        bool vectorOk = true;
        if (b) {
            try {
                std::vector<int> v(100);
            } catch (const std::bad_alloc&) {
                vectorOk = false;
            }
        }
        const bool complete = a && b && vectorOk;
        EXPECT_EQ(complete, !fired());
        seen.push_back(a ? (b ? (vectorOk ? 3 : 2) : 1) : 0);
        KWMemFree(b);
        KWMemFree(a);
    });
    EXPECT_EQ(failures, 3);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3}));
}

TEST(fault, ListGrowthFailureLeavesTheListAsItWas) {
    KWList list;
    KWLInit(&list);
    int item = 0;
    kwz::test::ForEachAllocationFailure([&](auto fired) {
        const int32_t before = list.count;
        const int32_t index = KWLAdd(&list, &item);
        if (fired()) {
            EXPECT_EQ(index, -1);
            EXPECT_EQ(list.count, before);
        } else {
            EXPECT_EQ(index, before);
        }
        KWLClear(&list);
    });
}
