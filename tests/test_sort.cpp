// Sorting into permutations and the ordering iterator.
//
// The permutation, ties included, depends on the process-wide pivot seeds. A
// literal reference below starts from the library's current seed (read
// through the internal, unexported qmo::pivot_seed) and must end on the same
// seed with the same permutation; nothing in the library is reset for it.
#include "support.hpp"

#include "aggregate/sort.hpp"

#include <bit>
#include <cmath>
#include <random>

using namespace test;

namespace {

constexpr int kAsc = QMO_SEQ_ASCENDING, kDesc = QMO_SEQ_DESCENDING;

// NaN above every number and equal to every other NaN.
template <class T>
bool lt(T a, T b) {
    if constexpr (std::is_floating_point_v<T>) return a < b || (std::isnan(b) && !std::isnan(a));
    else return a < b;
}

// The algorithm step by step, unoptimised, comparing positions through less.
template <class Less>
struct Reference {
    Less less;
    uint32_t seed;
    int heap_sorts = 0;

    bool ascending(uint64_t n) {
        for (uint64_t i = 1; i < n; ++i)
            if (less(i, i - 1)) return false;
        return true;
    }
    void insertion(uint64_t *s, uint64_t n) {
        if (n == 2 && less(s[1], s[0])) std::swap(s[0], s[1]);
        if (n <= 2) return;
        uint64_t m = 1;
        for (uint64_t k = 2; k < n; ++k)
            if (less(s[k], s[m])) m = k;
        if (less(s[m], s[0])) std::swap(s[0], s[m]);
        for (uint64_t k = 2; k < n; ++k)
            for (uint64_t h = k; less(s[h], s[h - 1]); --h) std::swap(s[h], s[h - 1]);
    }
    void sift(uint64_t *s, uint64_t r, uint64_t end) {
        for (uint64_t c = 2 * r + 1; c < end; r = c, c = 2 * r + 1) {
            if (c + 1 < end && less(s[c], s[c + 1])) ++c;
            if (!less(s[r], s[c])) return;
            std::swap(s[r], s[c]);
        }
    }
    void qloop(uint64_t *s, uint64_t n, int depth) {
        for (;;) {
            if (n <= 50) return insertion(s, n);
            --depth;
            if (ascending(n)) return;  // the values array from its start, not the slice
            if (depth == -1) {
                ++heap_sorts;
                for (uint64_t i = n / 2; i-- > 0;) sift(s, i, n);
                for (uint64_t e = n - 1; e > 0; --e) std::swap(s[0], s[e]), sift(s, 0, e);
                return;
            }
            seed = seed * 69069u + 362437u;
            std::swap(s[0], s[seed % (n - 1)]);
            if (less(s[0], s[1])) std::swap(s[0], s[1]);
            if (less(s[n - 1], s[0])) {
                std::swap(s[0], s[n - 1]);
                if (less(s[0], s[1])) std::swap(s[0], s[1]);
            }
            uint64_t i = 1, j = n - 1;
            for (;;) {
                do ++i; while (less(s[i], s[0]));
                do --j; while (less(s[0], s[j]));
                if (i >= j) break;
                std::swap(s[i], s[j]);
            }
            std::swap(s[0], s[j]);
            qloop(s + j + 1, n - 1 - j, depth);
            n = j;
        }
    }
    void sort(uint64_t *perm, uint64_t n, int order) {
        auto init = [&](int o) { for (uint64_t i = 0; i < n; ++i) perm[i] = o == kDesc ? n - 1 - i : i; };
        if (n <= 1 || ascending(n)) return init(order);
        bool descending = true;
        for (uint64_t i = 1; i < n && descending; ++i) descending = !less(i - 1, i);
        if (descending) return init(order == kAsc ? kDesc : kAsc);
        init(kAsc);
        qloop(perm, n, n / 4 == 0 ? 4 : 2 * (2 + static_cast<int>(std::bit_width(n / 4))));
        if (order == kDesc)
            for (uint64_t k = 0; k < n - 1 - k; ++k) std::swap(perm[k], perm[n - 1 - k]);
    }
};

// Sorts with the library and with the reference from the library's seed:
// the permutations and the seeds afterwards must agree.
template <class Tag>
std::vector<uint64_t> sort_both(const std::vector<V<Tag>> &v, int order, int *heap_sorts = nullptr) {
    auto less = [&v](uint64_t p, uint64_t q) { return lt(v[p], v[q]); };
    Reference<decltype(less)> ref{less, qmo::pivot_seed(Tag::code_)};
    std::vector<uint64_t> want(v.size()), got(v.size(), 99);
    ref.sort(want.data(), v.size(), order);
    EXPECT_EQ(fn::sort<Tag>(v.data(), got.data(), v.size(), order), 0);
    EXPECT_TRUE(got == want) << "permutation differs from the reference";
    EXPECT_EQ(qmo::pivot_seed(Tag::code_), ref.seed) << "another number of partition steps";
    if (heap_sorts) *heap_sorts = ref.heap_sorts;
    return got;
}

// The values read through perm are those of std::stable_sort (reversed when descending).
template <class T>
void expect_value_order(const std::vector<T> &v, const std::vector<uint64_t> &perm, int order) {
    std::vector<T> want = v;
    std::stable_sort(want.begin(), want.end(), lt<T>);
    if (order == kDesc) std::reverse(want.begin(), want.end());
    size_t bad = 0;
    for (size_t i = 0; i < v.size(); ++i) bad += lt(v[perm[i]], want[i]) || lt(want[i], v[perm[i]]);
    EXPECT_EQ(bad, 0u) << "elements out of order";
}

// Specials: the type's extremes, and for floating types NaNs of both signs and signed zeros.
enum Shape { Random, Sorted, Reversed, OrganPipe, FewDistinct, NearlySorted, Specials };

template <class T>
std::vector<T> input(Shape shape, size_t n, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<> real(-1e6, 1e6);
    std::vector<T> v(n);
    for (size_t i = 0; i < n; ++i) {
        if (shape == OrganPipe) v[i] = static_cast<T>(std::min(i, n - 1 - i) * 100 / n);
        else if (shape == FewDistinct) v[i] = static_cast<T>(rng() % 5);
        else if constexpr (std::is_floating_point_v<T>) v[i] = static_cast<T>(real(rng));
        else v[i] = static_cast<T>(rng());
    }
    if (shape == Sorted || shape == Reversed || shape == NearlySorted) std::sort(v.begin(), v.end());
    if (shape == Reversed) std::reverse(v.begin(), v.end());
    for (size_t i = 0; shape == NearlySorted && i + 9 < n; i += 50) std::swap(v[i], v[i + 1 + rng() % 8]);
    using L = std::numeric_limits<T>;
    for (size_t i = 0; shape == Specials && i + 3 < n; i += 7) {
        v[i] = L::has_quiet_NaN ? (i % 2 ? L::quiet_NaN() : -L::quiet_NaN()) : i % 2 ? L::max() : L::lowest();
        v[i + 3] = L::has_quiet_NaN ? T(i % 2 ? 0.0 : -0.0) : i % 2 ? L::lowest() : L::max();
    }
    return v;
}

// Every shape, size and order; descending ones with memory refused, which
// 8-byte keys borrow for pairs when they can. Slices above 50 may stay
// unsorted only when the array opens with a longer ascending run (organ
// pipes, say): then only the reference can tell what is right.
template <class Tag>
void sort_every_shape(std::initializer_list<size_t> sizes, int last = Specials) {
    for (int s = Random; s <= last; ++s)
        for (size_t n : sizes)
            for (int order : {kAsc, kDesc}) {
                SCOPED_TRACE(testing::Message() << "shape " << s << ", n " << n << ", order " << order);
                Hooks hooks(order == kDesc);
                const auto v = input<V<Tag>>(Shape(s), n, n * 8 + s);
                const auto perm = sort_both<Tag>(v, order);
                const size_t run = std::is_sorted_until(v.begin(), v.end(), lt<V<Tag>>) - v.begin();
                if (run <= 50 || run == n) expect_value_order(v, perm, order);
                EXPECT_TRUE(Hooks::live.empty());
            }
}

// McIlroy's adversary answers each comparison as late as it can, so every
// partition of a sort from this seed comes out lopsided; the values it
// settles on spend the depth budget. Position 1 is fixed smallest first, so
// that the sorted-input shortcuts meet a descent at once. After `distinct`
// values the rest stay equal, so the heap sort meets ties.
std::vector<int64_t> adversarial(uint64_t n, uint32_t seed, int64_t distinct) {
    const int64_t gas = static_cast<int64_t>(n);
    std::vector<int64_t> val(n, gas);
    int64_t solid = 0;
    uint64_t candidate = n;
    val[1] = solid++;
    auto adversary = [&](uint64_t x, uint64_t y) {
        if (val[x] == gas && val[y] == gas && solid < distinct) val[x == candidate ? x : y] = solid++;
        if (val[x] == gas) candidate = x;
        else if (val[y] == gas) candidate = y;
        return val[x] < val[y];
    };
    std::vector<uint64_t> perm(n);
    Reference<decltype(adversary)>{adversary, seed}.sort(perm.data(), n, kAsc);
    return val;
}

}  // namespace

