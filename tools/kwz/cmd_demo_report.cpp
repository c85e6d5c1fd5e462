// kwz demo, the last step on the server: report.xml, built with the XML
// functions, written indented, and parsed back to check what was written.
#include <VomKwz.h>

#include <cstdio>
#include <memory>
#include <string>

#include "cmd_demo.h"
#include "kwz_util.h"

namespace kwz::tool::demo {

namespace {

using XmlPtr = std::unique_ptr<_tagXMLNode, void (*)(_tagXMLNode*)>;

std::string Num(double v, int decimals = 2) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, v);
    return text;
}

// Appends an element with attributes given as name, value pairs; null when
// memory runs out.
_tagXMLNode* Add(_tagXMLNode* parent, const char* name, std::initializer_list<std::pair<const char*, std::string>> attrs,
                 const std::string& value = "") {
    _tagXMLNode* node = KWXmlAddNew(parent, name, value.c_str());
    for (const auto& a : attrs)
        if (node && KWXmlAttrSet(node, a.first, a.second.c_str()) != 0) return nullptr;
    return node;
}

}  // namespace

bool WriteReport(const std::string& formula, const OutFiles& out, Results* r) {
    const auto start = Clock::now();
    XmlPtr doc(KWXmlNew(KWXML_DOCUMENT), KWXmlFree);
    _tagXMLNode* root = doc ? Add(doc.get(), "demo", {{"records", std::to_string(r->records)}}) : nullptr;
    bool ok = root != nullptr;
    ok = ok && Add(root, "type", {{"id", std::to_string(kParcelId)}}, kParcelDefinition);
    ok = ok && Add(root, "cost", {{"min", Num(r->costMin)}, {"max", Num(r->costMax)}, {"mean", Num(r->costMean)}},
                   formula.empty() ? "cost(): the default script" : formula);
    _tagXMLNode* customers = ok ? Add(root, "customers", {{"count", std::to_string(r->customers.size())}}) : nullptr;
    ok = customers != nullptr;
    for (const Results::Customer& c : r->customers)
        ok = ok && Add(customers, "customer",
                       {{"name", c.name}, {"parcels", std::to_string(c.parcels)}, {"cost", Num(c.cost)}});
    ok = ok && Add(root, "table",
                   {{"bytes", std::to_string(r->tableBytes)}, {"container", std::to_string(r->containerBytes)},
                    {"hash", r->hash}});
    std::string path;
    for (uint32_t id : r->path) path += (path.empty() ? "" : " ") + std::to_string(id);
    ok = ok && Add(root, "path",
                   {{"from", std::to_string(r->pathFrom)}, {"to", std::to_string(r->pathTo)},
                    {"hops", std::to_string(r->hops)}, {"count", std::to_string(r->shortestPaths)}},
                   path);
    _tagXMLNode* timings = ok ? Add(root, "timings", {}) : nullptr;
    ok = timings != nullptr;
    for (const Timing& t : StepTimings())
        ok = ok && Add(timings, "step", {{"name", t.step}, {"ms", Num(t.ms, 3)}});
    if (!ok) return Fail("report", "out of memory"), false;

    std::unique_ptr<char, void (*)(void*)> text(KWXmlGetXml(doc.get(), KWXML_INDENT), KWMemFree);
    if (!text) return Fail("report", "out of memory"), false;
    const std::string body = std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n") + text.get();
    if (!WriteFile(out.Path("report.xml"), body.data(), body.size(), out.force)) return false;
    r->reportBytes = body.size();

    // Read back: the same path, the same customers.
    XmlPtr back(KWXmlNew(KWXML_DOCUMENT), KWXmlFree);
    int32_t at = 0;
    if (!back || KWXmlSetXml(back.get(), body.c_str(), &at) != 0)
        return Fail("report", "does not parse back (byte " + std::to_string(at) + ")"), false;
    _tagXMLNode* readPath = KWXmlFind(back.get(), "path");
    _tagXMLNode* readCustomers = KWXmlFind(back.get(), "customers");
    const char* hops = readPath ? KWXmlAttrGet(readPath, "hops") : nullptr;
    if (!hops || std::to_string(r->hops) != hops || !readCustomers ||
        KWXmlCount(readCustomers) != int32_t(r->customers.size()))
        return Fail("report", "reads back differently"), false;
    StepLine("report",
             "report.xml: " + Thousands(r->reportBytes) + " bytes, " + std::to_string(r->customers.size()) +
                 " customers and the path, parsed back",
             MsSince(start));
    return true;
}

}  // namespace kwz::tool::demo
