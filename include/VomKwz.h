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
 *     -4 SE_NOSOCK, -5 SE_OPTION, -7 SE_DATANOSEND, -8 SE_SUSPEND,
 *     -9 SE_SENDLIMIT.
 *   - Data helpers (KWZ...) return 0, -1 out of memory or compression failure,
 *     -2 invalid argument, -4 undecodable container.
 *   - Calculator (CVar..., KWCalc..., KWFun...) return int32_t: 0, -21 out of
 *     memory, -44 type not supported, -45, -47 stack too small, -48, -49 (see
 *     the section); the compiler -1..-8 with a message and a byte offset.
 *   - Graphs (Graph...) report failure as NULL or false, leaving the graphs
 *     they were given unchanged.
 *   - XML (KWXml...) return int32_t: 0, parse errors 1..4, -1 out of memory,
 *     -2 bad argument.
 *
 * Ownership.  The caller owns what it creates and releases it with the
 * matching Free/Destroy/Release function.  Every buffer that the library hands
 * out for the caller to release is released with KWMemFree.  A record given to
 * KWSockSendEx belongs to the transport until its completion callback runs.
 *
 * Exceptions.  Exactly two functions throw: KWRRecFree and KWSockSendEx
 * throw a std::runtime_error (text "<function> RE_DATACORRUPT") for a
 * structurally corrupt record (guard byte not 0); C callers must never pass
 * one.  Every other function catches at its edge whatever happens inside it
 * and returns its family's failure code: out of memory as the codes below say
 * (-1, NULL, 0 for sizes), anything else as -2 for the KWR functions and -1
 * for the KWA and KWZ functions.
 *
 * Threads.  Records, record types, record arrays, calculator values and
 * stacks, graphs and XML documents take no locks: one thread at a time per
 * object (a built record type may be read by many).  The graph storage pool
 * shared by all graphs has its own lock.  Calculator object types are
 * registered from one thread before calculators are made.  The socket
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
/* Frees the record, then makes an image with every field null: 0, 7, -1, -2
   (guard byte set, or an image that cannot be walked: the record is kept). */
KWZ_API uint32_t KWRRecNew(const KWRType* type, KWRData* record);
/* Frees the image and owned texts and zeroes the structure (not freed): 0, or
   -2 for an image whose header bytes cannot be walked (nothing freed).
   Throws std::runtime_error "KWRRecFree RE_DATACORRUPT" for a NULL record or
   one whose guard byte is set. */
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

/* Brings the record into its self-contained wire form: 0, 1 no image, 7, -1,
   -2 a text that reaches past the image.  On -1 and -2 the record is as it
   was (its edited and user bits too). */
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

/* Creates an array, copying the fields of type when given: 0, -1, -3 a
   "CH" field without capacity or duplicate names in type. */
KWZ_API int32_t KWACreate(KWArray** array, const KWRType* type);
KWZ_API void KWADestroy(KWArray* array);
/* The array's own type ("KWA", id 1): read members through its fields. */
KWZ_API KWRType* KWAType(KWArray* array);
/* Clears the records, then appends fields (at most 255 in all): 0, -1, -3. */
KWZ_API int32_t KWAFldAdd(KWArray* array, int32_t count, const KWRFieldDef* defs);
/* 0, -1 (a key that could not be made is not added; earlier ones stay), -3 a
   name the fields lack, longer than 63 characters, or more than six. */
KWZ_API int32_t KWAKeyAdd(KWArray* array, int32_t count, const KWAKeyDef* defs);
KWZ_API int32_t KWAKeyDel(KWArray* array, int32_t key);
/* A new working record (all fields null), posted with KWARecPost. */
KWZ_API KWRData* KWARecNew(KWArray* array);
/* A working copy of a member, posted with KWARecPost. */
KWZ_API KWRData* KWARecEdit(KWRData* member);
/* Posts a new record, a working copy, or a member changed in place: 0 (and
   *member, when given, the member), -1 out of memory or no owner/image, -2
   image size differs in read-from-pack mode, -3 the array could not leave
   read-from-pack mode, -4, -5, -6, -(7 + k).  On failure every key is as it
   was and a new record or working copy is still the caller's (release it with
   KWARecDel); a member changed in place keeps its changes. */
KWZ_API int32_t KWARecPost(KWRData* record, KWRData** member);
/* Frees a working record, or deletes a member: 0, -2 the record's guard byte
   is set (nothing freed or unlinked), -3 the array could not leave
   read-from-pack mode, -6 not found in a key.  The array is unchanged on
   failure. */
KWZ_API int32_t KWARecDel(KWRData* record);
/* A new member filled from cells (NULL cells: all null); NULL on failure, with
   the array unchanged. */
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
/* Sorts a key's members by its fields: 0, -1 no such key or out of memory
   (the key keeps its order). */
KWZ_API int32_t KWARecSort(KWArray* array, int32_t key);
KWZ_API int32_t KWARecComp(void* key, void* a, void* b);
KWZ_API int32_t KWAVarComp(void* key, void* member, void* cells);
KWZ_API int32_t KWAClearRec(KWArray* array);
KWZ_API int32_t KWAClearKey(KWArray* array);
KWZ_API int32_t KWAClearAll(KWArray* array);
/* Replaces the destination's contents by a copy of the source's fields and,
   by options, keys and records: 0, -1 (bad arguments, out of memory), -3.
   The destination is unchanged on failure. */
KWZ_API int32_t KWACopy(KWArray* destination, KWArray* source, uint32_t options);

/* Packed table "#RA2": the size; *block (KWMemFree) when block is not NULL. */
KWZ_API uint64_t KWAPack(KWArray* array, void** block);
KWZ_API uint64_t KWAPackBuff(KWArray* array, void* buffer);
/* Replaces the array's contents by the table's: its size, or 0 when it does
   not unpack (out of memory, or a record image shorter than 6 bytes).  Trusts
   the table otherwise completely: use KWAUnpackChecked for outside data.  A
   failure leaves the array as it was. */
KWZ_API uint64_t KWAUnpack(KWArray* array, const void* table);
/* As KWAUnpack, into read-from-pack storage: the size, 0 when the table does
   not unpack, -1 out of memory; the array as it was on failure. */
KWZ_API int64_t KWAUnpackForRead(KWArray* array, const void* table);
/* Moves the members into read-from-pack storage, or back to individually
   owned records: 0, -1 (out of memory: the array as it was), -4 no fields.
   Either replaces every member structure: earlier member pointers go stale. */
KWZ_API int32_t KWAPackForRead(KWArray* array);
KWZ_API int32_t KWAUnpackForWrite(KWArray* array);
/* KWARecAdd into read-from-pack storage; NULL on failure, the array as it was. */
KWZ_API KWRData* KWARecAddPack(KWArray* array, const KWRVal* cells);
/* Validates a table of length bytes first, reading nothing at or past
   table + length: its size, -1 out of memory or NULL array, -2 when malformed
   or NULL.  A failure leaves the array as it was. */
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
/* Trusts a plain packed table completely (it has no length): for bytes from
   outside use KWZArrayUnPackN.  0, -1 out of memory or a table that does not
   unpack, -2 a NULL argument, -4 a container that does not decode.  The array
   is unchanged on failure. */
KWZ_API int32_t KWZArrayUnPack(KWArray* array, const void* data, bool forRead);
/* KWZArrayUnPack for length bytes: reads nothing at or past data + length,
   whatever the bytes claim.  0, -1 out of memory, -2 a NULL argument, -4 a
   container or packed table that does not decode within length.  The array
   is unchanged on every failure. */
KWZ_API int32_t KWZArrayUnPackN(KWArray* array, const void* data, uint64_t length, bool forRead);
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

/* Values.  A CVar is a 24-byte tagged value: 0 Empty, 1 Int, 2 Dbl, 3 Str,
   4 Arr; tags 5..255 belong to object types registered at run time.  A
   zero-filled CVar is the empty value.  A Str or Arr value with ref 0 owns its
   text or elements; with ref non-zero it aliases storage owned elsewhere and
   never frees it (it must not outlive that storage).  Calculator functions
   return 0 or a negative code: -21 out of memory, -44 type not supported
   (unknown or unregistered tag, missing slot, impossible cast), -45 an object
   type does not know the function, -47 execution stack too small, -48 no or
   unknown property selector, -49 index not castable to Int or out of range.
   The registry is process-wide and not locked: register types before
   calculators are created, from one thread. */
