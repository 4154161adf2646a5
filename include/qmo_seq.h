/*
 * qmo_seq.h - sequence operators over tiles of fixed-width values.
 *
 * A sequence is an iterator record (qmo_seq_iterator_t) that the caller
 * allocates and an exported constructor fills. Constructors take already
 * constructed operand records, so an expression is a tree of records built
 * leaves first. Pulling the root's next function yields one tile of up to
 * QMO_SEQ_TILE_SIZE values plus a 128-bit null bitmap (bit set = null).
 *
 * Every function returns a status (QMO_SEQ_OK, QMO_SEQ_END, ...). The library
 * never allocates or frees records; it allocates scratch memory only through
 * the qmo_seq_malloc / qmo_seq_free hooks. It holds no locks and starts no
 * threads: one record tree is driven by one thread at a time.
 *
 * Operators exist once per element type and the type is part of the name:
 * qmo_seq_<op>_<type>, pulled by qmo_seq_<op>_<type>_next. The declarations
 * below are stamped from the type lists in this header (QMO_SEQ_NUMERIC_TYPES
 * and friends); the library defines its functions from the same lists, so a
 * name cannot be declared without being defined.
 *
 * Valid C99 and C++.
 */
#ifndef QMO_SEQ_H
#define QMO_SEQ_H

#include <stddef.h>
#include <stdint.h>

/* ------------------------------------------------------------------------
 * Visibility. QMO_SEQ_API marks the library's exported names; QMO_SEQ_CORE_API
 * marks the few names the database core supplies (the stand-alone support
 * library qmo_seq_standalone provides them when there is no core).
 * ---------------------------------------------------------------------- */
#ifndef QMO_SEQ_API
#  if defined(_WIN32) && defined(QMO_SEQ_BUILDING)
#    define QMO_SEQ_API __declspec(dllexport)
#  elif defined(__GNUC__)
#    define QMO_SEQ_API __attribute__((visibility("default")))
#  else
#    define QMO_SEQ_API
#  endif
#endif
#ifndef QMO_SEQ_CORE_API
#  if defined(_WIN32) && defined(QMO_SEQ_CORE_BUILDING)
#    define QMO_SEQ_CORE_API __declspec(dllexport)
#  elif defined(__GNUC__)
#    define QMO_SEQ_CORE_API __attribute__((visibility("default")))
#  else
#    define QMO_SEQ_CORE_API
#  endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Sizes, element types and status codes
 * ---------------------------------------------------------------------- */

/** Elements per tile. */
#define QMO_SEQ_TILE_SIZE 128
/** Words of operator state in every record. */
#define QMO_SEQ_STATE_WORDS 36
/** Widest char element a record can hold (bytes); char constructors refuse more. */
#define QMO_SEQ_MAX_CHAR_WIDTH 32
/** Bytes of the values area of a record: 128 elements of the widest char. */
#define QMO_SEQ_VALUES_BYTES (QMO_SEQ_TILE_SIZE * QMO_SEQ_MAX_CHAR_WIDTH)

/** Element type codes (the record's elem_type), X(NAME, code, description).
 *  Codes 10 and 11 are unused. */
#define QMO_SEQ_TYPE_CODES(X)                                                    \
    X(UINT1, 0, "uint8_t; also booleans (0 or 1, one byte each)")               \
    X(UINT2, 1, "uint16_t")                                                      \
    X(UINT4, 2, "uint32_t")                                                      \
    X(UINT8, 3, "uint64_t")                                                      \
    X(INT1, 4, "int8_t")                                                         \
    X(INT2, 5, "int16_t")                                                        \
    X(INT4, 6, "int32_t")                                                        \
    X(INT8, 7, "int64_t")                                                        \
    X(FLOAT, 8, "IEEE single")                                                   \
    X(DOUBLE, 9, "IEEE double")                                                  \
    X(DATETIME, 12, "uint64_t time stamp; arithmetic as uint8")                 \
    X(CHAR, 13, "fixed-width NUL-padded bytes, width set at construction")
#define QMO_SEQ_TYPE_ENUM_(NAME, code, text) QMO_SEQ_TYPE_##NAME = code,
enum qmo_seq_type { QMO_SEQ_TYPE_CODES(QMO_SEQ_TYPE_ENUM_) };

/** Status codes returned by every constructor, next, reset and reader,
 *  X(NAME, code, description); bindings take their names and texts from here. */
#define QMO_SEQ_STATUS_CODES(X)                                                              \
    X(OK, 0, "success; for next: a tile was produced")                                       \
    X(END, 11, "end of sequence: this call produced no element")                            \
    X(NO_MEMORY, 52, "the allocator hook returned null")                                     \
    X(UNSUPPORTED, 57, "operation meaningless for this element type")                        \
    X(TYPE_MISMATCH, 61, "operand of the wrong element type (or char width rule)")           \
    X(INVALID_ARGUMENT, 62, "argument out of range, unreadable input")                       \
    X(ALREADY_BOUND, 701, "operand already taken by another operator")                       \
    X(LENGTH_MISMATCH, 702, "sequences advancing together disagree in length")               \
    X(NULL_VALUE, 703, "null element where a value is required")
#define QMO_SEQ_STATUS_ENUM_(NAME, code, text) QMO_SEQ_##NAME = code,
enum qmo_seq_status { QMO_SEQ_STATUS_CODES(QMO_SEQ_STATUS_ENUM_) };

/* ------------------------------------------------------------------------
 * The iterator record
 * ---------------------------------------------------------------------- */

typedef struct qmo_seq_iterator qmo_seq_iterator_t;

/** Produces the next tile; 0, QMO_SEQ_END or an error. */
typedef int (*qmo_seq_next_fn)(qmo_seq_iterator_t *it);
/** Rewinds a sequence to its first element. */
typedef int (*qmo_seq_reset_fn)(qmo_seq_iterator_t *it);
/** Folds a partition ahead of merging (qmo_seq_prepare_aggregate) or builds a hash table. */
typedef int (*qmo_seq_prepare_fn)(qmo_seq_iterator_t *it);
/** Folds another partition's partial result (from) into this record (into). */
typedef int (*qmo_seq_merge_fn)(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from);

/**
 * One sequence. The caller owns the record and keeps it alive while any
 * other record uses it as an operand. Field order and widths are part of
 * the ABI.
 */
struct qmo_seq_iterator {
    qmo_seq_next_fn next;       /* produces the next tile */
    qmo_seq_reset_fn reset;     /* rewinds the subtree */
    qmo_seq_prepare_fn prepare; /* aggregate-like operators only, else null */
    qmo_seq_merge_fn merge;     /* aggregate-like operators only, else null */
    uint16_t elem_size;         /* bytes per element (char: the width) */
    uint16_t tile_count;        /* valid elements in the current tile, 0..128 */
    uint16_t cursor;            /* consumer's read position (element readers only) */
    uint8_t reserved;           /* unused */
    uint8_t prepared;           /* set by qmo_seq_prepare_aggregate */
    uint64_t first_pos;         /* index of the first element delivered (limit: lower bound) */
    uint64_t pos;               /* elements delivered through the end of the current tile */
    uint64_t last_pos;          /* last deliverable index, inclusive; all-ones = unbounded */
    qmo_seq_iterator_t *operand1;
    qmo_seq_iterator_t *operand2;
    qmo_seq_iterator_t *operand3;
    void *buf;                  /* array of an array source, or qmo_seq_alloc_buffer memory */
    uint64_t buf_size;          /* bytes at buf */
    uint8_t elem_type;          /* enum qmo_seq_type */
    uint8_t bound;              /* 1 once taken as an operand */
    uint64_t state[QMO_SEQ_STATE_WORDS]; /* operator parameters and running state */
    uint64_t null_bitmap[2];    /* bit i (word i / 64, bit i % 64) set: element i is null */
    union {                     /* the tile, element i at byte i * elem_size */
        uint8_t u1[QMO_SEQ_VALUES_BYTES];
        uint16_t u2[QMO_SEQ_VALUES_BYTES / 2];
        uint32_t u4[QMO_SEQ_VALUES_BYTES / 4];
        uint64_t u8[QMO_SEQ_VALUES_BYTES / 8];
        int8_t i1[QMO_SEQ_VALUES_BYTES];
        int16_t i2[QMO_SEQ_VALUES_BYTES / 2];
        int32_t i4[QMO_SEQ_VALUES_BYTES / 4];
        int64_t i8[QMO_SEQ_VALUES_BYTES / 8];
        float f4[QMO_SEQ_VALUES_BYTES / 4];
        double f8[QMO_SEQ_VALUES_BYTES / 8];
        uint64_t dt[QMO_SEQ_VALUES_BYTES / 8];
        char bytes[QMO_SEQ_VALUES_BYTES];
    } values;
};

/* ------------------------------------------------------------------------
 * Type lists. Each entry is X(arg, suffix, C type, type code); arg is passed
 * through so that lists can be nested (an operator list over a type list).
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_SIGNED_TYPES(X, a)                \
    X(a, int1, int8_t, QMO_SEQ_TYPE_INT1)         \
    X(a, int2, int16_t, QMO_SEQ_TYPE_INT2)        \
    X(a, int4, int32_t, QMO_SEQ_TYPE_INT4)        \
    X(a, int8, int64_t, QMO_SEQ_TYPE_INT8)

#define QMO_SEQ_UNSIGNED_TYPES(X, a)              \
    X(a, uint1, uint8_t, QMO_SEQ_TYPE_UINT1)      \
    X(a, uint2, uint16_t, QMO_SEQ_TYPE_UINT2)     \
    X(a, uint4, uint32_t, QMO_SEQ_TYPE_UINT4)     \
    X(a, uint8, uint64_t, QMO_SEQ_TYPE_UINT8)

#define QMO_SEQ_FLOAT_TYPES(X, a)                 \
    X(a, float, float, QMO_SEQ_TYPE_FLOAT)        \
    X(a, double, double, QMO_SEQ_TYPE_DOUBLE)

/** The eleven numeric suffixes, in the library's canonical order. */
#define QMO_SEQ_NUMERIC_TYPES(X, a)               \
    QMO_SEQ_SIGNED_TYPES(X, a)                    \
    QMO_SEQ_UNSIGNED_TYPES(X, a)                  \
    QMO_SEQ_FLOAT_TYPES(X, a)                     \
    X(a, datetime, uint64_t, QMO_SEQ_TYPE_DATETIME)

/** A second copy of the numeric list, so that one type list can be nested in
 *  another (conversions are stamped for every ordered pair). */
#define QMO_SEQ_NUMERIC_TYPES_2(X, a)             \
    X(a, int1, int8_t, QMO_SEQ_TYPE_INT1)         \
    X(a, int2, int16_t, QMO_SEQ_TYPE_INT2)        \
    X(a, int4, int32_t, QMO_SEQ_TYPE_INT4)        \
    X(a, int8, int64_t, QMO_SEQ_TYPE_INT8)        \
    X(a, uint1, uint8_t, QMO_SEQ_TYPE_UINT1)      \
    X(a, uint2, uint16_t, QMO_SEQ_TYPE_UINT2)     \
    X(a, uint4, uint32_t, QMO_SEQ_TYPE_UINT4)     \
    X(a, uint8, uint64_t, QMO_SEQ_TYPE_UINT8)     \
    X(a, float, float, QMO_SEQ_TYPE_FLOAT)        \
    X(a, double, double, QMO_SEQ_TYPE_DOUBLE)     \
    X(a, datetime, uint64_t, QMO_SEQ_TYPE_DATETIME)

/** Unpacks a parenthesised argument list passed through a nested list. */
#define QMO_SEQ_EXPAND(...) __VA_ARGS__

/** The eleven numeric suffixes and char (elements of width bytes). */
#define QMO_SEQ_ALL_TYPES(X, a)                   \
    QMO_SEQ_NUMERIC_TYPES(X, a)                   \
    X(a, char, char, QMO_SEQ_TYPE_CHAR)

/** The numeric suffixes and char, for add (whose char member concatenates). */
#define QMO_SEQ_ADD_TYPES(X, a) QMO_SEQ_ALL_TYPES(X, a)

/** The time-stamp types of alignment operators. */
#define QMO_SEQ_TIMESTAMP_TYPES(X, a)             \
    X(a, uint4, uint32_t, QMO_SEQ_TYPE_UINT4)     \
    X(a, uint8, uint64_t, QMO_SEQ_TYPE_UINT8)     \
    X(a, datetime, uint64_t, QMO_SEQ_TYPE_DATETIME)

/** Type code of a member that takes any element type. */
#define QMO_SEQ_ANY_TYPE 255

/** The one member of a family that is not stamped per type. */
#define QMO_SEQ_UNTYPED(X, a) X(a, any, void, QMO_SEQ_ANY_TYPE)

/** Pair lists: X(arg, (first, second, first code), second C type, second code). */
#define QMO_SEQ_PAIR_(a, t, ctype, code) QMO_SEQ_PAIR_I_(QMO_SEQ_EXPAND a, t, ctype, code)
#define QMO_SEQ_PAIR_I_(...) QMO_SEQ_PAIR_II_(__VA_ARGS__)
#define QMO_SEQ_PAIR_II_(X, a, first, fcode, t, ctype, code) X(a, (first, t, fcode), ctype, code)
#define QMO_SEQ_PAIRS_OVER_(a, first, fctype, fcode) \
    QMO_SEQ_NUMERIC_TYPES_2(QMO_SEQ_PAIR_, (QMO_SEQ_EXPAND a, first, fcode))
/** Every time-stamp type with every numeric value type (stretch, as-of join). */
#define QMO_SEQ_STAMPED_TYPES(X, a) QMO_SEQ_TIMESTAMP_TYPES(QMO_SEQ_PAIRS_OVER_, (X, a))
/** Every ordered pair of numeric types, (from, to). */
#define QMO_SEQ_CONVERSION_PAIRS(X, a) QMO_SEQ_NUMERIC_TYPES(QMO_SEQ_PAIRS_OVER_, (X, a))

/* ------------------------------------------------------------------------
 * The registry of families. Every exported name belongs to one family, and
 * each family is one row
 *
 *   X(family, shape, member types, partial code, statuses, description)
 *
 *   family        the name between qmo_seq_ and the type suffix (add, agg_sum)
 *   shape         the signature class: QMO_SEQ_DECLARE_<shape>_ declares one
 *                 member; a SINGLE family declares QMO_SEQ_SINGLE_<family>
 *   member types  a type list (QMO_SEQ_NUMERIC_TYPES, ...); QMO_SEQ_UNTYPED
 *                 for a family with one member
 *   partial code  QMO_SEQ_PARTIAL_<NAME> for a family whose records export
 *                 partial results, else 0
 *   statuses      what the family returns besides 0, 11 and its operands'
 *   description   one line
 *
 * Rows are grouped by the source file that defines them
 * (QMO_SEQ_ARITHMETIC_FAMILIES, ...); QMO_SEQ_FAMILIES lists every group.
 * The declarations below, the library's definitions, the Python tables, the
 * tests' tables and docs/reference.md are all expanded from these rows.
 *
 * Every shape S has two traits beside its declaration macro:
 * QMO_SEQ_KIND_S (TYPED: members are qmo_seq_<family>_<t>; PAIRED: the type
 * is a pair; SINGLE) and QMO_SEQ_MERGE_S (the kind of partial result its
 * members hold, or NONE). A consumer that meets a shape it does not know
 * fails to compile.
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_DECLARE_FAMILY_(family, shape, types, partial, statuses, doc) \
    types(QMO_SEQ_DECLARE_##shape##_, family)

#define QMO_SEQ_DECLARE_SINGLE_(family, t, ctype, code) QMO_SEQ_SINGLE_##family
#define QMO_SEQ_KIND_SINGLE SINGLE
#define QMO_SEQ_MERGE_SINGLE NONE
/** A single family whose record exports its partial result. */
#define QMO_SEQ_DECLARE_MERGED_SINGLE_(family, t, ctype, code) QMO_SEQ_SINGLE_##family
#define QMO_SEQ_KIND_MERGED_SINGLE SINGLE
#define QMO_SEQ_MERGE_MERGED_SINGLE SINGLE

/* ------------------------------------------------------------------------
 * Supplied by the database core (or by the stand-alone support library
 * qmo_seq_standalone). The library calls these but never defines them.
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_SINGLE_check_bindings                                                           \
    /** Non-zero: constructors and readers refuse bound records (701). */                     \
    QMO_SEQ_CORE_API extern int32_t qmo_seq_check_bindings;
