#include "kds/platform/Clock.h"

#include <chrono>
#include <ctime>

#include "kds/platform/Seam.h"

namespace kds {
namespace {

class TSystemClock final : public IClock {
public:
    TDateTime Now() override {
        std::timespec now{};
        std::tm local{};
        std::timespec_get(&now, TIME_UTC);
        if (localtime_r(&now.tv_sec, &local) == nullptr) return {};
        const TCalendarDate date{local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
        // A leap second counts as the last one of its minute.
        const int seconds = local.tm_sec > 59 ? 59 : local.tm_sec;
        const std::int32_t time = ((local.tm_hour * 60 + local.tm_min) * 60 + seconds) * 1'000 +
                                  static_cast<std::int32_t>(now.tv_nsec / 1'000'000);
        return {JoinDateTime({DaysOfDate(date), time})};
    }
    std::int64_t Counter() override {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }
    std::int64_t TicksPerSecond() override { return 1'000'000'000; }
};

constinit TSeam<IClock, TSystemClock> seam;

}  // namespace

IClock& Clock() noexcept { return seam.Get(); }
void SetClock(IClock* clock) noexcept { seam.Set(clock); }

}  // namespace kds
