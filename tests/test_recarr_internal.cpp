// Allocation-failure runs over types, records, record arrays and the
// container: the n-th allocation fails for n = 1, 2, 3 ... until a run
// completes.  A failed run must give the documented code and leave the
// object as it was; the sanitizer build checks that nothing leaks.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "base/kwMem.h"
#include "fault_harness.h"
#include "rec/kwRecArrOrder.h"
#include "test_recarr_util.h"

using namespace recarrtest;
using kwz::test::ForEachAllocationFailure;

namespace {

// After the operation: whether its run met the armed allocation.  When it
// did not, the fault is switched off so that the checks may allocate (and
// the harness sees a completed run); when it did, it cannot fire again.
template <typename Fired>
bool Settle(Fired fired) {
    const bool f = fired();
    if (!f) kwz::FaultArm(0);
    return f;
}

// What a caller can see of an array: its packed table and each key's order.
struct Snapshot {
    std::vector<uint8_t> table;
    std::vector<std::vector<int64_t>> keys;
    bool operator==(const Snapshot& o) const { return table == o.table && keys == o.keys; }
};
Snapshot Take(KWArray* a, int32_t keys = 2) {
    Snapshot s{Pack(a), {}};
    for (int32_t k = 0; k < keys; ++k) s.keys.push_back(Ints(a, k, "Id"));
    return s;
}

std::vector<KWRFieldDef> Fields() {
    return {Field("Id", iFldType_Int32), Field("Grp", iFldType_Int32), Field("Note", iFldType_Memo)};
}

// 300 members: key 0 on Id (unique) fills two blocks, key 1 on Grp;Id.
void Fill(KWArray* a, int32_t count = 300) {
    for (int32_t i = 0; i < count; ++i)
        ASSERT_NE(nullptr, Add(a, {I4(i * 2), I4(i % 7), Text("note", iFldType_Memo)}));
}

const std::vector<KWAKeyDef> kKeys = {Key("Id", iKeyOpt_Unique), Key("Grp;Id")};

// Runs op under every allocation failure: failed(rc) checks what a run that
// met the armed allocation left; the run that completes must give 0.  The
// number of failed runs.
template <typename Op, typename Failed>
int64_t EachFailure(Op op, Failed failed) {
    return ForEachAllocationFailure([&](auto fired) {
        const auto rc = op();
        if (Settle(fired)) {
            failed(rc);
        } else {
            EXPECT_EQ(decltype(rc){0}, rc);
        }
    });
}

// Runs op (0 on success) under every allocation failure: a failed run gives
// `failed` and leaves `a` as it was.  The number of failed runs.
template <typename Op>
int64_t ExpectAllOrNothing(KWArray* a, int64_t failed, Op op) {
    const Snapshot before = Take(a);
    return EachFailure([&] { return int64_t{op()}; }, [&](int64_t rc) {
        EXPECT_EQ(failed, rc);
        EXPECT_TRUE(before == Take(a));
    });
}

}  // namespace

TEST(fault_rec, TypeParsing) {
    const char* def = "ALL|11|all types\r\nB|L1\r\nU8|B1|a byte\r\nS8|I1\r\nS16|I2\r\nS32|I4\r\n"
                      "S64|I8\r\nF32|F4\r\nF64|F8\r\nName|CH20\r\nMemo|CM|text\r\nBlob|CB";
    KWRType type;
    KWRTypInit(&type);
    const int64_t failures = EachFailure([&] { return KWRTypSet(&type, 9, def); }, [&](uint32_t rc) {
        // The type's own storage failing reads as a syntax error (4), which
        // callers treat as any refused definition; the parser's working
        // storage as -1.
        EXPECT_TRUE(rc == KWR_NOMEM || rc == KWR_SYNTAX) << rc;
        EXPECT_EQ(std::make_tuple(0, (KWRField*)nullptr, (char*)nullptr, 9u),
                  std::make_tuple(int(type.fieldCount), type.fields, type.description, type.id));
    });
    EXPECT_GE(failures, 3);
    EXPECT_EQ(11, type.fieldCount);
    KWRTypFree(&type);
}