#pragma pack(push, 1)
typedef struct CStr {
    char* text;     /* length bytes followed by one 0 byte that is not counted */
    int32_t length;
    int32_t ref;    /* 0 owned, else a reference */
} CStr;
typedef struct CVar {
    int32_t type;
    union { int64_t i; double d; char* s; struct CVar* a; void* p; uint8_t raw[8]; } v;
    int32_t count;  /* Str: length in bytes; Arr: number of elements */
    int32_t ref;    /* Str, Arr: 0 owned, else a reference */
    int32_t spare;
} CVar;
/* The array part of a CVar (payload, count, ref), like CStr at byte 4. */
typedef struct CArr {
    CVar* items;
    int32_t count;
    int32_t ref;
} CArr;
#pragma pack(pop)
KWZ_STATIC_ASSERT(sizeof(CStr) == 16, "CStr is 16 bytes");
KWZ_STATIC_ASSERT(sizeof(CArr) == 16, "CArr is 16 bytes");
KWZ_STATIC_ASSERT(sizeof(CVar) == 24, "CVar is 24 bytes");
KWZ_STATIC_ASSERT(offsetof(CVar, count) == 12, "CVar count at byte 12");

typedef struct KWCalcDef KWCalcDef;         /* calculator */
typedef struct KWCalcStack KWCalcStack;     /* execution stack */
typedef struct KWCalcNameDef KWCalcNameDef; /* name entry */
typedef struct KWCalcConst KWCalcConst;     /* constant table */
typedef int32_t (*KWCalcFn)(KWCalcStack* stack);

/* The descriptor of an object type: its name and 35 slots, each optional
   (NULL: not supported, with the default behaviour of the value operations).
   Operator slots get the first operand on the stack (the second, if any, is
   the next CVar) and leave the result in the first operand's place. */
typedef struct KWCalcObjDef {
    const char* name;
    void (*CalcCreate)(KWCalcDef* calculator);
    void (*CalcDestroy)(KWCalcDef* calculator);
    void (*Free)(CVar* value);
    void (*Copy)(CVar* destination, const CVar* source);
    int32_t (*Cast)(CVar* value, int32_t tag);
    int32_t (*New)(KWCalcStack* stack);
    int32_t (*Get)(KWCalcStack* stack);
    int32_t (*Put)(KWCalcStack* stack);
    int32_t (*Call)(KWCalcStack* stack);
    int32_t (*UndefFun)(CVar* value, const char* name);
    /* Bytes written (or, with destination NULL, needed); 0 or less fails. */
    int32_t (*ToBuff)(const CVar* value, void* destination, int32_t room);
    /* Bytes read after the tag byte; 0 or less fails. */
    int32_t (*FromBuff)(CVar* value, const void* source);
    int32_t (*Sum)(CVar* operands);
    int32_t (*Sub)(CVar* operands);
    int32_t (*Mul)(CVar* operands);
    int32_t (*Div)(CVar* operands);
    int32_t (*DivI)(CVar* operands);
    int32_t (*Mod)(CVar* operands);
    int32_t (*LE)(CVar* operands);
    int32_t (*LNE)(CVar* operands);
    int32_t (*LL)(CVar* operands);
    int32_t (*LLE)(CVar* operands);
    int32_t (*LG)(CVar* operands);
    int32_t (*LGE)(CVar* operands);
    int32_t (*UMin)(CVar* operand);
    int32_t (*LNot)(CVar* operand);
    int32_t (*BDop)(CVar* operand);
    int32_t (*LAnd)(CVar* operands);
    int32_t (*LOr)(CVar* operands);
    int32_t (*BAnd)(CVar* operands);
    int32_t (*BXor)(CVar* operands);
    int32_t (*BOr)(CVar* operands);
    int32_t (*Shl)(CVar* operands);
    int32_t (*Shr)(CVar* operands);
    void (*reserved)(void); /* never called; stays NULL */
} KWCalcObjDef;
KWZ_STATIC_ASSERT(sizeof(KWCalcObjDef) == 36 * sizeof(void*), "name and 35 slots");

/* Strings: the block holds ((length + 1) rounded down to 128) + 128 bytes.
   CStrAlloc gives a fresh owned block (text NULL and length 0 when memory runs
   out); CStrReAlloc resizes (unchanged on failure; a reference becomes an
   owned copy); CStrFree frees only an owned block. */
KWZ_API void CStrAlloc(CStr* str, int32_t length);
KWZ_API void CStrReAlloc(CStr* str, int32_t length);
KWZ_API void CStrFree(CStr* str);
/* Bytewise over the common prefix, then the shorter orders first. */
KWZ_API int32_t CStrCmp(const CStr* a, const CStr* b);
/* Case-insensitive (Latin and Windows-1251) over the common prefix only: a
   prefix of the other, or an empty text, compares equal (kept on purpose). */
KWZ_API int32_t CStrCmpI(const CStr* a, const CStr* b);
/* Up to 4 characters, ASCII capitals folded, first in the highest used byte. */
KWZ_API uint32_t PropNameToInt(const char* name);

/* Resizes an owned array, emptying elements that fall away and zero-filling
   new ones; unchanged when memory runs out. */
KWZ_API void CArrReAlloc(CArr* arr, int32_t newCount);

/* Value operations.  They report no failure: when memory runs out a string
   is left empty, a new array has 0 elements, and a copy leaves the
   destination empty (logged "SE_NOMEM"). */
KWZ_API void CVarInit(CVar* values, int32_t count);
/* count zero-filled values in one block (released with CVarFree); NULL when
   memory runs out.  *out, when given, gets the pointer too. */
KWZ_API CVar* CVarAlloc(int32_t count, CVar** out);
/* Frees what the value owns (an object through its type's Free) and empties it. */
KWZ_API void CVarSetEmpty(CVar* value);
KWZ_API void CVarClear(CVar* values, int32_t count);
/* CVarClear, then frees a block from CVarAlloc. */
KWZ_API void CVarFree(CVar* values, int32_t count);
/* Ownership passes with the bytes; the source is left empty. */
KWZ_API void CVarMove(CVar* destination, CVar* source);
KWZ_API void CVarSetInt(CVar* value, int64_t i);
KWZ_API void CVarSetDbl(CVar* value, double d);
/* An owned copy of length bytes (zeros when bytes is NULL); a negative length
   leaves the value empty. */
KWZ_API void CVarSetStr(CVar* value, const char* bytes, int32_t length);
/* count empty elements, owned; a negative count leaves the value empty. */
KWZ_API void CVarSetArr(CVar* value, int32_t count);
/* Deep copy: the destination owns all it holds, even when the source was a
   reference.  Safe when one is inside the other. */
KWZ_API void CVarCopy(CVar* destination, const CVar* source);
/* Shallow copy: a Str or Arr destination aliases the source's storage (ref 1);
   an object type copies through its Copy slot. */
KWZ_API void CVarCopyRef(CVar* destination, const CVar* source);
/* Moves n consecutive values into one new owned array stored in values[0]. */
KWZ_API void CArrCopy(CVar* values, int32_t n);
/* The element reached by n indexes (each cast to Int) into nested arrays, or
   NULL with *status -49 (-21 out of memory); *status 0 on success. */
KWZ_API CVar* CVarArrItm(CVar* array, CVar* indexes, int32_t n, int32_t* status);
/* The byte at a 0-based index of a Str as an Int in destination: 0, -49, -21.
   *status, when given, gets the result too. */
KWZ_API int32_t CVarGetChar(CVar* destination, const CVar* string, const CVar* index,
                            int32_t* status);
/* Writes one byte of an owned (or made owned) Str: an Int's low byte, a Str's
   first byte (0 when empty): 0, -44 other types, -49 bad index, -21. */
KWZ_API int32_t CVarPutChar(CVar* string, const CVar* index, const CVar* value,
                            int32_t* status);
/* Reads a property: the n selectors lie at slots 0.. of the stack's frame.
   The type's Get sees slot 0 = a copy of the object, slot 1 = the selector (an
   array of them when n > 1) and leaves the result in slot 0.  On return the
   frame holds that one value (empty on failure).  0, -44, -48, -47, -21 or the
   type's code. */
KWZ_API int32_t CVarGetObjVar(KWCalcStack* stack, CVar* object, int32_t n);
/* Writes a property: the frame holds n selectors then the new value; Put sees
   slot 2 = the value as well.  On success the object takes the modified copy;
   on failure it is unchanged.  On return the frame holds one value. */
KWZ_API int32_t CVarPutObjVar(KWCalcStack* stack, CVar* object, int32_t n);
/* Converts in place: 0, -44 (value unchanged), -21 (value unchanged). */
KWZ_API int32_t CVarCast(CVar* value, int32_t tag);
/* The value image: tag byte and body.  Returns its size and copies at most
   room bytes of it into destination; destination NULL only measures.  0 when
   the value cannot be written (unregistered tag, a type's refusal, memory);
   the destination may then hold part of the image. */
KWZ_API int32_t CVarToBuff(const CVar* value, void* destination, int32_t room);
/* Empties the value and reads one image; bytes consumed, 0 on failure (the
   value then empty).  Trusts the source to hold a complete image. */
