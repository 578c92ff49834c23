// Raw values in memory: unaligned, little-endian, one pair of functions for the whole library.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>
#include <type_traits>

namespace kds {

static_assert(std::endian::native == std::endian::little,
              "raw values are little-endian; a big-endian port swaps in LoadRaw and StoreRaw");

template <typename T>
[[nodiscard]] inline T LoadRaw(const void* source) noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, source, sizeof(T));
    return value;
}

template <typename T>
inline void StoreRaw(void* target, T value) noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    std::memcpy(target, &value, sizeof(T));
}

}  // namespace kds
