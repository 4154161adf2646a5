// Parse sources and pattern matching: round trips of every type with nulls
// across tiles, the text form's quirks, the token scanner against sscanf on
// the whole text, and the matchers against a small recursive model.
#include "support.hpp"

#include "frame/scan.hpp"

#include <cstdio>
#include <random>

using namespace test;

namespace {

// ---- parsing ------------------------------------------------------------------

template <class Tag>
class ParseTyped : public ::testing::Test {};
TYPED_TEST_SUITE(ParseTyped, NumericTypes);

TYPED_TEST(ParseTyped, RoundTripWithNullsAcrossTilesThenABadToken) {
    using T = V<TypeParam>;
    std::vector<T> values;
    std::vector<bool> nulls;
    std::string text = "{";
    for (int i = 0; i < 300; ++i) {
        const bool null = i % 127 == 5 || i == 128 || i == 299;
        const T v = static_cast<T>(is_signed_v<TypeParam> && i % 3 ? -i : i * 7 / 2);
        char item[64];
        if (null) std::snprintf(item, sizeof item, "null");
        else if (is_float_v<TypeParam>) std::snprintf(item, sizeof item, "%s%.9g", i % 2 ? " " : "", double(v) + 0.5);
        else std::snprintf(item, sizeof item, "%s%lld", i % 2 ? "  " : "", static_cast<long long>(v));
        if (i) text += ',';
        text += item;
        values.push_back(null ? T{} : is_float_v<TypeParam> ? static_cast<T>(double(v) + 0.5) : v);
        nulls.push_back(null);
    }
    text += "}";
    Iter it;
    ASSERT_EQ(fn::parse<TypeParam>(&it, text.c_str()), 0);
    EXPECT_EQ(it.elem_type, TypeParam::code_);
    const Drained<T> d = drain_replayed<T>(&it);
    EXPECT_EQ(d.status, QMO_SEQ_END);
    EXPECT_EQ(d.tiles, (std::vector<unsigned>{128, 128, 44}));
    EXPECT_EQ(d.values, values);
    EXPECT_EQ(d.nulls, nulls);

    // A bad token in the third tile: that pull fails, and fails again, without
    // moving; a reset starts over.
    text.back() = ',';
    text += "x}";
    ASSERT_EQ(fn::parse<TypeParam>(&it, text.c_str()), 0);
    ASSERT_EQ(it.next(&it) | it.next(&it), 0);
    const uint64_t at = it.state[0], pos = it.pos;
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(it.next(&it), QMO_SEQ_INVALID_ARGUMENT);
        EXPECT_TRUE(it.state[0] == at && it.pos == pos && it.tile_count == 0);
    }
    EXPECT_EQ(it.reset(&it), 0);
    EXPECT_EQ(drain<T>(&it).values.size(), 256u);
}

TEST(Parse, TextForm) {
    const auto i4 = qmo_seq_parse_int4, u4 = qmo_seq_parse_uint4, i1 = qmo_seq_parse_int1, f8 = qmo_seq_parse_double;
    const struct {
        const char *name, *text;
        int (*parse)(Iter *, const char *);
        int status;                  // of the first pull
        std::vector<double> values;  // NAN: a null element
    } rows[] = {
        {"list with a null", "{1,2,null,4}", i4, 0, {1, 2, NAN, 4}},
        {"empty list", "{}", i4, QMO_SEQ_END, {}},
        {"empty text", "", i4, QMO_SEQ_END, {}},
        {"no braces", "1,2", i4, 0, {1, 2}},
        {"bad token", "1,x", i4, QMO_SEQ_INVALID_ARGUMENT, {}},
        {"blank before a number", "{1, 2}", i4, 0, {1, 2}},
        {"blank before null", "{1, null}", i4, QMO_SEQ_INVALID_ARGUMENT, {}},
        {"blank before a comma", "{1 ,2}", i4, QMO_SEQ_INVALID_ARGUMENT, {}},
        {"values without a comma", "{1 2}", i4, 0, {1, 2}},
        {"one comma skipped, not two", "{1,,2}", i4, QMO_SEQ_INVALID_ARGUMENT, {}},
        {"blank before the brace", "{1 }", i4, QMO_SEQ_INVALID_ARGUMENT, {}},
        {"hex as signed", "0x10", i4, 0, {16}},
        {"hex as unsigned stops at x", "0x10", u4, QMO_SEQ_INVALID_ARGUMENT, {}},
        {"octal as signed", "010", i4, 0, {8}},
        {"octal digits as unsigned", "010", u4, 0, {10}},
        {"negative as unsigned wraps", "-5", u4, 0, {4294967291.0}},
        {"narrowed", "300,-129", i1, 0, {44, 127}},
        {"float forms", "{1e3, -.5,inf}", f8, 0, {1000, -0.5, INFINITY}},
        {"null glued to a value", "nullnull,null7", i4, 0, {NAN, NAN, NAN, 7}},
        {"null cut by the end", "{1,nu", i4, QMO_SEQ_INVALID_ARGUMENT, {}},
        {"text after the brace ignored", "{3}4", i4, 0, {3}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        const std::string text = r.text;  // exact size: ASan sees any read past the NUL
        Iter it;
        ASSERT_EQ(r.parse(&it, text.c_str()), 0);
        const Drained<double> d = drain_numbers(&it);
        EXPECT_EQ(d.status, r.status ? r.status : QMO_SEQ_END);
        if (r.status) continue;
        ASSERT_EQ(d.values.size(), r.values.size());
        for (size_t i = 0; i < r.values.size(); ++i)
            EXPECT_TRUE(d.nulls[i] ? std::isnan(r.values[i]) : d.values[i] == r.values[i]) << i;
    }
}

TEST(Parse, CharElements) {
    const std::string text = R"({"ab", cd,null,"e\"f","","a,b}" z})";
    Iter it;
    ASSERT_EQ(qmo_seq_parse_char(&it, text.c_str()), 0);
    ASSERT_EQ(it.elem_size, 4);  // the longest element
    const Drained<std::string> d = drain_replayed<std::string>(&it);
    EXPECT_EQ(d.status, QMO_SEQ_END);
    using namespace std::string_literals;
    EXPECT_EQ(d.values, (std::vector<std::string>{"ab\0\0"s, "cd\0\0"s, "\0\0\0\0"s, "e\"f\0"s,
                                                  "\0\0\0\0"s, "a,b}"s, "z\0\0\0"s}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, false, true, false, false, false, false}));

    const std::string refused[] = {"{\"open", "{\"a\\", "{a,,b}", "{" + std::string(33, 'x') + "}"};
    for (const std::string &bad : refused) {
        ASSERT_EQ(qmo_seq_parse_char(&it, bad.c_str()), 0) << bad;
        EXPECT_EQ(drain<std::string>(&it).status, QMO_SEQ_INVALID_ARGUMENT) << bad;
    }
    EXPECT_EQ(it.elem_size, QMO_SEQ_MAX_CHAR_WIDTH);
}

