// Packed tables ("#RA2"), read-from-pack storage, the checked reader, and
// the bounded readers at the edge of their bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "guard_page.h"
#include "test_recarr_util.h"

using namespace recarrtest;

namespace {

const std::string kData = KWZ_TEST_DATA_DIR;

// Every field type, three keys, texts in and out of the images.
void BuildWide(KWArray* a, int rows) {
    const KWRFieldDef fields[] = {
        Field("id", iFldType_Int32), Field("flag", iFldType_Bool), Field("b", iFldType_Byte),
        Field("i1", iFldType_Int8), Field("i2", iFldType_Int16), Field("i8", iFldType_Int64),
        Field("f4", iFldType_Float), Field("f8", iFldType_Double), Field("name", iFldType_Char, 12),
        Field("memo", iFldType_Memo), Field("blob", iFldType_Blob)};
    const KWAKeyDef keys[] = {Key("id", iKeyOpt_Unique | iKeyOpt_Primary), Key("name;i8", iKeyOpt_CaseInsensitive),
                              Key("memo", iKeyOpt_Descending)};
    KWAFldAdd(a, 11, fields);
    KWAKeyAdd(a, 3, keys);
    std::mt19937 rng(7);
    for (int i = 0; i < rows; ++i) {
        const std::string name = "N" + std::to_string(rng() % 50);
        const std::string memo(rng() % 40, static_cast<char>('a' + rng() % 26));
        const std::string blob = std::string("\0\1", 2) + std::to_string(i);
        std::vector<KWRVal> cells = {I4(static_cast<int32_t>(rng() % 100000)), Num<uint8_t>(1, i & 1),
                                     Num<uint8_t>(2, static_cast<uint8_t>(i)), Num<int8_t>(3, static_cast<int8_t>(-i)),
                                     Num<int16_t>(4, static_cast<int16_t>(i * 3)), I8(int64_t{i} << 40),
                                     Null() /* cells cannot set "F4" */, F8(i / 3.0),
                                     Text(name.c_str()), Text(memo.c_str(), iFldType_Memo),
                                     Text(blob.data(), iFldType_Blob, static_cast<int32_t>(blob.size()))};
        if (i % 5 == 0) cells[9] = Null();
        // Duplicate ids are refused, which is fine.
        if (KWRData* m = Add(a, cells); m && i % 3 == 0) {
            KWRSetAsFloat(KWRFldByName(KWAType(a), "f4"), m, 0.5f * static_cast<float>(i));
            KWARecPost(m, nullptr);
        }
    }
}

// Id and Note, keyed on Id; three members base, base - 1, base - 2 with a
// text each (one empty).
struct Notes : Array {
    explicit Notes(int32_t base) : Array({Field("Id", iFldType_Int32), Field("Note", iFldType_Memo)}, {Key("Id")}) {
        const char* notes[] = {"one", "", "three"};
        for (int32_t i = 0; i < 3; ++i) EXPECT_NE(nullptr, Add(*this, {I4(base - i), Text(notes[i], iFldType_Memo)}));
    }
};

std::vector<uint8_t> PackBuff(KWArray* a) {
    std::vector<uint8_t> out(KWAPackBuff(a, nullptr));
    EXPECT_EQ(KWAPackBuff(a, out.data()), out.size());
    return out;
}

}  // namespace

// The tables pinned by tests/data/recarr_table_*.bin: fields A I4 and B CH10,
// key "A" Unique, without records and with (-1, null) and (7, "hi").  The
// older layout reads to the same array, which writes version "2".
TEST(recarr_Pack, GoldenTables) {
    Array a({Field("A", iFldType_Int32), Field("B", iFldType_Char, 10)}, {Key("A", iKeyOpt_Unique)});
    const std::vector<uint8_t> expectEmpty = ReadFile(kData + "/recarr_table_empty.bin");
    EXPECT_EQ(KWAPack(a, nullptr), expectEmpty.size());
    EXPECT_EQ(Pack(a), expectEmpty);

    Add(a, {I4(7), Text("hi")});
    Add(a, {I4(-1), Null()});
    const std::vector<uint8_t> expectRows = ReadFile(kData + "/recarr_table_rows.bin");
    EXPECT_EQ(Pack(a), expectRows);
    EXPECT_EQ(PackBuff(a), expectRows);

    for (const char* file : {"/recarr_table_rows.bin", "/recarr_table_rows_old.bin"}) {
        const std::vector<uint8_t> table = ReadFile(kData + file);
        for (bool forRead : {false, true}) {
            Array back;
            const int64_t n = forRead ? KWAUnpackForRead(back, table.data())
                                      : static_cast<int64_t>(KWAUnpack(back, table.data()));
            EXPECT_EQ(n, static_cast<int64_t>(table.size())) << file;
            EXPECT_EQ(Pack(back), expectRows) << file;
            EXPECT_EQ(KWAUnpackChecked(back, table.data(), table.size(), forRead), static_cast<int64_t>(table.size()));
        }
    }
}

