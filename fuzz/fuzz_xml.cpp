// XML parser and writer: whatever the bytes, parsing ends without a fault;
// the tree read (complete or up to an error) written back and read again
// gives the same tree.  The first byte picks the node kind and parse flags.
#include <VomKwz.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "../tests/test_xml_dump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const int32_t flags = data[0] & 0x0F;
    const int32_t kind = (data[0] & 0x10) ? KWXML_ELEMENT : KWXML_DOCUMENT;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);

    xmltest::Node first(kind);
    int32_t position = 0;
    const int32_t rc = KWXmlSetXmlEx(first, text.c_str(), flags, &position);
    if (rc < 0 || rc > 4 || position < 0 || static_cast<size_t>(position) > text.size()) std::abort();
    const std::string tree = xmltest::Dump(first);

    // Values hold what references stood for, so the second read converts
    // them; trimmed values stay trimmed.
    xmltest::Node second(kind);
    const std::string written = xmltest::Xml(first);
    if (KWXmlSetXmlEx(second, written.c_str(), flags & KWXML_PARSE_TRIM, nullptr) != 0) std::abort();
    if (xmltest::Dump(second) != tree) std::abort();

    xmltest::Xml(first, KWXML_INDENT | KWXML_REFERENCES);
    return 0;
}
