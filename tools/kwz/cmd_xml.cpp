// kwz xml: parses a document and reports errors by line and column, prints
// it indented, or prints the value at a simple path.
#include <VomKwz.h>
#include <strings.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "kwz_util.h"

namespace {

using namespace kwz::tool;

using XmlPtr = std::unique_ptr<_tagXMLNode, void (*)(_tagXMLNode*)>;

// Line and column (1-based, columns in bytes) of a byte offset.
std::pair<size_t, size_t> LineColumn(const std::string& text, size_t offset) {
    size_t line = 1, start = 0;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            start = i + 1;
        }
    }
    return {line, offset - start + 1};
}

// One step of a path: an element name ("*" any) and a 1-based index among
// the children so named, or an attribute ("@name").
struct Step {
    std::string name;
    int32_t index = 1;
    bool attribute = false;
};

bool ParsePath(const std::string& path, std::vector<Step>* steps) {
    size_t at = path.size() > 0 && path[0] == '/' ? 1 : 0;
    while (at <= path.size()) {
        size_t end = path.find('/', at);
        if (end == std::string::npos) end = path.size();
        std::string part = path.substr(at, end - at);
        Step s;
        if (!part.empty() && part[0] == '@') {
            if (end != path.size() || part.size() < 2) return false;
            s.attribute = true;
            s.name = part.substr(1);
        } else {
            const size_t open = part.find('[');
            if (open != std::string::npos) {
                int64_t n = 0;
                if (part.back() != ']' || !ParseInt(part.substr(open + 1, part.size() - open - 2), 1, INT32_MAX, &n))
                    return false;
                s.index = int32_t(n);
                part.resize(open);
            }
            if (part.empty()) return false;
            s.name = part;
        }
        steps->push_back(s);
        at = end + 1;
    }
    return !steps->empty();
}

// The index-th element child of node named so (case ignored, as every name
// lookup of the library), or null.
_tagXMLNode* Child(_tagXMLNode* node, const Step& step) {
    int32_t seen = 0;
    for (int32_t i = 0; i < KWXmlCount(node); ++i) {
        _tagXMLNode* c = KWXmlNodeGetN(node, i);
        if (KWXmlType(c) != KWXML_ELEMENT) continue;
        if (step.name != "*" && strcasecmp(KWXmlGetName(c), step.name.c_str()) != 0) continue;
        if (++seen == step.index) return c;
    }
    return nullptr;
}

int Get(_tagXMLNode* doc, const std::string& path) {
    std::vector<Step> steps;
    if (!ParsePath(path, &steps)) UsageError(path, "expected a path like a/b[2]/@attr");
    _tagXMLNode* node = doc;
    std::string walked;
    for (const Step& s : steps) {
        if (s.attribute) {
            const char* value = KWXmlAttrGet(node, s.name.c_str());
            if (!value) return Fail(path, (walked.empty() ? "/" : walked) + " has no attribute \"" + s.name + "\"");
            std::printf("%s\n", value);
            return kExitOk;
        }
        const std::string shown = s.name + "[" + std::to_string(s.index) + "]";
        node = Child(node, s);
        if (!node) return Fail(path, "no element " + shown + " under " + (walked.empty() ? "/" : walked));
        walked += "/" + shown;
    }
    std::printf("%s\n", KWXmlGetVal(node));
    return kExitOk;
}

// Elements and attributes of the tree (walked with a work list, as a tree
// may be nested very deep).
void Count(_tagXMLNode* doc, size_t* elements, size_t* attributes) {
    std::vector<_tagXMLNode*> work{doc};
    while (!work.empty()) {
        _tagXMLNode* n = work.back();
        work.pop_back();
        if (KWXmlType(n) == KWXML_ELEMENT) {
            ++*elements;
            *attributes += size_t(KWXmlAttrCount(n));
        }
        for (int32_t i = 0; i < KWXmlCount(n); ++i) work.push_back(KWXmlNodeGetN(n, i));
    }
}

}  // namespace

KWZ_COMMAND(xml, {600, "documents", "xml", "FILE|- [--pretty] [--force] [--get PATH]",
                  "parse an XML document; print it indented or the value at a path", 1, 1,
                  {{"--pretty", nullptr, nullptr, "print the tree indented, texts trimmed of blanks"},
                   {"--force", nullptr, nullptr, "accept a closing tag that does not match its element"},
                   {"--get", nullptr, "PATH", "print the text of an element or an attribute's value"}},
                  "Without --pretty or --get it tells whether FILE parses and counts its elements.\n"
                  "A parse error is shown as kwz xml: FILE:LINE:COLUMN: message (columns count\n"
                  "bytes); exit 1.\n"
                  "PATH steps through element names from the root: a/b[2]/@attr is the attribute\n"
                  "attr of the second b element in the root a; indexes count from 1 (default 1),\n"
                  "names ignore case, * matches any element.  An element gives its text."}) {
    if (call.Has("--pretty") && call.Has("--get")) UsageError("--get", "does not go with --pretty");
    const std::string file = call.Arg(0);
    std::vector<uint8_t> bytes;
    if (!ReadInput(file, &bytes)) return kExitFailure;
    const std::string text(bytes.begin(), bytes.end());
    if (text.find('\0') != std::string::npos) return Fail(InputName(file), "holds a 0 byte");
    XmlPtr doc(KWXmlNew(KWXML_DOCUMENT), &KWXmlFree);
    if (!doc) return Fail(InputName(file), "out of memory");
    int32_t position = 0;
    // --pretty trims blanks around texts, so that the source's own indentation
    // does not come back as values beside the indentation the writer adds.
    const int32_t flags = (call.Has("--force") ? KWXML_PARSE_FORCE : 0) | (call.Has("--pretty") ? KWXML_PARSE_TRIM : 0);
    const int32_t rc = KWXmlSetXmlEx(doc.get(), text.c_str(), flags, &position);
    if (rc == KWXML_NOMEM) return Fail(InputName(file), "out of memory");
    if (rc != KWXML_OK) {
        const auto lc = LineColumn(text, size_t(position < 0 ? 0 : position));
        return Fail(InputName(file) + ":" + std::to_string(lc.first) + ":" + std::to_string(lc.second),
                    std::string(KWXmlError(doc.get())) + " (error " + std::to_string(rc) + ")");
    }
    if (call.Has("--get")) return Get(doc.get(), call.Value("--get"));
    if (call.Has("--pretty")) {
        char* out = KWXmlGetXml(doc.get(), KWXML_INDENT | KWXML_NEWLINES);
        if (!out) return Fail(InputName(file), "out of memory");
        std::string shown;  // the writer's "\r\n" as the terminal's line end
        for (const char* p = out; *p; ++p)
            if (!(p[0] == '\r' && p[1] == '\n')) shown += *p;
        KWMemFree(out);
        std::fputs(shown.c_str(), stdout);
        if (!shown.empty() && shown.back() != '\n') std::fputc('\n', stdout);
        return kExitOk;
    }
    size_t elements = 0, attributes = 0;
    Count(doc.get(), &elements, &attributes);
    _tagXMLNode* root = nullptr;
    for (int32_t i = 0; i < KWXmlCount(doc.get()) && !root; ++i)
        if (KWXmlType(KWXmlNodeGetN(doc.get(), i)) == KWXML_ELEMENT) root = KWXmlNodeGetN(doc.get(), i);
    if (!root) return Fail(InputName(file), "holds no element");
    std::printf("%s: root <%s>, %zu elements, %zu attributes\n", InputName(file).c_str(), KWXmlGetName(root),
                elements, attributes);
    return kExitOk;
}
