// Internal helpers shared by the node operations, the parser and the writer.
#pragma once

#include <VomKwz.h>

#include <memory>
#include <utility>
#include <vector>

namespace kwz::xml {

// The owner that a node under parent takes: the parent's owner, or the
// parent itself when it has none.
inline _tagXMLNode* OwnerUnder(_tagXMLNode* parent) {
    return parent ? (parent->Owner ? parent->Owner : parent) : nullptr;
}

// A new node of the given kind, detached, for parent's tree (parent may be null).
std::unique_ptr<_tagXMLNode> NewNode(int32_t type, _tagXMLNode* parent);

// The name of every comment ("#COMMENT") or CDATA section ("#CDATA").
const _tagXMLText& KindName(int32_t type);

// Appends node to parent's children; on failure node is freed and the
// parent is unchanged.
_tagXMLNode* Adopt(_tagXMLNode* parent, std::unique_ptr<_tagXMLNode> node);

// Frees everything below node, deepest first, without recursion or
// allocation; node keeps its own name, value and attributes.
void FreeBelow(_tagXMLNode* node) noexcept;

// Writes text with the table's references turned into characters to out
// (room for length bytes) and returns the bytes written, never more than length.
size_t DecodeRefs(const _tagXMLEntitys& table, const char* text, size_t length, char* out);

// Characters to references, with the lookup table built once: the writer
// applies one map to every value.
class RefMap {
public:
    // Every character of the table, or those that are also in only.
    RefMap(const _tagXMLEntitys& table, const char* only);
    void Apply(const char* text, size_t length, KString& out) const;

private:
    const _tagXMLEntitys& m_table;
    int16_t m_slot[256];
};

// Visits node and everything below it in document order: pre(n) on the way
// down, post(n) once all of n's children are done.  No recursion.
template <typename Pre, typename Post>
void Walk(const _tagXMLNode* node, Pre&& pre, Post&& post) {
    std::vector<std::pair<const _tagXMLNode*, size_t>> stack;
    if (!pre(node)) return;
    stack.emplace_back(node, 0);
    while (!stack.empty()) {
        auto& top = stack.back();
        if (top.second < top.first->Childs.size()) {
            const _tagXMLNode* child = top.first->Childs[top.second++];
            if (pre(child)) stack.emplace_back(child, 0);
            continue;
        }
        const _tagXMLNode* done = top.first;
        stack.pop_back();
        post(done);
    }
}

}  // namespace kwz::xml