KWZ_API int32_t CVarFromBuff(CVar* value, const void* source);
/* As CVarFromBuff, reading nothing at or past source + length: a truncated
   image, a count beyond the remaining bytes or nesting deeper than 256 gives 0
   and an empty value. */
KWZ_API int32_t CVarFromBuffN(CVar* value, const void* source, int32_t length);
/* Replaces the value by an Int of its tag (0 or -44). */
KWZ_API int32_t CVar_Type(CVar* value);
/* Replaces the value by a Str of its type name: 0, -44, -21. */
KWZ_API int32_t CVar_TypeName(CVar* value);
/* The built-in "new": argument 0 names the type (tag or name), argument 1 is
   given to the type's New slot: its status, or -44. */
KWZ_API int32_t CVar_New(KWCalcStack* stack);

/* Registry.  KWCalcObjTypeReg stores the descriptor under tag 5..255 (NULL
   unregisters) and returns it; NULL for another tag.  The descriptor is not
   copied: it must outlive its registration. */
KWZ_API KWCalcObjDef* KWCalcObjTypeReg(int32_t tag, KWCalcObjDef* descriptor);
/* NULL for a tag outside 5..255 or unregistered. */
KWZ_API KWCalcObjDef* KWCalcObjType(int32_t tag);
/* Case-insensitive; of equal names the first in sorted order. */
KWZ_API KWCalcObjDef* KWCalcObjTypeFromName(const char* name);

/* The scalar object types "IntS", "DblS" and "StrS": an Int, Dbl or Str with
   a 32-bit Sign that arithmetic carries along (OR-ed when both operands have
   one).  Each registers like every object type: tag 5..255 registers it (and,
   when constants is given, defines there "it<Type>" = the tag, "st<Type>" =
   the name, "ip<Type>_Val" = 1, "sp<Type>_Val" = "Val", "ip<Type>_Sign" = 2,
   "sp<Type>_Sign" = "Sign"); the current tag returns the descriptor at once;
   a tag held by another type returns NULL, leaving the type unregistered;
   tag 0 unregisters it (deleting those constants from constants, when given)
   and returns NULL.  Otherwise the result is the type's descriptor, owned by
   the library.  Calculators created afterwards get the script functions
   "IntS"/"DblS"/"StrS"(value, sign), and "Val" and "Sign" from the first of
   the registered types in tag order. */
KWZ_API KWCalcObjDef* IntSObjTypeReg(int32_t tag, KWCalcConst* constants);
KWZ_API KWCalcObjDef* DblSObjTypeReg(int32_t tag, KWCalcConst* constants);
KWZ_API KWCalcObjDef* StrSObjTypeReg(int32_t tag, KWCalcConst* constants);

/* The graph object type "Graph": values that share one graph (TGraphItem)
   among all their copies; the last copy freed destroys it.  Registers like
   IntS; when constants is given it defines "itGraph", "stGraph", the property
   numbers and names "ipGraph_<Prop>" / "spGraph_<Prop>" (1 NodeCount, 2 Nodes,
   3 HasNode, 4 LinkCount, 5 HasLink, 6 NodeLinkCount, 7 NodeLinks, 8 HasGroup,
   9 GroupNodes, 10 GroupHasNode; property 9 has no "sp" constant of its own)
   and the method numbers and names "imGraph_<Method>" with "smGraph_AddNode",
   "smGraph_DelNode" and "smXml_<Method>" for the others (1 AddNode, 2 DelNode,
   3 RenameNode, 4 RenameGroup, 5 AddLink, 6 AddLinkFirst, 7 MoveLinkFirst,
   8 DelLink, 9 GroupAddNode, 10 GroupDelNode).  Tag 0 also deletes "itXml"
   and "stXml" from constants.  Result: the descriptor (owned by the library)
   or NULL. */
KWZ_API KWCalcObjDef* GraphObjTypeReg(int32_t tag, KWCalcConst* constants);
/* The graph functions.  Argument 0 (KWCalcStackArg(stack, 0)) is the graph
   and the result replaces it; identifiers are Ints (their low 32 bits).  0,
   -44 a graph argument that is not a graph or an identifier that is not an
   Int, -21 out of memory.  A missing node is no error: the answer is 0, or an
   empty array for NodeLinks, GroupNodes, GroupHasNode, GroupAddNode and
   GroupDelNode.  Calculators made after GraphObjTypeReg get all of them under
   these names except CGraphAddLinkFirst and CGraphMoveLinkFirst. */
KWZ_API int32_t CGraphNew(KWCalcStack* stack);           /* (): a new empty graph */
KWZ_API int32_t CGraphNodeCount(KWCalcStack* stack);     /* (g): Int */
KWZ_API int32_t CGraphNodes(KWCalcStack* stack);         /* (g): array of ids, node-list order */
KWZ_API int32_t CGraphHasNode(KWCalcStack* stack);       /* (g, id): 1 or 0 */
KWZ_API int32_t CGraphAddNode(KWCalcStack* stack);       /* (g, id): 1, made when absent */
KWZ_API int32_t CGraphDelNode(KWCalcStack* stack);       /* (g, id): 1 */
KWZ_API int32_t CGraphRenameNode(KWCalcStack* stack);    /* (g, id, new id): 1 or 0 */
KWZ_API int32_t CGraphRenameGroup(KWCalcStack* stack);   /* (g, id, new id): 1 or 0 */
KWZ_API int32_t CGraphLinkCount(KWCalcStack* stack);     /* (g): Int */
KWZ_API int32_t CGraphHasLink(KWCalcStack* stack);       /* (g, a, b): 1 or 0 */
KWZ_API int32_t CGraphAddLink(KWCalcStack* stack);       /* (g, a, b): 1 when both nodes exist */
KWZ_API int32_t CGraphAddLinkFirst(KWCalcStack* stack);  /* (g, a, b): as AddLink, first in a's list */
KWZ_API int32_t CGraphMoveLinkFirst(KWCalcStack* stack); /* (g, a, b): 1, 0 no such link */
KWZ_API int32_t CGraphDelLink(KWCalcStack* stack);       /* (g, a, b): 1, 0 no such link */
KWZ_API int32_t CGraphNodeLinkCount(KWCalcStack* stack); /* (g, id): Int */
KWZ_API int32_t CGraphNodeLinks(KWCalcStack* stack);     /* (g, id): neighbours' ids */
KWZ_API int32_t CGraphHasGroup(KWCalcStack* stack);      /* (g, id): 1 or 0 */
KWZ_API int32_t CGraphGroupNodes(KWCalcStack* stack);    /* (g, id): members' ids */
KWZ_API int32_t CGraphGroupHasNode(KWCalcStack* stack);  /* (g, id, member): 1 or 0 */
KWZ_API int32_t CGraphGroupAddNode(KWCalcStack* stack);  /* (g, id, member): 1 */
KWZ_API int32_t CGraphGroupDelNode(KWCalcStack* stack);  /* (g, id, member): 1 */
/* (g, a, b): a new graph, the path found meeting from both ends; empty when
   either node is missing. */
KWZ_API int32_t CGraphBuildPath(KWCalcStack* stack);
/* (g, seeds, barrier, border), all graphs: a new graph, GraphBuildBord. */
KWZ_API int32_t CGraphBuildBord(KWCalcStack* stack);

/* Constant tables: named values (names compare ignoring case), each set
   once: setting a name that already holds a value changes nothing and still
   succeeds.  Values and descriptions are copied.  0, -21 out of memory, -44
   a NULL table or name. */
/* Makes a table with room for capacity entries (it grows); a capacity below
   1 makes nothing.  Released with KWCalcConstDestroy. */
KWZ_API int32_t KWCalcConstCreate(KWCalcConst** table, int32_t capacity);
KWZ_API void KWCalcConstClear(KWCalcConst* table);
KWZ_API void KWCalcConstDestroy(KWCalcConst* table);
/* Adds the source's entries; names the destination holds keep their values. */
KWZ_API int32_t KWCalcConstCopy(KWCalcConst* destination, const KWCalcConst* source);
KWZ_API int32_t KWCalcConstInt(KWCalcConst* table, const char* name, int64_t value,
                               const char* description);
KWZ_API int32_t KWCalcConstDbl(KWCalcConst* table, const char* name, double value,
                               const char* description);
KWZ_API int32_t KWCalcConstStr(KWCalcConst* table, const char* name, const char* value,
                               int32_t length, const char* description);
/* 0 removed, -44 no such name. */
KWZ_API int32_t KWCalcConstDel(KWCalcConst* table, const char* name);
/* 1 found (*value, when given, points at the table's value, valid until the
   entry is deleted), 0 not. */