#define QMO_SEQ_SINGLE_core_resets                                                              \
    /** Rewinds the record itself: empty tile, cursor 0, position 0. Operands untouched. */    \
    QMO_SEQ_CORE_API int qmo_seq_reset_iterator(qmo_seq_iterator_t *it);                        \
    /** Resets operand 1, then the record itself; returns the first non-zero status. */        \
    QMO_SEQ_CORE_API int qmo_seq_reset_unary_iterator(qmo_seq_iterator_t *it);                  \
    /** Resets operands 1 and 2, then the record itself; returns the first non-zero status. */ \
    QMO_SEQ_CORE_API int qmo_seq_reset_binary_iterator(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_copy_bitmap                                                              \
    /** Copies nbits null bits from src (starting at bit src_bit) to dst (at bit dst_bit). */  \
    QMO_SEQ_CORE_API void qmo_seq_copy_bitmap(uint64_t *dst, uint64_t dst_bit, const uint64_t *src, \
                                              uint64_t src_bit, uint64_t nbits);
#define QMO_SEQ_SINGLE_prime_numbers                                                            \
    /** The index-th (0..28) of 29 growing primes used as hash table sizes. */                 \
    QMO_SEQ_CORE_API uint32_t qmo_int_get_prime_number(int index);
#define QMO_SEQ_SINGLE_bytes                                                                    \
    /** Byte-wise comparison: negative, zero or positive. */                                   \
    QMO_SEQ_CORE_API int qmo_memcmp(const void *a, const void *b, size_t n);                    \
    /** Zeroes n bytes. */                                                                      \
    QMO_SEQ_CORE_API void qmo_memnull(void *p, size_t n);                                       \
    /** Moves n bytes; the ranges may overlap. */                                               \
    QMO_SEQ_CORE_API void qmo_memmove(void *dst, const void *src, size_t n);                    \
    /** First occurrence of c in the NUL-terminated s, or null. */                              \
    QMO_SEQ_CORE_API char *qmo_strchr(const char *s, int c);

#define QMO_SEQ_CORE_FAMILIES(X)                                                                  \
    X(check_bindings, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "the core's switch of binding checks")    \
    X(core_resets, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "generic resets of records with 0, 1 or 2 operands") \
    X(copy_bitmap, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "copies a run of null bits between bitmaps") \
    X(prime_numbers, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "the core's table of prime hash table sizes") \
    X(bytes, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "byte comparison, zeroing, moving and search")
QMO_SEQ_CORE_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Allocation hooks and scratch buffers
 * ---------------------------------------------------------------------- */

/** Allocation hook: context is the iterator (or hash state) memory is taken for. */
typedef void *(*qmo_seq_malloc_fn)(void *context, size_t size);
/** Release hook: size is the one passed at allocation. */
typedef void (*qmo_seq_free_fn)(void *context, void *memory, size_t size);

#define QMO_SEQ_SINGLE_allocator                                                                \
    /** Every allocation of the library goes through this hook (default qmo_seq_sys_malloc). */ \
    QMO_SEQ_API extern qmo_seq_malloc_fn qmo_seq_malloc;                                        \
    /** Every release goes through this hook (default qmo_seq_sys_free). */                     \
    QMO_SEQ_API extern qmo_seq_free_fn qmo_seq_free;                                            \
    /** The system allocator; ignores the context. */                                           \
    QMO_SEQ_API void *qmo_seq_sys_malloc(void *context, size_t size);                           \
    /** The system release; ignores context and size. */                                        \
    QMO_SEQ_API void qmo_seq_sys_free(void *context, void *memory, size_t size);                \
    /** Stores both hooks (no check for null). Set once, before sequences are built. */         \
    QMO_SEQ_API void qmo_seq_redefine_allocator(qmo_seq_malloc_fn malloc_hook, qmo_seq_free_fn free_hook);
#define QMO_SEQ_SINGLE_buffer                                                                   \
    /** Takes size bytes through qmo_seq_malloc into it->buf (it->buf_size = size); null on failure. */ \
    QMO_SEQ_API void *qmo_seq_alloc_buffer(qmo_seq_iterator_t *it, uint64_t size);              \
    /** Releases it->buf through qmo_seq_free and clears it; does nothing without a buffer. */  \
    QMO_SEQ_API void qmo_seq_free_buffer(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_enable_check_bindings                                                    \
    /** Stores on in qmo_seq_check_bindings and returns the previous value. */                  \
    QMO_SEQ_API int qmo_seq_enable_check_bindings(int on);

/* ------------------------------------------------------------------------
 * Resets installed by stateful operators. Each clears its state words and
 * then delegates to the core reset matching the operand count.
 * ---------------------------------------------------------------------- */

/** The state words (counted from 1) that the generic aggregate resets clear. */
#define QMO_SEQ_AGG_RESET_FIRST_WORD 2
#define QMO_SEQ_AGG_RESET_LAST_WORD 4

#define QMO_SEQ_SINGLE_agg_resets                                                               \
    /** State words 2-4 cleared, then the unary reset. */                                       \
    QMO_SEQ_API int qmo_seq_reset_unary_agg_iterator(qmo_seq_iterator_t *it);                   \
    /** State words 2-4 cleared, then the binary reset. */                                      \
    QMO_SEQ_API int qmo_seq_reset_binary_agg_iterator(qmo_seq_iterator_t *it);                  \
    /** State words 2-4 cleared, operands 1-3 reset (null ones skipped), then the record. */    \
    QMO_SEQ_API int qmo_seq_reset_ternary_agg_iterator(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_state_resets                                                             \
    /** State words 1-3 cleared, then the binary reset. */                                      \
    QMO_SEQ_API int qmo_seq_reset_union_iterator(qmo_seq_iterator_t *it);                       \
    /** State word 2 cleared, then the unary reset. */                                          \
    QMO_SEQ_API int qmo_seq_reset_repeat_iterator(qmo_seq_iterator_t *it);                      \
    /** Text pointer (word 1) back to the start of the text (word 2), then the record. */       \
    QMO_SEQ_API int qmo_seq_reset_parse_iterator(qmo_seq_iterator_t *it);                       \
    /** As qmo_seq_reset_parse_iterator, for caller-defined parsers. */                         \
    QMO_SEQ_API int qmo_seq_reset_custom_parse_iterator(qmo_seq_iterator_t *it);

#define QMO_SEQ_FRAME_FAMILIES(X)                                                                 \
    X(allocator, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "the allocation hooks and the system allocator") \
    X(buffer, SINGLE, QMO_SEQ_UNTYPED, 0, "alloc: null on failure", "a record's scratch buffer") \
    X(enable_check_bindings, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "switches binding checks on or off") \
    X(agg_resets, SINGLE, QMO_SEQ_UNTYPED, 0, "operands' reset statuses", "resets that clear state words 2-4") \
    X(state_resets, SINGLE, QMO_SEQ_UNTYPED, 0, "operands' reset statuses", "resets of union, repeat and parse records")
QMO_SEQ_FRAME_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Constants and element readers, for every type t:
 *
 *   qmo_seq_const_<t>(result, value)        endless sequence of value
 *   qmo_seq_next_<t>(it, &element)          one element; 703 if it is null
 *                                           (the value is still copied out)
 *   qmo_seq_get_<t>(it, array, &count)      up to *count non-null elements,
 *                                           *count = number stored
 *   qmo_seq_get_nullable_<t>(it, array, &count, nulls)
 *                                           up to *count elements, nulls kept
 *                                           in place and flagged in the caller's
 *                                           bitmap (ceil(*count / 64) words,
 *                                           cleared first)
 *
 * Char elements are copied as elem_size bytes; qmo_seq_const_char takes the
 * bytes and the width (1..QMO_SEQ_MAX_CHAR_WIDTH, else 62).
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_DECLARE_ELEMENT_READER_(family, t, ctype, code) \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *it, ctype *element);
#define QMO_SEQ_KIND_ELEMENT_READER TYPED
#define QMO_SEQ_MERGE_ELEMENT_READER NONE
#define QMO_SEQ_DECLARE_BULK_READER_(family, t, ctype, code) \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *it, ctype *array, uint64_t *count);
#define QMO_SEQ_KIND_BULK_READER TYPED
#define QMO_SEQ_MERGE_BULK_READER NONE
#define QMO_SEQ_DECLARE_NULLABLE_READER_(family, t, ctype, code)                                  \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *it, ctype *array, uint64_t *count, \
                                           uint64_t *nulls);
#define QMO_SEQ_KIND_NULLABLE_READER TYPED
#define QMO_SEQ_MERGE_NULLABLE_READER NONE
#define QMO_SEQ_DECLARE_CONST_(family, t, ctype, code)                            \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, ctype value); \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_CONST TYPED
#define QMO_SEQ_MERGE_CONST NONE
#define QMO_SEQ_SINGLE_const_char                                                                  \
    QMO_SEQ_API int qmo_seq_const_char(qmo_seq_iterator_t *result, const char *bytes, size_t width); \
    QMO_SEQ_API int qmo_seq_const_char_next(qmo_seq_iterator_t *it);

#define QMO_SEQ_READER_FAMILIES(X)                                                                  \
    X(next, ELEMENT_READER, QMO_SEQ_ALL_TYPES, 0, "61 701 703", "reads one element")                \
    X(get, BULK_READER, QMO_SEQ_ALL_TYPES, 0, "61 701", "reads up to *count non-null elements")     \
    X(get_nullable, NULLABLE_READER, QMO_SEQ_ALL_TYPES, 0, "61 701", "reads up to *count elements, nulls in place")
QMO_SEQ_READER_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

#define QMO_SEQ_CONST_FAMILIES(X)                                                           \
    X(const, CONST, QMO_SEQ_NUMERIC_TYPES, 0, "-", "an endless sequence of one value")     \
    X(const_char, SINGLE, QMO_SEQ_UNTYPED, 0, "62", "an endless sequence of one char value")
QMO_SEQ_CONST_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Sources over caller arrays, for every type t:
 *
 *   qmo_seq_unget_<t>(result, array, count)
 *   qmo_seq_unget_nullable_<t>(result, array, count, nulls)
 *
 * The array (and the null bitmap, bit i of word i / 64 set = element i null)
 * is not copied: it must outlive the sequence. Tiles are 128 elements until
 * the last. Reset with qmo_seq_unget_reset. The char members take the
 * element width (1..QMO_SEQ_MAX_CHAR_WIDTH) as a last argument; with another
 * width they return 62.
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_DECLARE_UNGET_(family, t, ctype, code)                                                \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, const ctype *array, uint64_t count); \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_UNGET TYPED
#define QMO_SEQ_MERGE_UNGET NONE
#define QMO_SEQ_DECLARE_UNGET_NULLABLE_(family, t, ctype, code)                                   \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, const ctype *array,        \
                                           uint64_t count, const uint64_t *nulls);                \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_UNGET_NULLABLE TYPED
#define QMO_SEQ_MERGE_UNGET_NULLABLE NONE
#define QMO_SEQ_SINGLE_unget_char                                                                    \
    QMO_SEQ_API int qmo_seq_unget_char(qmo_seq_iterator_t *result, const char *array, uint64_t count, \
                                       size_t width);                                                \
    QMO_SEQ_API int qmo_seq_unget_char_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_unget_nullable_char                                                          \
    QMO_SEQ_API int qmo_seq_unget_nullable_char(qmo_seq_iterator_t *result, const char *array,     \
                                                uint64_t count, const uint64_t *nulls, size_t width); \
    QMO_SEQ_API int qmo_seq_unget_nullable_char_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_unget_reset                                           \
    /** Reset of the array sources: rewinds to the first element. */         \
    QMO_SEQ_API int qmo_seq_unget_reset(qmo_seq_iterator_t *it);

#define QMO_SEQ_SOURCE_FAMILIES(X)                                                                   \
    X(unget, UNGET, QMO_SEQ_NUMERIC_TYPES, 0, "-", "a sequence over a caller's array")              \
    X(unget_nullable, UNGET_NULLABLE, QMO_SEQ_NUMERIC_TYPES, 0, "-", "a sequence over a caller's array and null bitmap") \
    X(unget_char, SINGLE, QMO_SEQ_UNTYPED, 0, "62", "a char sequence over a caller's array")        \
    X(unget_nullable_char, SINGLE, QMO_SEQ_UNTYPED, 0, "62", "a char sequence over a caller's array and null bitmap") \
    X(unget_reset, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "rewinds an array source")
