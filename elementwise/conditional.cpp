// Conditionals (lazy if, positional iif) and caller callbacks (func, cond,
// func2, with and without context).
#include "frame/construct.hpp"
#include "frame/isa.hpp"

#include <bit>
#include <string_view>

#include <algorithm>

namespace qmo {
namespace {

// State words: if keeps its branch cursors; callbacks their function and context.
constexpr unsigned kThenCursor = 0, kElseCursor = 1;
constexpr unsigned kCallback = 0, kContext = 1;

// ---- if / iif ---------------------------------------------------------------

template <class E>
int if_next(Iter *it) {
    Iter *cond = it->operand1;
    if (int rc = cond->next(cond)) return rc;
    const unsigned n = cond->tile_count;
    clear_nulls(it);
    for (unsigned i = 0; i < n; ++i) {
        const bool pick_then = is_true(cond, i);
        Iter *branch = pick_then ? it->operand2 : it->operand3;
        uint64_t &cursor = it->state[pick_then ? kThenCursor : kElseCursor];
        // Each branch advances only by what it supplied.
        while (cursor >= branch->tile_count) {
            if (int rc = branch->next(branch)) return rc;
            cursor = 0;
        }
        const unsigned j = static_cast<unsigned>(cursor++);
        copy_elem<E>(it, i, branch, j);
        set_null_bit(it, i, is_null(branch, j));
    }
    return deliver(it, n);
}

template <class E>
int iif_next(Iter *it) {
    Iter *cond = it->operand1, *then_branch = it->operand2, *else_branch = it->operand3;
    for (Iter *o : {cond, then_branch, else_branch})
        if (int rc = o->next(o)) return rc;
    const unsigned n = std::min({cond->tile_count, then_branch->tile_count, else_branch->tile_count});
    // Selection as bitmap words: non-zero bytes minus null conditions.
    uint64_t pick[2] = {0, 0};
    const uint8_t *c = tile<uint8_t>(cond);
    for (unsigned i = 0; i < n; ++i) pick[i >> 6] |= uint64_t{c[i] != 0} << (i & 63);
    for (unsigned w = 0; w < 2; ++w) {
        pick[w] &= ~cond->null_bitmap[w];
        it->null_bitmap[w] =
            ((pick[w] & then_branch->null_bitmap[w]) | (~pick[w] & else_branch->null_bitmap[w])) & tile_mask(n, w);
    }
    if constexpr (E::is_char) {
        for (unsigned i = 0; i < n; ++i)
            copy_elem<E>(it, i, (pick[i >> 6] >> (i & 63)) & 1 ? then_branch : else_branch, i);
    } else {
        // A branch-free select on the bytes vectorises; null conditions then take else.
        using T = value_t<E>;
        const T *t = tile<T>(then_branch), *e = tile<T>(else_branch);
        T *out = tile<T>(it);
        for (unsigned i = 0; i < n; ++i) out[i] = c[i] != 0 ? t[i] : e[i];
        for (unsigned w = 0; w < 2; ++w)
            for (uint64_t nulls = cond->null_bitmap[w] & tile_mask(n, w); nulls; nulls &= nulls - 1) {
                const unsigned i = w * 64 + static_cast<unsigned>(std::countr_zero(nulls));
                out[i] = e[i];
            }
    }
    return deliver(it, n);
}

template <class E>
int construct_if(Iter *result, Iter *cond, Iter *then_branch, Iter *else_branch, qmo_seq_next_fn next,
                 qmo_seq_reset_fn reset) {
    if (int rc = expect_type(cond, QMO_SEQ_TYPE_UINT1)) return rc;
    if (int rc = expect_types({then_branch, else_branch}, E::code)) return rc;
    if (then_branch->elem_size != else_branch->elem_size) return QMO_SEQ_TYPE_MISMATCH;
    return construct(result, Setup{E::code, then_branch->elem_size, next, reset, cond, then_branch, else_branch});
}

// ---- callbacks --------------------------------------------------------------

// The callback's C type for element type E: numeric callbacks take and return
// values; char callbacks take pointers and the width and write the output slot.
template <class E, bool Cond, bool Binary, bool Ctx>
struct Callback {
    using T = value_t<E>;
    using R = std::conditional_t<Cond, uint8_t, T>;
    using fn = std::conditional_t<
        Binary, std::conditional_t<Ctx, R (*)(T, T, void *), R (*)(T, T)>,
        std::conditional_t<Ctx, R (*)(T, void *), R (*)(T)>>;
};
template <bool Cond, bool Binary, bool Ctx>
struct Callback<CharElem, Cond, Binary, Ctx> {
    using fn = std::conditional_t<
        Cond, std::conditional_t<Ctx, uint8_t (*)(const char *, size_t, void *), uint8_t (*)(const char *, size_t)>,
        std::conditional_t<
            Binary,
            std::conditional_t<Ctx, void (*)(char *, const char *, const char *, size_t, void *),
                               void (*)(char *, const char *, const char *, size_t)>,
            std::conditional_t<Ctx, void (*)(char *, const char *, size_t, void *),
                               void (*)(char *, const char *, size_t)>>>;
};

template <class E, bool Cond, bool Binary, bool Ctx>
int callback_next(Iter *it) {
    using Fn = typename Callback<E, Cond, Binary, Ctx>::fn;
    const Fn f = reinterpret_cast<Fn>(static_cast<uintptr_t>(it->state[kCallback]));
    void *ctx = reinterpret_cast<void *>(static_cast<uintptr_t>(it->state[kContext]));
    Iter *a = it->operand1, *b = it->operand2;
    if (int rc = a->next(a)) return rc;
    unsigned n = a->tile_count;
    if constexpr (Binary) {
        if (int rc = b->next(b)) return rc;
        n = std::min(n, unsigned{b->tile_count});
        it->null_bitmap[0] = a->null_bitmap[0] | b->null_bitmap[0];
        it->null_bitmap[1] = a->null_bitmap[1] | b->null_bitmap[1];
    } else {
        copy_nulls(it, a);
    }
    if constexpr (E::is_char) {
        const size_t w = a->elem_size;
        const char *x = tile<char>(a);
        for (unsigned i = 0; i < n; ++i) {
            if constexpr (Cond) {
                if constexpr (Ctx) it->values.u1[i] = f(x + i * w, w, ctx);
                else it->values.u1[i] = f(x + i * w, w);
            } else if constexpr (Binary) {
                const char *y = tile<char>(b);
                if constexpr (Ctx) f(tile<char>(it) + i * w, x + i * w, y + i * w, w, ctx);
                else f(tile<char>(it) + i * w, x + i * w, y + i * w, w);
            } else {
                if constexpr (Ctx) f(tile<char>(it) + i * w, x + i * w, w, ctx);
                else f(tile<char>(it) + i * w, x + i * w, w);
            }
        }
    } else {
        using T = value_t<E>;
        using R = typename Callback<E, Cond, Binary, Ctx>::R;
        const T *x = tile<T>(a);
        R *out = tile<R>(it);
        for (unsigned i = 0; i < n; ++i) {
            if constexpr (Binary) {
                if constexpr (Ctx) out[i] = f(x[i], tile<T>(b)[i], ctx);
                else out[i] = f(x[i], tile<T>(b)[i]);
            } else {
                if constexpr (Ctx) out[i] = f(x[i], ctx);
                else out[i] = f(x[i]);
            }
        }
    }
    return deliver(it, n);
}

template <class E, bool Cond, bool Binary, bool Ctx>
int construct_callback(Iter *result, Iter *a, Iter *b, typename Callback<E, Cond, Binary, Ctx>::fn f, void *ctx,
                       qmo_seq_next_fn next) {
    if (int rc = expect_type(a, E::code)) return rc;
    if constexpr (Binary) {
        if (int rc = expect_type(b, E::code)) return rc;
        if (a->elem_size != b->elem_size) return QMO_SEQ_TYPE_MISMATCH;
    }
    const int type = Cond ? QMO_SEQ_TYPE_UINT1 : E::code;
    const unsigned size = Cond ? 1 : a->elem_size;
    const qmo_seq_reset_fn reset = Binary ? qmo_seq_reset_binary_iterator : qmo_seq_reset_unary_iterator;
    if (int rc = construct(result, Setup{type, size, next, reset, a, Binary ? b : nullptr})) return rc;
    result->state[kCallback] = reinterpret_cast<uintptr_t>(f);
    result->state[kContext] = reinterpret_cast<uintptr_t>(ctx);
    return QMO_SEQ_OK;
}

}  // namespace
}  // namespace qmo

