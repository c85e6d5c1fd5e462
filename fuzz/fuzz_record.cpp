// Record images from outside: adopt, check, and when the check accepts the
// image, read every field every way, generate a type from it, change it, pack
// it and check it again.
//
// Input: [choice byte][image bytes].  Choice bits 0..1 pick one of the types
// below; bit 7 keeps the image's own length field (the block is then as long
// as the input, as a transport knows it, and the check must notice a length
// field that disagrees); otherwise the length field is set to the block size.
#include <VomKwz.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

const char* const kTypes[] = {
    ("ALL|11\r\nB|L1\r\nU8|B1\r\nS8|I1\r\nS16|I2\r\nS32|I4\r\nS64|I8\r\nF32|F4\r\nF64|F8\r\n"
     "Name|CH20\r\nMemo|CM\r\nBlob|CB"),
    "_LOGIN|3\r\n_Login|CB\r\n_Password|CB\r\n_AddType|L1",
    "T|4\r\nA|CH1\r\nB|CM\r\nC|CH255\r\nD|CB",
    "E|0",
};

struct Types {
    KWRType t[4];
    Types() {
        for (int i = 0; i < 4; ++i) {
            KWRTypInit(&t[i]);
            if (KWRTypSet(&t[i], 100 + i, kTypes[i]) != 0) std::abort();
        }
    }
};

void Check(bool ok) {
    if (!ok) std::abort();
}

void ReadEverything(const KWRType* type, const KWRData* record) {
    for (uint8_t i = 0; i < type->fieldCount; ++i) {
        const KWRField* f = &type->fields[i];
        uint8_t b = 0;
        int8_t i8 = 0;
        int16_t i16 = 0;
        int32_t i32 = 0;
        int64_t i64 = 0;
        float fl = 0;
        double d = 0;
        KWRGetAsBool(f, record, &b);
        KWRGetAsByte(f, record, &b);
        KWRGetAsInt8(f, record, &i8);
        KWRGetAsInt16(f, record, &i16);
        KWRGetAsInt32(f, record, &i32);
        KWRGetAsInt64(f, record, &i64);
        KWRGetAsFloat(f, record, &fl);
        KWRGetAsDouble(f, record, &d);
        KWRIsNull(f, record, &b);
        KWRIsEdit(f, record, &b);
        KWRIsUser(f, record, &b);
        char buf[300];
        const int32_t windows[][2] = {{0, 300}, {0, 1}, {3, 5}, {250, 50}, {1 << 30, 4}};
        for (const auto& w : windows) KWRGetAsText(f, record, w[0], w[1], buf);
        uint32_t n = 0;
        const char* p = nullptr;
        if (KWRGetTextRef(f, record, &n, &p) == 0 && p && n) {
            volatile char sink = p[0];
            sink = p[n - 1];
            (void)sink;
        }
        KWRVal cell;
        KWRGetVal(f, record, &cell);
    }
    KWRVal cells[255];
    KWRGetRec(type, record, cells);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Types types;
    if (size < 7 || size > (1u << 20)) return 0;
    const uint8_t choice = data[0];
    const KWRType* type = &types.t[choice & 3];
    const uint32_t length = static_cast<uint32_t>(size - 1);
    auto* block = static_cast<uint8_t*>(std::malloc(length));
    std::memcpy(block, data + 1, length);
    if (!(choice & 0x80)) std::memcpy(block, &length, 4);

    KWRData record;
    KWRRecInit(&record);
    if (KWRRecSet(&record, block) != 0) {
        std::free(block);
        return 0;
    }
    record.length = length;  // the size the transport read, whatever the field says
    if (KWRRecCheck(type, &record) == 0) {
        ReadEverything(type, &record);

        KWRType gen;
        KWRTypInit(&gen);
        Check(KWRTypGen(&gen, "GEN", &record) == 0);
        Check(KWRRecCheck(&gen, &record) == 0);
        ReadEverything(&gen, &record);
        KWRTypFree(&gen);

        // Change the texts (shorter, longer, gone) and scalars, then pack.
        for (uint8_t i = 0; i < type->fieldCount; ++i) {
            const KWRField* f = &type->fields[i];
            switch ((choice >> 2) & 3) {
                case 0: KWRSetAsText(f, &record, 1, "x"); break;
                case 1: KWRSetAsText(f, &record, 40, "0123456789012345678901234567890123456789"); break;
                case 2: KWRSetNull(f, &record); break;
                default: KWRSetAsText(f, &record, 0, nullptr); break;
            }
            KWRSetAsInt64(f, &record, -1);
        }
        Check(KWRRecPack(type, &record, choice & 0x10, choice & 0x20) == 0);
        Check(KWRRecCheck(type, &record) == 0);
        ReadEverything(type, &record);
    }
    KWRRecFree(&record);
    return 0;
}
