// The dynamically typed value in which column values pass in and out of the library.
//
// Shape      One of the kinds of TVarType. The constructors are exact: each C++ type makes its own
//            kind, and no pointer becomes a boolean.
// Ownership  Text is owned; 8-bit text and interfaces are shared and counted.
// Errors     Get<T> asks for the kind that is held (asserted); conversions between kinds are the
//            business of kds/expr/Varconvert.h, which raises EVariantError.
// Validity   Views answered by Text and AnsiText live as long as the variant is unchanged.
// Threads    A variant belongs to one thread.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "kds/platform/Ansistring.h"
#include "kds/platform/Datetime.h"
#include "kds/platform/Interface.h"

namespace kds {

// In the order of the alternatives below.
enum class TVarType : std::uint8_t {
    varEmpty,
    varNull,
    varBoolean,
    varShortInt,
    varSmallInt,
    varInteger,
    varInt64,
    varByte,
    varWord,
    varCardinal,
    varUInt64,
    varSingle,
    varDouble,
    varCurrency,
    varDateTime,
    varString,
    varAnsiString,
    varInterface,
    varExtended,
    varFixed
};
using enum TVarType;

// 64-bit fixed point with four decimals: Scaled is the value times 10'000.
struct TCurrency {
    std::int64_t Scaled = 0;
    friend auto operator<=>(TCurrency, TCurrency) = default;
};
// A 64-bit float of the extended kind, which prints with more digits than a plain one.
struct TExtended {
    double Value = 0;
    friend auto operator<=>(TExtended, TExtended) = default;
};
// The two parts of a fixed decimal; kds/fixed/Fixed.h builds the decimal from them.
struct TDecimalParts {
    std::int64_t Value = 0;
    std::int16_t Scale = 0;
    friend bool operator==(TDecimalParts, TDecimalParts) = default;
};
struct TNullValue {
    friend bool operator==(TNullValue, TNullValue) = default;
};
inline constexpr TNullValue Null{};

class TVariant {
public:
    TVariant() = default;
    TVariant(TNullValue) : fValue(TNullValue{}) {}
    // Exactly bool: a pointer or an integer does not come this way.
    template <std::same_as<bool> T>
    TVariant(T value) : fValue(std::in_place_type<bool>, value) {}
    template <std::integral T>
        requires(!std::same_as<T, bool> && !std::same_as<T, char> && !std::same_as<T, char16_t> &&
                 !std::same_as<T, char8_t> && !std::same_as<T, char32_t> &&
                 !std::same_as<T, wchar_t>)
    TVariant(T value) : fValue(std::in_place_type<TInteger<T>>, static_cast<TInteger<T>>(value)) {}
    TVariant(float value) : fValue(value) {}
    TVariant(double value) : fValue(value) {}
    TVariant(TCurrency value) : fValue(value) {}
    TVariant(TDateTime value) : fValue(value) {}
    TVariant(TExtended value) : fValue(value) {}
    TVariant(TDecimalParts value) : fValue(value) {}
    TVariant(std::u16string value) : fValue(std::move(value)) {}
    TVariant(std::u16string_view value) : fValue(std::u16string(value)) {}
    TVariant(const char16_t* value) : fValue(std::u16string(value)) {}
    TVariant(TAnsiString value) : fValue(std::move(value)) {}
    // 8-bit text is UTF-8.
    TVariant(std::string_view value) : fValue(TAnsiString(value)) {}
    TVariant(const std::string& value) : fValue(TAnsiString(value)) {}
    TVariant(const char* value) : fValue(TAnsiString(value)) {}
    template <std::derived_from<IInterface> T>
    TVariant(const TIntf<T>& value) : fValue(TIntf<IInterface>(value)) {}
    TVariant(const void*) = delete;
    TVariant(std::nullptr_t) = delete;

    [[nodiscard]] TVarType Type() const noexcept { return static_cast<TVarType>(fValue.index()); }
    // Neither empty nor null.
    [[nodiscard]] bool Assigned() const noexcept { return fValue.index() > 1; }
    [[nodiscard]] bool IsNull() const noexcept { return Type() == varNull; }
    [[nodiscard]] bool IsEmpty() const noexcept { return Type() == varEmpty; }
    [[nodiscard]] bool IsText() const noexcept {
        return Type() == varString || Type() == varAnsiString;
    }
    // The held value as its own C++ type: std::int32_t, double, TCurrency, std::u16string...
    template <typename T>
    [[nodiscard]] const T& Get() const {
        return std::get<T>(fValue);
    }
    template <typename F>
    decltype(auto) Visit(F&& visitor) const {
        return std::visit(std::forward<F>(visitor), fValue);
    }
    // Same kind and same value; conversions are not tried.
    friend bool operator==(const TVariant&, const TVariant&) = default;

private:
    template <typename T>
    using TInteger = std::conditional_t<
        std::is_signed_v<T>,
        std::conditional_t<
            sizeof(T) == 1, std::int8_t,
            std::conditional_t<sizeof(T) == 2, std::int16_t,
                               std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>>>,
        std::conditional_t<
            sizeof(T) == 1, std::uint8_t,
            std::conditional_t<sizeof(T) == 2, std::uint16_t,
                               std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>>;
    using TValue =
        std::variant<std::monostate, TNullValue, bool, std::int8_t, std::int16_t, std::int32_t,
                     std::int64_t, std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t, float,
                     double, TCurrency, TDateTime, std::u16string, TAnsiString, TIntf<IInterface>,
                     TExtended, TDecimalParts>;
    TValue fValue;
};

}  // namespace kds
