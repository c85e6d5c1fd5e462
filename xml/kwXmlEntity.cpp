// The entity table, and the conversions between references and characters.
#include <VomKwz.h>

#include <cstring>

#include "base/kwGuard.h"
#include "xml/kwXmlTree.h"

namespace {

// The default table, in the order in which the conversions try it.
constexpr _tagXMLEntity kDefaultEntities[] = {
    {'&', "&amp;"}, {'"', "&quot;"}, {'\'', "&apos;"}, {'<', "&lt;"}, {'>', "&gt;"},
};

// Writes to a buffer known to be large enough.
struct RawOut {
    char* at;
    void Append(const char* bytes, size_t n) {
        std::memcpy(at, bytes, n);
        at += n;
    }
    void Append(char c) { *at++ = c; }
};

// Appends the UTF-8 form of a code point (1..0x10FFFF).
template <typename Out>
void AppendUtf8(Out& out, unsigned long cp) {
    char b[4];
    size_t n;
    if (cp < 0x80) {
        b[0] = static_cast<char>(cp);
        n = 1;
    } else if (cp < 0x800) {
        b[0] = static_cast<char>(0xC0 | (cp >> 6));
        b[1] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 2;
    } else if (cp < 0x10000) {
        b[0] = static_cast<char>(0xE0 | (cp >> 12));
        b[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        b[2] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 3;
    } else {
        b[0] = static_cast<char>(0xF0 | (cp >> 18));
        b[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        b[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        b[3] = static_cast<char>(0x80 | (cp & 0x3F));
        n = 4;
    }
    out.Append(b, n);
}

// "&#N;" or "&#xH;" at p (p[0] == '&', p[1] == '#'): its length, with the
// code point in *cp, or 0 when it is not one (0 and values past 0x10FFFF
// are not, so that a value never gains a 0 byte).
size_t NumericReference(const char* p, const char* end, unsigned long* cp) {
    const char* q = p + 2;
    const bool hex = q < end && (*q == 'x' || *q == 'X');
    if (hex) ++q;
    const char* digits = q;
    unsigned long v = 0;
    for (; q < end && q - digits < 8; ++q) {
        const char c = *q;
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (hex && c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (hex && c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            break;
        v = v * (hex ? 16 : 10) + static_cast<unsigned long>(d);
    }
    if (q == digits || q >= end || *q != ';' || v == 0 || v > 0x10FFFF) return 0;
    *cp = v;
    return static_cast<size_t>(q + 1 - p);
}

}  // namespace

const _tagXMLEntitys& _tagXMLEntitys::Default() {
    static const _tagXMLEntitys table{kDefaultEntities, 5};
    return table;
}

namespace {

// References to characters; what a reference stands for is never longer
// than the reference, so the result is never longer than the text.
template <typename Out>
void Decode(const _tagXMLEntity* items, int32_t count, const char* text, size_t length, Out& out) {
    const char* p = text;
    const char* end = text + length;
    while (p < end) {
        const char* amp = static_cast<const char*>(std::memchr(p, '&', static_cast<size_t>(end - p)));
        if (!amp) break;
        out.Append(p, static_cast<size_t>(amp - p));
        p = amp;
        size_t used = 0;
        if (amp + 1 < end && amp[1] == '#') {
            unsigned long cp = 0;
            used = NumericReference(amp, end, &cp);
            if (used) AppendUtf8(out, cp);
        } else if (items == kDefaultEntities) {
            // The five references of the default table, none a prefix of another.
            const size_t left = static_cast<size_t>(end - amp);
            const auto is = [&](const char* ref, size_t n) { return left >= n && std::memcmp(amp, ref, n) == 0; };
            char c = 0;
            switch (left > 1 ? amp[1] : 0) {
            case 'a':
                if (is("&amp;", 5)) c = '&', used = 5;
                else if (is("&apos;", 6)) c = '\'', used = 6;
                break;
            case 'l':
                if (is("&lt;", 4)) c = '<', used = 4;
                break;
            case 'g':
                if (is("&gt;", 4)) c = '>', used = 4;
                break;
            case 'q':
                if (is("&quot;", 6)) c = '"', used = 6;
                break;
            default: break;
            }
            if (used) out.Append(c);
        } else {
            for (int32_t i = 0; i < count; ++i) {
                const size_t n = std::strlen(items[i].ref);
                if (n && static_cast<size_t>(end - amp) >= n && std::memcmp(amp, items[i].ref, n) == 0) {
                    out.Append(items[i].entity);
                    used = n;
                    break;
                }
            }
        }
        if (!used) {
            out.Append('&');
            used = 1;
        }
        p += used;
    }
    out.Append(p, static_cast<size_t>(end - p));
}

}  // namespace

void _tagXMLEntitys::Ref2Entity(const char* text, size_t length, KString& out) const {
    out.Reserve(out.length() + length);
    Decode(items, count, text, length, out);
}

namespace kwz::xml {

size_t DecodeRefs(const _tagXMLEntitys& table, const char* text, size_t length, char* out) {
    RawOut raw{out};
    Decode(table.items, table.count, text, length, raw);
    return static_cast<size_t>(raw.at - out);
}

RefMap::RefMap(const _tagXMLEntitys& table, const char* only) : m_table(table) {
    std::memset(m_slot, -1, sizeof m_slot);
    for (int32_t i = table.count - 1; i >= 0; --i) {
        if (!only || std::strchr(only, table.items[i].entity)) {
            m_slot[static_cast<unsigned char>(table.items[i].entity)] = static_cast<int16_t>(i);
        }
    }
}

void RefMap::Apply(const char* text, size_t length, KString& out) const {
    const char* run = text;
    const char* end = text + length;
    for (const char* p = text; p < end; ++p) {
        const int16_t i = m_slot[static_cast<unsigned char>(*p)];
        if (i < 0) continue;
        out.Append(run, static_cast<size_t>(p - run));
        out.Append(m_table.items[i].ref);
        run = p + 1;
    }
    out.Append(run, static_cast<size_t>(end - run));
}

}  // namespace kwz::xml

void _tagXMLEntitys::Entity2Ref(const char* text, size_t length, KString& out, const char* only) const {
    kwz::xml::RefMap(*this, only).Apply(text, length, out);
}

extern "C" {

KWZ_API char* XEntity2Ref(const char* text) {
    return kwz::CEdge<char*>("Kwz.kwXml.XEntity2Ref", nullptr, nullptr, [&]() -> char* {
        if (!text) return nullptr;
        KString out;
        _tagXMLEntitys::Default().Entity2Ref(text, std::strlen(text), out);
        return out.Detach();
    });
}

KWZ_API char* XRef2Entity(const char* text) {
    return kwz::CEdge<char*>("Kwz.kwXml.XRef2Entity", nullptr, nullptr, [&]() -> char* {
        if (!text) return nullptr;
        KString out;
        _tagXMLEntitys::Default().Ref2Entity(text, std::strlen(text), out);
        return out.Detach();
    });
}

}  // extern "C"
