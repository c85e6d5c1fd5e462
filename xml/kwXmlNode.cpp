// The node model: children and attributes, copies, and the document.
#include <VomKwz.h>

#include <cstring>
#include <memory>
#include <typeinfo>

#include "xml/kwXmlBlocks.h"
#include "xml/kwXmlTree.h"

namespace kwz::xml {

std::unique_ptr<_tagXMLNode> NewNode(int32_t type, _tagXMLNode* parent) {
    auto node = std::make_unique<_tagXMLNode>(type);
    node->Parent = parent;
    node->Document = parent ? parent->Document : nullptr;
    node->Owner = OwnerUnder(parent);
    if (type == KWXML_COMMENT || type == KWXML_CDATA) node->Name.Share(KindName(type));
    return node;
}

const _tagXMLText& KindName(int32_t type) {
    // Made once and shared by every comment and CDATA section.
    struct Names {
        _tagXMLText comment, cdata;
        Names() {
            comment = "#COMMENT";
            cdata = "#CDATA";
        }
    };
    static const Names names;
    return type == KWXML_COMMENT ? names.comment : names.cdata;
}

_tagXMLNode* Adopt(_tagXMLNode* parent, std::unique_ptr<_tagXMLNode> node) {
    // Many elements that have children have a few: the list starts at four.
    if (parent->Childs.capacity() == 0) parent->Childs.reserve(4);
    parent->Childs.push_back(node.get());
    node->Parent = parent;
    return node.release();
}

void FreeBelow(_tagXMLNode* top) noexcept {
    // Children go first to last, the order in which they were made and in
    // which their memory lies.  A node below top keeps the place of the next
    // child to free in its CalcRef, which it no longer needs.
    uint32_t topNext = 0;
    _tagXMLNode* n = top;
    for (;;) {
        uint32_t next = n == top ? topNext : static_cast<uint32_t>(n->CalcRef);
        if (next < n->Childs.size()) {
            _tagXMLNode* child = n->Childs[next++];
            if (next < n->Childs.size()) __builtin_prefetch(n->Childs[next], 1);  // the next one to free
            if (n == top) {
                topNext = next;
            } else {
                n->CalcRef = static_cast<int32_t>(next);
            }
            child->Parent = n;
            child->CalcRef = 0;
            n = child;
            continue;
        }
        n->Childs.clear();
        if (n == top) return;
        _tagXMLNode* up = n->Parent;
        if (typeid(*n) == typeid(_tagXMLNode)) {
            Blocks::Dispose(n);
        } else {
            delete n;  // childless now: its destructor does not descend
        }
        n = up;
    }
}

}  // namespace kwz::xml

using kwz::xml::FreeBelow;

namespace {

bool NameIs(const _tagXMLText& name, const char* wanted) { return wanted && name.EqualsNoCase(wanted); }

template <typename T>
T* At(const _tagXMLList<T>& list, int32_t index) {
    return index >= 0 && static_cast<size_t>(index) < list.size() ? list[static_cast<size_t>(index)]
                                                                  : nullptr;
}

}  // namespace

_tagXMLNode::~_tagXMLNode() {
    FreeBelow(this);
    for (_tagXMLAttr* a : Attrs) delete a;
}

void _tagXMLNode::Close() noexcept {
    FreeBelow(this);
    for (_tagXMLAttr* a : Attrs) delete a;
    Attrs.clear();
    Name.Clear();
    Value.Clear();
}

_tagXMLNode* _tagXMLNode::GetChild(int32_t index) const { return At(Childs, index); }

_tagXMLNode* _tagXMLNode::GetChild(const char* name) const {
    for (_tagXMLNode* c : Childs) {
        if (c->Type == KWXML_ELEMENT && NameIs(c->Name, name)) return c;
    }
    return nullptr;
}

const char* _tagXMLNode::GetChildValue(const char* name) const {
    const _tagXMLNode* c = GetChild(name);
    return c ? c->Value.c_str() : nullptr;
}

