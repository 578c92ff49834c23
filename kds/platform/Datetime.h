// Date-times: 64-bit floats that count days from 1899-12-30, and the one routine that splits them.
//
// Shape      The integer part is the day, the size of the fraction is the time of that day, also
//            before the epoch: -1.25 is day -1, 06:00. Splitting rounds to the millisecond, ties
//            to even; NaN counts as 0, and huge values are cut to midnight of the first or last
//            day that fits 32 bits together with its day number.
// Units      Days since 1899-12-30; milliseconds since midnight; DayNumber counts from 0001-01-01,
//            which is day 1, so that 1899-12-30 is DayNumberOfEpoch.
// Threads    Pure functions.
#pragma once

#include <compare>
#include <cstdint>

namespace kds {

inline constexpr std::int32_t MillisecondsPerDay = 86'400'000;
inline constexpr std::int32_t DayNumberOfEpoch = 693'594;

// A type of its own, so that a date-time never passes for a plain float.
struct TDateTime {
    double Days = 0;
    friend auto operator<=>(TDateTime, TDateTime) = default;
};

struct TDayTime {
    std::int32_t Day = 0;           // days since 1899-12-30, toward zero
    std::int32_t Milliseconds = 0;  // 0 .. 86'399'999
};
[[nodiscard]] TDayTime SplitDateTime(double days) noexcept;
[[nodiscard]] double JoinDateTime(TDayTime parts) noexcept;

struct TCalendarDate {
    std::int32_t Year = 0, Month = 0, Day = 0;
};
// Proleptic Gregorian, years 1 to 9999.
[[nodiscard]] bool IsValidDate(TCalendarDate date) noexcept;
[[nodiscard]] std::int32_t DaysOfDate(TCalendarDate date) noexcept;  // since 1899-12-30
[[nodiscard]] TCalendarDate DateOfDays(std::int32_t days) noexcept;

}  // namespace kds