// A table of every field type reads back (either way) and converts between
// the storages keeping the table's bytes and every key's order.
TEST(recarr_Pack, RoundTripsByteForByte) {
    Array a;
    BuildWide(a, 3000);
    ASSERT_GT(KWARecCount(a), 2900);
    const std::vector<uint8_t> table = Pack(a);
    EXPECT_EQ(PackBuff(a), table);

    for (bool forRead : {false, true}) {
        Array back;
        ASSERT_EQ(forRead ? KWAUnpackForRead(back, table.data()) : static_cast<int64_t>(KWAUnpack(back, table.data())),
                  static_cast<int64_t>(table.size()));
        EXPECT_EQ(Pack(back), table);  // key-0 order and images
        EXPECT_EQ(Texts(back, 1, "name"), Texts(a, 1, "name"));
        EXPECT_EQ(Texts(back, 2, "memo"), Texts(a, 2, "memo"));
    }

    Array converted;
    KWAUnpack(converted, table.data());
    EXPECT_EQ(KWAPackForRead(converted), 0);
    EXPECT_EQ(KWAPackForRead(converted), 0);
    EXPECT_EQ(Pack(converted), table);
    EXPECT_EQ(KWAUnpackForWrite(converted), 0);
    EXPECT_EQ(Pack(converted), table);
    EXPECT_EQ(Texts(converted, 2, "memo"), Texts(a, 2, "memo"));
}

// A wrong magic is refused; a table with records but no keys gives the
// fields only.
TEST(recarr_Pack, RefusedAndPartialTables) {
    std::vector<uint8_t> table = ReadFile(kData + "/recarr_table_rows.bin");
    Array a;
    table[2] = 'a';
    EXPECT_EQ(KWAUnpack(a, table.data()), 0u);
    EXPECT_EQ(KWAUnpackForRead(a, table.data()), 0);

    Array keyless({Field("x", iFldType_Int32)});
    Add(keyless, {I4(1)});
    KWAKeyDel(keyless, 0);
    std::vector<uint8_t> t = Pack(keyless);
    ASSERT_EQ(t[5], 1);  // the emptied key 0 is still there: drop its descriptor ("\0", options) by hand
    t.erase(t.begin() + 18 + 4, t.begin() + 18 + 4 + 5);
    t[5] = 0;
    const uint32_t total = static_cast<uint32_t>(t.size());
    std::memcpy(&t[10], &total, 4);
    for (bool forRead : {false, true}) {
        Array back;
        EXPECT_EQ(KWAUnpackChecked(back, t.data(), t.size(), forRead), total);
        EXPECT_EQ(KWAType(back)->fieldCount, 1);
        EXPECT_EQ(KWARecCount(back), 0);
    }
}

// In read mode additions go to the shared blocks, placed as posts place
// them; a post of the same length is written into place and one of another
// length refused; a delete converts the storage back, keeping positions.
TEST(recarr_Store, PostsAndDeletesInReadMode) {
    Array src({Field("A", iFldType_Int32), Field("memo", iFldType_Memo)}, {Key("A")});
    Add(src, {I4(7), Text("abc", iFldType_Memo)});
    Add(src, {I4(-1), Null()});
    const std::vector<uint8_t> table = Pack(src);
    Array a;
    ASSERT_GT(KWAUnpackForRead(a, table.data()), 0);
    for (int v : {5, 100, -7, 3}) ASSERT_NE(Add(a, {I4(v), Text("x", iFldType_Memo)}), nullptr);
    EXPECT_EQ(Ints(a, 0, "A"), (std::vector<int64_t>{-7, -1, 3, 5, 7, 100}));

    KWRData* m7 = KWARec(a, 0, 4);
    KWRData* copy = KWARecEdit(m7);
    KWRSetAsText(a.F("memo"), copy, 5, "abcde");
    EXPECT_EQ(KWARecPost(copy, nullptr), -2);
    KWARecDel(copy);
    copy = KWARecEdit(m7);
    KWRSetAsInt32(a.F("A"), copy, 50);
    KWRData* out = nullptr;
    ASSERT_EQ(KWARecPost(copy, &out), 0);
    EXPECT_EQ(out, m7);
    EXPECT_EQ(Ints(a, 0, "A"), (std::vector<int64_t>{-7, -1, 3, 5, 50, 100}));
    // In place: a longer text moves out of the image; the same length packs back.
    KWRSetAsText(a.F("memo"), m7, 6, "longer");
    EXPECT_EQ(KWARecPost(m7, &out), -2);
    KWRSetAsText(a.F("memo"), m7, 3, "xyz");
    EXPECT_EQ(KWARecPost(m7, &out), 0);
    EXPECT_EQ(AsText(a, m7, "memo"), "xyz");
    EXPECT_EQ(KWARec(a, 0, 4), m7);  // still stored: no conversion so far

    EXPECT_EQ(KWARecDel(KWARec(a, 0, 1)), 0);
    EXPECT_EQ(Ints(a, 0, "A"), (std::vector<int64_t>{-7, 3, 5, 50, 100}));
    EXPECT_EQ(AsText(a, KWARec(a, 0, 3), "memo"), "xyz");
}