_tagXMLAttr* _tagXMLNode::GetChildAttr(const char* name, const char* attr) const {
    const _tagXMLNode* c = GetChild(name);
    return c ? c->GetAttr(attr) : nullptr;
}

const char* _tagXMLNode::GetChildAttrValue(const char* name, const char* attr) const {
    const _tagXMLAttr* a = GetChildAttr(name, attr);
    return a ? a->value.c_str() : nullptr;
}

KString _tagXMLNode::GetChildText(const char* name) const {
    const _tagXMLNode* c = GetChild(name);
    return c ? c->GetText() : KString();
}

_tagXMLNode* _tagXMLNode::Find(const char* name) const {
    const _tagXMLNode* found = nullptr;
    kwz::xml::Walk(
        this,
        [&](const _tagXMLNode* n) {
            if (found) return false;
            if (n != this && n->Type == KWXML_ELEMENT && NameIs(n->Name, name)) found = n;
            return !found;
        },
        [](const _tagXMLNode*) {});
    return const_cast<_tagXMLNode*>(found);
}

_tagXMLAttr* _tagXMLNode::GetAttr(int32_t index) const { return At(Attrs, index); }

_tagXMLAttr* _tagXMLNode::GetAttr(const char* name) const { return At(Attrs, GetAttrIdx(name)); }

int32_t _tagXMLNode::GetAttrIdx(const char* name) const {
    for (size_t i = 0; i < Attrs.size(); ++i) {
        if (NameIs(Attrs[i]->name, name)) return static_cast<int32_t>(i);
    }
    return -1;
}

const char* _tagXMLNode::GetAttrValue(const char* name) const {
    const _tagXMLAttr* a = GetAttr(name);
    return a ? a->value.c_str() : nullptr;
}

_tagXMLNode* _tagXMLNode::CreateNode(int32_t type, const char* name, const char* value) const {
    if (type == KWXML_DOCUMENT) return new _tagXMLDocument();
    auto node = kwz::xml::NewNode(type, nullptr);
    node->Document = Document;
    if (name && *name) node->Name = name;
    node->Value = value;
    return node.release();
}

_tagXMLAttr* _tagXMLNode::CreateAttr(const char* name, const char* value) {
    auto attr = std::make_unique<_tagXMLAttr>();
    attr->name = name;
    attr->value = value;
    return attr.release();
}

_tagXMLNode* _tagXMLNode::AppendChild(_tagXMLNode* node) {
    if (!node || node->Type == KWXML_DOCUMENT) return nullptr;
    for (const _tagXMLNode* up = this; up; up = up->Parent) {
        if (up == node) return nullptr;  // a node cannot go below itself
    }
    // Everything that can fail happens before the branch moves.
    std::vector<_tagXMLNode*> branch;
    kwz::xml::Walk(
        node,
        [&](const _tagXMLNode* n) {
            branch.push_back(const_cast<_tagXMLNode*>(n));
            return true;
        },
        [](const _tagXMLNode*) {});
    Childs.reserve(Childs.size() + 1);
    // The texts move with the nodes: they are held by the nodes, not by a
    // document, so a branch may go from one document to another as it is.
    if (node->Parent) {
        auto& siblings = node->Parent->Childs;
        siblings.erase(siblings.find(node));
    }
    Childs.push_back(node);
    node->Parent = this;
    _tagXMLNode* owner = kwz::xml::OwnerUnder(this);
    for (_tagXMLNode* n : branch) {
        n->Document = Document;
        n->Owner = owner;
    }
    return node;
}

_tagXMLNode* _tagXMLNode::AppendChild(const char* name, const char* value) {
    auto node = kwz::xml::NewNode(KWXML_ELEMENT, this);
    node->Name = name;
    node->Value = value;
    return kwz::xml::Adopt(this, std::move(node));
}

_tagXMLNode* _tagXMLNode::AppendChildBranch(const _tagXMLNode* branch) {
    if (!branch || branch->Type == KWXML_DOCUMENT) return nullptr;
    std::unique_ptr<_tagXMLNode> copy(branch->CopyBranch());
    if (!AppendChild(copy.get())) return nullptr;
    return copy.release();
}

