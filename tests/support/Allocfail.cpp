#include "tests/support/Allocfail.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace {

constinit std::atomic<std::int64_t> allocations = 0;
constinit std::atomic<std::int64_t> allocated = 0;  // their bytes
constinit std::atomic<std::int64_t> failing = 0;    // which of them fails, 0 for none
constinit std::atomic<bool> allAfter = false;       // and those after it
constinit std::atomic<bool> happened = false;

void* Allocate(std::size_t size, std::size_t alignment) {
    const std::int64_t number = ++allocations;
    allocated += static_cast<std::int64_t>(size);
    const std::int64_t first = failing.load();
    if (number == first || (allAfter && first != 0 && number > first)) {
        happened = true;
        throw std::bad_alloc();
    }
    if (size == 0) size = 1;
    void* const block =
        alignment <= alignof(std::max_align_t)
            ? std::malloc(size)
            : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void* AllocateNoThrow(std::size_t size, std::size_t alignment) noexcept {
    try {
        return Allocate(size, alignment);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

namespace kds::support {

TFailingAllocation::TFailingAllocation(std::int64_t nth, bool andAllAfter) noexcept {
    happened = false;
    allAfter = andAllAfter;
    failing = allocations + nth;
}

TFailingAllocation::~TFailingAllocation() { failing = 0; }

bool TFailingAllocation::Happened() noexcept { return happened; }

std::int64_t Allocations() noexcept { return allocations; }
std::int64_t AllocatedBytes() noexcept { return allocated; }

}  // namespace kds::support

void* operator new(std::size_t size) { return Allocate(size, 0); }
void* operator new[](std::size_t size) { return Allocate(size, 0); }
void* operator new(std::size_t size, std::align_val_t alignment) {
    return Allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return Allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return AllocateNoThrow(size, 0);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return AllocateNoThrow(size, 0);
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
