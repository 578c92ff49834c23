// Expressions: a text and a provider of named values become an evaluator.
//
// Shape      docs/expressions.md describes the language. A provider resolves names to indexes when
//            a text is compiled and answers values when it is evaluated. A provider that also
//            implements ITypedExpressionProvider tells the kinds beforehand and hands values over
//            without variants; what it describes as a raw place is read straight from the buffer.
// Ownership  Evaluators hold their provider; the provider must not hold the evaluator. Functions
//            that were found when a text was compiled are held by the evaluator.
// Errors     EKdsParseError with a message of section "Parser" when a text is refused. While rows
//            are evaluated: the same for kinds that become known only then, EIntOverflow, and what
//            providers and functions of the host raise. An evaluator that has raised is ready for
//            the next row.
// Cost       Compilation is linear in the text. Evaluation allocates nothing per row once its
//            memory has grown; each name is fetched at most once per row.
// Validity   An evaluator keeps its indexes: when names move, compile again.
// Threads    One thread at a time per evaluator. Nothing is shared between evaluators but their
//            providers and the functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kds/expr/Exprerrors.h"
#include "kds/expr/Exprvalues.h"
#include "kds/platform/Interface.h"
#include "kds/platform/Variant.h"

namespace kds {

// Which values of a record an evaluation reads: what views show, or what is being edited.
enum class TExprReading : std::uint8_t { erPosted, erCurrent };
using enum TExprReading;

// The record for which an expression is evaluated; the engine only hands it to the provider.
struct TExprPosition {
    const void* Record = nullptr;  // none
    TExprReading Reading = erPosted;
    friend bool operator==(TExprPosition, TExprPosition) = default;
};

class IExpressionProvider : public IInterface {
public:
    // False, and `index` -1, for a name that it does not know.
    [[nodiscard]] virtual bool Contains(std::u16string_view name, std::int32_t& index) = 0;
    // Null when no record is set.
    [[nodiscard]] virtual TVariant Evaluate(std::int32_t index) = 0;
    // Called before each Evaluate.
    virtual void SetPosition(TExprPosition position) { static_cast<void>(position); }
};

// ---- the typed provider ----

// The forms in which a buffer may hold a value that the engine reads by itself.
enum class TExprRawKind : std::uint8_t {
    rwNone,
    rwBoolean,  // a byte, true unless 0
    rwInt8,
    rwInt16,
    rwInt32,
    rwInt64,
    rwUInt8,
    rwUInt16,
    rwUInt32,
    rwSingle,
    rwDouble,
    rwCurrency,  // 64 bits, four decimals
    rwDateTime,  // a float of days
    rwDate,      // 32 bits, day 1 is 0001-01-01
    rwTime,      // 32 bits, milliseconds of the day
    rwFixed,     // 64 bits of mantissa, 16 of scale
    rwChar,      // `Size` bytes, zero-padded
    rwAnsi,      // 16 bits of length, then bytes
    rwWide,      // 16 bits of length, then 16-bit units
    rwMemo       // the handle of a TAnsiString
};
using enum TExprRawKind;

// Where a buffer holds a value: nothing need be aligned. A value is there when the 32-bit word at
// NullOffset has the bit of NullMask.
struct TExprRawPlace {
    TExprRawKind Kind = rwNone;
    std::int32_t Offset = 0;
    std::int32_t Size = 0;  // bytes of rwChar
    std::int32_t NullOffset = 0;
    std::uint32_t NullMask = 0;
};

struct TExprColumn {
    TExprKind Kind = ekAny;
    bool Caseless = false;
    bool Wide = false;  // 16-bit text, which is ordered by its units
    TExprRawPlace Place;
};

// Takes the value that a typed provider fetches. Without a call the value is null.
class TExprTarget {
public:
    TExprTarget(TExprSlot& slot, TExprArena& arena) noexcept : fSlot(slot), fArena(arena) {}
    void SetBoolean(bool value) { fSlot = TExprSlot::OfBoolean(value); }
    void SetInteger(std::int64_t value) { fSlot = TExprSlot::OfInteger(value); }
    void SetFixed(TFixed value) { fSlot = TExprSlot::OfFixed(value); }
    void SetFloat(double value) { fSlot = TExprSlot::OfFloat(value); }
    void SetDateTime(TDateTime value) { fSlot = TExprSlot::OfDate(value.Days); }
    void SetText(std::string_view text) { fSlot = TExprSlot::OfText(fArena.Keep(text)); }
    void SetText(std::u16string_view text) { fSlot = TExprSlot::OfText(fArena.KeepWide(text)); }
    // A text that stays where it is until the next position.
    void BorrowText(std::string_view text) { fSlot = TExprSlot::OfText(text); }
    void SetVariant(const TVariant& value) { fSlot = SlotOfVariant(value, fArena); }

private:
    TExprSlot& fSlot;
    TExprArena& fArena;
};

// Asked for by dynamic_cast, once a compilation.
class ITypedExpressionProvider {
public:
    [[nodiscard]] virtual TExprColumn Describe(std::int32_t index) = 0;
    virtual void Fetch(TExprPosition position, std::int32_t index, TExprTarget& target) = 0;
    // The buffer that the raw places of this position lie in; nullptr when values must be fetched.
    // Good until the next position.
    [[nodiscard]] virtual const std::byte* Buffer(TExprPosition position) = 0;

protected:
    ~ITypedExpressionProvider() = default;
};

// ---- evaluators ----

class IExpressionEvaluator : public IInterface {
public:
    // Begins a row, or none: whatever was fetched for the last one is dropped, also when it is the
    // same. Called while the evaluator is busy, as by a provider whose value is calculated by this
    // very expression, it opens a frame of its own.
    virtual void SetPosition(TExprPosition position) = 0;
    // CircularReference for a position that is being evaluated already, or 32 levels deep.
    [[nodiscard]] virtual TVariant Evaluate() = 0;
    // The result as a truth: 1 accepts, 0 rejects, -1 is null.
    [[nodiscard]] virtual int Test() = 0;