QMO_SEQ_SOURCE_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Plumbing: operators that shape a stream without computing on it.
 *
 *   qmo_seq_tee(a, b, source)       two readers of one stream; they may be at
 *                                   most one tile apart (the follower copies
 *                                   the leader's current tile)
 *   qmo_seq_concat(result, first, second)
 *                                   first then second, packed into full tiles
 *                                   across the seam; a tile of fewer than 128
 *                                   ends the first stream. Same type and
 *                                   element size, else 61.
 *   qmo_seq_cat(result, left, right)
 *                                   char elements joined byte for byte (the
 *                                   left padding kept); widths summing above
 *                                   QMO_SEQ_MAX_CHAR_WIDTH give 61
 *   qmo_seq_limit(result, input, from, till)
 *                                   positions from..till (inclusive, from 0)
 *   qmo_seq_skip_nan_float / _double(result, input)
 *                                   drops NaN and null elements
 *
 * tee, concat and limit take any type and copy their input's type and size.
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_SINGLE_tee                                                                          \
    QMO_SEQ_API int qmo_seq_tee(qmo_seq_iterator_t *a, qmo_seq_iterator_t *b, qmo_seq_iterator_t *source); \
    QMO_SEQ_API int qmo_seq_tee_next(qmo_seq_iterator_t *it);                                       \
    /** Empties the twin's tile and position, then the unary reset (source and this record). */     \
    QMO_SEQ_API int qmo_seq_reset_tee_iterator(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_concat                                                                       \
    QMO_SEQ_API int qmo_seq_concat(qmo_seq_iterator_t *result, qmo_seq_iterator_t *first,           \
                                   qmo_seq_iterator_t *second);                                     \
    QMO_SEQ_API int qmo_seq_concat_next(qmo_seq_iterator_t *it);                                    \
    /** Reads the first stream again, then the binary reset. */                                     \
    QMO_SEQ_API int qmo_seq_concat_reset(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_cat                                                                          \
    QMO_SEQ_API int qmo_seq_cat(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,               \
                                qmo_seq_iterator_t *right);                                         \
    QMO_SEQ_API int qmo_seq_cat_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_limit                                                                        \
    QMO_SEQ_API int qmo_seq_limit(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, uint64_t from, \
                                  uint64_t till);                                                   \
    QMO_SEQ_API int qmo_seq_limit_next(qmo_seq_iterator_t *it);

/** One operand of the member's type: qmo_seq_<family>_<t>(result, input). */
#define QMO_SEQ_DECLARE_UNARY_(family, t, ctype, code)                                                  \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input); \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_UNARY TYPED
#define QMO_SEQ_MERGE_UNARY NONE

#define QMO_SEQ_PLUMBING_FAMILIES(X)                                                                 \
    X(tee, SINGLE, QMO_SEQ_UNTYPED, 0, "701", "two readers of one stream")                          \
    X(concat, SINGLE, QMO_SEQ_UNTYPED, 0, "61 701", "one stream after another, packed into full tiles") \
    X(cat, SINGLE, QMO_SEQ_UNTYPED, 0, "61 701", "char elements joined byte for byte")              \
    X(limit, SINGLE, QMO_SEQ_UNTYPED, 0, "701", "the elements at positions from..till")             \
    X(skip_nan, UNARY, QMO_SEQ_FLOAT_TYPES, 0, "61 701", "drops NaN and null elements")
QMO_SEQ_PLUMBING_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * The meta iterator flattens a sequence of sub-sequences, supplied by the
 * database core, into one stream of full tiles. The core fills the record:
 * state[0] points at its qmo_seq_meta_t, state[1] is the phase (0 not started,
 * 1 running, 2 finished), next = qmo_seq_meta_iterator_next, reset =
 * qmo_seq_meta_iterator_reset, and elem_type / elem_size those of the inner
 * record.
 * ---------------------------------------------------------------------- */

typedef struct qmo_seq_meta qmo_seq_meta_t;
struct qmo_seq_meta {
    /** Moves the inner record on to the next sub-sequence, so that its next
     *  pull delivers that sub-sequence's first tile; 11 when there is none. */
    int (*advance)(qmo_seq_meta_t *meta);
    /** Called once before the first pull of the inner record. */
    int (*start)(qmo_seq_meta_t *meta);
    /** The inner record, pulled directly through its next function. */
    qmo_seq_iterator_t inner;
};

#define QMO_SEQ_SINGLE_meta_iterator                                                            \
    QMO_SEQ_API int qmo_seq_meta_iterator_next(qmo_seq_iterator_t *it);                         \
    /** Back to phase 0, then the record itself (the meta object is the core's to rewind). */   \
    QMO_SEQ_API int qmo_seq_meta_iterator_reset(qmo_seq_iterator_t *it);

#define QMO_SEQ_META_FAMILIES(X) \
    X(meta_iterator, SINGLE, QMO_SEQ_UNTYPED, 0, "the core's advance and start statuses", "flattens the core's sub-sequences")
QMO_SEQ_META_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Type conversion, for every ordered pair of numeric types (121 pairs,
 * identities included): qmo_seq_<t>_to_<u>(result, input), next
 * qmo_seq_<t>_to_<u>_next, and the alias qmo_seq_<u>_from_<t>, which calls
 * qmo_seq_<t>_to_<u>.
 *
 * Integers widen by sign or zero extension and narrow by keeping the low
 * bits. Integers become floating by rounding to nearest (uint8 and datetime
 * as unsigned). Floating values are truncated toward zero: to int1, int2,
 * int4, uint1 and uint2 through a signed 32-bit integer, to uint4 and int8
 * through a signed 64-bit one, to uint8 and datetime through the 2^63
 * offset; out-of-range values and NaN convert as the hardware does (the most
 * negative signed value, then its low bits). Nulls pass through and values
 * under them are converted too.
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_DECLARE_CONVERSION_(family, pair, uctype, ucode) \
    QMO_SEQ_DECLARE_CONVERSION_I_(QMO_SEQ_EXPAND pair)
#define QMO_SEQ_DECLARE_CONVERSION_I_(...) QMO_SEQ_DECLARE_CONVERSION_II_(__VA_ARGS__)
#define QMO_SEQ_DECLARE_CONVERSION_II_(t, u, tcode)                                                \
    QMO_SEQ_API int qmo_seq_##t##_to_##u(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input);   \
    QMO_SEQ_API int qmo_seq_##t##_to_##u##_next(qmo_seq_iterator_t *it);                          \
    QMO_SEQ_API int qmo_seq_##u##_from_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input);
#define QMO_SEQ_KIND_CONVERSION PAIRED
#define QMO_SEQ_MERGE_CONVERSION NONE

#define QMO_SEQ_CONVERSION_FAMILIES(X) \
    X(conversion, CONVERSION, QMO_SEQ_CONVERSION_PAIRS, 0, "61 701", "qmo_seq_<t>_to_<u> and qmo_seq_<u>_from_<t>: every element converted")
QMO_SEQ_CONVERSION_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Text parsing: qmo_seq_parse_<t>(result, text), next qmo_seq_parse_<t>_next,
 * reset qmo_seq_reset_parse_iterator, for every type t. Construction never
 * fails. The text is not copied: keep it alive and unchanged while the
 * sequence is in use. A null text reads as an empty one.
 *
 * Text form: an optional "{", elements separated by single commas, ended by
 * "}" or the text's NUL. An element is the word null, which must follow the
 * comma directly, or a value read with the type's scan format:
 *
 *   int1 int2 int4  "%i"     decimal, octal (0...), hexadecimal (0x...)
 *   int8            "%lli"
 *   uint1 uint2 uint4 "%u"   decimal only: 0x10 reads 0, then fails at x
 *   uint8 datetime  "%llu"
 *   float double    "%lf"    (inf and nan included)
 *
 * Blanks before a value are skipped by the scan, blanks before a comma are
 * not: {1, 2} and {1,null} parse, {1, null} and {1 ,2} give 62. A value not
 * followed by a comma is followed directly by the next one (1 2 reads as
 * 1,2). Narrow types are scanned into the wider C type and stored narrowed.
 * Each value is scanned from a bounded copy of its token, so parsing stays
 * linear in the text's length; the null test compares at most up to the
 * text's NUL.
 *
 * Char: the width is the longest element of the text (at least 1, at most
 * QMO_SEQ_MAX_CHAR_WIDTH; a longer element gives 62 when reached). An
 * element is null, a double-quoted string in which a backslash takes the
 * next character literally ("a\"b", "" for the empty string), or a bare word:
 * the bytes up to the next blank, comma, brace, quote or NUL (blanks before
 * it are skipped). Elements are NUL-padded to the width.
 *
 * Each next delivers up to 128 elements. On a bad token it returns 62, the
 * tile count becomes 0 (that call's elements are lost) and the text position
 * stays where the call began, so the next call fails at the same token.
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_DECLARE_PARSE_(family, t, ctype, code)                                   \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, const char *text); \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_PARSE TYPED
#define QMO_SEQ_MERGE_PARSE NONE

#define QMO_SEQ_PARSE_FAMILIES(X) \
    X(parse, PARSE, QMO_SEQ_ALL_TYPES, 0, "62", "a sequence read from its text form")
QMO_SEQ_PARSE_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Text out, and text in through a caller's token reader.
 *
 * qmo_seq_print_<t>(input, buffer, &size, format), for every type t, drains
 * input (from its cursor, as the element readers do) and writes the text
 * qmo_seq_parse_<t> reads: "{", elements separated by ",", null for a null
 * element, "}", then a NUL. *size is in: the buffer's capacity in bytes; out:
 * the text's length without the NUL. When the text and its NUL do not fit,
 * the result is 62 with *size = the capacity needed (length + 1); the buffer
 * then holds a NUL-terminated prefix and nothing is ever written past its
 * capacity. To measure first, pass *size 0 (buffer may be null), reset the
 * input, and print again. Statuses of the input are passed up (*size is then
 * unchanged). Nothing is allocated.
 *
 * format is the printf format of one element; null means the default, which
 * reads back to the same value:
 *   integers, datetime  decimal (int8 minimum, uint8 maximum exact)
 *   double              17 significant digits, as "%.17g"
 *   float               9 significant digits, as "%.9g"
 *                       (both: -0 kept; inf, -inf; NaN as nan or -nan: the
 *                       sign reads back, the payload does not, a NaN comes
 *                       back as the quiet NaN of that sign)
 *   char                double-quoted, '"' and '\' escaped with a backslash;
 *                       the bytes up to the first NUL (bytes after it are
 *                       not kept), read back at the width of the longest
 *                       element.
 * Checked before anything is pulled: the input's type (61), its binding
 * (701), the format, then size and buffer (62). A caller's format holds
 * exactly one conversion of the element's kind, with any literal text and
 * "%%" around it:
 *   %[flags][width][.precision][length]conversion
 *   integers  d i (as signed for signed types) u o x X (the value's bits at
 *             its own width), flags - + space 0, # with o x X
 *   float, double  f F e E g G a A, flags - + space 0 #
 *   char      s, flag - (bytes up to the first NUL, printed unquoted)
 * width and precision are at most 99 (no "*"); a length modifier (hh h l ll
 * j z t; l for floats) is accepted and ignored: the element is printed at
 * its own width. The format is at most 128 bytes.
 *
 * qmo_seq_print_stream_<t>(input, format, write, context) prints the same
 * text, NUL excluded, through write(context, text, length) in pieces of at
 * most QMO_SEQ_PRINT_PIECE bytes, for texts too long to hold at once; a
 * null write gives 62. A non-zero status from write stops printing and is
 * returned.
 *
 * qmo_seq_custom_parse(result, text, elem_type, elem_size, scan, context):
 * a parse source of any element type whose values the caller's scan reads;
 * next qmo_seq_custom_parse_next, reset qmo_seq_reset_custom_parse_iterator.
 * The list syntax is qmo_seq_parse_<t>'s: braces, single commas, the word
 * null directly at an element's start, and a refused token loses that
 * call's tile and keeps the text position. Before each value blanks are
 * skipped, the element's slot (elem_size bytes) is zeroed, and
 * scan(context, token, slot, &consumed) is called with the text at the
 * token; it returns 0 (a value, written to the slot), QMO_SEQ_NULL_VALUE (a
 * null token) or 62 (not a token; any other status refuses likewise and is
 * passed up), and sets consumed to the characters it read: at least 1 and
 * not past the text's NUL, else 62. elem_type is a type code (61 for other
 * values); elem_size the type's size, or 1..QMO_SEQ_MAX_CHAR_WIDTH for char
 * (62); scan must not be null (62). The text is not copied; state[0] is the
 * current position, state[1] the start, state[2] scan, state[3] context.
 * ---------------------------------------------------------------------- */

/** Largest piece handed to a qmo_seq_write_fn. */
#define QMO_SEQ_PRINT_PIECE 16384

typedef int (*qmo_seq_write_fn)(void *context, const char *text, uint64_t length);
typedef int (*qmo_seq_scan_fn)(void *context, const char *token, void *value, uint64_t *consumed);

/** (input, buffer, size, format): the text into a caller's buffer. */
#define QMO_SEQ_DECLARE_PRINT_(family, t, ctype, code)                                           \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *input, char *buffer, uint64_t *size, \
                                           const char *format);
#define QMO_SEQ_KIND_PRINT TYPED
#define QMO_SEQ_MERGE_PRINT NONE
/** (input, format, write, context): the text in pieces through a caller's function. */
#define QMO_SEQ_DECLARE_PRINT_STREAM_(family, t, ctype, code)                                    \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *input, const char *format,       \
                                           qmo_seq_write_fn write, void *context);
#define QMO_SEQ_KIND_PRINT_STREAM TYPED
#define QMO_SEQ_MERGE_PRINT_STREAM NONE
#define QMO_SEQ_SINGLE_custom_parse                                                                   \
    QMO_SEQ_API int qmo_seq_custom_parse(qmo_seq_iterator_t *result, const char *text, int elem_type, \
                                         size_t elem_size, qmo_seq_scan_fn scan, void *context);      \
    QMO_SEQ_API int qmo_seq_custom_parse_next(qmo_seq_iterator_t *it);

#define QMO_SEQ_TEXT_FAMILIES(X)                                                                          \
    X(print, PRINT, QMO_SEQ_ALL_TYPES, 0, "61 701 62", "the text a parse source reads, into a buffer")   \
    X(print_stream, PRINT_STREAM, QMO_SEQ_ALL_TYPES, 0, "61 701 62, write's status", "the same text in pieces through a caller's function") \
    X(custom_parse, SINGLE, QMO_SEQ_UNTYPED, 0, "61 62 703", "a parse source whose values a caller's function reads")
QMO_SEQ_TEXT_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Pattern matching: qmo_seq_match(result, input, pattern), next
 * qmo_seq_match_next, reset qmo_seq_reset_unary_iterator. The input must be
 * char (61); binding check (701); a null pattern gives 62. The pattern is not
 * copied: keep it alive and unchanged while the sequence is in use.
 *
 * The result is uint1: 1 where the element matches. "%" matches any run
 * (consecutive ones act as one), "_" any one character, a backslash makes
 * the next character literal; a trailing backslash matches a backslash. An
 * element ends at its width or its first NUL. A null element gives 0 with
 * its null bit kept. Nothing is allocated.
 *
 * The matcher is chosen once, at construction, and kept in state[0]:
 *   qmo_seq_exact_match       no wildcard and no backslash (also the empty
 *                             pattern, which matches empty elements)
 *   qmo_seq_match_substring   "%inner%" with no other wildcard or backslash
 *                             (Horspool search; "%%" matches everything)
 *   qmo_seq_match_regex       every other pattern
 * state[1] holds the pattern, state[2] its length (bytes, escapes as written;
 * low half) and the input's width (high half), state[3..34] the substring
 * matcher's skip table. Each matcher takes such a record and one element's
 * bytes and returns 1 or 0; none reads past the pattern's NUL or the width.
 * ---------------------------------------------------------------------- */

typedef int (*qmo_seq_matcher_fn)(const qmo_seq_iterator_t *match, const char *element);

#define QMO_SEQ_SINGLE_match                                                                          \
    QMO_SEQ_API int qmo_seq_match(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input,              \
                                  const char *pattern);                                               \
    QMO_SEQ_API int qmo_seq_match_next(qmo_seq_iterator_t *it);                                       \
    QMO_SEQ_API int qmo_seq_exact_match(const qmo_seq_iterator_t *match, const char *element);        \
    QMO_SEQ_API int qmo_seq_match_substring(const qmo_seq_iterator_t *match, const char *element);    \
    QMO_SEQ_API int qmo_seq_match_regex(const qmo_seq_iterator_t *match, const char *element);

#define QMO_SEQ_MATCH_FAMILIES(X) \
    X(match, SINGLE, QMO_SEQ_UNTYPED, 0, "61 701 62", "char elements matched against a pattern (% _ \\)")
QMO_SEQ_MATCH_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Element-wise operators. Binary operators pull left then right, deliver
 * min(left count, right count) elements and OR the null bitmaps; values under
 * null bits are computed too. Unary operators keep their input's bitmap.
 *
 *   qmo_seq_<op>_<t>(result, left, right), next qmo_seq_<op>_<t>_next
 *     arithmetic  add sub mul div mod max min    numeric types (add also char)
 *     comparison  eq ne lt gt le ge              numeric types and char -> uint1
 *   qmo_seq_<op>_<t>(result, input)
 *     sign        abs neg                        numeric types
 *   qmo_seq_and / or / xor (result, left, right), qmo_seq_not(result, input)
 *     on uint1, next qmo_seq_<op>_qmo_seq_bool_next
 *
 * Integers wrap; division and remainder by zero are not guarded (not even
 * under null bits). Deliberate quirks: neg of uint1..uint8 and abs of
 * datetime copy their input, neg of datetime negates modulo 2^64, mod of
 * datetime goes through double. Float max/min return b when either operand
 * is NaN or they are equal. Char comparisons need equal widths (61) and
 * compare all width bytes; add_char concatenates up to each NUL and refuses
 * a total width above QMO_SEQ_MAX_CHAR_WIDTH (61).
 * ---------------------------------------------------------------------- */

/** Two operands of the member's type: qmo_seq_<family>_<t>(result, left, right). */
#define QMO_SEQ_DECLARE_BINARY_(family, t, ctype, code)                                           \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left, \
                                           qmo_seq_iterator_t *right);                           \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_BINARY TYPED
#define QMO_SEQ_MERGE_BINARY NONE

/* and, or, xor and not are operator spellings in C++, so their names are not pasted. */
#define QMO_SEQ_SINGLE_logic                                                                    \
    QMO_SEQ_API int qmo_seq_and(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,           \
                                qmo_seq_iterator_t *right);                                     \
    QMO_SEQ_API int qmo_seq_and_qmo_seq_bool_next(qmo_seq_iterator_t *it);                      \
    QMO_SEQ_API int qmo_seq_or(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,            \
                               qmo_seq_iterator_t *right);                                      \
    QMO_SEQ_API int qmo_seq_or_qmo_seq_bool_next(qmo_seq_iterator_t *it);                       \
    QMO_SEQ_API int qmo_seq_xor(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,           \
                                qmo_seq_iterator_t *right);                                     \
    QMO_SEQ_API int qmo_seq_xor_qmo_seq_bool_next(qmo_seq_iterator_t *it);                      \
    QMO_SEQ_API int qmo_seq_not(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input);         \
    QMO_SEQ_API int qmo_seq_not_qmo_seq_bool_next(qmo_seq_iterator_t *it);

#define QMO_SEQ_ARITHMETIC_FAMILIES(X)                                                             \
    X(add, BINARY, QMO_SEQ_ADD_TYPES, 0, "61 701", "left + right; integers wrap, char concatenates") \
    X(sub, BINARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "left - right")                             \
    X(mul, BINARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "left * right")                             \
    X(div, BINARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "left / right (integer division by zero is not guarded)") \
    X(mod, BINARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "remainder of left / right")                \
    X(max, BINARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "the larger of left and right")             \
    X(min, BINARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "the smaller of left and right")            \
    X(abs, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "absolute value (datetime copied)")          \
    X(neg, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "negation (unsigned copied, datetime modulo 2^64)")
QMO_SEQ_ARITHMETIC_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

#define QMO_SEQ_COMPARISON_FAMILIES(X)                                                      \
    X(eq, BINARY, QMO_SEQ_ALL_TYPES, 0, "61 701", "left == right, a uint1 sequence")       \
    X(ne, BINARY, QMO_SEQ_ALL_TYPES, 0, "61 701", "left != right, a uint1 sequence")       \
    X(lt, BINARY, QMO_SEQ_ALL_TYPES, 0, "61 701", "left < right, a uint1 sequence")        \
    X(gt, BINARY, QMO_SEQ_ALL_TYPES, 0, "61 701", "left > right, a uint1 sequence")        \
    X(le, BINARY, QMO_SEQ_ALL_TYPES, 0, "61 701", "left <= right, a uint1 sequence")       \
    X(ge, BINARY, QMO_SEQ_ALL_TYPES, 0, "61 701", "left >= right, a uint1 sequence")       \
    X(logic, SINGLE, QMO_SEQ_UNTYPED, 0, "61 701", "and, or, xor and not over uint1 sequences")
