// KString: an owned byte string.  Texts of up to 15 bytes live inside the
// object; longer ones in a block from the library's allocator, so that Detach
// can hand the bytes to a caller who releases them with KWMemFree.
#include <VomKwz.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "base/kwMem.h"
#include "base/kwSort.h"
#include "text/kwText.h"

namespace {

using kwz::text::IsBlank;

}  // namespace

KString::KString(const char* text) : KString() {
    if (text) Assign(text, std::strlen(text));
}

KString::KString(const char* bytes, size_t length) : KString() { Assign(bytes, length); }

KString::KString(const KString& other) : KString() { Assign(other.m_data, other.m_length); }

KString::KString(KString&& other) noexcept : KString() { *this = std::move(other); }

KString& KString::operator=(const KString& other) {
    if (this != &other) Assign(other.m_data, other.m_length);
    return *this;
}

KString& KString::operator=(KString&& other) noexcept {
    if (this == &other) return *this;
    if (other.IsLocal()) {
        // A short text is copied: it fits in the local buffer or in our block.
        if (!IsLocal() && m_capacity >= other.m_length) {
            std::memcpy(m_data, other.m_data, other.m_length + 1);
        } else {
            if (!IsLocal()) kwz::MemFree(m_data);
            m_data = m_local;
            std::memcpy(m_local, other.m_local, other.m_length + 1);
        }
        m_length = other.m_length;
    } else {
        if (!IsLocal()) kwz::MemFree(m_data);
        m_data = other.m_data;
        m_length = other.m_length;
        m_capacity = other.m_capacity;
        other.m_data = other.m_local;
    }
    other.m_length = 0;
    other.m_local[0] = 0;
    return *this;
}

KString& KString::operator=(const char* text) {
    return text ? Assign(text, std::strlen(text)) : (Clear(), *this);
}

KString::~KString() {
    if (!IsLocal()) kwz::MemFree(m_data);
}

void KString::Enlarge(size_t need) {
    const size_t capacity = IsLocal() ? kLocal : m_capacity;
    size_t grown = capacity * 2;
    if (grown < need) grown = need;
    if (grown + 1 < grown) throw std::bad_alloc();
    char* block;
    if (IsLocal()) {
        block = static_cast<char*>(kwz::MemAlloc(grown + 1));
        if (!block) throw std::bad_alloc();
        std::memcpy(block, m_local, m_length + 1);
    } else {
        block = static_cast<char*>(kwz::MemReAlloc(m_data, grown + 1));
        if (!block) throw std::bad_alloc();
    }
    m_data = block;
    m_capacity = grown;
}

void KString::Reserve(size_t capacity) { Grow(capacity); }

KString& KString::Assign(const char* bytes, size_t length) {
    if (bytes >= m_data && bytes <= m_data + m_length) {
        // A part of this very string: move it to the front.
        std::memmove(m_data, bytes, length);
    } else {
        Grow(length);
        if (length) std::memcpy(m_data, bytes, length);
    }
    m_length = length;
    m_data[length] = 0;
    return *this;
}

KString& KString::Append(const char* bytes, size_t length) {
    if (!length) return *this;
    if (bytes >= m_data && bytes <= m_data + m_length) {
        KString copy(bytes, length);
        return Append(copy.m_data, copy.m_length);
    }
    Grow(m_length + length);
    std::memcpy(m_data + m_length, bytes, length);
    m_length += length;
    m_data[m_length] = 0;
    return *this;
}

KString& KString::Append(const char* text) { return text ? Append(text, std::strlen(text)) : *this; }

KString& KString::Append(char c) {
    Grow(m_length + 1);
    m_data[m_length++] = c;
    m_data[m_length] = 0;
    return *this;
}

KString& KString::AppendFormat(const char* format, ...) {
    char small[256];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n <= 0) return *this;
    if (static_cast<size_t>(n) < sizeof small) return Append(small, static_cast<size_t>(n));
    const size_t at = m_length;
    Grow(at + static_cast<size_t>(n));
    va_start(args, format);
    std::vsnprintf(m_data + at, static_cast<size_t>(n) + 1, format, args);
    va_end(args);
    m_length = at + static_cast<size_t>(n);
    return *this;
}

KString KString::Format(const char* format, ...) {
    KString out;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (n > 0) {
        out.Grow(static_cast<size_t>(n));
        std::vsnprintf(out.m_data, static_cast<size_t>(n) + 1, format, again);
        out.m_length = static_cast<size_t>(n);
    }
    va_end(again);
    return out;
}

void KString::Clear() noexcept {
    m_length = 0;
    m_data[0] = 0;
}

KString& KString::TrimLeft() {
    size_t i = 0;
    while (i < m_length && IsBlank(m_data[i])) ++i;
    if (i) Assign(m_data + i, m_length - i);
    return *this;
}

KString& KString::TrimRight() {
    while (m_length && IsBlank(m_data[m_length - 1])) --m_length;
    m_data[m_length] = 0;
    return *this;
}

KString& KString::Trim() { return TrimRight().TrimLeft(); }

int KString::Compare(const char* text) const {
    if (!text) text = "";
    const size_t n = std::strlen(text);
    const int c = std::memcmp(m_data, text, m_length < n ? m_length : n);
    if (c) return c < 0 ? -1 : 1;
    return m_length == n ? 0 : (m_length < n ? -1 : 1);
}

int KString::CompareNoCase(const char* text) const {
    if (!text) text = "";
    const auto* p = reinterpret_cast<const unsigned char*>(m_data);
    const auto* end = p + m_length;
    const auto* q = reinterpret_cast<const unsigned char*>(text);
    for (;; ++p, ++q) {
        if (p == end) return *q ? -1 : 0;
        if (!*q) return 1;
        const unsigned x = kwz::FoldCaseRus(*p), y = kwz::FoldCaseRus(*q);
        if (x != y) return x < y ? -1 : 1;
    }
}

bool KString::operator==(const KString& other) const noexcept {
    return m_length == other.m_length && std::memcmp(m_data, other.m_data, m_length) == 0;
}

char* KString::Detach() {
    char* block;
    if (IsLocal()) {
        block = static_cast<char*>(kwz::MemAlloc(m_length + 1));
        if (!block) throw std::bad_alloc();
        std::memcpy(block, m_local, m_length + 1);
    } else {
        block = m_data;
        m_data = m_local;
    }
    m_length = 0;
    m_local[0] = 0;
    return block;
}
