// The fault-injection harness itself, on the shared basics.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/kwMem.h"
#include "base/kwPages.h"
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

namespace {

bool Aligned(const void* p, size_t to) { return reinterpret_cast<uintptr_t>(p) % to == 0; }

}  // namespace

TEST(pages, SlotsFillChunksAndChunksGoBack) {
    // slot size asked -> size handed out, slots per 2 MB chunk (the graph
    // blocks: 36 node blocks and 51 half-link blocks to a chunk)
    struct Row {
        size_t asked, slot, perChunk;
    };
    const Row rows[] = {
        {1, 64, 32767},
        {64, 64, 32767},
        {65, 128, 16383},
        {8 + 1024 * sizeof(void*) * 7, 57408, 36},
        {8 + 1024 * 40, 41024, 51},
        {kwz::kPageChunkBytes - 64, kwz::kPageChunkBytes - 64, 1},
    };
    for (const Row& row : rows) {
        kwz::PageSlots pool(row.asked);
        EXPECT_EQ(pool.SlotBytes(), row.slot) << row.asked;
        EXPECT_EQ(pool.SlotsPerChunk(), row.perChunk) << row.asked;
        const size_t mappedBefore = kwz::PagesMappedBytes();
        // Two chunks and one slot of a third.
        const size_t count = 2 * row.perChunk + 1;
        std::vector<void*> slots;
        for (size_t k = 0; k < count; ++k) {
            void* p = pool.Take();
            ASSERT_TRUE(p) << row.asked;
            EXPECT_TRUE(Aligned(p, kwz::kPagesFromHeap ? alignof(std::max_align_t) : 64));
            std::memset(p, int(k & 0xFF), row.slot < 256 ? row.slot : 256);
            std::memset(static_cast<char*>(p) + row.slot - 8, int(k & 0xFF), 8);
            slots.push_back(p);
        }
        std::vector<void*> sorted = slots;
        std::sort(sorted.begin(), sorted.end());
        for (size_t k = 1; k < count; ++k)
            ASSERT_GE(static_cast<char*>(sorted[k]) - static_cast<char*>(sorted[k - 1]), ptrdiff_t(row.slot));
        for (size_t k = 0; k < count; ++k)
            ASSERT_EQ(static_cast<unsigned char*>(slots[k])[0], k & 0xFF) << "slot " << k << " overwritten";
        if (!kwz::kPagesFromHeap) {
            EXPECT_EQ(pool.Chunks(), 3u);
            EXPECT_EQ(kwz::PagesMappedBytes() - mappedBefore, 3 * kwz::kPageChunkBytes);
            // The first chunk's slots come back; it is unmapped with its last.
            for (size_t k = 0; k < row.perChunk; ++k) pool.Give(slots[k]);
            EXPECT_EQ(pool.Chunks(), 2u);
            // A slot given back is handed out again before a chunk is mapped
            // (unless it was its chunk's only one).
            if (row.perChunk > 1) {
                pool.Give(slots[row.perChunk]);
                ASSERT_EQ(pool.Take(), slots[row.perChunk]);
            }
            for (size_t k = row.perChunk; k < count; ++k) pool.Give(slots[k]);
        } else {
            for (void* p : slots) pool.Give(p);
        }
        EXPECT_EQ(pool.Chunks(), 0u);
        EXPECT_EQ(kwz::PagesMappedBytes(), mappedBefore);
    }
}