QMO_SEQ_COMPARISON_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Conditionals and callbacks. A condition is a uint1 sequence; an element is
 * true when its byte is non-zero and its null bit clear (a null condition is
 * false everywhere).
 *
 *   qmo_seq_if_<t>(result, cond, then, else)     lazy: each branch is read as a
 *       compact sequence of its own (the k-th true condition takes the k-th
 *       then-element); a branch that ends while needed ends the result
 *   qmo_seq_iif_<t>(result, cond, then, else)    positional: all three advance
 *       together, the branch not chosen is consumed and dropped
 *   qmo_seq_func_<t>(result, arg, f), qmo_seq_func_ctx_<t>(result, arg, f, ctx)
 *   qmo_seq_cond_<t>(result, arg, f), qmo_seq_cond_ctx_<t>(result, arg, f, ctx)   -> uint1
 *   qmo_seq_func2_<t>(result, left, right, f), qmo_seq_func2_ctx_<t>(..., f, ctx)
 *
 * Callbacks run once per element, also for elements under null bits (with
 * whatever value the slot holds); their own results are not statuses. The
 * context pointer is passed through untouched. Char members hand over
 * pointers and the width; char branches and char operands of func2 must have
 * equal widths (61).
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_DECLARE_CALLBACK_TYPES_(a, t, ctype, code)                                  \
    typedef ctype (*qmo_seq_func_##t##_fn)(ctype value);                                   \
    typedef ctype (*qmo_seq_func_ctx_##t##_fn)(ctype value, void *ctx);                    \
    typedef uint8_t (*qmo_seq_cond_##t##_fn)(ctype value);                                 \
    typedef uint8_t (*qmo_seq_cond_ctx_##t##_fn)(ctype value, void *ctx);                  \
    typedef ctype (*qmo_seq_func2_##t##_fn)(ctype left, ctype right);                      \
    typedef ctype (*qmo_seq_func2_ctx_##t##_fn)(ctype left, ctype right, void *ctx);
QMO_SEQ_NUMERIC_TYPES(QMO_SEQ_DECLARE_CALLBACK_TYPES_, )
typedef void (*qmo_seq_func_char_fn)(char *out, const char *value, size_t width);
typedef void (*qmo_seq_func_ctx_char_fn)(char *out, const char *value, size_t width, void *ctx);
typedef uint8_t (*qmo_seq_cond_char_fn)(const char *value, size_t width);
typedef uint8_t (*qmo_seq_cond_ctx_char_fn)(const char *value, size_t width, void *ctx);
typedef void (*qmo_seq_func2_char_fn)(char *out, const char *left, const char *right, size_t width);
typedef void (*qmo_seq_func2_ctx_char_fn)(char *out, const char *left, const char *right, size_t width,
                                          void *ctx);

/** (result, cond, then, else): the branches' type is the member's. */
#define QMO_SEQ_DECLARE_SELECT_(family, t, ctype, code)                                              \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond,   \
                                           qmo_seq_iterator_t *then_branch,                         \
                                           qmo_seq_iterator_t *else_branch);                        \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_SELECT TYPED
#define QMO_SEQ_MERGE_SELECT NONE
/** (result, arg, f) and (result, arg, f, ctx), f of type qmo_seq_<family>_<t>_fn. */
#define QMO_SEQ_DECLARE_CALLBACK_(family, t, ctype, code)                                          \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *arg,   \
                                           qmo_seq_##family##_##t##_fn f);                        \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_CALLBACK TYPED
#define QMO_SEQ_MERGE_CALLBACK NONE
#define QMO_SEQ_DECLARE_CALLBACK_CTX_(family, t, ctype, code)                                      \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *arg,   \
                                           qmo_seq_##family##_##t##_fn f, void *ctx);             \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_CALLBACK_CTX TYPED
#define QMO_SEQ_MERGE_CALLBACK_CTX NONE
/** (result, left, right, f) and (result, left, right, f, ctx). */
#define QMO_SEQ_DECLARE_CALLBACK2_(family, t, ctype, code)                                          \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,   \
                                           qmo_seq_iterator_t *right, qmo_seq_##family##_##t##_fn f); \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_CALLBACK2 TYPED
#define QMO_SEQ_MERGE_CALLBACK2 NONE
#define QMO_SEQ_DECLARE_CALLBACK2_CTX_(family, t, ctype, code)                                      \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left,   \
                                           qmo_seq_iterator_t *right, qmo_seq_##family##_##t##_fn f, \
                                           void *ctx);                                             \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_CALLBACK2_CTX TYPED
#define QMO_SEQ_MERGE_CALLBACK2_CTX NONE
#define QMO_SEQ_SINGLE_if_reset                                                                   \
    /** Resets both branches (the first error is returned), then the condition and the cursors. */ \
    QMO_SEQ_API int qmo_seq_if_reset(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_iif_reset                                                                  \
    /** Resets both branches (the first error is returned), then the condition. */                \
    QMO_SEQ_API int qmo_seq_iif_reset(qmo_seq_iterator_t *it);

#define QMO_SEQ_CONDITIONAL_FAMILIES(X)                                                               \
    X(if, SELECT, QMO_SEQ_ALL_TYPES, 0, "61 701", "lazy selection: the branches are read as compact sequences") \
    X(iif, SELECT, QMO_SEQ_ALL_TYPES, 0, "61 701", "positional selection: all three advance in step") \
    X(func, CALLBACK, QMO_SEQ_ALL_TYPES, 0, "61 701", "a caller's function of each element")        \
    X(func_ctx, CALLBACK_CTX, QMO_SEQ_ALL_TYPES, 0, "61 701", "a caller's function of each element and a context") \
    X(cond, CALLBACK, QMO_SEQ_ALL_TYPES, 0, "61 701", "a caller's condition on each element, a uint1 sequence") \
    X(cond_ctx, CALLBACK_CTX, QMO_SEQ_ALL_TYPES, 0, "61 701", "a caller's condition with a context, a uint1 sequence") \
    X(func2, CALLBACK2, QMO_SEQ_ALL_TYPES, 0, "61 701", "a caller's function of two elements")      \
    X(func2_ctx, CALLBACK2_CTX, QMO_SEQ_ALL_TYPES, 0, "61 701", "a caller's function of two elements and a context") \
    X(if_reset, SINGLE, QMO_SEQ_UNTYPED, 0, "branches' reset statuses", "reset of if")             \
    X(iif_reset, SINGLE, QMO_SEQ_UNTYPED, 0, "branches' reset statuses", "reset of iif")
QMO_SEQ_CONDITIONAL_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Filters, positions and maps.
 *
 *   qmo_seq_filter_<t>(result, cond, values)    values whose condition holds,
 *       gathered into full tiles; deliberately, null bits of elements gathered
 *       in an earlier pass over an input tile are lost (delivered non-null)
 *   qmo_seq_filter_pos(result, cond)            uint8 positions of true elements
 *   qmo_seq_filter_search(result, cond, source) the same, counted from the
 *       first_pos of source (qmo_seq_get_first_pos); the fields are set even
 *       when the construction fails
 *   qmo_seq_filter_first_pos(result, cond, n)   the first n (at most 128, else
 *       62) positions in one tile; mergeable across partitions; cond is not
 *       marked bound
 *   qmo_seq_map_<t>(result, values, positions)  values at uint8 positions (any
 *       order; the values are rewound when a position lies behind them); a
 *       null position gives 703; the result has no nulls, deliberately
 * ---------------------------------------------------------------------- */

/** (result, cond, values): the values' type is the member's. */
#define QMO_SEQ_DECLARE_FILTER_(family, t, ctype, code)                                            \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond,  \
                                           qmo_seq_iterator_t *values);                           \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_FILTER TYPED
#define QMO_SEQ_MERGE_FILTER NONE
/** (result, values, positions): values of the member's type gathered at uint8 positions. */
#define QMO_SEQ_DECLARE_GATHER_(family, t, ctype, code)                                             \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *values, \
                                           qmo_seq_iterator_t *positions);                         \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_GATHER TYPED
#define QMO_SEQ_MERGE_GATHER NONE
#define QMO_SEQ_SINGLE_filter_reset                                                             \
    /** Zeroes both cursors, clears the record's own bound flag, then the binary reset. */      \
    QMO_SEQ_API int qmo_seq_filter_reset(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_filter_pos                                                               \
    QMO_SEQ_API int qmo_seq_filter_pos(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond);   \
    QMO_SEQ_API int qmo_seq_filter_pos_next(qmo_seq_iterator_t *it);                            \
    QMO_SEQ_API int qmo_seq_filter_search(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond, \
                                          qmo_seq_iterator_t *source);                          \
    /** Cursor 0, position counter back to the base, then the unary reset. */                   \
    QMO_SEQ_API int qmo_seq_filter_pos_reset(qmo_seq_iterator_t *it);                           \
    /** The largest first_pos of it and, recursively, of its operands. */                       \
    QMO_SEQ_API uint64_t qmo_seq_get_first_pos(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_filter_first_pos                                                         \
    QMO_SEQ_API int qmo_seq_filter_first_pos(qmo_seq_iterator_t *result, qmo_seq_iterator_t *cond, \
                                             uint64_t n);                                       \
    QMO_SEQ_API int qmo_seq_filter_first_pos_next(qmo_seq_iterator_t *it);                      \
    /** Inserts other's ascending block whole into result's at its place, keeping at most n. */ \
    QMO_SEQ_API int qmo_seq_filter_first_pos_merge(qmo_seq_iterator_t *result, qmo_seq_iterator_t *other);

#define QMO_SEQ_FILTER_FAMILIES(X)                                                                  \
    X(filter, FILTER, QMO_SEQ_ALL_TYPES, 0, "61 701", "the values whose condition holds")          \
    X(filter_reset, SINGLE, QMO_SEQ_UNTYPED, 0, "operands' reset statuses", "reset of filter")     \
    X(filter_pos, SINGLE, QMO_SEQ_UNTYPED, 0, "61 701", "positions of the true conditions (filter_search: from a source's first position)") \
    X(filter_first_pos, MERGED_SINGLE, QMO_SEQ_UNTYPED, QMO_SEQ_PARTIAL_FILTER_FIRST_POS, "61 701 62", "the first n positions whose condition holds, mergeable") \
    X(map, GATHER, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 703", "values gathered at positions")
QMO_SEQ_FILTER_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Reshaping: operators that change the length or order of one sequence
 * without computing new values, for every numeric type t. Each delivers its
 * input's type (else 61) and binds the input (701 when bindings are checked
 * and it is bound already). Input errors pass through unchanged; an input
 * that ends mid-tile gives the partial tile with 0 and 11 on the next call.
 *
 *   qmo_seq_thin_<t>(result, input, origin, step)
 *       input elements origin, origin + step, origin + 2 step, ...; skipped
 *       tiles are pulled and dropped, never rewound. Step 0 repeats the
 *       element at origin without end.
 *   qmo_seq_repeat_<t>(result, input, n)
 *       each element n times, null bits included (n = 0: empty). Reset with
 *       qmo_seq_reset_repeat_iterator (state word 2 is the cursor).
 *   qmo_seq_reverse_<t>(result, input)
 *       the whole input, last element first, null bits kept. An input of
 *       one tile comes back as one mirrored tile, taking no memory. A longer
 *       one is read three times (its first tile, a count, a copy) into a
 *       buffer taken with qmo_seq_alloc_buffer and a bitmap taken through
 *       qmo_seq_malloc (52 if either is refused; nothing is kept then), and
 *       the record becomes an array source over them (next
 *       qmo_seq_unget_nullable_<t>_next, reset qmo_seq_reverse_<t>_reset,
 *       state word 1 the bitmap, last_pos the count - 1). The count is that
 *       of qmo_seq_agg_count, which stops quietly at an input error; an
 *       input that delivers fewer elements on the copy than on the count
 *       gives 702.
 *   qmo_seq_reverse_<t>_reset(it)
 *       frees the copy, restores next and the unary reset, then resets the
 *       input and the record: the next pull reads the input afresh.
 *   qmo_seq_unique_<t>(result, input)
 *       runs of equal consecutive elements collapsed to their first; null
 *       elements are dropped and do not break a run (7, 7, null, 7, 8 gives
 *       7, 8); floating values compare with == (NaNs are all kept, -0.0 and
 *       0.0 are one run). The result has no nulls. Its position counts
 *       elements; state word 1 is the input cursor, word 2 the last value.
 * ---------------------------------------------------------------------- */

/** (result, input, origin, step). */
#define QMO_SEQ_DECLARE_THIN_(family, t, ctype, code)                                              \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, \
                                           uint64_t origin, uint64_t step);                       \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_THIN TYPED
#define QMO_SEQ_MERGE_THIN NONE
/** (result, input, n): one count (a repetition, an interval, a window, a limit). */
#define QMO_SEQ_DECLARE_COUNTED_(family, t, ctype, code)                                           \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, \
                                           uint64_t n);                                           \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_COUNTED TYPED
#define QMO_SEQ_MERGE_COUNTED NONE
/** A unary member with a reset of its own, qmo_seq_<family>_<t>_reset. */
#define QMO_SEQ_DECLARE_UNARY_RESET_(family, t, ctype, code) \
    QMO_SEQ_DECLARE_UNARY_(family, t, ctype, code)           \
    QMO_SEQ_API int qmo_seq_##family##_##t##_reset(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_UNARY_RESET TYPED
#define QMO_SEQ_MERGE_UNARY_RESET NONE

#define QMO_SEQ_RESHAPE_FAMILIES(X)                                                                 \
    X(thin, THIN, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "every step-th element from origin")      \
    X(repeat, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "each element n times")                 \
    X(reverse, UNARY_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 52", "the whole sequence backwards (materialised)") \
    X(unique, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "runs of equal elements kept once")
QMO_SEQ_RESHAPE_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Series analytics, for every numeric type t; one operand each, of type t
 * (else 61). Next functions are qmo_seq_<op>_<t>_next.
 *
 *   qmo_seq_diff_<t>(result, input)            t: x[i] - x[i-1], integers
 *       wrapping; the first element gives 0
 *   qmo_seq_trend_<t>(result, input)           int1: 1 where the series
 *       rises, -1 where it falls; an unchanged element repeats the last
 *       direction (0 before the first movement)
 *   qmo_seq_cross_<t>(result, input, kind)     uint8 positions where the
 *       sign changes between positive and negative; a change through zeros
 *       is reported where the zeros began. kind 1: upward, -1: downward,
 *       0: both. The uint1..uint8 members return 57 (datetime is accepted).
 *       Deliberately, a run of zeros after which the series keeps its sign
 *       still counts at the next change: that change is reported as many
 *       positions earlier as the run was long
 *   qmo_seq_extrema_<t>(result, input, kind)   uint8 positions of turning
 *       points, a plateau reported at its last element. kind 1: maxima,
 *       -1: minima, 0: both
 *   qmo_seq_norm_<t>(result, input)            double: x / sqrt(sum of x * x)
 *       over the whole input, which is read once to its end and reset
 *       before the results are pulled; nulls keep their place. Deliberately,
 *       the sum skips elements by the result's own null bitmap as it stands
 *       (clear after construction; after a reset, that of the last tile
 *       delivered), not by the input's
 *   qmo_seq_histogram_<t>(result, input, low, high, bins)
 *       uint8: one tile of bins counts (1..128, else 62; high must exceed
 *       low, else 62, checked after the type and before the binding);
 *       element x counts in bin floor((x - low) * bins / (high - low)), in
 *       64-bit integers or, for float and double, in double; nulls are
 *       skipped. An element outside [low, high) (NaN included) ends the
 *       pull with 62 and nothing is delivered. An input error other than
 *       11 is returned with the counts in the tile. last_pos is bins - 1
 *
 * diff, trend, cross and extrema refuse null elements with 703. cross and
 * extrema gather positions into full tiles; the tile in which the input
 * ends is delivered with 0 and the following call returns 11; an error
 * drops what was gathered. Deliberately, their kind filter applies only to
 * the first tile they deliver: every later change or turn is reported,
 * whatever the kind.
 *
 * Resets: diff, trend, norm and histogram use the unary reset;
 * qmo_seq_cross_reset_iterator clears the sign, zero run, end flag and
 * cursor, and qmo_seq_extrema_<t>_reset_iterator the cursor, end flag and
 * direction, before the unary reset.
 * ---------------------------------------------------------------------- */

/** (result, input, kind). */
#define QMO_SEQ_DECLARE_KIND_(family, t, ctype, code)                                              \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, \
                                           int32_t kind);                                         \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_KIND TYPED
#define QMO_SEQ_MERGE_KIND NONE
/** As KIND, with a reset of its own, qmo_seq_<family>_<t>_reset_iterator. */
#define QMO_SEQ_DECLARE_KIND_RESET_(family, t, ctype, code) \
    QMO_SEQ_DECLARE_KIND_(family, t, ctype, code)           \
    QMO_SEQ_API int qmo_seq_##family##_##t##_reset_iterator(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_KIND_RESET TYPED
#define QMO_SEQ_MERGE_KIND_RESET NONE
/** (result, input, low, high, bins). */
#define QMO_SEQ_DECLARE_HISTOGRAM_(family, t, ctype, code)                                         \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, \
                                           ctype low, ctype high, int64_t bins);                  \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_HISTOGRAM TYPED
#define QMO_SEQ_MERGE_HISTOGRAM NONE
#define QMO_SEQ_SINGLE_cross_reset                                                                        \
    /** Reset of qmo_seq_cross_<t>: sign, zero run, end flag and cursor cleared, then the unary reset. */ \
    QMO_SEQ_API int qmo_seq_cross_reset_iterator(qmo_seq_iterator_t *it);

#define QMO_SEQ_ANALYTICS_FAMILIES(X)                                                                 \
    X(diff, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 703", "x[i] - x[i-1], the first 0")                  \
    X(trend, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 703", "int1 direction of each move (1 up, -1 down, kept while flat)")         \
    X(norm, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "x / sqrt(sum of x * x) over the whole input")     \
    X(cross, KIND, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 57 703", "uint8 positions where the sign changes")     \
    X(extrema, KIND_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 703", "uint8 positions of turning points")          \
    X(histogram, HISTOGRAM, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "uint8 counts of elements per bin, one tile")     \
    X(cross_reset, SINGLE, QMO_SEQ_UNTYPED, 0, "operand's reset status", "reset of cross")
QMO_SEQ_ANALYTICS_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Scalar aggregates. Each folds its whole operand into one element (two for
 * min_max) and keeps its partial result in its own record, so that a sequence
 * split into partitions can be folded per partition and the partial results
 * combined:
 *
 *   prepare(p) on every partition's record      (qmo_seq_prepare_aggregate)
 *   merge(p0, pi) for every other partition     (qmo_seq_<family>_<t>_merge)
 *   next(p0)                                    the combined result; then 11
 *
 * Unprepared, the first next consumes the operand and delivers the result;
 * every later next returns 11. Nulls are skipped. An operand without a
 * non-null element gives an empty sequence (11 at once), except for the
 * counts and the approximate distinct counts, which give 0. Operand errors
 * pass through and deliver nothing (the counts deliver what they counted).
 * A merge ignores a partial result that counted nothing, and a merge into
 * one makes the merged result its own, ready to be handed out.
 *
 *   qmo_seq_agg_<f>_<t>(result, input), _next, _merge   every numeric type t
 *     sum prd   int1..int8 -> int8, uint1..uint8 -> uint8 (64-bit, wrapping),
 *               float, double -> double, datetime -> datetime
 *     min max   the input type
 *     avg       double; datetime -> datetime (truncating integer mean)
 *     var var_samp dev dev_samp -> double, from sums of x and x squared:
 *               var = (s2 - s1 * s1 / n) / n; var_samp = (s2 - s1 * s1 / (n - 1))
 *               / (n - 1), deliberately with n - 1 in both places (1, 2, 3 gives
 *               -2), and 0 for one element; dev and dev_samp are their roots
 *   qmo_seq_agg_min_max_<t>(result, input), _next: two elements, min then
 *     max, in the input type (datetime: as doubles); not mergeable
 *   qmo_seq_<f>_<t>(result, x, y), _next, _merge: pairs advanced in step, a
 *     pair counted when neither element is null; results double
 *     cov   (sxy - sy * sx / n) / n
 *     corr  (sxy - sy * sx / n) / sqrt((syy - sy * sy / n) * (sxx - sx * sx / n))
 *     wsum  sum of x * y, multiplied in double
 *     wavg  sum of x * y / sum of x: x is the weight; products are formed
 *           in the element type's arithmetic before conversion: integers in
 *           32 bits for 1- to 4-byte types, 64 for 8-byte types, wrapping;
 *           floats as float products
 *
 * The first element of the operand's first tile seeds the accumulators even
 * when it is null; the seed is dropped at the first counted element unless the
 * whole first tile is null and a later tile has none.
 *
 * State (record state words, one-operand families): word 1 the accumulator
 * (sum or product in the result type, min or max in the input type, avg's sum
 * as double or, for datetime, as uint64), word 2 the sum of squares (double),
 * word 3 the count of non-null elements. Pairs: words 1-5 the doubles sx, sy,
 * sxx, sxy, syy (unused ones 0), word 6 the count of pairs.
 * ---------------------------------------------------------------------- */

/** A unary member with a merge, qmo_seq_<family>_<t>_merge(into, from). */
#define QMO_SEQ_DECLARE_AGGREGATE_(family, t, ctype, code) \
    QMO_SEQ_DECLARE_UNARY_(family, t, ctype, code)         \
    QMO_SEQ_API int qmo_seq_##family##_##t##_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from);
#define QMO_SEQ_KIND_AGGREGATE TYPED
#define QMO_SEQ_MERGE_AGGREGATE FOLD
/** A binary member (x, y) with a merge. */
#define QMO_SEQ_DECLARE_PAIR_AGGREGATE_(family, t, ctype, code) \
    QMO_SEQ_DECLARE_BINARY_(family, t, ctype, code)             \
    QMO_SEQ_API int qmo_seq_##family##_##t##_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from);
#define QMO_SEQ_KIND_PAIR_AGGREGATE TYPED
#define QMO_SEQ_MERGE_PAIR_AGGREGATE PAIR_FOLD

/**
 * Counts, of any element type, delivered as one uint8 element (0 for an empty
 * operand). The operand is neither type-checked nor bound. An operand that is
 * an array source (reset qmo_seq_unget_reset) is counted from its length
 * without being pulled (count_not_null subtracts the nulls of its bitmap); a
 * hash aggregate output (reset qmo_seq_hash_agg_reset) is pulled once and
 * gives its table's number of groups. Over either, the count is not mergeable
 * (prepare and merge stay null). Otherwise the operand is pulled to its first
 * non-zero status, whatever it is, and the elements (non-null ones for
 * count_not_null) counted so far are delivered with 0. Merge adds the counts.
 */
#define QMO_SEQ_SINGLE_agg_count                                                                   \
    QMO_SEQ_API int qmo_seq_agg_count(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input);      \
    QMO_SEQ_API int qmo_seq_count_next(qmo_seq_iterator_t *it);                                    \
    /** Adds the counts (of agg_count and agg_count_not_null alike). */                            \
    QMO_SEQ_API int qmo_seq_count_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from);
#define QMO_SEQ_SINGLE_agg_count_not_null                                                           \
    QMO_SEQ_API int qmo_seq_agg_count_not_null(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input); \
    QMO_SEQ_API int qmo_seq_count_not_null_next(qmo_seq_iterator_t *it);

/** Seed of every key and distinct-count hash (MurmurHash3, x86 32-bit). */
#define QMO_SEQ_HASH_SEED 377307

/**
 * Approximate count of distinct non-null elements, one uint4 element: a
 * HyperLogLog sketch of 128 one-byte registers over the MurmurHash3 (x86,
 * 32-bit, seed QMO_SEQ_HASH_SEED) of each element's bytes; standard error
 * about 9%. Any element type; the operand is bound. The registers are kept in
 * state words 1-16, so partitions merge (register-wise maximum). An all-null
 * or empty operand gives 0; only an operand error gives an empty sequence.
 */
#define QMO_SEQ_SINGLE_agg_approxdc                                                                \
    QMO_SEQ_API int qmo_seq_agg_approxdc(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input);   \
    QMO_SEQ_API int qmo_seq_agg_approxdc_next(qmo_seq_iterator_t *it);                             \
    QMO_SEQ_API int qmo_seq_agg_approxdc_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from);