// ---- sorting ---------------------------------------------------------------------

template <class Tag>
class SortTyped : public ::testing::Test {};
TYPED_TEST_SUITE(SortTyped, NumericTypes);

TYPED_TEST(SortTyped, MatchesTheReferenceAndStableSortOnEveryShape) {
    sort_every_shape<TypeParam>({0, 1, 2, 3, 50, 51, 1000});
}

TEST(Sort, AMillionValuesOfEachKindOfLayout) {
    []<class... Tag>(Tag...) { (sort_every_shape<Tag>({1000000}, NearlySorted), ...); }(t_int1{}, t_int4{}, t_double{});
}

TEST(Sort, EdgeCases) {
    using Row = std::tuple<const char *, std::vector<int32_t>, int, std::vector<uint64_t>>;
    for (const auto &[what, v, order, want] : std::vector<Row>{
             {"one element", {7}, kDesc, {0}},
             {"non-decreasing, descending", {1, 2, 2, 3}, kDesc, {3, 2, 1, 0}},
             {"non-increasing, ascending: ties in reverse arrival", {3, 2, 2, 1}, kAsc, {3, 2, 1, 0}},
             {"non-increasing, descending", {3, 2, 2, 1}, kDesc, {0, 1, 2, 3}},
             {"all equal, ascending", {5, 5, 5}, kAsc, {0, 1, 2}},
             {"all equal, descending", {5, 5, 5}, kDesc, {2, 1, 0}},
             {"ties keep arrival order", {2, 1, 2, 1}, kAsc, {1, 3, 0, 2}},
             {"ties come out reversed when descending", {2, 1, 2, 1}, kDesc, {2, 0, 3, 1}},
             {"another order code sorts ascending", {2, 3, 1}, 0, {2, 0, 1}},
             {"but leaves a non-increasing input in arrival order", {3, 2, 1}, 7, {0, 1, 2}}}) {
        std::vector<uint64_t> perm(v.size());
        EXPECT_EQ(qmo_seq_sort_int4(v.data(), perm.data(), v.size(), order), 0);
        EXPECT_EQ(perm, want) << what;
    }
    uint64_t untouched = 99;
    EXPECT_EQ(qmo_seq_sort_int4(nullptr, &untouched, 0, kAsc), 0);
    EXPECT_EQ(untouched, 99u);
}

