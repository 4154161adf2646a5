// qmo_seq._core: expressions over numpy buffers, evaluated by the library.
//
// A Python expression is a tree of nodes. Each node knows how to construct
// its record from its operands' records, with the typed C function picked,
// by the operand's element type, from tables stamped from the header's lists.
// Every evaluation builds a fresh tree of records (a plan), so one node may
// appear several times in an expression and be evaluated again and again.
// Array sources read the caller's buffer in place; the node keeps it alive.
#include "qmo_seq.h"

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace {

using Iter = qmo_seq_iterator_t;
constexpr int kTypeCodes = QMO_SEQ_TYPE_CHAR + 1;

struct StatusError {
    int status;
};
py::handle error_class;  // qmo_seq.Error, held for the life of the process

void check(int status) {
    if (status != QMO_SEQ_OK) throw StatusError{status};
}

// ---- plans: the records of one evaluation ----------------------------------------------------

// A Python scanner of a custom parse, called back from the library's next.
// Its exception cannot cross the library, so it waits here until the pull
// returns to this module.
struct ScanContext {
    py::object scan;  // scan(offset) -> None | (bytes or None, consumed)
    const char *text;
    size_t width;
    std::exception_ptr error;

    static int call(void *c, const char *token, void *value, uint64_t *consumed) {
        auto *ctx = static_cast<ScanContext *>(c);
        py::gil_scoped_acquire gil;
        try {
            py::object r = ctx->scan(static_cast<size_t>(token - ctx->text));
            if (r.is_none()) return QMO_SEQ_INVALID_ARGUMENT;
            const auto found = r.cast<py::tuple>();
            *consumed = found[1].cast<uint64_t>();
            if (found[0].is_none()) return QMO_SEQ_NULL_VALUE;
            const std::string bytes = found[0].cast<std::string>();
            std::memcpy(value, bytes.data(), std::min(bytes.size(), ctx->width));
            return QMO_SEQ_OK;
        } catch (...) {
            ctx->error = std::current_exception();
            return QMO_SEQ_INVALID_ARGUMENT;
        }
    }
};

struct Plan {
    bool probe = false;  // sources of length 0: only the result types are wanted
    uint64_t from = 0, till = ~uint64_t{0};  // the rows of every array source this plan reads
    std::vector<std::shared_ptr<ScanContext>> scans;
    std::deque<Iter> records;
    std::unordered_map<const Iter *, Iter *> groups;  // a hash aggregate's group output
    std::unordered_map<const Iter *, Iter *> twins;   // a join's right positions, pulled in lockstep
    std::vector<Iter *> hashes;
    std::vector<std::pair<int (*)(Iter *), Iter *>> resets;  // records that hold memory until reset
    explicit Plan(bool types_only = false) : probe(types_only) {}
    Plan(const Plan &) = delete;
    ~Plan() {
        for (Iter *h : hashes) qmo_seq_release_hash(h);
        for (auto [reset, it] : resets) reset(it);
    }
    Iter *record() { return &records.emplace_back(); }
    // A scanner's exception, in place of the status it made the pull return.
    void rethrow_scan_error() const {
        for (const auto &s : scans)
            if (s->error) std::rethrow_exception(s->error);
    }
};

// Counts, or typed scalars (bounds, fillers, kinds) as the bits of their
// little-endian bytes, zero-extended.
using Params = std::vector<uint64_t>;
template <class T>
T param(const Params &p, size_t i) {
    const uint64_t bits = p.at(i);
    T v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}
using Make = std::function<int(Plan &, Iter *out, Iter *const *operands, const Params &)>;

struct Node;
using NodePtr = std::shared_ptr<Node>;

struct Node {
    std::string name;  // the operator's, or "array", "constant", "parse", "match", "convert"
    uint64_t rows = 0;  // an array's length
    std::vector<NodePtr> operands;
    Params params;
    Make make;
    py::object keep;  // the caller's buffers
    int type = 0;
    unsigned width = 0;

    Iter *build(Plan &plan) const {
        Iter *ops[3] = {};
        for (size_t i = 0; i < operands.size(); ++i) ops[i] = operands[i] ? operands[i]->build(plan) : nullptr;
        Iter *out = plan.record();
        check(make(plan, out, ops, params));
        return out;
    }
};

// The result type is the one the library writes: a probe over empty sources tells it.
NodePtr finish(NodePtr node) {
    Plan probe(true);
    const Iter *r = node->build(probe);
    node->type = r->elem_type;
    node->width = r->elem_size;
    return node;
}

// ---- tables stamped from the header's lists --------------------------------------------------

// One operator: the operand whose type chooses the member, and a member per type code.
struct Op {
    size_t arity = 0, chooser = 0;
    std::array<Make, kTypeCodes> members{};
};
std::map<std::string, Op> ops;

void add(const char *name, size_t arity, size_t chooser, int code, Make make) {
    Op &op = ops[name];
    op.arity = arity;
    op.chooser = chooser;
    op.members[code] = std::move(make);
}
// A member that takes any type answers for every code.
void add_any(const char *name, size_t arity, Make make) {
    for (int code = 0; code < kTypeCodes; ++code) add(name, arity, 0, code, make);
}

using Source = int (*)(Iter *, const void *, uint64_t, const uint64_t *, size_t);
std::array<Source, kTypeCodes> sources{};
using Constant = int (*)(Iter *, const void *, size_t);
std::array<Constant, kTypeCodes> constants{};
std::array<std::array<Make, kTypeCodes>, kTypeCodes> conversions{};
using Sort = void (*)(const void *, uint64_t *, uint64_t, int);
std::array<Sort, kTypeCodes> sorts{};
std::array<int (*)(Iter *, const char *), kTypeCodes> parsers{};
std::array<int (*)(Iter *, const char *, qmo_seq_write_fn, void *), kTypeCodes> printers{};

// Hash aggregates: a second record for the groups, released with the plan.
template <class F>
Make hashed(F f, bool with_values) {
    return [f, with_values](Plan &plan, Iter *agg, Iter *const *o, const Params &p) {
        Iter *grp = plan.record();
        const int rc = with_values ? f(agg, grp, o[0], o[1], p.empty() ? 0 : p[0])
                                   : f(agg, grp, nullptr, o[0], p.empty() ? 0 : p[0]);
        if (rc == QMO_SEQ_OK) {
            plan.groups[agg] = grp;
            plan.hashes.push_back(agg);
        }
        return rc;
    };
}

// Joins: a second record for the right positions; resetting both gives the
// shared record back.
template <class F>
Make joined(F f) {
    return [f](Plan &plan, Iter *lp, Iter *const *o, const Params &) {
        Iter *rp = plan.record();
        const int rc = f(lp, rp, o[0], o[1]);
        if (rc == QMO_SEQ_OK) {
            plan.twins[lp] = rp;
            plan.resets.emplace_back(qmo_seq_join_reset, lp);
            plan.resets.emplace_back(qmo_seq_join_reset, rp);
        }
        return rc;
    };
}

// The tables are expanded from the registry: every row with typed members is
// bound through its shape's line below (a shape without one fails to
// compile); single families are bound by hand after them, where useful.
#define QMO_PY_ROW_(family, shape, types, partial, statuses, doc) QMO_PY_ROW_I_(QMO_SEQ_KIND_##shape, shape, family, types)
#define QMO_PY_ROW_I_(kind, shape, family, types) QMO_PY_ROW_II_(kind, shape, family, types)
#define QMO_PY_ROW_II_(kind, shape, family, types) QMO_PY_KIND_##kind(shape, family, types)
#define QMO_PY_KIND_SINGLE(shape, family, types) QMO_PY_SINGLE_##shape(family)
#define QMO_PY_SINGLE_SINGLE(family)
#define QMO_PY_SINGLE_MERGED_SINGLE(family)
#define QMO_PY_SINGLE_HASH_SKETCH(op) add_any("hash_agg_" #op, 2, hashed(qmo_seq_hash_agg_##op, true));
#define QMO_PY_KIND_TYPED(shape, family, types) types(QMO_PY_##shape, family)
#define QMO_PY_KIND_PAIRED(shape, family, types) types(QMO_PY_##shape, family)
#define QMO_PY_KIND_HASHED(shape, family, types) types(QMO_PY_##shape, family)

// Readers and callbacks are not bound: Python reads whole results and has its own functions.
#define QMO_PY_ELEMENT_READER(family, t, ctype, code)
#define QMO_PY_BULK_READER(family, t, ctype, code)
#define QMO_PY_NULLABLE_READER(family, t, ctype, code)
#define QMO_PY_CALLBACK(family, t, ctype, code)
#define QMO_PY_CALLBACK_CTX(family, t, ctype, code)
#define QMO_PY_CALLBACK2(family, t, ctype, code)
#define QMO_PY_CALLBACK2_CTX(family, t, ctype, code)
#define QMO_PY_UNGET_NULLABLE(family, t, ctype, code)
#define QMO_PY_UNGET(family, t, ctype, code)                                                             \
    sources[code] = [](Iter *r, const void *v, uint64_t n, const uint64_t *nulls, size_t) {              \
        const auto *values = static_cast<const ctype *>(v);                                              \
        return nulls ? qmo_seq_##family##_nullable_##t(r, values, n, nulls) : qmo_seq_##family##_##t(r, values, n); \
    };
#define QMO_PY_CONST(family, t, ctype, code)                                                             \
    constants[code] = [](Iter *r, const void *v, size_t) {                                               \
        ctype x;                                                                                         \
        std::memcpy(&x, v, sizeof x);                                                                    \
        return qmo_seq_##family##_##t(r, x);                                                             \
    };
#define QMO_PY_SORT(family, t, ctype, code)                                                              \
    sorts[code] = [](const void *v, uint64_t *perm, uint64_t n, int order) {                             \
        qmo_seq_##family##_##t(static_cast<const ctype *>(v), perm, n, order);                           \
    };
#define QMO_PY_PARSE(family, t, ctype, code) parsers[code] = qmo_seq_##family##_##t;
#define QMO_PY_PRINT(family, t, ctype, code)
#define QMO_PY_PRINT_STREAM(family, t, ctype, code) printers[code] = qmo_seq_##family##_##t;
#define QMO_PY_CONVERSION(family, pair, uctype, ucode) QMO_PY_CONVERSION_I_(QMO_SEQ_EXPAND pair, ucode)
#define QMO_PY_CONVERSION_I_(...) QMO_PY_CONVERSION_II_(__VA_ARGS__)
#define QMO_PY_CONVERSION_II_(t, u, tcode, ucode)                                                        \
    conversions[tcode][ucode] = [](Plan &, Iter *r, Iter *const *o, const Params &) {                    \
        return qmo_seq_##t##_to_##u(r, o[0]);                                                            \
    };

#define QMO_PY_UNARY(family, t, ctype, code)                                                             \
    add(#family, 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &) {                       \
        return qmo_seq_##family##_##t(r, o[0]);                                                          \
    });
