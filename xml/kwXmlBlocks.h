// The parser's and the tree freeing's direct hold on texts, item arrays,
// attributes and nodes: storage given back inline, without a call per block,
// names shared without an atomic operation, values written again in place.
#pragma once

#include <VomKwz.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/kwMem.h"
#include "xml/kwXmlPool.h"

namespace kwz::xml {

struct Blocks {
    // The text's storage goes back; the text is not usable after.
    static void GiveText(const _tagXMLText& text) noexcept {
        const uint64_t head = text.Head();
        if (head & _tagXMLText::kStatic) return;
        void* block = const_cast<char*>(text.m_data) - 8;
        if (head & _tagXMLText::kHeapBlock) {
            kwz::MemFree(block);
        } else {
            PoolGive(block);
        }
    }

    // to shares from's storage, counted in the thread's table until
    // PoolSettle (see PoolShareLater: from's owner must stay on this thread).
    static void ShareLater(_tagXMLText& to, const _tagXMLText& from) {
        if (from.m_data == to.m_data) return;
        if ((from.Head() & (_tagXMLText::kStatic | _tagXMLText::kHeapBlock)) || !PoolShareLater(from.m_data - 8)) {
            to.Assign(from.m_data, from.length());
            return;
        }
        if (!(to.Head() & _tagXMLText::kStatic)) to.Release();
        to.m_data = from.m_data;
    }

    // to takes a copy of n bytes (n > 0): Assign, inline for the parser's
    // short names and values.
    static void Copy(_tagXMLText& to, const char* bytes, size_t n) {
        if (n + 9 > kPoolLargest) {
            to.Assign(bytes, n);
            return;
        }
        char* block = static_cast<char*>(PoolCut(n + 9));
        const uint64_t head = n;
        std::memcpy(block, &head, 8);
        char* data = block + 8;
        if (n >= 8 && n <= 16) {  // two words that may overlap, without a call
            uint64_t a, b;
            std::memcpy(&a, bytes, 8);
            std::memcpy(&b, bytes + n - 8, 8);
            std::memcpy(data, &a, 8);
            std::memcpy(data + n - 8, &b, 8);
        } else if (n < 8) {
            for (size_t i = 0; i < n; ++i) data[i] = bytes[i];
        } else {
            std::memcpy(data, bytes, n);
        }
        data[n] = 0;
        if (!(to.Head() & _tagXMLText::kStatic)) to.Release();
        to.m_data = data;
    }

    // The text's own bytes, for writing up to n bytes again (then SetLength),
    // when it holds at least n bytes in a pool block; else null.  Only for a
    // text that no other shares: the parser rewrites the values it made.
    static char* Rewrite(_tagXMLText& text, size_t n) noexcept {
        const uint64_t head = text.Head();
        if (head & (_tagXMLText::kStatic | _tagXMLText::kHeapBlock)) return nullptr;
        if ((head & _tagXMLText::kLengthMask) < n) return nullptr;
        return const_cast<char*>(text.m_data);
    }

    // The array's storage goes back (not its items); the list is not usable after.
    static void GiveItems(const _tagXMLItems& items) noexcept {
        if (!items.m_items) return;
        if (items.m_capacity * sizeof(void*) > kPoolLargest) {
            kwz::MemFree(items.m_items);
        } else {
            PoolGive(items.m_items);
        }
    }

    // Frees node, a plain node (not a document) without children, with its
    // attributes: what its destructor and delete do, without a call each.
    static void Dispose(_tagXMLNode* node) noexcept {
        for (_tagXMLAttr* a : node->Attrs) {
            GiveText(a->name);
            GiveText(a->value);
            PoolGive(a);
        }
        GiveItems(node->Attrs);
        GiveItems(node->Childs);
        GiveText(node->Name);
        GiveText(node->Value);
        PoolGive(node);
    }
};

}  // namespace kwz::xml
