// Record arrays: fields, keys and their orders, the edit protocol, seeks,
// positions and copies.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "kwz_test_util.h"
#include "test_recarr_util.h"

using namespace recarrtest;

static std::vector<KWRFieldDef> IdNameValue() {
    return {Field("id", iFldType_Int32), Field("name", iFldType_Char, 20), Field("value", iFldType_Double)};
}

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
    KWRData* pending = KWARecNew(a);
    KWRData* member = KWARec(a, 0, 0);
    KWRData* copy = KWARecEdit(member);
    ASSERT_NE(copy, nullptr);

    const KWRFieldDef more[] = {Field("C", iFldType_Int64)};
    EXPECT_EQ(KWAFldAdd(a, 1, more), 0);
    EXPECT_EQ(KWARecCount(a), 0);
    EXPECT_EQ(KWAType(a)->fieldCount, 3);
    // Working records made before the fields changed are stale.
    EXPECT_EQ(KWARecPost(pending, nullptr), -5);
    KWRSetAsInt32(KWAType(a)->fields, copy, 5);
    EXPECT_EQ(KWARecPost(copy, nullptr), -5);
    KWARecDel(pending);
    KWARecDel(copy);

    // A bad definition (a name taken in another case, an unknown type) keeps the old fields.
    for (const KWRFieldDef& bad : {Field("b", iFldType_Int8), Field("D", 12)}) EXPECT_EQ(KWAFldAdd(a, 1, &bad), -3);
    EXPECT_EQ(KWAType(a)->fieldCount, 3);
    KWADestroy(a);
}

TEST(recarr_Fields, LimitsAndEmptyArray) {
    Array a;
    EXPECT_EQ(KWARecNew(a), nullptr);  // no fields
    EXPECT_EQ(KWARecAdd(a, nullptr), nullptr);
    std::vector<KWRFieldDef> many;
    for (int i = 0; i < 300; ++i) many.push_back(Field(("f" + std::to_string(i)).c_str(), iFldType_Byte));
    EXPECT_EQ(KWAFldAdd(a, 300, many.data()), 0);
    EXPECT_EQ(KWAType(a)->fieldCount, 255);  // the rest is ignored
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
         {Text(kTexts[5], 10), Text(kTexts[6], 10), Text(kTexts[7], 10), Text(kTexts[8], 10)}, {3, 2, 1, 0}},
        {"CB", Field("v", iFldType_Blob), 0,
         {Text("ab\0", 11, 3), Text("ab", 11, 2), Text("", 11, 0), Text("\x01", 11, 1), Null()}, {4, 2, 3, 1, 0}},
        {"no fields", Field("v", iFldType_Int32), 0, {I4(3), I4(1), I4(2)}, {0, 1, 2}},
        {"no fields desc", Field("v", iFldType_Int32), iKeyOpt_Descending, {I4(3), I4(1), I4(2)}, {2, 1, 0}},
        {"non-maintained", Field("v", iFldType_Int32), iKeyOpt_NonMaintained, {I4(3), I4(1), I4(2)}, {0, 1, 2}},
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

TEST(recarr_Order, CompositeKeyAndComparators) {
    Array a({Field("A", iFldType_Int32), Field("B", iFldType_Char, 4), Field("C", iFldType_Double)},
            {Key(" A ; B ", 0), Key("C")});
    Add(a, {I4(1), Text("b"), F8(1)});
    Add(a, {I4(0), Text("z"), F8(2)});
    Add(a, {I4(1), Text("a"), F8(std::nan(""))});
    Add(a, {I4(1), Null(), F8(0)});
    EXPECT_EQ(Texts(a, 0, "B"), (std::vector<std::string>{"z", "<null>", "a", "b"}));

    // A comparison involving NaN orders the left operand first, both ways.
    KWAKey* keyC = KeyOf(a, 1);
    ASSERT_NE(keyC, nullptr);
    KWRData* nanRec = KWARecSeekV(a, 0, std::vector<KWRVal>{I4(1), Text("a")}.data(), nullptr);
    KWRData* one = KWARecSeekV(a, 0, std::vector<KWRVal>{I4(1), Text("b")}.data(), nullptr);
    ASSERT_TRUE(nanRec && one);
    EXPECT_EQ(KWARecComp(keyC, nanRec, one), -1);
    EXPECT_EQ(KWARecComp(keyC, one, nanRec), -1);
    EXPECT_EQ(KWARecComp(keyC, one, one), 0);
    KWRVal nanCell = F8(std::nan(""));
    EXPECT_EQ(KWAVarComp(keyC, one, &nanCell), -1);
}

