/* The public header as strict C99 (built with -std=c99 -pedantic -Werror)
 * and linked against the shared library: an expression built and pulled from
 * C. That every declared name is exported is checked by check_exports.cmake. */
#include "qmo_seq.h"

#include <stdio.h>
#include <string.h>

/* One digit per token. */
static int digit(void *context, const char *token, void *value, uint64_t *consumed) {
    int32_t d = *token - '0';
    (void)context;
    if (d < 0 || d > 9) return QMO_SEQ_INVALID_ARGUMENT;
    memcpy(value, &d, sizeof d);
    *consumed = 1;
    return QMO_SEQ_OK;
}

int main(void) {
    qmo_seq_iterator_t a, b, c, sum, gt, digits;
    uint8_t v = 0;
    char text[16];
    uint64_t size = sizeof text;
    qmo_seq_const_int4(&a, 2);
    qmo_seq_const_int4(&b, 3);
    qmo_seq_const_int4(&c, 4);
    if (qmo_seq_add_int4(&sum, &a, &b) || qmo_seq_gt_int4(&gt, &sum, &c)) return 1;
    if (qmo_seq_next_uint1(&gt, &v) != QMO_SEQ_OK || v != 1) return 1;
    if (!qmo_seq_malloc || !qmo_seq_free) return 1;
    if (qmo_seq_custom_parse(&digits, "{7, 8,null}", QMO_SEQ_TYPE_INT4, 4, digit, NULL) ||
        qmo_seq_print_int4(&digits, text, &size, "%d") || size != 10 || strcmp(text, "{7,8,null}") != 0)
        return 1;
    puts("(2 + 3) > 4 and {7,8,null} from C99");
    return 0;
}
