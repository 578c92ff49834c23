// The process-wide pseudo-random generator behind skip-list levels and tree weights.
//
// Shape      Counter based: draw n is a mix of seed and n, so the generator has no state that two
//            threads could corrupt. The first seed is taken from the clocks.
// Threads    Any thread may draw; SeedRandom makes a single-threaded run repeatable.
#pragma once

#include <cstdint>

namespace kds {

[[nodiscard]] std::uint64_t NextRandom() noexcept;
void SeedRandom(std::uint64_t seed) noexcept;

}  // namespace kds
