// The forgiving single-pass parser.  It reads what it can, keeps the first
// error (code, text and position) in the parse options, and leaves the tree
// read up to the error.  Elements are read by one loop that climbs back up
// through the parent pointers, so the depth of a document never reaches the
// C stack.
#include <VomKwz.h>

#include <strings.h>

#include <emmintrin.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "xml/kwXmlBlocks.h"
#include "xml/kwXmlPool.h"
#include "xml/kwXmlTree.h"
#include "text/kwText.h"

namespace {

using kwz::text::IsBlank;

using kwz::xml::Adopt;
using kwz::xml::Blocks;
using kwz::xml::NewNode;

const char* SkipBlanks(const char* p) {
    while (IsBlank(*p)) ++p;
    return p;
}

// A set of bytes that ends a scan; the 0 at the end of the text always does.
struct Stops {
    bool at[256];
    constexpr explicit Stops(const char* set) : at{} {
        at[0] = true;
        for (; *set; ++set) at[static_cast<unsigned char>(*set)] = true;
    }
};
constexpr Stops kNameEnd(" \t\r\n/>");
constexpr Stops kDeclarationNameEnd(" \t\r\n?>");
constexpr Stops kWordEnd(" \t\r\n>");

// The first a, b, c or 0 at or after p, 16 bytes at a time.  The loads are
// aligned, so they never cross into a page past the end of the text; the
// bytes they read beyond the 0 are ignored (and hidden from the address
// checker, which would see a read past the block).
__attribute__((no_sanitize_address)) const char* FindAny(const char* p, char a, char b, char c) {
    const uintptr_t offset = reinterpret_cast<uintptr_t>(p) & 15;
    const auto* q = reinterpret_cast<const __m128i*>(p - offset);
    const __m128i va = _mm_set1_epi8(a), vb = _mm_set1_epi8(b), vc = _mm_set1_epi8(c);
    const __m128i zero = _mm_setzero_si128();
    const auto hits = [&](__m128i x) {
        const __m128i ab = _mm_or_si128(_mm_cmpeq_epi8(x, va), _mm_cmpeq_epi8(x, vb));
        const __m128i any = _mm_or_si128(ab, _mm_or_si128(_mm_cmpeq_epi8(x, vc), _mm_cmpeq_epi8(x, zero)));
        return static_cast<unsigned>(_mm_movemask_epi8(any));
    };
    unsigned mask = hits(_mm_load_si128(q)) >> offset;
    if (mask) return p + __builtin_ctz(mask);
    for (;;) {
        ++q;
        mask = hits(_mm_load_si128(q));
        if (mask) return reinterpret_cast<const char*>(q) + __builtin_ctz(mask);
    }
}

// Whether a and b hold the same n bytes (names: short, so no call).
inline bool Same(const char* a, const char* b, size_t n) {
    for (; n >= 8; a += 8, b += 8, n -= 8) {
        uint64_t x, y;
        std::memcpy(&x, a, 8);
        std::memcpy(&y, b, 8);
        if (x != y) return false;
    }
    for (; n; --n) {
        if (*a++ != *b++) return false;
    }
    return true;
}

// The first byte of stops at or after p.
inline const char* Until(const char* p, const Stops& stops) {
    while (!stops.at[static_cast<unsigned char>(*p)]) ++p;
    return p;
}

class Parser {
public:
    explicit Parser(_tagParseInfo& info) : m_info(info) {}

    const char* Element(_tagXMLNode* top, const char* p);
    const char* Others(_tagXMLNode* parent, _tagXMLDocument* doc, const char* p, bool* completed);
    const char* Attributes(_tagXMLNode* node, const char* p, bool declaration);
    const char* Declaration(_tagXMLNode* node, const char* p);
    const char* Delimited(_tagXMLNode* node, const char* p, int32_t type);

private:
    enum Step { kOpen, kClosed, kFailed };

    Step OpenTag(_tagXMLNode* node, const char*& p);
    void Error(int32_t code, const char* at, KString text);
    void StoreValue(_tagXMLText& to, const char* begin, const char* end, bool ampersand = true);
    void StoreName(_tagXMLText& to, const char* begin, size_t length);
    const char* FindUnescaped(const char* p, char wanted, bool* ampersand) const;
    static void Discard(_tagXMLNode* parent, _tagXMLNode* node);