TEST(recarr_Unique, NewEditedAndInPlaceDuplicatesAreRefused) {
    // The code is -(7 + k) for the Unique key k that would hold a duplicate.
    Array a(IdNameValue(), {Key("id", iKeyOpt_Unique), Key("value", iKeyOpt_Unique), Key("name")});
    KWRData* r1 = Add(a, {I4(1), Text("one"), F8(1)});
    KWRData* r2 = Add(a, {I4(2), Text("two"), F8(2)});
    ASSERT_TRUE(r1 && r2);
    const KWRField* id = a.F("id");

    // A new record: nothing inserted, the record left to the caller.
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

    // A working copy that would collide; one that keeps its own value.
    KWRData* out = nullptr;
    KWRData* copy = KWARecEdit(r1);
    KWRSetAsInt32(id, copy, 2);
    EXPECT_EQ(KWARecPost(copy, &out), -7);
    EXPECT_EQ(AsInt(a, r1, "id"), 1);
    KWRSetAsInt32(id, copy, 1);
    KWRSetAsText(a.F("name"), copy, 3, "zed");
    EXPECT_EQ(KWARecPost(copy, &out), 0);
    EXPECT_EQ(out, r1);
    EXPECT_EQ(Texts(a, 2, "name"), (std::vector<std::string>{"two", "zed"}));

    // A member changed in place: refused and back at its old position.
    KWRSetAsInt32(id, r2, 1);
    EXPECT_EQ(KWARecPost(r2, &out), -7);
    EXPECT_EQ(KWARec(a, 0, 1), r2);
    KWRSetAsInt32(id, r2, 0);
    EXPECT_EQ(KWARecPost(r2, &out), 0);
    EXPECT_EQ(Ints(a, 0, "id"), (std::vector<int64_t>{0, 1}));
}

TEST(recarr_Edit, ProtocolAndChangeCounter) {
    kwztest::LogCapture log;
    Array a(IdNameValue(), {Key("id")});
    EXPECT_EQ(KWARecPost(nullptr, nullptr), 0);
    KWRData* r = Add(a, {I4(10), Text("ten"), F8(10)});
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(KWARecArr(r), static_cast<KWArray*>(a));
    // Posted members carry no edited bits.
    uint8_t edited = 1;
    KWRIsEdit(a.F("id"), r, &edited);
    EXPECT_EQ(edited, 0);

    // An unchanged working copy gives back the member.
    KWRData* copy = KWARecEdit(r);
    KWRData* out = nullptr;
    EXPECT_EQ(KWARecPost(copy, &out), 0);
    EXPECT_EQ(out, r);

    // A member whose text moved out of its image cannot be edited until posted.
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

TEST(recarr_Seek, PositionsMatchTheListSearch) {
    // Duplicates under a Unique key (added over existing data) make the
    // early stop visible: the position is the first match the binary
    // search meets, exactly as KWLSeek gives it over the same sequence.
    Array a({Field("k", iFldType_Int32), Field("seq", iFldType_Int32)}, {Key("seq")});
    for (int i = 0; i < 700; ++i) Add(a, {I4(i / 7), I4(i)});
    const KWAKeyDef uniqueK = Key("k", iKeyOpt_Unique);
    const KWAKeyDef plainK = Key("k");
    ASSERT_EQ(KWAKeyAdd(a, 1, &uniqueK), 0);
    ASSERT_EQ(KWAKeyAdd(a, 1, &plainK), 0);

    for (int32_t key : {1, 2}) ExpectSeeksLikeList(a, key, -1, 101, "k");
}

TEST(recarr_Seek, EdgeArguments) {
    Array a(IdNameValue(), {Key(""), Key("", iKeyOpt_Descending), Key("id")});
    for (int i = 0; i < 5; ++i) Add(a, {I4(i), Null(), Null()});
    KWRVal cells[1] = {I4(3)};
    int32_t pos = 99;
    EXPECT_EQ(KWARecSeekV(a, 0, cells, &pos), nullptr);
    EXPECT_EQ(pos, 5);  // a key without fields: the member count
    EXPECT_EQ(KWARecSeekV(a, 1, cells, &pos), nullptr);
    EXPECT_EQ(pos, 0);  // ... 0 with Descending
    EXPECT_EQ(KWARecSeekV(a, 16, cells, &pos), nullptr);
    EXPECT_EQ(pos, -1);
    EXPECT_EQ(KWARecSeekF(a, 2, nullptr, nullptr, &pos), nullptr);
    EXPECT_NE(KWARecSeekV(a, 2, cells, &pos), nullptr);
    EXPECT_EQ(pos, 3);
    KWRVal missing[1] = {I4(10)};
    EXPECT_EQ(KWARecSeekV(a, 2, missing, &pos), nullptr);
    EXPECT_EQ(pos, 5);
    EXPECT_EQ(KWARec(a, 2, 5), nullptr);
    EXPECT_EQ(KWARec(a, 2, -1), nullptr);
    EXPECT_EQ(KWARecIdx(a, 17, KWARec(a, 0, 0)), -1);

    Array other(IdNameValue(), {Key("id")});
    KWRData* foreign = Add(other, {I4(3), Null(), Null()});
    EXPECT_EQ(KWARecIdx(a, 2, foreign), -1);
    EXPECT_EQ(KWARecIdx(other, 0, foreign), 0);
}

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

    // At most 16 keys; the rest is ignored.
    std::vector<KWAKeyDef> many(20, Key("name"));
    EXPECT_EQ(KWAKeyAdd(a, 20, many.data()), 0);
    EXPECT_NE(KWARec(a, 15, 2), nullptr);
    EXPECT_EQ(KWARec(a, 16, 0), nullptr);

    // Deleting keys; the last one keeps every member in its order.
    while (KWARec(a, 1, 0)) EXPECT_EQ(KWAKeyDel(a, 0), 0);
    EXPECT_EQ(KWAKeyDel(a, 0), 0);
    EXPECT_EQ(KWAKeyDel(a, 5), 0);
    EXPECT_EQ(KWARecCount(a), 3);
    int32_t pos = -1;
    KWRVal cells[1] = {I4(2)};
    EXPECT_EQ(KWARecSeekV(a, 0, cells, &pos), nullptr);  // no fields any more
    EXPECT_EQ(pos, 3);

    EXPECT_EQ(KWAClearKey(a), 0);
    EXPECT_EQ(KWARecCount(a), 0);
}

