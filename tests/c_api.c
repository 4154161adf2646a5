/* The public header as C99 (built with -std=c99 -pedantic -Werror): every
 * declared function is referenced, so linking against the shared library
 * proves each name is defined and exported; then (a + b) > c runs from C. */
#include "qmo_seq.h"

#include <stdio.h>

#define REF_(a, t, ctype, code) (void (*)(void)) qmo_seq_next_##t, (void (*)(void)) qmo_seq_get_##t, \
    (void (*)(void)) qmo_seq_const_##t##_next,
#define REF_CONST_(a, t, ctype, code) (void (*)(void)) qmo_seq_const_##t,
#define REF_OP_(op, t, ctype, code) (void (*)(void)) qmo_seq_##op##_##t, (void (*)(void)) qmo_seq_##op##_##t##_next,
#define REF_NUMERIC_(op) QMO_SEQ_NUMERIC_TYPES(REF_OP_, op)
#define REF_ALL_(op) QMO_SEQ_ALL_TYPES(REF_OP_, op)
#define REF_MERGE_(op, t, ctype, code) REF_OP_(op, t, ctype, code) (void (*)(void)) qmo_seq_##op##_##t##_merge,
#define REF_MERGEABLE_(op) QMO_SEQ_NUMERIC_TYPES(REF_MERGE_, op)
#define REF_HASH_(name) (void (*)(void)) qmo_seq_hash_agg_##name, (void (*)(void)) qmo_seq_hash_initialize_##name, \
    (void (*)(void)) qmo_seq_hash_merge_##name, (void (*)(void)) qmo_seq_hash_agg_##name##_next_grp, \
    (void (*)(void)) qmo_seq_hash_agg_##name##_next_agg,
#define REF_HASH_TYPED_(op, t, ctype, code) REF_HASH_(op##_##t)
#define REF_HASH_OP_(op) QMO_SEQ_NUMERIC_TYPES(REF_HASH_TYPED_, op)

static void (*const exported[])(void) = {
    QMO_SEQ_ALL_TYPES(REF_, )
    QMO_SEQ_NUMERIC_TYPES(REF_CONST_, )
    (void (*)(void)) qmo_seq_const_char,
    QMO_SEQ_ARITHMETIC_OPS(REF_NUMERIC_)
    REF_OP_(add, char, char, QMO_SEQ_TYPE_CHAR)
    QMO_SEQ_COMPARISON_OPS(REF_ALL_)
    QMO_SEQ_SIGN_OPS(REF_NUMERIC_)
    (void (*)(void)) qmo_seq_and, (void (*)(void)) qmo_seq_and_qmo_seq_bool_next,
    (void (*)(void)) qmo_seq_or, (void (*)(void)) qmo_seq_or_qmo_seq_bool_next,
    (void (*)(void)) qmo_seq_xor, (void (*)(void)) qmo_seq_xor_qmo_seq_bool_next,
    (void (*)(void)) qmo_seq_not, (void (*)(void)) qmo_seq_not_qmo_seq_bool_next,
    (void (*)(void)) qmo_seq_sys_malloc, (void (*)(void)) qmo_seq_sys_free,
    (void (*)(void)) qmo_seq_redefine_allocator, (void (*)(void)) qmo_seq_alloc_buffer,
    (void (*)(void)) qmo_seq_free_buffer, (void (*)(void)) qmo_seq_enable_check_bindings,
    (void (*)(void)) qmo_seq_reset_unary_agg_iterator, (void (*)(void)) qmo_seq_reset_binary_agg_iterator,
    (void (*)(void)) qmo_seq_reset_ternary_agg_iterator, (void (*)(void)) qmo_seq_reset_union_iterator,
    (void (*)(void)) qmo_seq_reset_repeat_iterator, (void (*)(void)) qmo_seq_reset_parse_iterator,
    (void (*)(void)) qmo_seq_reset_custom_parse_iterator,
    QMO_SEQ_AGGREGATE_OPS(REF_MERGEABLE_)
    QMO_SEQ_PAIR_AGGREGATE_OPS(REF_MERGEABLE_)
    REF_NUMERIC_(agg_min_max)
    (void (*)(void)) qmo_seq_agg_count, (void (*)(void)) qmo_seq_count_next,
    (void (*)(void)) qmo_seq_agg_count_not_null, (void (*)(void)) qmo_seq_count_not_null_next,
    (void (*)(void)) qmo_seq_count_merge, (void (*)(void)) qmo_seq_agg_approxdc,
    (void (*)(void)) qmo_seq_agg_approxdc_next, (void (*)(void)) qmo_seq_agg_approxdc_merge,
    (void (*)(void)) qmo_seq_agg_approxdc_hash, (void (*)(void)) qmo_seq_agg_approxdc_hash_next,
    (void (*)(void)) qmo_seq_prepare_aggregate, (void (*)(void)) qmo_seq_hash_agg_reset,
    (void (*)(void)) qmo_seq_is_hash_aggreate,
    QMO_SEQ_HASH_AGGREGATE_OPS(REF_HASH_OP_)
    REF_HASH_(count_uint8) REF_HASH_(approxdc)
    (void (*)(void)) qmo_seq_hash_agg_count, (void (*)(void)) qmo_seq_hash_agg_dup_count,
    (void (*)(void)) qmo_seq_hash_agg_distinct_count, (void (*)(void)) qmo_seq_dup_hash_prepare,
    (void (*)(void)) qmo_seq_dup_hash_merge, (void (*)(void)) qmo_seq_dup_hash_next_count,
    (void (*)(void)) qmo_seq_dup_hash_next_grp, (void (*)(void)) qmo_seq_release_hash,
    (void (*)(void)) qmo_seq_free_hash, (void (*)(void)) qmo_seq_hash, (void (*)(void)) qmo_seq_hash_next,
};

int main(void) {
    qmo_seq_iterator_t a, b, c, sum, gt;
    size_t i;
    uint8_t v = 0;
    for (i = 0; i < sizeof exported / sizeof exported[0]; ++i)
        if (!exported[i]) return 1;
    if (!qmo_seq_malloc || !qmo_seq_free) return 1;
    if (qmo_seq_hash_table_init_size != 1361 || qmo_seq_hash_table_load_factor != 1.0) return 1;
    qmo_seq_const_int4(&a, 2);
    qmo_seq_const_int4(&b, 3);
    qmo_seq_const_int4(&c, 4);
    if (qmo_seq_add_int4(&sum, &a, &b) || qmo_seq_gt_int4(&gt, &sum, &c)) return 1;
    if (qmo_seq_next_uint1(&gt, &v) != QMO_SEQ_OK || v != 1) return 1;
    printf("%u names referenced\n", (unsigned) (sizeof exported / sizeof exported[0]));
    return 0;
}