TEST(pages, LargeArraysAreMappedFromTwoMegabytes) {
    // bytes asked -> bytes mapped for them
    const std::pair<size_t, size_t> rows[] = {
        {100, 0},
        {kwz::kPageLargeBytes - 1, 0},
        {kwz::kPageLargeBytes, kwz::kPageChunkBytes},
        {kwz::kPageLargeBytes + 1, 2 * kwz::kPageChunkBytes},
        {5 * kwz::kPageChunkBytes, 5 * kwz::kPageChunkBytes},
    };
    for (auto [bytes, mapped] : rows) {
        const size_t before = kwz::PagesMappedBytes();
        auto* p = static_cast<char*>(kwz::LargeAlloc(bytes));
        ASSERT_TRUE(p) << bytes;
        p[0] = 1;
        p[bytes - 1] = 2;
        if (!kwz::kPagesFromHeap) {
            EXPECT_EQ(kwz::PagesMappedBytes() - before, mapped) << bytes;
            if (mapped) {
                EXPECT_TRUE(Aligned(p, kwz::kPageChunkBytes)) << bytes;
            }
        }
        kwz::LargeFree(p, bytes);
        EXPECT_EQ(kwz::PagesMappedBytes(), before) << bytes;
    }
    // A vector that grows past 2 MB moves onto its own mapping and gives it
    // back when it goes.
    const size_t before = kwz::PagesMappedBytes();
    {
        std::vector<uint64_t, kwz::LargeAllocator<uint64_t>> v;
        for (uint64_t k = 0; k < 300000; ++k) v.push_back(k);
        EXPECT_EQ(v[299999], 299999u);
        if (!kwz::kPagesFromHeap) {
            EXPECT_GE(kwz::PagesMappedBytes() - before, kwz::kPageChunkBytes);
        }
    }
    EXPECT_EQ(kwz::PagesMappedBytes(), before);
}

TEST(pages, EachTakeIsOneAllocationForTheFaultHarness) {
    kwz::PageSlots pool(4096);
    // operation -> allocations it makes
    struct Row {
        const char* name;
        std::function<bool()> run;  // true when everything was had
        int64_t allocations;
    };
    std::vector<void*> held;
    held.reserve(8);  // no vector growth inside the counted runs
    void* large = nullptr;
    const Row rows[] = {
        {"one slot", [&] { return held.emplace_back(pool.Take()) != nullptr; }, 1},
        {"three slots",
         [&] {
             bool ok = true;
             for (int k = 0; k < 3; ++k) ok = held.emplace_back(pool.Take()) && ok;
             return ok;
         },
         3},
        {"large array", [&] { return (large = kwz::LargeAlloc(kwz::kPageLargeBytes)) != nullptr; }, 1},
    };
    for (const Row& row : rows) {
        const int64_t failures = kwz::test::ForEachAllocationFailure([&](auto fired) {
            const bool ok = row.run();
            EXPECT_EQ(ok, !fired()) << row.name;
            for (void* p : held) pool.Give(p);
            held.clear();
            kwz::LargeFree(large, kwz::kPageLargeBytes);
            large = nullptr;
        });
        EXPECT_EQ(failures, row.allocations) << row.name;
    }
    EXPECT_EQ(pool.Chunks(), 0u);
}

TEST(pages, SlotsFromSeveralThreadsAtOnce) {
    // Each thread takes and gives back slots in a random order, stamping each
    // with its own number and checking the stamp before giving it back.
    kwz::PageSlots pool(1000);
    constexpr int kThreads = 4;
    std::atomic<int> damaged{0}, refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng{unsigned(t)};
            std::vector<uint64_t*> mine;
            for (int step = 0; step < 20000; ++step) {
                if (mine.empty() || rng() % 3 != 0) {
                    auto* p = static_cast<uint64_t*>(pool.Take());
                    if (!p) {
                        ++refused;
                        continue;
                    }
                    p[0] = p[100] = uint64_t(t) << 32 | uint32_t(step);
                    mine.push_back(p);
                } else {
                    const size_t at = rng() % mine.size();
                    uint64_t* p = mine[at];
                    if (p[0] >> 32 != uint64_t(t) || p[100] != p[0]) ++damaged;
                    mine[at] = mine.back();
                    mine.pop_back();
                    pool.Give(p);
                }
            }
            for (uint64_t* p : mine) {
                if (p[0] >> 32 != uint64_t(t)) ++damaged;
                pool.Give(p);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(damaged.load(), 0);
    EXPECT_EQ(refused.load(), 0);
    EXPECT_EQ(pool.Chunks(), 0u);
}