KWZ_API int32_t KWCalcConstGet(KWCalcConst* table, const char* name, CVar** value);

/* Compiled functions.  KWFunCompile stores a record in *function even on
   failure (NULL only when the record itself cannot be had): then paramCount
   holds the error code, externCount the byte offset of the offending token
   and code the error message (UTF-8).  Codes: -1 out of memory, -2 syntax,
   -3 bad literal, -4 missing ")", -5 missing "]", -6 missing expression,
   -7 wrong argument count, -8 duplicate name.  constants may be NULL. */
typedef struct KWFunDef {
    char* name;
    int32_t stackNeed;
    int32_t paramCount;   /* on failure: the error code */
    int32_t externCount;  /* on failure: byte offset of the error in the text */
    void* externNames;    /* KWFunExtern[externCount] */
    uint8_t* code;        /* on failure: the error message */
} KWFunDef;
/* An external function that the code calls (241 with its index). */
typedef struct KWFunExtern {
    char* name;
    int32_t argCount;
} KWFunExtern;
KWZ_API int32_t KWFunCompile(const char* text, KWFunDef** function, int32_t debug,
                             KWCalcConst* constants);
/* Frees the external names and the code, keeping the record and its name. */
KWZ_API void KWFunRefFree(KWFunDef* function);
/* Frees everything, the record too; NULL is accepted. */
KWZ_API void KWFunFree(KWFunDef* function);
/* The function's code as text, one instruction a line ("offset  mnemonic
   operands", jump targets as offsets, strings quoted), then its stack need,
   parameter count and external names.  Released with KWMemFree; NULL for a
   failed compilation or when memory runs out. */
KWZ_API char* KWFunDisassemble(const KWFunDef* function);

/* Execution stack: a header and capacity CVar slots.  A frame starts at the
   stack's base; argument i of the running call is slot base + i. */
/* 0, -21 out of memory, -47 capacity below 1.  The calculator may be NULL. */
KWZ_API int32_t KWCalcStackCreate(KWCalcDef* calculator, KWCalcStack** stack, int32_t capacity);
/* 0 when need is less than the free slots, else -47. */
KWZ_API int32_t KWCalcStackTest(KWCalcStack* stack, int32_t need);
/* Empties every slot; base and top return to the first slot; a stop request
   (flag 0x20, which ends a run with -46 and stays set) is cleared. */
KWZ_API void KWCalcStackClear(KWCalcStack* stack);
KWZ_API void KWCalcStackFree(KWCalcStack* stack);
/* Slot base + index (NULL outside the capacity). */
KWZ_API CVar* KWCalcStackArg(KWCalcStack* stack, int32_t index);
/* A new empty top value, NULL when full. */
KWZ_API CVar* KWCalcStackPush(KWCalcStack* stack);
/* Moves the top value of the frame into out (NULL: frees it); -47 when the
   frame is empty. */
KWZ_API int32_t KWCalcStackPop(KWCalcStack* stack, CVar* out);
/* The data of the entry being run (NULL outside a call). */
KWZ_API void* KWCalcStackData(KWCalcStack* stack);

/* Calculators.  A calculator holds a table of callable names (compared
   ignoring case): host functions and compiled functions side by side.  Codes
   beyond the value codes: -22 argument count differs from the registered one,
   -26 linking from an entry without a function, -27 the name already has a
   function, -40 abort(n) with n >= 0, -41 out of memory while running, -43
   division by zero, -45 unknown function, -46 stopped through the stop bit,
   -47 stack too small, -50 instruction budget, -51 memory budget, -52 call
   depth, -53 a host function threw (caught at the call).
   Operators: + - * on Int give Int (64-bit, wrapping), with a Dbl side Dbl,
   Str + Str joins; / divides as doubles; \ and % divide Int by Int truncating
   (a Dbl operand of \ is cast to Int, % with a Dbl is fmod); a zero divisor
   gives -43.  Comparisons: numbers numerically (NaN compares false except
   !=), Str by CStrCmp, Empty equals only Empty.  Bitwise operators and shifts
   on Int (shift counts masked with 63, >> arithmetic).  ! gives 1 for 0, 0.0,
   Empty and an empty Str.  Other pairings give -44; an object operand goes to
   its type's operator slot. */
/* 0, -21.  Calls every registered type's CalcCreate.  Release with
   KWCalcDestroy, which also frees the compiled functions it holds. */
KWZ_API int32_t KWCalcCreate(KWCalcDef** calculator, KWCalcFn defaultHandler, void* hostData);
KWZ_API void KWCalcDestroy(KWCalcDef* calculator);
/* Registers a host function: 0, -27, -22, -44 (NULL or empty name).  data
   stays the caller's. */
KWZ_API int32_t KWCalcFunAdd(KWCalcDef* calculator, const char* name, int32_t argc,
                             KWCalcFn function, void* data, KWCalcNameDef** entry);
/* Compiles text and registers it under its own name, linking the names it
   calls: 0, the compiler's code, or a registration or link code (the function
   is then gone again).  options is unused. */
KWZ_API int32_t KWCalcFunAddI(KWCalcDef* calculator, const char* text, KWCalcNameDef** entry,
                              int32_t options, int32_t debug);
/* 0, -26, -22. */
KWZ_API int32_t KWCalcFunLink(KWCalcNameDef* entry, const char* name, int32_t argc,
                              KWCalcNameDef** callee);
/* Removes the name; compiled callers then fail with -45 when they call it.
   0 or -45. */
KWZ_API int32_t KWCalcFunDel(KWCalcDef* calculator, const char* name);
/* The entry or NULL; *index (when given) its place, -1 when not found. */
KWZ_API KWCalcNameDef* KWCalcNameFind(KWCalcDef* calculator, const char* name, int32_t* index);
/* Calls: the arguments lie on the top of the stack (pushed with
   KWCalcStackPush); on success the result is the top value in their place,
   on failure they are gone.  A function without parameters needs nothing
   pushed.  KWCalcFun0 calls the stack's current entry. */
KWZ_API int32_t KWCalcFun0(KWCalcStack* stack);
KWZ_API int32_t KWCalcFun1(KWCalcStack* stack, KWCalcNameDef* entry);
/* -45 for an unknown name. */
KWZ_API int32_t KWCalcFun2(KWCalcStack* stack, const char* name);
/* The interpreter of compiled functions: the function of compiled entries. */
KWZ_API int32_t KWFunProc(KWCalcStack* stack);
/* Evaluates one expression; result (when given) is emptied first and gets
   the value.  calculator may be NULL (a temporary one is used). */
KWZ_API int32_t KWCalcFormula(const char* text, CVar* result, KWCalcDef* calculator,
                              int32_t debug);
/* The result cast to Int / Dbl; *out is 0 on failure. */
KWZ_API int32_t KWCalcFormulaInt(const char* text, int64_t* out);
KWZ_API int32_t KWCalcFormulaDbl(const char* text, double* out);
/* Budgets of every run on the calculator's stacks, counted from the
   outermost call: instructions (-50), bytes held by strings and arrays on the
   stack (-51), nested calls (-52, 0: the default of 200, which a thread with
   a 1 MiB stack survives).  0 means none.  try does not catch them. */
KWZ_API int32_t KWCalcSetLimits(KWCalcDef* calculator, int64_t instructions, int64_t memoryBytes,
                                int32_t callDepth);
/* Hooks and stopping.  KWCalcStackStop asks the run on the stack to end: the
   next instruction of a compiled function ends it with -46 (the stack is left
   as after any failure).  Safe from any thread while a run goes on.  The
   request stays set, also across later runs, which end with -46 at once,
   until KWCalcStackClear: a stop that comes just before a run starts is not
   lost. */
KWZ_API void KWCalcStackStop(KWCalcStack* stack);
/* Sets both hooks of the stack (NULL removes one).  The debug hook runs before
   and after every call on the stack (flag 0x4000 set meanwhile); a non-zero
   result ends the call with that status at once.  The error hook gets (stack,
   code offset of the failing instruction, status) when an instruction of a
   compiled function fails with no try open, once for each function the
   failure leaves (not for budget codes); its result is ignored. */
KWZ_API void KWCalcStackSetHooks(KWCalcStack* stack, KWCalcFn debugHook,
                                 int32_t (*errorHook)(KWCalcStack* stack, int32_t position,
                                                      int32_t status));
/* Sets the calculator's call hook (NULL removes it): entries whose hook flag
   is set are called through it instead of their own function.  It sees the
   entry's frame and data (KWCalcStackData; a compiled function's is its
   KWFunDef) and may run a compiled entry's own code with KWFunProc. */
KWZ_API void KWCalcSetCallHook(KWCalcDef* calculator, KWCalcFn hook);
/* The constant table that KWCalcFunAddI and KWCalcFormula compile against
   (the caller's table of KWFunCompile), e.g. the one object types registered
   their constants in; NULL, the default, for none.  Not copied and not owned:
   it must outlive the calculator's compiles. */
