/* A C program built against the installed tree through pkg-config. */
#include <VomKwz.h>
#include <stdio.h>

int main(void) {
    uint64_t major = 0, minor = 0;
    KWZGetVersion(&major, &minor, NULL, NULL, NULL);
    KWRType type;
    KWRTypInit(&type);
    if (KWRTypSet(&type, 7, "Point|2\r\nX|I4\r\nY|I4") != 0) return 1;
    int ok = major == 2 && minor == 1 && type.fieldCount == 2 && type.dataLength == 16;
    KWRTypFree(&type);
    printf("C consumer: version %llu.%llu %s\n", (unsigned long long)major,
           (unsigned long long)minor, ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