    // Settles the shares of names (Blocks::ShareLater) once the names below
    // are given back: the tree may go to another thread after the parse.
    struct Settle {
        ~Settle() { kwz::xml::PoolSettle(); }
    } m_settle;
    _tagParseInfo& m_info;
    // The names met last, by a hash of their bytes: a name that comes again
    // shares their storage.
    _tagXMLText m_names[128];
};

void Parser::Error(int32_t code, const char* at, KString text) {
    if (m_info.errorOccurred) return;  // the first error of a parse stays
    m_info.errorOccurred = true;
    m_info.errorPosition = at;
    m_info.errorCode = code;
    m_info.errorText = std::move(text);
}

// A value as the options want it: trimmed, references turned into characters.
// ampersand: whether the value may hold an "&" (false when the scan saw none).
void Parser::StoreValue(_tagXMLText& to, const char* begin, const char* end, bool ampersand) {
    if (m_info.trimValue) {
        while (begin < end && IsBlank(*begin)) ++begin;
        while (end > begin && IsBlank(end[-1])) --end;
    }
    const size_t n = static_cast<size_t>(end - begin);
    const bool decode = ampersand && m_info.entityValue && m_info.entities && std::memchr(begin, '&', n);
    // An element's value is its last run of text: a run that follows a
    // child is written over the one before when that one was as long.
    char* out = n ? Blocks::Rewrite(to, n) : nullptr;
    if (out) {
        if (decode) {
            to.SetLength(kwz::xml::DecodeRefs(*m_info.entities, begin, n, out));
        } else {
            std::memcpy(out, begin, n);
            to.SetLength(n);
        }
    } else if (decode) {
        out = to.Reset(n);
        to.SetLength(kwz::xml::DecodeRefs(*m_info.entities, begin, n, out));
    } else if (n) {
        Blocks::Copy(to, begin, n);
    } else {
        to.Clear();
    }
}

void Parser::StoreName(_tagXMLText& to, const char* begin, size_t length) {
    if (length == 0) {
        to.Clear();
        return;
    }
    const auto* b = reinterpret_cast<const unsigned char*>(begin);
    const size_t hash = (length * 31 + b[0] * 7 + b[length - 1] + b[length / 2] * 3) & 127;
    _tagXMLText& known = m_names[hash];
    if (known.length() == length && Same(known.c_str(), begin, length)) {
        Blocks::ShareLater(to, known);
        return;
    }
    Blocks::Copy(to, begin, length);
    Blocks::ShareLater(known, to);
}

// The next wanted character that the escape character does not hide, or
// null; *ampersand tells whether an "&" came before it.
const char* Parser::FindUnescaped(const char* p, char wanted, bool* ampersand) const {
    char esc = m_info.escapeChar;
    if (!esc) esc = wanted;
    *ampersand = false;
    for (;;) {
        p = FindAny(p, wanted, esc, '&');
        const char c = *p;
        if (c == wanted) return p;
        if (c == '&' && esc != '&') {
            *ampersand = true;
            ++p;
            continue;
        }
        if (!c || !p[1]) return nullptr;
        if (p[1] == '&') *ampersand = true;  // references are turned even there
        p += 2;  // the escape character and the byte it hides
    }
}

// A nameless node is dropped once read; it is the last or next-to-last child
// of its parent (a comment that ended its step may follow it).
void Parser::Discard(_tagXMLNode* parent, _tagXMLNode* node) {
    auto& list = parent->Childs;
    for (size_t i = list.size(); i-- > 0;) {
        if (list[i] == node) {
            list.erase(i);
            break;
        }
    }
    delete node;
}

// attributes: { blanks name "=" blanks ( quoted | unquoted ) } blanks ( ">" | "/" )
// The "=" is searched without regard to the tag's end, so "<a x><b y='1'/>"
// gives a the attribute "x><b y": documents written for this reader rely on
// it, and the writer's output never depends on it.
namespace {

// The attributes of a tag, gathered and then added to the node together, so
// that its list is made once at its size.  Those not yet added are freed
// with the gathering (when an allocation fails).
class Gathered {
public:
    explicit Gathered(_tagXMLNode* node) : m_node(node) {}
    Gathered(const Gathered&) = delete;
    Gathered& operator=(const Gathered&) = delete;
    ~Gathered() {
        for (size_t i = 0; i < m_count; ++i) delete m_attrs[i];
    }