KWZ_API void KWCalcSetConstants(KWCalcDef* calculator, KWCalcConst* constants);
/* Sets (on non-zero) or clears the hook flag of a name: 0, -45 unknown name,
   -44 NULL argument.  Flags start cleared. */
KWZ_API int32_t KWCalcFunSetHook(KWCalcDef* calculator, const char* name, int32_t on);


/* ======================================================================== */
/* Graphs                                                                     */
/* ======================================================================== */

/* Graphs of nodes numbered by uint32_t, with undirected links and group lists.
   Handles: a TGraphItem is made by GraphNew or returned by an operation below
   and released with GraphDelete; node and link handles belong to their graph
   and stay valid until that node or link is deleted or the graph is cleared.
   Graphs take no locks (one thread at a time per graph); the storage pool
   shared by all graphs is locked, so different graphs may be used in
   different threads.  Functions that make a graph return NULL when memory
   runs out; functions that change a graph leave it as it was in that case. */
typedef struct TGraphItem TGraphItem; /* a C++ class; C sees an opaque handle */
typedef struct TGraphNode TGraphNode;
typedef struct TGraphLink TGraphLink;
/* Link filter of GraphMulSel and GraphXorSel: true lets the link from -> to in. */
typedef bool (*GraphLinkFilter)(uint32_t from, uint32_t to, void* context);

/* A new empty graph, or a copy of source (NULL: empty).  NULL when out of memory. */
KWZ_API TGraphItem* GraphNew(TGraphItem* source);
/* Destroys a graph made by the library; NULL is ignored. */
KWZ_API void GraphDelete(TGraphItem* graph);
/* Makes destination a copy of source, with (GraphCopy) or without group lists;
   nothing when both are the same graph. */
KWZ_API void GraphCopy(TGraphItem* destination, TGraphItem* source);
KWZ_API void GraphCopyWithoutGroup(TGraphItem* destination, TGraphItem* source);
/* Removes every node and link and gives the storage back to the pool. */
KWZ_API void GraphClear(TGraphItem* graph);
/* Zeroes the path-search marks of the graph, its nodes and half-links. */
KWZ_API void GraphClearTemp(TGraphItem* graph);
/* Same node ids, link counts, links and group/non-group nodes (members not compared). */
KWZ_API bool GraphEqual(TGraphItem* a, TGraphItem* b);
/* New graphs, released with GraphDelete: a + b (union), a - b (nodes of a not
   in b), a & b (intersection), a * b (one step along b's links), a ^ b (every
   node reachable through b's links), a / b (each connected part of a & b
   contracted into one group node). */
KWZ_API TGraphItem* GraphAdd(TGraphItem* a, TGraphItem* b);
KWZ_API TGraphItem* GraphSub(TGraphItem* a, TGraphItem* b);
KWZ_API TGraphItem* GraphMul(TGraphItem* a, TGraphItem* b);
KWZ_API TGraphItem* GraphAnd(TGraphItem* a, TGraphItem* b);
KWZ_API TGraphItem* GraphXor(TGraphItem* a, TGraphItem* b);
KWZ_API TGraphItem* GraphDiv(TGraphItem* a, TGraphItem* b);
/* a * b and a ^ b through the links that filter lets in.  GraphMulSel with a
   NULL filter is GraphMul; GraphXorSel requires a filter (NULL gives NULL). */
KWZ_API TGraphItem* GraphMulSel(TGraphItem* a, TGraphItem* b, GraphLinkFilter filter,
                                void* context);
KWZ_API TGraphItem* GraphXorSel(TGraphItem* a, TGraphItem* b, GraphLinkFilter filter,
                                void* context);
/* New graph of the border nodes reachable from the seeds through graph without
   entering barrier or border nodes (no links, no seeds).  barrier and border
   may be NULL (none); graph and seeds may not. */
KWZ_API TGraphItem* GraphBuildBord(TGraphItem* graph, TGraphItem* seeds, TGraphItem* barrier,
                                   TGraphItem* border);
/* New graph of paths of graph between two of its nodes: GraphBuildPath
   collects paths wave by wave; GraphBuildPathCut gives exactly the links of
   all shortest paths, each half-link marked 1 at the end nearer from and 2 at
   the end nearer to (GraphLinkMark).  Empty when either node has no links.
   Both write the path-search marks of graph; NULL when a node is not graph's.
   GraphBuildPath searches again from each node it collects, so its cost grows
   as the result's size times the connected part's; GraphBuildPathCut costs
   what its two searches reach. */
KWZ_API TGraphItem* GraphBuildPath(TGraphItem* graph, TGraphNode* from, TGraphNode* to);
KWZ_API TGraphItem* GraphBuildPathCut(TGraphItem* graph, TGraphNode* from, TGraphNode* to);
KWZ_API uint32_t GraphNodeCount(TGraphItem* graph);
/* The newest node; walk on with GraphNodeNodeNext (NULL ends). */
KWZ_API TGraphNode* GraphNodeFirst(TGraphItem* graph);
KWZ_API TGraphNode* GraphFindNode(TGraphItem* graph, uint32_t id);
/* The node with that id, created when absent; NULL when out of memory. */
KWZ_API TGraphNode* GraphAppendNode(TGraphItem* graph, uint32_t id);
/* Removes the node with its links and group list; an unknown id is ignored. */
KWZ_API void GraphDeleteNode(TGraphItem* graph, uint32_t id);
/* Gives node a new id; false when another node has it.  GraphRenameGroup
   also adds the old id to the node's group list. */
KWZ_API bool GraphRenameNode(TGraphItem* graph, TGraphNode* node, uint32_t id);
KWZ_API bool GraphRenameGroup(TGraphItem* graph, TGraphNode* node, uint32_t id);
/* Pushes id at the head of node's group list (no duplicate check) / removes
   its first entry with that id. */
KWZ_API void GraphAppendGroupNode(TGraphItem* graph, TGraphNode* node, uint32_t id);
KWZ_API void GraphDeleteGroupNode(TGraphItem* graph, TGraphNode* node, uint32_t id);
/* Links of the graph, each counted once. */
KWZ_API uint32_t GraphLinkCount(TGraphItem* graph);
/* a's half-link toward b (or toward the node numbered id), or NULL. */
KWZ_API TGraphLink* GraphFindLink(TGraphItem* graph, TGraphNode* a, TGraphNode* b);
KWZ_API TGraphLink* GraphFindLinkId(TGraphItem* graph, TGraphNode* a, uint32_t id);
/* Links a and b (an existing link is kept) and returns a's half-link; NULL
   for a self link or when out of memory.  A new half-link goes second in each
   node's list, so that the first stays where GraphAppendLinkFirst put it;
   GraphAppendLinkFirst puts a's half-link first (b's goes second). */
KWZ_API TGraphLink* GraphAppendLink(TGraphItem* graph, TGraphNode* a, TGraphNode* b);
KWZ_API TGraphLink* GraphAppendLinkFirst(TGraphItem* graph, TGraphNode* a, TGraphNode* b);
/* Moves the half-link to the head of its node's list (its pair stays). */
KWZ_API void GraphMoveLinkFirst(TGraphItem* graph, TGraphLink* link);
/* Deletes the link (both halves). */
KWZ_API void GraphDeleteLink(TGraphItem* graph, TGraphLink* link);
/* Buckets of the node hash.  GraphSetHashSize rounds up to a multiple of 256,
   at least 1024, and returns the size in force (the old one when out of memory). */
KWZ_API uint32_t GraphGetHashSize(TGraphItem* graph);
KWZ_API uint32_t GraphSetHashSize(TGraphItem* graph, uint32_t size);
KWZ_API uint32_t GraphNodeId(TGraphNode* node);
KWZ_API uint32_t GraphNodeLinkCount(TGraphNode* node);
KWZ_API TGraphLink* GraphNodeLinkFirst(TGraphNode* node);
/* Of a node: its first group entry; of a group entry: the next one (NULL ends).
   GraphNodeId gives an entry's member id. */
KWZ_API TGraphNode* GraphNodeGroupNext(TGraphNode* node);
KWZ_API TGraphNode* GraphNodeNodeNext(TGraphNode* node);
/* The node holding the half-link; the neighbour it leads to; the other half. */
KWZ_API TGraphNode* GraphLinkOwner(TGraphLink* link);
KWZ_API TGraphNode* GraphLinkPair(TGraphLink* link);
KWZ_API TGraphLink* GraphLinkLinkPair(TGraphLink* link);
KWZ_API TGraphLink* GraphLinkNext(TGraphLink* link);
/* The half-link's mark (path search results: 1 nearer from, 2 nearer to). */
KWZ_API uint32_t GraphLinkMark(TGraphLink* link);
/* Frees the spare storage blocks of the shared pool. */
KWZ_API void GraphHeapClear(void);
/* Saves the graph into up to three new blocks (each output may be NULL; the
   old value of *output is not freed): the node ids, the links as sorted (lower
   id, higher id) pairs, and the group lists (*groups becomes NULL when the
   graph has no group node).  Release each with KWMemFree.  When memory runs
   out every output given becomes NULL. */
