// The writer.  Rules of its layout:
//  - an element is "<name attrs/>" when it has neither children nor value,
//    "<name attrs>value</name>" without children, and otherwise its children
//    followed by its value: "<name attrs>children value</name>" (the reader
//    keeps an element's last run of text as its value, so this order reads
//    back into the same node);
//  - attribute values are written between double quotes;
//  - with new lines every node ends with "\r\n", and with indentation each
//    level adds that many blanks before a node, and the value of an element
//    with children stands on a line of its own;
//  - without the references option only what must be hidden is: & < > in
//    text, & < > " in attribute values; with it, all five characters.  A
//    value that ends in the reader's escape character writes that character
//    as a numeric reference, so that it cannot hide the delimiter after it.
// Comments, CDATA sections and declarations are written as they are held; a
// comment holding "-->" or a CDATA section holding "]]>" cannot read back.
#include <VomKwz.h>

#include <utility>
#include <vector>

#include "xml/kwXmlTree.h"

namespace {

class Writer {
public:
    Writer(KString& out, const _tagDispOption& options)
        : m_out(out),
          m_options(options),
          m_text(_tagXMLEntitys::Default(), options.references ? nullptr : "&<>"),
          m_attribute(_tagXMLEntitys::Default(), options.references ? nullptr : "&<>\"") {}

    void Node(const _tagXMLNode* top);

private:
    void Text(const _tagXMLText& value, bool attribute);
    void Put(const _tagXMLText& text) { m_out.Append(text.c_str(), text.length()); }
    void Attributes(const _tagXMLNode* node);
    void Indent(size_t depth);
    void EndLine();
    // Writes node up to its children; true when the children and the close
    // tag are still to come.
    bool Open(const _tagXMLNode* node, size_t depth);
    void Close(const _tagXMLNode* node, size_t depth);

    KString& m_out;
    const _tagDispOption& m_options;
    const kwz::xml::RefMap m_text;
    const kwz::xml::RefMap m_attribute;
};

void Writer::Text(const _tagXMLText& value, bool attribute) {
    const char esc = m_options.escapeChar;
    size_t n = value.length();
    const bool escapeAtEnd = esc && n && value[n - 1] == esc;
    if (escapeAtEnd) --n;
    (attribute ? m_attribute : m_text).Apply(value.c_str(), n, m_out);
    if (escapeAtEnd) m_out.AppendFormat("&#%u;", static_cast<unsigned>(static_cast<unsigned char>(esc)));
}

void Writer::Attributes(const _tagXMLNode* node) {
    for (const _tagXMLAttr* a : node->Attrs) {
        m_out.Append(' ');
        Put(a->name);
        m_out.Append("=\"", 2);
        Text(a->value, true);
        m_out.Append('"');
    }
}

void Writer::Indent(size_t depth) {
    if (!m_options.newLines || m_options.indent <= 0) return;
    for (size_t i = 0; i < depth * static_cast<size_t>(m_options.indent); ++i) m_out.Append(' ');
}

void Writer::EndLine() {
    if (m_options.newLines) m_out.Append("\r\n", 2);
}

bool Writer::Open(const _tagXMLNode* node, size_t depth) {
    switch (node->Type) {
    case KWXML_DOCUMENT: return true;
    case KWXML_DECLARATION:
        Indent(depth);
        m_out.Append("<?", 2);
        Put(node->Name);
        Attributes(node);
        m_out.Append("?>", 2);
        EndLine();
        return false;
    case KWXML_COMMENT:
    case KWXML_CDATA: {
        const bool comment = node->Type == KWXML_COMMENT;
        Indent(depth);
        m_out.Append(comment ? "<!--" : "<![CDATA[");
        Put(node->Value);
        m_out.Append(comment ? "-->" : "]]>");
        EndLine();
        return false;
    }
    default: break;
    }
    Indent(depth);
    m_out.Append('<');
    Put(node->Name);
    Attributes(node);
    if (node->Childs.empty()) {
        if (node->Value.empty()) {
            m_out.Append("/>", 2);
        } else {
            m_out.Append('>');
            Text(node->Value, false);
            m_out.Append("</", 2);
            Put(node->Name);
            m_out.Append('>');
        }
        EndLine();
        return false;
    }
    m_out.Append('>');
    EndLine();
    return true;
}

void Writer::Close(const _tagXMLNode* node, size_t depth) {
    if (node->Type == KWXML_DOCUMENT) return;
    if (!node->Value.empty()) {
        Indent(depth + 1);
        Text(node->Value, false);
        EndLine();
    }
    Indent(depth);
    m_out.Append("</", 2);
    Put(node->Name);
    m_out.Append('>');
    EndLine();
}

void Writer::Node(const _tagXMLNode* top) {
    // (node, next child) of every open element; the depth of a node is the
    // number of open elements above it.
    std::vector<std::pair<const _tagXMLNode*, size_t>> open;
    const size_t base = top->Type == KWXML_DOCUMENT ? 1 : 0;
    if (!Open(top, 0)) return;
    open.emplace_back(top, 0);
    while (!open.empty()) {
        auto& [node, next] = open.back();
        const size_t depth = open.size() - base;
        if (next < node->Childs.size()) {
            const _tagXMLNode* child = node->Childs[next++];
            if (Open(child, depth)) open.emplace_back(child, 0);
            continue;
        }
        const _tagXMLNode* done = node;
        open.pop_back();
        Close(done, open.size() - (open.size() >= base ? base : 0));
    }
}

}  // namespace

void _tagXMLNode::GetXML(KString& out, const _tagDispOption* options) const {
    const _tagDispOption defaults;
    Writer(out, options ? *options : defaults).Node(this);
}

KString _tagXMLNode::GetXML(const _tagDispOption* options) const {
    KString out;
    GetXML(out, options);
    return out;
}

// The values of the elements and CDATA sections, each element's after its
// children, where the writer puts it.
KString _tagXMLNode::GetText() const {
    KString out;
    kwz::xml::Walk(
        this,
        [&](const _tagXMLNode* n) {
            if (n->Type == KWXML_CDATA) out.Append(n->Value.c_str(), n->Value.length());
            return n->Type == KWXML_ELEMENT || n->Type == KWXML_DOCUMENT;
        },
        [&](const _tagXMLNode* n) { out.Append(n->Value.c_str(), n->Value.length()); });
    return out;
}