// Thousands of additions in read mode, some needing a data block of their
// own, keep their order and pack like the converted array.
TEST(recarr_Store, ManyAdditionsSpanBlocks) {
    Array a({Field("id", iFldType_Int32), Field("memo", iFldType_Memo)},
            {Key("id"), Key("memo", iKeyOpt_CaseInsensitive)});
    ASSERT_EQ(KWAPackForRead(a), 0);
    std::mt19937 rng(3);
    std::vector<int64_t> ids;
    for (int i = 0; i < 9000; ++i) {
        const int32_t id = static_cast<int32_t>(rng() % 5000);
        // Every 1000th text is big enough to need a data block of its own.
        const std::string memo(i % 1000 == 999 ? 0x100001 : rng() % 300, static_cast<char>('A' + i % 26));
        ASSERT_NE(Add(a, {I4(id), Text(memo.c_str(), iFldType_Memo, static_cast<int32_t>(memo.size()))}), nullptr);
        ids.push_back(id);
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(Ints(a, 0, "id"), ids);
    const std::vector<uint8_t> table = Pack(a);
    Array back;
    ASSERT_EQ(KWAUnpack(back, table.data()), table.size());
    EXPECT_EQ(Texts(back, 1, "memo"), Texts(a, 1, "memo"));
    EXPECT_EQ(KWAUnpackForWrite(a), 0);
    EXPECT_EQ(Pack(a), table);
}

// The checked reader takes a good table, refuses every truncation and
// each damage below, and survives random damage.
TEST(table_Checked, RefusesMalformedTables) {
    Array src;
    BuildWide(src, 40);
    const std::vector<uint8_t> table = Pack(src);
    Array a;
    for (bool forRead : {false, true})
        EXPECT_EQ(KWAUnpackChecked(a, table.data(), table.size(), forRead), static_cast<int64_t>(table.size()));
    EXPECT_EQ(Pack(a), table);

    // Truncated, with the total patched to the cut length.
    for (size_t n = 0; n < table.size(); ++n) {
        std::vector<uint8_t> cut(table.begin(), table.begin() + static_cast<std::ptrdiff_t>(n));
        if (n >= 14) {
            const uint32_t total = static_cast<uint32_t>(n);
            std::memcpy(&cut[10], &total, 4);
        }
        ASSERT_EQ(KWAUnpackChecked(a, cut.data(), cut.size(), n & 1), -2) << n;
    }

    const size_t firstType = 18 + 3 + 1;  // "id\0", width, type
    const char nameField[] = "name";
    const size_t nameWidth =
        static_cast<size_t>(std::search(table.begin(), table.end(), nameField, nameField + 5) - table.begin()) + 5;
    // The magic, type codes 0 and 12, "CH" width 0, a total beyond the length.
    const std::pair<size_t, uint8_t> damages[] = {{1, 'r'}, {firstType, 0}, {firstType, 12}, {nameWidth, 0}, {13, 1}};
    for (const auto& [at, value] : damages) {
        std::vector<uint8_t> bad = table;
        bad[at] = value;
        EXPECT_EQ(KWAUnpackChecked(a, bad.data(), bad.size(), false), -2) << at;
    }

    // Random damage never crashes (the sanitizer build watches the reads).
    std::mt19937 rng(11);
    for (int i = 0; i < 3000; ++i) {
        std::vector<uint8_t> bad = table;
        for (int k = 0; k < 3; ++k) bad[rng() % bad.size()] = static_cast<uint8_t>(rng());
        const int64_t rc = KWAUnpackChecked(a, bad.data(), bad.size(), i & 1);
        ASSERT_TRUE(rc == -2 || (rc >= 0 && rc <= static_cast<int64_t>(bad.size()))) << rc;
    }
}

// A table whose key-0 order is not sorted (written elsewhere, or damaged):
// seeks still give what KWLSeek gives over that order, until it is sorted.
TEST(recarr_Pack, UnsortedTableSeeksLikeTheListSearch) {
    Array src({Field("id", iFldType_Int32)}, {Key("id", iKeyOpt_Unique)});
    for (int i = 0; i < 300; ++i) Add(src, {I4(i * 2)});
    std::vector<uint8_t> table = Pack(src);
    const size_t first = 18 + 5 + 7, size = 6 + 5;  // "id" descriptor, key descriptor; image length
    for (size_t i = 0; i < 40; ++i)  // swap images i and 299 - i
        std::swap_ranges(&table[first + i * size], &table[first + (i + 1) * size], &table[first + (299 - i) * size]);
    for (bool forRead : {false, true}) {
        Array a;
        ASSERT_EQ(KWAUnpackChecked(a, table.data(), table.size(), forRead), static_cast<int64_t>(table.size()));
        ExpectSeeksLikeList(a, 0, -1, 600);
        ASSERT_EQ(KWARecSort(a, 0), 0);
        KWRVal cell = I4(8);
        int32_t pos = -1;
        EXPECT_NE(KWARecSeekV(a, 0, &cell, &pos), nullptr);
        EXPECT_EQ(pos, 4);
    }
}

// A copy of a read-mode source takes a stored member's change made in
// place, and leaves the source's stored image alone.
TEST(recarr_Store, CopyOfAReadModeSource) {
    Array src;
    BuildWide(src, 200);
    const std::vector<uint8_t> table = Pack(src);
    Array a;
    ASSERT_GT(KWAUnpackForRead(a, table.data()), 0);
    KWRData* m = KWARec(a, 0, 5);
    KWRSetAsText(a.F("memo"), m, 50, std::string(50, 'q').c_str());
    Array copy;
    ASSERT_EQ(KWACopy(copy, a, iCopyOpt_Rec | iCopyOpt_Key), 0);
    EXPECT_EQ(AsText(copy, KWARec(copy, 0, 5), "memo"), std::string(50, 'q'));
    EXPECT_EQ(Ints(copy, 0, "id"), Ints(a, 0, "id"));
    EXPECT_EQ(Texts(copy, 1, "name"), Texts(a, 1, "name"));
    EXPECT_EQ(m->state, 255);
}

// Every prefix of a plain table and of a container, each ending at the last
// readable byte: only the whole decodes; the target keeps its own members.
TEST(lzop_bounds, UnPackNReadsNothingPastLength) {
    Notes source(30);
    const std::vector<uint8_t> table = Pack(source), container = PackZ(source, true);
    for (bool forRead : {false, true}) {
        for (const auto* bytes : {&table, &container}) {
            Notes target(90);
            const std::vector<uint8_t> before = Pack(target);
            for (size_t n = 0; n < bytes->size(); ++n) {
                kwztest::GuardedBytes cut(bytes->data(), n);
                ASSERT_EQ(-4, KWZArrayUnPackN(target, cut.data(), n, forRead)) << n << " of " << bytes->size();
                ASSERT_EQ(before, Pack(target)) << n;
                if (bytes == &table) {
                    ASSERT_EQ(-2, KWAUnpackChecked(target, cut.data(), n, forRead)) << n;
                }
            }
            kwztest::GuardedBytes whole(*bytes);
            ASSERT_EQ(0, KWZArrayUnPackN(target, whole.data(), whole.size(), forRead));
            EXPECT_EQ(table, Pack(target));
            EXPECT_EQ((std::vector<int64_t>{28, 29, 30}), Ints(target, 0, "Id"));
        }
    }
    EXPECT_EQ(-2, KWZArrayUnPackN(nullptr, table.data(), table.size(), false));
    EXPECT_EQ(-2, KWZArrayUnPackN(source, nullptr, 10, false));
}

// A record that claims fewer bytes than an image header: every reader
// refuses the table with its own code and the array stays as it was.
TEST(lzop_bounds, RecordLengthBelowTheHeaderIsRefused) {
    Notes source(30);
    std::vector<uint8_t> table = Pack(source);
    size_t first = table.size();  // the first record image: the images end the table
    for (int32_t i = 0; KWRData* r = KWARec(source, 0, i); ++i) first -= r->length;
    for (uint32_t bad : {0u, 1u, 5u}) {
        std::memcpy(&table[first], &bad, 4);
        Notes target(90);
        const std::vector<uint8_t> before = Pack(target);
        EXPECT_EQ(-1, KWZArrayUnPack(target, table.data(), false)) << bad;
        EXPECT_EQ(-1, KWZArrayUnPack(target, table.data(), true)) << bad;
        EXPECT_EQ(0u, KWAUnpack(target, table.data())) << bad;
        EXPECT_EQ(0, KWAUnpackForRead(target, table.data())) << bad;
        EXPECT_EQ(-2, KWAUnpackChecked(target, table.data(), table.size(), false)) << bad;
        EXPECT_EQ(-4, KWZArrayUnPackN(target, table.data(), table.size(), true)) << bad;
        EXPECT_EQ(before, Pack(target)) << bad;
        EXPECT_EQ(3, KWARecCount(target));
    }
}
