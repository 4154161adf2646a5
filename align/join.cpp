// Join: the inner join on equal elements of two ascending sequences, as two
// position outputs that advance in lockstep over one shared record.
#include "align/ordered.hpp"

#include <algorithm>
#include <new>

namespace qmo {
namespace {


// Output state words.
enum : unsigned {
    kShared,  // the shared record, null once both outputs were reset
    kSide,    // 0 left positions, 1 right positions
    kTwin,    // the other output
};

// One side's place: its tile cursor, the ordinal of its head, the order check.
struct Place {
    unsigned cursor;
    bool ended, has_prev;
    uint64_t ordinal;
    uint64_t prev;  // the last element pulled, as its bits
};

struct Shared {
    Iter *outputs[2];
    uint64_t steps;     // steps computed
    uint64_t taken[2];  // tiles each output has taken
    bool reset[2];      // outputs reset since the record was taken
    // The tile of the output that has not pulled the last step yet.
    int pending_status;
    unsigned pending_count;
    uint64_t pending[kTile];
    Place side[2];
    // A run of equal elements: the right ordinals [run_begin, run_end) pair
    // with every left element equal to run_value; pair_next is the next one
    // for the left head.
    bool in_run;
    uint64_t run_value, run_begin, run_end, pair_next;
};

// Makes the side's head available: pulls while its tile is used up. A status
// other than 0 is returned; the end sets `ended`.
template <class T>
int head(Iter *src, Place &p) noexcept {
    while (!p.ended && p.cursor >= src->tile_count) {
        T prev;
        std::memcpy(&prev, &p.prev, sizeof prev);
        const int rc = align::pull_ascending(src, prev, p.has_prev);
        if (rc == QMO_SEQ_END) {
            p.ended = true;
            break;
        }
        if (rc) return rc;
        p.prev = 0;
        std::memcpy(&p.prev, &prev, sizeof prev);
        p.cursor = 0;
    }
    return QMO_SEQ_OK;
}

// Up to 128 pairs into lp and rp; 11 when the join has no more.
template <class T>
int join_step(Shared &sh, Iter *left, Iter *right, uint64_t *lp, uint64_t *rp, unsigned &count) noexcept {
    Place &L = sh.side[0], &R = sh.side[1];
    const T *a = tile<T>(left), *b = tile<T>(right);
    unsigned k = 0;
    while (k < kTile) {
        if (sh.in_run) {
            // The left head equals the run: pair it with the run's right ordinals.
            const uint64_t upto = std::min<uint64_t>(sh.run_end, sh.pair_next + (kTile - k));
            for (uint64_t j = sh.pair_next; j < upto; ++j, ++k) lp[k] = L.ordinal, rp[k] = j;
            sh.pair_next = upto;
            if (upto < sh.run_end) break;
            ++L.cursor, ++L.ordinal;
            if (int rc = head<T>(left, L)) return rc;
            T v;
            std::memcpy(&v, &sh.run_value, sizeof v);
            sh.in_run = !L.ended && a[L.cursor] == v;
            sh.pair_next = sh.run_begin;
            continue;
        }
        if (int rc = head<T>(left, L)) return rc;
        if (int rc = head<T>(right, R)) return rc;
        if (L.ended || R.ended) break;
        const unsigned ln = left->tile_count, rn = right->tile_count;
        const T x = a[L.cursor], y = b[R.cursor];
        if (x < y) {
            const unsigned from = L.cursor;
            while (L.cursor < ln && a[L.cursor] < y) ++L.cursor;
            L.ordinal += L.cursor - from;
        } else if (y < x) {
            const unsigned from = R.cursor;
            while (R.cursor < rn && b[R.cursor] < x) ++R.cursor;
            R.ordinal += R.cursor - from;
        } else {
            // Count the right run, across tiles if need be: only its ordinals are kept.
            sh.run_value = 0;
            std::memcpy(&sh.run_value, &x, sizeof x);
            sh.run_begin = R.ordinal;
            for (;;) {
                const unsigned from = R.cursor, n = right->tile_count;
                while (R.cursor < n && b[R.cursor] == x) ++R.cursor;
                R.ordinal += R.cursor - from;
                if (R.cursor < n) break;
                if (int rc = head<T>(right, R)) return rc;
                if (R.ended) break;
            }
            sh.run_end = R.ordinal;
            sh.pair_next = sh.run_begin;
            sh.in_run = true;
        }
    }
    count = k;
    return k ? QMO_SEQ_OK : QMO_SEQ_END;
}

void share(void *mem, Iter *lp, Iter *rp) noexcept {
    Shared *sh = new (mem) Shared{};
    sh->outputs[0] = lp;
    sh->outputs[1] = rp;
    lp->state[kShared] = rp->state[kShared] = reinterpret_cast<uintptr_t>(sh);
}

template <class E>
int join_next(Iter *it) noexcept {
    auto *sh = reinterpret_cast<Shared *>(static_cast<uintptr_t>(it->state[kShared]));
    const unsigned side = static_cast<unsigned>(it->state[kSide]);
    if (!sh) {
        Iter *twin = reinterpret_cast<Iter *>(static_cast<uintptr_t>(it->state[kTwin]));
        Iter *lp = side ? twin : it, *rp = side ? it : twin;
        void *mem = qmo_seq_malloc(lp, sizeof(Shared));
        if (!mem) return QMO_SEQ_NO_MEMORY;
        share(mem, lp, rp);
        sh = reinterpret_cast<Shared *>(static_cast<uintptr_t>(it->state[kShared]));
    }
    uint64_t *out = tile<uint64_t>(it);
    clear_nulls(it);
    if (sh->taken[side] < sh->steps) {
        // The twin computed this step: take the tile it left.
        ++sh->taken[side];
        if (sh->pending_status) return sh->pending_status;
        std::memcpy(out, sh->pending, sh->pending_count * sizeof *out);
        return deliver(it, sh->pending_count);
    }
    // A step ahead of the twin would overwrite the tile it has not taken.
    if (sh->taken[1 - side] < sh->steps) return QMO_SEQ_LENGTH_MISMATCH;
    unsigned count = 0;
    const int rc = side ? join_step<value_t<E>>(*sh, it->operand1, it->operand2, sh->pending, out, count)
                        : join_step<value_t<E>>(*sh, it->operand1, it->operand2, out, sh->pending, count);
    ++sh->steps;
    ++sh->taken[side];
    sh->pending_status = rc;
    sh->pending_count = rc ? 0 : count;
    return rc ? rc : deliver(it, count);
}

template <class E>
int construct_join(Iter *lp, Iter *rp, Iter *left, Iter *right, qmo_seq_next_fn next) noexcept {
    if (int rc = expect_types({left, right}, E::code)) return rc;
    const Setup s{QMO_SEQ_TYPE_UINT8, 8, next, qmo_seq_join_reset, left, right};
    if (int rc = check_unbound(s)) return rc;
    if (lp == rp) return QMO_SEQ_INVALID_ARGUMENT;
    void *mem = qmo_seq_malloc(lp, sizeof(Shared));
    if (!mem) return QMO_SEQ_NO_MEMORY;
    construct(lp, s);
    fill(rp, s);
    lp->state[kTwin] = reinterpret_cast<uintptr_t>(rp);
    rp->state[kTwin] = reinterpret_cast<uintptr_t>(lp);
    rp->state[kSide] = 1;
    share(mem, lp, rp);
    return QMO_SEQ_OK;
}

}  // namespace
}  // namespace qmo

