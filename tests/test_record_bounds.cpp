// KWRRecCheck at the edge of its image: the image ends where readable memory
// ends, so a check that reads image[L] faults instead of passing.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <cstring>
#include <functional>
#include <tuple>
#include <vector>

#include "guard_page.h"
#include "record_fixture.h"

using namespace rectest;

namespace {

// "CM" A = "abc", "CB" B = "xy", "CH5" C = "hi": the packed image ends with
// B's 0 byte, the last byte inside the image.
std::vector<uint8_t> PackedImage(const Type& type) {
    Rec rec(type);
    EXPECT_EQ(0u, KWRSetAsText(type.F("A"), &rec.r, 3, "abc"));
    EXPECT_EQ(0u, KWRSetAsText(type.F("B"), &rec.r, 2, "xy"));
    EXPECT_EQ(0u, KWRSetAsText(type.F("C"), &rec.r, 2, "hi"));
    EXPECT_EQ(0u, KWRRecPack(&type.t, &rec.r, 1, 1));
    return rec.Bytes();
}

// A record over guarded bytes, never freed: it owns nothing.
KWRData View(kwztest::GuardedBytes& guarded, size_t length, uint8_t fieldCount) {
    KWRData view;
    KWRRecInit(&view);
    view.image = guarded.data();
    view.length = static_cast<uint32_t>(length);
    view.fieldCount = fieldCount;
    return view;
}

uint32_t CheckAtEdge(const Type& type, const std::vector<uint8_t>& bytes) {
    kwztest::GuardedBytes guarded(bytes);
    KWRData view = View(guarded, bytes.size(), bytes[5]);
    return KWRRecCheck(&type.t, &view);
}

}  // namespace

TEST(record_bounds, CheckReadsNothingPastTheImage) {
    Type type("T|3\r\nA|CM\r\nB|CB\r\nC|CH5");
    const std::vector<uint8_t> packed = PackedImage(type);
    const uint32_t L = static_cast<uint32_t>(packed.size());
    const uint32_t bValue = type.F("B")->offset;
    const uint32_t cValue = type.F("C")->offset;
    ASSERT_EQ(packed[L - 1], 0);
    using Bytes = std::vector<uint8_t>;
    auto put = [](Bytes& b, uint32_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); };
    // change to the packed image -> refused (KWR_CORRUPT) or accepted
    const std::tuple<const char*, std::function<void(Bytes&)>, bool> cases[] = {
        {"as packed: the last text's 0 byte is the image's last byte", [](Bytes&) {}, false},
        {"last text one longer: its 0 byte would sit at L", [&](Bytes& b) { put(b, bValue, 3); }, true},
        {"last text ending on a byte that is not 0", [&](Bytes& b) { b[L - 1] = 'z'; }, true},
        {"last text's offset moved to the last byte (empty text there)",
         [&](Bytes& b) { put(b, bValue, 0); put(b, bValue + 4, L - 1); }, false},
        {"last text's offset at L", [&](Bytes& b) { put(b, bValue, 0); put(b, bValue + 4, L); }, true},
        {"\"CH\" length at its capacity", [&](Bytes& b) { b[cValue + 1] = 5; }, false},
        {"\"CH\" length one past its capacity", [&](Bytes& b) { b[cValue + 1] = 6; }, true},
    };
    for (const auto& [what, change, refused] : cases) {
        Bytes bytes = packed;
        change(bytes);
        EXPECT_EQ(refused ? KWR_CORRUPT : 0u, CheckAtEdge(type, bytes)) << what;
    }
    // An image whose length word claims one byte more than there is.
    std::vector<uint8_t> shorter(packed.begin(), packed.end() - 1);
    EXPECT_EQ(KWR_CORRUPT, CheckAtEdge(type, shorter));
}

// KWRTypGen walks an image by its own header bytes, bounded by the record's
// length: the last slot ending on the last byte builds the type, an image
// one byte short of its last slot gives 4, neither reading past the bytes.
TEST(record_bounds, TypeGenerationStopsAtTheLength) {
    Type type("T|2\r\nA|I4\r\nC|CH5");
    Rec rec(type);
    ASSERT_EQ(0u, KWRSetAsText(type.F("C"), &rec.r, 2, "hi"));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 1, 1));
    const std::vector<uint8_t> image = rec.Bytes();
    ASSERT_EQ(type.t.dataLength, image.size());
    for (size_t n : {image.size(), image.size() - 1}) {
        kwztest::GuardedBytes guarded(image.data(), n);
        KWRData view = View(guarded, n, 2);
        KWRType generated;
        KWRTypInit(&generated);
        EXPECT_EQ(n == image.size() ? 0u : KWR_SYNTAX, KWRTypGen(&generated, "G", &view)) << n;
        EXPECT_EQ(n == image.size() ? 2 : 0, generated.fieldCount);
        KWRTypFree(&generated);
    }
}
