/* Partitioned evaluation of an aggregate, as a database core runs it: the
 * column is split into four partitions, each partition's sum is prepared
 * (folded) on its own, the partial results are merged into the first record,
 * and one next delivers the merged sum. It must equal the single-pass sum. */
#include "qmo_seq.h"

#include <stdio.h>

#define ROWS 10000
#define PARTS 4

int main(void) {
    static int32_t column[ROWS];
    qmo_seq_iterator_t whole_src, whole, srcs[PARTS], parts[PARTS];
    int64_t single, merged;
    int i, rc;

    for (i = 0; i < ROWS; ++i) column[i] = (i * 7919) % 2001 - 1000;

    /* One pass over the whole column. */
    qmo_seq_unget_int4(&whole_src, column, ROWS);
    if ((rc = qmo_seq_agg_sum_int4(&whole, &whole_src)) != QMO_SEQ_OK || (rc = whole.next(&whole)) != QMO_SEQ_OK) {
        fprintf(stderr, "single pass failed with status %d\n", rc);
        return 1;
    }
    single = whole.values.i8[0];

    /* Four partitions of unequal length, each prepared on its own. */
    for (i = 0; i < PARTS; ++i) {
        const uint64_t from = (uint64_t) ROWS * i * i / (PARTS * PARTS);
        const uint64_t till = (uint64_t) ROWS * (i + 1) * (i + 1) / (PARTS * PARTS);
        qmo_seq_unget_int4(&srcs[i], column + from, till - from);
        if ((rc = qmo_seq_agg_sum_int4(&parts[i], &srcs[i])) != QMO_SEQ_OK) {
            fprintf(stderr, "building partition %d failed with status %d\n", i, rc);
            return 1;
        }
        parts[i].prepare(&parts[i]);
    }
    /* Fold the partial results into the first record, then pull it once. */
    for (i = 1; i < PARTS; ++i) parts[0].merge(&parts[0], &parts[i]);
    if ((rc = parts[0].next(&parts[0])) != QMO_SEQ_OK) {
        fprintf(stderr, "the merged result was not delivered: status %d\n", rc);
        return 1;
    }
    merged = parts[0].values.i8[0];
    rc = parts[0].next(&parts[0]);

    printf("single pass: %lld\n", (long long) single);
    printf("partitioned: %lld (%d partitions)\n", (long long) merged, PARTS);
    if (merged != single) {
        fprintf(stderr, "mismatch\n");
        return 1;
    }
    if (rc != QMO_SEQ_END) {
        fprintf(stderr, "expected the end after the result, got status %d\n", rc);
        return 1;
    }
    return 0;
}
