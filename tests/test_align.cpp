// Alignment of ascending sequences: union, join, as-of join and stretch0,
// each against a brute-force reference over random inputs in random tiles.
#include "support.hpp"

#include <random>
#include <set>

using namespace test;

namespace {

// Tile lengths for a scripted source, the empty one included when asked.
std::vector<unsigned> random_tiles(std::mt19937_64 &rng, bool with_empty) {
    static const unsigned kLengths[] = {1, 7, 63, 64, 65, 127, 128, 128};
    std::vector<unsigned> v(8);
    for (auto &x : v) x = kLengths[rng() % std::size(kLengths)];
    if (with_empty) v[rng() % 8] = 0;
    return v;
}

// n ascending values of the tag's type with repeats, at most `top`.
template <class Tag>
std::vector<V<Tag>> ascending(std::mt19937_64 &rng, size_t n, unsigned top) {
    if (sizeof(V<Tag>) == 1) top = std::min(top, 120u);
    std::vector<V<Tag>> v(n);
    for (auto &x : v) x = V<Tag>(rng() % (top + 1));
    std::sort(v.begin(), v.end());
    return v;
}

// Every tile full but the last, which is not empty.
void expect_packed(const std::vector<unsigned> &tiles) {
    for (size_t i = 0; i + 1 < tiles.size(); ++i) EXPECT_EQ(tiles[i], 128u) << "tile " << i;
    if (!tiles.empty()) {
        EXPECT_GT(tiles.back(), 0u);
    }
}

// ---- union ------------------------------------------------------------------------

template <class Tag>
class Union : public ::testing::Test {};
TYPED_TEST_SUITE(Union, NumericTypes);

template <class Tag>
void check_union(const std::vector<V<Tag>> &a, const std::vector<V<Tag>> &b, std::vector<unsigned> at = {128},
                 std::vector<unsigned> bt = {128}) {
    std::set<V<Tag>> all(a.begin(), a.end());
    all.insert(b.begin(), b.end());
    Source<Tag> l(a, {}, at), r(b, {}, bt);
    Iter out;
    ASSERT_EQ(fn::union_<Tag>(&out, &l.it, &r.it), 0);
    out.next(&out);
    ASSERT_EQ(out.reset(&out), 0);
    const auto d = drain_replayed<V<Tag>>(&out);
    EXPECT_EQ(d.status, QMO_SEQ_END);
    EXPECT_EQ(d.values, std::vector<V<Tag>>(all.begin(), all.end()));
    EXPECT_EQ(std::count(d.nulls.begin(), d.nulls.end(), true), 0);
    expect_packed(d.tiles);
}

}  // namespace

TYPED_TEST(Union, MergesWithoutRepeats) {
    using T = V<TypeParam>;
    using v = std::vector<T>;
    check_union<TypeParam>({1, 2, 2, 5}, {2, 3, 5, 5, 9});
    check_union<TypeParam>({}, {4, 4, 6});
    check_union<TypeParam>({4, 4, 6}, {});
    check_union<TypeParam>({}, {});
    check_union<TypeParam>(v(300, 7), v(200, 7), {1, 0, 64}, {0, 127});  // one value in every tile
    std::mt19937_64 rng(29);
    Hooks refuse_all(1);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round);
        check_union<TypeParam>(ascending<TypeParam>(rng, rng() % 400, 1000), ascending<TypeParam>(rng, rng() % 400, 1000),
                               random_tiles(rng, round % 2), random_tiles(rng, round % 3 == 0));
    }
    EXPECT_EQ(Hooks::calls, 0);
}

TYPED_TEST(Union, RefusesNullsAndDescentsWhereverTheyStand) {
    using T = V<TypeParam>;
    std::vector<T> up(300);
    for (size_t i = 0; i < up.size(); ++i) up[i] = T(i / 3);
    struct Row {
        const char *name;
        int side, null_at, drop_at, fail_with, status;
    } rows[] = {
        {"null on the left", 0, 200, -1, 0, QMO_SEQ_NULL_VALUE},
        {"null on the right", 1, 0, -1, 0, QMO_SEQ_NULL_VALUE},
        {"descent inside a tile", 0, -1, 5, 0, QMO_SEQ_INVALID_ARGUMENT},
        {"descent across tiles", 1, -1, 128, 0, QMO_SEQ_INVALID_ARGUMENT},
        {"status passed on", 1, -1, -1, QMO_SEQ_UNSUPPORTED, QMO_SEQ_UNSUPPORTED},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<T> a = up, b = up;
        std::vector<T> &side = row.side ? b : a;
        if (row.drop_at >= 0) side[row.drop_at] = T(side[row.drop_at - 1] - 1);
        Source<TypeParam> l(a), r(b);
        Script &s = row.side ? r : l;
        if (row.null_at >= 0) s.nulls[row.null_at] = true;
        if (row.fail_with) s.fail_with = row.fail_with, s.fail_from = 2;
        EXPECT_EQ(run<T>(fn::union_<TypeParam>, &l.it, &r.it).status, row.status);
    }
    if constexpr (is_float_v<TypeParam>) {
        Source<TypeParam> l({std::numeric_limits<T>::quiet_NaN()}), r({});
        EXPECT_EQ(run<T>(fn::union_<TypeParam>, &l.it, &r.it).status, QMO_SEQ_INVALID_ARGUMENT);
    }
}
