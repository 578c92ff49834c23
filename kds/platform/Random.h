// The process-wide pseudo-random generator behind skip-list levels and tree weights.
//
// Shape      Counter based: draw n is a mix of seed and n, so the generator has no state that two
//            threads could corrupt. The first seed is taken from the clocks.
// Threads    Any thread may draw and seed; SeedRandom makes a single-threaded run repeatable.
#pragma once

#include <cstdint>

namespace kds {

[[nodiscard]] std::uint64_t NextRandom() noexcept;
// Fixes the sequence from here on, for the rest of the process.
void SeedRandom(std::uint64_t seed) noexcept;
// A new seed from the clocks and a counter, so that two calls in one tick differ too. Has no effect
// once SeedRandom has fixed the sequence: a repeated run makes the same containers on its way.
void ReseedRandom() noexcept;

}  // namespace kds
