// Fuzz target: types generated from record images of unknown type.  The
// input is the image; KWRTypGen must never read outside it, and a type it
// accepts must describe a fixed part that fits in the image and write back
// as a valid definition.
#include <VomKwz.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#define FUZZ_CHECK(cond)                                                   \
    do {                                                                   \
        if (!(cond)) {                                                     \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                  \
        }                                                                  \
    } while (0)

namespace {

void Generate(KWRData* record) {
    KWRType type, again;
    KWRTypInit(&type);
    KWRTypInit(&again);
    if (KWRTypGen(&type, "Generated", record) == 0) {
        uint32_t imageLength;
        std::memcpy(&imageLength, record->image, 4);
        FUZZ_CHECK(type.fieldCount == record->fieldCount);
        FUZZ_CHECK(type.dataLength <= record->length && type.dataLength <= imageLength);
        char* text = nullptr;
        FUZZ_CHECK(KWRTypGet(&type, &text) == 0);
        FUZZ_CHECK(KWRTypSet(&again, type.id, text) == 0);
        FUZZ_CHECK(again.dataLength == type.dataLength);
        KWMemFree(text);
    } else {
        FUZZ_CHECK(type.fieldCount == 0 && type.fields == nullptr);
    }
    KWRTypFree(&again);
    KWRTypFree(&type);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 6 || size > 1u << 20) return 0;
    // An exact-size copy, so that any read past the image is caught.
    auto* image = static_cast<uint8_t*>(std::malloc(size));
    std::memcpy(image, data, size);
    KWRData record{};
    record.length = static_cast<uint32_t>(size);
    record.typeId = 7;
    record.image = image;
    record.fieldCount = image[5];
    Generate(&record);  // the image's own length field as it came
    const uint32_t length = static_cast<uint32_t>(size);
    std::memcpy(image, &length, 4);
    Generate(&record);  // and consistent with the record
    std::free(image);
    return 0;
}
