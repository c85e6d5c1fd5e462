/* A C11 program compiled against the public header with -pedantic -Werror:
   the header is valid C, its layouts agree with C's view, and the flat
   functions link and work from C. */
#include <VomKwz.h>

#include <stdio.h>
#include <string.h>

static int failures = 0;
#define CHECK(cond)                                                    \
    do {                                                               \
        if (!(cond)) {                                                 \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                \
        }                                                              \
    } while (0)

static void check_layouts(void) {
    CHECK(sizeof(KWRField) == 112);
    CHECK(sizeof(KWRType) == 96);
    CHECK(sizeof(KWRData) == 40);
    CHECK(sizeof(KWRVal) == 14);
    CHECK(sizeof(KWRFieldDef) == 66);
    CHECK(offsetof(KWRData, guard) == 35);
}

static void check_basics(void) {
    uint64_t major = 0, build = 0;
    const char* credits = NULL;
    KWZGetVersion(&major, NULL, NULL, &build, &credits);
    CHECK(major == 2 && build == 20000 && credits != NULL);
}

static void check_records(void) {
    KWRType type;
    KWRData rec;
    KWRField* field = NULL;
    const char* text = NULL;
    uint32_t length = 0;
    int32_t x = 0;
    KWRTypInit(&type);
    CHECK(KWRTypSet(&type, 9, "_LOGIN|3\r\n_Login|CB\r\n_Password|CB\r\n_AddType|L1") == KWR_OK);
    CHECK(KWRTypFld(&type, "_login", &field) == KWR_OK && field != NULL);
    KWRRecInit(&rec);
    CHECK(KWRRecNew(&type, &rec) == KWR_OK);
    CHECK(KWRSetAsText(field, &rec, 5, "abcde") == KWR_OK);
    CHECK(KWRSetAsText(KWRFldByNum(&type, 1), &rec, 3, "xyz") == KWR_OK);
    CHECK(KWRSetAsInt32(KWRFldByNum(&type, 2), &rec, 1) == KWR_OK);
    CHECK(KWRRecPack(&type, &rec, 1, 1) == KWR_OK && rec.length == 36);
    CHECK(KWRRecCheck(&type, &rec) == KWR_OK);
    CHECK(KWRGetTextRef(field, &rec, &length, &text) == KWR_OK && length == 5 &&
          memcmp(text, "abcde", 5) == 0);
    CHECK(KWRGetAsInt32(KWRFldByNum(&type, 0), &rec, &x) == KWR_BADTYPE);
    KWRRecFree(&rec);
    KWRTypFree(&type);
}

static void check_arrays(void) {
    KWArray* array = NULL;
    KWRFieldDef defs[2];
    KWAKeyDef key;
    void* block = NULL;
    memset(defs, 0, sizeof defs);
    strcpy(defs[0].name, "A");
    defs[0].type = iFldType_Int32;
    strcpy(defs[1].name, "B");
    defs[1].type = iFldType_Char;
    defs[1].width = 10;
    memset(&key, 0, sizeof key);
    strcpy(key.expression, "A");
    key.options = iKeyOpt_Unique;
    CHECK(KWACreate(&array, NULL) == 0 && array != NULL);
    CHECK(KWAFldAdd(array, 2, defs) == 0);
    CHECK(KWAKeyAdd(array, 1, &key) == 0);
    CHECK(KWAPack(array, &block) == 32 && block != NULL);
    KWMemFree(block);
    CHECK(KWAType(array) != NULL && KWAType(array)->fieldCount == 2);
    KWADestroy(array);
}

static void check_data_helpers(void) {
    int32_t length = 0;
    void* block = NULL;
    char hash[33];
    CHECK(KWZDataCompress(0, "", &length, &block) == 0 && length == 12 &&
          memcmp(block, "#LZ200000000", 12) == 0);
    KWMemFree(block);
    CHECK(KWZDataHash(3, "abc", hash, NULL) == 0 && strlen(hash) == 32);
}

static void check_sockets(void) {
    CHECK(sizeof(SockState) == 52);
    CHECK(KWSockIsActive() != 0); /* never initialised */
    CHECK(KWSockClose(1) == SE_NOINIT);
}

int main(void) {
    check_layouts();
    check_basics();
    check_records();
    check_arrays();
    check_data_helpers();
    check_sockets();
    if (failures) {
        fprintf(stderr, "%d failures\n", failures);
        return 1;
    }
    printf("C API test passed\n");
    return 0;
}