// The reference takes the same shortcut, so only this shows it is taken at all.
TEST(Sort, AnAscendingOpeningLongerThanASliceLeavesThatSliceAsItIs) {
    const auto v = input<int32_t>(OrganPipe, 1000, 0);
    const auto perm = sort_both<t_int4>(v, kAsc);
    EXPECT_FALSE(std::is_sorted(perm.begin(), perm.end(), [&](auto p, auto q) { return v[p] < v[q]; }));
}

TEST(Sort, ASpentDepthBudgetHeapSortsWithTheSameTies) {
    []<class... Tag>(Tag...) {
        ([] {
            const auto val = adversarial(1000, qmo::pivot_seed(Tag::code_), 100);
            const std::vector<V<Tag>> v(val.begin(), val.end());
            int heap_sorts = 0;
            expect_value_order(v, sort_both<Tag>(v, kAsc, &heap_sorts), kAsc);
            EXPECT_GT(heap_sorts, 0);
        }(), ...);
    }(t_int4{}, t_double{});
}

// ---- the ordering iterator --------------------------------------------------------

TYPED_TEST(SortTyped, OrderByDeliversThroughThePermutationWithNulls) {
    using T = V<TypeParam>;
    std::vector<T> v(300);
    std::vector<uint64_t> perm(300);
    for (size_t i = 0; i < 300; ++i) v[i] = static_cast<T>(i % 100), perm[i] = i * 7 % 300;
    Source<TypeParam> in(v, {0, 7, 299}, {100, 3});
    Iter out;
    ASSERT_EQ(fn::order_by<TypeParam>(&out, &in.it, perm.data(), 300, nullptr), 0);
    EXPECT_EQ(out.last_pos, 299u);
    EXPECT_EQ(out.reset, qmo_seq_reset_unary_iterator);
    const auto d = drain<T>(&out);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 44}));
    EXPECT_EQ(d.status, QMO_SEQ_END);
    for (size_t k = 0; k < 300; ++k) {
        ASSERT_EQ(d.values[k], v[perm[k]]) << k;
        ASSERT_EQ(d.nulls[k], perm[k] == 0 || perm[k] == 7 || perm[k] == 299) << k;
    }
    EXPECT_EQ(out.reset, qmo_seq_order_by_reset);
    EXPECT_EQ(out.reset(&out), 0);
    EXPECT_EQ(out.buf, nullptr);
    EXPECT_EQ(drain<T>(&out).values, d.values) << "read afresh after a reset";
    EXPECT_EQ(in.resets, 1);
    out.reset(&out);
}

