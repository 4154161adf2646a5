// Importer of partial results: arbitrary bytes into records of every kind
// must give a status or a record that can be pulled, merged and exported.
// First input byte: the record (low four bits; from 8 on, records with
// carried state rather than partial results); with the high bit the harness
// writes a valid header for it, and with bit 6 or the high bit it makes the
// checksum match, so that header fields and payloads are explored as well.
#include "frame/crc32c.hpp"
#include "qmo_seq.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

struct Records {
    qmo_seq_iterator_t values{}, keys{}, agg{}, grp{};
};

const int16_t kInt2[3] = {1, -2, 3};
const double kDouble[3] = {1.5, -2, 1e300};
const int32_t kInt4[3] = {7, -1, 1 << 30};

// Builds record `which` over empty sources; false when there is no such record.
bool build(Records &r, unsigned which) {
    switch (which) {
    case 0: qmo_seq_unget_int4(&r.values, nullptr, 0); return !qmo_seq_agg_sum_int4(&r.agg, &r.values);
    case 1:
        qmo_seq_unget_double(&r.values, nullptr, 0);
        qmo_seq_unget_double(&r.keys, nullptr, 0);
        return !qmo_seq_corr_double(&r.agg, &r.values, &r.keys);
    case 2:  // through a range: a count over an array source itself is not mergeable
        qmo_seq_unget_int2(&r.values, nullptr, 0);
        qmo_seq_limit(&r.keys, &r.values, 0, ~uint64_t{0});
        return !qmo_seq_agg_count_not_null(&r.agg, &r.keys);
    case 3: qmo_seq_unget_int2(&r.values, nullptr, 0); return !qmo_seq_agg_approxdc(&r.agg, &r.values);
    case 4: qmo_seq_unget_uint1(&r.values, nullptr, 0); return !qmo_seq_filter_first_pos(&r.agg, &r.values, 9);
    case 5:
        qmo_seq_unget_int4(&r.values, nullptr, 0);
        qmo_seq_unget_int2(&r.keys, nullptr, 0);
        return !qmo_seq_hash_agg_sum_int4(&r.agg, &r.grp, &r.values, &r.keys, 3);
    case 6:
        qmo_seq_unget_double(&r.values, nullptr, 0);
        qmo_seq_unget_char(&r.keys, nullptr, 0, 12);
        return !qmo_seq_hash_agg_approxdc(&r.agg, &r.grp, &r.values, &r.keys, 0);
    case 7:
        qmo_seq_unget_int8(&r.keys, nullptr, 0);
        return !qmo_seq_hash_agg_count(&r.agg, &r.grp, &r.keys, 0);
    // Carried state rather than partial results, over a few elements to pull after it.
    case 8: qmo_seq_unget_int2(&r.values, kInt2, 3); return !qmo_seq_window_agg_max_int2(&r.agg, &r.values, 7);
    case 9: qmo_seq_unget_double(&r.values, kDouble, 3); return !qmo_seq_window_agg_var_double(&r.agg, &r.values, 26);
    case 10: qmo_seq_unget_int4(&r.values, kInt4, 3); return !qmo_seq_cum_agg_dev_int4(&r.agg, &r.values);
    }
    return false;
}

void drain(qmo_seq_iterator_t *it) {
    while (it->next(it) == QMO_SEQ_OK) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    Records r, other;
    const unsigned which = data[0] & 15;
    if (!build(r, which) || !build(other, which)) return 0;
    const bool carried = which >= 8;
    auto exported = [carried](const qmo_seq_iterator_t *it, std::vector<unsigned char> &out) {
        uint64_t n = 0;
        carried ? qmo_seq_export_state(it, nullptr, &n) : qmo_seq_export_partial(it, nullptr, &n);
        out.resize(n);
        carried ? qmo_seq_export_state(it, out.data(), &n) : qmo_seq_export_partial(it, out.data(), &n);
    };
    std::vector<unsigned char> bytes;
    if (data[0] & 0x80) {
        // The record's own header with the input as payload.
        exported(&r.agg, bytes);
        bytes.resize(QMO_SEQ_PARTIAL_HEADER_BYTES);
        const uint64_t payload = size - 1;
        std::memcpy(bytes.data() + 16, &payload, 8);
    }
    bytes.insert(bytes.end(), data + 1, data + size);
    if ((data[0] & 0xC0) && bytes.size() >= QMO_SEQ_PARTIAL_HEADER_BYTES) {
        const uint32_t crc = qmo::crc32c(qmo::crc32c(0, bytes.data(), 12), bytes.data() + 16, bytes.size() - 16);
        std::memcpy(bytes.data() + 12, &crc, 4);
    }
    if (carried) {
        // Whatever state was taken, the record goes on pulling from it.
        if (qmo_seq_import_state(&r.agg, bytes.data(), bytes.size()) == QMO_SEQ_OK) {
            drain(&r.agg);
            std::vector<unsigned char> again;
            exported(&r.agg, again);
        }
        return 0;
    }
    if (qmo_seq_import_partial(&r.agg, bytes.data(), bytes.size()) == QMO_SEQ_OK) {
        other.agg.prepare(&other.agg);
        r.agg.merge(&r.agg, &other.agg);
        std::vector<unsigned char> again;
        exported(&r.agg, again);
        drain(&r.agg);
        if (qmo_seq_is_hash_aggreate(&r.grp)) drain(&r.grp);
    }
    if (qmo_seq_is_hash_aggreate(&r.agg)) qmo_seq_release_hash(&r.agg);
    if (qmo_seq_is_hash_aggreate(&other.agg)) qmo_seq_release_hash(&other.agg);
    return 0;
}
