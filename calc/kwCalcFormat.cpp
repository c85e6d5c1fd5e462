// printf and scanf of the formula language: the C conversions
// %d %i %u %x %X %o %c %s %f %e %g %% with flags, width and precision.
// printf takes its values from an array (a non-array is one value); scanf
// returns an array of the values it read, stopping at the first mismatch.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "calc/kwCalcEngine.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

const char* Text(const CVar* v) { return v->v.s ? v->v.s : ""; }

int64_t ToI64(const CVar* v) {
    if (v->type == kInt) return v->v.i;
    if (v->type == kDbl) return v->v.d > -9.2e18 && v->v.d < 9.2e18 ? int64_t(v->v.d) : INT64_MIN;
    if (v->type == kStr) return std::strtoll(Text(v), nullptr, 10);
    return 0;
}
double ToDbl(const CVar* v) {
    if (v->type == kInt) return double(v->v.i);
    if (v->type == kDbl) return v->v.d;
    if (v->type == kStr) return std::strtod(Text(v), nullptr);
    return 0;
}

// One conversion spec: flags, width and precision (digits only), the letter.
size_t Spec(const char* f, size_t n, size_t i, std::string* spec, char* conv) {
    spec->assign("%");
    while (i < n && f[i] && std::strchr("-+ #0", f[i])) spec->push_back(f[i++]);
    // Width and precision keep at most 4 digits: a field is at most 9999 wide.
    for (int k = 0; i < n && std::isdigit(uint8_t(f[i])); ++k, ++i)
        if (k < 4) spec->push_back(f[i]);
    if (i < n && f[i] == '.') {
        spec->push_back(f[i++]);
        for (int k = 0; i < n && std::isdigit(uint8_t(f[i])); ++k, ++i)
            if (k < 4) spec->push_back(f[i]);
    }
    *conv = i < n ? f[i++] : 0;
    return i;
}

template <typename T>
bool Append(std::string* out, const std::string& spec, T v) {
    char small[128];
    const int n = std::snprintf(small, sizeof small, spec.c_str(), v);
    if (n < 0) return false;
    if (size_t(n) < sizeof small) {
        out->append(small, size_t(n));
        return true;
    }
    std::string big(size_t(n) + 1, '\0');
    std::snprintf(&big[0], big.size(), spec.c_str(), v);
    out->append(big.data(), size_t(n));
    return true;
}

}  // namespace

int32_t Printf(CVar* a) {
    if (a[0].type != kStr) return kNotSupported;
    const char* f = Text(&a[0]);
    const size_t n = size_t(a[0].count);
    const CVar* args = a[1].type == kArr ? a[1].v.a : &a[1];
    const int32_t argc = a[1].type == kArr ? a[1].count : 1;
    int32_t next = 0;
    std::string out;
    for (size_t i = 0; i < n;) {
        if (f[i] != '%') {
            out.push_back(f[i++]);
            continue;
        }
        std::string spec;
        char conv;
        i = Spec(f, n, i + 1, &spec, &conv);
        if (conv == '%') {
            out.push_back('%');
            continue;
        }
        if (conv == 0 || !std::strchr("diuxXocsfeg", conv)) return kNotSupported;
        if (next >= argc) return kBadIndex;
        const CVar* v = &args[next++];
        bool ok;
        switch (conv) {
        case 'd':
        case 'i': ok = Append(&out, spec + "ll" + conv, static_cast<long long>(ToI64(v))); break;
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            ok = Append(&out, spec + "ll" + conv, static_cast<unsigned long long>(ToI64(v)));
            break;
        case 'c': ok = Append(&out, spec + conv, int(uint8_t(ToI64(v)))); break;
        case 's': {
            if (v->type == kArr || IsObjTag(v->type)) return kNotSupported;
            CVar c{};
            int32_t st = Copy(&c, v);
            if (st == kOk && c.type != kStr) st = Cast(&c, kStr);
            if (st != kOk) {
                SetEmpty(&c);
                return st;
            }
            ok = Append(&out, spec + conv, Text(&c));
            SetEmpty(&c);
            break;
        }
        default: ok = Append(&out, spec + conv, ToDbl(v)); break;
        }
        if (!ok) return kNotSupported;
        if (out.size() > size_t(INT32_MAX) / 2) return kNoMem;
    }
    CVar r{};
    if (SetStr(&r, out.data(), int32_t(out.size())) != kOk) return kNoMem;
    Move(&a[0], &r);
    return kOk;
}