// The definition text of a type, and a type generated from an image.
TEST(fault_rec, TypeTextAndGeneration) {
    Array a(Fields());
    const KWRType* type = KWAType(a);
    ForEachAllocationFailure([&](auto fired) {
        char* text = reinterpret_cast<char*>(1);
        const uint32_t rc = KWRTypGet(type, &text);
        if (Settle(fired)) {
            EXPECT_EQ(std::make_tuple(KWR_NOMEM, (char*)nullptr), std::make_tuple(rc, text));
        } else {
            EXPECT_EQ(0u, rc);
        }
        KWMemFree(text);
    });
    const std::vector<KWRVal> cells = {I4(1), I4(2), Text("note", iFldType_Memo)};
    KWRData* rec = KWRRecAlloc(type, cells.data());
    ASSERT_NE(nullptr, rec);
    KWRType generated;
    KWRTypInit(&generated);
    EachFailure([&] { return KWRTypGen(&generated, "GEN", rec); }, [&](uint32_t rc) {
        EXPECT_TRUE(rc == KWR_NOMEM || rc == KWR_SYNTAX) << rc;  // the type's storage: 4, as KWRTypSet
        EXPECT_EQ(std::make_tuple(0, (KWRField*)nullptr), std::make_tuple(int(generated.fieldCount), generated.fields));
    });
    EXPECT_EQ(3, generated.fieldCount);
    KWRTypFree(&generated);
    KWRRecRelease(rec);
}

TEST(fault_rec, RecordBuildingAndPacking) {
    Array a(Fields());
    const KWRType* type = KWAType(a);
    const std::string big(300, 'x');
    const std::vector<KWRVal> cells = {I4(1), I4(2), Text(big.c_str(), iFldType_Memo)};
    ForEachAllocationFailure([&](auto fired) {
        KWRData* rec = KWRRecAlloc(type, cells.data());
        EXPECT_EQ(Settle(fired), rec == nullptr);
        KWRRecRelease(rec);
    });
    // A text that outgrows its place goes to an owned block; packing makes a
    // new image.  Either failure leaves the record as it was.
    KWRData rec;
    KWRRecInit(&rec);
    ASSERT_EQ(0u, KWRRecNew(type, &rec));
    const KWRField* note = &type->fields[2];
    ASSERT_EQ(0u, KWRSetAsText(note, &rec, 4, "tiny"));
    ASSERT_EQ(0u, KWRRecPack(type, &rec, 1, 1));
    const std::vector<uint8_t> packed(rec.image, rec.image + rec.length);
    EachFailure([&] { return KWRSetAsText(note, &rec, static_cast<int32_t>(big.size()), big.data()); },
                [&](uint32_t rc) {
                    EXPECT_EQ(KWR_NOMEM, rc);
                    EXPECT_EQ(packed, std::vector<uint8_t>(rec.image, rec.image + rec.length));
                    EXPECT_EQ(0, rec.state);
                });
    const uint8_t state = rec.state;
    const std::vector<uint8_t> changed(rec.image, rec.image + rec.length);
    EachFailure([&] { return KWRRecPack(type, &rec, 1, 1); }, [&](uint32_t rc) {
        EXPECT_EQ(KWR_NOMEM, rc);
        EXPECT_EQ(std::make_tuple(changed, state),
                  std::make_tuple(std::vector<uint8_t>(rec.image, rec.image + rec.length), rec.state));
    });
    KWRRecFree(&rec);
}

// Adding and posting a new record: NULL or -1, the array unchanged, the
// working record still the caller's.
TEST(fault_recarr, AddAndPostNew) {
    for (bool readMode : {false, true}) {
        Array a(Fields(), kKeys);
        Fill(a, 256);  // key 0's first block is full: the next insert splits it
        if (readMode) {
            ASSERT_EQ(0, KWAPackForRead(a));
        }
        const std::vector<KWRVal> cells = {I4(1), I4(3), Text("added", iFldType_Memo)};  // between members
        ExpectAllOrNothing(a, -1, [&] { return KWARecAdd(a, cells.data()) ? 0 : -1; });
        EXPECT_EQ(257, KWARecCount(a));
        ExpectSeeksLikeList(a, 0, -1, 520, "Id");
        const int32_t next = 3;
        const Snapshot beforeNext = Take(a);
        KWRData* rec = nullptr;
        EachFailure(
            [&] {
                KWRData* member = nullptr;
                rec = KWARecNew(a);
                if (!rec) return -100;
                KWRSetAsInt32(KWAType(a)->fields, rec, next);
                return KWARecPost(rec, &member);
            },
            [&](int32_t rc) {
                EXPECT_TRUE(rec == nullptr || rc == -1 || rc == -3) << rc;
                EXPECT_TRUE(beforeNext == Take(a));
                KWARecDel(rec);  // still the caller's
            });
        EXPECT_EQ(258, KWARecCount(a));
    }
}

