// XML internals: the C++ node classes, allocation failures during parse,
// write and copy, and documents deep and large enough to catch recursion and
// quadratic work.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "fault_harness.h"
#include "test_xml_dump.h"

using xmltest::Dump;
using xmltest::Node;
using xmltest::Xml;

namespace {

const char kMixed[] =
    "<?xml version='1.0'?><!--c--><r a='1' b='&amp;'><x>t<y/>&lt;u</x><![CDATA[d]]>"
    "<z k='v'><!--in-->tail</z></r><!--end-->";

std::string Text(const KString& s) { return std::string(s.c_str(), s.length()); }
std::string Text(const _tagXMLText& s) { return std::string(s.c_str(), s.length()); }

// Called right after the operation under test: whether its allocation
// failed; when none did, the countdown stops so that the checks that follow
// may allocate.
template <typename Fired>
bool Settle(Fired fired) {
    const bool failed = fired();
    if (!failed) kwz::FaultArm(0);
    return failed;
}

TEST(xml_internal, ParseOptionsOfTheClasses) {
    _tagXMLDocument doc;
    EXPECT_FALSE(doc.ParseInfo.trimValue);
    EXPECT_TRUE(doc.ParseInfo.entityValue);
    EXPECT_EQ(doc.ParseInfo.entities, &_tagXMLEntitys::Default());
    EXPECT_EQ(doc.ParseInfo.escapeChar, '\\');
    EXPECT_FALSE(doc.ParseInfo.forceParse);
    EXPECT_EQ(doc.Document, &doc);

    // Without options the document's own are used; the report is per parse.
    doc.ParseInfo.forceParse = true;
    doc.ParseInfo.trimValue = true;
    const char text[] = "<a> x </b></a>";
    EXPECT_NE(doc.Load(text), nullptr);
    EXPECT_STREQ(doc.GetRoot()->Value.c_str(), "x");
    _tagParseInfo strict;
    EXPECT_EQ(doc.Load(text, &strict), nullptr);
    EXPECT_EQ(strict.errorCode, KWXML_NOT_NESTED);
    EXPECT_EQ(strict.errorPosition, text + 6);
    EXPECT_STREQ(doc.LastError.c_str(), "'<a> ... </b>' is not wel-formed.");
    EXPECT_EQ(doc.GetRoot(), nullptr);
    EXPECT_NE(doc.Load("<a/>"), nullptr);
    EXPECT_FALSE(doc.ParseInfo.errorOccurred);
    EXPECT_STREQ(doc.LastError.c_str(), "");

    // The escape character and the entity table are options too.
    const _tagXMLEntity only[] = {{'*', "&star;"}};
    const _tagXMLEntitys stars{only, 1};
    _tagParseInfo custom;
    custom.escapeChar = '^';
    custom.entities = &stars;
    _tagXMLNode element;
    EXPECT_NE(element.Load("<a>&star;&lt;^<</a>", &custom), nullptr);
    EXPECT_STREQ(element.Value.c_str(), "*&lt;^<");
}

TEST(xml_internal, PiecewiseLoaders) {
    _tagXMLNode node;
    _tagParseInfo info;
    const char attrs[] = " a='1' b=\"2\" >rest";
    EXPECT_EQ(node.LoadAttributes(attrs, &info), attrs + 13);
    EXPECT_EQ(node.GetAttrCount(), 2);
    const char comment[] = "<!-- c -->x";
    EXPECT_EQ(node.LoadComment(comment, &info), comment + 10);
    EXPECT_EQ(node.Type, KWXML_COMMENT);
    EXPECT_STREQ(node.Value.c_str(), " c ");
    const char cdata[] = "<![CDATA[<>]]>";
    EXPECT_EQ(node.LoadCDATA(cdata, &info), cdata + 14);
    EXPECT_STREQ(node.Name.c_str(), "#CDATA");
    const char pi[] = "<?xml version='1.0' ?>";
    EXPECT_EQ(node.LoadProcessingInstrunction(pi, &info), pi + sizeof pi - 1);
    EXPECT_STREQ(node.Name.c_str(), "xml");
    EXPECT_EQ(node.LoadComment("<x>", &info), nullptr);
}

TEST(xml_internal, NodeOperations) {
    _tagXMLDocument doc;
    ASSERT_NE(doc.Load(kMixed), nullptr);
    _tagXMLNode* r = doc.GetRoot();
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->GetChildValue("X"), "<u");
    EXPECT_EQ(r->GetChildValue("none"), nullptr);
    EXPECT_STREQ(r->GetChildAttrValue("z", "K"), "v");
    EXPECT_EQ(r->GetChildAttr("z", "none"), nullptr);
    EXPECT_EQ(Text(r->GetChildText("x")), "<u");
    EXPECT_EQ(Text(r->GetText()), "<udtail");
    EXPECT_EQ(r->GetAttr(1)->node, r);
    EXPECT_STREQ(r->GetAttrValue("b"), "&");

