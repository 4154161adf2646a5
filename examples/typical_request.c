/* The typical request: the sum of the column's values above a threshold,
 * reader -> constant -> gt -> filter -> agg_sum, checked against a loop. */
#include "qmo_seq.h"

#include <stdio.h>

#define ROWS 100000

int main(void) {
    static int32_t column[ROWS];
    qmo_seq_iterator_t values, values_again, threshold, above, kept, sum;
    int64_t expected = 0, total = 0;
    int i, rc;

    for (i = 0; i < ROWS; ++i) {
        column[i] = (int32_t) ((i * 7919) % 1000);
        if (column[i] > 500) expected += column[i];
    }
    /* The column is read twice: once for the condition, once for the values. */
    qmo_seq_unget_int4(&values, column, ROWS);
    qmo_seq_unget_int4(&values_again, column, ROWS);
    qmo_seq_const_int4(&threshold, 500);
    if ((rc = qmo_seq_gt_int4(&above, &values, &threshold)) != QMO_SEQ_OK ||
        (rc = qmo_seq_filter_int4(&kept, &above, &values_again)) != QMO_SEQ_OK ||
        (rc = qmo_seq_agg_sum_int4(&sum, &kept)) != QMO_SEQ_OK) {
        fprintf(stderr, "building the request failed with status %d\n", rc);
        return 1;
    }
    if ((rc = qmo_seq_next_int8(&sum, &total)) != QMO_SEQ_OK) {
        fprintf(stderr, "pulling the sum failed with status %d\n", rc);
        return 1;
    }
    rc = qmo_seq_next_int8(&sum, &total);  /* one element, then the end */
    printf("sum of values above 500: %lld (plain loop: %lld), then status %d\n", (long long) total,
           (long long) expected, rc);
    return total == expected && rc == QMO_SEQ_END ? 0 : 1;
}