    // A new attribute, owned by the gathering until Add.
    _tagXMLAttr* Make() {
        if (m_count == kBatch) Add();
        m_attrs[m_count] = new _tagXMLAttr;
        return m_attrs[m_count++];
    }

    // The gathered attributes go to the node.
    void Add() {
        if (!m_count) return;
        _tagXMLItems& list = m_node->Attrs;
        const size_t need = list.size() + m_count;
        if (need > list.capacity()) list.reserve(m_count == kBatch ? need * 2 : need);
        for (size_t i = 0; i < m_count; ++i) m_node->AppendAttr(m_attrs[i]);
        m_count = 0;
    }

private:
    static constexpr size_t kBatch = 8;
    _tagXMLNode* m_node;
    _tagXMLAttr* m_attrs[kBatch];
    size_t m_count = 0;
};

}  // namespace

const char* Parser::Attributes(_tagXMLNode* node, const char* p, bool declaration) {
    Gathered gathered(node);
    for (;;) {
        p = SkipBlanks(p);
        if (!*p) {
            gathered.Add();
            Error(KWXML_ALONE_NOT_CLOSED, p, "Element must be closed.");
            return nullptr;
        }
        if (*p == '>' || *p == (declaration ? '?' : '/')) {
            gathered.Add();
            return p;
        }
        const char* eq = std::strchr(p, '=');
        if (!eq) {
            gathered.Add();
            Error(KWXML_ATTR_NO_VALUE, p, KString::Format("<%s> attribute has error ", node->Name.c_str()));
            return nullptr;
        }
        _tagXMLAttr* attr = gathered.Make();
        StoreName(attr->name, p, static_cast<size_t>(eq - p));
        const char* v = SkipBlanks(eq + 1);
        if (*v == '"' || *v == '\'') {
            bool ampersand = false;
            const char* close = FindUnescaped(v + 1, *v, &ampersand);
            if (!close) {
                gathered.Add();
                Error(KWXML_ATTR_NO_VALUE, p,
                      KString::Format("<%s> attribute has error ", node->Name.c_str()));
                return nullptr;
            }
            StoreValue(attr->value, v + 1, close, ampersand);
            p = close + 1;
        } else {
            const char* end = Until(v, kWordEnd);
            StoreValue(attr->value, v, end);
            p = end;
        }
    }
}

// declaration: "<?" name attributes "?>"
const char* Parser::Declaration(_tagXMLNode* node, const char* p) {
    node->Type = KWXML_DECLARATION;
    const char* name = p + 2;
    const char* e = Until(name, kDeclarationNameEnd);
    StoreName(node->Name, name, static_cast<size_t>(e - name));
    p = Attributes(node, e, true);
    if (!p) return nullptr;
    if (p[0] == '?' && p[1] == '>') return p + 2;
    if (*p == '>') return p + 1;
    const char* end = std::strstr(p, "?>");
    return end ? end + 2 : p + std::strlen(p);
}

// comment: "<!--" text "-->"; cdata: "<![CDATA[" text "]]>".  Without its
// closing delimiter the node runs to the end of the text.
const char* Parser::Delimited(_tagXMLNode* node, const char* p, int32_t type) {
    const bool comment = type == KWXML_COMMENT;
    node->Type = type;
    node->Name.Share(kwz::xml::KindName(type));
    const char* v = p + (comment ? 4 : 9);
    const char* end = std::strstr(v, comment ? "-->" : "]]>");
    const char* stop = end ? end : v + std::strlen(v);
    node->Value.Assign(v, static_cast<size_t>(stop - v));
    return end ? end + 3 : stop;
}

// others: { blanks ( declaration | comment | cdata ) }
// Declarations go to the document; comments and CDATA sections to parent
// (the document when there is none).  Inside an element a comment or CDATA
// section ends the step (*completed).  Returns p when nothing was read.
const char* Parser::Others(_tagXMLNode* parent, _tagXMLDocument* doc, const char* p, bool* completed) {
    *completed = false;
    const bool inside = parent && parent->Type != KWXML_DOCUMENT;
    _tagXMLNode* home = parent ? parent : doc;
    const char* start = p;
    for (;;) {
        const char* q = SkipBlanks(p);
        if (q[0] != '<') return p == start ? start : q;
        if (q[1] == '?') {
            auto node = NewNode(KWXML_DECLARATION, doc);
            p = Declaration(node.get(), q);
            if (!p) return nullptr;
            if (doc) Adopt(doc, std::move(node));
            continue;
        }
        int32_t type;
        if (q[1] != '!') {
            return p == start ? start : q;
        } else if (std::strncmp(q, "<!--", 4) == 0) {
            type = KWXML_COMMENT;
        } else if (strncasecmp(q, "<![CDATA[", 9) == 0) {
            type = KWXML_CDATA;
        } else {
            return p == start ? start : q;
        }
        auto node = NewNode(type, home);
        p = Delimited(node.get(), q, type);
        if (home) Adopt(home, std::move(node));
        if (inside) {
            *completed = true;
            return p;
        }
    }
}

// open tag: "<" name attributes ( "/>" | ">" text ), p at the "<".
Parser::Step Parser::OpenTag(_tagXMLNode* node, const char*& p) {
    const char* name = p + 1;
    const char* e = Until(name, kNameEnd);
    StoreName(node->Name, name, static_cast<size_t>(e - name));
    p = Attributes(node, e, false);
    if (!p) return kFailed;
    if (*p == '/') {
        if (p[1] == '>') {
            p += 2;
            return kClosed;
        }
        Error(KWXML_ALONE_NOT_CLOSED, p, "Element must be closed.");
        return kFailed;
    }
    const char* text = p + 1;
    bool ampersand = false;
    const char* lt = FindUnescaped(text, '<', &ampersand);
    if (!lt) {
        Error(KWXML_NOT_CLOSED, text,
              KString::Format("%s must be closed with </%s>", node->Name.c_str(), node->Name.c_str()));
        return kFailed;
    }
    StoreValue(node->Value, text, lt, ampersand);
    p = lt;
    return kOpen;
}

// element: others* ( open-tag content* close-tag | "<" name attributes "/>" )
// content: text | others | element;  close-tag: "</" blanks name ( blank | ">" )
// The value of an element is its last run of text.  A child without a name
// is read and dropped.
const char* Parser::Element(_tagXMLNode* top, const char* p) {
    top->Close();
    for (;;) {
        p = std::strchr(p, '<');
        if (!p) return nullptr;
        if (p[1] == '/') return p;  // the end tag belongs to the caller
        bool completed = false;
        const char* q = Others(top->Parent, top->Document, p, &completed);
        if (!q) return nullptr;
        if (completed) return q;
        if (q == p) break;
        if (*q != '<' && top->Parent && top->Parent->Type != KWXML_DOCUMENT) return q;
        p = q;
    }
    _tagXMLNode* cur = top;
    Step step = OpenTag(cur, p);
    for (;;) {
        if (step == kFailed) {
            // Up to top, nameless nodes go; named ones stay as read.
            while (cur != top) {
                _tagXMLNode* parent = cur->Parent;
                if (cur->Name.empty()) Discard(parent, cur);
                cur = parent;
            }
            return nullptr;
        }
        if (step == kClosed) {
            if (cur == top) return p;
            _tagXMLNode* parent = cur->Parent;
            if (cur->Name.empty()) Discard(parent, cur);
            cur = parent;
        }
        // cur reads its content at p.
        if (p[0] == '<' && p[1] == '/') {
            const char* c = SkipBlanks(p + 2);
            const char* e = Until(c, kWordEnd);
            const _tagXMLText& name = cur->Name;
            if (!*e) {
                Error(KWXML_NOT_CLOSED, p, KString::Format("it must be closed with </%s>", name.c_str()));
                step = kFailed;
            } else if (name.length() == static_cast<size_t>(e - c) && Same(name.c_str(), c, name.length())) {
                p = e + 1;
                step = kClosed;
            } else if (!m_info.forceParse) {
                const KString close(c, static_cast<size_t>(e - c));
                Error(KWXML_NOT_NESTED, p,
                      KString::Format("'<%s> ... </%s>' is not wel-formed.", name.c_str(), close.c_str()));
                step = kFailed;
            } else {
                p = e + 1;
                step = kOpen;
            }
            continue;
        }
        if (*p != '<') {
            bool ampersand = false;
            const char* lt = FindUnescaped(p, '<', &ampersand);
            if (!lt) {
                Error(KWXML_NOT_CLOSED, p,
                      KString::Format("it must be closed with </%s>", cur->Name.c_str()));
                step = kFailed;
                continue;
            }
            StoreValue(cur->Value, p, lt, ampersand);
            p = lt;
            step = kOpen;
            continue;
        }
        if (p[1] != '?' && p[1] != '!') {  // an element: Others would read nothing
            cur = Adopt(cur, NewNode(KWXML_ELEMENT, cur));
            step = OpenTag(cur, p);
            continue;
        }
        bool completed = false;
        const char* q = Others(cur, cur->Document, p, &completed);
        if (!q) {
            step = kFailed;
            continue;
        }
        if (q != p) {
            p = q;
            step = kOpen;
            continue;
        }
        cur = Adopt(cur, NewNode(KWXML_ELEMENT, cur));
        step = OpenTag(cur, p);
    }
}

void ResetReport(_tagParseInfo& info) {
    info.errorOccurred = false;
    info.errorPosition = nullptr;
    info.errorCode = 0;
    info.errorText.Clear();
}

// The options a call runs with: the given ones, else the document's, else
// the defaults (kept in spare).
_tagParseInfo& OptionsFor(const _tagXMLNode* node, _tagParseInfo* info, _tagParseInfo& spare) {
    if (info) return *info;
    if (node->Document) return node->Document->ParseInfo;
    return spare;
}

}  // namespace

