/* orders.c - a tour of the data side of libVomKwz from plain C:
 * declare a record type, fill records, keep them in a keyed table, seek,
 * pack the table, compress it, and read it back.
 *
 *   cc -std=c11 orders.c $(pkg-config --cflags --libs VomKwz) -o orders
 */
#include <VomKwz.h>

#include <stdio.h>
#include <string.h>

static const char* const kOrder = "Order|3\r\nId|I4\r\nCustomer|CH20\r\nTotal|F8";

static int fail(const char* what) {
    fprintf(stderr, "orders: %s failed\n", what);
    return 1;
}

/* A text cell: length at value[0..3], pointer at value[4..11]. */
static KWRVal text_cell(const char* text) {
    KWRVal cell;
    uint32_t length = (uint32_t)strlen(text);
    memset(&cell, 0, sizeof cell);
    cell.type = iFldType_Char;
    memcpy(cell.value, &length, sizeof length);
    memcpy(cell.value + 4, &text, sizeof text);
    return cell;
}

int main(void) {
    KWRType type;
    KWArray* table = NULL;
    KWAKeyDef byId;
    void* packed = NULL;
    void* container = NULL;
    int32_t containerLength = 0;
    static const struct { int32_t id; const char* customer; double total; } rows[] = {
        {30, "Ivanova", 12.5}, {10, "Smith", 99.0}, {20, "Okafor", 7.25}};
    int status = 1;

    KWRTypInit(&type);
    if (KWRTypSet(&type, 1, kOrder) != KWR_OK) return fail("KWRTypSet");
    if (KWACreate(&table, &type) != 0) return fail("KWACreate");
    memset(&byId, 0, sizeof byId);
    strcpy(byId.expression, "Id");
    byId.options = iKeyOpt_Unique;
    if (KWAKeyAdd(table, 1, &byId) != 0) goto done;

    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
        KWRVal cells[3];
        memset(cells, 0, sizeof cells);
        cells[0].type = iFldType_Int32;
        memcpy(cells[0].value, &rows[i].id, sizeof rows[i].id);
        cells[1] = text_cell(rows[i].customer);
        cells[2].type = iFldType_Double;
        memcpy(cells[2].value, &rows[i].total, sizeof rows[i].total);
        if (!KWARecAdd(table, cells)) goto done;
    }

    /* Walk the table in key order through the array's own fields. */
    KWRType* fields = KWAType(table);
    for (int32_t i = 0; i < KWARecCount(table); ++i) {
        KWRData* rec = KWARec(table, 0, i);
        int32_t id = 0;
        double total = 0;
        char customer[21];
        KWRGetAsInt32(KWRFldByName(fields, "Id"), rec, &id);
        KWRGetAsText(KWRFldByName(fields, "Customer"), rec, 0, sizeof customer, customer);
        KWRGetAsDouble(KWRFldByName(fields, "Total"), rec, &total);
        printf("order %d  %-10s %8.2f\n", id, customer, total);
    }

    /* Pack the whole table, compress it, and open it again for reading. */
    uint64_t size = KWAPack(table, &packed);
    if (size == 0) goto done;
    if (KWZDataCompress((int32_t)size, packed, &containerLength, &container) != 0) goto done;
    printf("packed table: %llu bytes, as a container: %d bytes\n", (unsigned long long)size,
           containerLength);
    if (KWZArrayUnPack(table, container, true) != 0) goto done;
    printf("reopened for reading: %d orders\n", KWARecCount(table));
    status = 0;

done:
    if (status) fail("building the table");
    KWMemFree(container);
    KWMemFree(packed);
    KWADestroy(table);
    KWRTypFree(&type);
    return status;
}
