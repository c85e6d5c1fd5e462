/* Memory, logging, version: a log sink, the version, a library block. */
#include <VomKwz.h>
#include <stdio.h>

static void sink(int32_t level, const char* tag, const char* text) {
    fprintf(stderr, "[%d] %s: %s\n", level, tag, text);
}

int main(void) {
    LogMessageSet(sink, 2); /* levels 1 (fatal) .. 5 (trace); 2: errors and worse */
    uint64_t major = 0, minor = 0, release = 0, build = 0;
    KWZGetVersion(&major, &minor, &release, &build, NULL);
    printf("libVomKwz %llu.%llu.%llu\n", (unsigned long long)major, (unsigned long long)minor,
           (unsigned long long)release);
    void* block = KWMemAlloc(64, NULL); /* what the library hands out goes back through KWMemFree */
    if (!block) return 1;
    KWMemFree(block);
    LogMessageSet(NULL, 0);
    return 0;
}
