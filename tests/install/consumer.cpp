// A C++ program built against the installed tree through find_package.
#include <VomKwz.h>

#include <cstdio>
#include <stdexcept>

int main() {
    KWRType type;
    KWRTypInit(&type);
    if (KWRTypSet(&type, 7, "Point|2\r\nX|I4\r\nY|I4") != 0) return 1;
    KWRData record;
    KWRRecInit(&record);
    bool ok = KWRRecNew(&type, &record) == 0 &&
              KWRSetAsInt32(KWRFldByName(&type, "x"), &record, 42) == 0;
    int32_t x = 0;
    ok = ok && KWRGetAsInt32(KWRFldByName(&type, "X"), &record, &x) == 0 && x == 42;
    KWRRecFree(&record);
    // The corrupt-record exception reaches C++ callers as std::runtime_error.
    record.guard = 1;
    try {
        KWRRecFree(&record);
        ok = false;
    } catch (const std::runtime_error&) {
    }
    KWRTypFree(&type);
    std::printf("C++ consumer: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
