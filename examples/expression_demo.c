/* Builds (a + b) > c over constants, pulls two tiles and prints them. */
#include "qmo_seq.h"

#include <stdio.h>

static int print_tile(const char *label, qmo_seq_iterator_t *it) {
    int rc = it->next(it);
    unsigned i;
    if (rc != QMO_SEQ_OK) {
        printf("%s: status %d\n", label, rc);
        return rc;
    }
    printf("%s: %u elements, position %llu:", label, (unsigned) it->tile_count,
           (unsigned long long) it->pos);
    for (i = 0; i < 8; ++i) printf(" %u", (unsigned) it->values.u1[i]);
    printf(" ...\n");
    return 0;
}

int main(void) {
    qmo_seq_iterator_t a, b, c, sum, gt;
    int rc;

    qmo_seq_const_int4(&a, 20);
    qmo_seq_const_int4(&b, 22);
    qmo_seq_const_int4(&c, 41);
    if ((rc = qmo_seq_add_int4(&sum, &a, &b)) != QMO_SEQ_OK ||
        (rc = qmo_seq_gt_int4(&gt, &sum, &c)) != QMO_SEQ_OK) {
        fprintf(stderr, "building the expression failed with status %d\n", rc);
        return 1;
    }
    printf("(20 + 22) > 41, tile by tile\n");
    if (print_tile("tile 1", &gt) || print_tile("tile 2", &gt)) return 1;
    return 0;
}
