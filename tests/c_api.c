/* The public header as strict C99 (built with -std=c99 -pedantic -Werror)
 * and linked against the shared library: an expression built and pulled from
 * C. That every declared name is exported is checked by check_exports.cmake. */
#include "qmo_seq.h"

#include <stdio.h>

int main(void) {
    qmo_seq_iterator_t a, b, c, sum, gt;
    uint8_t v = 0;
    qmo_seq_const_int4(&a, 2);
    qmo_seq_const_int4(&b, 3);
    qmo_seq_const_int4(&c, 4);
    if (qmo_seq_add_int4(&sum, &a, &b) || qmo_seq_gt_int4(&gt, &sum, &c)) return 1;
    if (qmo_seq_next_uint1(&gt, &v) != QMO_SEQ_OK || v != 1) return 1;
    if (!qmo_seq_malloc || !qmo_seq_free) return 1;
    puts("(2 + 3) > 4 from C99");
    return 0;
}
