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

#include <array>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
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

struct Plan {
    bool probe = false;  // sources of length 0: only the result types are wanted
    std::deque<Iter> records;
    std::unordered_map<const Iter *, Iter *> groups;  // a hash aggregate's group output
    std::vector<Iter *> hashes;
    std::vector<std::pair<int (*)(Iter *), Iter *>> resets;  // records that hold memory until reset
    explicit Plan(bool types_only = false) : probe(types_only) {}
    Plan(const Plan &) = delete;
    ~Plan() {
        for (Iter *h : hashes) qmo_seq_release_hash(h);
        for (auto [reset, it] : resets) reset(it);
    }
    Iter *record() { return &records.emplace_back(); }
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

void stamp_tables() {
#define QMO_PY_SOURCE_(a, t, ctype, code)                                                                 \
    sources[code] = [](Iter *r, const void *v, uint64_t n, const uint64_t *nulls, size_t) {               \
        const auto *values = static_cast<const ctype *>(v);                                               \
        return nulls ? qmo_seq_unget_nullable_##t(r, values, n, nulls) : qmo_seq_unget_##t(r, values, n); \
    };                                                                                                    \
    constants[code] = [](Iter *r, const void *v, size_t) {                                                \
        ctype x;                                                                                          \
        std::memcpy(&x, v, sizeof x);                                                                     \
        return qmo_seq_const_##t(r, x);                                                                   \
    };                                                                                                    \
    sorts[code] = [](const void *v, uint64_t *perm, uint64_t n, int order) {                              \
        qmo_seq_sort_##t(static_cast<const ctype *>(v), perm, n, order);                                  \
    };
    QMO_SEQ_NUMERIC_TYPES(QMO_PY_SOURCE_, )
    sources[QMO_SEQ_TYPE_CHAR] = [](Iter *r, const void *v, uint64_t n, const uint64_t *nulls, size_t w) {
        const auto *values = static_cast<const char *>(v);
        return nulls ? qmo_seq_unget_nullable_char(r, values, n, nulls, w) : qmo_seq_unget_char(r, values, n, w);
    };
    constants[QMO_SEQ_TYPE_CHAR] = [](Iter *r, const void *v, size_t w) {
        return qmo_seq_const_char(r, static_cast<const char *>(v), w);
    };

#define QMO_PY_UNARY_(op, t, ctype, code) \
    add(#op, 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_##op##_##t(r, o[0]); });
#define QMO_PY_BINARY_(op, t, ctype, code)                                                 \
    add(#op, 2, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &) {             \
        return qmo_seq_##op##_##t(r, o[0], o[1]);                                          \
    });
// (cond, x): the second operand's type chooses.
#define QMO_PY_MASKED_(op, t, ctype, code)                                                 \
    add(#op, 2, 1, code, [](Plan &, Iter *r, Iter *const *o, const Params &) {             \
        return qmo_seq_##op##_##t(r, o[0], o[1]);                                          \
    });
#define QMO_PY_SELECT_(op, t, ctype, code)                                                 \
    add(#op, 3, 1, code, [](Plan &, Iter *r, Iter *const *o, const Params &) {             \
        return qmo_seq_##op##_##t(r, o[0], o[1], o[2]);                                    \
    });
#define QMO_PY_HASH_(op, t, ctype, code) add("hash_agg_" #op, 2, 0, code, hashed(qmo_seq_hash_agg_##op##_##t, true));
#define QMO_PY_UNARY_FAMILY_(op) QMO_SEQ_NUMERIC_TYPES(QMO_PY_UNARY_, op)
#define QMO_PY_BINARY_FAMILY_(op) QMO_SEQ_NUMERIC_TYPES(QMO_PY_BINARY_, op)
#define QMO_PY_COMPARISON_FAMILY_(op) QMO_SEQ_ALL_TYPES(QMO_PY_BINARY_, op)
#define QMO_PY_HASH_FAMILY_(op) QMO_SEQ_NUMERIC_TYPES(QMO_PY_HASH_, op)
// (input, one count): top-N, grid and window aggregates.
#define QMO_PY_COUNTED_(op, t, ctype, code)                                                \
    add(#op, 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {            \
        return qmo_seq_##op##_##t(r, o[0], p.at(0));                                       \
    });