KWZ_API void GraphDataSave(TGraphItem* graph, void** nodes, void** links, void** groups);
/* Replaces the graph by the saved one; the buffers are trusted (see
   GraphDataLoadN for buffers from outside).  A wrong magic leaves it empty;
   links naming unknown nodes are skipped. */
KWZ_API void GraphDataLoad(TGraphItem* graph, const void* nodes, const void* links,
                           const void* groups);
/* GraphDataLoad that reads nothing past each buffer's length: false, and an
   empty graph, for a buffer whose counts do not fit in its length (or a null
   graph); false and the graph unchanged when memory runs out. */
KWZ_API bool GraphDataLoadN(TGraphItem* graph, const void* nodes, uint64_t nodesLength,
                            const void* links, uint64_t linksLength, const void* groups,
                            uint64_t groupsLength);


/* ======================================================================== */
/* XML documents                                                              */
/* ======================================================================== */

/* Nodes are C++ objects (see the C++ section); C sees opaque handles.  Node
   kinds: */
#define KWXML_ELEMENT 0     /* name: the tag; value: its text */
#define KWXML_DECLARATION 1 /* "<?target ...?>"; its attributes hold the pseudo-attributes */
#define KWXML_COMMENT 2     /* name "#COMMENT"; value: the text inside */
#define KWXML_CDATA 3       /* name "#CDATA"; value: the text inside */
#define KWXML_DOCUMENT 4
/* Results: 0, a parse error 1..4, or a failure. */
#define KWXML_OK 0
#define KWXML_ALONE_NOT_CLOSED 1 /* "Element must be closed." */
#define KWXML_NOT_CLOSED 2       /* "%s must be closed with </%s>" / "it must be closed with </%s>" */
#define KWXML_NOT_NESTED 3       /* "'<%s> ... </%s>' is not wel-formed." */
#define KWXML_ATTR_NO_VALUE 4    /* "<%s> attribute has error " */
#define KWXML_NOMEM (-1)         /* out of memory; the node is left empty */
#define KWXML_BADARG (-2)        /* a NULL node or text, an index out of range, a bad child */
/* KWXmlGetXml options (0: compact text, references only where needed, which
   parses back into the same tree). */
#define KWXML_NEWLINES 1   /* "\r\n" after every node */
#define KWXML_INDENT 2     /* new lines, and two blanks per level */
#define KWXML_REFERENCES 4 /* all five characters & " ' < > as references */
/* KWXmlSetXmlEx flags (0: the options of KWXmlSetXml). */
#define KWXML_PARSE_TRIM 1        /* trim white space from values */
#define KWXML_PARSE_NO_ENTITIES 2 /* keep references as written */
#define KWXML_PARSE_FORCE 4       /* accept a closing tag that does not match */
#define KWXML_PARSE_NO_ESCAPE 8   /* no escape character ('\\' otherwise) */

typedef struct _tagXMLNode _tagXMLNode;

/* A new node of that kind (0..3: no parent, no document; 4: a document with
   the default parse options), or NULL for another kind.  Freed with KWXmlFree. */
KWZ_API _tagXMLNode* KWXmlNew(int32_t kind);
/* Frees a node with everything below it; a node that has a parent is first
   taken out of its parent's children. */
KWZ_API void KWXmlFree(_tagXMLNode* node);
/* Parses text into the node (a document loads as a document, any other node as
   an element).  Returns 0 or the error code 1..4 with *errorPosition the byte
   offset of the error in text (0 without error); KWXML_NOMEM, KWXML_BADARG.
   After a parse error the node keeps what was read before the error (a
   document keeps no root). */
KWZ_API int32_t KWXmlSetXml(_tagXMLNode* node, const char* text, int32_t* errorPosition);
/* As KWXmlSetXml with KWXML_PARSE_... flags. */
KWZ_API int32_t KWXmlSetXmlEx(_tagXMLNode* node, const char* text, int32_t flags,
                              int32_t* errorPosition);
/* The node as text (KWXML_... options); released with KWMemFree; NULL when out
   of memory or node is NULL. */
KWZ_API char* KWXmlGetXml(_tagXMLNode* node, int32_t options);
/* Text of the last parse error of the document (or of the node's document),
   "" when none; valid until the next parse. */
KWZ_API const char* KWXmlError(_tagXMLNode* document);

/* Navigation.  Returned texts and nodes belong to the tree and stay valid
   until it changes.  Names are compared ignoring case. */
KWZ_API int32_t KWXmlType(_tagXMLNode* node); /* kind, -2 for NULL */
KWZ_API _tagXMLNode* KWXmlOwner(_tagXMLNode* node);  /* topmost node of the tree it was loaded in */
KWZ_API _tagXMLNode* KWXmlParent(_tagXMLNode* node);
KWZ_API const char* KWXmlGetName(_tagXMLNode* node); /* NULL for a NULL node */
KWZ_API const char* KWXmlGetVal(_tagXMLNode* node);
KWZ_API int32_t KWXmlSetName(_tagXMLNode* node, const char* name);   /* 0, -1, -2 */
KWZ_API int32_t KWXmlSetVal(_tagXMLNode* node, const char* value);   /* 0, -1, -2 */
KWZ_API int32_t KWXmlCount(_tagXMLNode* node);                       /* children */
KWZ_API _tagXMLNode* KWXmlNodeGetN(_tagXMLNode* node, int32_t index);
KWZ_API _tagXMLNode* KWXmlNodeGet(_tagXMLNode* node, const char* name); /* first child element */
/* First element named so below the node, in document order. */
KWZ_API _tagXMLNode* KWXmlFind(_tagXMLNode* node, const char* name);
/* Appends child (taking it out of its former parent; the tree takes ownership).
   Returns its index, or -2 for a document, the node itself or one of its
   ancestors, -1 out of memory (child unchanged). */
KWZ_API int32_t KWXmlAdd(_tagXMLNode* node, _tagXMLNode* child);
/* Appends a new element; the new node, NULL on failure. */
KWZ_API _tagXMLNode* KWXmlAddNew(_tagXMLNode* node, const char* name, const char* value);
KWZ_API int32_t KWXmlDel(_tagXMLNode* node, int32_t index); /* frees child index; 0, -2 */

KWZ_API int32_t KWXmlAttrCount(_tagXMLNode* node);
KWZ_API const char* KWXmlAttrName(_tagXMLNode* node, int32_t index);
KWZ_API int32_t KWXmlAttrIdx(_tagXMLNode* node, const char* name); /* index, -1 when none */
KWZ_API const char* KWXmlAttrGetN(_tagXMLNode* node, int32_t index);
KWZ_API const char* KWXmlAttrGet(_tagXMLNode* node, const char* name);
/* Sets the first attribute of that name, appending one when there is none. */
KWZ_API int32_t KWXmlAttrSet(_tagXMLNode* node, const char* name, const char* value);
KWZ_API int32_t KWXmlAttrSetN(_tagXMLNode* node, int32_t index, const char* value);
/* Appends an attribute even when one of that name exists; its index. */
KWZ_API int32_t KWXmlAttrAdd(_tagXMLNode* node, const char* name, const char* value);
KWZ_API int32_t KWXmlAttrDel(_tagXMLNode* node, const char* name); /* 0, -2 when none */
KWZ_API int32_t KWXmlAttrDelN(_tagXMLNode* node, int32_t index);
/* Bytes of the node pool that trees of all threads hold now (nodes,
   attributes and texts live there; texts over 4 KB and large child lists are
   heap blocks and not counted): for measuring what a tree costs. */
KWZ_API int64_t KWXmlPoolBytes(void);

/* The text with & " ' < > replaced by their references (XEntity2Ref), or with
   the references of the default table and numeric character references
   replaced by their characters (XRef2Entity).  Released with KWMemFree; NULL
   for NULL text or out of memory. */
KWZ_API char* XEntity2Ref(const char* text);
KWZ_API char* XRef2Entity(const char* text);


#ifdef __cplusplus
} /* extern "C" */
#endif

/* ======================================================================== */
/* C++ classes (graphs, XML nodes, KString)                                   */
/* ======================================================================== */
#ifdef __cplusplus

/* The graph records and class.  TGraphNode is also the record of a group
   entry (only id and groupFirst, the next entry, are meaningful).  Marks are
   the scratch values of the path searches. */
