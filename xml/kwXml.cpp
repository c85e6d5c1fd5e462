// The exported KWXml... functions: argument checks, then the node operations.
#include <VomKwz.h>

#include <cstring>
#include <memory>

#include "base/kwGuard.h"
#include "xml/kwXmlPool.h"
#include "xml/kwXmlTree.h"

namespace {

constexpr int32_t kNoMem = KWXML_NOMEM;
constexpr int32_t kBadArg = KWXML_BADARG;

const char* Text(const KString& s) { return s.c_str(); }
const char* Text(const _tagXMLText& s) { return s.c_str(); }

// Parses with the fixed options of the flat interface, adjusted by flags.
int32_t SetXml(_tagXMLNode* node, const char* text, int32_t flags, int32_t* errorPosition) {
    if (errorPosition) *errorPosition = 0;
    if (!node || !text) return kBadArg;
    _tagParseInfo info;
    info.trimValue = (flags & KWXML_PARSE_TRIM) != 0;
    info.entityValue = (flags & KWXML_PARSE_NO_ENTITIES) == 0;
    info.forceParse = (flags & KWXML_PARSE_FORCE) != 0;
    info.escapeChar = (flags & KWXML_PARSE_NO_ESCAPE) ? 0 : '\\';
    if (auto* document = dynamic_cast<_tagXMLDocument*>(node)) {
        document->Load(text, &info);
    } else {
        node->Load(text, &info);
        if (node->Document) node->Document->LastError = info.errorText;
    }
    if (!info.errorOccurred) return KWXML_OK;
    if (errorPosition) *errorPosition = static_cast<int32_t>(info.errorPosition - text);
    return info.errorCode;
}

}  // namespace