#define QMO_PY_AGGREGATE QMO_PY_UNARY
#define QMO_PY_BINARY(family, t, ctype, code)                                                            \
    add(#family, 2, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &) {                       \
        return qmo_seq_##family##_##t(r, o[0], o[1]);                                                    \
    });
#define QMO_PY_PAIR_AGGREGATE QMO_PY_BINARY
#define QMO_PY_GROUP QMO_PY_BINARY
#define QMO_PY_GATHER QMO_PY_BINARY
// (cond, x): the second operand's type chooses.
#define QMO_PY_FILTER(family, t, ctype, code)                                                            \
    add(#family, 2, 1, code, [](Plan &, Iter *r, Iter *const *o, const Params &) {                       \
        return qmo_seq_##family##_##t(r, o[0], o[1]);                                                    \
    });
// (cond, then, else) and (weights, values, keys): the second operand's type chooses.
#define QMO_PY_SELECT(family, t, ctype, code)                                                            \
    add(#family, 3, 1, code, [](Plan &, Iter *r, Iter *const *o, const Params &) {                       \
        return qmo_seq_##family##_##t(r, o[0], o[1], o[2]);                                              \
    });
#define QMO_PY_WEIGHTED_GROUP QMO_PY_SELECT
// (input, one count): repetitions, top-N, grid and window aggregates.
#define QMO_PY_COUNTED(family, t, ctype, code)                                                           \
    add(#family, 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                      \
        return qmo_seq_##family##_##t(r, o[0], p.at(0));                                                 \
    });