#define QMO_SEQ_SINGLE_agg_approxdc_hash                                                                  \
    /** As qmo_seq_agg_approxdc over uint4 elements that are already hashes (61 otherwise); not mergeable. */ \
    QMO_SEQ_API int qmo_seq_agg_approxdc_hash(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input);     \
    QMO_SEQ_API int qmo_seq_agg_approxdc_hash_next(qmo_seq_iterator_t *it);

/**
 * Runs the record's own next once (its status is ignored) and sets the
 * prepared flag: the next call of next then hands out the result computed
 * here, after any merges, or 11 when the partition had none. Returns 0.
 */
#define QMO_SEQ_SINGLE_prepare_aggregate \
    QMO_SEQ_API int qmo_seq_prepare_aggregate(qmo_seq_iterator_t *it);

#define QMO_SEQ_SCALAR_FAMILIES(X)                                                                                  \
    X(agg_sum, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_SUM, "61 701", "sum (integers in 64 bits, wrapping)") \
    X(agg_prd, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_PRD, "61 701", "product")                     \
    X(agg_min, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_MIN, "61 701", "smallest element")            \
    X(agg_max, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_MAX, "61 701", "largest element")             \
    X(agg_avg, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_AVG, "61 701", "mean (datetime: integer mean)") \
    X(agg_var, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_VAR, "61 701", "population variance")         \
    X(agg_var_samp, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_VAR_SAMP, "61 701", "sample variance, (s2 - s1*s1/(n-1))/(n-1)") \
    X(agg_dev, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_DEV, "61 701", "population standard deviation") \
    X(agg_dev_samp, AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_AGG_DEV_SAMP, "61 701", "square root of agg_var_samp") \
    X(agg_min_max, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "smallest and largest element in one tile of two")  \
    X(agg_count, MERGED_SINGLE, QMO_SEQ_UNTYPED, QMO_SEQ_PARTIAL_AGG_COUNT, "-", "number of elements, one uint8")  \
    X(agg_count_not_null, MERGED_SINGLE, QMO_SEQ_UNTYPED, QMO_SEQ_PARTIAL_AGG_COUNT_NOT_NULL, "-", "number of non-null elements, one uint8") \
    X(agg_approxdc, MERGED_SINGLE, QMO_SEQ_UNTYPED, QMO_SEQ_PARTIAL_AGG_APPROXDC, "701", "approximate distinct count, one uint4") \
    X(agg_approxdc_hash, SINGLE, QMO_SEQ_UNTYPED, 0, "61 701", "approximate distinct count of uint4 hashes")        \
    X(prepare_aggregate, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "folds a partition ahead of merging")
QMO_SEQ_SCALAR_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

#define QMO_SEQ_PAIR_FAMILIES(X)                                                                      \
    X(cov, PAIR_AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_COV, "61 701", "covariance of x and y")          \
    X(corr, PAIR_AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_CORR, "61 701", "correlation of x and y")       \
    X(wsum, PAIR_AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_WSUM, "61 701", "sum of x * y, multiplied in double") \
    X(wavg, PAIR_AGGREGATE, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_WAVG, "61 701", "sum of w * x over sum of w (weights first)")
QMO_SEQ_PAIR_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Partial results as bytes: a prepared record's partial result leaves the
 * process as a byte string and comes back into a record of the same family
 * and element type, whose merge function then combines it with others.
 *
 *   qmo_seq_export_partial(it, bytes, &size)
 *       writes it's partial result to bytes (room: *size on entry) and
 *       stores the number of bytes written in *size. With bytes null, or
 *       room short (then 62), only the size needed is stored.
 *   qmo_seq_import_partial(it, bytes, size)
 *       replaces it's partial result by the one in bytes and marks it
 *       prepared: its next hands the result out once (11 when the
 *       partition had none), and its merge function combines it.
 *   qmo_seq_read_partial_header(bytes, size, &header)
 *       the header alone, to choose the record to import into.
 *
 * The record must be one that holds a mergeable partial result: a scalar
 * aggregate with a merge function, a count, an approximate distinct count,
 * filter_first_pos, or the aggregate output (agg) of a hash aggregate
 * (not the duplicate counts); any other record gives 61. The record is
 * built by the family's constructor as usual; an import leaves its
 * operands alone (a merging side builds it over an empty source).
 *
 * Format, version 2 (version 1 had no checksum and is refused). Integers
 * little-endian; 24 header bytes:
 *   0  u32  QMO_SEQ_PARTIAL_MAGIC ("QSPR")
 *   4  u16  QMO_SEQ_PARTIAL_VERSION
 *   6  u16  family (QMO_SEQ_PARTIAL_FAMILIES below)
 *   8  u8   element type the member is stamped for: the input type of
 *           scalar aggregates, the values' type of hash aggregates;
 *           QMO_SEQ_PARTIAL_ANY_TYPE for families with one member for all
 *   9  u8   hash aggregates: the keys' type; else QMO_SEQ_PARTIAL_ANY_TYPE
 *  10  u16  hash aggregates: the keys' width; else 0
 *  12  u32  CRC-32C (Castagnoli; initial value and final xor all ones) of
 *           every other byte: bytes 0-11, then byte 16 to the end
 *  16  u64  payload bytes that follow (exactly; nothing may trail)
 * Payload by family:
 *   scalar aggregates    the accumulator words then the count, 8 bytes each,
 *                        as the record's state keeps them (one operand:
 *                        3 words, pairs: 6); all 0 when nothing was counted
 *   counts               u64 count
 *   approxdc             the 128 one-byte registers
 *   filter_first_pos     u64 n (the limit), u64 r (at most n), r u64 positions
 *   top_max, top_min     u64 n (the limit), u64 k (at most n), k values of
 *                        the element type, best first
 *   hash aggregates      u64 g, then g groups in the table's bucket order:
 *                        key (key-width bytes), u64 count of values, then the
 *                        8-byte slot (the running max, min or sum in its
 *                        low-order bytes; approxdc: 128 registers)
 *
 * An import checks before it changes anything: a record of no such family
 * 61; fewer bytes than a header or a checksum that disagrees (checked
 * before any other field is read, so every flipped bit, cut or appended
 * byte is refused here), another magic or version, a payload length that
 * disagrees with the size or the family, or a count above the limit 62; another family, element type, key type, key
 * width or limit than the record's 61; a hash aggregate's key present twice
 * 62 (the table is then discarded). A hash import takes memory for its
 * table (52 when refused, nothing changed); it replaces the output's table,
 * and both outputs start again at the first group.
 * ---------------------------------------------------------------------- */

/** First four bytes of a partial result: "QSPR". */
#define QMO_SEQ_PARTIAL_MAGIC 0x52505351u
#define QMO_SEQ_PARTIAL_VERSION 2
#define QMO_SEQ_PARTIAL_HEADER_BYTES 24
/** Element or key type of a family that has one member for every type. */
#define QMO_SEQ_PARTIAL_ANY_TYPE 255

/** Families with partial results: X(family, NAME, code). Codes are part of the format. */
#define QMO_SEQ_PARTIAL_FAMILIES(X)                                                           \
    X(agg_sum, AGG_SUM, 1) X(agg_prd, AGG_PRD, 2) X(agg_min, AGG_MIN, 3) X(agg_max, AGG_MAX, 4) \
    X(agg_avg, AGG_AVG, 5) X(agg_var, AGG_VAR, 6) X(agg_var_samp, AGG_VAR_SAMP, 7)            \
    X(agg_dev, AGG_DEV, 8) X(agg_dev_samp, AGG_DEV_SAMP, 9) X(cov, COV, 10) X(corr, CORR, 11) \
    X(wsum, WSUM, 12) X(wavg, WAVG, 13) X(agg_count, AGG_COUNT, 14)                           \
    X(agg_count_not_null, AGG_COUNT_NOT_NULL, 15) X(agg_approxdc, AGG_APPROXDC, 16)           \
    X(filter_first_pos, FILTER_FIRST_POS, 17) X(top_max, TOP_MAX, 18) X(top_min, TOP_MIN, 19) \
    X(hash_agg_max, HASH_AGG_MAX, 20) X(hash_agg_min, HASH_AGG_MIN, 21)                       \
    X(hash_agg_sum, HASH_AGG_SUM, 22) X(hash_agg_avg, HASH_AGG_AVG, 23)                       \
    X(hash_agg_count, HASH_AGG_COUNT, 24) X(hash_agg_approxdc, HASH_AGG_APPROXDC, 25)

