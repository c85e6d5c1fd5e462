/*
 * VomKwz.h - the one public header of libVomKwz_x64.so.1.
 *
 * Conventions
 * -----------
 * Results.  Every function returns a status, 0 meaning success.
 *   - Record types and records (KWR...) return uint32_t codes: small positive
 *     values for expected conditions (1 no image, 2 null value, 3 no such field,
 *     4 syntax error, 5 operation not allowed for the field type, 6 text missing
 *     in the image, 7 bad argument) and negative ones as their two's complement
 *     (0xFFFFFFFF = -1 out of memory, 0xFFFFFFFE = -2 corrupt data).
 *   - Record arrays (KWA...) return int32_t: -1 out of memory or bad argument,
 *     -2 image size differs in read-from-pack mode, -3 unpack for write failed
 *     or bad key field, -4 no fields, -5 stale field version, -6 index
 *     inconsistency, -(7 + k) duplicate under Unique key k.
 *   - Sockets (KWSock...) return int32_t: 0, -2 SE_NOINIT, -3 open failed,
 *     -4 SE_NOSOCK, -5 SE_OPTION, -7 SE_DATANOSEND, -8 SE_SUSPEND.
 *   - Data helpers (KWZ...) return 0, -1 out of memory or compression failure,
 *     -2 invalid argument, -4 undecodable container.
 *
 * Ownership.  The caller owns what it creates and releases it with the
 * matching Free/Destroy/Release function.  Every buffer that the library hands
 * out for the caller to release is released with KWMemFree.  A record given to
 * KWSockSendEx belongs to the transport until its completion callback runs.
 *
 * Exceptions.  KWRRecFree and KWSockSendEx throw std::runtime_error (text
 * "<function> RE_DATACORRUPT") for a structurally corrupt record (guard byte
 * not 0); C callers must never pass one.  Nothing else throws.
 *
 * Threads.  Records, record types and record arrays take no locks: one thread
 * at a time per object (a built record type may be read by many).  The socket
 * functions are thread-safe; the caller's event and completion callbacks run
 * on the library's worker threads, never under the module lock, and may call
 * back into the socket functions.  The log sink must be set while no other
 * thread logs.
 *
 * Integers in record images, packed tables and frames are little-endian and
 * unaligned.
 */
#ifndef VOMKWZ_H
#define VOMKWZ_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#define KWZ_VERSION_MAJOR 2
#define KWZ_VERSION_MINOR 1
#define KWZ_VERSION_RELEASE 0
#define KWZ_VERSION_BUILD 20000

#if defined(KWZ_BUILDING_LIBRARY)
#define KWZ_API __attribute__((visibility("default")))
#else
#define KWZ_API
#endif

#ifdef __cplusplus
#define KWZ_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#define KWZ_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ======================================================================== */
/* Memory, logging, version                                                  */
/* ======================================================================== */

/* Allocates size bytes; the result is also stored in *var (NULL on failure). */
KWZ_API void* KWMemAlloc(uint32_t size, void** var);
/* Resizes *var's block; on failure *var becomes NULL (the old block is lost to it). */
KWZ_API void* KWMemReAlloc(uint32_t size, void** var);
/* Frees a block handed out by the library; NULL is ignored. */
KWZ_API void KWMemFree(void* block);

/* Log levels run from 1 (fatal) to 5 (trace); a message goes out when its
   level is at most the threshold.  Tags read "Kwz.<module>.<function>". */
typedef void (*KWLogFn)(int32_t level, const char* tag, const char* text);
/* Installs the callback (NULL switches logging off), clamps the threshold to
   0..5 and returns the previous callback. */