#define QMO_PY_COUNTED_RESET QMO_PY_COUNTED
#define QMO_PY_TOP QMO_PY_COUNTED
#define QMO_PY_THIN(family, t, ctype, code)                                                              \
    add(#family, 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                      \
        return qmo_seq_##family##_##t(r, o[0], p.at(0), p.at(1));                                        \
    });
// A record that holds a copy until its reset is reset with the plan.
#define QMO_PY_UNARY_RESET(family, t, ctype, code)                                                       \
    add(#family, 1, 0, code, [](Plan &plan, Iter *r, Iter *const *o, const Params &) {                   \
        const int rc = qmo_seq_##family##_##t(r, o[0]);                                                  \
        if (rc == QMO_SEQ_OK) plan.resets.emplace_back(qmo_seq_##family##_##t##_reset, r);               \
        return rc;                                                                                       \
    });
#define QMO_PY_KIND(family, t, ctype, code)                                                              \
    add(#family, 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                      \
        return qmo_seq_##family##_##t(r, o[0], param<int32_t>(p, 0));                                    \
    });
#define QMO_PY_KIND_RESET QMO_PY_KIND
#define QMO_PY_HISTOGRAM(family, t, ctype, code)                                                         \
    add(#family, 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                      \
        return qmo_seq_##family##_##t(r, o[0], param<ctype>(p, 0), param<ctype>(p, 1), param<int64_t>(p, 2)); \
    });
// (target stamps, source stamps, values): the values' type chooses; one operator per stamp type.
#define QMO_PY_STRETCH(family, pair, ctype, code) QMO_PY_STRETCH_I_(family, QMO_SEQ_EXPAND pair, ctype, code)
#define QMO_PY_STRETCH_I_(...) QMO_PY_STRETCH_II_(__VA_ARGS__)
#define QMO_PY_STRETCH_II_(family, ts, t, tscode, ctype, code)                                           \
    add(#family "_" #ts, 3, 2, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {              \
        return qmo_seq_##family##_##ts##_##t(r, o[0], o[1], o[2], param<ctype>(p, 0));                   \
    });
// As-of joins (left stamps, right stamps, right values; direction, tolerance,
// exactness) and stretch0 (target, source, values; filler): one operator per stamp type.
#define QMO_PY_ASOF(family, pair, ctype, code) QMO_PY_ASOF_I_(family, QMO_SEQ_EXPAND pair, ctype, code)
#define QMO_PY_ASOF_I_(...) QMO_PY_ASOF_II_(__VA_ARGS__)
#define QMO_PY_ASOF_II_(family, ts, t, tscode, ctype, code)                                             \
    add(#family "_" #ts, 3, 2, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {             \
        return qmo_seq_##family##_##ts##_##t(r, o[0], o[1], o[2], param<int32_t>(p, 0), p.at(1),        \
                                             param<int32_t>(p, 2));                                     \
    });