const char* _tagXMLNode::Load(const char* text, _tagParseInfo* info) {
    if (auto* document = dynamic_cast<_tagXMLDocument*>(this)) return document->Load(text, info);
    Type = KWXML_ELEMENT;  // any other node loads as an element
    _tagParseInfo spare;
    _tagParseInfo& options = OptionsFor(this, info, spare);
    ResetReport(options);
    try {
        return Parser(options).Element(this, text ? text : "");
    } catch (...) {
        Close();  // out of memory: an empty node, never half a tree
        throw;
    }
}

const char* _tagXMLNode::LoadAttributes(const char* text, _tagParseInfo* info) {
    _tagParseInfo spare;
    return Parser(OptionsFor(this, info, spare)).Attributes(this, text ? text : "", false);
}

const char* _tagXMLNode::LoadComment(const char* text, _tagParseInfo* info) {
    _tagParseInfo spare;
    if (!text || std::strncmp(text, "<!--", 4) != 0) return nullptr;
    return Parser(OptionsFor(this, info, spare)).Delimited(this, text, KWXML_COMMENT);
}

const char* _tagXMLNode::LoadCDATA(const char* text, _tagParseInfo* info) {
    _tagParseInfo spare;
    if (!text || strncasecmp(text, "<![CDATA[", 9) != 0) return nullptr;
    return Parser(OptionsFor(this, info, spare)).Delimited(this, text, KWXML_CDATA);
}

const char* _tagXMLNode::LoadProcessingInstrunction(const char* text, _tagParseInfo* info) {
    _tagParseInfo spare;
    if (!text || text[0] != '<' || text[1] != '?') return nullptr;
    return Parser(OptionsFor(this, info, spare)).Declaration(this, text);
}

// document: others* element others*
const char* _tagXMLDocument::Load(const char* text, _tagParseInfo* info) {
    _tagParseInfo& options = info ? *info : ParseInfo;
    ResetReport(options);
    LastError.Clear();
    Close();
    try {
        Parser parser(options);
        auto root = NewNode(KWXML_ELEMENT, this);
        const char* p = parser.Element(root.get(), text ? text : "");
        if (p) {
            if (!root->Name.empty()) Adopt(this, std::move(root));
            bool completed = false;
            p = parser.Others(this, this, p, &completed);
        }
        LastError = options.errorText;
        return p;
    } catch (...) {
        Close();
        throw;
    }
}
