// Helpers of the calculator tests: values that free themselves, builders that
// read like the values they make, and images as hex text.  CVar is packed:
// the tests read its 8-byte members by value (`v->v.i + 0`) where a gtest
// macro would bind a reference to them.
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace calctest {

// A CVar that is emptied when it goes out of scope.
struct Val {
    CVar v{};
    Val() = default;
    Val(const Val&) = delete;
    Val& operator=(const Val&) = delete;
    ~Val() { CVarSetEmpty(&v); }
    CVar* operator->() { return &v; }
};

// A builder fills an empty value.
using Make = std::function<void(CVar*)>;

inline Make Empty() { return [](CVar*) {}; }
inline Make Int(int64_t i) { return [i](CVar* v) { CVarSetInt(v, i); }; }
inline Make Dbl(double d) { return [d](CVar* v) { CVarSetDbl(v, d); }; }
inline Make Str(std::string s) {
    return [s](CVar* v) { CVarSetStr(v, s.data(), int32_t(s.size())); };
}
inline Make Arr(std::vector<Make> items) {
    return [items](CVar* v) {
        CVarSetArr(v, int32_t(items.size()));
        for (size_t i = 0; i < items.size(); ++i) items[i](&v->v.a[i]);
    };
}
// A raw value of an object tag: the 20 bytes behind the tag are `fill`.
inline Make Raw(int32_t tag, uint8_t fill) {
    return [tag, fill](CVar* v) {
        std::memset(reinterpret_cast<uint8_t*>(v) + 4, fill, 20);
        v->type = tag;
    };
}

inline std::vector<uint8_t> Hex(const std::string& text) {
    std::vector<uint8_t> out;
    int half = -1;
    for (char c : text) {
        int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10
              : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (d < 0) continue;
        if (half < 0) {
            half = d;
        } else {
            out.push_back(uint8_t(half * 16 + d));
            half = -1;
        }
    }
    return out;
}

inline std::string ToHex(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t b : bytes) {
        if (!s.empty()) s += ' ';
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

// The value's image (empty when it cannot be written).
inline std::vector<uint8_t> Image(const CVar* v) {
    const int32_t n = CVarToBuff(v, nullptr, 0);
    std::vector<uint8_t> out(size_t(n > 0 ? n : 0));
    if (n > 0) CVarToBuff(v, out.data(), n);
    return out;
}
inline std::string ImageHex(const CVar* v) { return ToHex(Image(v)); }
inline std::string ImageHex(const Make& make) {
    CVar v{};
    make(&v);
    std::string s = ImageHex(&v);
    CVarSetEmpty(&v);
    return s;
}

// True when every Str and Arr in the value owns its storage.
inline bool OwnsAll(const CVar* v) {
    if (v->type == 3) return v->ref == 0 && v->v.s && v->v.s[v->count] == 0;
    if (v->type != 4) return true;
    if (v->ref != 0) return false;
    for (int32_t i = 0; i < v->count; ++i)
        if (!OwnsAll(&v->v.a[i])) return false;
    return true;
}

inline std::string Text(const CVar* v) { return std::string(v->v.s, size_t(v->count)); }

}  // namespace calctest