#define QMO_PY_STRETCH0 QMO_PY_STRETCH
// Joins: (left, right) give the two position outputs, pulled in lockstep.
#define QMO_PY_JOIN(family, t, ctype, code) add(#family, 2, 0, code, joined(qmo_seq_##family##_##t));
// Hash aggregates: (values, keys), the values' type chooses; the count takes any.
#define QMO_PY_HASH(op, t, ctype, code) add("hash_agg_" #op, 2, 0, code, hashed(qmo_seq_hash_agg_##op##_##t, true));
#define QMO_PY_HASH_COUNT(op, t, ctype, code) add_any("hash_agg_" #op, 1, hashed(qmo_seq_hash_agg_##op##_##t, false));

void stamp_tables() {
    QMO_SEQ_FAMILIES(QMO_PY_ROW_)
    sources[QMO_SEQ_TYPE_CHAR] = [](Iter *r, const void *v, uint64_t n, const uint64_t *nulls, size_t w) {
        const auto *values = static_cast<const char *>(v);
        return nulls ? qmo_seq_unget_nullable_char(r, values, n, nulls, w) : qmo_seq_unget_char(r, values, n, w);
    };
    constants[QMO_SEQ_TYPE_CHAR] = [](Iter *r, const void *v, size_t w) {
        return qmo_seq_const_char(r, static_cast<const char *>(v), w);
    };

    auto logic = [](int (*f)(Iter *, Iter *, Iter *)) {
        return [f](Plan &, Iter *r, Iter *const *o, const Params &) { return f(r, o[0], o[1]); };
    };
    add("and", 2, 0, QMO_SEQ_TYPE_UINT1, logic(qmo_seq_and));
    add("or", 2, 0, QMO_SEQ_TYPE_UINT1, logic(qmo_seq_or));
    add("xor", 2, 0, QMO_SEQ_TYPE_UINT1, logic(qmo_seq_xor));
    add("not", 1, 0, QMO_SEQ_TYPE_UINT1, [](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_not(r, o[0]); });
    add_any("agg_count", 1, [](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_agg_count(r, o[0]); });
    add_any("agg_count_not_null", 1,
            [](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_agg_count_not_null(r, o[0]); });
    add_any("agg_approxdc", 1, [](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_agg_approxdc(r, o[0]); });
    add_any("filter_first_pos", 1,
            [](Plan &, Iter *r, Iter *const *o, const Params &p) { return qmo_seq_filter_first_pos(r, o[0], p.at(0)); });
    add_any("limit", 1,
            [](Plan &, Iter *r, Iter *const *o, const Params &p) { return qmo_seq_limit(r, o[0], p.at(0), p.at(1)); });
    add_any("filter_pos", 1, [](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_filter_pos(r, o[0]); });
    add_any("group_agg_count", 1,
            [](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_group_agg_count(r, o[0]); });
    add_any("group_agg_approxdc", 2, [](Plan &, Iter *r, Iter *const *o, const Params &) {
        return qmo_seq_group_agg_approxdc(r, o[0], o[1]);
    });
    add_any("group_agg_approxdc_hash", 2, [](Plan &, Iter *r, Iter *const *o, const Params &) {
        return qmo_seq_group_agg_approxdc_hash(r, o[0], o[1]);
    });

}

// ---- nodes -------------------------------------------------------------------------------------

const void *data_of(const py::array &a) { return a.ndim() ? a.data() : nullptr; }

NodePtr array_node(py::array values, int type, size_t width, py::object nulls, uint64_t first_pos) {
    if (type < 0 || type >= kTypeCodes || !sources[type]) throw py::type_error("no array source for this type");
    auto node = std::make_shared<Node>();
    const auto *bitmap = nulls.is_none() ? nullptr : static_cast<const uint64_t *>(data_of(nulls.cast<py::array>()));
    const void *data = data_of(values);
    const uint64_t n = static_cast<uint64_t>(values.size());
    const size_t item = static_cast<size_t>(values.itemsize());
    const Source source = sources[type];
    node->name = "array";
    node->rows = n;
    node->keep = py::make_tuple(values, nulls);
    node->make = [=](Plan &plan, Iter *r, Iter *const *, const Params &) {
        // A plan of some rows reads those (from is a multiple of 64: whole bitmap words).
        const uint64_t from = std::min(plan.from, n), till = plan.probe ? from : std::min(plan.till, n);
        const int rc = source(r, static_cast<const char *>(data) + from * item, till - from,
                              bitmap ? bitmap + from / 64 : nullptr, width);
        r->first_pos = first_pos + from;  // where these rows lie in the whole column
        return rc;
    };
    return finish(node);
}

NodePtr constant_node(int type, py::bytes value) {
    if (type < 0 || type >= kTypeCodes || !constants[type]) throw py::type_error("no constant for this type");
    auto node = std::make_shared<Node>();
    std::string bytes = value;
    const Constant make = constants[type];
    node->name = "constant";
    node->make = [=](Plan &, Iter *r, Iter *const *, const Params &) { return make(r, bytes.data(), bytes.size()); };
    return finish(node);
}