// A caller's buffer is read as it is (no nulls), never pulled from the input and never freed.
TEST(OrderBy, CallersBufferAndConstructorChecks) {
    Hooks hooks;
    std::vector<int32_t> buffer = {10, 20, 30};
    const uint64_t perm[] = {2, 0, 1}, swap[] = {1, 0};
    Source<t_int4> in({1, 2, 3}, {0}), other({5, 6});
    Source<t_int8> wrong({1});
    Iter out, read;
    ASSERT_EQ(qmo_seq_order_by_int4(&out, &in.it, perm, 3, buffer.data()), 0);
    const auto d = drain_replayed<int32_t>(&out);
    EXPECT_EQ(d.values, (std::vector<int32_t>{30, 10, 20}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{0, 0, 0}));
    EXPECT_EQ(qmo_seq_order_by_reset(&out), 0);
    EXPECT_TRUE(out.buf == buffer.data() && in.pulls == 0 && Hooks::calls == 0);
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *o) { return qmo_seq_order_by_int4(o, &wrong.it, perm, 1, 0); },
                   {&wrong.it});
    BindingChecks on(1);
    ASSERT_EQ(qmo_seq_order_by_int4(&read, &other.it, swap, 2, nullptr), 0);
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *o) { return qmo_seq_order_by_int4(o, &other.it, swap, 2, 0); },
                   {&other.it});
    EXPECT_EQ(drain<int32_t>(&read).values, (std::vector<int32_t>{6, 5})) << "its own bound input is still read";
    EXPECT_EQ(other.it.bound, 1);
    read.reset(&read);
}

// Every failure gives back what was taken, and the next pull tries again.
TEST(OrderBy, FailuresGiveBackEverythingTaken) {
    const uint64_t perm[] = {4, 0, 2, 1, 3};
    using Row = std::tuple<const char *, int, int, std::vector<int32_t>, int>;
    for (const auto &[what, refuse_from, fail_with, input, status] :
         std::vector<Row>{{"buffer refused", 1, 0, {1, 2, 3, 4, 5}, QMO_SEQ_NO_MEMORY},
                          {"bitmap refused", 2, 0, {1, 2, 3, 4, 5}, QMO_SEQ_NO_MEMORY},
                          {"input error", 0, 4242, {1, 2, 3, 4, 5}, 4242},
                          {"empty input", 0, 0, {}, QMO_SEQ_END}}) {
        SCOPED_TRACE(what);
        Hooks hooks(refuse_from);
        Source<t_int4> in(input);
        in.fail_with = fail_with;
        Iter out;
        ASSERT_EQ(qmo_seq_order_by_int4(&out, &in.it, perm, 5, nullptr), 0);
        EXPECT_EQ(out.next(&out), status);
        EXPECT_TRUE(Hooks::live.empty() && out.buf == nullptr);
        Hooks::refuse_from = in.fail_with = 0;
        EXPECT_EQ(drain<int32_t>(&out).values.size(), input.size());
        out.reset(&out);
    }
    // A short input: positions past its end read as null zeros, until a reset forgets the short read.
    Hooks hooks;
    Source<t_int4> in({10, 20, 30});
    Iter out;
    ASSERT_EQ(qmo_seq_order_by_int4(&out, &in.it, perm, 5, nullptr), 0);
    const auto d = drain<int32_t>(&out);
    EXPECT_EQ(d.values, (std::vector<int32_t>{0, 10, 30}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{1, 0, 0}));
    ASSERT_EQ(out.reset(&out), 0);
    EXPECT_TRUE(Hooks::live.empty());
    const std::vector<int32_t> five = {10, 20, 30, 40, 50};
    in.load(five.data(), five.size(), {});
    EXPECT_EQ(drain<int32_t>(&out).values, (std::vector<int32_t>{50, 10, 30, 20, 40}));
    out.reset(&out);
}