bool _tagXMLNode::RemoveChild(int32_t index) {
    std::unique_ptr<_tagXMLNode> gone(DetachChild(index));
    return gone != nullptr;
}

bool _tagXMLNode::RemoveChild(_tagXMLNode* node) {
    std::unique_ptr<_tagXMLNode> gone(DetachChild(node));
    return gone != nullptr;
}

_tagXMLNode* _tagXMLNode::DetachChild(int32_t index) {
    _tagXMLNode* node = At(Childs, index);
    if (!node) return nullptr;
    Childs.erase(static_cast<size_t>(index));
    node->Parent = nullptr;
    return node;
}

_tagXMLNode* _tagXMLNode::DetachChild(_tagXMLNode* node) {
    const size_t i = Childs.find(node);
    return i == Childs.size() ? nullptr : DetachChild(static_cast<int32_t>(i));
}

_tagXMLAttr* _tagXMLNode::AppendAttr(_tagXMLAttr* attr) {
    if (!attr) return nullptr;
    Attrs.push_back(attr);
    attr->node = this;
    return attr;
}

_tagXMLAttr* _tagXMLNode::AppendAttr(const char* name, const char* value) {
    std::unique_ptr<_tagXMLAttr> attr(CreateAttr(name, value));
    AppendAttr(attr.get());
    return attr.release();
}

bool _tagXMLNode::RemoveAttr(int32_t index) {
    std::unique_ptr<_tagXMLAttr> gone(DetachAttr(index));
    return gone != nullptr;
}

bool _tagXMLNode::RemoveAttr(const char* name) { return RemoveAttr(GetAttrIdx(name)); }

_tagXMLAttr* _tagXMLNode::DetachAttr(int32_t index) {
    _tagXMLAttr* attr = At(Attrs, index);
    if (!attr) return nullptr;
    Attrs.erase(static_cast<size_t>(index));
    attr->node = nullptr;
    return attr;
}

_tagXMLNode* _tagXMLNode::CopyNode() const {
    const int32_t type = Type == KWXML_DOCUMENT ? KWXML_ELEMENT : Type;
    auto copy = std::make_unique<_tagXMLNode>(type);
    copy->Name.Share(Name);
    copy->Value.Share(Value);
    copy->Document = Document;
    copy->Attrs.reserve(Attrs.size());
    for (const _tagXMLAttr* a : Attrs) {
        _tagXMLAttr* added = copy->AppendAttr("", "");
        added->name.Share(a->name);
        added->value.Share(a->value);
    }
    return copy.release();
}

_tagXMLNode* _tagXMLNode::CopyBranch() const {
    std::unique_ptr<_tagXMLNode> root(CopyNode());
    // (source, its copy) for every node whose children are still to copy.
    std::vector<std::pair<const _tagXMLNode*, _tagXMLNode*>> work{{this, root.get()}};
    while (!work.empty()) {
        const auto [from, to] = work.back();
        work.pop_back();
        to->Childs.reserve(from->Childs.size());
        for (const _tagXMLNode* c : from->Childs) {
            std::unique_ptr<_tagXMLNode> copy(c->CopyNode());
            copy->Owner = root.get();
            _tagXMLNode* added = kwz::xml::Adopt(to, std::move(copy));
            if (!c->Childs.empty()) work.emplace_back(c, added);
        }
    }
    return root.release();
}

int32_t _tagXMLNode::CalcRefCount() const {
    int64_t sum = 0;
    kwz::xml::Walk(
        this,
        [&](const _tagXMLNode* n) {
            sum += n->CalcRef;
            return true;
        },
        [](const _tagXMLNode*) {});
    return static_cast<int32_t>(sum);
}

_tagXMLDocument::_tagXMLDocument() : _tagXMLNode(KWXML_DOCUMENT) { Document = this; }

_tagXMLDocument::~_tagXMLDocument() = default;

_tagXMLNode* _tagXMLDocument::GetRoot() const {
    for (_tagXMLNode* c : Childs) {
        if (c->Type == KWXML_ELEMENT) return c;
    }
    return nullptr;
}
