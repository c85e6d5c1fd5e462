// Shared basics: log sink, version, ticks, calendar time, pointer lists,
// QuickSort and stricmp_rus.
#include <VomKwz.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

const auto g_testStart = std::chrono::steady_clock::now();  // after the library's load

std::vector<std::string> g_lines;
void Sink(int32_t level, const char* tag, const char* text) {
    g_lines.push_back(std::to_string(level) + " " + tag + " " + text);
}

TEST(basics_Log, ThresholdCallbackAndVersion) {
    KWLogFn saved = LogMessageSet(&Sink, 9);
    EXPECT_EQ(LogMessageLevel(), 5);
    EXPECT_EQ(LogMessageSet(&Sink, -3), &Sink);
    EXPECT_EQ(LogMessageLevel(), 0);
    LogMessage(1, "Kwz.t.A", "dropped");
    LogMessage(0, "Kwz.t.A", "delivered");
    LogMessageF(0, "Kwz.t.A", nullptr);
    LogMessageSet(&Sink, 3);
    LogMessageF(3, "Kwz.t.B", "%s=%d", "count", 42);
    LogMessageF(4, "Kwz.t.B", "too detailed");
    LogMessageSet(saved, 0);
    EXPECT_EQ(g_lines, (std::vector<std::string>{"0 Kwz.t.A delivered", "3 Kwz.t.B count=42"}));

    uint64_t v[4] = {};
    const char* credits = nullptr;
    KWZGetVersion(&v[0], &v[1], &v[2], &v[3], &credits);
    EXPECT_EQ(std::vector<uint64_t>(v, v + 4), (std::vector<uint64_t>{2, 1, 0, 20000}));
    EXPECT_TRUE(credits && *credits);
}

// The coarse clock ticks every few milliseconds: when it reads the same before
// and after, the counters must equal seconds * 1000 + nanoseconds / 1000.
TEST(basics_Ticks, CoarseFormulaAndSteadyClock) {
    int tries = 0;
    for (timespec before{}, after{}; tries < 1000; ++tries) {
        clock_gettime(CLOCK_REALTIME_COARSE, &before);
        const uint64_t t64 = GetTickCount64();
        const uint32_t t32 = GetTickCount(), c32 = CTimeTick32();
        clock_gettime(CLOCK_REALTIME_COARSE, &after);
        if (before.tv_sec != after.tv_sec || before.tv_nsec != after.tv_nsec) continue;
        const uint64_t expect = uint64_t(before.tv_sec) * 1000 + uint64_t(before.tv_nsec) / 1000;
        EXPECT_EQ(std::make_tuple(t64, t32, c32), std::make_tuple(expect, uint32_t(expect), uint32_t(expect)));
        break;
    }
    EXPECT_LT(tries, 1000) << "the coarse clock never held still";
    using namespace std::chrono;
    const int64_t first = CTimeTick64();
    EXPECT_GE(first, duration_cast<milliseconds>(steady_clock::now() - g_testStart).count());
    EXPECT_LT(first, 60000);
    std::this_thread::sleep_for(milliseconds(25));
    EXPECT_GE(CTimeTick64() - first, 25);
    EXPECT_LE(std::abs(CTimeNow() - int64_t(time(nullptr))), 1);
}

// Zones as POSIX TZ rules, so no zone database is needed.
struct basics_Time : ::testing::Test {
    std::string saved = std::getenv("TZ") ? std::getenv("TZ") : "";
    bool had = std::getenv("TZ") != nullptr;
    void TearDown() override {
        had ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
        tzset();
    }
};