NodePtr op_node(const std::string &name, std::vector<NodePtr> operands, Params params) {
    const auto found = ops.find(name);
    if (found == ops.end()) throw py::value_error("no operator " + name + " in this build");
    const Op &op = found->second;
    if (operands.size() != op.arity) throw py::type_error(name + " takes " + std::to_string(op.arity) + " operands");
    const int type = operands[op.chooser]->type;
    if (!op.members[type]) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
    auto node = std::make_shared<Node>();
    node->name = name;
    node->operands = std::move(operands);
    node->params = std::move(params);
    node->make = op.members[type];
    return finish(node);
}

// Text operands: the node owns the text, which the record reads as it goes.
NodePtr parse_node(int type, std::string text) {
    if (type < 0 || type >= kTypeCodes || !parsers[type]) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
    auto node = std::make_shared<Node>();
    const auto parse = parsers[type];
    node->name = "parse";
    auto owned = std::make_shared<const std::string>(std::move(text));
    node->make = [=](Plan &, Iter *r, Iter *const *, const Params &) { return parse(r, owned->c_str()); };
    return finish(node);
}

NodePtr custom_parse_node(int type, size_t width, std::string text, py::function scan) {
    auto node = std::make_shared<Node>();
    auto owned = std::make_shared<const std::string>(std::move(text));
    node->keep = scan;
    node->make = [=](Plan &plan, Iter *r, Iter *const *, const Params &) {
        auto ctx = std::make_shared<ScanContext>(ScanContext{scan, owned->c_str(), width, nullptr});
        const int rc = qmo_seq_custom_parse(r, owned->c_str(), type, width, &ScanContext::call, ctx.get());
        if (rc == QMO_SEQ_OK) plan.scans.push_back(std::move(ctx));
        return rc;
    };
    return finish(node);
}

NodePtr match_node(NodePtr input, std::string pattern) {
    auto node = std::make_shared<Node>();
    auto owned = std::make_shared<const std::string>(std::move(pattern));
    node->name = "match";
    node->operands = {std::move(input)};
    node->make = [=](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_match(r, o[0], owned->c_str()); };
    return finish(node);
}

NodePtr convert_node(NodePtr input, int to) {
    if (to < 0 || to >= kTypeCodes || !conversions[input->type][to]) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
    auto node = std::make_shared<Node>();
    node->name = "convert";
    node->operands = {std::move(input)};
    node->make = conversions[node->operands[0]->type][to];
    return finish(node);
}

// ---- evaluation --------------------------------------------------------------------------------

// Every element's bytes and, when some are null, a mask (true = null).
py::tuple collect(Iter *it) {
    std::vector<char> bytes;
    std::vector<bool> nulls;
    bool any_null = false;
    int rc;
    {
        py::gil_scoped_release unlocked;
        while ((rc = it->next(it)) == QMO_SEQ_OK) {
            const size_t n = it->tile_count, w = it->elem_size, before = bytes.size() / w;
            bytes.insert(bytes.end(), it->values.bytes, it->values.bytes + n * w);
            if ((it->null_bitmap[0] | it->null_bitmap[1]) == 0 && !any_null) continue;
            if (!any_null) nulls.assign(before, false);
            any_null = true;
            for (size_t i = 0; i < n; ++i) nulls.push_back((it->null_bitmap[i / 64] >> (i % 64)) & 1);
        }
    }
    if (rc != QMO_SEQ_END) throw StatusError{rc};
    py::array_t<uint8_t> raw(static_cast<py::ssize_t>(bytes.size()));
    std::memcpy(raw.mutable_data(), bytes.data(), bytes.size());
    py::object mask = py::none();
    if (any_null) {
        py::array_t<bool> m(static_cast<py::ssize_t>(nulls.size()));
        for (size_t i = 0; i < nulls.size(); ++i) m.mutable_data()[i] = nulls[i];
        mask = m;
    }
    return py::make_tuple(raw, mask, it->elem_type, it->elem_size);
}

// Two outputs that advance together, each step's tiles taken from both.
py::tuple collect_pair(Iter *a, Iter *b) {
    std::vector<uint64_t> left, right;
    int rc;
    {
        py::gil_scoped_release unlocked;
        while ((rc = a->next(a)) == QMO_SEQ_OK) {
            if ((rc = b->next(b)) != QMO_SEQ_OK) break;
            left.insert(left.end(), a->values.u8, a->values.u8 + a->tile_count);
            right.insert(right.end(), b->values.u8, b->values.u8 + b->tile_count);
        }
    }
    if (rc != QMO_SEQ_END) throw StatusError{rc};
    auto as_array = [](const std::vector<uint64_t> &v) {
        py::array_t<uint8_t> raw(static_cast<py::ssize_t>(v.size() * 8));
        std::memcpy(raw.mutable_data(), v.data(), v.size() * 8);
        return py::make_tuple(raw, py::none(), int{QMO_SEQ_TYPE_UINT8}, 8);
    };
    return py::make_tuple(as_array(left), as_array(right));
}

// A hash aggregate gives (groups, aggregates), a join (left, right
// positions); anything else its one sequence.
py::object pull(Plan &plan, Iter *root) {
    if (const auto twin = plan.twins.find(root); twin != plan.twins.end()) return collect_pair(root, twin->second);
    const auto grp = plan.groups.find(root);
    if (grp == plan.groups.end()) return collect(root);
    py::tuple aggregates = collect(root);
    return py::make_tuple(collect(grp->second), aggregates);
}

