#include "kds/platform/Datetime.h"

#include <cmath>
#include <limits>

#include "kds/platform/Floats.h"

namespace kds {
namespace {

// Days that keep both themselves and their day number inside 32 bits.
constexpr std::int32_t MinDay = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t MaxDay = std::numeric_limits<std::int32_t>::max() - DayNumberOfEpoch;

// The calendar repeats every 400 years. Years are counted from March here, so that the leap day is
// the last day of its year and every month but the last has a fixed first day.
constexpr std::int64_t DaysPerEra = 146'097;
constexpr std::int64_t YearsPerEra = 400;
// Days from 0000-03-01 to 1899-12-30.
constexpr std::int64_t EpochFromMarchZero = DayNumberOfEpoch - 1 + 306;

constexpr bool IsLeapYear(std::int32_t year) noexcept {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Rounded toward minus infinity; `divisor` is positive.
constexpr std::int64_t FloorDiv(std::int64_t value, std::int64_t divisor) noexcept {
    const std::int64_t quotient = value / divisor;
    return value % divisor < 0 ? quotient - 1 : quotient;
}

}  // namespace

TDayTime SplitDateTime(double days) noexcept {
    if (std::isnan(days)) return {};
    if (days <= MinDay) return {MinDay, 0};
    if (days >= MaxDay) return {MaxDay, 0};
    // In range: the product stays below 2^58, so the rounding cannot fail.
    std::int64_t total = 0;
    if (!RoundToInt64(days * MillisecondsPerDay, total)) return {};
    const std::int64_t time = total % MillisecondsPerDay;
    return {static_cast<std::int32_t>(total / MillisecondsPerDay),
            static_cast<std::int32_t>(time < 0 ? -time : time)};
}

double JoinDateTime(TDayTime parts) noexcept {
    const double time = static_cast<double>(parts.Milliseconds) / MillisecondsPerDay;
    return parts.Day < 0 ? parts.Day - time : parts.Day + time;
}

bool IsValidDate(TCalendarDate date) noexcept {
    constexpr std::int32_t daysOfMonth[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (date.Year < 1 || date.Year > 9999 || date.Month < 1 || date.Month > 12) return false;
    const bool leapDay = date.Month == 2 && IsLeapYear(date.Year);
    return date.Day >= 1 && date.Day <= daysOfMonth[date.Month - 1] + (leapDay ? 1 : 0);
}

std::int32_t DaysOfDate(TCalendarDate date) noexcept {
    const std::int64_t month = date.Month > 2 ? date.Month - 3 : date.Month + 9;  // March is 0
    const std::int64_t year = std::int64_t{date.Year} - (date.Month > 2 ? 0 : 1);
    const std::int64_t era = FloorDiv(year, YearsPerEra);
    const std::int64_t yearOfEra = year - era * YearsPerEra;
    // (153 m + 2) / 5 is the first day of month m: 0, 31, 61, 92, 122...
    const std::int64_t dayOfYear = (153 * month + 2) / 5 + date.Day - 1;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return static_cast<std::int32_t>(era * DaysPerEra + dayOfEra - EpochFromMarchZero);
}

TCalendarDate DateOfDays(std::int32_t days) noexcept {
    const std::int64_t sinceMarchZero = days + EpochFromMarchZero;
    const std::int64_t era = FloorDiv(sinceMarchZero, DaysPerEra);
    const std::int64_t dayOfEra = sinceMarchZero - era * DaysPerEra;
    // Leap days are taken out first (one in 1'461 days, less one in 36'524, plus the last of the
    // era), so that the years have 365 days each.
    const std::int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1'460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t month = (5 * dayOfYear + 2) / 153;
    TCalendarDate date;
    date.Day = static_cast<std::int32_t>(dayOfYear - (153 * month + 2) / 5 + 1);
    date.Month = static_cast<std::int32_t>(month < 10 ? month + 3 : month - 9);
    date.Year =
        static_cast<std::int32_t>(era * YearsPerEra + yearOfEra + (date.Month <= 2 ? 1 : 0));
    return date;
}

}  // namespace kds
