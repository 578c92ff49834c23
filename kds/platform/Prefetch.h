// Bringing memory near before it is read.
#pragma once

namespace kds {

// Starts to load the line of the cache that holds this byte; any address will do. The empty
// statement tells the compiler that something happens here: it takes a function that does nothing
// but prefetch for one without effect, and leaves out calls of it.
inline void Prefetch(const void* address) noexcept {
    __builtin_prefetch(address);
    asm volatile("");
}

}  // namespace kds
