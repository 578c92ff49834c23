// Column data types: their sizes and names, and the three conversions on which every read, write,
// sort and search of record data rests.
//
// Shape      A raw value is what a record's slot holds: packed, unaligned, little-endian. The table
//            of TypeInfo gives each code's buffer size; 0 means that the column's length decides.
// Units      Lengths are bytes for numbers and characters (bytes of 8-bit text, 16-bit units of
//            wide text) for strings.
// Ownership  BufferToVar copies; a code 21 buffer written by VarToBuffer borrows the interface,
//            IntfToBuffer takes a reference of its own and drops the old one.
// Errors     DataTypeUnsupported and CannotCompareValue (EKdsError); conversions raise
//            EVariantError, EConvertError, EIntError and EMathError as they come.
// Cost       Comparison builds no variant and allocates nothing.
// Threads    Pure functions; custom data compares itself on the calling thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kds/platform/Interface.h"
#include "kds/platform/Sets.h"
#include "kds/platform/Variant.h"

namespace kds {

enum class TKdsDataType : std::int8_t {
    dtUnknown,
    dtBoolean,
    dtShort,
    dtSmall,
    dtInteger,
    dtInt64,
    dtByte,
    dtWord,
    dtCardinal,
    dtUInt64,
    dtChar,
    dtDouble,
    dtCurrency,
    dtDateTime,
    dtDate,
    dtTime,
    dtAnsiString,
    dtWideString,
    dtExtended,
    dtMemoString,
    dtFixed,
    dtCustomData
};
using enum TKdsDataType;
inline constexpr int KdsDataTypeCount = 22;

inline constexpr std::int32_t DefaultVariableLength = 32;
// The stored length of a text is 16 bits wide.
inline constexpr std::int32_t MaximumColumnLength = 65'535;

[[nodiscard]] std::u16string_view KdsTypeName(TKdsDataType type) noexcept;
[[nodiscard]] std::int32_t DataSize(TKdsDataType type) noexcept;
// The code with this display name or enumeration name, in any case; dtUnknown when there is none.
[[nodiscard]] TKdsDataType DataTypeByName(std::u16string_view name) noexcept;
[[nodiscard]] constexpr bool IsTextType(TKdsDataType type) noexcept {
    return type == dtChar || type == dtAnsiString || type == dtWideString || type == dtMemoString;
}
// 8-bit text, held as UTF-8.
[[nodiscard]] constexpr bool IsAnsiType(TKdsDataType type) noexcept {
    return type == dtChar || type == dtAnsiString || type == dtMemoString;
}
// Whether raw values of the two may be compared and copied as they are.
[[nodiscard]] constexpr bool HaveSameForm(TKdsDataType a, TKdsDataType b) noexcept {
    return a == b || (IsAnsiType(a) && IsAnsiType(b));
}

enum class TKdsVisibility : std::uint8_t { viNothing, viRegular, viSpecial };
using enum TKdsVisibility;

enum class TKdsCompareOption : std::uint8_t { coNoCase, coPartial, coUseRowID };
using enum TKdsCompareOption;
using TKdsCompareOptions = TSet<TKdsCompareOption>;

// Custom data that is sorted or searched implements it: negative, 0 or positive.
class IKdsComparable {
public:
    [[nodiscard]] virtual std::int32_t Compare(const IInterface* other) const = 0;

protected:
    ~IKdsComparable() = default;
};

// Custom data that presents itself to exporters.
class IKdsExportable {
public:
    [[nodiscard]] virtual TVariant ExportValue() const = 0;

protected:
    ~IKdsExportable() = default;
};

[[nodiscard]] TVariant BufferToVar(TKdsDataType type, const void* buffer, std::int32_t length);
// Writes the value and answers its size in `length`; strings get one zero character more. Does not
// test the room: numbers need at most 10 bytes.
void VarToBuffer(TKdsDataType type, const TVariant& value, void* buffer, std::int32_t& length);
[[nodiscard]] std::int32_t CompareData(TKdsDataType type, const void* buffer1, const void* buffer2,
                                       std::int32_t length1, std::int32_t length2,
                                       TKdsCompareOptions options);

[[nodiscard]] TIntf<IInterface> BufferToIntf(const void* buffer);
void IntfToBuffer(void* buffer, const TIntf<IInterface>& intf);

// -1, 0 or 1, whatever size the answer of a host's comparer has.
[[nodiscard]] constexpr std::int32_t SignOf(std::int32_t value) noexcept {
    return (value > 0) - (value < 0);
}

}  // namespace kds
