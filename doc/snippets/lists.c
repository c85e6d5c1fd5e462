/* Pointer lists: add, sort with a comparison of the caller's, find. */
#include <VomKwz.h>
#include <stdio.h>
#include <string.h>

static int32_t by_text(void* context, void* a, void* b) {
    (void)context;
    return stricmp_rus(a, b); /* ignores the case of Latin and Cyrillic letters */
}

int main(void) {
    static char* const words[] = {"pear", "Apple", "fig"};
    KWList list;
    KWLInit(&list);
    for (int i = 0; i < 3; ++i)
        if (KWLAdd(&list, words[i]) < 0) return 1; /* -1: out of memory */
    KWLSort(NULL, &list, by_text);
    int32_t position = -1;
    const int32_t found = KWLSeek(NULL, &list, by_text, "FIG", &position);
    printf("%s %s %s; \"FIG\" %s at %d\n", (char*)KWLGet(&list, 0), (char*)KWLGet(&list, 1),
           (char*)KWLGet(&list, 2), found ? "found" : "not found", position);
    KWLClear(&list); /* frees the list's array, never the items */
    return 0;
}
