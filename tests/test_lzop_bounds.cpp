// The bounded readers of packed tables and containers at the edge of their
// bytes: the bytes end where readable memory ends, every shorter length is
// refused with the documented code, and a refused call leaves the array as
// it was.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <cstring>
#include <string>
#include <vector>

#include "guard_page.h"
#include "test_recarr_util.h"

using namespace recarrtest;
using kwztest::GuardedBytes;

namespace {

// Three members with a key on Id, a text each.
void Fill(KWArray* a, int32_t base) {
    const char* notes[] = {"one", "", "three"};
    for (int32_t i = 0; i < 3; ++i) ASSERT_NE(nullptr, Add(a, {I4(base - i), Text(notes[i], iFldType_Memo)}));
}

std::vector<KWRFieldDef> Fields() { return {Field("Id", iFldType_Int32), Field("Note", iFldType_Memo)}; }

std::vector<uint8_t> Container(KWArray* a) {
    void* block = nullptr;
    int32_t n = 0;
    EXPECT_EQ(0, KWZArrayPack(a, &n, &block, true));
    std::vector<uint8_t> out(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    KWMemFree(block);
    return out;
}

// Offset of the first record image in a packed table of `a`.
size_t FirstRecord(KWArray* a, const std::vector<uint8_t>& table) {
    size_t images = 0;
    for (int32_t i = 0; KWRData* r = KWARec(a, 0, i); ++i) images += r->length;
    return table.size() - images;
}

}  // namespace

// Every prefix of a plain table and of a container, each ending at the last
// readable byte: only the whole decodes; the target keeps its own members.
TEST(lzop_bounds, UnPackNReadsNothingPastLength) {
    Array source(Fields(), {Key("Id")});
    Fill(source, 30);
    const std::vector<uint8_t> table = Pack(source);
    const std::vector<uint8_t> container = Container(source);
    for (bool forRead : {false, true}) {
        for (const auto* bytes : {&table, &container}) {
            Array target(Fields(), {Key("Id")});
            Fill(target, 90);
            const std::vector<uint8_t> before = Pack(target);
            for (size_t n = 0; n < bytes->size(); ++n) {
                GuardedBytes cut(bytes->data(), n);
                ASSERT_EQ(-4, KWZArrayUnPackN(target, cut.data(), n, forRead)) << n << " of " << bytes->size();
                ASSERT_EQ(before, Pack(target)) << n;
                if (bytes == &table) {
                    ASSERT_EQ(-2, KWAUnpackChecked(target, cut.data(), n, forRead)) << n;
                }
            }
            GuardedBytes whole(*bytes);
            ASSERT_EQ(0, KWZArrayUnPackN(target, whole.data(), whole.size(), forRead));
            EXPECT_EQ(table, Pack(target));
            EXPECT_EQ((std::vector<int64_t>{28, 29, 30}), Ints(target, 0, "Id"));
        }
    }
    EXPECT_EQ(-2, KWZArrayUnPackN(nullptr, table.data(), table.size(), false));
    EXPECT_EQ(-2, KWZArrayUnPackN(source, nullptr, 10, false));
}

// A record that claims fewer bytes than an image header: the trusting
// readers used to make members of whatever followed; now every reader
// refuses the table with its own code and the array stays as it was.
TEST(lzop_bounds, RecordLengthBelowTheHeaderIsRefused) {
    Array source(Fields(), {Key("Id")});
    Fill(source, 30);
    std::vector<uint8_t> table = Pack(source);
    const size_t first = FirstRecord(source, table);
    for (uint32_t bad : {0u, 1u, 5u}) {
        std::memcpy(&table[first], &bad, 4);
        Array target(Fields(), {Key("Id")});
        Fill(target, 90);
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

// The container readers with a length: the terminator as the last readable
// byte decodes; one byte less does not.
TEST(lzop_bounds, DeCompressAndIsCompressAtTheEdge) {
    const std::string text(5000, 'k');
    void* block = nullptr;
    int32_t n = 0;
    ASSERT_EQ(0, KWZDataCompress(static_cast<int32_t>(text.size()), text.data(), &n, &block));
    const std::vector<uint8_t> container(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    KWMemFree(block);
    {
        GuardedBytes whole(container);
        void* out = nullptr;
        int32_t length = 0;
        ASSERT_EQ(0, KWZDataDeCompress(n, whole.data(), &length, &out));
        EXPECT_EQ(text, std::string(static_cast<char*>(out), static_cast<size_t>(length)));
        KWMemFree(out);
    }
    {
        GuardedBytes cut(container.data(), container.size() - 1);
        void* out = nullptr;
        int32_t length = 0;
        EXPECT_EQ(-4, KWZDataDeCompress(n - 1, cut.data(), &length, &out));
        EXPECT_EQ(nullptr, out);
    }
    const char empty[] = "#LZ200000000";  // the smallest container: magic and terminator
    for (int32_t len : {12, 11}) {
        GuardedBytes bytes(empty, static_cast<size_t>(len));
        bool flag = !(len == 12);
        EXPECT_EQ(0, KWZDataIsCompress(len, bytes.data(), &flag));
        EXPECT_EQ(len == 12, flag);
    }
}