// The scanner reads what sscanf reads from the whole text: same success,
// value and consumed count, over random tokens of numeric characters (the
// first one longer than the copy, so scanned in place).
template <class Tag>
void expect_scans_like_sscanf(std::mt19937 &rng) {
    using E = qmo::Elem<Tag::code_>;
    using W = typename qmo::scan::Format<E>::type;
    static const char alphabet[] = "0123456789+-.xXeEpPabfinINFAty()_ ,}\t";
    for (int round = 0; round < 20000; ++round) {
        std::string text = round ? "" : "0." + std::string(qmo::scan::kTokenMax, '1') + ",2";
        const int len = static_cast<int>(rng() % 12);
        for (int i = 0; i < len; ++i) text += alphabet[rng() % (sizeof alphabet - 1)];
        if (rng() % 4 == 0) text = std::to_string(static_cast<long long>(rng())) + text;
        W want{}, got{};
        int want_used = -1;
        size_t got_used = 0;
        const bool want_ok = std::sscanf(text.c_str(), qmo::scan::Format<E>::text, &want, &want_used) == 1;
        const bool got_ok = qmo::scan::read<E>(text.c_str(), got, got_used);
        ASSERT_EQ(got_ok, want_ok) << text;
        if (!want_ok) continue;
        ASSERT_EQ(got_used, static_cast<size_t>(want_used)) << text;
        ASSERT_TRUE(std::memcmp(&got, &want, sizeof got) == 0 || (got != got && want != want)) << text;
    }
}

TEST(Parse, ScannerMatchesSscanfOnTheWholeText) {
    std::mt19937 rng(7);
    [&]<class... Tag>(Tag...) { (expect_scans_like_sscanf<Tag>(rng), ...); }(t_int4{}, t_int8{}, t_uint4{}, t_uint8{}, t_double{});
}

// ---- matching -----------------------------------------------------------------

// The model: the element ends at its first NUL; "%" any run, "_" one
// character, backslash escapes (a trailing one stands for itself).
bool model(const char *p, const char *end, const std::string &e, size_t i) {
    if (p == end) return i == e.size();
    if (*p == '%') return model(p + 1, end, e, i) || (i < e.size() && model(p, end, e, i + 1));
    if (i == e.size()) return false;
    if (*p == '_') return model(p + 1, end, e, i + 1);
    const bool escaped = *p == '\\' && p + 1 != end;
    return e[i] == p[escaped] && model(p + 1 + escaped, end, e, i + 1);
}
bool model(const std::string &pattern, const std::string &element) {
    return model(pattern.data(), pattern.data() + pattern.size(), element.substr(0, element.find('\0')), 0);
}