// Posting a member changed in place and a working copy: -1 with every key
// as it was (the in-place change itself stays with the member).
TEST(fault_recarr, PostInPlaceAndCopy) {
    Array a(Fields(), kKeys);
    Fill(a);
    const KWRField* id = a.F("Id");
    const KWRField* grp = a.F("Grp");
    for (int32_t round = 0; round < 2; ++round) {
        KWRData* member = KWARec(a, 0, 10);
        ASSERT_NE(nullptr, member);
        ASSERT_EQ(0u, KWRSetAsInt32(id, member, 1001 + round * 2));
        ASSERT_EQ(0u, KWRSetAsInt32(grp, member, 5));
        if (round) {  // a text that outgrows the image: packing allocates too
            ASSERT_EQ(0u, KWRSetAsText(a.F("Note"), member, 100, std::string(100, 'n').c_str()));
        }
        const std::vector<int64_t> key0 = Ints(a, 0, "Id");
        const std::vector<int64_t> key1 = Ints(a, 1, "Id");
        KWRData* out = nullptr;
        EachFailure([&] { return KWARecPost(member, &out); }, [&](int32_t rc) {
            EXPECT_EQ(-1, rc);
            EXPECT_EQ(key0, Ints(a, 0, "Id"));
            EXPECT_EQ(key1, Ints(a, 1, "Id"));
        });
        ExpectSeeksLikeList(a, 0, -1, 1010, "Id");
    }
    const Snapshot before = Take(a);
    const std::string longNote(200, 'n');
    KWRData* copy = nullptr;
    EachFailure(
        [&] {
            copy = KWARecEdit(KWARec(a, 0, 20));
            if (!copy) return -100;
            KWRSetAsInt32(id, copy, 2001);
            const bool texted = KWRSetAsText(a.F("Note"), copy, 200, longNote.c_str()) == 0;
            return texted ? KWARecPost(copy, nullptr) : -1;
        },
        [&](int32_t rc) {
            EXPECT_TRUE(copy == nullptr || rc == -1) << rc;
            EXPECT_TRUE(before == Take(a));
            KWARecDel(copy);  // still the caller's
        });
    EXPECT_EQ(2001, Ints(a, 0, "Id").back());
}

// Deleting allocates nothing, except in read mode, where the array first
// goes back to individual records (-3 when that fails, array unchanged).
TEST(fault_recarr, Delete) {
    for (bool readMode : {false, true}) {
        Array a(Fields(), kKeys);
        Fill(a, 40);
        if (readMode) {
            ASSERT_EQ(0, KWAPackForRead(a));
        }
        const int64_t failures = ExpectAllOrNothing(a, -3, [&] { return KWARecDel(KWARec(a, 1, 5)); });
        EXPECT_EQ(readMode, failures > 0);
        EXPECT_EQ(39, KWARecCount(a));
    }
}

TEST(fault_recarr, KeysSortAndReadMode) {
    Array a(Fields(), {Key("Id")});
    Fill(a, 50);
    const KWAKeyDef key = Key("Grp;Id");
    EachFailure([&] { return KWAKeyAdd(a, 1, &key); }, [&](int32_t rc) {
        EXPECT_EQ(-1, rc);
        EXPECT_EQ(nullptr, KWARec(a, 1, 0));  // no half-made key
    });
    // Into read-from-pack storage and back: -1 and the array as it was.
    for (int32_t (*convert)(KWArray*) : {KWAPackForRead, KWAUnpackForWrite})
        ExpectAllOrNothing(a, -1, [&] { return convert(a); });
}

// Copying into an array with members of its own: -1 and the destination as
// it was; adding in read-from-pack mode: NULL and the array as it was.
TEST(fault_recarr, CopyAndAddInReadMode) {
    Array source(Fields(), kKeys);
    Fill(source, 40);
    Array target(Fields(), kKeys);
    Fill(target, 3);
    ExpectAllOrNothing(target, -1, [&] { return KWACopy(target, source, iCopyOpt_Rec | iCopyOpt_Key); });
    EXPECT_TRUE(Take(source) == Take(target));
    ASSERT_EQ(0, KWAPackForRead(target));
    const std::vector<KWRVal> cells = {I4(1), I4(3), Text("added", iFldType_Memo)};
    ExpectAllOrNothing(target, -1, [&] { return KWARecAddPack(target, cells.data()) ? 0 : -1; });
    EXPECT_EQ(41, KWARecCount(target));
}

