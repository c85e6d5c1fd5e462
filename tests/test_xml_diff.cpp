// Differential test: on well-formed documents without a DTD, the tree of
// elements, attributes, texts, comments and CDATA sections that this library
// reads equals what pugixml reads from the same bytes, and what the writer
// makes of it reads back into the same tree in both.
//
// The model keeps one text per element, its last run of text; pugixml's tree
// is mapped to that: an element's value is its last non-empty text child.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <pugixml.hpp>

#include <cstdint>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "test_xml_dump.h"

using xmltest::Dump;
using xmltest::DumpText;
using xmltest::Node;
using xmltest::Xml;

namespace {

constexpr unsigned kPugiFlags = pugi::parse_cdata | pugi::parse_comments | pugi::parse_declaration |
                                pugi::parse_pi | pugi::parse_escapes | pugi::parse_ws_pcdata;
const char* const kNameChars = "\\\"[]();= ";

void PugiAttrs(std::string& out, pugi::xml_node n) {
    if (!n.first_attribute()) return;
    out += '[';
    for (pugi::xml_attribute a = n.first_attribute(); a; a = a.next_attribute()) {
        if (a != n.first_attribute()) out += ';';
        DumpText(out, a.name(), kNameChars);
        out += '=';
        DumpText(out, a.value(), kNameChars);
    }
    out += ']';
}

// One node in the format of xmltest::Dump; false for what the model does not
// keep as a node (text).
bool PugiHead(std::string& out, pugi::xml_node n) {
    switch (n.type()) {
    case pugi::node_comment:
    case pugi::node_cdata:
        out += n.type() == pugi::node_comment ? "#c\"" : "#d\"";
        DumpText(out, n.value(), "\\\"");
        out += '"';
        return true;
    case pugi::node_declaration:
        out += '?';
        DumpText(out, n.name(), kNameChars);
        PugiAttrs(out, n);
        return true;
    case pugi::node_pi: {
        // The model reads a processing instruction's text as attributes.
        out += '?';
        DumpText(out, n.name(), kNameChars);
        pugi::xml_document attrs;
        attrs.load_string((std::string("<x ") + n.value() + "/>").c_str(), kPugiFlags);
        PugiAttrs(out, attrs.first_child());
        return true;
    }
    case pugi::node_element: {
        DumpText(out, n.name(), kNameChars);
        PugiAttrs(out, n);
        const char* value = "";
        for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling()) {
            if (c.type() == pugi::node_pcdata && *c.value()) value = c.value();
        }
        if (*value) {
            out += '"';
            DumpText(out, value, "\\\"");
            out += '"';
        }
        return true;
    }
    default: return false;
    }
}

std::string PugiDump(const pugi::xml_document& doc) {
    std::string out;
    // Children of one node, then climbing back; no recursion.
    std::vector<pugi::xml_node> stack{doc};
    std::vector<pugi::xml_node> next{doc.first_child()};
    std::vector<bool> first{true};
    while (!stack.empty()) {
        pugi::xml_node c = next.back();
        if (!c) {
            stack.pop_back();
            next.pop_back();
            first.pop_back();
            if (!stack.empty()) out += ')';
            continue;
        }
        next.back() = c.next_sibling();
        std::string head;
        if (!PugiHead(head, c)) continue;
        if (!first.back()) out += ' ';
        first.back() = false;
        out += head;
        bool hasNodes = false;
        if (c.type() == pugi::node_element) {
            for (pugi::xml_node g = c.first_child(); g; g = g.next_sibling()) {
                if (g.type() != pugi::node_pcdata) hasNodes = true;
            }
        }
        if (hasNodes) {
            out += '(';
            stack.push_back(c);
            next.push_back(c.first_child());
            first.push_back(true);
        }
    }
    return out;
}

