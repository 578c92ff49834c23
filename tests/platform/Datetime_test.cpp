#include "kds/platform/Datetime.h"

#include <gtest/gtest.h>

#include <limits>

namespace kds {
namespace {

bool operator==(const TDayTime& a, const TDayTime& b) {
    return a.Day == b.Day && a.Milliseconds == b.Milliseconds;
}

TEST(SplitDateTimeTest, RoundsToTheMillisecondAndKeepsTheSignInTheDay) {
    struct TCase {
        double Days;
        TDayTime Parts;
    };
    constexpr TCase cases[] = {
        {0, {0, 0}},
        {1.25, {1, 21'600'000}},
        {-1.25, {-1, 21'600'000}},
        {-0.25, {0, 21'600'000}},
        {0.9999999999, {1, 0}},  // 23:59:59.99999 is midnight, not 86'400'000 ms
        {-1.9999999999, {-2, 0}},
        {1.5 / MillisecondsPerDay, {0, 2}},
        {2.5 / MillisecondsPerDay, {0, 2}},  // ties to even
        {std::numeric_limits<double>::quiet_NaN(), {0, 0}},
        {1e300, {std::numeric_limits<std::int32_t>::max() - DayNumberOfEpoch, 0}},
        {-1e300, {std::numeric_limits<std::int32_t>::min(), 0}},
        {std::numeric_limits<double>::infinity(),
         {std::numeric_limits<std::int32_t>::max() - DayNumberOfEpoch, 0}},
    };
    for (const auto& [days, parts] : cases) {
        EXPECT_TRUE(SplitDateTime(days) == parts) << days;
    }
}

TEST(SplitDateTimeTest, UndoesJoining) {
    for (const std::int32_t day : {-693'593, -1, 0, 1, 45'000, 2'958'465}) {
        for (const std::int32_t time : {0, 1, 999, 43'200'000, 86'399'999}) {
            if (day == 0 && time == 0) continue;
            EXPECT_TRUE((SplitDateTime(JoinDateTime({day, time})) == TDayTime{day, time}))
                << day << " " << time;
        }
    }
}

// The oracle counts days with a table of month lengths, from the first day to the last.
TEST(CalendarTest, AgreesWithCountingDays) {
    constexpr std::int32_t lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    std::int32_t days = 1 - DayNumberOfEpoch;
    for (std::int32_t year = 1; year <= 9999; ++year) {
        const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
        for (std::int32_t month = 1; month <= 12; ++month) {
            const std::int32_t length = lengths[month - 1] + (leap && month == 2 ? 1 : 0);
            ASSERT_FALSE(IsValidDate({year, month, 0}));
            ASSERT_FALSE(IsValidDate({year, month, length + 1}));
            for (std::int32_t day = 1; day <= length; ++day, ++days) {
                ASSERT_TRUE(IsValidDate({year, month, day}));
                ASSERT_EQ(DaysOfDate({year, month, day}), days);
                const TCalendarDate date = DateOfDays(days);
                ASSERT_TRUE(date.Year == year && date.Month == month && date.Day == day) << days;
            }
        }
    }
    EXPECT_EQ(DaysOfDate({1899, 12, 30}), 0);
}

TEST(CalendarTest, RefusesWhatIsNoDateAndSurvivesAnyDay) {
    for (const TCalendarDate date : {TCalendarDate{0, 1, 1}, TCalendarDate{10'000, 1, 1},
                                     TCalendarDate{2024, 0, 1}, TCalendarDate{2024, 13, 1}}) {
        EXPECT_FALSE(IsValidDate(date));
    }
    for (const std::int32_t days :
         {std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()}) {
        EXPECT_EQ(DaysOfDate(DateOfDays(days)), days);
    }
}

}  // namespace
}  // namespace kds