#define QMO_PY_COUNTED_FAMILY_(op) QMO_SEQ_NUMERIC_TYPES(QMO_PY_COUNTED_, op)
#define QMO_PY_GRID_FAMILY_(op) QMO_SEQ_NUMERIC_TYPES(QMO_PY_COUNTED_, grid_agg_##op)
#define QMO_PY_WINDOW_FAMILY_(op) QMO_SEQ_NUMERIC_TYPES(QMO_PY_COUNTED_, window_agg_##op)
#define QMO_PY_CUM_FAMILY_(op) QMO_SEQ_NUMERIC_TYPES(QMO_PY_UNARY_, cum_agg_##op)
#define QMO_PY_GROUP_FAMILY_(op) QMO_SEQ_NUMERIC_TYPES(QMO_PY_BINARY_, group_agg_##op)
#define QMO_PY_RESHAPE_(a, t, ctype, code)                                                                  \
    add("thin", 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                          \
        return qmo_seq_thin_##t(r, o[0], p.at(0), p.at(1));                                                 \
    });                                                                                                      \
    add("repeat", 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                        \
        return qmo_seq_repeat_##t(r, o[0], p.at(0));                                                        \
    });                                                                                                      \
    add("reverse", 1, 0, code, [](Plan &plan, Iter *r, Iter *const *o, const Params &) {                    \
        const int rc = qmo_seq_reverse_##t(r, o[0]);                                                        \
        if (rc == QMO_SEQ_OK) plan.resets.emplace_back(qmo_seq_reverse_##t##_reset, r);                     \
        return rc;                                                                                           \
    });                                                                                                      \
    QMO_PY_UNARY_(unique, t, ctype, code)
#define QMO_PY_ANALYTICS_(a, t, ctype, code)                                                                \
    QMO_PY_UNARY_(diff, t, ctype, code)                                                                     \
    QMO_PY_UNARY_(trend, t, ctype, code)                                                                    \
    QMO_PY_UNARY_(norm, t, ctype, code)                                                                     \
    add("cross", 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                         \
        return qmo_seq_cross_##t(r, o[0], param<int32_t>(p, 0));                                            \
    });                                                                                                      \
    add("extrema", 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                       \
        return qmo_seq_extrema_##t(r, o[0], param<int32_t>(p, 0));                                          \
    });                                                                                                      \
    add("histogram", 1, 0, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                     \
        return qmo_seq_histogram_##t(r, o[0], param<ctype>(p, 0), param<ctype>(p, 1), param<int64_t>(p, 2)); \
    });
// (target stamps, source stamps, values): the values' type chooses; one operator per stamp type.
#define QMO_PY_STRETCH_(ts, t, ctype, code) QMO_PY_STRETCH_I_(QMO_SEQ_EXPAND ts, t, ctype, code)
#define QMO_PY_STRETCH_I_(...) QMO_PY_STRETCH_II_(__VA_ARGS__)
#define QMO_PY_STRETCH_II_(ts, t, ctype, code)                                                              \
    add("stretch_" #ts, 3, 2, code, [](Plan &, Iter *r, Iter *const *o, const Params &p) {                  \
        return qmo_seq_stretch_##ts##_##t(r, o[0], o[1], o[2], param<ctype>(p, 0));                         \
    });
#define QMO_PY_STRETCHES_OVER_(a, ts, tsctype, tscode) QMO_SEQ_NUMERIC_TYPES(QMO_PY_STRETCH_, (ts))

    // Adding a family is one line here, in the shape of its constructor.
    QMO_SEQ_ARITHMETIC_OPS(QMO_PY_BINARY_FAMILY_)
    QMO_SEQ_COMPARISON_OPS(QMO_PY_COMPARISON_FAMILY_)
    QMO_SEQ_SIGN_OPS(QMO_PY_UNARY_FAMILY_)
    QMO_SEQ_AGGREGATE_OPS(QMO_PY_UNARY_FAMILY_)
    QMO_SEQ_PAIR_AGGREGATE_OPS(QMO_PY_BINARY_FAMILY_)
    QMO_SEQ_NUMERIC_TYPES(QMO_PY_UNARY_, agg_min_max)
    QMO_SEQ_ALL_TYPES(QMO_PY_MASKED_, filter)
    QMO_SEQ_ALL_TYPES(QMO_PY_SELECT_, iif)
    QMO_SEQ_HASH_AGGREGATE_OPS(QMO_PY_HASH_FAMILY_)
    QMO_SEQ_TOP_OPS(QMO_PY_COUNTED_FAMILY_)
    QMO_SEQ_TOP_POS_OPS(QMO_PY_COUNTED_FAMILY_)
    QMO_SEQ_GRID_AGGREGATE_OPS(QMO_PY_GRID_FAMILY_)
    QMO_SEQ_WINDOW_AGGREGATE_OPS(QMO_PY_WINDOW_FAMILY_)
    QMO_SEQ_CUM_AGGREGATE_OPS(QMO_PY_CUM_FAMILY_)
    QMO_SEQ_GROUP_AGGREGATE_OPS(QMO_PY_GROUP_FAMILY_)
    QMO_SEQ_NUMERIC_TYPES(QMO_PY_SELECT_, group_agg_wavg)
    QMO_SEQ_NUMERIC_TYPES(QMO_PY_RESHAPE_, )
    QMO_SEQ_NUMERIC_TYPES(QMO_PY_ANALYTICS_, )
    QMO_SEQ_TIMESTAMP_TYPES(QMO_PY_STRETCHES_OVER_, )

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
    add_any("hash_agg_count", 1, hashed(qmo_seq_hash_agg_count_uint8, false));
    add_any("group_agg_count", 1,
            [](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_group_agg_count(r, o[0]); });
    add_any("group_agg_approxdc", 2, [](Plan &, Iter *r, Iter *const *o, const Params &) {
        return qmo_seq_group_agg_approxdc(r, o[0], o[1]);
    });
    add_any("group_agg_approxdc_hash", 2, [](Plan &, Iter *r, Iter *const *o, const Params &) {
        return qmo_seq_group_agg_approxdc_hash(r, o[0], o[1]);
    });
    add_any("hash_agg_approxdc", 2, hashed(qmo_seq_hash_agg_approxdc, true));

