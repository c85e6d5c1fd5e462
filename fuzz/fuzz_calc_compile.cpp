// The formula compiler on arbitrary text: it never crashes or leaks, and
// every failure is a code from -1 to -8 with a position inside the text and
// a message.
#include <VomKwz.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    // The compiler reads zero-terminated text: cut at the first zero byte.
    const std::string text(reinterpret_cast<const char*>(data), size);
    const size_t length = std::string(text.c_str()).size();
    for (int32_t debug : {0, 1}) {
        KWFunDef* f = nullptr;
        const int32_t status = KWFunCompile(text.c_str(), &f, debug, nullptr);
        Check(f != nullptr);
        if (status == 0) {
            Check(f->code != nullptr && f->name != nullptr && f->stackNeed >= 1);
            Check(f->paramCount >= 0 && f->externCount >= 0);
        } else {
            Check(status >= -8 && status <= -1);
            Check(f->paramCount == status);
            Check(f->externCount >= 0 && size_t(f->externCount) <= length);
            Check(f->code != nullptr && f->code[0] != 0);
        }
        KWFunFree(f);
    }
    return 0;
}