TEST(Match, Construction) {
    BindingChecks on(1);
    Source<t_int4> numbers({1});
    expect_refused(QMO_SEQ_TYPE_MISMATCH, [&](Iter *r) { return qmo_seq_match(r, &numbers.it, "a"); }, {&numbers.it});
    CharSource text(4, {"a"});
    expect_refused(QMO_SEQ_INVALID_ARGUMENT, [&](Iter *r) { return qmo_seq_match(r, &text.it, nullptr); }, {&text.it});
    Iter first;
    ASSERT_EQ(qmo_seq_match(&first, &text.it, "a"), 0);
    EXPECT_EQ(first.elem_type, QMO_SEQ_TYPE_UINT1);
    expect_refused(QMO_SEQ_ALREADY_BOUND, [&](Iter *r) { return qmo_seq_match(r, &text.it, "a"); }, {&text.it});
}

// Each row also names the matcher the constructor must choose (the cheapest exact one).
TEST(Match, Behaviours) {
    using namespace std::string_literals;
    const auto E = qmo_seq_exact_match, S = qmo_seq_match_substring, G = qmo_seq_match_regex;
    const struct {
        const char *name, *pattern;
        size_t width;
        std::string element;
        bool expected;
        qmo_seq_matcher_fn matcher;
    } rows[] = {
        {"exact, NUL-padded", "abc", 8, "abc", true, E},
        {"exact, longer element", "abc", 8, "abcd", false, E},
        {"exact, element of the full width", "abcd", 4, "abcd", true, E},
        {"exact, pattern wider than the element", "abcde", 4, "abcd", false, E},
        {"empty pattern, empty element", "", 4, "", true, E},
        {"substring", "%bc%", 4, "abcd", true, S},
        {"substring at the start", "%ab%", 4, "abcd", true, S},
        {"substring near the end", "%ce%", 8, "abcdcdce", true, S},
        {"substring past the first NUL", "%xy%", 8, "ab\0xy"s, false, S},
        {"substring longer than the element", "%abcde%", 4, "abcd", false, S},
        {"%% matches everything", "%%", 4, "", true, S},
        {"a lone % is general", "%", 4, "ab", true, G},
        {"general with underscore", "%b_%", 4, "abcd", true, G},
        {"escaped percent", "a\\%b", 4, "a%b", true, G},
        {"escaped percent is not a wildcard", "a\\%b", 4, "axb", false, G},
        {"escaped closing percent is not a substring", "%a\\%", 4, "ba%", true, G},
        {"trailing backslash is a backslash", "a\\", 4, "a\\", true, G},
        {"runs of percent merge", "a%%%c", 8, "abbbc", true, G},
        {"underscore needs a character", "abc_", 4, "abc", false, G},
        {"general stops at the width", "%d", 3, "abcd", false, G},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        CharSource in(r.width, {r.element});
        Iter m;
        ASSERT_EQ(qmo_seq_match(&m, &in.it, r.pattern), 0);
        EXPECT_EQ(reinterpret_cast<qmo_seq_matcher_fn>(m.state[0]), r.matcher);
        const Drained<uint8_t> d = drain<uint8_t>(&m);
        ASSERT_EQ(d.values.size(), 1u);
        EXPECT_EQ(d.values[0], r.expected);
        EXPECT_EQ(qmo_seq_match_regex(&m, reinterpret_cast<const char *>(in.bytes.data())), r.expected) << "general matcher";
    }
}

TEST(Match, AgreesWithTheModel) {
    std::mt19937 rng(11);
    static const char pattern_chars[] = "ab%_\\";
    static const char element_chars[] = "ab%_\\\0";
    for (int round = 0; round < 3000; ++round) {
        const size_t width = 1 + rng() % 9;
        std::string pattern;
        for (size_t i = rng() % 7; i > 0; --i) pattern += pattern_chars[rng() % 5];
        std::vector<std::string> elements;
        std::vector<size_t> null_at;
        for (int k = 0; k < 140; ++k) {
            std::string e;
            for (size_t i = rng() % (width + 1); i > 0; --i) e += element_chars[rng() % 6];
            elements.push_back(e);
            if (rng() % 16 == 0) null_at.push_back(static_cast<size_t>(k));
        }
        CharSource in(width, elements, null_at);
        in.tiles = {61, 128, 1};
        Iter m;
        ASSERT_EQ(qmo_seq_match(&m, &in.it, pattern.c_str()), 0);
        const Drained<uint8_t> d = drain_replayed<uint8_t>(&m);
        ASSERT_EQ(d.values.size(), elements.size());
        for (size_t k = 0; k < elements.size(); ++k) {
            const std::string e = in.bytes.size() ? std::string(reinterpret_cast<const char *>(in.bytes.data()) + k * width, width) : "";
            ASSERT_EQ(d.nulls[k], in.nulls[k]);
            ASSERT_EQ(d.values[k], !in.nulls[k] && model(pattern, e)) << pattern << " on " << e;
            ASSERT_EQ(qmo_seq_match_regex(&m, e.data()), model(pattern, e)) << pattern << " on " << e;
        }
    }
}

}  // namespace