QMO_EXPORT int qmo_seq_if_reset(qmo_seq_iterator_t *it) {
    for (qmo::Iter *branch : {it->operand2, it->operand3})
        if (int rc = branch->reset(branch)) return rc;
    const int rc = qmo_seq_reset_unary_iterator(it);
    it->state[qmo::kThenCursor] = 0;
    it->state[qmo::kElseCursor] = 0;
    return rc;
}

QMO_EXPORT int qmo_seq_iif_reset(qmo_seq_iterator_t *it) {
    for (qmo::Iter *branch : {it->operand2, it->operand3})
        if (int rc = branch->reset(branch)) return rc;
    return qmo_seq_reset_unary_iterator(it);
}

namespace qmo {
// The callback shapes: a family named cond... answers with a byte per element.
constexpr bool is_condition(std::string_view family) { return family.starts_with("cond"); }
// iif's branch-free select pays off compiled for AVX2; if walks element by element.
template <class E>
int if_entry(Iter *it) { return if_next<E>(it); }
template <class E>
int iif_entry(Iter *it) { return dispatch<iif_next<E>, iif_next<E>>(it); }
}  // namespace qmo

#define QMO_CALLBACK_NEXT_(family, t, code, binary, ctx)                                               \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                              \
        return qmo::callback_next<qmo::Elem<code>, qmo::is_condition(#family), binary, ctx>(it);         \
    }                                                                                                   \
    static_assert(std::is_same_v<qmo_seq_##family##_##t##_fn,                                          \
                                 qmo::Callback<qmo::Elem<code>, qmo::is_condition(#family), binary, ctx>::fn>);
#define QMO_CALLBACK_MAKE_(family, t, code, binary, ctx, b, c)                                          \
    qmo::construct_callback<qmo::Elem<code>, qmo::is_condition(#family), binary, ctx>(                 \
        r, a, b, f, c, qmo_seq_##family##_##t##_next)

#define QMO_STAMP_CALLBACK(family, t, ctype, code)                                                        \
    QMO_CALLBACK_NEXT_(family, t, code, false, false)                                                    \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *r, qmo_seq_iterator_t *a,                   \
                                          qmo_seq_##family##_##t##_fn f) {                               \
        return QMO_CALLBACK_MAKE_(family, t, code, false, false, nullptr, nullptr);                      \
    }
#define QMO_STAMP_CALLBACK_CTX(family, t, ctype, code)                                                    \
    QMO_CALLBACK_NEXT_(family, t, code, false, true)                                                     \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *r, qmo_seq_iterator_t *a,                   \
                                          qmo_seq_##family##_##t##_fn f, void *ctx) {                    \
        return QMO_CALLBACK_MAKE_(family, t, code, false, true, nullptr, ctx);                           \
    }
#define QMO_STAMP_CALLBACK2(family, t, ctype, code)                                                       \
    QMO_CALLBACK_NEXT_(family, t, code, true, false)                                                     \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *r, qmo_seq_iterator_t *a,                   \
                                          qmo_seq_iterator_t *b, qmo_seq_##family##_##t##_fn f) {        \
        return QMO_CALLBACK_MAKE_(family, t, code, true, false, b, nullptr);                             \
    }
#define QMO_STAMP_CALLBACK2_CTX(family, t, ctype, code)                                                   \
    QMO_CALLBACK_NEXT_(family, t, code, true, true)                                                      \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *r, qmo_seq_iterator_t *a,                   \
                                          qmo_seq_iterator_t *b, qmo_seq_##family##_##t##_fn f,          \
                                          void *ctx) {                                                   \
        return QMO_CALLBACK_MAKE_(family, t, code, true, true, b, ctx);                                  \
    }
// if and iif, each with its own reset.
#define QMO_STAMP_SELECT(family, t, ctype, code)                                                          \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                               \
        return qmo::family##_entry<qmo::Elem<code>>(it);                                                 \
    }                                                                                                    \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *r, qmo_seq_iterator_t *c, qmo_seq_iterator_t *x, \
                                          qmo_seq_iterator_t *y) {                                       \
        return qmo::construct_if<qmo::Elem<code>>(r, c, x, y, qmo_seq_##family##_##t##_next,             \
                                                  qmo_seq_##family##_reset);                             \
    }

QMO_SEQ_CONDITIONAL_FAMILIES(QMO_STAMP_FAMILY)
