// Record arrays: fields, keys and their orders, the edit protocol, seeks,
// positions and copies; and a randomized model test against plain vectors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>

#include "kwz_test_util.h"
#include "test_recarr_util.h"

using namespace recarrtest;

static std::vector<KWRFieldDef> IdNameValue() {
    return {Field("id", iFldType_Int32), Field("name", iFldType_Char, 20), Field("value", iFldType_Double)};
}

// An array made from a type takes its fields under its own name; adding
// fields clears the records and makes older working records stale, and a
// bad definition keeps the old fields.
TEST(recarr_Fields, CreateCopiesTypeAndFieldAddClearsRecords) {
    KWRType type;
    KWRTypInit(&type);
    ASSERT_EQ(KWRTypSet(&type, 77, "Row|2\r\nA|I4\r\nB|CM"), 0u);
    KWArray* a = nullptr;
    ASSERT_EQ(KWACreate(&a, &type), 0);
    KWRTypFree(&type);
    KWRType* own = KWAType(a);
    EXPECT_STREQ(own->name, "KWA");
    EXPECT_EQ(own->id, 1u);
    ASSERT_EQ(own->fieldCount, 2);

    ASSERT_NE(Add(a, {I4(1), Text("x", iFldType_Memo)}), nullptr);
    KWRData* stale[] = {KWARecNew(a), KWARecEdit(KWARec(a, 0, 0))};
    ASSERT_NE(stale[1], nullptr);
    const KWRFieldDef more[] = {Field("C", iFldType_Int64)};
    EXPECT_EQ(KWAFldAdd(a, 1, more), 0);
    EXPECT_EQ(KWARecCount(a), 0);
    EXPECT_EQ(KWAType(a)->fieldCount, 3);
    for (KWRData* r : stale) {
        EXPECT_EQ(KWARecPost(r, nullptr), -5);
        KWARecDel(r);
    }

    // A name taken in another case, an unknown type, "CH" without a capacity.
    for (const KWRFieldDef& bad : {Field("b", iFldType_Int8), Field("D", 12), Field("E", iFldType_Char)})
        EXPECT_EQ(KWAFldAdd(a, 1, &bad), -3);
    EXPECT_EQ(KWAType(a)->fieldCount, 3);
    KWADestroy(a);
}

// No records without fields; at most 255 fields, the rest ignored.
TEST(recarr_Fields, LimitsAndEmptyArray) {
    Array a;
    EXPECT_EQ(KWARecNew(a), nullptr);
    EXPECT_EQ(KWARecAdd(a, nullptr), nullptr);
    std::vector<KWRFieldDef> many;
    for (int i = 0; i < 300; ++i) many.push_back(Field(("f" + std::to_string(i)).c_str(), iFldType_Byte));
    EXPECT_EQ(KWAFldAdd(a, 300, many.data()), 0);
    EXPECT_EQ(KWAType(a)->fieldCount, 255);
    EXPECT_EQ(KWAFldAdd(a, 1, many.data()), 0);  // full: nothing happens
    EXPECT_EQ(KWAClearAll(a), 0);
    EXPECT_EQ(KWAType(a)->fieldCount, 0);
    EXPECT_EQ(KWAFldAdd(nullptr, 1, many.data()), -1);
}

// Each option's ordering, posting the values in the given order.
struct OrderCase {
    const char* name;
    KWRFieldDef field;
    uint32_t options;
    std::vector<KWRVal> values;
    std::vector<int64_t> expected;  // posting indexes in key order
};