// Reads text with both parsers and compares; then writes the tree and reads
// the result with both again.
void Compare(const std::string& text) {
    pugi::xml_document pugiDoc;
    const pugi::xml_parse_result parsed = pugiDoc.load_buffer(text.data(), text.size(), kPugiFlags);
    ASSERT_TRUE(parsed) << "the sample is not well-formed: " << parsed.description() << " at "
                        << parsed.offset;
    Node doc;
    int32_t position = 0;
    ASSERT_EQ(KWXmlSetXml(doc, text.c_str(), &position), 0) << KWXmlError(doc) << " at " << position;
    const std::string tree = Dump(doc);
    ASSERT_EQ(tree, PugiDump(pugiDoc));
    for (int32_t options : {0, KWXML_REFERENCES}) {
        const std::string written = Xml(doc, options);
        Node again;
        ASSERT_EQ(KWXmlSetXml(again, written.c_str(), nullptr), 0) << written;
        EXPECT_EQ(Dump(again), tree);
        pugi::xml_document pugiAgain;
        ASSERT_TRUE(pugiAgain.load_buffer(written.data(), written.size(), kPugiFlags)) << written;
        EXPECT_EQ(PugiDump(pugiAgain), tree);
    }
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(xml_diff, OwnSamples) {
    for (const char* file : {"config.xml", "feed.xml", "mixed.xml"}) {
        SCOPED_TRACE(file);
        Compare(ReadFile(std::string(KWZ_TEST_DATA_DIR) + "/xml/" + file));
    }
}

TEST(xml_diff, SmallCases) {
    const char* cases[] = {
        "<a/>",
        "<a>x<b/>y<!--c-->z</a>",
        "<a>x<b/></a>",
        "<a>\r\n\t<b a='1' b=\"2\">t</b>\n</a>",
        "<a>&lt;&gt;&amp;&quot;&apos;&#65;&#x3b1;&#x1F600;</a>",
        "<a v='&lt;&#10;&#9;\"'>  </a>",
        "<a><![CDATA[]]><![CDATA[x]]>y</a>",
        "<?xml version=\"1.0\" standalone='yes'?><!--a--><r/><!--b-->",
        "<a>C:\\dir\\file ok</a>",
        "<x:a xmlns:x='urn:x'><x:b x:c='d'/></x:a>",
    };
    for (const char* c : cases) {
        SCOPED_TRACE(c);
        Compare(c);
    }
}

// Random well-formed documents: names, attributes with both quotes, mixed
// content with references, comments, CDATA, blanks of every kind, UTF-8.
class Generator {
public:
    explicit Generator(uint32_t seed) : m_rng(seed) {}

    std::string Document() {
        std::string out;
        if (Pick(2)) out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
        Misc(out);
        Element(out, 0);
        Misc(out);
        return out;
    }

private:
    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(m_rng); }

    std::string Name() {
        static const char first[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
        static const char rest[] = "abcxyzABC0123456789_.-";
        std::string n(1, first[Pick(sizeof first - 1)]);
        for (uint32_t i = Pick(8); i > 0; --i) n += rest[Pick(sizeof rest - 1)];
        if (Pick(10) == 0) n = "ns:" + n;
        return n;
    }

    // Character data; quote is the attribute's delimiter (0 in text).
    std::string Chars(char quote) {
        static const char* const pieces[] = {
            "a",    "Z",    "9",      " ",      "\t",    "\n",       "\r\n",     "&amp;",
            "&lt;", "&gt;", "&quot;", "&apos;", "&#65;", "&#x263A;", "\xC3\xA9", "\xE6\x97\xA5",
            "\\n",  ">",    "'",      "\"",     "-",     "]",
        };
        std::string s;
        for (uint32_t i = Pick(12); i > 0; --i) {
            std::string p = pieces[Pick(sizeof pieces / sizeof *pieces)];
            if (quote && p[0] == quote) p = quote == '"' ? "&quot;" : "&apos;";
            s += p;
        }
        return s;
    }

    // Comment text: no "--" and no leading ">", which XML forbids.
    std::string CommentText() {
        std::string s = Chars(0);
        for (char& c : s) c = c == '-' ? '~' : c;
        return " " + s;
    }

    // CDATA text: no "]]>".
    std::string CDataText() {
        std::string s = Chars(0);
        for (size_t at; (at = s.find("]]>")) != std::string::npos;) s.erase(at, 1);
        return s;
    }

    void Misc(std::string& out) {
        for (uint32_t i = Pick(3); i > 0; --i) {
            out += Pick(2) ? "\n" : " ";
            if (Pick(2)) out += "<!--" + CommentText() + "-->";
        }
    }

    void Element(std::string& out, int depth) {
        const std::string name = Name();
        out += "<" + name;
        std::vector<std::string> used;
        for (uint32_t i = Pick(4); i > 0; --i) {
            std::string a = Name();
            bool dup = false;
            for (const auto& u : used) dup = dup || u == a;
            if (dup) continue;
            used.push_back(a);
            const char q = Pick(2) ? '"' : '\'';
            out += (Pick(3) ? " " : "\n\t") + a + "=" + q + Chars(q) + q;
        }
        if (Pick(4) == 0 || depth > 6) {
            out += Pick(2) ? "/>" : " />";
            return;
        }
        out += ">";
        for (uint32_t i = Pick(5); i > 0; --i) {
            switch (Pick(5)) {
            case 0: out += Chars(0); break;
            case 1: out += "<!--" + CommentText() + "-->"; break;
            case 2: out += "<![CDATA[" + CDataText() + "<&>]]>"; break;
            default: Element(out, depth + 1); break;
            }
        }
        if (Pick(2)) out += Chars(0);
        out += "</" + name + ">";
    }

    std::mt19937 m_rng;
};

TEST(xml_diff, GeneratedDocuments) {
    for (uint32_t seed = 1; seed <= 2000; ++seed) {
        const std::string text = Generator(seed).Document();
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + text);
        Compare(text);
        if (HasFatalFailure()) return;
    }
}

TEST(xml_diff, DeepAndLarge) {
    std::string deep;
    for (int i = 0; i < 20000; ++i) deep += "<d k='" + std::to_string(i) + "'>";
    deep += "&amp;";
    for (int i = 0; i < 20000; ++i) deep += "</d>";
    Compare(deep);
    const std::string big(1 << 20, 'x');
    Compare("<a v='" + big + "'>" + big + "&lt;<!--" + big + "--></a>");
}

}  // namespace
