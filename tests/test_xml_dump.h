// A tree as one line of text, through the flat interface, for comparing trees
// in tests and in the fuzz target.  Children follow their parent in
// parentheses; element: name[attr=value;...]"value"; comment #c"text";
// CDATA #d"text"; declaration ?name[...]; a document lists its children.
// Quotes, backslashes, control bytes and the delimiters inside names are
// escaped, so that different trees never give the same line.
#pragma once

#include <VomKwz.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace xmltest {

inline void DumpText(std::string& out, const char* text, const char* special) {
    // Runs of plain bytes go in one append: values of many megabytes pass here.
    bool marked[256] = {};
    for (int c = 1; c < 0x20; ++c) marked[c] = c != '\n' && c != '\t';
    for (const char* s = special; *s; ++s) marked[static_cast<unsigned char>(*s)] = true;
    const char* p = text ? text : "";
    for (;;) {
        const char* run = p;
        while (*p && !marked[static_cast<unsigned char>(*p)]) ++p;
        out.append(run, static_cast<size_t>(p - run));
        if (!*p) return;
        const unsigned char c = static_cast<unsigned char>(*p++);
        if (c < 0x20) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        } else {
            out += '\\';
            out += static_cast<char>(c);
        }
    }
}

inline void DumpHead(std::string& out, _tagXMLNode* n) {
    const int32_t type = KWXmlType(n);
    const char* names = "\\\"[]();= ";
    if (type == KWXML_COMMENT) out += "#c";
    if (type == KWXML_CDATA) out += "#d";
    if (type == KWXML_DECLARATION) out += '?';
    if (type == KWXML_ELEMENT || type == KWXML_DECLARATION) DumpText(out, KWXmlGetName(n), names);
    const int32_t attrs = KWXmlAttrCount(n);
    if (attrs) {
        out += '[';
        for (int32_t i = 0; i < attrs; ++i) {
            if (i) out += ';';
            DumpText(out, KWXmlAttrName(n, i), names);
            out += '=';
            DumpText(out, KWXmlAttrGetN(n, i), names);
        }
        out += ']';
    }
    const char* value = KWXmlGetVal(n);
    if (type != KWXML_DOCUMENT && (*value || type == KWXML_COMMENT || type == KWXML_CDATA)) {
        out += '"';
        DumpText(out, value, "\\\"");
        out += '"';
    }
}

// No recursion: trees of any depth dump.
inline std::string Dump(_tagXMLNode* top) {
    std::string out;
    const bool document = KWXmlType(top) == KWXML_DOCUMENT;
    if (!document) DumpHead(out, top);
    std::vector<std::pair<_tagXMLNode*, int32_t>> stack{{top, 0}};
    if (!document && KWXmlCount(top)) out += '(';
    while (!stack.empty()) {
        auto& [node, next] = stack.back();
        if (next < KWXmlCount(node)) {
            if (next) out += ' ';
            _tagXMLNode* child = KWXmlNodeGetN(node, next++);
            DumpHead(out, child);
            if (KWXmlCount(child)) {
                out += '(';
                stack.emplace_back(child, 0);
            }
            continue;
        }
        stack.pop_back();
        if (!stack.empty() || (!document && KWXmlCount(top))) out += ')';
    }
    return out;
}

// Owns a node from KWXmlNew.
struct Node {
    explicit Node(int32_t kind = KWXML_DOCUMENT) : p(KWXmlNew(kind)) {}
    ~Node() { KWXmlFree(p); }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    operator _tagXMLNode*() const { return p; }
    _tagXMLNode* p;
};

// The node's text as KWXmlGetXml writes it.
inline std::string Xml(_tagXMLNode* node, int32_t options = 0) {
    char* text = KWXmlGetXml(node, options);
    std::string out = text ? text : "<null>";
    KWMemFree(text);
    return out;
}

}  // namespace xmltest