#define QMO_SEQ_PARTIAL_ENUM_(family, NAME, code) QMO_SEQ_PARTIAL_##NAME = code,
/** Family codes of the format: QMO_SEQ_PARTIAL_AGG_SUM, ... */
enum qmo_seq_partial_family { QMO_SEQ_PARTIAL_FAMILIES(QMO_SEQ_PARTIAL_ENUM_) };

/** The header of a partial result, as read by qmo_seq_read_partial_header. */
typedef struct qmo_seq_partial_header {
    uint16_t version;
    uint16_t family;      /* enum qmo_seq_partial_family */
    uint8_t elem_type;    /* or QMO_SEQ_PARTIAL_ANY_TYPE */
    uint8_t key_type;     /* hash aggregates; else QMO_SEQ_PARTIAL_ANY_TYPE */
    uint16_t key_width;   /* hash aggregates; else 0 */
    uint64_t payload_bytes;
} qmo_seq_partial_header_t;

#define QMO_SEQ_SINGLE_partials                                                                        \
    QMO_SEQ_API int qmo_seq_export_partial(const qmo_seq_iterator_t *it, void *bytes, uint64_t *size);  \
    QMO_SEQ_API int qmo_seq_import_partial(qmo_seq_iterator_t *it, const void *bytes, uint64_t size);   \
    /** 0 and the header of a whole partial result (size: all its bytes); 62 for too few bytes, a   \
     *  checksum that disagrees, another magic or version. */                                         \
    QMO_SEQ_API int qmo_seq_read_partial_header(const void *bytes, uint64_t size,                       \
                                                qmo_seq_partial_header_t *header);

#define QMO_SEQ_PARTIAL_RESULT_FAMILIES(X) \
    X(partials, SINGLE, QMO_SEQ_UNTYPED, 0, "52 57 61 62", "a mergeable record's partial result as bytes, and back")
QMO_SEQ_PARTIAL_RESULT_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Carried state (this library's own extension, not one of the operators it
 * implements; a record that never imports one behaves exactly as without).
 * A window or cumulative aggregate's state after some elements leaves the
 * process as bytes and starts another record of the same member, so that a
 * sequence cut into consecutive partitions gives, partition after
 * partition, bit for bit what one record gives over the whole.
 *
 *   qmo_seq_export_state(it, bytes, &size)
 *       the record's state after the elements it has pulled; sizes as for
 *       qmo_seq_export_partial.
 *   qmo_seq_import_state(it, bytes, size)
 *       replaces the record's state: its next pull continues as if it had
 *       already consumed the elements the state has seen (its operand then
 *       supplies the ones after them).
 *
 * Records: qmo_seq_window_agg_<op>_<t> and qmo_seq_cum_agg_<op>_<t>; any
 * other gives 61. Bytes: the partial-result header above (version and
 * checksum included) with a family of QMO_SEQ_CARRY_FAMILIES; payload: u64
 * position word (window: elements seen; cumulative: 1 + elements seen, or
 * 0 before the first pull), then state words as the record keeps them:
 * window: N, the running value, the second running word, then the ring's
 * QMO_SEQ_WINDOW_RING_BYTES; cumulative: the count and two accumulator
 * words. Refused as partial results are (62 for damaged bytes, 61 for
 * another member), 61 for another window length, and 62 for a cumulative
 * state no sequence leaves (more values counted than elements seen, or a
 * position word above 2^62); nothing is changed then.
 * ---------------------------------------------------------------------- */

/** Families with carried state: X(family, NAME, code). Codes are part of the format. */
#define QMO_SEQ_CARRY_FAMILIES(X)                                                                  \
    X(window_agg_sum, WINDOW_AGG_SUM, 101) X(window_agg_avg, WINDOW_AGG_AVG, 102)                  \
    X(window_agg_min, WINDOW_AGG_MIN, 103) X(window_agg_max, WINDOW_AGG_MAX, 104)                  \
    X(window_agg_var, WINDOW_AGG_VAR, 105) X(window_agg_var_samp, WINDOW_AGG_VAR_SAMP, 106)        \
    X(window_agg_dev, WINDOW_AGG_DEV, 107) X(window_agg_dev_samp, WINDOW_AGG_DEV_SAMP, 108)        \
    X(window_agg_ema, WINDOW_AGG_EMA, 109) X(window_agg_atr, WINDOW_AGG_ATR, 110)                  \
    X(cum_agg_sum, CUM_AGG_SUM, 121) X(cum_agg_avg, CUM_AGG_AVG, 122) X(cum_agg_prd, CUM_AGG_PRD, 123) \
    X(cum_agg_min, CUM_AGG_MIN, 124) X(cum_agg_max, CUM_AGG_MAX, 125) X(cum_agg_var, CUM_AGG_VAR, 126) \
    X(cum_agg_var_samp, CUM_AGG_VAR_SAMP, 127) X(cum_agg_dev, CUM_AGG_DEV, 128)                    \
    X(cum_agg_dev_samp, CUM_AGG_DEV_SAMP, 129)

/** Family codes of carried state: QMO_SEQ_CARRY_WINDOW_AGG_SUM, ... */
#define QMO_SEQ_CARRY_ENUM_(family, NAME, code) QMO_SEQ_CARRY_##NAME = code,
enum qmo_seq_carry_family { QMO_SEQ_CARRY_FAMILIES(QMO_SEQ_CARRY_ENUM_) };

#define QMO_SEQ_SINGLE_carried_state                                                                 \
    QMO_SEQ_API int qmo_seq_export_state(const qmo_seq_iterator_t *it, void *bytes, uint64_t *size);  \
    QMO_SEQ_API int qmo_seq_import_state(qmo_seq_iterator_t *it, const void *bytes, uint64_t size);

#define QMO_SEQ_CARRIED_STATE_FAMILIES(X) \
    X(carried_state, SINGLE, QMO_SEQ_UNTYPED, 0, "61 62", "a window or cumulative aggregate's state as bytes, and a record started from it (our extension)")
QMO_SEQ_CARRIED_STATE_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)


/* ------------------------------------------------------------------------
 * Grid, window and cumulative aggregates: a sequence of results, one per
 * interval of the operand (grid) or one per element (window, cumulative).
 * Each takes an operand of its own type t (61 otherwise) and binds it; none
 * is mergeable (prepare and merge are null).
 *
 *   qmo_seq_grid_agg_<op>_<t>(result, input, interval), _next
 *     one element per `interval` consecutive input elements (1 or more,
 *     else 62), nulls skipped; an interval of only nulls gives a null
 *     element; the last, shorter interval is always delivered. An operand
 *     error is returned as it is: the open interval is kept, the intervals
 *     that call completed are not delivered. Reset with
 *     qmo_seq_reset_unary_agg_iterator (drops the open interval).
 *     sum       int1..int8 -> int8, uint1..uint8 -> uint8 (wrapping),
 *               float, double -> double, datetime -> datetime
 *     avg       -> double (datetime: truncating integer mean)
 *     min max   -> t
 *     var       -> double (datetime -> datetime), (s2 - s1 * s1 / n) / n
 *     var_samp  -> double, (s2 - s1 * s1 / (n - 1)) / (n - 1), 0 for n = 1
 *     dev dev_samp -> double, their roots
 *
 *   qmo_seq_window_agg_<op>_<t>(result, input, window), _next, _reset
 *     for every input element, the aggregate of the last N = window
 *     elements, kept in a ring of 208 bytes: N is 1..208 / sizeof(t) (208
 *     for 1-byte types, 104, 52, 26 for 8-byte types), else 62 - and the
 *     input is bound even then. A tile holding a null gives 703 and is not
 *     taken into the window. Deliberately, the ring starts as N zeros: the
 *     first N - 1 outputs aggregate the elements so far with zeros for the
 *     missing ones, avg and var divide by N (var_samp by N - 1) from the
 *     start, and max and min rescan the ring, zeros included, only when the
 *     element leaving it was the extreme (max of -5, -6, -7, -8 over 3 is
 *     0, 0, -5, -6). The own reset clears the ring and the running values.
 *     sum       as the grid sum; a running sum, minus the leaving element, plus the new one
 *     avg       sum / N -> double, the running sum a double (datetime: an
 *               integer sum, truncating integer quotient)
 *     var       -> double (datetime -> datetime); var_samp dev dev_samp -> double
 *     min max   -> t
 *     ema       -> double; the first element, then (1 - a) * e + a * x, a = 2 / (N + 1)
 *     atr       -> double; r = (r * (m - 1) + x) / m, m = min(N, elements so far)
 *
 *   qmo_seq_cum_agg_<op>_<t>(result, input), _next
 *     for every input element, the aggregate of all non-null elements up to
 *     it; a null element repeats the running result (the variances: their
 *     running sum), or is null while nothing has been seen. The position starts at 1 and
 *     grows by one per input element. Reset with qmo_seq_reset_unary_iterator.
 *     sum       int1..int8 -> int8, uint1..uint8 -> uint8 (wrapping),
 *               float, double, datetime -> double
 *     prd       as sum, but datetime -> datetime
 *     min max   -> t
 *     avg       -> double; deliberately weighted by the position: the
 *               element at index j (from 0, nulls counted) gives
 *               e = (e * (j + 1) + x) / (j + 2), so 1, 2 gives 1, 4/3
 *     var var_samp dev dev_samp
 *               int1..int8 -> int8, uint1..uint8 -> uint8, float, double
 *               -> double, datetime -> datetime. Deliberately, with d = j + 2:
 *               var = (s2 - s1 * s1 / d) / d, var_samp divides by d - 1 in
 *               both places, dev and dev_samp take the root; the first value
 *               gives 0. For integers s1 and s2 are 64-bit sums of the values
 *               and of their squares formed in the element's own width
 *               (wrapping), s1 * s1 / d is an integer quotient, the rest is
 *               double and the result is truncated. After the first value a
 *               null element gives s1, not a variance.
 * ---------------------------------------------------------------------- */

/** Bytes of a window aggregate's ring: the largest window is this over the element size. */
#define QMO_SEQ_WINDOW_RING_BYTES 208

/** As COUNTED, with a reset of its own, qmo_seq_<family>_<t>_reset. */
#define QMO_SEQ_DECLARE_COUNTED_RESET_(family, t, ctype, code) \
    QMO_SEQ_DECLARE_COUNTED_(family, t, ctype, code)           \
    QMO_SEQ_API int qmo_seq_##family##_##t##_reset(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_COUNTED_RESET TYPED
#define QMO_SEQ_MERGE_COUNTED_RESET NONE

#define QMO_SEQ_GRID_FAMILIES(X)                                                                        \
    X(grid_agg_sum, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "sum per interval of n elements")   \
    X(grid_agg_avg, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "mean per interval")                \
    X(grid_agg_min, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "smallest element per interval")    \
    X(grid_agg_max, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "largest element per interval")     \
    X(grid_agg_var, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "population variance per interval") \
    X(grid_agg_var_samp, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "sample variance per interval") \
    X(grid_agg_dev, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "standard deviation per interval")  \
    X(grid_agg_dev_samp, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "sample deviation per interval")
QMO_SEQ_GRID_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

#define QMO_SEQ_WINDOW_FAMILIES(X)                                                                             \
    X(window_agg_sum, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "moving sum over the last n")  \
    X(window_agg_avg, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "moving mean (divided by n from the start)") \
    X(window_agg_min, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "moving minimum (unfilled slots hold 0)") \
    X(window_agg_max, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "moving maximum (unfilled slots hold 0)") \
    X(window_agg_var, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "moving population variance") \
    X(window_agg_var_samp, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "moving sample variance") \
    X(window_agg_dev, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "moving standard deviation") \
    X(window_agg_dev_samp, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "moving sample deviation") \
    X(window_agg_ema, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "exponential moving average, a = 2 / (n + 1)") \
    X(window_agg_atr, COUNTED_RESET, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "Wilder's smoothing over n")
QMO_SEQ_WINDOW_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

#define QMO_SEQ_CUMULATIVE_FAMILIES(X)                                                            \
    X(cum_agg_sum, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running sum")                     \
    X(cum_agg_avg, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running mean, weighted by position") \
    X(cum_agg_prd, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running product")                 \
    X(cum_agg_min, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running minimum")                 \
    X(cum_agg_max, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running maximum")                 \
    X(cum_agg_var, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running population variance")     \
    X(cum_agg_var_samp, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running sample variance")    \
    X(cum_agg_dev, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running standard deviation")      \
    X(cum_agg_dev_samp, UNARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701", "running sample deviation")
QMO_SEQ_CUMULATIVE_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Group aggregates over runs of equal keys. A group is a run of adjacent
 * equal keys: keys 1,1,2,2,2,1 form three groups, the two runs of key 1
 * staying apart (unordered keys are the hash aggregates' business). One
 * result element per run, in run order; a run may span any number of tiles.
 *
 *   qmo_seq_group_agg_<op>_<t>(result, values, keys), _next   every numeric t
 *     sum       int1..int8 -> int8, uint1..uint8 -> uint8 (64-bit, wrapping),
 *               float, double -> double, datetime -> datetime
 *     avg       -> double (sum in double); datetime -> datetime (truncating
 *               integer mean)
 *     min max first last  -> t: the smallest, largest, first and last non-null
 *               value of the run
 *     var var_samp dev dev_samp -> double, from sums of x and x squared, with
 *               the scalar aggregates' formulas (var_samp divides by n - 1 in
 *               both places, and is 0 for one value)
 *   qmo_seq_group_agg_wavg_<t>(result, weights, values, keys), _next -> double:
 *     sum of weight * value (multiplied and summed in double) over sum of
 *     weight (a 64-bit integer for integer t), over the positions where neither
 *     is null
 *   qmo_seq_group_agg_count(result, keys), _next -> uint8: the run's length
 *   qmo_seq_group_agg_approxdc(result, values, keys), _next -> uint4: distinct
 *     non-null values of the run, by the sketch of qmo_seq_agg_approxdc (values
 *     of any type); qmo_seq_group_agg_approxdc_hash takes values that are
 *     uint4 hashes already (61 otherwise)
 *
 * Keys may be of any type and width and are compared as integers of their
 * width (bytes for char keys), so float keys compare by bits. Only the values
 * are type-checked (61). Every operand is checked (701) and bound, except
 * that the approximate distinct counts check and bind the values only.
 *
 * Deliberately: a run is emitted only when the next run starts or the keys
 * end, so a tile's last run always arrives in a later pull (129 runs of one
 * key each give 128 results, then 1, then 11); a run whose values are all
 * null yields a null element, not a gap (count never does). A null key is
 * 703. Keys are pulled before values, and a values tile of another length
 * than its key tile is 702; values that outlast the keys are never read.
 * After an error the caller resets the tree. Nothing is allocated, and the
 * records are not partitioned (prepare and merge stay null).
 *
 * State words: 2 values folded into the open run, 3 the run's length (0: no
 * run open), 4 the read position in the key tile - the three the aggregate
 * resets clear, so a reset leaves no run open; 5-20 the accumulators, 21-24
 * the last key read, 25-26 where the key tile's runs start. Reset:
 * qmo_seq_reset_binary_agg_iterator; count uses the unary and wavg the
 * ternary form, so that exactly the member's operands are rewound.
 * ---------------------------------------------------------------------- */

/** (result, values, keys): one result per run of equal keys. */
#define QMO_SEQ_DECLARE_GROUP_(family, t, ctype, code)                                              \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *values, \
                                           qmo_seq_iterator_t *keys);                              \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_GROUP TYPED
#define QMO_SEQ_MERGE_GROUP NONE
/** (result, weights, values, keys). */
#define QMO_SEQ_DECLARE_WEIGHTED_GROUP_(family, t, ctype, code)                                      \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *weights, \
                                           qmo_seq_iterator_t *values, qmo_seq_iterator_t *keys);   \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_WEIGHTED_GROUP TYPED
#define QMO_SEQ_MERGE_WEIGHTED_GROUP NONE
#define QMO_SEQ_SINGLE_group_agg_count                                                             \
    QMO_SEQ_API int qmo_seq_group_agg_count(qmo_seq_iterator_t *result, qmo_seq_iterator_t *keys); \
    QMO_SEQ_API int qmo_seq_group_agg_count_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_group_agg_approxdc                                                          \
    QMO_SEQ_API int qmo_seq_group_agg_approxdc(qmo_seq_iterator_t *result, qmo_seq_iterator_t *values, \
                                               qmo_seq_iterator_t *keys);                          \
    QMO_SEQ_API int qmo_seq_group_agg_approxdc_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_group_agg_approxdc_hash                                                     \
    QMO_SEQ_API int qmo_seq_group_agg_approxdc_hash(qmo_seq_iterator_t *result, qmo_seq_iterator_t *values, \
                                                    qmo_seq_iterator_t *keys);                     \
    QMO_SEQ_API int qmo_seq_group_agg_approxdc_hash_next(qmo_seq_iterator_t *it);

