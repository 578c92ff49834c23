// One replaceable service of the process: the system's own object, unless a test installs another.
//
// Ownership  Borrows the replacement. The system's object is made before any code runs and never
//            destroyed, so that stores which are themselves static may use it to their very end.
// Threads    Get from anywhere; Set before other threads use the service.
#pragma once

#include <atomic>

namespace kds {

template <typename I, typename TSystem>
class TSeam {
public:
    constexpr TSeam() noexcept : fSystem() {}
    TSeam(const TSeam&) = delete;
    TSeam& operator=(const TSeam&) = delete;
    ~TSeam() {}  // leaves the system's object alone

    [[nodiscard]] I& Get() noexcept {
        I* const replaced = fReplaced.load(std::memory_order_acquire);
        return replaced != nullptr ? *replaced : fSystem;
    }
    void Set(I* replacement) noexcept { fReplaced.store(replacement, std::memory_order_release); }

private:
    union {
        TSystem fSystem;
    };
    std::atomic<I*> fReplaced{nullptr};
};

}  // namespace kds
