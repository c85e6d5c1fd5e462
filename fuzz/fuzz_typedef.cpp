// Fuzz target: type-definition strings.  Whatever KWRTypSet accepts must
// write back (KWRTypGet) to a text that parses to the same type, and every
// field must be found again by its name and its number.
#include <VomKwz.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#define FUZZ_CHECK(cond)                                                   \
    do {                                                                   \
        if (!(cond)) {                                                     \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                  \
        }                                                                  \
    } while (0)

namespace {

bool SameText(const char* a, const char* b) {
    return (!a && !b) || (a && b && std::strcmp(a, b) == 0);
}

void CheckSame(const KWRType& a, const KWRType& b) {
    FUZZ_CHECK(std::strcmp(a.name, b.name) == 0);
    FUZZ_CHECK(a.id == b.id && a.fieldCount == b.fieldCount && a.dataLength == b.dataLength);
    FUZZ_CHECK(SameText(a.description, b.description));
    for (uint32_t i = 0; i < a.fieldCount; ++i) {
        const KWRField &x = a.fields[i], &y = b.fields[i];
        FUZZ_CHECK(std::strcmp(x.name, y.name) == 0);
        FUZZ_CHECK(x.type == y.type && x.width == y.width && x.offset == y.offset);
        FUZZ_CHECK(x.number == i && y.number == i);
        FUZZ_CHECK(SameText(x.description, y.description));
    }
}

void CheckLookups(const KWRType& t) {
    uint32_t size = 6;
    for (uint32_t i = 0; i < t.fieldCount; ++i) {
        const KWRField* f = &t.fields[i];
        FUZZ_CHECK(f->offset == size + 1);
        size += f->type == iFldType_Char ? f->width + 4 : f->type >= iFldType_Memo ? 9 : f->width + 1;
        FUZZ_CHECK(KWRFldByName(&t, f->name) == f);
        KWRField* found = nullptr;
        FUZZ_CHECK(KWRTypFld(&t, f->name, &found) == 0 && found == f);
        FUZZ_CHECK(KWRFldByNum(&t, static_cast<uint8_t>(i)) == f);
        FUZZ_CHECK(KWRTypFldN(&t, static_cast<uint8_t>(i), &found) == 0 && found == f);
    }
    FUZZ_CHECK(size == t.dataLength);
    if (t.fieldCount < 255) FUZZ_CHECK(KWRFldByNum(&t, t.fieldCount) == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);  // ends at the first NUL
    KWRType type, again, fromDefs;
    KWRTypInit(&type);
    KWRTypInit(&again);
    KWRTypInit(&fromDefs);
    if (KWRTypSet(&type, 42, text.c_str()) == 0) {
        CheckLookups(type);
        char* written = nullptr;
        FUZZ_CHECK(KWRTypGet(&type, &written) == 0 && written);
        FUZZ_CHECK(KWRTypSet(&again, 42, written) == 0);
        CheckSame(type, again);
        char* rewritten = nullptr;
        FUZZ_CHECK(KWRTypGet(&again, &rewritten) == 0 && std::strcmp(written, rewritten) == 0);
        KWMemFree(rewritten);
        KWMemFree(written);

        KWRFieldDef defs[255];
        _FldAddGet(&type, defs);
        FUZZ_CHECK(KWRTypSetA(&fromDefs, 42, type.name, type.fieldCount, defs) == 0);
        FUZZ_CHECK(fromDefs.dataLength == type.dataLength);
    } else {
        FUZZ_CHECK(type.fieldCount == 0 && type.fields == nullptr && type.description == nullptr);
    }
    KWRTypFree(&fromDefs);
    KWRTypFree(&again);
    KWRTypFree(&type);
    return 0;
}
