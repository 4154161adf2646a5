// Printing and caller-defined parsing: what is printed parses back bit for
// bit for every type, the buffer's size edges, checked formats, the streaming
// form, and custom scanners (an ISO-8601 one, and one that scans as the
// built-in parser so both must walk lists alike).
#include "support.hpp"

#include <cstdio>
#include <random>

using namespace test;

namespace {


// Prints `it` into a buffer of exactly the size a first call asks for.
template <class Print>
std::string print_exact(Print print, Iter *it, const char *format = nullptr) {
    uint64_t size = 0;
    EXPECT_EQ(print(it, nullptr, &size, format), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(it->reset(it), 0);
    std::vector<char> buffer(size);
    const uint64_t needed = size;
    EXPECT_EQ(print(it, buffer.data(), &size, format), 0);
    EXPECT_EQ(size + 1, needed);
    EXPECT_EQ(buffer.back(), '\0');
    return std::string(buffer.data(), size);
}

int append(void *context, const char *text, uint64_t length) {
    auto *pieces = static_cast<std::vector<std::string> *>(context);
    pieces->emplace_back(text, length);
    return 0;
}

template <class T>
uint64_t bits(T v) {
    uint64_t b = 0;
    std::memcpy(&b, &v, sizeof v);
    return b;
}

// ---- round trips ----------------------------------------------------------------

template <class Tag>
std::vector<V<Tag>> awkward_values(std::mt19937_64 &rng, size_t n) {
    using T = V<Tag>;
    using L = std::numeric_limits<T>;
    std::vector<T> v = {L::min(), L::max(), L::lowest(), T{}, static_cast<T>(1)};
    if constexpr (is_float_v<Tag>) {
        v.insert(v.end(), {-T{}, L::quiet_NaN(), -L::quiet_NaN(), L::infinity(), -L::infinity(), L::denorm_min(),
                           -L::denorm_min(), L::epsilon(), static_cast<T>(0.1), static_cast<T>(1) / 3});
    }
    while (v.size() < n) {
        if constexpr (is_float_v<Tag>) {
            // Random bit patterns: every exponent, NaNs excepted (they keep only their sign).
            T x;
            do {
                const uint64_t r = rng();
                std::memcpy(&x, &r, sizeof x);
            } while (x != x);
            v.push_back(x);
        } else {
            v.push_back(static_cast<T>(rng()));
        }
    }
    return v;
}

template <class Tag>
class TextTyped : public ::testing::Test {};
TYPED_TEST_SUITE(TextTyped, NumericTypes);

TYPED_TEST(TextTyped, PrintedTextParsesBackBitForBit) {
    using T = V<TypeParam>;
    std::mt19937_64 rng(TypeParam::code_ + 1);
    const std::vector<T> values = awkward_values<TypeParam>(rng, 300);
    const std::vector<size_t> null_at = {3, 127, 128, 299};
    Source<TypeParam> in(values, null_at, {61, 128, 1, 128});
    const std::string text = print_exact(fn::print<TypeParam>, &in.it);
    ASSERT_EQ(text.front(), '{');

    Iter back;
    ASSERT_EQ(fn::parse<TypeParam>(&back, text.c_str()), 0);
    const Drained<T> d = drain<T>(&back);
    ASSERT_EQ(d.status, QMO_SEQ_END);
    ASSERT_EQ(d.values.size(), values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        ASSERT_EQ(d.nulls[i], in.nulls[i]) << i;
        if (in.nulls[i]) continue;
        const T want = values[i], got = d.values[i];
        if (want != want) {  // a NaN: its sign, as the quiet NaN
            ASSERT_EQ(bits(got), bits(std::copysign(std::numeric_limits<T>::quiet_NaN(), want))) << i;
        } else {
            ASSERT_EQ(bits(got), bits(want)) << i << " printed in " << text.substr(0, 200);
        }
    }

    // The streaming form writes the same text.
    std::vector<std::string> pieces;
    ASSERT_EQ(in.it.reset(&in.it), 0);
    ASSERT_EQ(fn::print_stream<TypeParam>(&in.it, nullptr, append, &pieces), 0);
    std::string streamed;
    for (const std::string &p : pieces) streamed += p;
    EXPECT_EQ(streamed, text);
}

TEST(Print, CharRoundTripKeepsQuotesBackslashesCommasAndBlanks) {
    using namespace std::string_literals;
    const std::vector<std::string> elements = {"a\"b", "\\", "x,y", " lead", "tail ", "{}", "null", "",
                                               "12345678", "\"\"", "a\\\"", "\t\n", "é", "ok"};
    CharSource in(8, elements, {3, 13});
    in.tiles = {5, 128};
    const std::string text = print_exact(qmo_seq_print_char, &in.it);
    EXPECT_EQ(text.substr(0, 30), R"({"a\"b","\\","x,y",null,"tail )");
    Iter back;
    ASSERT_EQ(qmo_seq_parse_char(&back, text.c_str()), 0);
    EXPECT_EQ(back.elem_size, 8);
    const Drained<std::string> d = drain<std::string>(&back);
    ASSERT_EQ(d.status, QMO_SEQ_END);
    ASSERT_EQ(d.values.size(), elements.size());
    for (size_t i = 0; i < elements.size(); ++i) {
        EXPECT_EQ(d.nulls[i], in.nulls[i]);
        if (!in.nulls[i]) {
            EXPECT_EQ(d.values[i], (elements[i] + std::string(8, '\0')).substr(0, 8)) << i;
        }
    }
}

TEST(Print, EmptySequenceAndBufferEdges) {
    Source<t_int4> none(std::vector<int32_t>{});
    EXPECT_EQ(print_exact(qmo_seq_print_int4, &none.it), "{}");

    const std::string want = "{-7,null,2147483647}";
    Source<t_int4> in({-7, 0, 2147483647}, {1});
    const uint64_t n = want.size();
    for (uint64_t capacity : {n + 1, n, n - 1, uint64_t{1}, uint64_t{0}}) {
        SCOPED_TRACE(capacity);
        ASSERT_EQ(in.it.reset(&in.it), 0);
        std::vector<char> buffer(capacity + 8, '#');  // the guard after the capacity stays untouched
        uint64_t size = capacity;
        const int rc = qmo_seq_print_int4(&in.it, capacity ? buffer.data() : nullptr, &size, nullptr);
        if (capacity > n) {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(size, n);
            EXPECT_EQ(std::string(buffer.data()), want);
        } else {
            EXPECT_EQ(rc, QMO_SEQ_INVALID_ARGUMENT);
            EXPECT_EQ(size, n + 1);
            if (capacity) {
                EXPECT_EQ(std::string(buffer.data()), want.substr(0, capacity - 1)) << "a NUL-ended prefix";
            }
        }
        EXPECT_EQ(std::string(buffer.data() + capacity, 8), std::string(8, '#'));
    }
    uint64_t size = 4;
    EXPECT_EQ(qmo_seq_print_int4(&in.it, nullptr, &size, nullptr), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(qmo_seq_print_int4(&in.it, nullptr, nullptr, nullptr), QMO_SEQ_INVALID_ARGUMENT);
}

// ---- formats ----------------------------------------------------------------------

TEST(Print, Formats) {
    const struct {
        const char *name, *format;
        bool ints;         // over {1,-2,null,255}, else over the doubles {1.5,-0.25,null,1e300}
        const char *text;  // null: refused with 62; "=": as snprintf prints each element
    } rows[] = {
        {"width and flags", "%-+4d", true, "{+1  ,-2  ,null,+255}"},
        {"literal text and %%", "<%05i%%>", true, "{<00001%>,<-0002%>,null,<00255%>}"},
        {"unsigned conversion of a signed type: its own width", "%#x", true, "{0x1,0xfffffffe,null,0xff}"},
        {"length modifier ignored", "%hhd", true, "{1,-2,null,255}"},
        {"precision", "%.3d", true, "{001,-002,null,255}"},
        {"fixed", "%.2f", false, "="},
        {"widest fixed", "%-99.99f", false, "="},
        {"hex float", "%la", false, "{0x1.8p+0,-0x1p-2,null,0x1.7e43c8800759cp+996}"},
        {"two conversions", "%d,%d", true, nullptr},
        {"no conversion", "abc", true, nullptr},
        {"lone percent", "%", true, nullptr},
        {"unfinished", "%5", true, nullptr},
        {"another kind", "%f", true, nullptr},
        {"integer for a double", "%d", false, nullptr},
        {"%n writes", "%n", true, nullptr},
        {"star width", "%*d", true, nullptr},
        {"width over 99", "%100d", true, nullptr},
        {"precision over 99", "%.100f", false, nullptr},
        {"long double", "%Lf", false, nullptr},
        {"# with d", "%#d", true, nullptr},
        {"positional", "%1$d", true, nullptr},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        Source<t_int4> ints({1, -2, 0, 255}, {2}, {2});
        Source<t_double> doubles({1.5, -0.25, 0, 1e300}, {2}, {2});
        std::vector<char> buffer(8192);
        uint64_t size = buffer.size();
        const int rc = r.ints ? qmo_seq_print_int4(&ints.it, buffer.data(), &size, r.format)
                              : qmo_seq_print_double(&doubles.it, buffer.data(), &size, r.format);
        if (!r.text) {
            EXPECT_EQ(rc, QMO_SEQ_INVALID_ARGUMENT);
            EXPECT_EQ(size, buffer.size());
            EXPECT_EQ(ints.pulls + doubles.pulls, 0) << "refused before pulling";
            continue;
        }
        std::string expected = r.text;
        if (expected == "=") {
            std::string item[4];
            for (int k : {0, 1, 3}) {
                char b[512];
                std::snprintf(b, sizeof b, r.format, doubles.bytes.size() ? reinterpret_cast<const double *>(doubles.bytes.data())[k] : 0.0);
                item[k] = b;
            }
            expected = "{" + item[0] + "," + item[1] + ",null," + item[3] + "}";
        }
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(std::string(buffer.data(), size), expected);
    }

    // Char formats: only %s with "-"; elements print up to their NUL, unquoted.
    CharSource words(4, {"ab", "abcd"});
    std::vector<char> buffer(64);
    uint64_t size = buffer.size();
    ASSERT_EQ(qmo_seq_print_char(&words.it, buffer.data(), &size, "[%-5.3s]"), 0);
    EXPECT_EQ(std::string(buffer.data(), size), "{[ab   ],[abc  ]}");
    for (const char *bad : {"%05s", "%#s", "%ls", "%d", "%c"}) {
        size = buffer.size();
        EXPECT_EQ(qmo_seq_print_char(&words.it, buffer.data(), &size, bad), QMO_SEQ_INVALID_ARGUMENT) << bad;
    }
    const std::string too_long = std::string(127, 'x') + "%d";
    size = buffer.size();
    EXPECT_EQ(qmo_seq_print_int4(&words.it, buffer.data(), &size, "%d"), QMO_SEQ_TYPE_MISMATCH);
    Source<t_int4> one({1});
    EXPECT_EQ(qmo_seq_print_int4(&one.it, buffer.data(), &size, too_long.c_str()), QMO_SEQ_INVALID_ARGUMENT);
    buffer.resize(256);
    size = buffer.size();
    EXPECT_EQ(qmo_seq_print_int4(&one.it, buffer.data(), &size, too_long.substr(1).c_str()), 0);
    EXPECT_EQ(size, 129u);  // braces around 126 x and the 1
}

TEST(Print, ChecksTypeThenBindingThenFormatAndPassesStatusesUp) {
    BindingChecks on(1);
    Source<t_int4> in({1, 2, 3});
    uint64_t size = 64;
    char buffer[64];
    EXPECT_EQ(qmo_seq_print_int8(&in.it, buffer, &size, "%q"), QMO_SEQ_TYPE_MISMATCH);
    in.it.bound = 1;
    EXPECT_EQ(qmo_seq_print_int4(&in.it, buffer, &size, "%q"), QMO_SEQ_ALREADY_BOUND);
    in.it.bound = 0;
    EXPECT_EQ(qmo_seq_print_int4(&in.it, buffer, &size, "%q"), QMO_SEQ_INVALID_ARGUMENT);
    EXPECT_EQ(in.pulls, 0);
    in.tiles = {1};
    in.fail_with = QMO_SEQ_NO_MEMORY;
    in.fail_from = 2;
    EXPECT_EQ(qmo_seq_print_int4(&in.it, buffer, &size, nullptr), QMO_SEQ_NO_MEMORY);
    EXPECT_EQ(size, 64u);
}

TEST(Print, StreamsInBoundedPiecesAndStopsOnAWriteFailure) {
    std::vector<double> values(20000);
    for (size_t i = 0; i < values.size(); ++i) values[i] = 1.0 / static_cast<double>(i + 1);
    Source<t_double> in(values);
    std::vector<std::string> pieces;
    ASSERT_EQ(qmo_seq_print_stream_double(&in.it, nullptr, append, &pieces), 0);
    std::string streamed;
    for (const std::string &p : pieces) {
        EXPECT_LE(p.size(), size_t{QMO_SEQ_PRINT_PIECE});
        streamed += p;
    }
    EXPECT_GT(pieces.size(), 10u);
    ASSERT_EQ(in.it.reset(&in.it), 0);
    EXPECT_EQ(streamed, print_exact(qmo_seq_print_double, &in.it));

    struct Failing {
        int calls = 0;
        static int write(void *c, const char *, uint64_t) { return ++static_cast<Failing *>(c)->calls == 2 ? 57 : 0; }
    } failing;
    ASSERT_EQ(in.it.reset(&in.it), 0);
    EXPECT_EQ(qmo_seq_print_stream_double(&in.it, nullptr, Failing::write, &failing), QMO_SEQ_UNSUPPORTED);
    EXPECT_EQ(failing.calls, 2);
    EXPECT_EQ(qmo_seq_print_stream_double(&in.it, nullptr, nullptr, nullptr), QMO_SEQ_INVALID_ARGUMENT);
}

// ---- custom parse -----------------------------------------------------------------

// ISO-8601 date-times, "2026-11-25T16:51:38Z" with optional fractional seconds,
// as nanoseconds since 1970; "N/A" is a null.
int iso_8601(void *, const char *s, void *value, uint64_t *consumed) {
    if (std::strncmp(s, "N/A", 3) == 0) {
        *consumed = 3;
        return QMO_SEQ_NULL_VALUE;
    }
    unsigned y, mo, d, h, mi, sec;
    int n = 0;
    if (std::sscanf(s, "%4u-%2u-%2uT%2u:%2u:%2u%n", &y, &mo, &d, &h, &mi, &sec, &n) != 6 || n != 19)
        return QMO_SEQ_INVALID_ARGUMENT;
    uint64_t nanos = 0, scale = 1'000'000'000;
    if (s[n] == '.')
        for (++n; s[n] >= '0' && s[n] <= '9'; ++n) nanos += (scale /= 10) * static_cast<uint64_t>(s[n] - '0');
    if (s[n++] != 'Z') return QMO_SEQ_INVALID_ARGUMENT;
    // Days from the civil date (proleptic Gregorian).
    const int yy = static_cast<int>(y) - (mo <= 2);
    const int era = yy / 400;
    const unsigned yoe = static_cast<unsigned>(yy - era * 400);
    const unsigned doy = (153 * (mo + (mo > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t days = era * 146097 + static_cast<int64_t>(yoe * 365 + yoe / 4 - yoe / 100 + doy) - 719468;
    const uint64_t t = static_cast<uint64_t>(days * 86400 + h * 3600 + mi * 60 + sec) * 1'000'000'000 + nanos;
    std::memcpy(value, &t, sizeof t);
    *consumed = static_cast<uint64_t>(n);
    return 0;
}

TEST(CustomParse, IsoDateTimesIntoDatetime) {
    const std::string text = "{2026-11-25T16:51:38Z, 1970-01-01T00:00:00.000000001Z,null,N/A,2000-02-29T12:00:00.5Z}";
    Iter it;
    ASSERT_EQ(qmo_seq_custom_parse(&it, text.c_str(), QMO_SEQ_TYPE_DATETIME, 8, iso_8601, nullptr), 0);
    EXPECT_EQ(it.elem_type, QMO_SEQ_TYPE_DATETIME);
    const Drained<uint64_t> d = drain_replayed<uint64_t>(&it);
    EXPECT_EQ(d.status, QMO_SEQ_END);
    EXPECT_EQ(d.values, (std::vector<uint64_t>{1795625498'000000000, 1, 0, 0, 951825600'500000000}));
    EXPECT_EQ(d.nulls, (std::vector<bool>{false, false, true, true, false}));

    // A bad date in the second tile: that pull fails, again, without moving.
    std::string long_text = "{";
    for (int i = 0; i < 130; ++i) long_text += "2000-01-01T00:00:00Z,";
    long_text += "2000-13-01T00:00Z}";
    ASSERT_EQ(qmo_seq_custom_parse(&it, long_text.c_str(), QMO_SEQ_TYPE_DATETIME, 8, iso_8601, nullptr), 0);
    ASSERT_EQ(it.next(&it), 0);
    const uint64_t at = it.state[0], pos = it.pos;
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(it.next(&it), QMO_SEQ_INVALID_ARGUMENT);
        EXPECT_TRUE(it.state[0] == at && it.pos == pos && it.tile_count == 0);
    }
    EXPECT_EQ(qmo_seq_reset_custom_parse_iterator(&it), 0);
    EXPECT_EQ(it.next(&it), 0);
    EXPECT_EQ(it.tile_count, 128);
}

// Scans as qmo_seq_parse_int4 does, so the two must agree on every list.
int scan_i(void *, const char *s, void *value, uint64_t *consumed) {
    int v, n;
    if (std::sscanf(s, "%i%n", &v, &n) != 1) return QMO_SEQ_INVALID_ARGUMENT;
    std::memcpy(value, &v, sizeof v);
    *consumed = static_cast<uint64_t>(n);
    return 0;
}

TEST(CustomParse, WalksListsAsTheBuiltInParser) {
    std::string many;
    for (int i = 0; i < 300; ++i) many += (i % 7 == 3 ? "null" : std::to_string(i - 150)) + (i % 2 ? ", " : ",");
    const std::string texts[] = {"{1,2,null,4}", "{}", "", "1,2", "1,x", "{1, 2}", "{1, null}", "{1 ,2}", "{1 2}",
                                 "{1,,2}", "{1 }", "0x10", "nullnull,null7", "{1,nu", "{3}4", "{" + many + "}"};
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        Iter a, b;
        ASSERT_EQ(qmo_seq_parse_int4(&a, text.c_str()), 0);
        ASSERT_EQ(qmo_seq_custom_parse(&b, text.c_str(), QMO_SEQ_TYPE_INT4, 4, scan_i, nullptr), 0);
        const Drained<int32_t> x = drain<int32_t>(&a), y = drain<int32_t>(&b);
        EXPECT_EQ(x.status, y.status);
        EXPECT_EQ(x.values, y.values);
        EXPECT_EQ(x.nulls, y.nulls);
        EXPECT_EQ(x.tiles, y.tiles);
        EXPECT_EQ(a.state[0] - a.state[1], b.state[0] - b.state[1]) << "same position";
    }
}

TEST(CustomParse, RefusedTokensAndConstruction) {
    struct Script {
        int status;
        uint64_t used;
        static int scan(void *c, const char *, void *value, uint64_t *consumed) {
            const auto *s = static_cast<const Script *>(c);
            std::memset(value, 0x5A, 2);
            *consumed = s->used;
            return s->status;
        }
    };
    const struct {
        const char *name;
        Script script;
        int status;
    } rows[] = {
        {"a value of two characters", {0, 2}, 0},
        {"nothing consumed", {0, 0}, QMO_SEQ_INVALID_ARGUMENT},
        {"consumed past the NUL", {0, 4}, QMO_SEQ_INVALID_ARGUMENT},
        {"a null token", {QMO_SEQ_NULL_VALUE, 2}, 0},
        {"another status passed up", {QMO_SEQ_UNSUPPORTED, 1}, QMO_SEQ_UNSUPPORTED},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        const std::string text = "ab";
        Iter it;
        ASSERT_EQ(qmo_seq_custom_parse(&it, text.c_str(), QMO_SEQ_TYPE_CHAR, 3, Script::scan, const_cast<Script *>(&r.script)), 0);
        const Drained<std::string> d = drain<std::string>(&it);
        EXPECT_EQ(d.status, r.status ? r.status : QMO_SEQ_END);
        if (r.status) continue;
        ASSERT_EQ(d.values.size(), 1u);
        const bool null = r.script.status == QMO_SEQ_NULL_VALUE;
        EXPECT_EQ(d.nulls[0], null);
        EXPECT_EQ(d.values[0], null ? std::string(3, '\0') : std::string("ZZ\0", 3)) << "slot zeroed before the scan";
    }

    int context = 0;
    const auto scan = Script::scan;
    for (auto [type, size, s, status] : {std::tuple{10, size_t{4}, scan, QMO_SEQ_TYPE_MISMATCH},
                                         std::tuple{14, size_t{4}, scan, QMO_SEQ_TYPE_MISMATCH},
                                         std::tuple{int{QMO_SEQ_TYPE_INT4}, size_t{8}, scan, QMO_SEQ_INVALID_ARGUMENT},
                                         std::tuple{int{QMO_SEQ_TYPE_CHAR}, size_t{0}, scan, QMO_SEQ_INVALID_ARGUMENT},
                                         std::tuple{int{QMO_SEQ_TYPE_CHAR}, size_t{33}, scan, QMO_SEQ_INVALID_ARGUMENT},
                                         std::tuple{int{QMO_SEQ_TYPE_INT4}, size_t{4}, static_cast<qmo_seq_scan_fn>(nullptr),
                                                    QMO_SEQ_INVALID_ARGUMENT}}) {
        expect_refused(status, [&](Iter *r) { return qmo_seq_custom_parse(r, "1", type, size, s, &context); }, {});
    }
}

}  // namespace