// ---- partitioned evaluation on threads ---------------------------------------------------------

// Rows per partition: a mergeable request over n rows is evaluated as
// ceil(n / kPartitionRows) partitions, merged in partition order, whatever
// the number of threads. A multiple of 64, so partitions start at whole
// words of a null bitmap.
constexpr uint64_t kPartitionRows = uint64_t{1} << 20;
static_assert(kPartitionRows % 64 == 0);

// Operators whose every output element depends on its own row alone (and
// filters, which keep or drop rows): over partitions they give the
// partitions of the whole. Positions after a filter would not, so a request
// for first positions takes no filter.
const std::set<std::string> &row_operators() {
    static const std::set<std::string> names = [] {
        std::set<std::string> n = {"constant", "convert", "match", "and", "or", "xor", "not", "iif", "filter"};
#define QMO_PY_ROW_OP_(family, shape, types, partial, statuses, doc) n.insert(#family);
        QMO_SEQ_ARITHMETIC_FAMILIES(QMO_PY_ROW_OP_)
        QMO_SEQ_COMPARISON_FAMILIES(QMO_PY_ROW_OP_)
#undef QMO_PY_ROW_OP_
        return n;
    }();
    return names;
}

// True when the subtree reads only arrays (all of `rows` rows) through row operators.
bool by_rows(const Node &node, bool positions, uint64_t &rows) {
    if (node.name == "array") {
        if (rows != ~uint64_t{0} && rows != node.rows) return false;
        rows = node.rows;
        return true;
    }
    const bool every_row = node.name == "limit" && node.params == Params{0, ~uint64_t{0}};
    if (!every_row && (!row_operators().count(node.name) || (positions && node.name == "filter"))) return false;
    for (const NodePtr &o : node.operands)
        if (o && !by_rows(*o, positions, rows)) return false;
    return true;
}

// The rows of a request whose operands read arrays through row operators
// only (0 for any other). Whether the request itself merges its partitions
// (an aggregate, top-N, first positions, a group-by) its record tells.
uint64_t partitionable_rows(const Node &node) {
    uint64_t rows = ~uint64_t{0};
    for (const NodePtr &o : node.operands)
        if (o && !by_rows(*o, node.name == "filter_first_pos", rows)) return 0;
    return rows == ~uint64_t{0} ? 0 : rows;
}

// Each partition gets its own plan (its own records and tables), prepared on
// one of `threads` threads without the GIL; the partial results are merged
// into the first partition's record in partition order on this thread.
py::object evaluate_partitioned(const NodePtr &node, uint64_t rows, unsigned threads) {
    const size_t parts = static_cast<size_t>((rows + kPartitionRows - 1) / kPartitionRows);
    std::vector<std::unique_ptr<Plan>> plans;
    std::vector<Iter *> roots;
    for (size_t p = 0; p < parts; ++p) {
        auto &plan = *plans.emplace_back(std::make_unique<Plan>());
        plan.from = p * kPartitionRows;
        plan.till = plan.from + kPartitionRows;
        roots.push_back(node->build(plan));
        if (!roots[0]->prepare || !roots[0]->merge) {  // not mergeable: one pass
            plans.clear();
            Plan whole;
            return pull(whole, node->build(whole));
        }
    }
    std::vector<int> status(parts, QMO_SEQ_OK);
    int rc = QMO_SEQ_OK;
    {
        py::gil_scoped_release unlocked;
        std::atomic<size_t> next{0};
        auto work = [&] {
            for (size_t p; (p = next.fetch_add(1, std::memory_order_relaxed)) < parts;)
                status[p] = roots[p]->prepare(roots[p]);
        };
        std::vector<std::thread> pool;
        for (unsigned t = 1; t < std::min<size_t>(threads, parts); ++t) {
            try {
                pool.emplace_back(work);
            } catch (const std::system_error &) {
                break;  // fewer threads: the same partitions, the same answer
            }
        }
        work();
        for (std::thread &t : pool) t.join();
        for (size_t p = 0; p < parts && !rc; ++p) rc = status[p];
        for (size_t p = 1; p < parts && !rc; ++p) rc = roots[0]->merge(roots[0], roots[p]);
    }
    check(rc);
    return pull(*plans[0], roots[0]);
}

// threads > 1: a mergeable request of more than one partition's rows goes
// over partitions on threads; anything else is evaluated in one pass.
py::object evaluate(const NodePtr &node, unsigned threads) {
    if (threads > 1)
        if (const uint64_t rows = partitionable_rows(*node); rows > kPartitionRows)
            return evaluate_partitioned(node, rows, threads);
    Plan plan;
    try {
        return pull(plan, node->build(plan));
    } catch (const StatusError &) {
        plan.rethrow_scan_error();
        throw;
    }
}

int append_text(void *out, const char *text, uint64_t length) {
    static_cast<std::string *>(out)->append(text, length);
    return QMO_SEQ_OK;
}

