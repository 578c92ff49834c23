// The functions that expressions may call: four libraries, and what hosts add.
//
// Shape      A function has a name (found in any case), a range of argument counts, the kinds that
//            its arguments may have, the kind of its result and flags. The last kind stands for
//            all further arguments. Unless it takes nulls, a null argument makes the result null
//            without a call. Lazy functions (IIF, NVL ..) have no routine: the compiler knows them.
// Errors     A call with other counts or kinds is refused with InvalidFunctionArguments: when the
//            text is compiled, or when the value comes to light. What a routine raises passes
//            through to who evaluates.
// Threads    Add functions before texts are compiled in other threads.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kds/expr/Exprvalues.h"
#include "kds/platform/Delegate.h"

namespace kds {

// What an argument may be. Null always may.
enum TExprAccepts : std::uint8_t {
    acNumber = 1,  // booleans count as 1 and 0
    acText = 2,
    acDate = 4,
    acOther = 8,
    acAny = 15
};

enum TExprFunctionFlags : std::uint8_t {
    ffImpure = 1,      // equal arguments may give different results
    ffReadsClock = 2,  // implies impure
    ffTakesNulls = 4
};

// The lazy forms.
enum class TExprForm : std::uint8_t {
    fmCall,
    fmIif,
    fmFirst,   // NVL, COALESCE, IFNULL, ISNULL with two
    fmIsNull,  // ISNULL with one
    fmNullIf,
    fmDecode,
    fmChoose
};
using enum TExprForm;

// One call: arguments in, result out. A routine that sets nothing answers null.
class TExprCall {
public:
    TExprCall(const TExprSlot* slots, std::span<const std::uint32_t> arguments, TExprArena& arena,
              const std::u16string& name, TDateTime (*clock)(void*), void* owner) noexcept
        : fSlots(slots),
          fArguments(arguments),
          fArena(arena),
          fName(name),
          fClock(clock),
          fOwner(owner) {}

    [[nodiscard]] std::size_t Count() const noexcept { return fArguments.size(); }
    [[nodiscard]] const TExprSlot& Arg(std::size_t i) const noexcept {
        return fSlots[fArguments[i]];
    }
    [[nodiscard]] bool IsNull(std::size_t i) const noexcept { return Arg(i).IsNull(); }
    [[nodiscard]] double Float(std::size_t i) const noexcept { return ToFloat(Arg(i)); }
    [[nodiscard]] std::string_view Text(std::size_t i) const noexcept { return Arg(i).View(); }
    [[nodiscard]] TVariant Variant(std::size_t i) const { return VariantOfSlot(Arg(i)); }
    // A number's whole part; beyond 64 bits the nearest integer that they hold.
    [[nodiscard]] std::int64_t Whole(std::size_t i) const noexcept;
    // The same, or `fallback` when the call has fewer arguments.
    [[nodiscard]] std::int64_t Whole(std::size_t i, std::int64_t fallback) const noexcept {
        return i < Count() ? Whole(i) : fallback;
    }
    [[nodiscard]] TDateTime Now() const { return fClock(fOwner); }

    void Answer(const TExprSlot& slot) noexcept { Result = slot; }
    void AnswerBoolean(bool value) noexcept { Result = TExprSlot::OfBoolean(value); }
    void AnswerInteger(std::int64_t value) noexcept { Result = TExprSlot::OfInteger(value); }
    // Null for infinities and NaN.
    void AnswerFloat(double value) noexcept;
    // An integer where 64 bits hold it, else a float.
    void AnswerWhole(double value) noexcept;
    void AnswerText(std::string_view text) { Result = TExprSlot::OfText(fArena.Keep(text)); }
    // A part of an argument or a constant, which needs no copy.
    void BorrowText(std::string_view text) noexcept { Result = TExprSlot::OfText(text); }
    void AnswerVariant(const TVariant& value) { Result = SlotOfVariant(value, fArena); }
    // Memory for a text of so many bytes; refuses what is longer than any text may be.
    [[nodiscard]] char* Room(std::size_t bytes);
    [[nodiscard]] TExprArena& Arena() noexcept { return fArena; }
    [[noreturn]] void Refuse() const;  // InvalidFunctionArguments

    TExprSlot Result;

private:
    const TExprSlot* fSlots;
    std::span<const std::uint32_t> fArguments;
    TExprArena& fArena;
    const std::u16string& fName;
    TDateTime (*fClock)(void*);
    void* fOwner;
};

using TExprRoutine = TDelegate<void(TExprCall&)>;
inline constexpr std::int32_t AnyCount = INT32_MAX;

struct TExprFunction {
    std::u16string Name;
    std::int32_t MinArguments = 0;
    std::int32_t MaxArguments = 0;  // AnyCount: no limit
    // A letter per argument: n number, t text, d date, v any of these, b number or text, o other,
    // * anything.
    std::string Accepts;
    TExprKind Result = ekAny;
    std::uint8_t Flags = 0;
    TExprRoutine Routine;
    TExprForm Form = fmCall;

    [[nodiscard]] std::uint8_t AcceptedBy(std::size_t argument) const noexcept;
};

// The kinds that an argument may have when it is of this one; 0 for null.
[[nodiscard]] std::uint8_t AcceptsOf(TExprKind kind) noexcept;

class TExprFunctions {
public:
    // With the four libraries.
    TExprFunctions();
    // Replaces the function of the same name, for texts that are compiled from now on.
    // EInvalidArgument without a name, a routine or a letter per argument.
    void Add(TExprFunction function);
    [[nodiscard]] std::shared_ptr<const TExprFunction> Find(std::u16string_view name) const;
    // In alphabetical order.
    [[nodiscard]] std::vector<std::u16string> Names() const;

private:
    friend void AddMathFunctions(TExprFunctions& functions);
    friend void AddTextFunctions(TExprFunctions& functions);
    friend void AddDateFunctions(TExprFunctions& functions);
    friend void AddLogicFunctions(TExprFunctions& functions);
    void Put(TExprFunction function);

    std::unordered_map<std::u16string, std::shared_ptr<const TExprFunction>> fFunctions;
};

// Those of the process, to which hosts add theirs before they compile.
[[nodiscard]] TExprFunctions& ExpressionFunctions();

}  // namespace kds
