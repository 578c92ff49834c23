// The values that expressions compute with: slots of 16 bytes, and the memory of their texts.
//
// Shape      A slot knows its kind; null is a kind. Booleans lie in Integer as 0 and 1, date-times
//            in Float as days, fixed decimals as a mantissa in Integer and a Scale, texts as UTF-8
//            (bytes outside UTF-8 pass through). A float is never NaN: that reads as null.
// Ownership  A slot borrows its text or variant: from a record buffer, from the program's
//            constants, or from a TExprArena.
// Errors     What reads texts answers false or null; the arena raises InvalidFunctionArguments
//            beyond its limits.
// Threads    Plain data.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kds/fixed/Fixed.h"
#include "kds/platform/Variant.h"

namespace kds {

enum class TExprKind : std::uint8_t {
    ekNull,
    ekBoolean,
    ekInteger,
    ekFixed,
    ekFloat,
    ekDate,
    ekText,
    ekOther,  // a variant that expressions only hand on, an interface for instance
    ekAny     // never in a slot: the kind is not known before the value is there
};
using enum TExprKind;

// Texts longer than this, in characters, are refused wherever an expression makes them.
inline constexpr std::size_t MaxExprTextLength = 1'048'576;

struct TExprSlot {
    TExprKind Kind = ekNull;
    std::int16_t Scale = 0;
    std::uint32_t Size = 0;  // bytes of a text
    union {
        std::int64_t Integer = 0;
        double Float;
        const char* Text;
        const TVariant* Other;
    };

    [[nodiscard]] bool IsNull() const noexcept { return Kind == ekNull; }
    [[nodiscard]] bool IsNumber() const noexcept { return Kind >= ekBoolean && Kind <= ekFloat; }
    [[nodiscard]] bool IsWhole() const noexcept { return Kind == ekBoolean || Kind == ekInteger; }
    [[nodiscard]] std::string_view View() const noexcept { return {Text, Size}; }
    [[nodiscard]] TFixed Fixed() const noexcept { return {Integer, Scale}; }

