/* Packed tables: an array packed into one "#RA2" block and opened again,
   checked against the block's length as bytes from outside must be. */
#include <VomKwz.h>
#include <stdio.h>

int main(void) {
    KWRType type;
    KWRTypInit(&type);
    KWArray* a = NULL;
    KWArray* b = NULL;
    void* block = NULL;
    int status = 1;
    if (KWRTypSet(&type, 1, "Row|2\r\nK|I4\r\nV|CM") != KWR_OK) return 1;
    if (KWACreate(&a, &type) != 0 || KWACreate(&b, NULL) != 0) goto done;
    for (int32_t i = 0; i < 3; ++i) {
        KWRData* rec = KWARecAdd(a, NULL); /* a new member, every field null */
        if (!rec || KWRSetAsInt32(KWRFldByName(KWAType(a), "K"), rec, i) != KWR_OK || KWARecPost(rec, NULL) != 0)
            goto done;
    }
    const uint64_t size = KWAPack(a, &block); /* the block is released with KWMemFree */
    if (size == 0) goto done;
    /* forRead true: read-from-pack storage, the records stay inside one block. */
    const int64_t read = KWAUnpackChecked(b, block, size, true);
    if (read <= 0) goto done; /* -2: malformed */
    printf("%llu bytes packed, %d records read back\n", (unsigned long long)size, KWARecCount(b));
    status = 0;
done:
    KWMemFree(block);
    KWADestroy(b);
    KWADestroy(a);
    KWRTypFree(&type);
    return status;
}
