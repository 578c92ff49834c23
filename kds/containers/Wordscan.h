// Sixteen 32-bit numbers compared with one at once and without a branch, so that the processor goes
// on to the next search while one waits for memory. Bit i of an answer is that of words[i].
#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kds {

inline constexpr std::int32_t WordsAtOnce = 16;

#if defined(__SSE2__)

// Gathers what `compare` says of four words at a time; it sets all bits of a word that fits.
template <typename F>
[[nodiscard]] inline std::uint32_t ScanWords(const void* words, F&& compare) noexcept {
    const auto* const quads = static_cast<const __m128i*>(words);
    const auto quad = [&](std::int32_t at) { return compare(_mm_loadu_si128(quads + at)); };
    const __m128i low = _mm_packs_epi32(quad(0), quad(1));
    const __m128i high = _mm_packs_epi32(quad(2), quad(3));
    return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}
[[nodiscard]] inline std::uint32_t WordsEqual(const std::uint32_t* words,
                                              std::uint32_t word) noexcept {
    const __m128i wanted = _mm_set1_epi32(static_cast<std::int32_t>(word));
    return ScanWords(words, [&](__m128i quad) { return _mm_cmpeq_epi32(quad, wanted); });
}
[[nodiscard]] inline std::uint32_t WordsBelow(const std::int32_t* words,
                                              std::int32_t word) noexcept {
    const __m128i wanted = _mm_set1_epi32(word);
    return ScanWords(words, [&](__m128i quad) { return _mm_cmplt_epi32(quad, wanted); });
}

#else

[[nodiscard]] inline std::uint32_t WordsEqual(const std::uint32_t* words,
                                              std::uint32_t word) noexcept {
    std::uint32_t mask = 0;
    for (std::int32_t i = 0; i < WordsAtOnce; ++i) mask |= (words[i] == word ? 1u : 0u) << i;
    return mask;
}
[[nodiscard]] inline std::uint32_t WordsBelow(const std::int32_t* words,
                                              std::int32_t word) noexcept {
    std::uint32_t mask = 0;
    for (std::int32_t i = 0; i < WordsAtOnce; ++i) mask |= (words[i] < word ? 1u : 0u) << i;
    return mask;
}

#endif

}  // namespace kds
