/* Record arrays: fields, a unique key and a case-insensitive one, new
   records posted, a seek by value, a walk in key order. */
#include <VomKwz.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    const KWRFieldDef fields[2] = {{"Id", 0, iFldType_Int32}, {"Name", 16, iFldType_Char}};
    KWAKeyDef keys[2];
    memset(keys, 0, sizeof keys);
    strcpy(keys[0].expression, "Id");
    keys[0].options = iKeyOpt_Unique;
    strcpy(keys[1].expression, "Name");
    keys[1].options = iKeyOpt_CaseInsensitive;
    KWArray* a = NULL;
    if (KWACreate(&a, NULL) != 0) return 1;
    if (KWAFldAdd(a, 2, fields) != 0 || KWAKeyAdd(a, 2, keys) != 0) goto fail;
    const KWRType* t = KWAType(a); /* the array's own type: read members through it */
    static const char* const names[] = {"pear", "Apple", "fig"};
    for (int32_t i = 0; i < 3; ++i) {
        KWRData* rec = KWARecNew(a); /* a working record, every field null */
        if (!rec) goto fail;
        if (KWRSetAsInt32(&t->fields[0], rec, 10 * (i + 1)) != KWR_OK ||
            KWRSetAsText(&t->fields[1], rec, (int32_t)strlen(names[i]), names[i]) != KWR_OK ||
            KWARecPost(rec, NULL) != 0) { /* -(7 + k): a duplicate under unique key k */
            KWARecDel(rec); /* a refused record is still ours */
            goto fail;
        }
    }
    KWRVal id;
    memset(&id, 0, sizeof id);
    id.type = iFldType_Int32;
    const int32_t wanted = 20;
    memcpy(id.value, &wanted, sizeof wanted);
    int32_t position = -1;
    KWRData* found = KWARecSeekV(a, 0, &id, &position);
    printf("Id 20 %s at %d; by name:", found ? "found" : "missing", position);
    for (int32_t i = 0; i < KWARecCount(a); ++i) {
        char name[17] = {0};
        if (KWRGetAsText(&t->fields[1], KWARec(a, 1, i), 0, 16, name) != KWR_OK) goto fail;
        printf(" %s", name);
    }
    printf("\n");
    KWADestroy(a); /* frees every member */
    return 0;
fail:
    KWADestroy(a);
    return 1;
}