KWZ_API KWLogFn LogMessageSet(KWLogFn callback, int32_t level);
KWZ_API int32_t LogMessageLevel(void);
KWZ_API void LogMessage(int32_t level, const char* tag, const char* text);
/* printf-style; the formatted text must stay below 2,048 bytes. */
KWZ_API void LogMessageF(int32_t level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Stores 2, 1, 0, 20000 and a static credit text; every pointer may be NULL. */
KWZ_API void KWZGetVersion(uint64_t* major, uint64_t* minor, uint64_t* release,
                           uint64_t* build, const char** credits);

/* ======================================================================== */
/* Ticks and calendar time                                                   */
/* ======================================================================== */

/* seconds * 1000 + nanoseconds / 1000 of CLOCK_REALTIME_COARSE (the low 32
   bits for the 32-bit forms).  Not a true millisecond count: kept as is. */
KWZ_API uint32_t GetTickCount(void);
KWZ_API uint64_t GetTickCount64(void);
KWZ_API uint32_t CTimeTick32(void);
/* Milliseconds of the steady clock since the library was loaded. */
KWZ_API int64_t CTimeTick64(void);
/* Seconds since the epoch. */
KWZ_API int64_t CTimeNow(void);

typedef struct KWTimeStamp {
    int64_t seconds;     /* since 1970-01-01 00:00:00 UTC */
    uint16_t millis;     /* 0..999 */
    int16_t zoneMinutes; /* local zone, minutes west of UTC */
    int16_t daylight;    /* the platform's daylight flag */
} KWTimeStamp;

typedef struct KWTimeZone {
    int64_t bias;            /* minutes west of UTC */
    char standardName[32];   /* not terminated when 32 characters long */
    char daylightName[32];
    uint8_t daylight;        /* 1 when the zone has daylight saving */
} KWTimeZone;

KWZ_API void CTimeUTC(KWTimeStamp* stamp);
KWZ_API int32_t CTimeLocal(int64_t time, struct tm* out);
KWZ_API int32_t CTimeGM(int64_t time, struct tm* out);
KWZ_API int32_t CTimeMake(struct tm* tm, int64_t* time);
/* 2 when the zone has daylight saving, else 0. */
KWZ_API int32_t CTimeZoneGet(KWTimeZone* zone);

/* ======================================================================== */
/* Pointer lists                                                             */
/* ======================================================================== */

/* A growable array of pointers; the caller owns the structure, the list never
   frees or copies what the pointers point at. */
typedef struct KWList {
    void** items;
    int32_t count;
    int32_t capacity;
} KWList;

/* Negative when item orders before other, 0 when equal, positive after. */
typedef int32_t (*KWLCompareFn)(void* context, void* item, void* other);

KWZ_API void KWLInit(KWList* list);
KWZ_API void* KWLGet(KWList* list, int32_t index);
KWZ_API void KWLPut(KWList* list, int32_t index, void* item);
KWZ_API void* KWLDel(KWList* list, int32_t index);
KWZ_API void KWLExchange(KWList* list, int32_t i, int32_t j);
KWZ_API void KWLMove(KWList* list, int32_t from, int32_t to);
KWZ_API int32_t KWLIndexOf(KWList* list, void* item);
KWZ_API int32_t KWLRemove(KWList* list, void* item);
KWZ_API void* KWLFirst(KWList* list);
KWZ_API void* KWLLast(KWList* list);
KWZ_API void KWLCapacity(KWList* list, int32_t n);
/* Index of the item, -1 if refused (out of memory). */
KWZ_API int32_t KWLAdd(KWList* list, void* item);
KWZ_API int32_t KWLInsert(KWList* list, int32_t index, void* item);
KWZ_API void KWLCount(KWList* list, int32_t n);
KWZ_API void KWLClear(KWList* list);
KWZ_API void KWLSort(void* context, KWList* list, KWLCompareFn compare);
/* Binary search; context is a record-array key descriptor (KWAKey*) or NULL.
   1 when an equal item was found; *position gets the position either way. */
KWZ_API int32_t KWLSeek(void* context, KWList* list, KWLCompareFn compare, void* key,
                        int32_t* position);
KWZ_API void QuickSort(void* context, void** items, int32_t lo, int32_t hi, KWLCompareFn compare);
/* Compares ignoring case of Latin and Windows-1251 Cyrillic letters: -1, 0, 1. */
KWZ_API int32_t stricmp_rus(const char* a, const char* b);

/* ======================================================================== */
/* Record types                                                              */
/* ======================================================================== */

/* Field types: the low 4 bits of a field's header byte. */
typedef enum KWRFldType {
    iFldType_None = 0,
    iFldType_Bool = 1,   /* "L1" */
    iFldType_Byte = 2,   /* "B1" */
    iFldType_Int8 = 3,   /* "I1" */
    iFldType_Int16 = 4,  /* "I2" */
    iFldType_Int32 = 5,  /* "I4" */
    iFldType_Int64 = 6,  /* "I8" */
    iFldType_Float = 7,  /* "F4" */
    iFldType_Double = 8, /* "F8" */
    iFldType_Char = 9,   /* "CH"n, n = 1..255 */
    iFldType_Memo = 10,  /* "CM" */
    iFldType_Blob = 11   /* "CB" */
} KWRFldType;

/* Result codes of the record functions. */
#define KWR_OK 0u
#define KWR_NOIMAGE 1u    /* the record has no image */
#define KWR_NULL 2u       /* the value is null; outputs are zeroed */
#define KWR_NOFIELD 3u    /* no such field */
#define KWR_SYNTAX 4u     /* bad type definition */
#define KWR_BADTYPE 5u    /* the field's type does not allow the operation */
#define KWR_NOTEXT 6u     /* text reference in the image missing */
#define KWR_BADARG 7u     /* invalid argument */
#define KWR_NOMEM 0xFFFFFFFFu   /* -1 */
#define KWR_CORRUPT 0xFFFFFFFEu /* -2 */

typedef struct KWRField {
    char name[64];
    char* description;
    uint32_t width;
    uint32_t number;
    uint32_t offset; /* of the value in the image; its header byte is at offset - 1 */
    struct KWRField* bucketHead;
    struct KWRField* chainNext;
    uint8_t type;
} KWRField;

typedef struct KWRType {
    uint32_t id;
    char name[64];
    uint32_t dataLength; /* 6 + the slot sizes of all fields */
    char* description;
    KWRField* fields;
    uint8_t fieldCount;
} KWRType;

#pragma pack(push, 1)
typedef struct KWRFieldDef {
    char name[64];
    uint8_t width; /* capacity, for "CH" only */
    uint8_t type;  /* KWRFldType */
} KWRFieldDef;
#pragma pack(pop)

struct KWRData; /* a record, below */

KWZ_STATIC_ASSERT(sizeof(KWRField) == 112, "KWRField is 112 bytes");
KWZ_STATIC_ASSERT(sizeof(KWRType) == 96, "KWRType is 96 bytes");
KWZ_STATIC_ASSERT(offsetof(KWRType, dataLength) == 68, "KWRType.dataLength at 68");
KWZ_STATIC_ASSERT(offsetof(KWRType, fields) == 80, "KWRType.fields at 80");
KWZ_STATIC_ASSERT(sizeof(KWRFieldDef) == 66, "KWRFieldDef is 66 bytes");

KWZ_API uint32_t KWRTypInit(KWRType* type);
KWZ_API uint32_t KWRTypFree(KWRType* type);
/* Parses "Name|Count[|Description]" and one "Field|Code[|Description]" line
   per field (lines end with any run of CR/LF): 0, 4 syntax error, -1. */
KWZ_API uint32_t KWRTypSet(KWRType* type, uint32_t id, const char* definition);
KWZ_API uint32_t KWRTypSetA(KWRType* type, uint32_t id, const char* name, uint8_t count,
                            const KWRFieldDef* defs);
/* Builds a type (fields "F0", "F1", ...) from a record image of unknown type. */
KWZ_API uint32_t KWRTypGen(KWRType* type, const char* name, const struct KWRData* record);
/* Writes the definition text back; *text is released with KWMemFree. */
KWZ_API uint32_t KWRTypGet(const KWRType* type, char** text);
KWZ_API uint32_t KWRTypDefStrSet(KWRType* type, const char* text);
KWZ_API uint32_t KWRTypFld(const KWRType* type, const char* name, KWRField** field);
/* The number is taken modulo 256. */
KWZ_API uint32_t KWRTypFldN(const KWRType* type, uint8_t number, KWRField** field);
KWZ_API KWRField* KWRFldByName(const KWRType* type, const char* name);
KWZ_API KWRField* KWRFldByNum(const KWRType* type, uint8_t number);
KWZ_API uint32_t HashKey(const char* name);
/* Fills one definition per field; 1 when any field is "CM" or "CB". */
KWZ_API uint32_t _FldAddGet(const KWRType* type, KWRFieldDef* defs);

/* ======================================================================== */
/* Records                                                                   */
/* ======================================================================== */

typedef struct KWRData {
    uint32_t length;             /* bytes in the image */
    uint32_t typeId;             /* type id, or the array's field version */
    void* owner;                 /* the record array it belongs to, or NULL */
    struct KWRData* editSource;  /* record-array edit state */
    uint8_t* image;              /* the owned data image, or NULL */
    uint8_t flags;               /* copy of image byte 4 */
    uint8_t fieldCount;          /* copy of image byte 5 */
    uint8_t state;               /* 0 packed, 1 changed in place, 255 needs packing */
    uint8_t guard;               /* always 0 */
} KWRData;

#pragma pack(push, 1)
/* A value cell: numbers in their own width at value[0]; texts (types 9..11)
   as a uint32_t length at value[0..3] and a pointer at value[4..11]. */
typedef struct KWRVal {
    uint8_t type;
    uint8_t isNull;
    uint8_t value[12];
} KWRVal;
#pragma pack(pop)

KWZ_STATIC_ASSERT(sizeof(KWRData) == 40, "KWRData is 40 bytes");
KWZ_STATIC_ASSERT(offsetof(KWRData, image) == 24, "KWRData.image at 24");
KWZ_STATIC_ASSERT(offsetof(KWRData, state) == 34, "KWRData.state at 34");
KWZ_STATIC_ASSERT(sizeof(KWRVal) == 14, "KWRVal is 14 bytes");

KWZ_API uint32_t KWRRecInit(KWRData* record);
/* Frees the record, then makes an image with every field null. */
KWZ_API uint32_t KWRRecNew(const KWRType* type, KWRData* record);
/* Throws std::runtime_error "KWRRecFree RE_DATACORRUPT" for a NULL or corrupt record. */
KWZ_API uint32_t KWRRecFree(KWRData* record);
/* Adopts image (allocated with malloc/KWMemAlloc) without copying; -2 below 6 bytes. */
KWZ_API uint32_t KWRRecSet(KWRData* record, void* image);
/* A new record from KWMemAlloc, filled from cells when given; NULL on failure. */
KWZ_API KWRData* KWRRecAlloc(const KWRType* type, const KWRVal* cells);
KWZ_API void KWRRecRelease(KWRData* record);
KWZ_API uint32_t KWRSetFlags(KWRData* record, uint8_t flags);

/* Typed access: 0, 2 null (output zeroed), 5 text field; setters mark the
   field edited and not null. */
KWZ_API uint32_t KWRGetAsBool(const KWRField* field, const KWRData* record, uint8_t* out);
KWZ_API uint32_t KWRSetAsBool(const KWRField* field, KWRData* record, uint8_t value);
KWZ_API uint32_t KWRGetAsByte(const KWRField* field, const KWRData* record, uint8_t* out);
KWZ_API uint32_t KWRSetAsByte(const KWRField* field, KWRData* record, uint8_t value);
KWZ_API uint32_t KWRGetAsInt8(const KWRField* field, const KWRData* record, int8_t* out);
KWZ_API uint32_t KWRSetAsInt8(const KWRField* field, KWRData* record, int8_t value);
KWZ_API uint32_t KWRGetAsInt16(const KWRField* field, const KWRData* record, int16_t* out);
KWZ_API uint32_t KWRSetAsInt16(const KWRField* field, KWRData* record, int16_t value);
KWZ_API uint32_t KWRGetAsInt32(const KWRField* field, const KWRData* record, int32_t* out);
KWZ_API uint32_t KWRSetAsInt32(const KWRField* field, KWRData* record, int32_t value);
KWZ_API uint32_t KWRGetAsInt64(const KWRField* field, const KWRData* record, int64_t* out);
KWZ_API uint32_t KWRSetAsInt64(const KWRField* field, KWRData* record, int64_t value);
KWZ_API uint32_t KWRGetAsFloat(const KWRField* field, const KWRData* record, float* out);
KWZ_API uint32_t KWRSetAsFloat(const KWRField* field, KWRData* record, float value);
KWZ_API uint32_t KWRGetAsDouble(const KWRField* field, const KWRData* record, double* out);
KWZ_API uint32_t KWRSetAsDouble(const KWRField* field, KWRData* record, double value);

/* Copies at most size bytes from start, adding a 0 byte when fewer were copied. */
KWZ_API uint32_t KWRGetAsText(const KWRField* field, const KWRData* record, int32_t start,
                              int32_t size, char* buffer);
/* text may be NULL (zeros are stored); "CH" values are cut to the capacity. */
KWZ_API uint32_t KWRSetAsText(const KWRField* field, KWRData* record, int32_t length,
                              const void* text);
/* Where the text lies (image or owned block); valid until the record changes. */
KWZ_API uint32_t KWRGetTextRef(const KWRField* field, const KWRData* record, uint32_t* length,
                               const char** text);
KWZ_API uint32_t KWRGetTextLen(const KWRField* field, const KWRData* record, uint32_t* length);
KWZ_API uint32_t KWRGetTextPtr(const KWRField* field, const KWRData* record, const char** text);

KWZ_API uint32_t KWRIsNull(const KWRField* field, const KWRData* record, uint8_t* out);
KWZ_API uint32_t KWRIsEdit(const KWRField* field, const KWRData* record, uint8_t* out);
KWZ_API uint32_t KWRIsUser(const KWRField* field, const KWRData* record, uint8_t* out);
KWZ_API uint32_t KWRSetNull(const KWRField* field, KWRData* record);
KWZ_API uint32_t KWRSetEdit(const KWRField* field, KWRData* record, uint8_t on);
KWZ_API uint32_t KWRSetUser(const KWRField* field, KWRData* record, uint8_t on);

/* Value cells; KWRSetVal and KWRSetRec refuse "F4" fields with 5. */
KWZ_API uint32_t KWRGetVal(const KWRField* field, const KWRData* record, KWRVal* cell);
KWZ_API uint32_t KWRSetVal(const KWRField* field, KWRData* record, const KWRVal* cell);
KWZ_API uint32_t KWRGetRec(const KWRType* type, const KWRData* record, KWRVal* cells);
KWZ_API uint32_t KWRSetRec(const KWRType* type, KWRData* record, const KWRVal* cells);

/* ======================================================================== */
/* Record wire image                                                         */
/* ======================================================================== */

/* Brings the record into its self-contained wire form: 0, 1 no image, -1. */
KWZ_API uint32_t KWRRecPack(const KWRType* type, KWRData* record, uint32_t clearEdited,
                            uint32_t clearUser);
/* Builds a packed image in buffer from cells; with buffer NULL only *size. */
KWZ_API uint32_t KWRSetBuff(const KWRType* type, void* buffer, const KWRVal* cells,
                            uint32_t* size);
/* 0 when the image is a valid image of the type, -2 otherwise.  Call it before
   trusting an image received from outside. */
KWZ_API uint32_t KWRRecCheck(const KWRType* type, const KWRData* record);

/* ======================================================================== */
/* Record arrays                                                             */
/* ======================================================================== */

/* Key options */
#define iKeyOpt_Primary 1u
#define iKeyOpt_Unique 2u
#define iKeyOpt_Descending 4u
#define iKeyOpt_CaseInsensitive 8u
#define iKeyOpt_Expression 16u
#define iKeyOpt_NonMaintained 32u
/* Copy options of KWACopy */
#define iCopyOpt_Rec 1u
#define iCopyOpt_Key 2u

#pragma pack(push, 1)
typedef struct KWAKeyDef {
    char expression[384]; /* field names separated by ";" */
    uint8_t reserved[4];
    uint32_t options;     /* iKeyOpt_... */
} KWAKeyDef;
#pragma pack(pop)
KWZ_STATIC_ASSERT(sizeof(KWAKeyDef) == 392, "KWAKeyDef is 392 bytes");

typedef struct KWAKey KWAKey;   /* a key descriptor */
typedef struct KWArray KWArray; /* a record array */
typedef int32_t (*KWACompareFn)(void* key, void* member, void* searchKey);

/* Creates an array, copying the fields of type when given: 0 or -1. */
KWZ_API int32_t KWACreate(KWArray** array, const KWRType* type);
KWZ_API void KWADestroy(KWArray* array);
/* The array's own type ("KWA", id 1): read members through its fields. */
KWZ_API KWRType* KWAType(KWArray* array);
KWZ_API int32_t KWAFldAdd(KWArray* array, int32_t count, const KWRFieldDef* defs);
KWZ_API int32_t KWAKeyAdd(KWArray* array, int32_t count, const KWAKeyDef* defs);
KWZ_API int32_t KWAKeyDel(KWArray* array, int32_t key);
/* A new working record (all fields null), posted with KWARecPost. */
KWZ_API KWRData* KWARecNew(KWArray* array);
/* A working copy of a member, posted with KWARecPost. */
KWZ_API KWRData* KWARecEdit(KWRData* member);
KWZ_API int32_t KWARecPost(KWRData* record, KWRData** member);
KWZ_API int32_t KWARecDel(KWRData* record);
KWZ_API KWRData* KWARecAdd(KWArray* array, const KWRVal* cells);
KWZ_API KWRData* KWARec(KWArray* array, int32_t key, int32_t index);
KWZ_API KWArray* KWARecArr(const KWRData* record);
KWZ_API int32_t KWARecCount(KWArray* array);
KWZ_API int32_t KWARecIdx(KWArray* array, int32_t key, const KWRData* record);
KWZ_API KWRData* KWARecSeek(KWArray* array, int32_t key, const KWRData* keyRecord,
                            int32_t* position);
KWZ_API KWRData* KWARecSeekF(KWArray* array, int32_t key, KWACompareFn compare, void* searchKey,
                             int32_t* position);
KWZ_API KWRData* KWARecSeekV(KWArray* array, int32_t key, const KWRVal* cells,
                             int32_t* position);
KWZ_API int32_t KWARecSort(KWArray* array, int32_t key);
KWZ_API int32_t KWARecComp(void* key, void* a, void* b);
KWZ_API int32_t KWAVarComp(void* key, void* member, void* cells);
KWZ_API int32_t KWAClearRec(KWArray* array);
KWZ_API int32_t KWAClearKey(KWArray* array);
KWZ_API int32_t KWAClearAll(KWArray* array);
KWZ_API int32_t KWACopy(KWArray* destination, KWArray* source, uint32_t options);

/* Packed table "#RA2": the size; *block (KWMemFree) when block is not NULL. */
KWZ_API uint64_t KWAPack(KWArray* array, void** block);
KWZ_API uint64_t KWAPackBuff(KWArray* array, void* buffer);
/* Trusts the table completely; use KWAUnpackChecked for outside data. */
KWZ_API uint64_t KWAUnpack(KWArray* array, const void* table);
KWZ_API int64_t KWAUnpackForRead(KWArray* array, const void* table);
KWZ_API int32_t KWAPackForRead(KWArray* array);
KWZ_API int32_t KWAUnpackForWrite(KWArray* array);
KWZ_API KWRData* KWARecAddPack(KWArray* array, const KWRVal* cells);
/* Validates a table of length bytes first: its size, or -2 when malformed. */
KWZ_API int64_t KWAUnpackChecked(KWArray* array, const void* table, uint64_t length,
                                 bool forRead);

/* ======================================================================== */
/* Sockets                                                                   */
/* ======================================================================== */

#define SE_NOINIT (-2)
#define SE_OPEN (-3)
#define SE_NOSOCK (-4)
#define SE_OPTION (-5)
#define SE_DATANOSEND (-7)
#define SE_SUSPEND (-8)
#define SE_SENDLIMIT (-9) /* KWSockSendEx: the queue would pass KWSockSetSendLimit */

typedef enum SockType {
    SOCK_FREE = 0,
    SOCK_LISTEN = 1,
    SOCK_SRV = 2,
    SOCK_CLI = 3,
    SOCK_NODE = 4
} SockType;

/* Events given to callbacks. */
#define SOCK_EV_DATA 0      /* a record (or datagram) arrived */
#define SOCK_EV_ACCEPT 1    /* a new server connection */
#define SOCK_EV_CLOSE 2     /* orderly close */
#define SOCK_EV_ABORT 3     /* abnormal close */
#define SOCK_EV_SENT 0      /* completion: sent */
#define SOCK_EV_NOSEND (-7) /* completion: send failed */
#define SOCK_EV_DROPPED (-6) /* completion: still queued at close */

/* Stream callback: (event, idn, record).  The record of event 0 is freed when
   the callback returns.  As a completion callback it receives its record back
   and releases it. */
typedef void (*SockEventFn)(int32_t event, uint32_t idn, KWRData* record);
/* Node callback: received datagrams (event 0) and per-datagram completions. */
typedef void (*SockNodeEventFn)(int32_t event, uint32_t idn, int32_t port,
                                const char* address, const void* data, int32_t length);

/* recvTick/sendTick: GetTickCount at the last receive and send (which adds
   microseconds to seconds x 1000: compare them with GetTickCount, do not take
   them for durations). */
#pragma pack(push, 4)
typedef struct SockState {
    uint8_t type;
    uint8_t pad[3];
    uint32_t port, flags, recvTick, sendTick, sendTimeout, recvTimeout, bufNum, bufSize;
    uint64_t recvBytes, sendBytes;
} SockState;
#pragma pack(pop)
KWZ_STATIC_ASSERT(sizeof(SockState) == 52, "SockState is 52 bytes");
KWZ_STATIC_ASSERT(offsetof(SockState, recvBytes) == 36, "SockState.recvBytes at 36");

/* Sizes the socket table (only the first call while active takes effect). */
KWZ_API int32_t KWSockInit(int32_t sockMax);
/* Closes everything; -8 while slots are still finishing. */
KWZ_API int32_t KWSockFree(void);
KWZ_API int32_t KWSockIsActive(void);
KWZ_API int32_t KWSockCliOpen(const char* address, uint32_t port, SockEventFn callback,
                              uint32_t* idn);
/* Port 0 binds a port chosen by the system; KWSockGetPort reports it. */
KWZ_API int32_t KWSockSrvOpen(uint32_t port, SockEventFn callback, uint32_t* idn);
KWZ_API int32_t KWSockClose(uint32_t idn);
KWZ_API int32_t KWSockSetDat(uint32_t idn, void* value);
KWZ_API int32_t KWSockGetDat(uint32_t idn, void** value);
/* 1 found, 0 not. */
KWZ_API int32_t KWSockGetState(uint32_t idn, SockState* state);
KWZ_API int32_t KWSockGetPort(uint32_t idn, uint32_t* port);
KWZ_API int32_t KWSockGetId(uint32_t idn, int32_t* socket);
KWZ_API SockEventFn KWSockRecvEventGet(uint32_t idn);
KWZ_API SockEventFn KWSockRecvEventSet(uint32_t idn, SockEventFn callback);
KWZ_API uint32_t KWSockGetIdn(int32_t index);
KWZ_API int32_t GetPeerHostName(uint32_t idn, char* buffer, int32_t length);
KWZ_API int32_t GetPeerHostAddr(uint32_t idn, char* buffer, int32_t length);
/* Queues a packed record; higher priorities leave first.  0 queued (the
   record is the transport's until its completion runs), -2, -4, -7 not
   queued, -9 the queue would pass the bound of KWSockSetSendLimit; on every
   refusal the record stays the caller's and no completion comes.  Throws
   std::runtime_error ("KWSockSendEx RE_DATACORRUPT") for a null record or
   one whose guard byte is set.
   Completion 0 means the record was handed to the socket, not that the peer
   received it: when the connection ends, records already completed with 0
   can still be lost in the kernel's buffers (a tail of them, never a gap).
   A caller that needs delivery waits for an answer record from the peer. */
KWZ_API int32_t KWSockSendEx(uint32_t idn, KWRData* record, SockEventFn completion,
                             uint32_t priority);
/* Time-outs of a stream connection (1 in force or queued, 0 not).
   KWSockSetRecvTimeout asks the peer for keep-alives (the receive time-out
   becomes 4 x the interval when the peer answers); KWSockSetSendTimeout
   sends at least every ms (1..1249 become 1250) and tells the peer 4 x ms.
   Values that arrive from the peer are clamped the same way, and a server
   connection takes neither 0 (none) nor more than ten minutes from its peer.
   A server connection whose peer reads nothing for two send time-outs (5 s
   each unless set) is closed (completion -7, close event 3). */
KWZ_API int32_t KWSockSetRecvTimeout(uint32_t idn, uint32_t ms);
KWZ_API int32_t KWSockSetSendTimeout(uint32_t idn, uint32_t ms);
/* Frames whose image exceeds maxImage bytes close the connection (0 = no limit). */
KWZ_API int32_t KWSockSetRecvLimit(uint32_t idn, uint32_t maxImage);
/* Bounds the image bytes waiting in a connection's send queue (the
   transport's own control records included; 0 = no bound): KWSockSendEx
   refuses a record that would pass it with -9.  On a listening slot it sets
   the bound its accepted connections start with.  0, -2 or -4. */
KWZ_API int32_t KWSockSetSendLimit(uint32_t idn, uint64_t maxQueuedBytes);

KWZ_API int32_t KWSockNodeOpen(uint32_t port, SockNodeEventFn callback, uint32_t* idn);
/* address "*" broadcasts, "" or NULL reaches the own host. */
KWZ_API int32_t KWSockSendNode(uint32_t idn, int32_t port, const char* address, const void* data,
                               int32_t length, SockNodeEventFn completion);
/* Multicast options on a node's socket (value in brackets):
     1  join a group   ("group" or "group,interface", dotted addresses)
     2  leave a group  (the same text)
     3  time-to-live   (const int32_t* hops: the TTL becomes hops + 1)
     4  outgoing interface for multicast ("interface"; "" or NULL: any)
     5  multicast loop-back (const int32_t*: 1 on, 0 off)
   -5 for a text that is not a dotted address or an option the system
   refuses; an option number outside 1..5 is ignored (0). */
KWZ_API int32_t KWSockNodeSetOpt(uint32_t idn, int32_t option, const void* value);
/* Clock synchronisation on a stream connection (SOCK_CLI or SOCK_SRV).
   KWSockTimeSynchro queues a time request (1 queued, 0 not); the answer comes
   asynchronously.  Once it has, KWSockTimeDlt gives the peer's clock minus
   ours less half the round trip, as seconds and milliseconds of the same sign
   (int32 values in uint32 outputs), and KWSockTimeZone the peer's two zone
   values, or the pair set with KWSockTimeZoneSet (zone1 = -1 removes it).
   They return 1 when synchronised, else 0 with zeros. */
KWZ_API int32_t KWSockTimeSynchro(uint32_t idn);
KWZ_API int32_t KWSockTimeDlt(uint32_t idn, uint32_t* seconds, uint32_t* millis);
KWZ_API int32_t KWSockTimeZone(uint32_t idn, uint32_t* zone1, uint32_t* zone2);
KWZ_API int32_t KWSockTimeDltAbo(uint32_t idn, uint32_t* seconds, uint32_t* millis,
                                 uint32_t* zone);
KWZ_API int32_t KWSockTimeZoneSet(uint32_t idn, int32_t zone1, int32_t zone2);

/* ======================================================================== */
/* Compression, data helpers, hashes                                         */
/* ======================================================================== */

typedef int32_t (*LZOPReadFn)(void* context, void* buffer, int32_t size);        /* <0 error */
typedef int32_t (*LZOPWriteFn)(void* context, const void* buffer, int32_t size); /* <0 error */

/* Writes a "#LZ2" container; *outputSize is the room in, the bytes written out. */
KWZ_API bool LZOPCompress_(const void* input, uint32_t inputLength, void* output,
                           uint32_t* outputSize, void* work);
/* With output NULL only *outputLength (the decompressed size) is set; with an
   output, *outputLength is its room (what the size query stored) on entry and
   the bytes written on return.  The container is trusted: it must be complete. */
KWZ_API bool LZOPDecompress_(const void* container, void* output, uint32_t* outputLength,
                             int32_t option);
KWZ_API bool LZOPCompress(void* context, LZOPReadFn read, LZOPWriteFn write);
KWZ_API bool LZOPDecompress(void* context, LZOPReadFn read, LZOPWriteFn write, int32_t option);
KWZ_API int32_t KWZDataCompress(int32_t length, const void* data, int32_t* outLength,
                                void** outBlock);
KWZ_API int32_t KWZDataDeCompress(int32_t length, const void* data, int32_t* outLength,
                                  void** outBlock);
KWZ_API int32_t KWZDataIsCompress(int32_t length, const void* data, bool* flag);
KWZ_API int32_t KWZArrayPack(KWArray* array, int32_t* outLength, void** outBlock, bool compress);
KWZ_API int32_t KWZArrayUnPack(KWArray* array, const void* data, bool forRead);
/* 32 characters and a 0 byte into out (33 bytes of room). */
KWZ_API int32_t KWZDataHash(int32_t length, const void* data, char* out, const char* key);

typedef struct md5_state_t {
    uint32_t count[2];
    uint32_t abcd[4];
    uint8_t buf[64];
} md5_state_t;
KWZ_API void md5_init(md5_state_t* state);
KWZ_API void md5_append(md5_state_t* state, const uint8_t* data, int32_t length);
KWZ_API void md5_finish(md5_state_t* state, uint8_t digest[16]);
/* The library's own 32-character text digest (not plain hexadecimal MD5). */
KWZ_API void md5_finishA(md5_state_t* state, char out[32]);

/* RC4 is kept for compatibility with existing peers; it is not a secure cipher. */
typedef struct RC4Key {
    uint8_t state[256];
    uint8_t x;
    uint8_t y;
} RC4Key;
KWZ_API void RC4CodePrepare_Key(const uint8_t* key, int32_t keyLength, RC4Key* state);
KWZ_API void RC4Code(uint8_t* data, int32_t length, RC4Key* state);

/* ======================================================================== */
/* Calculator: values, registry, compiler, engine, object types               */
/* ======================================================================== */

/* (calculator declarations go here) */


/* ======================================================================== */
/* Graphs                                                                     */
/* ======================================================================== */

/* (graph declarations go here) */


/* ======================================================================== */
/* XML documents                                                              */
/* ======================================================================== */

/* (XML declarations go here) */


#ifdef __cplusplus
} /* extern "C" */
#endif

/* ======================================================================== */
/* C++ classes (graphs, XML nodes, KString)                                   */
/* ======================================================================== */
#ifdef __cplusplus

/* (graph classes go here) */


/* (XML and KString classes go here) */


#endif /* __cplusplus */

#endif /* VOMKWZ_H */
