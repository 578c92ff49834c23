// Allocations that fail on purpose. A test program that links this has every `operator new` of the
// process replaced; they behave as ever until a test asks for a failure.
//
// Threads    Allocations of all threads count. One failure at a time.
#pragma once

#include <cstdint>
#include <new>

namespace kds::support {

// While it lives, the n-th allocation from now on raises std::bad_alloc, and only that one or, when
// asked for, every later one too.
class TFailingAllocation {
public:
    explicit TFailingAllocation(std::int64_t nth, bool andAllAfter = false) noexcept;
    TFailingAllocation(const TFailingAllocation&) = delete;
    TFailingAllocation& operator=(const TFailingAllocation&) = delete;
    ~TFailingAllocation();
    [[nodiscard]] static bool Happened() noexcept;
};

// All allocations of the process so far, and their bytes.
[[nodiscard]] std::int64_t Allocations() noexcept;
[[nodiscard]] std::int64_t AllocatedBytes() noexcept;

// For n = 1, 2, 3...: `prepare()` makes a state, `act(state)` runs with its n-th allocation
// failing, then `check(state, raised)` looks at what is left, `raised` saying whether
// std::bad_alloc came out. Ends with the run that needs fewer allocations than n; answers how many
// it needs.
template <typename P, typename A, typename C>
std::int64_t FailEachAllocation(P&& prepare, A&& act, C&& check, bool andAllAfter = false) {
    for (std::int64_t nth = 1;; ++nth) {
        auto state = prepare();
        bool raised = false;
        bool happened = false;
        {
            const TFailingAllocation failure(nth, andAllAfter);
            try {
                act(state);
            } catch (const std::bad_alloc&) {
                raised = true;
            }
            happened = TFailingAllocation::Happened();
        }
        check(state, raised);
        if (!happened) return nth - 1;
    }
}

}  // namespace kds::support