    // Emptying a node frees its branch (the walk keeps its place in the
    // nodes it frees) and leaves the node's own fields as they were.
    {
        _tagXMLNode* top = r->AppendChild("top", "");
        ASSERT_NE(top->Load("<t><a><b/><c><d/></c></a><e/><f>x</f></t>", nullptr), nullptr);
        top->GetChild(0)->CalcRef = 0;
        top->CalcRef = 3;
        top->Close();
        EXPECT_EQ(top->CalcRef, 3);
        EXPECT_EQ(top->GetChildCount(), 0);
        EXPECT_EQ(top->Parent, r);
        EXPECT_TRUE(r->RemoveChild(top));
    }

    // Copies are detached and complete; a branch copy joins another tree.
    std::unique_ptr<_tagXMLNode> copy(r->CopyBranch());
    EXPECT_EQ(copy->Parent, nullptr);
    EXPECT_EQ(Text(copy->GetXML()), Text(r->GetXML()));
    EXPECT_EQ(copy->GetChild(0)->Owner, copy.get());
    std::unique_ptr<_tagXMLNode> single(r->CopyNode());
    EXPECT_EQ(single->GetChildCount(), 0);
    EXPECT_EQ(single->GetAttrCount(), 2);
    _tagXMLNode* z = r->GetChild("z");
    _tagXMLNode* added = z->AppendChildBranch(copy.get());
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->Owner, &doc);
    EXPECT_EQ(added->GetChild(0)->Owner, &doc);
    EXPECT_EQ(z->AppendChildBranch(&doc), nullptr);

    // Detach hands over ownership; Remove frees.
    std::unique_ptr<_tagXMLNode> detached(z->DetachChild(added));
    EXPECT_EQ(detached->Parent, nullptr);
    EXPECT_FALSE(z->RemoveChild(detached.get()));
    EXPECT_TRUE(r->RemoveChild(r->GetChild("x")));
    std::unique_ptr<_tagXMLAttr> attr(r->DetachAttr(0));
    EXPECT_EQ(attr->node, nullptr);
    EXPECT_TRUE(r->RemoveAttr("B"));
    EXPECT_EQ(r->AppendAttr(attr.release())->node, r);
    std::unique_ptr<_tagXMLNode> fresh(doc.CreateNode(KWXML_CDATA, nullptr, "v"));
    EXPECT_EQ(fresh->Document, &doc);
    EXPECT_STREQ(fresh->Name.c_str(), "#CDATA");
    EXPECT_EQ(r->AppendChild(fresh.release())->Parent, r);
    EXPECT_EQ(Text(doc.GetXML()),
              "<?xml version=\"1.0\"?><!--c--><r a=\"1\"><![CDATA[d]]><z k=\"v\"><!--in-->tail</z>"
              "<![CDATA[v]]></r><!--end-->");

    // Calculator references count over the branch.
    r->CalcRef = 1;
    z->CalcRef = 2;
    EXPECT_EQ(doc.CalcRefCount(), 3);
    EXPECT_EQ(z->CalcRefCount(), 2);
    r->Close();
    r->Name = "r";
    EXPECT_EQ(Text(doc.GetXML()), "<?xml version=\"1.0\"?><!--c--><r/><!--end-->");
}