// Packing gives 0 (-1 from the helper) and no block; every unpacker leaves
// the target as it was.
TEST(fault_recarr, PackAndUnpack) {
    Array source(Fields(), kKeys);
    Fill(source, 60);
    const std::vector<uint8_t> table = Pack(source);
    std::vector<uint8_t> container;
    ForEachAllocationFailure([&](auto fired) {
        void* block = nullptr;
        int32_t n = 0;
        const int32_t rc = KWZArrayPack(source, &n, &block, true);
        if (Settle(fired) && !(rc == 0 && block)) {  // a failed shrink keeps the larger block
            EXPECT_EQ(std::make_tuple(-1, (void*)nullptr), std::make_tuple(rc, block));
        } else {
            ASSERT_EQ(0, rc);
            container.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
        }
        KWMemFree(block);
    });
    // Each unpacker as 0 on success, else its failure code.
    const auto unpack = [&](int how, KWArray* t, bool forRead) -> int64_t {
        switch (how) {
        case 0: return KWAUnpack(t, table.data()) > 0 ? 0 : -1;
        case 1: return KWAUnpackForRead(t, table.data()) > 0 ? 0 : -1;
        case 2: return std::min<int64_t>(0, KWAUnpackChecked(t, table.data(), table.size(), forRead));
        case 3: return KWZArrayUnPack(t, container.data(), forRead);
        default: return KWZArrayUnPackN(t, container.data(), container.size(), forRead);
        }
    };
    for (int how = 0; how < 5; ++how) {
        for (bool forRead : {false, true}) {
            SCOPED_TRACE(how);
            Array target(Fields(), kKeys);
            Fill(target, 5);
            ExpectAllOrNothing(target, -1, [&] { return unpack(how, target, forRead); });
            EXPECT_EQ(table, Pack(target));
        }
    }
}

TEST(fault_lzop, ContainerReading) {
    const std::string text(200000, 'z');
    void* block = nullptr;
    int32_t n = 0;
    ASSERT_EQ(0, KWZDataCompress(static_cast<int32_t>(text.size()), text.data(), &n, &block));
    void* out = nullptr;
    int32_t length = -5;
    const auto decompress = [&] {
        KWMemFree(out);  // the previous run's block, if it made one
        out = nullptr;
        length = -5;
        return KWZDataDeCompress(n, block, &length, &out);
    };
    EachFailure(decompress, [&](int32_t rc) {
        EXPECT_EQ(std::make_tuple(-1, (void*)nullptr, 0), std::make_tuple(rc, out, length));
    });
    EXPECT_EQ(text, std::string(static_cast<char*>(out), static_cast<size_t>(length)));
    KWMemFree(out);
    KWMemFree(block);
}

// The key order against a plain vector: random inserts, erases and
// replacements through block splits and merges (its invariant checks run
// after each change in debug and sanitizer builds); after Reserve, an erase
// and an insert allocate nothing.
TEST(fault_recarr, KeyOrderAgainstAVector) {
    using kwz::recarr::Entry;
    using kwz::recarr::KeyOrder;
    KeyOrder order;
    std::vector<Entry> model;
    std::mt19937 rng(5);
    auto entry = [](uint32_t n) { return Entry{reinterpret_cast<KWRData*>(uintptr_t{n} * 8 + 8), n}; };
    for (uint32_t step = 0; step < 40000; ++step) {
        const uint32_t size = static_cast<uint32_t>(model.size());
        const uint32_t op = rng() % 10;
        const uint32_t at = size ? rng() % (size + 1) : 0;
        // Grow for the first half, shrink for the second.
        if (size == 0 || op < (step < 20000 ? 6u : 3u)) {
            const bool tail = rng() % 3 == 0;
            const uint32_t pos = tail ? size : at;
            order.Reserve();
            kwz::FaultArm(1);
            order.Insert(static_cast<int32_t>(pos), entry(step));
            ASSERT_FALSE(kwz::FaultFired()) << "insert after Reserve allocated";
            kwz::FaultArm(0);
            model.insert(model.begin() + pos, entry(step));
        } else if (op < 9) {
            const uint32_t pos = at % size;
            const Entry out = order.Erase(static_cast<int32_t>(pos));
            ASSERT_EQ(model[pos].rec, out.rec);
            model.erase(model.begin() + pos);
        } else {
            const uint32_t pos = at % size;
            order.Set(static_cast<int32_t>(pos), entry(step));
            model[pos] = entry(step);
        }
        ASSERT_EQ(static_cast<int32_t>(model.size()), order.Size());
        if (step % 997 == 0 || step + 1 == 40000) {
            for (size_t i = 0; i < model.size(); ++i) {
                ASSERT_EQ(model[i].rec, order.At(static_cast<int32_t>(i)).rec) << step << " " << i;
                ASSERT_EQ(model[i].prefix, order.At(static_cast<int32_t>(i)).prefix);
            }
            if (!model.empty()) {
                ASSERT_EQ(0, order.IndexOf(model[0].rec));
            }
        }
    }
}