    [[nodiscard]] static TExprSlot OfBoolean(bool value) noexcept;
    [[nodiscard]] static TExprSlot OfInteger(std::int64_t value) noexcept;
    [[nodiscard]] static TExprSlot OfFixed(TFixed value) noexcept;
    // Null for NaN, both.
    [[nodiscard]] static TExprSlot OfFloat(double value) noexcept;
    [[nodiscard]] static TExprSlot OfDate(double days) noexcept;
    [[nodiscard]] static TExprSlot OfText(std::string_view text) noexcept;
};
static_assert(sizeof(TExprSlot) == 16);

inline TExprSlot TExprSlot::OfBoolean(bool value) noexcept {
    TExprSlot slot;
    slot.Kind = ekBoolean;
    slot.Integer = value ? 1 : 0;
    return slot;
}
inline TExprSlot TExprSlot::OfInteger(std::int64_t value) noexcept {
    TExprSlot slot;
    slot.Kind = ekInteger;
    slot.Integer = value;
    return slot;
}
inline TExprSlot TExprSlot::OfFixed(TFixed value) noexcept {
    TExprSlot slot;
    slot.Kind = ekFixed;
    slot.Scale = value.Scale;
    slot.Integer = value.Value;
    return slot;
}
inline TExprSlot TExprSlot::OfFloat(double value) noexcept {
    TExprSlot slot;
    slot.Kind = value == value ? ekFloat : ekNull;
    slot.Float = value;
    return slot;
}
inline TExprSlot TExprSlot::OfDate(double days) noexcept {
    TExprSlot slot;
    slot.Kind = days == days ? ekDate : ekNull;
    slot.Float = days;
    return slot;
}
inline TExprSlot TExprSlot::OfText(std::string_view text) noexcept {
    TExprSlot slot;
    slot.Kind = ekText;
    slot.Size = static_cast<std::uint32_t>(text.size());
    slot.Text = text.data();
    return slot;
}

// Memory of one evaluation. Blocks are kept when it is reset, so that rows allocate nothing once
// the first ones have shown how much they need.
class TExprArena {
public:
    void Reset() noexcept {
        if (fTotal > 0 || !fVariants.empty()) Empty();
    }
    // At least one byte is there; `size` of them may be written.
    [[nodiscard]] char* Allocate(std::size_t size);
    [[nodiscard]] std::string_view Keep(std::string_view text);
    [[nodiscard]] std::string_view KeepWide(std::u16string_view text);
    [[nodiscard]] const TVariant* KeepVariant(TVariant value);
    // Shortens what the last Allocate gave.
    void GiveBack(std::size_t unused) noexcept { fUsed -= unused; }

private:
    void Empty() noexcept;
    struct TBlock {
        std::unique_ptr<char[]> Bytes;
        std::size_t Size = 0;
    };
    std::vector<TBlock> fBlocks;
    std::size_t fBlock = 0;  // the one that is being filled
    std::size_t fUsed = 0;   // bytes of it
    std::size_t fTotal = 0;  // bytes given since the last Reset
    std::string fScratch;
    std::deque<TVariant> fVariants;
};

// Texts that are not in the arena already are copied into it.
[[nodiscard]] TExprSlot SlotOfVariant(const TVariant& value, TExprArena& arena);
// Integers take 32 bits where they fit.
[[nodiscard]] TVariant VariantOfSlot(const TExprSlot& slot);

// The language's own numbers, a sign allowed before them and blanks around them; null otherwise.
[[nodiscard]] TExprSlot ReadNumber(std::string_view text) noexcept;
// The same without sign and blanks, as the lexer meets it. 2^63 comes out as the smallest integer
// with `beyond` set: it is a number behind a minus only.
[[nodiscard]] TExprSlot ReadLiteral(std::string_view text, bool& beyond) noexcept;
// 'true', 'false', '1', '0' in any case; null otherwise.
[[nodiscard]] TExprSlot ReadBoolean(std::string_view text) noexcept;
[[nodiscard]] TExprSlot ReadDate(std::string_view text) noexcept;
// The canonical text of any value; null stays null.
[[nodiscard]] TExprSlot CanonicalText(const TExprSlot& slot, TExprArena& arena);

[[nodiscard]] double ToFloat(const TExprSlot& number) noexcept;
// Toward zero; false when 64 bits do not hold it.
[[nodiscard]] bool ToWhole(const TExprSlot& number, std::int64_t& result) noexcept;
// Whether the slot holds true (1), false (0) or neither (-1).
[[nodiscard]] int Truth(const TExprSlot& slot) noexcept;

// Whole seconds since the epoch, in the order in which columns order dates.
[[nodiscard]] std::int64_t DateKey(double days) noexcept;
// Days on an even scale, on which -1.25 lies three quarters of a day before the epoch, and back.
[[nodiscard]] double LinearDays(double days) noexcept;
// a less b, exact to the millisecond.
[[nodiscard]] double DaysApart(double a, double b) noexcept;
[[nodiscard]] TExprSlot DateOfLinear(double linear) noexcept;  // null outside the calendar
[[nodiscard]] bool IsCalendarDay(double day) noexcept;         // of the years 1 to 9999

// -1, 0, 1; exact but for decimals whose scales lie more than 18 apart, which meet as floats.
[[nodiscard]] int CompareNumbers(const TExprSlot& a, const TExprSlot& b) noexcept;

// How two texts are ordered. A column of 16-bit text orders by 16-bit units up to the first zero
// character, everything else by bytes; the difference shows beyond U+D7FF.
struct TExprCollation {
    bool Caseless = false;
    bool Wide = false;
};
[[nodiscard]] int CompareTexts(std::string_view a, std::string_view b, TExprCollation collation);

// Characters of UTF-8: a byte that is not part of one counts as one.
[[nodiscard]] std::size_t CharLength(std::string_view text, std::size_t at) noexcept;
[[nodiscard]] std::size_t CharCount(std::string_view text) noexcept;
// Bytes of the first `count` characters, at most all.
[[nodiscard]] std::size_t CharBytes(std::string_view text, std::size_t count) noexcept;
[[nodiscard]] char32_t CharAt(std::string_view text, std::size_t at, std::size_t& length) noexcept;
// Writes a character of UTF-8, what CharAt answered; answers its bytes, at most 4.
std::size_t PutChar(char* target, char32_t character) noexcept;

}  // namespace kds