#define QMO_SEQ_RUN_FAMILIES(X)                                                                          \
    X(group_agg_sum, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "sum per run of equal keys")    \
    X(group_agg_avg, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "mean per run")                 \
    X(group_agg_min, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "smallest value per run")       \
    X(group_agg_max, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "largest value per run")        \
    X(group_agg_first, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "first non-null value per run") \
    X(group_agg_last, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "last non-null value per run") \
    X(group_agg_var, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "population variance per run")  \
    X(group_agg_var_samp, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "sample variance per run") \
    X(group_agg_dev, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "standard deviation per run")   \
    X(group_agg_dev_samp, GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "sample deviation per run") \
    X(group_agg_wavg, WEIGHTED_GROUP, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 702 703", "weighted mean per run") \
    X(group_agg_count, SINGLE, QMO_SEQ_UNTYPED, 0, "701 703", "length of each run")                     \
    X(group_agg_approxdc, SINGLE, QMO_SEQ_UNTYPED, 0, "701 702 703", "approximate distinct count per run") \
    X(group_agg_approxdc_hash, SINGLE, QMO_SEQ_UNTYPED, 0, "61 701 702 703", "approximate distinct count of uint4 hashes per run")
QMO_SEQ_RUN_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Hash aggregates: group-by over keys in any order of arrival. A constructor
 * fills two outputs that advance together, the distinct keys (grp: the keys'
 * type and width) and one aggregate per key (agg):
 *
 *   qmo_seq_hash_agg_<op>_<t>(agg, grp, values, keys, init_size)
 *     max min   -> t                   (a group takes its first value, then
 *                                       larger / smaller ones)
 *     sum       int1..int8 -> int8, uint1..uint8 -> uint8 (64-bit, wrapping),
 *               float, double -> double, datetime -> datetime
 *     avg       -> double (sum in double); datetime -> datetime (unsigned
 *               integer quotient of the sum by the count)
 *   qmo_seq_hash_agg_count_uint8(agg, grp, values, keys, init_size) -> uint8:
 *     non-null values per key; values may be null (then: occurrences of
 *     the key, as qmo_seq_hash_agg_count)
 *   qmo_seq_hash_agg_approxdc(agg, grp, values, keys, init_size) -> uint4:
 *     approximate distinct non-null values per key (values of any type; the
 *     sketch of qmo_seq_agg_approxdc per group)
 *
 * Keys may be of any type and width, char included; only the values' type
 * is checked (61). Values are bound before keys and stay bound when the keys
 * are refused (701). Only count takes an absent values operand (else 62).
 * A null key drops its element; a null value is skipped, and a group without
 * values has a null aggregate (approxdc: the estimate of no values, 0).
 * Keys and values advance together: a values tile of another length, or
 * values ending first, is 702.
 *
 * Whichever output is pulled first builds the table from the whole
 * sequences (its status, 52 included, is returned); both then deliver the
 * groups in bucket order, each bucket's groups in ascending order of the key
 * bytes read as a zero-extended little-endian word, compared by signed
 * 64-bit difference (memcmp for keys longer than 8 bytes) - not in order of
 * arrival and not in typed key order. Deliberately so: for 8-byte keys whose
 * words lie 2^63 or more apart the difference wraps, and one key can then
 * form two groups (negative and positive doubles in one bucket, for
 * example). init_size is the requested bucket
 * count (0: qmo_seq_hash_table_init_size), rounded up to an even-indexed
 * prime of qmo_int_get_prime_number; the table grows, to the next prime,
 * when its entries reach bucket count x qmo_seq_hash_table_load_factor - 1.
 * Memory is taken through qmo_seq_malloc in blocks of 40,968 bytes (1,024
 * groups, or packed keys longer than 8 bytes); once built, the outputs are
 * pulled without taking any. A build that runs out of memory publishes
 * nothing; the next pull builds anew from where the operands stand.
 *
 * Partitioned evaluation: agg's prepare slot holds the build
 * (qmo_seq_hash_initialize_<op>_<t>) and its merge slot the merge
 * (qmo_seq_hash_merge_<op>_<t>(dst, src)), which moves src's groups and
 * storage into dst's table and publishes it to dst's outputs; src's table
 * is gone afterwards.
 *
 * Release: qmo_seq_release_hash(either output) frees the table and the
 * shared record and detaches both outputs; qmo_seq_free_hash does the same,
 * also clears the output's reset slot, and returns 1 (0 when the output was
 * already detached).
 * ---------------------------------------------------------------------- */

#define QMO_SEQ_SINGLE_hash_settings                                                                  \
    /** Bucket count asked for by a constructor given 0 (default 1361). Read at every use. */         \
    QMO_SEQ_API extern uint64_t qmo_seq_hash_table_init_size;                                         \
    /** Entries per bucket before a table grows (default 1.0). Read at every use. */                   \
    QMO_SEQ_API extern double qmo_seq_hash_table_load_factor;

/** The five functions of one hash aggregate member, named by qmo_seq_hash_agg_<name>. */
#define QMO_SEQ_DECLARE_HASH_MEMBER_(name)                                                             \
    QMO_SEQ_API int qmo_seq_hash_agg_##name(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp,          \
                                            qmo_seq_iterator_t *values, qmo_seq_iterator_t *keys,      \
                                            uint64_t init_size);                                       \
    QMO_SEQ_API int qmo_seq_hash_initialize_##name(qmo_seq_iterator_t *it);                            \
    QMO_SEQ_API int qmo_seq_hash_merge_##name(qmo_seq_iterator_t *dst, qmo_seq_iterator_t *src);       \
    QMO_SEQ_API int qmo_seq_hash_agg_##name##_next_grp(qmo_seq_iterator_t *it);                        \
    QMO_SEQ_API int qmo_seq_hash_agg_##name##_next_agg(qmo_seq_iterator_t *it);
/** A hash aggregate per value type: the family is the operation (qmo_seq_hash_agg_<op>_<t>). */
#define QMO_SEQ_DECLARE_HASH_(op, t, ctype, code) QMO_SEQ_DECLARE_HASH_MEMBER_(op##_##t)
#define QMO_SEQ_KIND_HASH HASHED
#define QMO_SEQ_MERGE_HASH HASH
/** A hash aggregate of any value type (qmo_seq_hash_agg_<op>), with distinct-count registers. */
#define QMO_SEQ_DECLARE_HASH_SKETCH_(op, t, ctype, code) QMO_SEQ_DECLARE_HASH_MEMBER_(op)
#define QMO_SEQ_KIND_HASH_SKETCH SINGLE
#define QMO_SEQ_MERGE_HASH_SKETCH HASH_SKETCH
/** The count's one member counts into uint8 whatever the value type (its partial results carry no type). */
#define QMO_SEQ_HASH_COUNT_TYPES(X, a) X(a, uint8, uint64_t, QMO_SEQ_ANY_TYPE)
#define QMO_SEQ_DECLARE_HASH_COUNT_(op, t, ctype, code) QMO_SEQ_DECLARE_HASH_MEMBER_(op##_##t)
#define QMO_SEQ_KIND_HASH_COUNT HASHED
#define QMO_SEQ_MERGE_HASH_COUNT HASH

#define QMO_SEQ_SINGLE_hash_count_keys                                                                \
    /** Occurrences of each key: qmo_seq_hash_agg_count_uint8 without values. */                      \
    QMO_SEQ_API int qmo_seq_hash_agg_count(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp,          \
                                           qmo_seq_iterator_t *keys, uint64_t init_size);
/**
 * Per group key, the number of distinct non-null values that occur at least
 * n times in the group (distinct_count: n = 1). Values and keys of any type;
 * both are bound. group_size and pair_size size the group table and the
 * table of (key, value) pairs as init_size does. Deliberately, a build does
 * not publish its groups: pulled directly, both outputs end at once with
 * the status the keys ended with (11). The groups are delivered after a
 * partitioned evaluation: each partition's agg prepared
 * (qmo_seq_dup_hash_prepare), the others merged into one with
 * qmo_seq_dup_hash_merge (a value seen in several partitions counts once its
 * summed occurrences reach n). Aggregates are uint8 and never null.
 */
#define QMO_SEQ_SINGLE_hash_dup                                                                      \
    QMO_SEQ_API int qmo_seq_hash_agg_dup_count(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp,     \
                                               qmo_seq_iterator_t *values, qmo_seq_iterator_t *keys, \
                                               uint64_t group_size, uint64_t pair_size, uint64_t n); \
    QMO_SEQ_API int qmo_seq_hash_agg_distinct_count(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp, \
                                                    qmo_seq_iterator_t *values, qmo_seq_iterator_t *keys, \
                                                    uint64_t group_size, uint64_t pair_size);       \
    QMO_SEQ_API int qmo_seq_dup_hash_prepare(qmo_seq_iterator_t *it);                                \
    QMO_SEQ_API int qmo_seq_dup_hash_merge(qmo_seq_iterator_t *dst, qmo_seq_iterator_t *src);        \
    QMO_SEQ_API int qmo_seq_dup_hash_next_count(qmo_seq_iterator_t *it);                             \
    QMO_SEQ_API int qmo_seq_dup_hash_next_grp(qmo_seq_iterator_t *it);
#define QMO_SEQ_SINGLE_hash_outputs                                                                   \
    /** Reset of hash aggregate outputs: the cursor goes back to the first bucket; the table is kept. */ \
    QMO_SEQ_API int qmo_seq_hash_agg_reset(qmo_seq_iterator_t *it);                                   \
    /** 1 when the record is a hash aggregate output (its reset is qmo_seq_hash_agg_reset), else 0. */  \
    QMO_SEQ_API int qmo_seq_is_hash_aggreate(const qmo_seq_iterator_t *it);                           \
    /** Frees the table and the shared record of a hash aggregate; detaches both outputs. Returns 0. */ \
    QMO_SEQ_API int qmo_seq_release_hash(qmo_seq_iterator_t *it);                                     \
    /** As qmo_seq_release_hash, and clears the output's reset slot; 1, or 0 when it was already detached. */ \
    QMO_SEQ_API int qmo_seq_free_hash(qmo_seq_iterator_t *it);
/**
 * Element-wise hash, uint4: MurmurHash3 (x86, 32-bit) of each element's
 * bytes with seed QMO_SEQ_HASH_SEED, or, when seeds (uint4, else 61) is given,
 * with the seed at the same index; so chaining hashes a compound key. Null
 * where the input or the seed is null. The input's tile length rules.
 */
#define QMO_SEQ_SINGLE_hash                                        \
    QMO_SEQ_API int qmo_seq_hash(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input, qmo_seq_iterator_t *seeds); \
    QMO_SEQ_API int qmo_seq_hash_next(qmo_seq_iterator_t *it);

#define QMO_SEQ_HASH_FAMILIES(X)                                                                        \
    X(hash_settings, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "initial bucket count and load factor of hash tables") \
    X(max, HASH, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_HASH_AGG_MAX, "61 701 52 703", "group-by: largest value per key") \
    X(min, HASH, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_HASH_AGG_MIN, "61 701 52 703", "group-by: smallest value per key") \
    X(sum, HASH, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_HASH_AGG_SUM, "61 701 52 703", "group-by: sum per key") \
    X(avg, HASH, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_HASH_AGG_AVG, "61 701 52 703", "group-by: mean per key") \
    X(count, HASH_COUNT, QMO_SEQ_HASH_COUNT_TYPES, QMO_SEQ_PARTIAL_HASH_AGG_COUNT, "701 52 703", "group-by: occurrences per key") \
    X(approxdc, HASH_SKETCH, QMO_SEQ_UNTYPED, QMO_SEQ_PARTIAL_HASH_AGG_APPROXDC, "701 52 703", "group-by: approximate distinct values per key") \
    X(hash_count_keys, SINGLE, QMO_SEQ_UNTYPED, 0, "701 52 703", "group-by: occurrences per key, without values") \
    X(hash_dup, SINGLE, QMO_SEQ_UNTYPED, 0, "701 52 703", "group-by: duplicate and distinct counts of values per key") \
    X(hash_outputs, SINGLE, QMO_SEQ_UNTYPED, 0, "-", "reset, test and release of hash aggregate outputs") \
    X(hash, SINGLE, QMO_SEQ_UNTYPED, 0, "61 701", "MurmurHash3 of each element, seeded per element")
QMO_SEQ_HASH_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Top-N: the n largest or smallest non-null values of a whole sequence, or
 * their positions, in one tile. For every numeric type t, with n at most
 * QMO_SEQ_TILE_SIZE (62 otherwise, checked after the input is bound):
 *
 *   qmo_seq_top_max_<t>(result, input, n)      -> t, largest first
 *   qmo_seq_top_min_<t>(result, input, n)      -> t, smallest first
 *   qmo_seq_top_pos_max_<t>(result, input, n)  -> uint8, the input positions
 *   qmo_seq_top_pos_min_<t>(result, input, n)     (counted from 0, nulls
 *                                                  included) of those values
 *
 * The first pull consumes the input and delivers the list; every later pull
 * returns 11. Among equal values the earlier arrival ranks first: top_max of
 * 5, 7, 7 with n = 2 is 7, 7, at positions 1, 2. Nulls are skipped. An input
 * with no non-null value, or n = 0, gives 11 at the first pull. An input
 * error after values were kept is returned, and the list kept so far stays in
 * the tile. float and double compare with their own < and >: a NaN is never
 * better than a kept value, so it enters only a list that is not yet full.
 * Nothing is allocated.
 *
 * Partial result (value members): the kept list is the record's own tile,
 * best first, values[0 .. tile_count), tile_count = pos = the number kept,
 * null bitmap clear; state[0] holds n. Partitioned evaluation as for the
 * scalar aggregates: qmo_seq_prepare_aggregate on each partition, then
 * qmo_seq_top_<max|min>_<t>_merge(into, from) for the others, then one next,
 * which hands out the merged list (11 if it is empty). The merge walks both
 * ranked lists together and keeps a value found in both only once
 * ([9, 5] merged with [9, 4], n = 3, is [9, 5, 4]), unlike a single pass,
 * which keeps equal values. The position members are not mergeable: their
 * prepare and merge slots are null.
 *
 * Reset: qmo_seq_reset_unary_iterator (the input is rewound and the next
 * pull computes the list afresh).
 * ---------------------------------------------------------------------- */

/** (result, input, n) with a merge. */
#define QMO_SEQ_DECLARE_TOP_(family, t, ctype, code) \
    QMO_SEQ_DECLARE_COUNTED_(family, t, ctype, code) \
    QMO_SEQ_API int qmo_seq_##family##_##t##_merge(qmo_seq_iterator_t *into, qmo_seq_iterator_t *from);
#define QMO_SEQ_KIND_TOP TYPED
#define QMO_SEQ_MERGE_TOP TOP