QMO_EXPORT int qmo_seq_join_reset(qmo_seq_iterator_t *it) {
    using namespace qmo;
    auto *sh = reinterpret_cast<Shared *>(static_cast<uintptr_t>(it->state[kShared]));
    int rc = qmo_seq_reset_iterator(it);
    if (!sh) return rc;
    sh->reset[it->state[kSide]] = true;
    if (!(sh->reset[0] && sh->reset[1])) return rc;
    // The second reset of the pair rewinds the operands and gives the record back.
    Iter *lp = sh->outputs[0], *rp = sh->outputs[1];
    for (Iter *o : {it->operand1, it->operand2})
        if (int r = o->reset(o); r && !rc) rc = r;
    lp->state[kShared] = rp->state[kShared] = 0;
    qmo_seq_free(lp, sh, sizeof *sh);
    return rc;
}

#define QMO_STAMP_JOIN(family, t, ctype, code)                                                           \
    QMO_EXPORT int qmo_seq_##family##_##t##_next(qmo_seq_iterator_t *it) {                               \
        return qmo::family##_next<qmo::Elem<code>>(it);                                                  \
    }                                                                                                    \
    QMO_EXPORT int qmo_seq_##family##_##t(qmo_seq_iterator_t *left_positions,                           \
                                          qmo_seq_iterator_t *right_positions, qmo_seq_iterator_t *left, \
                                          qmo_seq_iterator_t *right) {                                   \
        return qmo::construct_##family<qmo::Elem<code>>(left_positions, right_positions, left, right,   \
                                                        qmo_seq_##family##_##t##_next);                  \
    }
QMO_SEQ_JOIN_FAMILIES(QMO_STAMP_FAMILY)
