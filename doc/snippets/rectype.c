/* Record types: a type from its definition text, its fields, the text back. */
#include <VomKwz.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    KWRType type;
    KWRTypInit(&type);
    /* "Name|Count[|Description]", then "Field|Code[|Description]" per line. */
    if (KWRTypSet(&type, 7, "Order|3|an order\r\nId|I8\r\nCode|CH12\r\nPrice|F8|unit price") != KWR_OK) return 1;
    for (uint8_t i = 0; i < type.fieldCount; ++i)
        printf("%s at offset %u, type %u\n", type.fields[i].name, type.fields[i].offset, type.fields[i].type);
    const KWRField* price = KWRFldByName(&type, "PRICE"); /* names ignore case */
    char* text = NULL;
    if (!price || KWRTypGet(&type, &text) != KWR_OK) return 1;
    printf("written back: %zu bytes\n", strlen(text));
    KWMemFree(text);
    KWRTypFree(&type);
    return 0;
}