struct TGraphHeap;
struct TNodeHeap;
struct TLinkHeap;
struct TGraphScratch;

struct TGraphNode {
    uint32_t id;
    TGraphLink* linkFirst;
    TGraphNode* hashNext;
    TGraphNode* groupFirst;
    TGraphNode* nodeNext; /* also the free-list link */
    TGraphNode* nodePrev;
    uint32_t linkCount;
    uint32_t mark;
};

struct TGraphLink {
    TGraphNode* owner;
    TGraphLink* pair; /* the other half; its owner is the neighbour */
    TGraphLink* next; /* also the free-list link */
    TGraphLink* prev; /* NULL: first of the owner's list */
    uint32_t mark;
};

/* Methods are those of the flat Graph... functions; the operators and the
   path builders return new graphs.  Out of memory throws std::bad_alloc. */
struct KWZ_API TGraphItem {
    uint32_t mark;
    TGraphHeap* heap;
    TGraphNode** hashTable;
    uint32_t hashSize;
    uint32_t hashLimit;
    uint32_t nodeCount;
    TGraphNode* freeNodes;
    TGraphNode* nodeFirst;
    TNodeHeap* nodeHeaps;
    uint32_t linkCount;
    TGraphLink* freeLinks;
    TLinkHeap* linkHeaps;

    TGraphItem();                           /* empty, on the shared pool */
    explicit TGraphItem(TGraphHeap& heap);  /* empty, on the pool given */
    TGraphItem(TGraphItem const& source);   /* copy, on the source's pool */
    TGraphItem(TGraphItem&& source) noexcept; /* takes over; source left empty */
    TGraphItem& operator=(TGraphItem const& source); /* Copy */
    TGraphItem& operator=(TGraphItem&& source) noexcept;
    ~TGraphItem();

    void Init(TGraphHeap& heap);
    void Clear();
    void ClearTemp();
    TGraphNode* FindNode(unsigned int id, unsigned int& bucket) const;
    TGraphNode* FindNode(unsigned int id) const;
    TGraphLink* FindLink(TGraphNode const& a, TGraphNode const& b) const;
    TGraphLink* FindLink(TGraphNode const& a, unsigned int id) const;
    TGraphNode* AppendNode(unsigned int id);
    TGraphNode* AppendNode(TGraphNode const& source);
    void DeleteNode(unsigned int id);
    bool RenameNode(TGraphNode& node, unsigned int id);
    bool RenameGroup(TGraphNode& node, unsigned int id);
    void AppendGroupNode(TGraphNode& node, unsigned int id);
    void DeleteGroupNode(TGraphNode& node, unsigned int id);
    void CopyGroupNode(TGraphNode& destination, TGraphNode& source);
    TGraphLink* AppendLink(TGraphNode& a, TGraphNode& b);
    TGraphLink* AppendLinkFirst(TGraphNode& a, TGraphNode& b);
    void MoveLinkFirst(TGraphLink& link);
    void DeleteLink(TGraphLink& link);
    unsigned int GetHashSize() const;
    unsigned int SetHashSize(unsigned int size);
    bool operator==(TGraphItem const& other) const;
    bool operator!=(TGraphItem const& other) const { return !(*this == other); }
    void Copy(TGraphItem const& source);
    void CopyWithoutGroup(TGraphItem const& source);

    TGraphItem operator+(TGraphItem const& b) const;
    TGraphItem operator-(TGraphItem const& b) const;
    TGraphItem operator&(TGraphItem const& b) const;
    TGraphItem operator*(TGraphItem const& b) const;
    TGraphItem operator^(TGraphItem const& b) const;
    TGraphItem operator/(TGraphItem const& b) const;
    TGraphItem MulSel(TGraphItem const& b, GraphLinkFilter filter, void* context) const;
    TGraphItem XorSel(TGraphItem const& b, GraphLinkFilter filter, void* context) const;
    TGraphItem BuildBord(TGraphItem& seeds, TGraphItem& barrier, TGraphItem& border) const;
    TGraphItem BuildPath(TGraphNode& from, TGraphNode& to);
    TGraphItem BuildPathCut(TGraphNode& from, TGraphNode& to);

  private:
    /* What the last path search marked, so that the next one clears only that. */
    TGraphScratch* scratch_;
};



/* XML and KString classes.  Methods throw std::bad_alloc when memory runs out
   (a failing Load leaves the node empty); nothing else throws.  No operation
   recurses over the depth of a tree. */
#include <cstddef>
#include <cstdint>
#include <vector>

/* An owned byte string, always followed by a 0 byte (which c_str() shows);
   it may hold 0 bytes of its own.  Short texts live inside the object. */
class KWZ_API KString {
public:
    KString() noexcept { m_local[0] = 0; }
    KString(const char* text);                  /* NULL: empty */
    KString(const char* bytes, size_t length);
    KString(const KString& other);
    KString(KString&& other) noexcept;
    KString& operator=(const KString& other);
    KString& operator=(KString&& other) noexcept;
    KString& operator=(const char* text);
    ~KString();

    const char* c_str() const noexcept { return m_data; }
    size_t length() const noexcept { return m_length; }
    bool empty() const noexcept { return m_length == 0; }
    char operator[](size_t i) const noexcept { return m_data[i]; }

    KString& Assign(const char* bytes, size_t length);
    KString& Append(const char* bytes, size_t length);
    KString& Append(const char* text);
    KString& Append(char c);
    KString& Append(const KString& other) { return Append(other.m_data, other.m_length); }
    KString& AppendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));
    static KString Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
    void Clear() noexcept;
    void Reserve(size_t capacity);
    /* Removes blanks (space, tab, CR, LF) at the start, the end, or both. */
    KString& TrimLeft();
    KString& TrimRight();
    KString& Trim();
    /* Byte order, and ignoring the case of Latin and Windows-1251 Cyrillic letters. */
    int Compare(const char* text) const;
    int CompareNoCase(const char* text) const;
    bool EqualsNoCase(const char* text) const { return CompareNoCase(text) == 0; }
    bool operator==(const KString& other) const noexcept;
    bool operator!=(const KString& other) const noexcept { return !(*this == other); }
    /* Hands the bytes to the caller as a block for KWMemFree; the string is empty after. */
    char* Detach();

private:
    static constexpr size_t kLocal = 15;
    bool IsLocal() const noexcept { return m_data == m_local; }
    void Grow(size_t need) {
        if (need > (IsLocal() ? kLocal : m_capacity)) Enlarge(need);
    }
    void Enlarge(size_t need);

    char* m_data = m_local;
    size_t m_length = 0;
    union {
        size_t m_capacity;
        char m_local[kLocal + 1];
    };
};

struct _tagXMLNode;
struct _tagXMLDocument;
namespace kwz {
namespace xml {
struct Blocks; /* the library's freeing of whole trees */
}
}

/* One entity of a table: the character and its reference ("&amp;"). */
struct _tagXMLEntity {
    char entity;
    const char* ref;
};
/* An entity table; Default() is & " ' < > in this order. */
struct KWZ_API _tagXMLEntitys {
    const _tagXMLEntity* items;
    int32_t count;
    static const _tagXMLEntitys& Default();
    /* Appends text with the table's references (and "&#N;" numeric references)
       replaced by their characters; unknown references stay as written. */
    void Ref2Entity(const char* text, size_t length, KString& out) const;
    /* Appends text with every character of the table that is also in only
       (NULL: every one) replaced by its reference. */
    void Entity2Ref(const char* text, size_t length, KString& out, const char* only = nullptr) const;
};

/* Parse options and the report of the first error of a parse. */
struct _tagParseInfo {
    bool trimValue = false;
    bool entityValue = true;
    const _tagXMLEntitys* entities = &_tagXMLEntitys::Default();
    char escapeChar = '\\'; /* 0: none */
    bool forceParse = false;
    bool errorOccurred = false;
    const char* errorPosition = nullptr;
    int32_t errorCode = 0;
    KString errorText;
};

/* Writing options: "\r\n" after every node, blanks per level, and whether
   all five references are written (otherwise only where the text needs one).
   escapeChar: the reader's escape character, which the writer keeps from
   hiding a delimiter. */
struct _tagDispOption {
    bool newLines = false;
    int32_t indent = 0;
    bool references = false;
    char escapeChar = '\\';
};

/* The text of a node or attribute: bytes followed by a 0 byte (it may hold
   0 bytes of its own), kept in the library's node pool beside the nodes, so
   that a node holds 8 bytes per text and a parsed document makes no heap
   block per text.  It reads as KString does; assigning takes new storage and
   gives the old back, and the text may come from the string itself. */