#define QMO_SEQ_TOP_FAMILIES(X)                                                                                 \
    X(top_max, TOP, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_TOP_MAX, "61 701 62", "the n largest values, descending") \
    X(top_min, TOP, QMO_SEQ_NUMERIC_TYPES, QMO_SEQ_PARTIAL_TOP_MIN, "61 701 62", "the n smallest values, ascending") \
    X(top_pos_max, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "positions of the n largest values")        \
    X(top_pos_min, COUNTED, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62", "positions of the n smallest values")
QMO_SEQ_TOP_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Sorting into permutations, for every numeric type t:
 *
 *   qmo_seq_sort_<t>(values, permutation, n, order)      returns 0
 *
 * Fills permutation[0..n) with positions into values such that reading the
 * values through it gives them in the requested order; the values never
 * move. The permutation, ties included, is fixed by the algorithm:
 *   - a non-decreasing input gives 0, 1, ..., n-1 (descending: reversed);
 *   - a non-increasing input gives n-1, ..., 0 (descending: 0, ..., n-1), so
 *     equal values then come in reverse arrival order;
 *   - anything else is sorted ascending by a quicksort with random pivots
 *     (median of three, insertion sort of slices up to 50, heap sort when a
 *     depth budget runs out) and reversed for QMO_SEQ_DESCENDING.
 * Deliberate quirk: a slice of more than 50 positions is left as it stands
 * when as many values from the start of the whole array are non-decreasing;
 * an input that opens with a long ascending run (an organ pipe, say) can
 * come back partly unordered.
 * Pivots come from one process-wide seed per element type, updated without
 * locks: concurrent sorts of one type change each other's pivots (and so
 * the order of equal values), never the correctness of a sort.
 * Order codes other than the two below sort ascending, except that a
 * non-increasing input then comes back as 0, 1, ..., n-1.
 * float and double: NaN counts as greater than every number and equal to
 * every other NaN, in every comparison, so NaNs come last in ascending and
 * first in descending order; -0.0 and 0.0 are equal.
 * The 8-byte members borrow 16 * n bytes through qmo_seq_malloc (context
 * null) for the length of the call unless the input is nearly in order; if
 * that is refused they sort in place, with the same result. The others
 * take no memory.
 *
 *   qmo_seq_order_by_<t>(result, input, permutation, n, buffer)
 *
 * Delivers the n elements of input (type t, else 61) in the order of
 * permutation (not copied; it must outlive the sequence): tile element k is
 * element permutation[pos + k] of the input. last_pos is n - 1.
 * With buffer null, the first pull reads the whole input (at most n
 * elements, nulls kept) into a buffer and a null bitmap taken through the
 * allocator hooks (52 if either is refused; nothing is kept then) and the
 * record's reset becomes qmo_seq_order_by_reset. If the input has fewer
 * than n elements, the sequence is that long and positions past the input's
 * end read as null zeros. A status of the input is returned unchanged
 * (11 for an empty input) and the memory is given back.
 * qmo_seq_order_by_reset frees that memory and resets the input: the next
 * pull reads the input afresh.
 * With buffer given, it must hold the input's n values (no nulls) and
 * outlive the sequence; the input is never pulled and the buffer is never
 * freed by the library, by qmo_seq_order_by_reset neither.
 * ---------------------------------------------------------------------- */

/** Order codes of qmo_seq_sort_<t>. */
#define QMO_SEQ_ASCENDING 1
#define QMO_SEQ_DESCENDING 2

/** qmo_seq_<family>_<t>(values, permutation, n, order) and the ordering iterator qmo_seq_order_by_<t>. */
#define QMO_SEQ_DECLARE_SORT_(family, t, ctype, code)                                            \
    QMO_SEQ_API int qmo_seq_##family##_##t(const ctype *values, uint64_t *permutation, uint64_t n, \
                                           int order);                                           \
    QMO_SEQ_API int qmo_seq_order_by_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *input,  \
                                         const uint64_t *permutation, uint64_t n,                 \
                                         const ctype *buffer);                                    \
    QMO_SEQ_API int qmo_seq_order_by_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_SORT TYPED
#define QMO_SEQ_MERGE_SORT NONE
#define QMO_SEQ_SINGLE_order_by_reset                                                             \
    /** Reset of an ordering iterator that read its input: frees what it took, resets the input. */ \
    QMO_SEQ_API int qmo_seq_order_by_reset(qmo_seq_iterator_t *it);

#define QMO_SEQ_SORT_FAMILIES(X)                                                                     \
    X(sort, SORT, QMO_SEQ_NUMERIC_TYPES, 0, "62 52 (order_by: 61 701 52)", "a sorting permutation, and a sequence ordered by one") \
    X(order_by_reset, SINGLE, QMO_SEQ_UNTYPED, 0, "input's reset status", "reset of order_by")
QMO_SEQ_SORT_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Stretch: a value sequence stamped by coarse time stamps (the source),
 * carried over a finer time axis (the target). qmo_seq_stretch_<ts>_<t>
 * (result, target, source, values, filler) takes target and source stamps of
 * type ts (uint4, uint8 or datetime), values of type t (any numeric type) and
 * a filler of type t; next qmo_seq_stretch_<ts>_<t>_next, reset
 * qmo_seq_stretch_<ts>_<t>_reset. 61 for an operand of the wrong type, 701 if
 * any of the three is bound; then all three are bound.
 *
 * One element per target stamp T. The source keeps a boundary, starting at
 * 0: when T >= boundary the source moves on by exactly one element and the
 * boundary becomes that element's stamp. So the first target always takes
 * source value 0; value k is held while T < stamp k, and a target equal to
 * stamp k takes value k + 1. The source moves at most one element per target
 * element: where the target skips source stamps, the source lags behind.
 * Once the source stamps end, every further target gets the filler (never
 * null); the result ends with the target. A null source value gives null
 * for every target that holds it.
 *
 * next: 703 for a null target or source stamp; 702 when the values pull
 * fails (whatever its status) or delivers another tile length than the
 * source stamps'; other statuses are passed on. After an error the state is
 * undefined until reset. Reset rewinds the values (a non-zero status is
 * returned at once), then the target and source stamps, and starts over.
 * Nothing is allocated.
 * ---------------------------------------------------------------------- */

/** (result, target, source, values, filler), a member per time-stamp type and value type. */
#define QMO_SEQ_DECLARE_STRETCH_(family, pair, ctype, code) \
    QMO_SEQ_DECLARE_STRETCH_I_(family, QMO_SEQ_EXPAND pair, ctype)
#define QMO_SEQ_DECLARE_STRETCH_I_(...) QMO_SEQ_DECLARE_STRETCH_II_(__VA_ARGS__)
#define QMO_SEQ_DECLARE_STRETCH_II_(family, ts, t, tscode, ctype)                                        \
    QMO_SEQ_API int qmo_seq_##family##_##ts##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *target, \
                                                  qmo_seq_iterator_t *source, qmo_seq_iterator_t *values, \
                                                  ctype filler);                                         \
    QMO_SEQ_API int qmo_seq_##family##_##ts##_##t##_next(qmo_seq_iterator_t *it);                       \
    QMO_SEQ_API int qmo_seq_##family##_##ts##_##t##_reset(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_STRETCH PAIRED
#define QMO_SEQ_MERGE_STRETCH NONE

#define QMO_SEQ_ALIGN_FAMILIES(X) \
    X(stretch, STRETCH, QMO_SEQ_STAMPED_TYPES, 0, "61 701 702 703", "a coarse series carried over a finer time axis, then a filler")
QMO_SEQ_ALIGN_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Alignment of ascending sequences: union, join, as-of join and stretch0.
 * Operands that must be ascending are checked tile by tile as they are
 * pulled: a null element is 703, an element below its predecessor (or a
 * NaN, which has no order) is 62, so a result is never computed over a
 * disordered tile. Equal neighbours are allowed. Constructors check types
 * (61), then bindings (701), then their parameters (62), then write.
 *
 *   qmo_seq_union_<t>(result, left, right)                       -> t
 *     The ascending merge of two ascending sequences, each value once:
 *     the common axis of two series. Reset qmo_seq_reset_union_iterator
 *     (word 1 the last value delivered, word 2 flags, word 3 the two tile
 *     cursors). Nothing is allocated.
 *
 *   qmo_seq_join_<t>(left_positions, right_positions, left, right) -> uint8
 *     The inner join on equal elements of two ascending sequences: every
 *     equal pair once, as the ordinals of its left and right element, in
 *     order of left then right ordinal. Both outputs advance in lockstep:
 *     each step computes one tile of each, in whichever output is pulled
 *     first, and hands the other its tile and status when it is pulled;
 *     an output pulled again before the other has taken its tile gets 702.
 *     A run of equal right elements is counted, not kept, so memory does not
 *     grow with run lengths. The two outputs must be distinct records (62).
 *     The constructor takes one shared record through qmo_seq_malloc (52 if
 *     refused, nothing written); resetting both
 *     outputs rewinds left and right and gives the record back, and the next
 *     pull takes it again (52 then from that pull).
 *
 *   qmo_seq_asof_join_<ts>_<t>(result, left_stamps, right_stamps,
 *                              right_values, direction, tolerance,
 *                              allow_exact)                       -> t
 *     One element per left stamp: the right value whose stamp matches it,
 *     or null when none qualifies (or the matched value is null).
 *     QMO_SEQ_ASOF_BACKWARD: the last right stamp <= the left one;
 *     QMO_SEQ_ASOF_FORWARD: the first right stamp >= it; QMO_SEQ_ASOF_NEAREST:
 *     the backward match unless the forward one is strictly nearer (an exact
 *     match is then the last of its run, as backward). allow_exact 0 makes
 *     the comparisons strict. Among equal right stamps backward takes the
 *     last, forward the first. tolerance: the largest |left - right|
 *     accepted, inclusive; all-ones accepts any distance. Another direction
 *     is 62. Stamps of type ts (uint4, uint8, datetime), values of type t.
 *
 *   qmo_seq_stretch0_<ts>_<t>(result, target, source, values, filler) -> t
 *     One element per target stamp: the value of the source element with
 *     the same stamp (the last one where several share it), the filler (not
 *     null) for a target no source stamp equals; source stamps absent from
 *     the target are passed over.
 *
 * The as-of join and stretch0 pull right (source) stamps and values
 * together: a values tile of another length, or a values pull that fails,
 * is 702. Both read right stamps only as far as the left (target) stamps
 * need; resets rewind the values, then both stamp sequences, and start
 * over. Neither allocates.
 * ---------------------------------------------------------------------- */

/** Directions of qmo_seq_asof_join_<ts>_<t>. */
#define QMO_SEQ_ASOF_BACKWARD 0
#define QMO_SEQ_ASOF_FORWARD 1
#define QMO_SEQ_ASOF_NEAREST 2

/** (left_positions, right_positions, left, right): two uint8 outputs of one join. */
#define QMO_SEQ_DECLARE_JOIN_(family, t, ctype, code)                                            \
    QMO_SEQ_API int qmo_seq_##family##_##t(qmo_seq_iterator_t *left_positions,                  \
                                           qmo_seq_iterator_t *right_positions,                 \
                                           qmo_seq_iterator_t *left, qmo_seq_iterator_t *right); \
    QMO_SEQ_API int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_JOIN TYPED
#define QMO_SEQ_MERGE_JOIN NONE
#define QMO_SEQ_SINGLE_join_reset                                                     \
    /** Reset of either join output; the second of the pair rewinds and releases. */ \
    QMO_SEQ_API int qmo_seq_join_reset(qmo_seq_iterator_t *it);
/** (result, left_stamps, right_stamps, right_values, direction, tolerance, allow_exact). */
#define QMO_SEQ_DECLARE_ASOF_(family, pair, ctype, code) QMO_SEQ_DECLARE_ASOF_I_(family, QMO_SEQ_EXPAND pair, ctype)
#define QMO_SEQ_DECLARE_ASOF_I_(...) QMO_SEQ_DECLARE_ASOF_II_(__VA_ARGS__)
#define QMO_SEQ_DECLARE_ASOF_II_(family, ts, t, tscode, ctype)                                             \
    QMO_SEQ_API int qmo_seq_##family##_##ts##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *left_stamps, \
                                                  qmo_seq_iterator_t *right_stamps,                        \
                                                  qmo_seq_iterator_t *right_values, int32_t direction,     \
                                                  uint64_t tolerance, int32_t allow_exact);                \
    QMO_SEQ_API int qmo_seq_##family##_##ts##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_ASOF PAIRED
#define QMO_SEQ_MERGE_ASOF NONE
/** (result, target, source, values, filler), reset by qmo_seq_asof_reset. */
#define QMO_SEQ_DECLARE_STRETCH0_(family, pair, ctype, code) \
    QMO_SEQ_DECLARE_STRETCH0_I_(family, QMO_SEQ_EXPAND pair, ctype)
#define QMO_SEQ_DECLARE_STRETCH0_I_(...) QMO_SEQ_DECLARE_STRETCH0_II_(__VA_ARGS__)
#define QMO_SEQ_DECLARE_STRETCH0_II_(family, ts, t, tscode, ctype)                                        \
    QMO_SEQ_API int qmo_seq_##family##_##ts##_##t(qmo_seq_iterator_t *result, qmo_seq_iterator_t *target, \
                                                  qmo_seq_iterator_t *source, qmo_seq_iterator_t *values, \
                                                  ctype filler);                                          \
    QMO_SEQ_API int qmo_seq_##family##_##ts##_##t##_next(qmo_seq_iterator_t *it);
#define QMO_SEQ_KIND_STRETCH0 PAIRED
#define QMO_SEQ_MERGE_STRETCH0 NONE
#define QMO_SEQ_SINGLE_asof_reset                                                        \
    /** Reset of the as-of join and stretch0: values, then both stamp sequences. */     \
    QMO_SEQ_API int qmo_seq_asof_reset(qmo_seq_iterator_t *it);

#define QMO_SEQ_UNION_FAMILIES(X) \
    X(union, BINARY, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703", "the ascending merge of two ascending sequences, each element once")
QMO_SEQ_UNION_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

#define QMO_SEQ_JOIN_FAMILIES(X)                                                                                  \
    X(join, JOIN, QMO_SEQ_NUMERIC_TYPES, 0, "61 701 62 703 52", "positions of every equal pair of two ascending sequences") \
    X(join_reset, SINGLE, QMO_SEQ_UNTYPED, 0, "operands' reset statuses", "reset of either join output")
QMO_SEQ_JOIN_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

#define QMO_SEQ_ASOF_FAMILIES(X)                                                                                   \
    X(asof_join, ASOF, QMO_SEQ_STAMPED_TYPES, 0, "61 701 62 702 703", "the right value matched to each left stamp (backward, forward, nearest)") \
    X(stretch0, STRETCH0, QMO_SEQ_STAMPED_TYPES, 0, "61 701 62 702 703", "a sparse series placed on a denser axis, a filler elsewhere") \
    X(asof_reset, SINGLE, QMO_SEQ_UNTYPED, 0, "operands' reset statuses", "reset of asof_join and stretch0")
QMO_SEQ_ASOF_FAMILIES(QMO_SEQ_DECLARE_FAMILY_)

/* ------------------------------------------------------------------------
 * Every family, group by group (the order of docs/reference.md).
 * ---------------------------------------------------------------------- */
#define QMO_SEQ_FAMILIES(X)                                                                        \
    QMO_SEQ_CORE_FAMILIES(X) QMO_SEQ_FRAME_FAMILIES(X) QMO_SEQ_READER_FAMILIES(X) QMO_SEQ_CONST_FAMILIES(X)                  \
    QMO_SEQ_SOURCE_FAMILIES(X) QMO_SEQ_PLUMBING_FAMILIES(X) QMO_SEQ_META_FAMILIES(X)              \
    QMO_SEQ_CONVERSION_FAMILIES(X) QMO_SEQ_PARSE_FAMILIES(X) QMO_SEQ_TEXT_FAMILIES(X) QMO_SEQ_MATCH_FAMILIES(X)            \
    QMO_SEQ_ARITHMETIC_FAMILIES(X) QMO_SEQ_COMPARISON_FAMILIES(X) QMO_SEQ_CONDITIONAL_FAMILIES(X) \
    QMO_SEQ_FILTER_FAMILIES(X) QMO_SEQ_RESHAPE_FAMILIES(X) QMO_SEQ_ANALYTICS_FAMILIES(X)          \
    QMO_SEQ_SCALAR_FAMILIES(X) QMO_SEQ_PAIR_FAMILIES(X) QMO_SEQ_PARTIAL_RESULT_FAMILIES(X) QMO_SEQ_CARRIED_STATE_FAMILIES(X) QMO_SEQ_GRID_FAMILIES(X)        \
    QMO_SEQ_WINDOW_FAMILIES(X) QMO_SEQ_CUMULATIVE_FAMILIES(X) QMO_SEQ_RUN_FAMILIES(X)             \
    QMO_SEQ_HASH_FAMILIES(X) QMO_SEQ_TOP_FAMILIES(X) QMO_SEQ_SORT_FAMILIES(X)                     \
    QMO_SEQ_ALIGN_FAMILIES(X) QMO_SEQ_UNION_FAMILIES(X) QMO_SEQ_JOIN_FAMILIES(X) QMO_SEQ_ASOF_FAMILIES(X)

/** The groups by name, X(group): docs/reference.md gives one section to each. */
#define QMO_SEQ_FAMILY_GROUPS(X)                                                              \
    X(CORE) X(FRAME) X(READER) X(CONST) X(SOURCE) X(PLUMBING) X(META) X(CONVERSION) X(PARSE) X(TEXT) X(MATCH)  \
    X(ARITHMETIC) X(COMPARISON) X(CONDITIONAL) X(FILTER) X(RESHAPE) X(ANALYTICS) X(SCALAR) X(PAIR) \
    X(PARTIAL_RESULT) X(CARRIED_STATE) X(GRID) X(WINDOW) X(CUMULATIVE) X(RUN) X(HASH) X(TOP) X(SORT) X(ALIGN) X(UNION) X(JOIN) X(ASOF)


#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QMO_SEQ_H */
