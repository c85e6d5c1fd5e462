/* Calculator values, constants, compiler: values and their image, a
   constant table, a function compiled and listed. */
#include <VomKwz.h>
#include <stdio.h>

int main(void) {
    CVar v, back;
    CVarInit(&v, 1); /* a zero-filled CVar is the empty value */
    CVarInit(&back, 1);
    CVarSetArr(&v, 2); /* an owned array of two empty values */
    CVarSetInt(&v.v.a[0], 42);
    CVarSetStr(&v.v.a[1], "text", 4);
    char image[64];
    const int32_t size = CVarToBuff(&v, image, sizeof image); /* NULL destination: measure only */
    if (size <= 0 || size > (int32_t)sizeof image || CVarFromBuffN(&back, image, size) != size) return 1;
    printf("image %d bytes, back: [%lld, \"%s\"]\n", size, (long long)back.v.a[0].v.i, back.v.a[1].v.s);
    CVarSetEmpty(&back);
    CVarSetEmpty(&v);

    KWCalcConst* constants = NULL;
    if (KWCalcConstCreate(&constants, 8) != 0 || KWCalcConstDbl(constants, "Rate", 0.2, "tax rate") != 0)
        return 1;
    KWFunDef* f = NULL;
    const int32_t rc = KWFunCompile("net(gross){Result = gross * (1 - Rate);}", &f, 0, constants);
    if (rc != 0) { /* f still holds the message and the byte offset */
        printf("error %d at byte %d: %s\n", rc, f ? f->externCount : 0, f ? (const char*)f->code : "");
        KWFunFree(f);
        KWCalcConstDestroy(constants);
        return 1;
    }
    char* listing = KWFunDisassemble(f);
    printf("%s", listing ? listing : "");
    KWMemFree(listing);
    KWFunFree(f);
    KWCalcConstDestroy(constants);
    return 0;
}
