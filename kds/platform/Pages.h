// Large blocks of memory straight from the system, for what is read all over the place: where the
// system offers large pages it is asked for them, so that the processor finds its way to far rows
// in fewer steps. Replaceable by a test.
//
// Units      Sizes are bytes and multiples of LargePage; blocks begin at such a multiple.
// Ownership  Who maps a block unmaps it, with the same size. It begins as zeros, and takes memory
//            as it is touched.
// Errors     std::bad_alloc from Map.
// Threads    Any.
#pragma once

#include <cstddef>

namespace kds {

inline constexpr std::size_t LargePage = std::size_t{2} << 20;

class IPages {
public:
    virtual ~IPages() = default;
    [[nodiscard]] virtual void* Map(std::size_t size) = 0;
    virtual void Unmap(void* block, std::size_t size) noexcept = 0;
};

[[nodiscard]] IPages& Pages() noexcept;
void SetPages(IPages* pages) noexcept;  // borrows; nullptr brings back the system's

}  // namespace kds
