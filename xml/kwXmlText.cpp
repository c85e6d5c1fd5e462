// The texts and item arrays of nodes, held in the node pool.
//
//   text block: | head (8 bytes: length, heap/static flags) | bytes | 0 |
//
// The text points at its bytes; a text of no bytes points at one static
// block, so that an empty name or value costs nothing.
#include <VomKwz.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "base/kwMem.h"
#include "base/kwSort.h"
#include "xml/kwXmlPool.h"

using kwz::xml::kPoolLargest;
using kwz::xml::PoolCut;
using kwz::xml::PoolGive;

const _tagXMLText::Empty _tagXMLText::s_empty = {kStatic, {0}};

void _tagXMLText::Release() noexcept {
    const uint64_t head = Head();
    if (head & kStatic) return;
    void* block = const_cast<char*>(m_data) - 8;
    if (head & kHeapBlock) {
        kwz::MemFree(block);
    } else {
        PoolGive(block);
    }
    m_data = s_empty.bytes;
}

void _tagXMLText::Clear() noexcept { Release(); }

namespace {

// A block for a text of up to capacity bytes, its head written (length 0);
// returns the place of the bytes.
char* NewText(size_t capacity, uint64_t heapFlag) {
    const size_t bytes = capacity + 9;
    if (bytes < capacity) throw std::bad_alloc();
    char* block;
    uint64_t head = 0;
    if (bytes > kPoolLargest) {
        block = static_cast<char*>(kwz::MemAlloc(bytes));
        if (!block) throw std::bad_alloc();
        head = heapFlag;
    } else {
        block = static_cast<char*>(PoolCut(bytes));
    }
    std::memcpy(block, &head, 8);
    return block + 8;
}

}  // namespace

char* _tagXMLText::Reset(size_t capacity) {
    char* data = NewText(capacity, kHeapBlock);
    data[0] = 0;
    Release();
    m_data = data;
    return data;
}

void _tagXMLText::SetLength(size_t length) noexcept {
    char* data = const_cast<char*>(m_data);
    if (Head() & kStatic) return;  // the empty text stays empty
    const uint64_t head = (Head() & ~kLengthMask) | length;
    std::memcpy(data - 8, &head, 8);
    data[length] = 0;
}

_tagXMLText& _tagXMLText::Assign(const char* bytes, size_t length) {
    if (length == 0) {
        Release();
        return *this;
    }
    // The new storage first: bytes may be this very text.
    char* data = NewText(length, kHeapBlock);
    std::memcpy(data, bytes, length);
    data[length] = 0;
    uint64_t head;
    std::memcpy(&head, data - 8, 8);
    head |= length;
    std::memcpy(data - 8, &head, 8);
    Release();
    m_data = data;
    return *this;
}

_tagXMLText& _tagXMLText::operator=(const char* text) {
    return Assign(text ? text : "", text ? std::strlen(text) : 0);
}

void _tagXMLText::Share(const _tagXMLText& other) {
    if (other.m_data == m_data) return;
    // Only pool blocks are shared; the others are copied.
    if ((other.Head() & (kStatic | kHeapBlock)) || !kwz::xml::PoolShare(other.m_data - 8)) {
        Assign(other.m_data, other.length());
        return;
    }
    Release();
    m_data = other.m_data;
}

bool _tagXMLText::EqualsNoCase(const char* text) const {
    if (!text) return false;
    const auto* p = reinterpret_cast<const unsigned char*>(m_data);
    const auto* end = p + length();
    const auto* q = reinterpret_cast<const unsigned char*>(text);
    for (;; ++p, ++q) {
        if (p == end) return *q == 0;
        if (!*q || kwz::FoldCaseRus(*p) != kwz::FoldCaseRus(*q)) return false;
    }
}

bool _tagXMLText::operator==(const char* text) const {
    const size_t n = length();
    return text && std::strlen(text) == n && std::memcmp(m_data, text, n) == 0;
}

// Item arrays: pool blocks while small, heap blocks beyond.
namespace {

void** NewItems(size_t capacity) {
    const size_t bytes = capacity * sizeof(void*);
    if (bytes > kPoolLargest) {
        auto* items = static_cast<void**>(kwz::MemAlloc(bytes));
        if (!items) throw std::bad_alloc();
        return items;
    }
    return static_cast<void**>(PoolCut(bytes));
}

void FreeItems(void** items, size_t capacity) noexcept {
    if (!items) return;
    if (capacity * sizeof(void*) > kPoolLargest) {
        kwz::MemFree(items);
    } else {
        PoolGive(items);
    }
}

}  // namespace

void _tagXMLItems::Free() noexcept {
    FreeItems(m_items, m_capacity);
    m_items = nullptr;
    m_size = m_capacity = 0;
}

void _tagXMLItems::reserve(size_t capacity) {
    if (capacity <= m_capacity) return;
    if (capacity > UINT32_MAX) throw std::bad_alloc();
    void** items = NewItems(capacity);
    if (m_size) std::memcpy(items, m_items, m_size * sizeof(void*));
    FreeItems(m_items, m_capacity);
    m_items = items;
    m_capacity = static_cast<uint32_t>(capacity);
}

void _tagXMLItems::insert(size_t index, void* item) {
    if (m_size == m_capacity) reserve(m_capacity ? size_t{m_capacity} * 2 : 4);
    std::memmove(m_items + index + 1, m_items + index, (m_size - index) * sizeof(void*));
    m_items[index] = item;
    ++m_size;
}

void _tagXMLItems::erase(size_t index) noexcept {
    std::memmove(m_items + index, m_items + index + 1, (m_size - index - 1) * sizeof(void*));
    --m_size;
}

void _tagXMLItems::reverse() noexcept { std::reverse(m_items, m_items + m_size); }

size_t _tagXMLItems::find(const void* item) const noexcept {
    size_t i = 0;
    while (i < m_size && m_items[i] != item) ++i;
    return i;
}
