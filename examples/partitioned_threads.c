/* Partitioned evaluation on plain threads: a column and its keys are split
 * into partitions; worker threads each take whole partitions, build every
 * partition's own trees and prepare them (a sum, the ten largest values, the
 * first positions above a level, a group-by sum), and sort the partition.
 * The main thread then merges the partial results in partition order and
 * pulls them. Each must equal one pass over the whole column; the answer
 * depends on the partition count, never on which thread ran what. */
#include "qmo_seq.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#define ROWS (1 << 18)
#define PARTS 8
#define THREADS 4
#define TOP 10
#define FIRST 16
#define KEYS 1000
#define LEVEL 990

static int32_t column[ROWS];
static uint16_t keys[ROWS];
static uint64_t permutation[ROWS];

/* Everything one partition's trees need; the records must outlive the merge. */
struct partition {
    uint64_t from, till;
    qmo_seq_iterator_t src[4], level, above;
    qmo_seq_iterator_t sum, top, first, agg, grp, key_src;
    int status;
};
static struct partition parts[PARTS];

static int prepare(struct partition *p) {
    const uint64_t n = p->till - p->from;
    int rc = 0, i;
    for (i = 0; i < 3 && !rc; ++i) {
        rc = qmo_seq_unget_int4(&p->src[i], column + p->from, n);
        p->src[i].first_pos = p->from; /* positions count from the column's start */
    }
    if (!rc) rc = qmo_seq_unget_int4(&p->src[3], column + p->from, n);
    if (!rc) rc = qmo_seq_unget_uint2(&p->key_src, keys + p->from, n);
    if (!rc) rc = qmo_seq_const_int4(&p->level, LEVEL);
    if (!rc) rc = qmo_seq_gt_int4(&p->above, &p->src[2], &p->level);
    if (!rc) rc = qmo_seq_agg_sum_int4(&p->sum, &p->src[0]);
    if (!rc) rc = qmo_seq_top_max_int4(&p->top, &p->src[1], TOP);
    if (!rc) rc = qmo_seq_filter_first_pos(&p->first, &p->above, FIRST);
    if (!rc) rc = qmo_seq_hash_agg_sum_int4(&p->agg, &p->grp, &p->src[3], &p->key_src, 0);
    if (rc) return rc;
    p->sum.prepare(&p->sum);
    p->top.prepare(&p->top);
    p->first.prepare(&p->first);
    return p->agg.prepare(&p->agg);
}

static void *worker(void *arg) {
    int w = (int) (size_t) arg, i;
    for (i = w; i < PARTS; i += THREADS) {
        struct partition *p = &parts[i];
        p->status = prepare(p);
        /* Sorts of one type on several threads share the type's pivot seed. */
        qmo_seq_sort_int4(column + p->from, permutation + p->from, p->till - p->from, QMO_SEQ_ASCENDING);
    }
    return NULL;
}

/* Sum per key from both outputs of a hash aggregate, read to the end. */
static int group_sums(qmo_seq_iterator_t *agg, qmo_seq_iterator_t *grp, int64_t *sums) {
    int rc;
    while ((rc = grp->next(grp)) == 0) {
        unsigned i;
        if ((rc = agg->next(agg)) != 0 || agg->tile_count != grp->tile_count) return rc ? rc : -1;
        for (i = 0; i < grp->tile_count; ++i) sums[grp->values.u2[i]] += agg->values.i8[i];
    }
    return rc == QMO_SEQ_END ? 0 : rc;
}

static int64_t whole_sums[KEYS], merged_sums[KEYS];

int main(void) {
    pthread_t threads[THREADS];
    struct partition whole;
    struct partition *first = &parts[0];
    uint64_t i;
    int p, failures = 0;

    for (i = 0; i < ROWS; ++i) {
        column[i] = (int32_t) ((i * 7919u) % 1000u);
        keys[i] = (uint16_t) ((i * 104729u) % KEYS);
    }
    for (p = 0; p < PARTS; ++p) {
        parts[p].from = (uint64_t) ROWS * p / PARTS;
        parts[p].till = (uint64_t) ROWS * (p + 1) / PARTS;
    }
    for (p = 0; p < THREADS; ++p) pthread_create(&threads[p], NULL, worker, (void *) (size_t) p);
    for (p = 0; p < THREADS; ++p) pthread_join(threads[p], NULL);

    for (p = 0; p < PARTS; ++p)
        if (parts[p].status) {
            fprintf(stderr, "partition %d failed with status %d\n", p, parts[p].status);
            return 1;
        }
    for (p = 1; p < PARTS; ++p) {
        first->sum.merge(&first->sum, &parts[p].sum);
        first->top.merge(&first->top, &parts[p].top);
        first->first.merge(&first->first, &parts[p].first);
        if (first->agg.merge(&first->agg, &parts[p].agg)) return fprintf(stderr, "merge failed\n"), 1;
    }

    /* One pass over the whole column, on this thread. */
    whole.from = 0;
    whole.till = ROWS;
    if (prepare(&whole)) return fprintf(stderr, "the single pass failed\n"), 1;

    if (first->sum.next(&first->sum) || whole.sum.next(&whole.sum) || first->sum.values.i8[0] != whole.sum.values.i8[0])
        failures += fprintf(stderr, "sums differ\n") > 0;
    if (first->top.next(&first->top) || whole.top.next(&whole.top) || first->top.tile_count != TOP ||
        memcmp(first->top.values.i4, whole.top.values.i4, TOP * 4) != 0)
        failures += fprintf(stderr, "top values differ\n") > 0;
    if (first->first.next(&first->first) || whole.first.next(&whole.first) ||
        first->first.tile_count != whole.first.tile_count ||
        memcmp(first->first.values.u8, whole.first.values.u8, whole.first.tile_count * 8) != 0)
        failures += fprintf(stderr, "first positions differ\n") > 0;
    if (group_sums(&first->agg, &first->grp, merged_sums) || group_sums(&whole.agg, &whole.grp, whole_sums) ||
        memcmp(merged_sums, whole_sums, sizeof whole_sums) != 0)
        failures += fprintf(stderr, "group sums differ\n") > 0;
    for (p = 0; p < PARTS; ++p)
        for (i = parts[p].from + 1; i < parts[p].till; ++i)
            if (column[parts[p].from + permutation[i]] < column[parts[p].from + permutation[i - 1]]) {
                failures += fprintf(stderr, "partition %d is not sorted\n", p) > 0;
                break;
            }

    printf("%d partitions on %d threads: sum %lld, largest %d, first above %d at %llu, %s\n", PARTS, THREADS,
           (long long) first->sum.values.i8[0], first->top.values.i4[0], LEVEL,
           (unsigned long long) first->first.values.u8[0], failures ? "MISMATCH" : "all equal to one pass");
    for (p = 0; p < PARTS; ++p) qmo_seq_release_hash(&parts[p].agg);
    qmo_seq_release_hash(&whole.agg);
    return failures ? 1 : 0;
}