#define QMO_PY_CONVERSION_(from, u, uctype, ucode) QMO_PY_CONVERSION_I_(QMO_SEQ_EXPAND from, u, ucode)
#define QMO_PY_CONVERSION_I_(...) QMO_PY_CONVERSION_II_(__VA_ARGS__)
#define QMO_PY_CONVERSION_II_(t, tcode, u, ucode)                                                  \
    conversions[tcode][ucode] = [](Plan &, Iter *r, Iter *const *o, const Params &) {              \
        return qmo_seq_##t##_to_##u(r, o[0]);                                                      \
    };
#define QMO_PY_CONVERSIONS_FROM_(a, t, ctype, code) QMO_SEQ_NUMERIC_TYPES_2(QMO_PY_CONVERSION_, (t, code))
    QMO_SEQ_NUMERIC_TYPES(QMO_PY_CONVERSIONS_FROM_, )

#define QMO_PY_PARSE_(a, t, ctype, code) parsers[code] = qmo_seq_parse_##t;
    QMO_SEQ_ALL_TYPES(QMO_PY_PARSE_, )
}

// ---- nodes -------------------------------------------------------------------------------------

const void *data_of(const py::array &a) { return a.ndim() ? a.data() : nullptr; }

NodePtr array_node(py::array values, int type, size_t width, py::object nulls, uint64_t first_pos) {
    if (type < 0 || type >= kTypeCodes || !sources[type]) throw py::type_error("no array source for this type");
    auto node = std::make_shared<Node>();
    const auto *bitmap = nulls.is_none() ? nullptr : static_cast<const uint64_t *>(data_of(nulls.cast<py::array>()));
    const void *data = data_of(values);
    const uint64_t n = static_cast<uint64_t>(values.size());
    const Source source = sources[type];
    node->keep = py::make_tuple(values, nulls);
    node->make = [=](Plan &plan, Iter *r, Iter *const *, const Params &) {
        const int rc = source(r, data, plan.probe ? 0 : n, bitmap, width);
        r->first_pos = first_pos;  // where this partition lies in the whole column
        return rc;
    };
    return finish(node);
}

NodePtr constant_node(int type, py::bytes value) {
    if (type < 0 || type >= kTypeCodes || !constants[type]) throw py::type_error("no constant for this type");
    auto node = std::make_shared<Node>();
    std::string bytes = value;
    const Constant make = constants[type];
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
    auto owned = std::make_shared<const std::string>(std::move(text));
    node->make = [=](Plan &, Iter *r, Iter *const *, const Params &) { return parse(r, owned->c_str()); };
    return finish(node);
}

NodePtr match_node(NodePtr input, std::string pattern) {
    auto node = std::make_shared<Node>();
    auto owned = std::make_shared<const std::string>(std::move(pattern));
    node->operands = {std::move(input)};
    node->make = [=](Plan &, Iter *r, Iter *const *o, const Params &) { return qmo_seq_match(r, o[0], owned->c_str()); };
    return finish(node);
}

NodePtr convert_node(NodePtr input, int to) {
    if (to < 0 || to >= kTypeCodes || !conversions[input->type][to]) throw StatusError{QMO_SEQ_TYPE_MISMATCH};
    auto node = std::make_shared<Node>();
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

// A hash aggregate gives (groups, aggregates); anything else its one sequence.
py::object pull(Plan &plan, Iter *root) {
    const auto grp = plan.groups.find(root);
    if (grp == plan.groups.end()) return collect(root);
    py::tuple aggregates = collect(root);
    return py::make_tuple(collect(grp->second), aggregates);
}

py::object evaluate(const NodePtr &node) {
    Plan plan;
    return pull(plan, node->build(plan));
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

const char *family_name(int code) {
#define QMO_PY_FAMILY_NAME_(family, NAME, c) \
    if (code == c) return #family;
    QMO_SEQ_PARTIAL_FAMILIES(QMO_PY_FAMILY_NAME_)
    return nullptr;
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
    m.def("match", &match_node);
    m.def("has_op", [](const std::string &name) { return ops.count(name) > 0; });
    m.def("evaluate", &evaluate);
    m.def("partial", &partial);
    m.def("merge", &merge_partials);
    m.def("result", &result_of);
    m.def("carried", &carried, py::arg("node"), py::arg("state"), py::arg("keep") = true);
    m.def("argsort", &argsort);
}
