// How the capacity of a growing array is raised: one rule for every list and container.
#pragma once

#include <cstdint>
#include <limits>

namespace kds {

// The next capacity after `capacity`: a quarter more, at least 16, never beyond 2147483647.
[[nodiscard]] constexpr std::int32_t GrownCapacity(std::int32_t capacity) noexcept {
    constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
    const std::int64_t step = capacity / 4 > 16 ? capacity / 4 : 16;
    const std::int64_t grown = capacity + step;
    return static_cast<std::int32_t>(grown < most ? grown : most);
}

}  // namespace kds