// The text form of the sequence; bytes that are not UTF-8 (char elements)
// come back as surrogate escapes, which parse() encodes back.
py::str to_text(const NodePtr &node, std::optional<std::string> format) {
    Plan plan;
    Iter *root = node->build(plan);
    if (!printers[root->elem_type]) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
    std::string out;
    int rc;
    {
        py::gil_scoped_release unlocked;
        rc = printers[root->elem_type](root, format ? format->c_str() : nullptr, append_text, &out);
    }
    if (rc != QMO_SEQ_OK) {
        plan.rethrow_scan_error();
        throw StatusError{rc};
    }
    PyObject *text = PyUnicode_DecodeUTF8(out.data(), static_cast<py::ssize_t>(out.size()), "surrogateescape");
    if (!text) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(text);
}

// ---- partial results ---------------------------------------------------------------------------

py::bytes export_partial(const Iter *it) {
    uint64_t size = 0;
    check(qmo_seq_export_partial(it, nullptr, &size));
    std::string bytes(size, '\0');
    check(qmo_seq_export_partial(it, bytes.data(), &size));
    return py::bytes(bytes);
}

py::bytes partial(const NodePtr &node) {
    Plan plan;
    Iter *root = node->build(plan);
    if (!root->prepare) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
    {
        py::gil_scoped_release unlocked;
        root->prepare(root);
    }
    return export_partial(root);
}

