/* Compression and data helpers: bytes into a "#LZ2" container and back, and
   the library's text hash of the container. */
#include <VomKwz.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    char text[4000];
    for (size_t i = 0; i < sizeof text; ++i) text[i] = "abcabcabd"[i % 9];
    void* container = NULL;
    void* back = NULL;
    int32_t containerLength = 0, backLength = 0;
    bool compressed = false;
    char hash[33];
    int status = 1;
    if (KWZDataCompress((int32_t)sizeof text, text, &containerLength, &container) == 0 &&
        KWZDataIsCompress(containerLength, container, &compressed) == 0 && compressed &&
        KWZDataDeCompress(containerLength, container, &backLength, &back) == 0 && /* checks every chunk */
        backLength == (int32_t)sizeof text && memcmp(back, text, sizeof text) == 0 &&
        KWZDataHash(containerLength, container, hash, NULL) == 0) {
        printf("%zu -> %d bytes, hash %s\n", sizeof text, containerLength, hash);
        status = 0;
    }
    KWMemFree(back); /* both blocks come from the library */
    KWMemFree(container);
    return status;
}