TEST(recarr_Keys, NonMaintainedKeyIsSortedOnRequest) {
    Array a(IdNameValue(), {Key("id"), Key("name", iKeyOpt_NonMaintained)});
    for (const char* n : {"c", "a", "b"}) Add(a, {I4(n[0]), Text(n), Null()});
    EXPECT_EQ(Texts(a, 1, "name"), (std::vector<std::string>{"c", "a", "b"}));
    KWRData* c = KWARec(a, 1, 0);
    KWRData* copy = KWARecEdit(c);
    KWRSetAsText(a.F("name"), copy, 1, "0");
    KWARecPost(copy, nullptr);
    EXPECT_EQ(KWARec(a, 1, 0), c);  // stays where it is
    EXPECT_EQ(KWARecSort(a, 1), 0);
    EXPECT_EQ(Texts(a, 1, "name"), (std::vector<std::string>{"0", "a", "b"}));
    EXPECT_EQ(KWARecSort(a, 9), -1);
}

TEST(recarr_Copy, OptionsDecideWhatIsCopied) {
    Array src(IdNameValue(), {Key("id", iKeyOpt_Unique | iKeyOpt_Primary), Key("name", iKeyOpt_Descending)});
    for (int i = 0; i < 50; ++i) Add(src, {I4(i), Text(std::to_string(i % 7).c_str()), F8(i)});
    KWRSetAsDouble(src.F("value"), KWARec(src, 0, 3), 99.5);  // changed in place, not posted

    Array both;
    ASSERT_EQ(KWACopy(both, src, iCopyOpt_Rec | iCopyOpt_Key), 0);
    EXPECT_EQ(Texts(both, 1, "name").front(), "6");
    double v = 0;
    KWRGetAsDouble(both.F("value"), KWARec(both, 0, 3), &v);
    EXPECT_EQ(v, 99.5);
    EXPECT_EQ(Pack(both), Pack(src));  // fields, keys, key-0 order and images

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

TEST(recarr_Order, NaNSortsLastWithoutRunningOffTheList) {
    Array a({Field("v", iFldType_Double), Field("seq", iFldType_Int32)}, {Key("seq"), Key("v")});
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double values[] = {1, nan, 0, nan, 2, nan, -5, 3, nan};
    for (int round = 0; round < 20; ++round)
        for (double v : values) Add(a, {F8(v), I4(round)});
    ASSERT_EQ(KWARecSort(a, 1), 0);
    bool seenNan = false;
    double last = -1e300;
    for (int32_t i = 0; KWRData* r = KWARec(a, 1, i); ++i) {
        double v = 0;
        KWRGetAsDouble(a.F("v"), r, &v);
        if (std::isnan(v)) {
            seenNan = true;
            continue;
        }
        EXPECT_FALSE(seenNan) << "a number after a NaN at " << i;
        EXPECT_LE(last, v);
        last = v;
    }
    const KWAKeyDef again = Key("v", iKeyOpt_Descending);
    EXPECT_EQ(KWAKeyAdd(a, 1, &again), 0);
    EXPECT_EQ(KWARecCount(a), 180);
}
