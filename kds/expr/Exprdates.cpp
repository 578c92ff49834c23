// The date-time functions, and the logical ones.
#include <algorithm>
#include <cmath>

#include "kds/expr/Exprfunctions.h"
#include "kds/expr/Exprops.h"
#include "kds/platform/Datetime.h"

namespace kds {

void AddDateFunctions(TExprFunctions& functions);
void AddLogicFunctions(TExprFunctions& functions);

namespace {

[[nodiscard]] TDayTime PartsOf(const TExprCall& call) noexcept {
    return SplitDateTime(call.Arg(0).Float);
}
void AnswerParts(TExprCall& call, TDayTime parts) {
    if (IsCalendarDay(parts.Day)) call.Answer(TExprSlot::OfDate(JoinDateTime(parts)));
}

void NowTime(TExprCall& call) { call.Answer(TExprSlot::OfDate(call.Now().Days)); }
void Today(TExprCall& call) { AnswerParts(call, {SplitDateTime(call.Now().Days).Day, 0}); }
void TimeNow(TExprCall& call) {
    AnswerParts(call, {0, SplitDateTime(call.Now().Days).Milliseconds});
}

[[nodiscard]] bool DayOf(std::int64_t year, std::int64_t month, std::int64_t day,
                         std::int32_t& result) noexcept {
    if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31) return false;
    const TCalendarDate date{static_cast<std::int32_t>(year), static_cast<std::int32_t>(month),
                             static_cast<std::int32_t>(day)};
    if (!IsValidDate(date)) return false;
    result = DaysOfDate(date);
    return true;
}
void MakeDate(TExprCall& call) {
    std::int32_t day = 0;
    if (DayOf(call.Whole(0), call.Whole(1), call.Whole(2), day)) AnswerParts(call, {day, 0});
}
void ToDate(TExprCall& call) { call.Answer(ReadDate(call.Text(0))); }

// Null for a day outside the calendar, which a column may hold.
template <std::int32_t TCalendarDate::*Part>
void DatePart(TExprCall& call) {
    const TDayTime parts = PartsOf(call);
    if (IsCalendarDay(parts.Day)) call.AnswerInteger(DateOfDays(parts.Day).*Part);
}
template <int Milliseconds, int Modulus>
void TimePart(TExprCall& call) {
    call.AnswerInteger(PartsOf(call).Milliseconds / Milliseconds % Modulus);
}
void WeekDay(TExprCall& call) {
    const std::int64_t number = std::int64_t{PartsOf(call).Day} + DayNumberOfEpoch - 1;
    call.AnswerInteger((number % 7 + 7) % 7 + 1);  // 0001-01-01 was a Monday
}
void DateOf(TExprCall& call) { AnswerParts(call, {PartsOf(call).Day, 0}); }
void TimeOf(TExprCall& call) { AnswerParts(call, {0, PartsOf(call).Milliseconds}); }

void AddDays(TExprCall& call) {
    call.Answer(DateOfLinear(LinearDays(call.Arg(0).Float) + call.Float(1)));
}

[[nodiscard]] std::int32_t LastOfMonth(std::int32_t year, std::int32_t month) noexcept {
    std::int32_t last = 31;
    while (!IsValidDate({year, month, last})) --last;
    return last;
}
// A day that the month does not have becomes its last one.
void MoveMonths(TExprCall& call, std::int64_t perStep) {
    const TDayTime parts = PartsOf(call);
    const std::int64_t steps = std::clamp<std::int64_t>(call.Whole(1), -200'000, 200'000);
    if (!IsCalendarDay(parts.Day)) return;
    const TCalendarDate date = DateOfDays(parts.Day);
    const std::int64_t months = std::int64_t{date.Year} * 12 + date.Month - 1 + steps * perStep;
    if (months < 12 || months >= 10'000 * 12) return;
    const auto year = static_cast<std::int32_t>(months / 12);
    const auto month = static_cast<std::int32_t>(months % 12 + 1);
    const std::int32_t day = std::min(date.Day, LastOfMonth(year, month));
    AnswerParts(call, {DaysOfDate({year, month, day}), parts.Milliseconds});
}
void AddMonths(TExprCall& call) { MoveMonths(call, 1); }
void AddYears(TExprCall& call) { MoveMonths(call, 12); }

void DaysBetween(TExprCall& call) {
    call.AnswerWhole(std::trunc(DaysApart(call.Arg(1).Float, call.Arg(0).Float)));
}
void LastDay(TExprCall& call) {
    const TDayTime parts = PartsOf(call);
    if (!IsCalendarDay(parts.Day)) return;
    TCalendarDate date = DateOfDays(parts.Day);
    date.Day = LastOfMonth(date.Year, date.Month);
    AnswerParts(call, {DaysOfDate(date), 0});
}

void Bool(TExprCall& call) {
    const int truth = Truth(call.Arg(0));
    if (truth >= 0) call.AnswerBoolean(truth > 0);
}

struct TEntry {
    const char16_t* Name;
    std::int32_t Least, Most;
    const char* Accepts;
    TExprKind Result;
    TExprRoutine Routine;
    std::uint8_t Flags = 0;
};
struct TLazyEntry {
    const char16_t* Name;
    std::int32_t Least, Most;
    TExprForm Form;
};

}  // namespace

void AddDateFunctions(TExprFunctions& functions) {
    constexpr auto clock = static_cast<std::uint8_t>(ffImpure | ffReadsClock);
    const TEntry entries[] = {
        {u"NOW", 0, 0, "d", ekDate, TExprRoutine::Bind<NowTime>(), clock},
        {u"TODAY", 0, 0, "d", ekDate, TExprRoutine::Bind<Today>(), clock},
        {u"TIME", 0, 0, "d", ekDate, TExprRoutine::Bind<TimeNow>(), clock},
        {u"DATE", 3, 3, "n", ekDate, TExprRoutine::Bind<MakeDate>()},
        {u"TODATE", 1, 1, "t", ekDate, TExprRoutine::Bind<ToDate>()},
        {u"YEAR", 1, 1, "d", ekInteger, TExprRoutine::Bind<DatePart<&TCalendarDate::Year>>()},
        {u"MONTH", 1, 1, "d", ekInteger, TExprRoutine::Bind<DatePart<&TCalendarDate::Month>>()},
        {u"DAY", 1, 1, "d", ekInteger, TExprRoutine::Bind<DatePart<&TCalendarDate::Day>>()},
        {u"HOUR", 1, 1, "d", ekInteger, TExprRoutine::Bind<TimePart<3'600'000, 24>>()},
        {u"MINUTE", 1, 1, "d", ekInteger, TExprRoutine::Bind<TimePart<60'000, 60>>()},
        {u"SECOND", 1, 1, "d", ekInteger, TExprRoutine::Bind<TimePart<1'000, 60>>()},
        {u"WEEKDAY", 1, 1, "d", ekInteger, TExprRoutine::Bind<WeekDay>()},
        {u"DATEOF", 1, 1, "d", ekDate, TExprRoutine::Bind<DateOf>()},
        {u"TIMEOF", 1, 1, "d", ekDate, TExprRoutine::Bind<TimeOf>()},
        {u"ADDDAYS", 2, 2, "dn", ekDate, TExprRoutine::Bind<AddDays>()},
        {u"ADDMONTHS", 2, 2, "dn", ekDate, TExprRoutine::Bind<AddMonths>()},
        {u"ADDYEARS", 2, 2, "dn", ekDate, TExprRoutine::Bind<AddYears>()},
        {u"DAYSBETWEEN", 2, 2, "d", ekInteger, TExprRoutine::Bind<DaysBetween>()},
        {u"LASTDAY", 1, 1, "d", ekDate, TExprRoutine::Bind<LastDay>()},
    };
    for (const TEntry& entry : entries) {
        functions.Put({entry.Name, entry.Least, entry.Most, entry.Accepts, entry.Result,
                       entry.Flags, entry.Routine, fmCall});
    }
}

void AddLogicFunctions(TExprFunctions& functions) {
    const TLazyEntry entries[] = {
        {u"IIF", 2, 3, fmIif},
        {u"NVL", 1, AnyCount, fmFirst},
        {u"COALESCE", 1, AnyCount, fmFirst},
        {u"IFNULL", 2, 2, fmFirst},
        {u"ISNULL", 1, 1, fmIsNull},
        {u"NULLIF", 2, 2, fmNullIf},
        {u"DECODE", 3, AnyCount, fmDecode},
        {u"CHOOSE", 2, AnyCount, fmChoose},
    };
    for (const TLazyEntry& entry : entries) {
        functions.Put(
            {entry.Name, entry.Least, entry.Most, "*", ekAny, ffTakesNulls, {}, entry.Form});
    }
    functions.Put({u"BOOL", 1, 1, "b", ekBoolean, 0, TExprRoutine::Bind<Bool>(), fmCall});
}

}  // namespace kds
