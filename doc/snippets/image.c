/* Record image: pack a record into its self-contained wire form, hand a copy
   to another record, and check it before reading it, as a receiver must. */
#include <VomKwz.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void) {
    KWRType type;
    KWRData rec, copy;
    KWRTypInit(&type);
    KWRRecInit(&rec);
    KWRRecInit(&copy);
    if (KWRTypSet(&type, 1, "Msg|2\r\nSeq|I4\r\nText|CM") != KWR_OK || KWRRecNew(&type, &rec) != KWR_OK ||
        KWRSetAsInt32(KWRFldByName(&type, "Seq"), &rec, 1) != KWR_OK ||
        KWRSetAsText(KWRFldByName(&type, "Text"), &rec, 5, "hello") != KWR_OK ||
        KWRRecPack(&type, &rec, 1, 0) != KWR_OK) /* rec.image, rec.length: the wire image */
        return 1;
    void* bytes = malloc(rec.length);
    if (!bytes) return 1;
    memcpy(bytes, rec.image, rec.length);
    if (KWRRecSet(&copy, bytes) != KWR_OK) { /* adopts the block: KWRRecFree frees it */
        free(bytes);
        return 1;
    }
    const char* text = NULL;
    uint32_t length = 0;
    if (KWRRecCheck(&type, &copy) != KWR_OK ||
        KWRGetTextRef(KWRFldByName(&type, "Text"), &copy, &length, &text) != KWR_OK)
        return 1;
    printf("%u bytes on the wire, Text \"%.*s\"\n", rec.length, (int)length, text);
    KWRRecFree(&copy);
    KWRRecFree(&rec);
    KWRTypFree(&type);
    return 0;
}