    // SetPosition and Test in one call: what a filter asks of every row. The position is good for
    // this call only.
    [[nodiscard]] virtual int TestAt(TExprPosition position) = 0;
    // SetPosition and Evaluate in one call, without a variant: what a calculated column asks. A
    // text or variant of the slot is good until the evaluator is used again.
    [[nodiscard]] virtual TExprSlot ComputeAt(TExprPosition position) = 0;

    // What CircularReference calls it; the text of the expression unless it was named.
    virtual void SetName(std::u16string_view name) = 0;
    [[nodiscard]] virtual const std::u16string& Text() const noexcept = 0;
    // Indexes of the names that it reads, each once, in the order of their first use.
    [[nodiscard]] virtual std::span<const std::int32_t> Columns() const noexcept = 0;
    // The kind of every result that is not null; ekAny when that depends on the values.
    [[nodiscard]] virtual TExprKind Kind() const noexcept = 0;
    // Whether equal values give equal results: no clock, nothing random.
    [[nodiscard]] virtual bool IsPure() const noexcept = 0;
    [[nodiscard]] virtual bool ReadsClock() const noexcept = 0;
};

class TExprFunctions;

class IExpressionParser : public IInterface {
public:
    [[nodiscard]] virtual TIntf<IExpressionEvaluator> Parse(
        std::u16string_view text, const TIntf<IExpressionProvider>& provider) = 0;
};

struct TExprOptions {
    // Off: every name is asked for as a variant and every operator takes the general path. For
    // tests, which compare both.
    bool Specialise = true;
    const TExprFunctions* Functions = nullptr;  // borrowed; nullptr: those of the process
};
[[nodiscard]] TIntf<IExpressionParser> MakeExpressionParser(TExprOptions options = {});

// While one is alive on a thread, all its evaluations see one time of the clock: a view that is
// built, a record that is posted. Scopes inside a scope share its time.
class TExpressionScope {
public:
    TExpressionScope() noexcept;
    ~TExpressionScope();
    TExpressionScope(const TExpressionScope&) = delete;
    TExpressionScope& operator=(const TExpressionScope&) = delete;
    // The scope's time, read when it is asked for first; false when no scope is alive.
    [[nodiscard]] static bool Now(TDateTime& now);

private:
    bool fOutermost;
};

// A text that compiles to a value equal to this one, on any column of its kind. EVariantError for
// interfaces, EConvertError for infinities and for date-times outside the years 1 to 9999.
[[nodiscard]] std::u16string ToLiteral(const TVariant& value);
// A name as an expression writes it: in brackets unless it is a plain word.
[[nodiscard]] std::u16string ToExpressionName(std::u16string_view name);

}  // namespace kds