// Texts belong to their nodes, not to the document they were parsed in:
// they survive the moves and copies of their nodes, the end of the source
// document, edits that read the text being replaced, and a free on another
// thread.  Names that a parse meets again share one block.
TEST(xml_internal, TextsFollowTheirNodes) {
    const std::string big(5000, 'b');  // a heap block of its own
    const std::string text = "<r><item id='1' kind='k'>one &amp; two</item><item id='2' kind='k'>" + big +
                             "</item><!--note--></r>";
    auto source = std::make_unique<_tagXMLDocument>();
    ASSERT_NE(source->Load(text.c_str()), nullptr);
    _tagXMLNode* r = source->GetRoot();
#if !defined(__SANITIZE_ADDRESS__)  // there every text is a heap block of its own
    EXPECT_EQ(r->GetChild(0)->Name.c_str(), r->GetChild(1)->Name.c_str());
    EXPECT_EQ(r->GetChild(0)->GetAttr(1)->name.c_str(), r->GetChild(1)->GetAttr(1)->name.c_str());
#endif

    _tagXMLDocument target;
    ASSERT_NE(target.Load("<t/>"), nullptr);
    _tagXMLNode* moved = target.GetRoot()->AppendChild(r->GetChild(1));
    ASSERT_NE(moved, nullptr);
    std::unique_ptr<_tagXMLNode> copy(r->CopyBranch());
    std::unique_ptr<_tagXMLNode> detached(r->DetachChild(0));
    source.reset();

    EXPECT_EQ(Text(moved->Value), big);
    EXPECT_STREQ(moved->GetAttrValue("kind"), "k");
    EXPECT_EQ(Text(detached->Value), "one & two");
    EXPECT_EQ(Text(copy->GetXML()), "<r><item id=\"1\" kind=\"k\">one &amp; two</item><!--note--></r>");

    // Edits that read the text they replace, and a rename of a shared name.
    ASSERT_EQ(KWXmlSetVal(moved, KWXmlGetVal(moved) + 4990), 0);
    EXPECT_EQ(Text(moved->Value), "bbbbbbbbbb");
    ASSERT_EQ(KWXmlSetName(detached.get(), KWXmlGetName(detached.get()) + 2), 0);
    EXPECT_STREQ(KWXmlGetName(detached.get()), "em");
    EXPECT_STREQ(KWXmlGetName(copy->GetChild(0)), "item");
    ASSERT_EQ(KWXmlAttrSetN(moved, 0, KWXmlAttrGetN(moved, 0)), 0);
    ASSERT_EQ(KWXmlAttrSet(moved, "kind", big.c_str()), 0);
    moved->Value = moved->Value;
    EXPECT_EQ(Text(target.GetXML()),
              "<t><item id=\"2\" kind=\"" + big + "\">bbbbbbbbbb</item></t>");

    // A tree parsed on one thread and freed on another.
    _tagXMLNode* parsed = nullptr;
    std::thread([&] {
        parsed = KWXmlNew(KWXML_DOCUMENT);
        KWXmlSetXml(parsed, text.c_str(), nullptr);
    }).join();
    EXPECT_EQ(Text(KWXmlNodeGetN(parsed, 0)->GetChild(1)->Value), big);
    KWXmlFree(parsed);
}

// Every allocation of a parse may fail: the result is then -1 and the node
// is empty; otherwise the tree is complete.  The sanitizer build checks that
// nothing leaks.
TEST(xml_internal, AllocationFailureDuringParse) {
    Node expected;
    ASSERT_EQ(KWXmlSetXml(expected, kMixed, nullptr), 0);
    const std::string tree = Dump(expected);
    for (int32_t kind : {KWXML_DOCUMENT, KWXML_ELEMENT}) {
        Node node(kind);
        const int64_t failures = kwz::test::ForEachAllocationFailure([&](auto fired) {
            const int32_t rc = KWXmlSetXml(node, kMixed, nullptr);
            if (Settle(fired)) {
                EXPECT_EQ(rc, KWXML_NOMEM);
                EXPECT_EQ(KWXmlCount(node), 0);
                EXPECT_EQ(KWXmlAttrCount(node), 0);
            } else {
                EXPECT_EQ(rc, 0);
                if (kind == KWXML_DOCUMENT) {
                    EXPECT_EQ(Dump(node), tree);
                }
            }
        });
        EXPECT_GT(failures, 10);
    }
}