TEST_F(basics_Time, ZoneStampAndConversions) {
    const std::string z32(32, 'Z');  // a 32-character name fills the field, unterminated
    const struct { std::string tz; int64_t bias; int32_t result; std::string name; } zones[] = {
        {"EST5EDT,M3.2.0,M11.1.0", 300, 2, "EST"}, {"AAA3:30:30", 210, 0, "AAA"},
        {"BBB-3:30:30", -210, 0, "BBB"}, {"<" + z32 + ">0", 0, 0, z32}};
    for (const auto& z : zones) {
        setenv("TZ", z.tz.c_str(), 1);
        KWTimeZone info;
        std::memset(&info, 0x55, sizeof info);
        EXPECT_EQ(CTimeZoneGet(&info), z.result) << z.tz;
        EXPECT_EQ(info.bias, z.bias) << z.tz;  // minutes, truncated toward zero
        EXPECT_EQ(info.daylight, z.result / 2);
        EXPECT_EQ(std::string(info.standardName, strnlen(info.standardName, 32)), z.name);
        KWTimeStamp stamp;
        CTimeUTC(&stamp);
        EXPECT_TRUE(stamp.millis < 1000 && stamp.zoneMinutes == z.bias && stamp.daylight == z.result / 2);
    }
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
    struct tm tm{};
    const int64_t july = 1720000000;  // 2024-07-03 09:46:40 UTC
    ASSERT_EQ(CTimeLocal(july, &tm), 1);
    EXPECT_EQ(std::make_tuple(tm.tm_hour, tm.tm_isdst, tm.tm_gmtoff), std::make_tuple(5, 1, -4L * 3600));
    int64_t back = 0;
    ASSERT_EQ(CTimeMake(&tm, &back), 1);
    EXPECT_EQ(back, july);
    EXPECT_TRUE(CTimeMake(nullptr, &back) == 0 && back == -1);
}

void* P(intptr_t v) { return reinterpret_cast<void*>(v); }

TEST(basics_List, GrowthSteps) {
    KWList l;
    KWLInit(&l);
    std::vector<int32_t> steps;
    for (intptr_t i = 0; i < 250; ++i) {
        const int32_t before = l.capacity;
        ASSERT_EQ(KWLAdd(&l, P(i)), i);
        if (l.capacity != before) steps.push_back(l.capacity);
    }
    EXPECT_EQ(steps, (std::vector<int32_t>{16, 32, 48, 64, 80, 100, 125, 156, 195, 243, 303}));
    KWLClear(&l);
    KWLCount(&l, 3);  // exactly 3 slots of null items
    EXPECT_EQ(KWLInsert(&l, 1000, P(7)), 3);
    EXPECT_EQ(std::make_tuple(l.capacity, l.items[0]), std::make_tuple(19, nullptr));
    KWLClear(&l);
}

// Edits that move items, with out-of-range indexes ignored.
TEST(basics_List, MoveDeleteRemove) {
    // op: 0 move(a, b), 1 delete(a), 2 remove(item a)
    const struct { int op; int32_t a, b; std::vector<intptr_t> after; } cases[] = {
        {0, 0, 3, {2, 3, 4, 1, 5}}, {0, 4, 1, {1, 5, 2, 3, 4}}, {0, 2, 2, {1, 2, 3, 4, 5}},
        {0, 1, 5, {1, 2, 3, 4, 5}}, {1, 0, 0, {2, 3, 4, 5}},      {1, 4, 0, {1, 2, 3, 4}},
        {1, 5, 0, {1, 2, 3, 4, 5}}, {2, 3, 2, {1, 2, 4, 5}},      {2, 9, -1, {1, 2, 3, 4, 5}}};
    for (const auto& c : cases) {
        KWList l;
        KWLInit(&l);
        for (intptr_t v = 1; v <= 5; ++v) KWLAdd(&l, P(v));
        if (c.op == 0) KWLMove(&l, c.a, c.b);
        if (c.op == 1) { EXPECT_EQ(KWLDel(&l, c.a), c.a < 5 ? P(c.a + 1) : nullptr); }
        if (c.op == 2) { EXPECT_EQ(KWLRemove(&l, P(c.a)), c.b); }
        std::vector<void*> after;
        for (intptr_t v : c.after) after.push_back(P(v));
        EXPECT_EQ(std::vector<void*>(l.items, l.items + l.count), after) << c.op << " " << c.a << " " << c.b;
        KWLClear(&l);
    }
}

