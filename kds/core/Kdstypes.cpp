#include "kds/core/Kdstypes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "kds/core/Kdserrors.h"
#include "kds/expr/Extvars.h"
#include "kds/expr/Varconvert.h"
#include "kds/fixed/Fixed.h"
#include "kds/platform/Bytes.h"
#include "kds/platform/Datetime.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

struct TTypeInfo {
    std::u16string_view Name;        // as shown to people
    std::u16string_view Identifier;  // as written in column descriptions
    std::int32_t Size;
};
constexpr auto TypeInfos = std::to_array<TTypeInfo>({
    {u"Unknown", u"dtUnknown", 0},
    {u"Boolean", u"dtBoolean", 1},
    {u"Short (Int8)", u"dtShort", 1},
    {u"Small (Int16)", u"dtSmall", 2},
    {u"Integer (Int32)", u"dtInteger", 4},
    {u"Int64", u"dtInt64", 8},
    {u"Byte (UInt8)", u"dtByte", 1},
    {u"Word (UInt16)", u"dtWord", 2},
    {u"Cardinal (UInt32)", u"dtCardinal", 4},
    {u"UInt64", u"dtUInt64", 8},
    {u"Char", u"dtChar", 1},
    {u"Double", u"dtDouble", 8},
    {u"Currency", u"dtCurrency", 8},
    {u"DateTime", u"dtDateTime", 8},
    {u"Date", u"dtDate", 4},
    {u"Time", u"dtTime", 4},
    {u"AnsiString", u"dtAnsiString", 0},
    {u"WideString", u"dtWideString", 0},
    {u"Extended", u"dtExtended", 8},
    {u"MemoString", u"dtMemoString", 8},
    {u"Fixed", u"dtFixed", 10},
    {u"CustomData", u"dtCustomData", 8},
});
static_assert(TypeInfos.size() == KdsDataTypeCount);

template <typename T>
std::int32_t Order(T a, T b) noexcept {
    return (a > b) - (a < b);
}
template <typename T>
std::int32_t OrderRaw(const void* a, const void* b) noexcept {
    return Order(LoadRaw<T>(a), LoadRaw<T>(b));
}

std::int32_t WholeDay(double days) noexcept {
    if (std::isnan(days)) return 0;
    return static_cast<std::int32_t>(std::clamp(std::trunc(days), -2147483648.0, 2147483647.0));
}

// A date that no day number holds is an error, as any number that does not fit is.
std::int32_t DayNumber(double days) {
    using TLimits = std::numeric_limits<std::int32_t>;
    const std::int64_t day = VarToInt64(TVariant(std::trunc(days)));
    if (day < TLimits::min() || day > TLimits::max() - DayNumberOfEpoch) {
        throw EIntOverflow(u"The date is out of range");
    }
    return static_cast<std::int32_t>(day) + DayNumberOfEpoch;
}

// Same day: only whole seconds count, so that values of different precision meet.
std::int32_t CompareDateTime(double a, double b, bool wholeDays) noexcept {
    if (wholeDays) return Order(WholeDay(a), WholeDay(b));
    const TDayTime x = SplitDateTime(a);
    const TDayTime y = SplitDateTime(b);
    if (x.Day != y.Day) return Order(x.Day, y.Day);
    return Order(x.Milliseconds / 1000, y.Milliseconds / 1000);
}

std::size_t Room(std::int32_t length) noexcept {
    return static_cast<std::size_t>(std::max(length, 0));
}

std::int32_t CompareAnsiData(const void* buffer1, const void* buffer2, std::int32_t length1,
                             std::int32_t length2, TKdsCompareOptions options) noexcept {
    if (options.Has(coPartial) && length1 > length2) length1 = length2;
    // One character or many: the same order, or sorting would contradict itself.
    return CompareAnsi({static_cast<const char*>(buffer1), Room(length1)},
                       {static_cast<const char*>(buffer2), Room(length2)}, options.Has(coNoCase));
}

// Wide text ends at its first zero character, as it always did, but never beyond its length.
std::u16string_view WideText(const void* buffer, std::int32_t length, std::u16string& scratch) {
    // Slots are not aligned, so the characters are read through a copy where they have to be.
    if (reinterpret_cast<std::uintptr_t>(buffer) % alignof(char16_t) != 0) {
        scratch.resize(Room(length));
        std::memcpy(scratch.data(), buffer, scratch.size() * sizeof(char16_t));
        buffer = scratch.data();
    }
    const std::u16string_view text(static_cast<const char16_t*>(buffer), Room(length));
    return text.substr(0, text.find(u'\0'));
}

std::int32_t CompareWideData(const void* buffer1, const void* buffer2, std::int32_t length1,
                             std::int32_t length2, TKdsCompareOptions options) {
    if (options.Has(coPartial) && length1 != length2) {
        length1 = std::min(length1, length2);
    }
    std::u16string scratch1;
    std::u16string scratch2;
    return CompareText(WideText(buffer1, length1, scratch1), WideText(buffer2, length2, scratch2),
                       options.Has(coNoCase));
}