// The Python name of the family that holds partial results of a code.
#define QMO_PY_PARTIAL_NAME_(family, shape, types, partial, statuses, doc) \
    if (code != 0 && code == int{partial}) return QMO_PY_NAME_(QMO_SEQ_MERGE_##shape, family);
#define QMO_PY_NAME_(merge, family) QMO_PY_NAME_I_(merge, family)
#define QMO_PY_NAME_I_(merge, family) QMO_PY_NAME_##merge(family)
#define QMO_PY_NAME_NONE(family) #family
#define QMO_PY_NAME_FOLD(family) #family
#define QMO_PY_NAME_PAIR_FOLD(family) #family
#define QMO_PY_NAME_TOP(family) #family
#define QMO_PY_NAME_SINGLE(family) #family
#define QMO_PY_NAME_HASH(family) "hash_agg_" #family
#define QMO_PY_NAME_HASH_SKETCH(family) "hash_agg_" #family
const char *family_name(int code) {
    QMO_SEQ_FAMILIES(QMO_PY_PARTIAL_NAME_)
    return nullptr;
}

// Every row of the registry, for the package's docstrings and help.
py::list families() {
    py::list rows;
#define QMO_PY_FAMILY_ROW_(family, shape, types, partial, statuses, doc)                                  \
    rows.append(py::dict(py::arg("name") = QMO_PY_NAME_(QMO_SEQ_MERGE_##shape, family), py::arg("shape") = #shape, \
                         py::arg("partial") = int{partial}, py::arg("statuses") = statuses, py::arg("doc") = doc));
    QMO_SEQ_FAMILIES(QMO_PY_FAMILY_ROW_)
    return rows;
}

// An empty sequence of a type (families for any type read int4). Not an array
// source itself: a count over one would not be mergeable.
NodePtr empty_source(int type, size_t width) {
    if (type == QMO_SEQ_PARTIAL_ANY_TYPE) type = QMO_SEQ_TYPE_INT4, width = 4;
    // A type no record can have is the bytes' fault, not the caller's.
    if (type >= kTypeCodes || !sources[type]) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
    static const std::array<py::ssize_t, 1> none{0};
    auto array = array_node(py::array(py::dtype("u1"), none), type, type == QMO_SEQ_TYPE_CHAR ? width : 0, py::none(), 0);
    return op_node("limit", {array}, {0, ~uint64_t{0}});
}

// A record of the family and types of some partial result, built over empty sources.
Iter *record_for(Plan &plan, const std::string &bytes, std::vector<NodePtr> &nodes) {
    qmo_seq_partial_header_t h;
    check(qmo_seq_read_partial_header(bytes.data(), bytes.size(), &h));
    const char *name = family_name(h.family);
    if (!name || !ops.count(name)) throw StatusError{QMO_SEQ_UNSUPPORTED};
    const std::string family = name;
    std::vector<NodePtr> operands;
    Params params;
    if (family == "filter_first_pos" || family == "top_max" || family == "top_min") {
        // Ranked lists begin with their limit, which the record is built with.
        uint64_t limit = 0;
        if (h.payload_bytes >= 8) std::memcpy(&limit, bytes.data() + QMO_SEQ_PARTIAL_HEADER_BYTES, 8);
        params.push_back(limit > QMO_SEQ_TILE_SIZE ? QMO_SEQ_TILE_SIZE + 1 : limit);
        operands.push_back(family == "filter_first_pos" ? empty_source(QMO_SEQ_TYPE_UINT1, 0)
                                                        : empty_source(h.elem_type, 0));
    } else if (family == "hash_agg_count") {
        operands.push_back(empty_source(h.key_type, h.key_width));
    } else if (family.rfind("hash_agg_", 0) == 0) {
        operands.push_back(empty_source(h.elem_type, 0));
        operands.push_back(empty_source(h.key_type, h.key_width));
    } else {
        for (size_t i = 0; i < ops.at(family).arity; ++i) operands.push_back(empty_source(h.elem_type, 0));
    }
    nodes.push_back(op_node(family, std::move(operands), params));
    Iter *it = nodes.back()->build(plan);
    check(qmo_seq_import_partial(it, bytes.data(), bytes.size()));
    return it;
}

bool same_member(const std::string &a, const std::string &b) {
    qmo_seq_partial_header_t x, y;
    check(qmo_seq_read_partial_header(a.data(), a.size(), &x));
    check(qmo_seq_read_partial_header(b.data(), b.size(), &y));
    return x.family == y.family && x.elem_type == y.elem_type && x.key_type == y.key_type &&
           x.key_width == y.key_width;
}

// Folds every partial result into the first one's record; all must be of one member.
Iter *merged(Plan &plan, const std::vector<std::string> &parts, std::vector<NodePtr> &nodes) {
    if (parts.empty()) throw py::value_error("nothing to merge");
    Iter *into = record_for(plan, parts[0], nodes);
    for (size_t i = 1; i < parts.size(); ++i) {
        if (!same_member(parts[0], parts[i])) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
        Iter *from = record_for(plan, parts[i], nodes);
        check(into->merge(into, from));
    }
    return into;
}

py::bytes merge_partials(const std::vector<std::string> &parts) {
    Plan plan;
    std::vector<NodePtr> nodes;
    return export_partial(merged(plan, parts, nodes));
}

py::object result_of(const std::vector<std::string> &parts) {
    Plan plan;
    std::vector<NodePtr> nodes;
    return pull(plan, merged(plan, parts, nodes));
}

// Pulls an order-dependent expression (a window or cumulative aggregate at
// the root) from a carried state, none: from the start. Gives its elements
// (when keep; else they are only pulled) and its state after them.
py::tuple carried(const NodePtr &node, py::object state, bool keep) {
    Plan plan;
    Iter *root = node->build(plan);
    if (!state.is_none()) {
        const std::string bytes = py::bytes(state);
        check(qmo_seq_import_state(root, bytes.data(), bytes.size()));
    }
    py::object out = py::none();
    if (keep) {
        out = pull(plan, root);
    } else {
        int rc;
        {
            py::gil_scoped_release unlocked;
            while ((rc = root->next(root)) == QMO_SEQ_OK) {
            }
        }
        if (rc != QMO_SEQ_END) throw StatusError{rc};
    }
    uint64_t size = 0;
    check(qmo_seq_export_state(root, nullptr, &size));
    std::string after(size, '\0');
    check(qmo_seq_export_state(root, after.data(), &size));
    return py::make_tuple(out, py::bytes(after));
}

py::array_t<uint64_t> argsort(py::array values, int type, bool descending) {
    if (type < 0 || type >= kTypeCodes || !sorts[type]) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
    const auto n = static_cast<uint64_t>(values.size());
    py::array_t<uint64_t> perm(static_cast<py::ssize_t>(n));
    const void *data = data_of(values);
    uint64_t *out = perm.mutable_data();
    {
        py::gil_scoped_release unlocked;
        sorts[type](data, out, n, descending ? QMO_SEQ_DESCENDING : QMO_SEQ_ASCENDING);
    }
    return perm;
}

}  // namespace

PYBIND11_MODULE(_core, m) {
    m.doc() = "Typed records of the qmo_seq library behind the qmo_seq package.";
    stamp_tables();
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const StatusError &e) {
            py::object error = py::reinterpret_borrow<py::object>(error_class)(e.status);
            PyErr_SetObject(error_class.ptr(), error.ptr());
        }
    });
    m.def("_set_error", [](py::object cls) { error_class = cls.release(); });
    py::class_<Node, NodePtr>(m, "Node")
        .def_property_readonly("type", [](const Node &n) { return n.type; })
        .def_property_readonly("width", [](const Node &n) { return n.width; });
    m.def("array", &array_node, py::arg("values"), py::arg("type"), py::arg("width"), py::arg("nulls"),
          py::arg("first_pos") = 0);
    m.def("constant", &constant_node);
    m.def("op", &op_node, py::arg("name"), py::arg("operands"), py::arg("params") = Params{});
    m.def("convert", &convert_node);
    m.def("parse", &parse_node);
    m.def("custom_parse", &custom_parse_node);
    m.def("to_text", &to_text, py::arg("node"), py::arg("format") = py::none());
    m.def("match", &match_node);
    m.def("has_op", [](const std::string &name) { return ops.count(name) > 0; });
    m.def("evaluate", &evaluate, py::arg("node"), py::arg("threads") = 1);
    m.attr("PARTITION_ROWS") = kPartitionRows;
    m.def("partial", &partial);
    m.def("merge", &merge_partials);
    m.def("result", &result_of);
    m.def("carried", &carried, py::arg("node"), py::arg("state"), py::arg("keep") = true);
    m.def("argsort", &argsort);
    m.def("families", &families);
    py::dict statuses, types;
#define QMO_PY_STATUS_(NAME, code, text) statuses[py::int_(code)] = py::make_tuple(#NAME, text);
    QMO_SEQ_STATUS_CODES(QMO_PY_STATUS_)
#define QMO_PY_TYPE_(NAME, code, text) types[#NAME] = py::int_(code);
    QMO_SEQ_TYPE_CODES(QMO_PY_TYPE_)
    m.attr("statuses") = statuses;
    m.attr("types") = types;
}
