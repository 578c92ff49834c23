// The clock and the high-resolution counter, replaceable by a test.
#pragma once

#include <cstdint>

#include "kds/platform/Datetime.h"

namespace kds {

class IClock {
public:
    virtual ~IClock() = default;
    [[nodiscard]] virtual TDateTime Now() = 0;         // local time
    [[nodiscard]] virtual std::int64_t Counter() = 0;  // ticks, never going back
    [[nodiscard]] virtual std::int64_t TicksPerSecond() = 0;
};

[[nodiscard]] IClock& Clock() noexcept;
void SetClock(IClock* clock) noexcept;  // borrows; nullptr brings back the system's

[[nodiscard]] inline TDateTime Now() { return Clock().Now(); }
[[nodiscard]] inline std::int64_t QueryPerformanceCounter() { return Clock().Counter(); }

}  // namespace kds