TFixed LoadFixed(const void* buffer) noexcept {
    const auto* const bytes = static_cast<const std::byte*>(buffer);
    return ToFixed(LoadRaw<std::int64_t>(bytes), LoadRaw<std::int16_t>(bytes + 8));
}

std::int32_t CompareCustom(const void* buffer1, const void* buffer2) {
    // Bare pointers: counting references here would race when a sort compares on several threads.
    const auto* const a = LoadRaw<const IInterface*>(buffer1);
    const auto* const b = LoadRaw<const IInterface*>(buffer2);
    const auto* const comparable = dynamic_cast<const IKdsComparable*>(a);
    if (comparable == nullptr) KdsError(u"CannotCompareValue");
    return comparable->Compare(b);
}

void WriteText(std::string_view text, void* buffer, std::int32_t& length) {
    auto* const target = static_cast<char*>(buffer);
    std::memcpy(target, text.data(), text.size());
    target[text.size()] = '\0';
    length = static_cast<std::int32_t>(text.size());
}

template <typename T>
void WriteRaw(T value, void* buffer, std::int32_t& length) {
    StoreRaw(buffer, value);
    length = static_cast<std::int32_t>(sizeof(T));
}

}  // namespace

std::u16string_view KdsTypeName(TKdsDataType type) noexcept {
    const auto code = static_cast<std::size_t>(type);
    return code < TypeInfos.size() ? TypeInfos[code].Name : TypeInfos[0].Name;
}

std::int32_t DataSize(TKdsDataType type) noexcept {
    const auto code = static_cast<std::size_t>(type);
    return code < TypeInfos.size() ? TypeInfos[code].Size : 0;
}

TKdsDataType DataTypeByName(std::u16string_view name) noexcept {
    name = Trim(name);
    for (std::size_t code = 0; code < TypeInfos.size(); ++code) {
        const TTypeInfo& info = TypeInfos[code];
        // "Integer (Int32)" answers to its first word too.
        const std::u16string_view word = info.Name.substr(0, info.Name.find(u' '));
        if (SameText(name, info.Name) || SameText(name, word) || SameText(name, info.Identifier)) {
            return static_cast<TKdsDataType>(code);
        }
    }
    return dtUnknown;
}

TVariant BufferToVar(TKdsDataType type, const void* buffer, std::int32_t length) {
    switch (type) {
        case dtBoolean: return LoadRaw<std::uint8_t>(buffer) != 0;
        case dtShort: return LoadRaw<std::int8_t>(buffer);
        case dtSmall: return LoadRaw<std::int16_t>(buffer);
        case dtInteger: return LoadRaw<std::int32_t>(buffer);
        // QUIRK: an unsigned 64-bit column reads as a signed value, as it is compared.
        case dtInt64:
        case dtUInt64: return LoadRaw<std::int64_t>(buffer);
        case dtByte: return LoadRaw<std::uint8_t>(buffer);
        case dtWord: return LoadRaw<std::uint16_t>(buffer);
        case dtCardinal: return LoadRaw<std::uint32_t>(buffer);
        case dtChar:
            // QUIRK: a first byte of 0 is an empty text whatever its length.
            if (length < 1 || *static_cast<const char*>(buffer) == '\0') return u"";
            [[fallthrough]];
        case dtAnsiString:
        case dtMemoString: return ToUtf16({static_cast<const char*>(buffer), Room(length)});
        case dtWideString: {
            std::u16string text(Room(length), u'\0');
            std::memcpy(text.data(), buffer, text.size() * sizeof(char16_t));
            return text;
        }
        case dtDouble: return LoadRaw<double>(buffer);
        case dtCurrency: return TCurrency{LoadRaw<std::int64_t>(buffer)};
        case dtDateTime: return TDateTime{LoadRaw<double>(buffer)};
        case dtDate:
            return TDateTime{static_cast<double>(LoadRaw<std::int32_t>(buffer)) - DayNumberOfEpoch};
        case dtTime:
            return TDateTime{JoinDateTime({0, LoadRaw<std::int32_t>(buffer) % MillisecondsPerDay})};
        case dtExtended: return ExtendedToVar(LoadRaw<double>(buffer));
        case dtFixed: return FixedToVar(LoadFixed(buffer));
        case dtCustomData: return BufferToIntf(buffer);
        case dtUnknown: break;
    }
    KdsError(u"DataTypeUnsupported");
}