int32_t Scanf(CVar* a) {
    if (a[0].type != kStr || a[1].type != kStr) return kNotSupported;
    // The text may hold no 0 before its end; a copy makes it a C string.
    const std::string text(Text(&a[0]), size_t(a[0].count));
    const char* f = Text(&a[1]);
    const size_t n = size_t(a[1].count);
    const char* t = text.c_str();
    struct Item {
        int32_t type;
        int64_t i;
        double d;
        std::string s;
    };
    std::vector<Item> items;
    for (size_t i = 0; i < n;) {
        if (std::isspace(uint8_t(f[i]))) {
            while (std::isspace(uint8_t(*t))) ++t;
            ++i;
            continue;
        }
        if (f[i] != '%' || (i + 1 < n && f[i + 1] == '%')) {
            const char want = f[i];
            i += f[i] == '%' ? 2 : 1;
            if (*t != want) break;
            ++t;
            continue;
        }
        std::string spec;
        char conv;
        i = Spec(f, n, i + 1, &spec, &conv);
        // Only a width is meaningful here; flags and precision are dropped.
        std::string width;
        for (char ch : spec)
            if (std::isdigit(uint8_t(ch))) width.push_back(ch);
            else if (ch == '.') break;
        if (width.size() > 6) width.resize(6);
        int used = 0;
        Item it{kInt, 0, 0, {}};
        bool ok;
        switch (conv) {
        case 'd':
        case 'i': {
            long long v = 0;
            ok = std::sscanf(t, ("%" + width + "ll" + conv + "%n").c_str(), &v, &used) == 1;
            it.i = v;
            break;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            unsigned long long v = 0;
            ok = std::sscanf(t, ("%" + width + "ll" + conv + "%n").c_str(), &v, &used) == 1;
            it.i = int64_t(v);
            break;
        }
        case 'c':
            ok = *t != 0;
            it.i = uint8_t(*t);
            used = ok ? 1 : 0;
            break;
        case 's': {
            while (std::isspace(uint8_t(*t))) ++t;
            const size_t limit = width.empty() ? SIZE_MAX : size_t(std::stoul(width));
            size_t k = 0;
            while (t[k] && !std::isspace(uint8_t(t[k])) && k < limit) ++k;
            ok = k > 0;
            it.type = kStr;
            it.s.assign(t, k);
            used = int(k);
            break;
        }
        case 'f':
        case 'e':
        case 'g': {
            double v = 0;
            ok = std::sscanf(t, ("%" + width + "l" + conv + "%n").c_str(), &v, &used) == 1;
            it.type = kDbl;
            it.d = v;
            break;
        }
        default: return kNotSupported;
        }
        if (!ok) break;
        t += used;
        items.push_back(std::move(it));
    }
    CVar r{};
    if (SetArr(&r, int32_t(items.size())) != kOk) return kNoMem;
    for (size_t k = 0; k < items.size(); ++k) {
        CVar* v = &r.v.a[k];
        if (items[k].type == kInt) SetInt(v, items[k].i);
        else if (items[k].type == kDbl) SetDbl(v, items[k].d);
        else if (SetStr(v, items[k].s.data(), int32_t(items[k].s.size())) != kOk) {
            SetEmpty(&r);
            return kNoMem;
        }
    }
    Move(&a[0], &r);
    return kOk;
}

}  // namespace kwz::calc
