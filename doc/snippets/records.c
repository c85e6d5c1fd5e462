/* Records: a new record (every field null), typed setters and getters,
   conversions between field types, the null mark. */
#include <VomKwz.h>
#include <stdio.h>

int main(void) {
    KWRType type;
    KWRData rec;
    KWRTypInit(&type);
    KWRRecInit(&rec);
    if (KWRTypSet(&type, 1, "Point|3\r\nX|I4\r\nY|I2\r\nLabel|CB") != KWR_OK) return 1;
    if (KWRRecNew(&type, &rec) != KWR_OK) return 1;
    const KWRField* x = KWRFldByName(&type, "X");
    const KWRField* y = KWRFldByName(&type, "Y");
    const KWRField* label = KWRFldByName(&type, "Label");
    int64_t wide = 0;
    uint8_t isNull = 0;
    char text[16];
    if (KWRSetAsInt32(x, &rec, 42) != KWR_OK || KWRSetAsDouble(y, &rec, 7.9) != KWR_OK || /* 7.9 -> 7 */
        KWRSetAsText(label, &rec, 5, "north") != KWR_OK || KWRGetAsInt64(y, &rec, &wide) != KWR_OK ||
        KWRGetAsText(label, &rec, 0, sizeof text - 1, text) != KWR_OK || KWRSetNull(x, &rec) != KWR_OK ||
        KWRIsNull(x, &rec, &isNull) != KWR_OK)
        return 1;
    printf("Y %lld, Label %s, X null: %u\n", (long long)wide, text, isNull);
    KWRRecFree(&rec); /* frees the image and owned texts */
    KWRTypFree(&type);
    return 0;
}
