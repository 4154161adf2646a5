#include "elementwise/compress.hpp"

#include <array>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define QMO_HAVE_AVX2_COMPRESS 1
#endif

namespace qmo {
namespace {

#if QMO_HAVE_AVX2_COMPRESS

// Lane indexes that move the picked lanes of an 8-lane vector to its front.
constexpr auto kLanes8 = [] {
    std::array<std::array<int32_t, 8>, 256> lut{};
    for (unsigned m = 0; m < 256; ++m) {
        unsigned k = 0;
        for (unsigned lane = 0; lane < 8; ++lane)
            if (m >> lane & 1) lut[m][k++] = static_cast<int32_t>(lane);
    }
    return lut;
}();

// The same for 4 lanes of 8 bytes, as pairs of 4-byte lanes.
constexpr auto kLanes4 = [] {
    std::array<std::array<int32_t, 8>, 16> lut{};
    for (unsigned m = 0; m < 16; ++m) {
        unsigned k = 0;
        for (unsigned lane = 0; lane < 4; ++lane)
            if (m >> lane & 1) {
                lut[m][2 * k] = static_cast<int32_t>(2 * lane);
                lut[m][2 * k + 1] = static_cast<int32_t>(2 * lane + 1);
                ++k;
            }
    }
    return lut;
}();

template <unsigned Lanes, const std::array<std::array<int32_t, 8>, (1u << Lanes)> &Lut>
__attribute__((target("avx2,popcnt"))) unsigned compress_avx2(void *dst, const void *src, Mask pick) {
    constexpr unsigned width = 32 / Lanes;
    auto *out = static_cast<char *>(dst);
    const auto *in = static_cast<const char *>(src);
    unsigned k = 0;
    for (unsigned i = 0; i < kTile && (pick >> i) != 0; i += Lanes) {
        const auto m = static_cast<unsigned>(pick >> i) & ((1u << Lanes) - 1);
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + i * width));
        const __m256i lanes = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(Lut[m].data()));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + k * width), _mm256_permutevar8x32_epi32(v, lanes));
        k += static_cast<unsigned>(_mm_popcnt_u32(m));
    }
    return k;
}

CompressFn pick_compress(CompressFn avx2) { return __builtin_cpu_supports("avx2") ? avx2 : nullptr; }

#else

CompressFn pick_compress(CompressFn) { return nullptr; }

#endif

}  // namespace

// Chosen once when the library is loaded.
#if QMO_HAVE_AVX2_COMPRESS
const CompressFn compress_4byte = pick_compress(compress_avx2<8, kLanes8>);
const CompressFn compress_8byte = pick_compress(compress_avx2<4, kLanes4>);
#else
const CompressFn compress_4byte = nullptr;
const CompressFn compress_8byte = nullptr;
#endif

}  // namespace qmo