TEST(xml_internal, AllocationFailureDuringWriteAndCopy) {
    Node doc;
    ASSERT_EQ(KWXmlSetXml(doc, kMixed, nullptr), 0);
    const std::string xml = Xml(doc);
    const std::string tree = Dump(doc);
    kwz::test::ForEachAllocationFailure([&](auto fired) {
        char* text = KWXmlGetXml(doc, KWXML_INDENT);
        EXPECT_EQ(text == nullptr, Settle(fired));
        KWMemFree(text);
    });
    Node other;
    ASSERT_EQ(KWXmlSetXml(other, "<o/>", nullptr), 0);
    _tagXMLNode* o = KWXmlNodeGetN(other, 0);
    _tagXMLNode* r = KWXmlFind(doc, "r");
    _tagXMLNode* z = KWXmlFind(doc, "z");
    kwz::test::ForEachAllocationFailure([&](auto fired) {
        bool threw = false;
        try {
            o->AppendChildBranch(r);
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        const bool failed = Settle(fired);
        EXPECT_EQ(threw, failed);
        EXPECT_EQ(o->GetChildCount(), failed ? 0 : 1);
        o->Close();
        o->Name = "o";
    });
    // Moving a node between trees fails before anything moves.
    kwz::test::ForEachAllocationFailure([&](auto fired) {
        const int32_t rc = KWXmlAdd(o, z);
        EXPECT_EQ(rc == KWXML_NOMEM, Settle(fired));
        if (rc == 0) {
            // Put it back where it was.
            o->DetachChild(z);
            r->Childs.insert(2, z);
            z->Parent = r;
        }
        EXPECT_EQ(o->GetChildCount(), 0);
    });
    EXPECT_EQ(Dump(doc), tree);
    EXPECT_EQ(Xml(doc), xml);
}

// 1,000,000 levels parse, write, copy and free with no recursion over the
// depth.
// The sanitizer builds give every node a heap block of its own and check every
// access: the sizes that prove the point in the plain build are cut by ten
// there, so that the suite keeps its time limit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kSizeDivisor = 10;
#else
constexpr size_t kSizeDivisor = 1;
#endif

TEST(xml_internal, DeepNesting) {
    const size_t depth = 1000000 / kSizeDivisor;
    std::string text;
    text.reserve(depth * 7 + 16);
    for (size_t i = 0; i < depth; ++i) text += "<a>";
    text += "x";
    for (size_t i = 0; i < depth; ++i) text += "</a>";
    {
        Node doc;
        ASSERT_EQ(KWXmlSetXml(doc, text.c_str(), nullptr), 0);
        EXPECT_EQ(Xml(doc), text);
        _tagXMLNode* leaf = KWXmlFind(doc, "b");
        EXPECT_EQ(leaf, nullptr);
        std::unique_ptr<_tagXMLNode> copy(KWXmlNodeGetN(doc, 0)->CopyBranch());
        EXPECT_EQ(Text(copy->GetText()), "x");
        EXPECT_EQ(copy->CalcRefCount(), 0);
    }
    // An error at the bottom keeps the named levels of an element node.
    text.resize(depth * 3 + 1);
    Node element(KWXML_ELEMENT);
    int32_t position = 0;
    EXPECT_EQ(KWXmlSetXml(element, text.c_str(), &position), KWXML_NOT_CLOSED);
    EXPECT_EQ(position, static_cast<int32_t>(depth * 3));
}

std::string Records(size_t bytes, int32_t* rows) {
    const std::string row = "<row id=\"12345\" name=\"n &amp; m\"><v>text &lt;1&gt;</v><w/></row>\n";
    std::string text = "<?xml version=\"1.0\"?>\n<table>\n";
    text.reserve(bytes + row.size() + 16);
    for (*rows = 0; text.size() < bytes; ++*rows) text += row;
    text += "</table>\n";
    return text;
}

// A document of 100 MB (1.7 million rows) parses and writes back; the source
// goes before the writing, so that source, tree and output never live at
// once.  How the time grows with the size is measured by bench_xml.
TEST(xml_internal, HundredMegabyteDocument) {
    int32_t rows = 0;
    std::string text = Records((size_t{100} << 20) / kSizeDivisor, &rows);
    const size_t size = text.size();
    _tagXMLDocument doc;
    ASSERT_NE(doc.Load(text.c_str()), nullptr);
    std::string().swap(text);
    const _tagXMLNode* table = doc.GetRoot();
    ASSERT_EQ(table->GetChildCount(), rows);
    const _tagXMLNode* last = table->GetChild(rows - 1);
    EXPECT_STREQ(last->GetAttrValue("name"), "n & m");
    EXPECT_STREQ(last->GetChild("v")->Value.c_str(), "text <1>");
    const KString written = doc.GetXML();
    EXPECT_GT(written.length(), size * 8 / 10);
    EXPECT_EQ(std::strncmp(written.c_str() + written.length() - 8, "</table>", 8), 0);
}

// A text, an attribute and a comment of 100 MB, one at a time: each parses
// into one block and writes back byte for byte.
TEST(xml_internal, HundredMegabyteValues) {
    const size_t n = (size_t{100} << 20) / kSizeDivisor;
    const struct {
        const char* head;
        const char* tail;
    } kCases[] = {{"<a>", "</a>"}, {"<a k=\"", "\"/>"}, {"<a><!--", "--></a>"}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.head);
        std::string text = c.head;
        text.reserve(n + 16);
        text.append(n, 'v');
        text += c.tail;
        const size_t size = text.size();
        Node doc;
        ASSERT_EQ(KWXmlSetXml(doc, text.c_str(), nullptr), 0);
        std::string().swap(text);
        _tagXMLNode* a = KWXmlNodeGetN(doc, 0);
        const char* value = KWXmlAttrCount(a) ? KWXmlAttrGetN(a, 0)
                            : KWXmlCount(a)   ? KWXmlGetVal(KWXmlNodeGetN(a, 0))
                                              : KWXmlGetVal(a);
        EXPECT_EQ(std::strlen(value), n);
        char* written = KWXmlGetXml(doc, 0);
        ASSERT_NE(written, nullptr);
        const size_t length = std::strlen(written);
        EXPECT_EQ(length, size);
        EXPECT_EQ(std::strncmp(written, c.head, std::strlen(c.head)), 0);
        EXPECT_STREQ(written + length - std::strlen(c.tail), c.tail);
        KWMemFree(written);
    }
}

}  // namespace
