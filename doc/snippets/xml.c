/* XML: parse a document, find an element, read an attribute, change the
   tree and write it out indented. */
#include <VomKwz.h>
#include <stdio.h>

int main(void) {
    _tagXMLNode* doc = KWXmlNew(KWXML_DOCUMENT);
    if (!doc) return 1;
    int32_t at = 0;
    const int32_t rc = KWXmlSetXml(doc, "<shop><item id=\"7\" price=\"2.50\">tea</item></shop>", &at);
    if (rc != 0) { /* 1..4: a parse error at byte `at`, with its text */
        fprintf(stderr, "error %d at byte %d: %s\n", rc, at, KWXmlError(doc));
        KWXmlFree(doc);
        return 1;
    }
    _tagXMLNode* item = KWXmlFind(doc, "ITEM"); /* names ignore case */
    _tagXMLNode* added = item ? KWXmlAddNew(KWXmlParent(item), "item", "coffee & milk") : NULL;
    if (!added || KWXmlAttrSet(added, "id", "8") != 0) {
        KWXmlFree(doc);
        return 1;
    }
    printf("item %s costs %s\n", KWXmlAttrGet(item, "id"), KWXmlAttrGet(item, "price"));
    char* text = KWXmlGetXml(doc, KWXML_INDENT); /* released with KWMemFree */
    if (text) printf("%s\n", text);
    KWMemFree(text);
    KWXmlFree(doc); /* frees the whole tree */
    return text ? 0 : 1;
}
