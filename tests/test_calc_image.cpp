// The value image: bytes of small values, measuring, growth past the stack
// area, and hostile input through CVarFromBuffN.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "test_calc_util.h"

using namespace calctest;

namespace {

// An image nested `depth` arrays deep around an empty value.
std::vector<uint8_t> Nested(int depth) {
    std::vector<uint8_t> out;
    for (int i = 0; i < depth; ++i) out.insert(out.end(), {4, 1, 0, 0, 0});
    out.push_back(0);
    return out;
}

}  // namespace

TEST(calcImage, BytesOfSmallValuesAndTheirReadBack) {
    struct Row { const char* what; Make value; const char* hex; };
    const std::vector<Row> rows = {
        {"empty", Empty(), "00"},
        {"int", Int(1), "01 0100000000000000"},
        {"negative int", Int(-2), "01 feffffffffffffff"},
        {"double", Dbl(1.0), "02 000000000000f03f"},
        {"string", Str("ab"), "03 02000000 6162"},
        {"empty string", Str(""), "03 00000000"},
        {"string with a 0 byte", Str(std::string("a\0", 2)), "03 02000000 6100"},
        {"[1, \"ab\", []]", Arr({Int(1), Str("ab"), Arr({})}),
         "04 03000000 01 0100000000000000 03 02000000 6162 04 00000000"},
        {"[[empty]]", Arr({Arr({Empty()})}), "04 01000000 04 01000000 00"},
    };
    for (const auto& r : rows) {
        Val v;
        r.value(&v.v);
        const std::vector<uint8_t> expect = Hex(r.hex);
        EXPECT_EQ(CVarToBuff(&v.v, nullptr, 0), int32_t(expect.size())) << r.what;
        EXPECT_EQ(Image(&v.v), expect) << r.what;
        for (bool bounded : {false, true}) {
            Val back;
            CVarSetStr(&back.v, "replaced", 8);
            const int32_t n = bounded ? CVarFromBuffN(&back.v, expect.data(), int32_t(expect.size()))
                                      : CVarFromBuff(&back.v, expect.data());
            EXPECT_EQ(n, int32_t(expect.size())) << r.what;
            EXPECT_EQ(Image(&back.v), expect) << r.what;
        }
    }
}

TEST(calcImage, RoomCutsTheCopyButNotTheSize) {
    Val v;
    Arr({Int(1), Str("ab"), Arr({})})(&v.v);
    std::vector<uint8_t> buf(40, 0xEE);
    EXPECT_EQ(CVarToBuff(&v.v, buf.data(), 7), 26);
    EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 7), Hex("04 03000000 01 01"));
    EXPECT_EQ(buf[7], 0xEE);
    EXPECT_EQ(CVarToBuff(&v.v, buf.data(), 0), 26);
    EXPECT_EQ(buf[0], 0x04);  // untouched since the first call
    EXPECT_EQ(CVarToBuff(nullptr, buf.data(), 40), 0);
}

TEST(calcImage, LargeImagesLeaveTheStackArea) {
    // 1,000 strings of 16 bytes (21 bytes each) and one of 5,000: the work
    // buffer grows several times.
    Val v;
    CVarSetArr(&v.v, 1001);
    for (int i = 0; i < 1000; ++i) {
        char text[17];
        std::snprintf(text, sizeof text, "item-%011d", i);
        CVarSetStr(&v->v.a[i], text, 16);
    }
    CVarSetStr(&v->v.a[1000], std::string(5000, 'z').data(), 5000);
    const int32_t size = CVarToBuff(&v.v, nullptr, 0);
    EXPECT_EQ(size, 5 + 1000 * 21 + 5005);
    std::vector<uint8_t> image(size_t(size) + 1);
    ASSERT_EQ(CVarToBuff(&v.v, image.data(), int32_t(image.size())), size);
    Val back;
    ASSERT_EQ(CVarFromBuffN(&back.v, image.data(), size), size);
    EXPECT_EQ(Image(&back.v), std::vector<uint8_t>(image.begin(), image.end() - 1));
    EXPECT_EQ(Text(&back->v.a[999]), "item-00000000999");
    // Rooms above and below the stack area: the copy is cut, never the size.
    for (int32_t room : {2000, 1000}) {
        std::vector<uint8_t> cut(size_t(room) + 1, 0xEE);
        EXPECT_EQ(CVarToBuff(&v.v, cut.data(), room), size) << room;
        EXPECT_TRUE(std::equal(cut.begin(), cut.end() - 1, image.begin())) << room;
        EXPECT_EQ(cut.back(), 0xEE) << room;
    }
}

TEST(calcImage, HostileImagesGiveZeroAndAnEmptyValue) {
    std::vector<uint8_t> deep = Nested(257), deepest = Nested(256);
    constexpr int32_t kAll = INT32_MIN;  // the length of the bytes given
    struct Row { const char* what; std::vector<uint8_t> bytes; int32_t length; };
    const std::vector<Row> rows = {
        {"nothing", {}, 0},
        {"negative length", Hex("00"), -1},
        {"truncated int", Hex("01 01000000"), kAll},
        {"truncated double", Hex("02 0000"), kAll},
        {"truncated string length", Hex("03 0200"), kAll},
        {"string longer than the bytes", Hex("03 05000000 6162"), kAll},
        {"negative string length", Hex("03 ffffffff 00"), kAll},
        {"count beyond the bytes", Hex("04 ffffff7f 00 00"), kAll},
        {"count of two, one element", Hex("04 02000000 00"), kAll},
        {"negative count", Hex("04 feffffff"), kAll},
        {"truncated element", Hex("04 02000000 00 01 00"), kAll},
        {"tag 0x80", Hex("80 00000000"), kAll},
        {"tag 0xff", Hex("ff"), kAll},
        {"unregistered tag", Hex("4d" + std::string(40, '0')), kAll},
        {"nesting deeper than 256", deep, kAll},
        {"length cuts a valid image", Hex("03 02000000 6162"), 6},
    };
    for (const auto& r : rows) {
        Val v;
        CVarSetStr(&v.v, "old", 3);
        const int32_t length = r.length == kAll ? int32_t(r.bytes.size()) : r.length;
        EXPECT_EQ(CVarFromBuffN(&v.v, r.bytes.data(), length), 0) << r.what;
        EXPECT_EQ(v->type, 0) << r.what;
    }
    Val v;
    EXPECT_EQ(CVarFromBuffN(&v.v, deepest.data(), int32_t(deepest.size())), int32_t(deepest.size()));
    EXPECT_EQ(Image(&v.v), deepest);
    // Bytes after a complete image are not read.
    const std::vector<uint8_t> tail = Hex("01 0700000000000000 ff ff");
    EXPECT_EQ(CVarFromBuffN(&v.v, tail.data(), int32_t(tail.size())), 9);
    EXPECT_EQ(v->v.i + 0, 7);
    EXPECT_EQ(CVarFromBuffN(&v.v, nullptr, 5), 0);
    // The trusting reader refuses the same tags.
    EXPECT_EQ(CVarFromBuff(&v.v, Hex("80").data()), 0);
}
