/* orders.c - a keyed table from plain C: declare a record type, keep its
 * records in a record array with two keys, seek by key, pack the table,
 * compress it, and open it again for reading.
 *
 *   cc -std=c11 orders.c $(pkg-config --cflags --libs VomKwz) -o orders
 */
#include <VomKwz.h>

#include <stdio.h>
#include <string.h>

static const char* const kOrder = "Order|3\r\nId|I4\r\nCustomer|CH20\r\nTotal|F8";

/* Value cells fill a whole record at once.  Numbers sit at value[0]; a
 * text cell holds its length at value[0..3] and a pointer at value[4..11]. */
static KWRVal int_cell(int32_t v) {
    KWRVal cell;
    memset(&cell, 0, sizeof cell);
    cell.type = iFldType_Int32;
    memcpy(cell.value, &v, sizeof v);
    return cell;
}

static KWRVal double_cell(double v) {
    KWRVal cell;
    memset(&cell, 0, sizeof cell);
    cell.type = iFldType_Double;
    memcpy(cell.value, &v, sizeof v);
    return cell;
}

static KWRVal text_cell(const char* text) {
    KWRVal cell;
    uint32_t length = (uint32_t)strlen(text);
    memset(&cell, 0, sizeof cell);
    cell.type = iFldType_Char;
    memcpy(cell.value, &length, sizeof length);
    memcpy(cell.value + 4, &text, sizeof text);
    return cell;
}

/* Prints one member through the array's own fields; 0 or 1 on failure. */
static int print_order(KWArray* table, KWRData* rec) {
    KWRType* fields = KWAType(table);
    int32_t id = 0;
    double total = 0;
    char customer[21];
    if (KWRGetAsInt32(KWRFldByName(fields, "Id"), rec, &id) != KWR_OK ||
        KWRGetAsText(KWRFldByName(fields, "Customer"), rec, 0, sizeof customer - 1, customer) != KWR_OK ||
        KWRGetAsDouble(KWRFldByName(fields, "Total"), rec, &total) != KWR_OK)
        return 1;
    customer[sizeof customer - 1] = 0;
    printf("  order %d  %-10s %8.2f\n", id, customer, total);
    return 0;
}

int main(void) {
    KWRType type;
    KWArray* table = NULL;
    KWAKeyDef keys[2];
    void* packed = NULL;
    void* container = NULL;
    int32_t containerLength = 0;
    static const struct { int32_t id; const char* customer; double total; } rows[] = {
        {30, "Ivanova", 12.5}, {10, "Smith", 99.0}, {20, "Okafor", 7.25}, {40, "smith", 3.5}};
    int status = 1;

    KWRTypInit(&type);
    if (KWRTypSet(&type, 1, kOrder) != KWR_OK) return 1;
    /* The array copies the type's fields; the type stays ours. */
    if (KWACreate(&table, &type) != 0) goto done;
    /* Key 0: Id, unique.  Key 1: Customer then Total, ignoring case. */
    memset(keys, 0, sizeof keys);
    strcpy(keys[0].expression, "Id");
    keys[0].options = iKeyOpt_Primary | iKeyOpt_Unique;
    strcpy(keys[1].expression, "Customer;Total");
    keys[1].options = iKeyOpt_CaseInsensitive;
    if (KWAKeyAdd(table, 2, keys) != 0) goto done;

    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
        KWRVal cells[3] = {int_cell(rows[i].id), text_cell(rows[i].customer), double_cell(rows[i].total)};
        if (!KWARecAdd(table, cells)) goto done; /* NULL: refused (a duplicate Id, memory) */
    }
    {
        /* A duplicate under the unique key is refused; the table is unchanged. */
        KWRVal again[3] = {int_cell(20), text_cell("Nobody"), double_cell(0)};
        if (KWARecAdd(table, again) != NULL) goto done;
    }

    printf("by customer (key 1, case ignored):\n");
    for (int32_t i = 0; i < KWARecCount(table); ++i)
        if (print_order(table, KWARec(table, 1, i)) != 0) goto done;

    {
        /* Seek by key 0: the cells hold the key's fields, here just Id. */
        KWRVal id = int_cell(20);
        int32_t position = -1;
        KWRData* found = KWARecSeekV(table, 0, &id, &position);
        if (!found) goto done;
        printf("seek Id 20: position %d\n", position);
        if (print_order(table, found) != 0) goto done;
    }

    /* Pack the whole table, compress it, and open it again for reading. */
    {
        uint64_t size = KWAPack(table, &packed); /* released with KWMemFree */
        if (size == 0) goto done;
        if (KWZDataCompress((int32_t)size, packed, &containerLength, &container) != 0) goto done;
        printf("packed table: %llu bytes, as a container: %d bytes\n", (unsigned long long)size, containerLength);
        /* ...N reads nothing past the length given: right for bytes from outside. */
        if (KWZArrayUnPackN(table, container, (uint64_t)containerLength, true) != 0) goto done;
        printf("reopened for reading: %d orders\n", KWARecCount(table));
    }
    status = 0;

done:
    if (status) fprintf(stderr, "orders: a step failed\n");
    KWMemFree(container);
    KWMemFree(packed);
    KWADestroy(table);
    KWRTypFree(&type);
    return status;
}