extern "C" {

KWZ_API int64_t KWXmlPoolBytes(void) {
    return kwz::CEdge<int64_t>("Kwz.kwXml.KWXmlPoolBytes", 0, 0,
                               [] { return static_cast<int64_t>(kwz::xml::PoolBytes()); });
}

KWZ_API _tagXMLNode* KWXmlNew(int32_t kind) {
    return kwz::CEdge<_tagXMLNode*>("Kwz.kwXml.KWXmlNew", nullptr, nullptr, [&]() -> _tagXMLNode* {
        if (kind == KWXML_DOCUMENT) return new _tagXMLDocument();
        if (kind < KWXML_ELEMENT || kind > KWXML_CDATA) return nullptr;
        return kwz::xml::NewNode(kind, nullptr).release();
    });
}

KWZ_API void KWXmlFree(_tagXMLNode* node) {
    kwz::CEdgeVoid("Kwz.kwXml.KWXmlFree", [&] {
        if (!node) return;
        if (node->Parent) node->Parent->DetachChild(node);
        delete node;
    });
}

KWZ_API int32_t KWXmlSetXml(_tagXMLNode* node, const char* text, int32_t* errorPosition) {
    return kwz::CEdge("Kwz.kwXml.KWXmlSetXml", kNoMem, kBadArg,
                      [&] { return SetXml(node, text, 0, errorPosition); });
}

KWZ_API int32_t KWXmlSetXmlEx(_tagXMLNode* node, const char* text, int32_t flags, int32_t* errorPosition) {
    return kwz::CEdge("Kwz.kwXml.KWXmlSetXmlEx", kNoMem, kBadArg,
                      [&] { return SetXml(node, text, flags, errorPosition); });
}

KWZ_API char* KWXmlGetXml(_tagXMLNode* node, int32_t options) {
    return kwz::CEdge<char*>("Kwz.kwXml.KWXmlGetXml", nullptr, nullptr, [&]() -> char* {
        if (!node) return nullptr;
        _tagDispOption display;
        display.newLines = (options & (KWXML_NEWLINES | KWXML_INDENT)) != 0;
        display.indent = (options & KWXML_INDENT) ? 2 : 0;
        display.references = (options & KWXML_REFERENCES) != 0;
        KString out;
        node->GetXML(out, &display);
        return out.Detach();
    });
}

KWZ_API const char* KWXmlError(_tagXMLNode* document) {
    return kwz::CEdge<const char*>("Kwz.kwXml.KWXmlError", "", "", [&]() -> const char* {
        if (!document || !document->Document) return "";
        return Text(document->Document->LastError);
    });
}

KWZ_API int32_t KWXmlType(_tagXMLNode* node) {
    return kwz::CEdge<int32_t>("Kwz.kwXml.KWXmlType", kBadArg, kBadArg,
                               [&]() -> int32_t { return node ? node->Type : kBadArg; });
}

KWZ_API _tagXMLNode* KWXmlOwner(_tagXMLNode* node) {
    return kwz::CEdge<_tagXMLNode*>("Kwz.kwXml.KWXmlOwner", nullptr, nullptr,
                                    [&]() -> _tagXMLNode* { return node ? node->Owner : nullptr; });
}

KWZ_API _tagXMLNode* KWXmlParent(_tagXMLNode* node) {
    return kwz::CEdge<_tagXMLNode*>("Kwz.kwXml.KWXmlParent", nullptr, nullptr,
                                    [&]() -> _tagXMLNode* { return node ? node->Parent : nullptr; });
}

KWZ_API const char* KWXmlGetName(_tagXMLNode* node) {
    return kwz::CEdge<const char*>("Kwz.kwXml.KWXmlGetName", nullptr, nullptr,
                                   [&]() -> const char* { return node ? Text(node->Name) : nullptr; });
}

KWZ_API const char* KWXmlGetVal(_tagXMLNode* node) {
    return kwz::CEdge<const char*>("Kwz.kwXml.KWXmlGetVal", nullptr, nullptr,
                                   [&]() -> const char* { return node ? Text(node->Value) : nullptr; });
}

KWZ_API int32_t KWXmlSetName(_tagXMLNode* node, const char* name) {
    return kwz::CEdge("Kwz.kwXml.KWXmlSetName", kNoMem, kBadArg, [&] {
        if (!node || !name) return kBadArg;
        node->Name = name;
        return KWXML_OK;
    });
}

KWZ_API int32_t KWXmlSetVal(_tagXMLNode* node, const char* value) {
    return kwz::CEdge("Kwz.kwXml.KWXmlSetVal", kNoMem, kBadArg, [&] {
        if (!node || !value) return kBadArg;
        node->Value = value;
        return KWXML_OK;
    });
}

KWZ_API int32_t KWXmlCount(_tagXMLNode* node) {
    return kwz::CEdge<int32_t>("Kwz.kwXml.KWXmlCount", 0, 0,
                               [&]() -> int32_t { return node ? node->GetChildCount() : 0; });
}

KWZ_API _tagXMLNode* KWXmlNodeGetN(_tagXMLNode* node, int32_t index) {
    return kwz::CEdge<_tagXMLNode*>("Kwz.kwXml.KWXmlNodeGetN", nullptr, nullptr,
                                    [&]() -> _tagXMLNode* { return node ? node->GetChild(index) : nullptr; });
}

KWZ_API _tagXMLNode* KWXmlNodeGet(_tagXMLNode* node, const char* name) {
    return kwz::CEdge<_tagXMLNode*>("Kwz.kwXml.KWXmlNodeGet", nullptr, nullptr, [&]() -> _tagXMLNode* {
        return node && name ? node->GetChild(name) : nullptr;
    });
}

KWZ_API _tagXMLNode* KWXmlFind(_tagXMLNode* node, const char* name) {
    return kwz::CEdge<_tagXMLNode*>("Kwz.kwXml.KWXmlFind", nullptr, nullptr,
                                    [&] { return node && name ? node->Find(name) : nullptr; });
}

KWZ_API int32_t KWXmlAdd(_tagXMLNode* node, _tagXMLNode* child) {
    return kwz::CEdge("Kwz.kwXml.KWXmlAdd", kNoMem, kBadArg, [&] {
        if (!node || node->Type == KWXML_DECLARATION || node->Type == KWXML_COMMENT ||
            node->Type == KWXML_CDATA || !node->AppendChild(child)) {
            return kBadArg;
        }
        return node->GetChildCount() - 1;
    });
}

KWZ_API _tagXMLNode* KWXmlAddNew(_tagXMLNode* node, const char* name, const char* value) {
    return kwz::CEdge<_tagXMLNode*>("Kwz.kwXml.KWXmlAddNew", nullptr, nullptr, [&]() -> _tagXMLNode* {
        if (!node || !name || node->Type == KWXML_COMMENT || node->Type == KWXML_CDATA ||
            node->Type == KWXML_DECLARATION) {
            return nullptr;
        }
        return node->AppendChild(name, value ? value : "");
    });
}

KWZ_API int32_t KWXmlDel(_tagXMLNode* node, int32_t index) {
    return kwz::CEdge("Kwz.kwXml.KWXmlDel", kNoMem, kBadArg,
                      [&] { return node && node->RemoveChild(index) ? KWXML_OK : kBadArg; });
}

KWZ_API int32_t KWXmlAttrCount(_tagXMLNode* node) {
    return kwz::CEdge<int32_t>("Kwz.kwXml.KWXmlAttrCount", 0, 0,
                               [&]() -> int32_t { return node ? node->GetAttrCount() : 0; });
}

KWZ_API const char* KWXmlAttrName(_tagXMLNode* node, int32_t index) {
    return kwz::CEdge<const char*>("Kwz.kwXml.KWXmlAttrName", nullptr, nullptr, [&]() -> const char* {
        const _tagXMLAttr* a = node ? node->GetAttr(index) : nullptr;
        return a ? Text(a->name) : nullptr;
    });
}

KWZ_API int32_t KWXmlAttrIdx(_tagXMLNode* node, const char* name) {
    return kwz::CEdge<int32_t>("Kwz.kwXml.KWXmlAttrIdx", -1, -1,
                               [&]() -> int32_t { return node && name ? node->GetAttrIdx(name) : -1; });
}

KWZ_API const char* KWXmlAttrGetN(_tagXMLNode* node, int32_t index) {
    return kwz::CEdge<const char*>("Kwz.kwXml.KWXmlAttrGetN", nullptr, nullptr, [&]() -> const char* {
        const _tagXMLAttr* a = node ? node->GetAttr(index) : nullptr;
        return a ? Text(a->value) : nullptr;
    });
}

KWZ_API const char* KWXmlAttrGet(_tagXMLNode* node, const char* name) {
    return kwz::CEdge<const char*>("Kwz.kwXml.KWXmlAttrGet", nullptr, nullptr, [&]() -> const char* {
        return node && name ? node->GetAttrValue(name) : nullptr;
    });
}

KWZ_API int32_t KWXmlAttrSet(_tagXMLNode* node, const char* name, const char* value) {
    return kwz::CEdge("Kwz.kwXml.KWXmlAttrSet", kNoMem, kBadArg, [&] {
        if (!node || !name || !value) return kBadArg;
        if (_tagXMLAttr* a = node->GetAttr(name)) {
            a->value = value;
        } else {
            node->AppendAttr(name, value);
        }
        return KWXML_OK;
    });
}

KWZ_API int32_t KWXmlAttrSetN(_tagXMLNode* node, int32_t index, const char* value) {
    return kwz::CEdge("Kwz.kwXml.KWXmlAttrSetN", kNoMem, kBadArg, [&] {
        _tagXMLAttr* a = node && value ? node->GetAttr(index) : nullptr;
        if (!a) return kBadArg;
        a->value = value;
        return KWXML_OK;
    });
}

KWZ_API int32_t KWXmlAttrAdd(_tagXMLNode* node, const char* name, const char* value) {
    return kwz::CEdge("Kwz.kwXml.KWXmlAttrAdd", kNoMem, kBadArg, [&] {
        if (!node || !name || !value) return kBadArg;
        node->AppendAttr(name, value);
        return node->GetAttrCount() - 1;
    });
}

KWZ_API int32_t KWXmlAttrDel(_tagXMLNode* node, const char* name) {
    return kwz::CEdge("Kwz.kwXml.KWXmlAttrDel", kNoMem, kBadArg,
                      [&] { return node && name && node->RemoveAttr(name) ? KWXML_OK : kBadArg; });
}

KWZ_API int32_t KWXmlAttrDelN(_tagXMLNode* node, int32_t index) {
    return kwz::CEdge("Kwz.kwXml.KWXmlAttrDelN", kNoMem, kBadArg,
                      [&] { return node && node->RemoveAttr(index) ? KWXML_OK : kBadArg; });
}

}  // extern "C"