TEST(recarr_Order, EachOptionOrdersAsDocumented) {
    static const char* const kTexts[] = {"b", "B", "a", "", "ab", "\xE0\xE1", "\xC0\xC1", "\xB8", "\xA8"};
    const std::vector<OrderCase> cases = {
        {"I4", Field("v", iFldType_Int32), 0, {I4(3), I4(-1), Null(), I4(2)}, {2, 1, 3, 0}},
        {"I4 desc", Field("v", iFldType_Int32), iKeyOpt_Descending, {I4(3), I4(-1), Null(), I4(2)}, {0, 3, 1, 2}},
        {"I8 extremes", Field("v", iFldType_Int64), 0,
         {I8(INT64_MAX), I8(INT64_MIN), I8(0), I8(INT64_MAX - 1), I8(1)}, {1, 2, 4, 3, 0}},
        {"L1", Field("v", iFldType_Bool), 0, {Num<uint8_t>(1, 1), Num<uint8_t>(1, 0), Null()}, {2, 1, 0}},
        {"B1 unsigned", Field("v", iFldType_Byte), 0, {Num<uint8_t>(2, 200), Num<uint8_t>(2, 7)}, {1, 0}},
        {"I1 signed", Field("v", iFldType_Int8), 0, {Num<int8_t>(3, -100), Num<int8_t>(3, 7)}, {0, 1}},
        {"F8", Field("v", iFldType_Double), 0, {F8(2.5), F8(-1e300), Null(), F8(0.0)}, {2, 1, 3, 0}},
        {"CH bytes", Field("v", iFldType_Char, 8), 0,
         {Text(kTexts[0]), Text(kTexts[1]), Text(kTexts[2]), Text(kTexts[3]), Text(kTexts[4])}, {3, 1, 2, 4, 0}},
        // Equal texts go before the equal ones posted earlier.
        {"CH nocase", Field("v", iFldType_Char, 8), iKeyOpt_CaseInsensitive,
         {Text(kTexts[0]), Text(kTexts[1]), Text(kTexts[2])}, {2, 1, 0}},
        {"CM nocase cyrillic", Field("v", iFldType_Memo), iKeyOpt_CaseInsensitive,
         {Text(kTexts[6], 10), Text(kTexts[5], 10), Text(kTexts[7], 10), Text(kTexts[8], 10)}, {3, 2, 1, 0}},
        {"CB", Field("v", iFldType_Blob), 0,
         {Text("ab\0", 11, 3), Text("ab", 11, 2), Text("", 11, 0), Text("\x01", 11, 1), Null()}, {4, 2, 3, 1, 0}},
        {"no fields", Field("v", iFldType_Int32), 0, {I4(3), I4(1), I4(2)}, {0, 1, 2}},
        {"no fields desc", Field("v", iFldType_Int32), iKeyOpt_Descending, {I4(3), I4(1), I4(2)}, {2, 1, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const bool noFields = std::string(c.name).rfind("no fields", 0) == 0;
        Array a({c.field, Field("seq", iFldType_Int32)}, {Key(noFields ? "" : "v", c.options)});
        for (size_t i = 0; i < c.values.size(); ++i)
            ASSERT_NE(Add(a, {c.values[i], I4(static_cast<int32_t>(i))}), nullptr);
        EXPECT_EQ(Ints(a, 0, "seq"), c.expected);
    }
}

// A composite key (spaces dropped from its expression) orders field by
// field, nulls first; a comparison involving NaN orders the left operand
// first, both ways.
TEST(recarr_Order, CompositeKeyAndComparators) {
    Array a({Field("A", iFldType_Int32), Field("B", iFldType_Char, 4), Field("C", iFldType_Double)},
            {Key(" A ; B ", 0), Key("C")});
    Add(a, {I4(1), Text("b"), F8(1)});
    Add(a, {I4(0), Text("z"), F8(2)});
    Add(a, {I4(1), Text("a"), F8(std::nan(""))});
    Add(a, {I4(1), Null(), F8(0)});
    EXPECT_EQ(Texts(a, 0, "B"), (std::vector<std::string>{"z", "<null>", "a", "b"}));

    KWAKey* keyC = KeyOf(a, 1);
    KWRData* nanRec = KWARec(a, 0, 2);
    KWRData* one = KWARec(a, 0, 3);
    EXPECT_EQ(KWARecComp(keyC, nanRec, one), -1);
    EXPECT_EQ(KWARecComp(keyC, one, nanRec), -1);
    EXPECT_EQ(KWARecComp(keyC, one, one), 0);
    KWRVal nanCell = F8(std::nan(""));
    EXPECT_EQ(KWAVarComp(keyC, one, &nanCell), -1);
}

// A duplicate under a Unique key k is refused with -(7 + k): a new record
// (nothing inserted, the record left to the caller) and a member changed in
// place (back at its old position).  A working copy may keep its own value.
TEST(recarr_Unique, NewEditedAndInPlaceDuplicatesAreRefused) {
    Array a(IdNameValue(), {Key("id", iKeyOpt_Unique), Key("value", iKeyOpt_Unique), Key("name")});
    KWRData* r1 = Add(a, {I4(1), Text("one"), F8(1)});
    KWRData* r2 = Add(a, {I4(2), Text("two"), F8(2)});
    ASSERT_TRUE(r1 && r2);
    const KWRField* id = a.F("id");

    for (auto [idValue, value, rc] : {std::tuple{2, 5.0, -7}, std::tuple{3, 2.0, -8}}) {
        KWRData* dup = KWARecNew(a);
        KWRSetAsInt32(id, dup, idValue);
        KWRSetAsDouble(a.F("value"), dup, value);
        KWRData* out = r1;
        EXPECT_EQ(KWARecPost(dup, &out), rc);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(KWARecDel(dup), 0);
    }
    EXPECT_EQ(KWARecCount(a), 2);

    KWRData* out = nullptr;
    KWRData* copy = KWARecEdit(r1);
    KWRSetAsInt32(id, copy, 1);
    KWRSetAsText(a.F("name"), copy, 3, "zed");
    EXPECT_EQ(KWARecPost(copy, &out), 0);
    EXPECT_EQ(out, r1);
    EXPECT_EQ(Texts(a, 2, "name"), (std::vector<std::string>{"two", "zed"}));

    KWRSetAsInt32(id, r1, 2);
    EXPECT_EQ(KWARecPost(r1, &out), -7);
    EXPECT_EQ(KWARec(a, 0, 0), r1);
    KWRSetAsInt32(id, r1, 3);
    EXPECT_EQ(KWARecPost(r1, &out), 0);
    EXPECT_EQ(Ints(a, 0, "id"), (std::vector<int64_t>{2, 3}));
}

// Posted members carry no edited bits; an unchanged working copy gives back
// the member; a member whose text moved out of its image cannot be edited
// until it is posted.
TEST(recarr_Edit, Protocol) {
    Array a(IdNameValue(), {Key("id")});
    EXPECT_EQ(KWARecPost(nullptr, nullptr), 0);
    KWRData* r = Add(a, {I4(10), Text("ten"), F8(10)});
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(KWARecArr(r), static_cast<KWArray*>(a));
    uint8_t edited = 1;
    KWRIsEdit(a.F("id"), r, &edited);
    EXPECT_EQ(edited, 0);

    KWRData* out = nullptr;
    EXPECT_EQ(KWARecPost(KWARecEdit(r), &out), 0);
    EXPECT_EQ(out, r);

    Array m({Field("id", iFldType_Int32), Field("memo", iFldType_Memo)}, {Key("id")});
    KWRData* withMemo = Add(m, {I4(1), Text("short", iFldType_Memo)});
    KWRSetAsText(m.F("memo"), withMemo, 11, "much longer");
    EXPECT_EQ(KWARecEdit(withMemo), nullptr);
    EXPECT_EQ(KWARecPost(withMemo, &out), 0);
    EXPECT_EQ(AsText(m, withMemo, "memo"), "much longer");
    KWRData* memoCopy = KWARecEdit(withMemo);
    EXPECT_NE(memoCopy, nullptr);
    KWARecDel(memoCopy);

    EXPECT_EQ(KWARecDel(KWARecNew(a)), 0);
    EXPECT_EQ(KWARecEdit(nullptr), nullptr);
}

// Duplicates under a Unique key (added over existing data) make the early
// stop visible: the position is the first match the binary search meets,
// exactly as KWLSeek gives it over the same sequence.
TEST(recarr_Seek, PositionsMatchTheListSearch) {
    Array a({Field("k", iFldType_Int32), Field("seq", iFldType_Int32)}, {Key("seq")});
    for (int i = 0; i < 700; ++i) Add(a, {I4(i / 7), I4(i)});
    const KWAKeyDef keys[] = {Key("k", iKeyOpt_Unique), Key("k")};
    ASSERT_EQ(KWAKeyAdd(a, 2, keys), 0);
    for (int32_t key : {1, 2}) ExpectSeeksLikeList(a, key, -1, 101, "k");
}

// A key without fields gives the member count as position (0 when
// Descending); a missing key, comparator or index, or a foreign record,
// gives -1 or nothing.
TEST(recarr_Seek, EdgeArguments) {
    Array a(IdNameValue(), {Key(""), Key("", iKeyOpt_Descending), Key("id")});
    for (int i = 0; i < 5; ++i) Add(a, {I4(i), Null(), Null()});
    KWRVal cell = I4(3);
    int32_t pos = 99;
    EXPECT_EQ(KWARecSeekF(a, 2, nullptr, nullptr, &pos), nullptr);
    EXPECT_EQ(pos, -1);
    for (auto [key, expected] : {std::pair{0, 5}, std::pair{1, 0}, std::pair{16, -1}}) {
        EXPECT_EQ(KWARecSeekV(a, key, &cell, &pos), nullptr);
        EXPECT_EQ(pos, expected) << key;
    }
    EXPECT_EQ(KWARec(a, 2, 5), nullptr);
    EXPECT_EQ(KWARec(a, 2, -1), nullptr);
    EXPECT_EQ(KWARecIdx(a, 17, KWARec(a, 0, 0)), -1);

    Array other(IdNameValue(), {Key("id")});
    KWRData* foreign = Add(other, {I4(3), Null(), Null()});
    EXPECT_EQ(KWARecIdx(a, 2, foreign), -1);
    EXPECT_EQ(KWARecIdx(other, 0, foreign), 0);
}

// Keys are added up to a bad expression (logged) and up to 16; deleting
// the last key keeps its members.
TEST(recarr_Keys, AddDeleteAndBadExpressions) {
    kwztest::LogCapture log;
    Array a(IdNameValue());
    // Posting without keys makes an empty key 0: posting order.
    for (int i : {3, 1, 2}) Add(a, {I4(i), Null(), Null()});
    EXPECT_EQ(Ints(a, 0, "id"), (std::vector<int64_t>{3, 1, 2}));

    const KWAKeyDef bad[] = {Key("id"), Key("nope"), Key("id")};
    EXPECT_EQ(KWAKeyAdd(a, 3, bad), -3);  // the first one stays added
    EXPECT_TRUE(log.Has("Kwz.kwRecArr.KWAKeyAdd", "nope"));
    EXPECT_EQ(Ints(a, 1, "id"), (std::vector<int64_t>{1, 2, 3}));
    for (const std::string& e : {std::string(64, 'x'), std::string("id;id;id;id;id;id;id")}) {
        const KWAKeyDef tooLong = Key(e.c_str());  // 64 characters, seven fields
        EXPECT_EQ(KWAKeyAdd(a, 1, &tooLong), -3) << e;
    }

    std::vector<KWAKeyDef> many(20, Key("name"));
    EXPECT_EQ(KWAKeyAdd(a, 20, many.data()), 0);
    EXPECT_NE(KWARec(a, 15, 2), nullptr);
    EXPECT_EQ(KWARec(a, 16, 0), nullptr);

    while (KWARec(a, 1, 0)) EXPECT_EQ(KWAKeyDel(a, 0), 0);
    EXPECT_EQ(KWAKeyDel(a, 0), 0);
    EXPECT_EQ(KWAKeyDel(a, 5), 0);
    int32_t pos = -1;
    KWRVal cell = I4(2);
    EXPECT_EQ(KWARecSeekV(a, 0, &cell, &pos), nullptr);  // no fields any more, all three members
    EXPECT_EQ(pos, 3);

    EXPECT_EQ(KWAClearKey(a), 0);
    EXPECT_EQ(KWARecCount(a), 0);
}

// A NonMaintained key keeps posting order through edits until sorted.
TEST(recarr_Keys, NonMaintainedKeyIsSortedOnRequest) {
    Array a(IdNameValue(), {Key("id"), Key("name", iKeyOpt_NonMaintained)});
    for (const char* n : {"c", "a", "b"}) Add(a, {I4(n[0]), Text(n), Null()});
    EXPECT_EQ(Texts(a, 1, "name"), (std::vector<std::string>{"c", "a", "b"}));
    KWRData* c = KWARec(a, 1, 0);
    KWRData* copy = KWARecEdit(c);
    KWRSetAsText(a.F("name"), copy, 1, "0");
    KWARecPost(copy, nullptr);
    EXPECT_EQ(KWARec(a, 1, 0), c);
    EXPECT_EQ(KWARecSort(a, 1), 0);
    EXPECT_EQ(Texts(a, 1, "name"), (std::vector<std::string>{"0", "a", "b"}));
    EXPECT_EQ(KWARecSort(a, 9), -1);
}

// Copying records, keys or both; records come in the source's key-0 order
// with changes made in place, and every further key is sorted.
TEST(recarr_Copy, OptionsDecideWhatIsCopied) {
    Array src(IdNameValue(), {Key("id", iKeyOpt_Unique | iKeyOpt_Primary), Key("name", iKeyOpt_Descending)});
    for (int i = 0; i < 50; ++i) Add(src, {I4(i), Text(std::to_string(i % 7).c_str()), F8(i)});
    KWRSetAsDouble(src.F("value"), KWARec(src, 0, 3), 99.5);  // changed in place, not posted

    Array both;
    ASSERT_EQ(KWACopy(both, src, iCopyOpt_Rec | iCopyOpt_Key), 0);
    EXPECT_EQ(Texts(both, 1, "name").front(), "6");
    EXPECT_EQ(Pack(both), Pack(src));  // fields, keys, key-0 order and images, 99.5 included

    Array recsOnly;
    ASSERT_EQ(KWACopy(recsOnly, src, iCopyOpt_Rec), 0);
    EXPECT_EQ(Ints(recsOnly, 0, "id"), Ints(src, 0, "id"));  // key 0 made, in source key-0 order
    EXPECT_EQ(KWARec(recsOnly, 1, 0), nullptr);

    Array keysOnly;
    ASSERT_EQ(KWACopy(keysOnly, src, iCopyOpt_Key), 0);
    EXPECT_EQ(KWARecCount(keysOnly), 0);
    ASSERT_NE(Add(keysOnly, {I4(1), Null(), Null()}), nullptr);
    EXPECT_EQ(Add(keysOnly, {I4(1), Null(), Null()}), nullptr);  // Unique came along

    Array empty;
    EXPECT_EQ(KWACopy(both, empty, iCopyOpt_Rec | iCopyOpt_Key), 0);
    EXPECT_EQ(KWAType(both)->fieldCount, 0);
    EXPECT_EQ(KWACopy(both, both, 3), -1);
}

// Sorting and adding a key over many NaNs neither runs off the list nor
// puts a number after a NaN.
TEST(recarr_Order, NaNSortsLastWithoutRunningOffTheList) {
    Array a({Field("v", iFldType_Double), Field("seq", iFldType_Int32)}, {Key("seq"), Key("v")});
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (int round = 0; round < 20; ++round)
        for (double v : {1.0, nan, 0.0, nan, 2.0, nan, -5.0, 3.0, nan}) Add(a, {F8(v), I4(round)});
    ASSERT_EQ(KWARecSort(a, 1), 0);
    std::vector<double> got;
    for (int32_t i = 0; KWRData* r = KWARec(a, 1, i); ++i) KWRGetAsDouble(a.F("v"), r, &got.emplace_back());
    for (double& v : got) v = std::isnan(v) ? HUGE_VAL : v;
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
    const KWAKeyDef again = Key("v", iKeyOpt_Descending);
    EXPECT_EQ(KWAKeyAdd(a, 1, &again), 0);
    EXPECT_EQ(KWARecCount(a), 180);
}

// A record whose guard byte is set is never freed or unlinked and nothing
// throws out of the array functions: KWARecDel gives -2 and the array keeps
// the member, whose image stays with it.
TEST(recarr_Edit, DeleteOfACorruptRecordIsRefused) {
    Array a({Field("Id", iFldType_Int32), Field("Note", iFldType_Memo)}, {Key("Id"), Key("Note")});
    for (int32_t i = 0; i < 5; ++i) ASSERT_NE(Add(a, {I4(i), Text("n", iFldType_Memo)}), nullptr);
    KWRData* member = KWARec(a, 1, 2);
    KWRData* working = KWARecNew(a);
    for (KWRData* rec : {member, working}) {
        rec->guard = 1;
        EXPECT_EQ(KWARecDel(rec), -2);
        EXPECT_EQ(KWARecCount(a), 5);
        EXPECT_EQ(Ints(a, 0, "Id"), (std::vector<int64_t>{0, 1, 2, 3, 4}));
        rec->guard = 0;
    }
    EXPECT_EQ(KWARecDel(member), 0);
    EXPECT_EQ(KWARecDel(working), 0);
    EXPECT_EQ(Ints(a, 0, "Id").size(), 4u);
}

// ---- a randomized model test: thousands of posts, edits, in-place
// changes, deletes and seeks against plain vectors that insert each member
// at its lower bound.  Catches mistakes of the blocked order (splits,
// merges, the position cache) and of the post rules.

namespace {

struct Row {
    int32_t seq, k, u;
    std::string name;
};

int Sign(int64_t d) { return d < 0 ? -1 : (d > 0 ? 1 : 0); }

std::string Fold(std::string s) {
    for (auto& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// Keys: 0 "k"; 1 "u" Unique; 2 "name;k" Descending CaseInsensitive;
// 3 no fields; 4 "k" NonMaintained; 5 "seq" Unique.
constexpr int kKeys = 6;
int Compare(int key, const Row& a, const Row& b) {
    switch (key) {
        case 0: case 4: return Sign(int64_t{a.k} - b.k);
        case 1: return Sign(int64_t{a.u} - b.u);
        case 2: {
            const int c = Sign(Fold(a.name).compare(Fold(b.name)));
            return -(c ? c : Sign(int64_t{a.k} - b.k));
        }
        case 5: return Sign(int64_t{a.seq} - b.seq);
        default: return 0;
    }
}

struct Model {
    std::vector<Row> rows;              // by seq, deleted ones too
    std::vector<int32_t> order[kKeys];  // seqs in key order; order[5] lists the members by seq

    size_t Size() const { return order[5].size(); }
    const Row& At(int32_t seq) const { return rows[static_cast<size_t>(seq)]; }
    // The vectors of maintained keys are sorted: binary search for the
    // first member not less than r.
    int LowerBound(int key, const Row& r) const {
        const auto& o = order[key];
        return static_cast<int>(std::partition_point(o.begin(), o.end(), [&](int32_t seq) {
                                    return Compare(key, At(seq), r) < 0;
                                }) - o.begin());
    }
    int IndexOf(int key, int32_t seq) const {
        return static_cast<int>(std::find(order[key].begin(), order[key].end(), seq) - order[key].begin());
    }
    // Whether a member other than `except` holds r.u (key 1 lets one at most).
    bool UniqueTaken(const Row& r, int32_t except) const {
        const size_t at = static_cast<size_t>(LowerBound(1, r));
        return at < Size() && At(order[1][at]).u == r.u && order[1][at] != except;
    }
    void Insert(const Row& r) {
        rows.push_back(r);  // seqs are handed out in order
        for (int key = 0; key < kKeys; ++key) {
            const int at = key == 3 || key == 4 ? static_cast<int>(order[key].size()) : LowerBound(key, r);
            order[key].insert(order[key].begin() + at, r.seq);
        }
    }
};

const char* const kNames[] = {"ab", "AB", "Ab", "b", "B", "abc", "", "zz"};

KWRData* Member(KWArray* a, int32_t seq) {
    KWRVal cell = I4(seq);
    return KWARecSeekV(a, 5, &cell, nullptr);
}

// The seek branch of the test checks positions against the model between
// these full comparisons.
void CheckOrders(KWArray* a, const Model& m) {
    for (int key = 0; key < kKeys; ++key) {
        std::vector<int64_t> expected(m.order[key].begin(), m.order[key].end());
        ASSERT_EQ(Ints(a, key, "seq"), expected) << "key " << key;
    }
}

}  // namespace

TEST(recarr_Model, RandomOperationsMatchVectors) {
    Array a({Field("seq", iFldType_Int32), Field("k", iFldType_Int32), Field("u", iFldType_Int32),
             Field("name", iFldType_Char, 8)},
            {Key("k"), Key("u", iKeyOpt_Unique), Key("name;k", iKeyOpt_Descending | iKeyOpt_CaseInsensitive),
             Key(""), Key("k", iKeyOpt_NonMaintained), Key("seq", iKeyOpt_Unique)});
    Model m;
    std::mt19937 rng(20240);
    auto randomRow = [&] {
        return Row{static_cast<int32_t>(m.rows.size()), static_cast<int32_t>(rng() % 300),
                   static_cast<int32_t>(rng() % 40000), kNames[rng() % 8]};
    };
    auto randomSeq = [&] { return m.order[5][rng() % m.Size()]; };

    constexpr int kSteps = 24000;
    for (int step = 0; step < kSteps; ++step) {
        if (step == kSteps / 2) {  // later adds go to shared blocks
            ASSERT_EQ(KWAPackForRead(a), 0);
        }
        // The last quarter mostly deletes, so that blocks thin out and merge.
        unsigned op = step > kSteps * 3 / 4 ? (rng() % 10 < 7 ? 1 : rng() % 5) : rng() % 10;
        // A stretch without deletes keeps the shared blocks in use for a while.
        if (op == 1 && step >= kSteps / 2 && step < kSteps / 2 + 2000) op = 0;
        if (op == 0 || op >= 5 || m.Size() < 10) {  // add
            const Row r = randomRow();
            const bool taken = m.UniqueTaken(r, -1);
            KWRData* added = Add(a, {I4(r.seq), I4(r.k), I4(r.u), Text(r.name.c_str())});
            ASSERT_EQ(added == nullptr, taken) << "step " << step;
            if (!taken) m.Insert(r);
        } else if (op == 1) {  // delete
            const int32_t seq = randomSeq();
            ASSERT_EQ(KWARecDel(Member(a, seq)), 0);
            for (auto& o : m.order) o.erase(std::find(o.begin(), o.end(), seq));
        } else if (op == 2 || op == 3) {  // post a working copy, or a change in place
            const int32_t seq = randomSeq();
            KWRData* member = Member(a, seq);
            ASSERT_NE(member, nullptr);
            Row after = m.At(seq);
            const unsigned what = rng() % 4;  // k, u, name, k and u
            const bool setK = what == 0 || what == 3, setU = what == 1 || what == 3, inPlace = op == 3;
            KWRData* target = inPlace ? member : KWARecEdit(member);
            if (setK) KWRSetAsInt32(a.F("k"), target, after.k = static_cast<int32_t>(rng() % 300));
            if (setU) KWRSetAsInt32(a.F("u"), target, after.u = static_cast<int32_t>(rng() % 40000));
            if (what == 2) {
                after.name = kNames[rng() % 8];
                KWRSetAsText(a.F("name"), target, static_cast<int32_t>(after.name.size()), after.name.c_str());
            }
            const bool taken = setU && m.UniqueTaken(after, seq);
            // Keep the model simple: undo before posting in place.
            if (inPlace && taken) KWRSetAsInt32(a.F("u"), target, after.u = m.At(seq).u);
            KWRData* out = nullptr;
            const int32_t rc = KWARecPost(target, &out);
            if (!inPlace && taken) {
                ASSERT_EQ(rc, -8) << "step " << step;
                KWARecDel(target);
                continue;
            }
            ASSERT_EQ(rc, 0) << "step " << step;
            ASSERT_EQ(out, member);
            // Keys 0..2 move when one of their fields was set; the place of
            // a working copy is sought with the member still in place.
            for (int key : {0, 1, 2}) {
                if (key == 0 ? !setK : key == 1 ? !setU : what == 1) continue;
                auto& o = m.order[key];
                const int from = m.IndexOf(key, seq), to = m.LowerBound(key, after);
                o.erase(o.begin() + from);
                o.insert(o.begin() + (inPlace ? m.LowerBound(key, after) : to > from ? to - 1 : to), seq);
            }
            m.rows[static_cast<size_t>(seq)] = after;
        } else {  // seeks and positions
            for (int key : {0, 1, 2}) {
                Row probe = randomRow();
                KWRVal cells[2] = {key == 2 ? Text(probe.name.c_str()) : I4(key == 0 ? probe.k : probe.u), I4(probe.k)};
                int32_t pos = -1;
                KWRData* found = KWARecSeekV(a, key, cells, &pos);
                const size_t expect = static_cast<size_t>(m.LowerBound(key, probe));
                const bool equal = expect < m.Size() && Compare(key, m.At(m.order[key][expect]), probe) == 0;
                ASSERT_EQ(found != nullptr, equal) << "step " << step << " key " << key;
                ASSERT_EQ(pos, static_cast<int32_t>(expect)) << "step " << step << " key " << key;
            }
            const int32_t seq = randomSeq();
            for (int key = 0; key < kKeys; ++key)
                ASSERT_EQ(KWARecIdx(a, key, Member(a, seq)), m.IndexOf(key, seq)) << "key " << key;
        }
        if (step % 2000 == 1999) CheckOrders(a, m);
        if (HasFatalFailure()) return;
    }
    CheckOrders(a, m);
    EXPECT_EQ(KWARecCount(a), static_cast<int32_t>(m.Size()));
}