void VarToBuffer(TKdsDataType type, const TVariant& value, void* buffer, std::int32_t& length) {
    if (!value.Assigned()) return;
    switch (type) {
        case dtBoolean: WriteRaw<std::uint8_t>(VarToBoolean(value) ? 1 : 0, buffer, length); return;
        // QUIRK: these two are written crosswise, an 8-bit value in two bytes and a 16-bit value
        // in one; record code therefore takes the long way round for them.
        case dtShort:
            WriteRaw<std::int16_t>(static_cast<std::int8_t>(VarToInt64(value)), buffer, length);
            return;
        case dtSmall:
            WriteRaw<std::uint8_t>(static_cast<std::uint8_t>(VarToInt64(value)), buffer, length);
            return;
        case dtByte:
            WriteRaw<std::uint8_t>(static_cast<std::uint8_t>(VarToInt64(value)), buffer, length);
            return;
        case dtWord:
            WriteRaw<std::uint16_t>(static_cast<std::uint16_t>(VarToInt64(value)), buffer, length);
            return;
        case dtInteger:
            WriteRaw<std::int32_t>(static_cast<std::int32_t>(VarToInt64(value)), buffer, length);
            return;
        case dtCardinal:
            WriteRaw<std::uint32_t>(static_cast<std::uint32_t>(VarToInt64(value)), buffer, length);
            return;
        case dtInt64:
        case dtUInt64: WriteRaw<std::int64_t>(VarToInt64(value), buffer, length); return;
        case dtChar:
        case dtAnsiString:
        case dtMemoString: WriteText(VarToAnsi(value), buffer, length); return;
        case dtWideString: {
            const std::u16string text = VarToStr(value);
            std::memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(char16_t));
            length = static_cast<std::int32_t>(text.size());
            return;
        }
        case dtDouble: WriteRaw<double>(VarToDouble(value), buffer, length); return;
        case dtDateTime: WriteRaw<double>(VarToDateTime(value).Days, buffer, length); return;
        case dtCurrency:
            WriteRaw<std::int64_t>(VarToCurrency(value).Scaled, buffer, length);
            return;
        case dtExtended: WriteRaw<double>(VarToExtended(value), buffer, length); return;
        case dtDate:
            WriteRaw<std::int32_t>(DayNumber(VarToDateTime(value).Days), buffer, length);
            return;
        case dtTime:
            WriteRaw<std::int32_t>(SplitDateTime(VarToDateTime(value).Days).Milliseconds, buffer,
                                   length);
            return;
        case dtFixed: {
            const TFixed fixed = VarToFixed(value);
            StoreRaw(buffer, fixed.Value);
            StoreRaw(static_cast<std::byte*>(buffer) + 8, fixed.Scale);
            length = 10;
            return;
        }
        case dtCustomData:
            WriteRaw<const IInterface*>(VarToIntf(value).Get(), buffer, length);
            return;
        case dtUnknown: break;
    }
    KdsError(u"DataTypeUnsupported");
}

std::int32_t CompareData(TKdsDataType type, const void* buffer1, const void* buffer2,
                         std::int32_t length1, std::int32_t length2, TKdsCompareOptions options) {
    switch (type) {
        // QUIRK: the plain difference, not reduced to a sign.
        case dtBoolean: return LoadRaw<std::uint8_t>(buffer1) - LoadRaw<std::uint8_t>(buffer2);
        case dtShort: return OrderRaw<std::int8_t>(buffer1, buffer2);
        case dtSmall: return OrderRaw<std::int16_t>(buffer1, buffer2);
        case dtInteger:
        case dtDate: return OrderRaw<std::int32_t>(buffer1, buffer2);
        case dtByte: return OrderRaw<std::uint8_t>(buffer1, buffer2);
        case dtWord: return OrderRaw<std::uint16_t>(buffer1, buffer2);
        case dtCardinal: return OrderRaw<std::uint32_t>(buffer1, buffer2);
        case dtInt64:
        case dtUInt64:
        case dtCurrency: return OrderRaw<std::int64_t>(buffer1, buffer2);
        // A NaN is neither above nor below anything, so it counts as equal.
        case dtDouble:
        case dtExtended: return OrderRaw<double>(buffer1, buffer2);
        case dtDateTime:
            return CompareDateTime(LoadRaw<double>(buffer1), LoadRaw<double>(buffer2),
                                   options.Has(coPartial));
        case dtTime:
            return Order(LoadRaw<std::int32_t>(buffer1) / 1000,
                         LoadRaw<std::int32_t>(buffer2) / 1000);
        case dtChar:
        case dtAnsiString:
        case dtMemoString: return CompareAnsiData(buffer1, buffer2, length1, length2, options);
        case dtWideString: return CompareWideData(buffer1, buffer2, length1, length2, options);
        case dtFixed: return FixedCompareValue(LoadFixed(buffer1), LoadFixed(buffer2));
        case dtCustomData: return CompareCustom(buffer1, buffer2);
        case dtUnknown: break;
    }
    KdsError(u"CannotCompareValue");
}

TIntf<IInterface> BufferToIntf(const void* buffer) {
    if (buffer == nullptr) return nullptr;
    return TIntf<IInterface>(LoadRaw<IInterface*>(buffer));
}

void IntfToBuffer(void* buffer, const TIntf<IInterface>& intf) {
    IInterface* const previous = LoadRaw<IInterface*>(buffer);
    if (intf) intf->Retain();
    StoreRaw(buffer, intf.Get());
    if (previous != nullptr) previous->Release();
}

}  // namespace kds