int32_t CompareInts(void* context, void* a, void* b) {
    if (context) ++*static_cast<int*>(context);
    const int x = *static_cast<int*>(a), y = *static_cast<int*>(b);
    return x < y ? -1 : x > y;
}

TEST(basics_List, Seek) {
    int values[] = {1, 2, 2, 2, 5}, key = 2;
    KWList l;
    KWLInit(&l);
    int32_t pos = -9;
    EXPECT_TRUE(KWLSeek(nullptr, &l, CompareInts, &key, &pos) == 0 && pos == 0);  // an empty list
    for (int& v : values) KWLAdd(&l, &v);
    // A key descriptor begins with its option word, the only part KWLSeek reads.
    struct KeyOptions { uint32_t options; } plain{iKeyOpt_Primary | iKeyOpt_Descending}, unique{iKeyOpt_Unique};
    const struct { KeyOptions* context; int key; int32_t found, position; } cases[] = {
        {nullptr, 2, 1, 1}, {nullptr, 3, 0, 4}, {nullptr, 0, 0, 0}, {nullptr, 6, 0, 5},
        {&plain, 2, 1, 1},  {&unique, 2, 1, 2}, {&unique, 3, 0, 4}, {&unique, 1, 1, 0}};
    for (const auto& c : cases) {
        key = c.key;
        EXPECT_EQ(KWLSeek(c.context, &l, CompareInts, &key, &pos), c.found) << c.key;
        EXPECT_EQ(pos, c.position) << "key " << c.key << (c.context == &unique ? " unique" : "");
    }
    KWLClear(&l);
}

TEST(basics_Sort, QuickSortAgreesWithStdSort) {
    std::mt19937 rng(11);
    for (int round = 0; round < 300; ++round) {
        std::vector<int> values(round < 295 ? rng() % 60 : 20000);
        for (int& v : values) v = int(rng() % (round % 3 ? 1000 : 4));  // or many duplicates
        if (round % 10 == 1) std::sort(values.begin(), values.end());
        if (round % 10 == 2) std::sort(values.rbegin(), values.rend());
        std::vector<void*> ptrs;
        for (int& v : values) ptrs.push_back(&v);
        KWList l{ptrs.data(), int32_t(ptrs.size()), int32_t(ptrs.size())};
        int calls = 0;  // the context reaches the comparator
        KWLSort(&calls, &l, CompareInts);
        std::vector<int> got;
        for (void* p : ptrs) got.push_back(*static_cast<int*>(p));
        std::sort(values.begin(), values.end());
        ASSERT_EQ(got, values) << "round " << round;
        std::sort(ptrs.begin(), ptrs.end());  // still a permutation of the same pointers
        ASSERT_TRUE(std::adjacent_find(ptrs.begin(), ptrs.end()) == ptrs.end() && (got.size() < 2 || calls));
    }
}

TEST(basics_Sort, StricmpRus) {
    const struct { const char *a, *b; int32_t result; } cases[] = {
        {"Abc", "aBC", 0}, {"a", "", 1}, {"abc", "ABCD", -1},
        {"\xFF", "\xDF", 0}, {"\xE0\xE1", "\xC0\xC1", 0},  // я Я, аб АБ
        {"\xB8", "\xA8", 1},                               // ё and Ё stay apart
        {"_", "a", 1}, {"{", "[", 1},                      // folded before comparing
        {"\x80", "z", 1},                                  // unsigned bytes
    };
    for (const auto& c : cases) {
        EXPECT_EQ(stricmp_rus(c.a, c.b), c.result) << c.a << " vs " << c.b;
        EXPECT_EQ(stricmp_rus(c.b, c.a), -c.result) << c.b << " vs " << c.a;
    }
}

}  // namespace