class KWZ_API _tagXMLText {
public:
    _tagXMLText() noexcept : m_data(s_empty.bytes) {}
    _tagXMLText(const _tagXMLText&) = delete;
    ~_tagXMLText() {
        if (!(Head() & kStatic)) Release();
    }
    _tagXMLText& operator=(const _tagXMLText& other) { return Assign(other.c_str(), other.length()); }
    _tagXMLText& operator=(const KString& other) { return Assign(other.c_str(), other.length()); }
    _tagXMLText& operator=(const char* text); /* NULL: empty */

    const char* c_str() const noexcept { return m_data; }
    size_t length() const noexcept { return Head() & kLengthMask; }
    bool empty() const noexcept { return length() == 0; }
    char operator[](size_t i) const noexcept { return m_data[i]; }

    _tagXMLText& Assign(const char* bytes, size_t length);
    /* New storage for up to capacity bytes (the old text is given back);
       the caller writes the bytes and then calls SetLength. */
    char* Reset(size_t capacity);
    void SetLength(size_t length) noexcept;
    /* Shares other's storage (names that a parse meets again are stored once). */
    void Share(const _tagXMLText& other);
    void Clear() noexcept;
    bool EqualsNoCase(const char* text) const;
    bool operator==(const char* text) const;

private:
    /* The 8 bytes before the text: its length, and how it is held. */
    static constexpr uint64_t kHeapBlock = uint64_t{1} << 63; /* a heap block of its own */
    static constexpr uint64_t kStatic = uint64_t{1} << 62;    /* never given back */
    static constexpr uint64_t kLengthMask = kStatic - 1;
    struct Empty {
        uint64_t head;
        char bytes[8];
    };
    static const Empty s_empty;
    uint64_t Head() const noexcept { return reinterpret_cast<const uint64_t*>(m_data)[-1]; }
    void Release() noexcept; /* gives the storage back; the text is empty after */
    friend struct kwz::xml::Blocks;

    const char* m_data;
};

/* The children or attributes of a node: an array in the node pool (a heap
   block once it is large).  Its items are owned by the node. */
class KWZ_API _tagXMLItems {
public:
    _tagXMLItems() noexcept = default;
    _tagXMLItems(const _tagXMLItems&) = delete;
    _tagXMLItems& operator=(const _tagXMLItems&) = delete;
    ~_tagXMLItems() { Free(); }

    size_t size() const noexcept { return m_size; }
    bool empty() const noexcept { return m_size == 0; }
    size_t capacity() const noexcept { return m_capacity; }
    void reserve(size_t capacity);
    void push_back(void* item) {
        if (m_size == m_capacity) reserve(m_capacity ? size_t{m_capacity} * 2 : 4);
        m_items[m_size++] = item;
    }
    void insert(size_t index, void* item); /* index <= size() */
    void erase(size_t index) noexcept;     /* index < size() */
    void pop_back() noexcept { --m_size; }
    void clear() noexcept { m_size = 0; }
    void reverse() noexcept;
    size_t find(const void* item) const noexcept; /* size() when absent */

protected:
    void Free() noexcept;
    friend struct kwz::xml::Blocks;
    void** m_items = nullptr;
    uint32_t m_size = 0;
    uint32_t m_capacity = 0;
};

template <typename T>
class _tagXMLList : public _tagXMLItems {
public:
    T* const* begin() const noexcept { return reinterpret_cast<T* const*>(m_items); }
    T* const* end() const noexcept { return begin() + m_size; }
    T* operator[](size_t i) const noexcept { return begin()[i]; }
    T* back() const noexcept { return begin()[m_size - 1]; }
};

struct KWZ_API _tagXMLAttr {
    _tagXMLText name;
    _tagXMLText value;
    _tagXMLNode* node = nullptr; /* owning node */

    /* Nodes and attributes come from the library's node pool. */
    static void* operator new(size_t size);
    static void operator delete(void* block, size_t size) noexcept;
};

/* A node.  Children and attributes are owned; Parent is null for a document or
   a detached node; Owner is the topmost node of the tree it was loaded in. */
struct KWZ_API _tagXMLNode {
    _tagXMLText Name;
    _tagXMLText Value;
    _tagXMLNode* Parent = nullptr;
    _tagXMLList<_tagXMLNode> Childs;
    _tagXMLList<_tagXMLAttr> Attrs;
    int32_t Type = KWXML_ELEMENT;
    int32_t CalcRef = 0; /* references held by calculator values */
    _tagXMLDocument* Document = nullptr;
    _tagXMLNode* Owner = nullptr;

    static void* operator new(size_t size);
    static void operator delete(void* block, size_t size) noexcept;

    explicit _tagXMLNode(int32_t type = KWXML_ELEMENT) : Type(type) {}
    _tagXMLNode(const _tagXMLNode&) = delete;
    _tagXMLNode& operator=(const _tagXMLNode&) = delete;
    virtual ~_tagXMLNode();

    /* Loading: each returns the position after what it read, or null (on a
       parse error, reported in info, or when the text holds no element). */
    const char* Load(const char* text, _tagParseInfo* info);
    const char* LoadAttributes(const char* text, _tagParseInfo* info);
    const char* LoadComment(const char* text, _tagParseInfo* info);  /* text at "<!--" */
    const char* LoadCDATA(const char* text, _tagParseInfo* info);    /* text at "<![CDATA[" */
    const char* LoadProcessingInstrunction(const char* text, _tagParseInfo* info); /* at "<?" */

    /* The node as text (appended to out); GetText: the values of the elements
       and CDATA sections of the branch in document order. */
    void GetXML(KString& out, const _tagDispOption* options = nullptr) const;
    KString GetXML(const _tagDispOption* options = nullptr) const;
    KString GetText() const;

    _tagXMLNode* GetChild(int32_t index) const;
    _tagXMLNode* GetChild(const char* name) const; /* first element child of that name */
    const _tagXMLList<_tagXMLNode>& GetChilds() const { return Childs; }
    int32_t GetChildCount() const { return static_cast<int32_t>(Childs.size()); }
    const char* GetChildValue(const char* name) const;
    _tagXMLAttr* GetChildAttr(const char* name, const char* attr) const;
    const char* GetChildAttrValue(const char* name, const char* attr) const;
    KString GetChildText(const char* name) const;
    _tagXMLNode* Find(const char* name) const; /* first element below, in document order */

    _tagXMLAttr* GetAttr(int32_t index) const;
    _tagXMLAttr* GetAttr(const char* name) const;
    const _tagXMLList<_tagXMLAttr>& GetAttrs() const { return Attrs; }
    int32_t GetAttrIdx(const char* name) const; /* -1 when none */
    const char* GetAttrValue(const char* name) const;
    int32_t GetAttrCount() const { return static_cast<int32_t>(Attrs.size()); }

    /* New detached node (kind 4: a document) or attribute; the caller owns it
       until it is appended. */
    _tagXMLNode* CreateNode(int32_t type, const char* name = "", const char* value = "") const;
    static _tagXMLAttr* CreateAttr(const char* name, const char* value);
    /* Takes node over (out of its former parent); null for a document, this
       node or an ancestor of it.  The branch joins this node's document. */
    _tagXMLNode* AppendChild(_tagXMLNode* node);
    _tagXMLNode* AppendChild(const char* name, const char* value);
    _tagXMLNode* AppendChildBranch(const _tagXMLNode* branch); /* appends a copy */
    bool RemoveChild(int32_t index);
    bool RemoveChild(_tagXMLNode* node);
    _tagXMLNode* DetachChild(int32_t index); /* the caller owns the result */
    _tagXMLNode* DetachChild(_tagXMLNode* node);
    _tagXMLAttr* AppendAttr(_tagXMLAttr* attr); /* takes attr over */
    _tagXMLAttr* AppendAttr(const char* name, const char* value);
    bool RemoveAttr(int32_t index);
    bool RemoveAttr(const char* name);
    _tagXMLAttr* DetachAttr(int32_t index);
    /* Copies: the node with its attributes, or the whole branch (detached). */
    _tagXMLNode* CopyNode() const;
    _tagXMLNode* CopyBranch() const;
    /* Empties the node: name, value, attributes and children. */
    void Close() noexcept;
    /* Calculator references held on the node and everything below it. */
    int32_t CalcRefCount() const;
};

/* A document: a node of kind 4, its own document, with default parse options
   and the text of the last error. */
struct KWZ_API _tagXMLDocument : _tagXMLNode {
    _tagParseInfo ParseInfo;
    KString LastError;

    _tagXMLDocument();
    ~_tagXMLDocument() override;
    /* Reads declarations, comments, the root element and what follows it; null
       on error (the root is then discarded) or when there is no element. */
    const char* Load(const char* text, _tagParseInfo* info = nullptr);
    _tagXMLNode* GetRoot() const; /* the first element child */
};


#endif /* __cplusplus */

#endif /* VOMKWZ_H */
