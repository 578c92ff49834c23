#include "kds/core/Kdstypes.h"

#include <cmath>
#include <limits>
#include <ostream>

#include "kds/expr/Extvars.h"
#include "kds/platform/Bytes.h"
#include "tests/core/Coretest.h"

namespace kds {
namespace {

constexpr double Infinite = std::numeric_limits<double>::infinity();
constexpr double Nan = std::numeric_limits<double>::quiet_NaN();

TEST(TKdsTypesTest, EveryCodeHasItsNameAndSize) {
    const std::int32_t sizes[] = {0, 1, 1, 2, 4, 8, 1, 2, 4, 8,  1,
                                  8, 8, 8, 4, 4, 0, 0, 8, 8, 10, 8};
    ASSERT_EQ(std::size(sizes), std::size_t{KdsDataTypeCount});
    for (int code = 0; code < KdsDataTypeCount; ++code) {
        const auto type = static_cast<TKdsDataType>(code);
        EXPECT_EQ(DataTypeByName(KdsTypeName(type)), type);
        EXPECT_EQ(DataSize(type), sizes[code]);
    }
    EXPECT_EQ(KdsTypeName(dtShort), u"Short (Int8)");
    EXPECT_EQ(KdsTypeName(dtCardinal), u"Cardinal (UInt32)");
    EXPECT_EQ(DataTypeByName(u"integer"), dtInteger);
    EXPECT_EQ(DataTypeByName(u" dtFixed "), dtFixed);
    EXPECT_EQ(DataTypeByName(u"Int"), dtUnknown);
    EXPECT_EQ(DataSize(static_cast<TKdsDataType>(99)), 0);
}

// ---- Variant to bytes and back ------------------------------------------------------------

struct TWriteCase {
    TKdsDataType Type;
    TVariant Value;
    const char* Bytes;  // in hexadecimal
    std::int32_t Length;
    TVariant Back;  // what BufferToVar makes of it; empty where the form is not readable
};

std::string Hex(const std::byte* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += "0123456789ABCDEF"[std::to_integer<int>(bytes[i]) >> 4];
        text += "0123456789ABCDEF"[std::to_integer<int>(bytes[i]) & 15];
    }
    return text;
}

TEST(TKdsTypesTest, WritesRawBytesAndReadsThemBack) {
    const TWriteCase cases[] = {
        // These two are written crosswise.
        {dtShort, 5, "0500", 2, std::int8_t{5}},
        {dtShort, 0x1FF, "FFFF", 2, std::int8_t{-1}},
        {dtSmall, 0x1234, "34", 1, {}},
        // Cut to the width, without a word.
        {dtInteger, 0x1'0000'0005, "05000000", 4, 5},
        {dtUInt64, 0x8000'0000'0000'0000u, "0000000000000080", 8,
         std::numeric_limits<std::int64_t>::min()},
        {dtInteger, 3.5, "04000000", 4, 4},
        {dtChar, u"Aé", "41C3A900", 3, u"Aé"},
        {dtAnsiString, "B", "4200", 1, u"B"},
        {dtWideString, u"Aé", "4100E9000000", 2, u"Aé"},
        {dtCurrency, u"1.5", "983A000000000000", 8, TCurrency{15'000}},
        {dtDateTime, -1.25, "000000000000F4BF", 8, TDateTime{-1.25}},
        {dtDate, TDateTime{0.75}, "5A950A00", 4, TDateTime{0}},
        {dtDate, TDateTime{-1.75}, "59950A00", 4, TDateTime{-1}},
        {dtTime, TDateTime{-1.25}, "00974901", 4, TDateTime{0.25}},
        {dtTime, u"2024-02-29T12:00:00", "002E9302", 4, TDateTime{0.5}},
        {dtTime, TDateTime{0.9999999999}, "00000000", 4, TDateTime{0}},  // never a 25th hour
        {dtFixed, u"1.25", "7D000000000000000200", 10, TDecimalParts{125, 2}},
    };
    for (const TWriteCase& c : cases) {
        SCOPED_TRACE(testing::Message() << ToUtf8(KdsTypeName(c.Type)) << " from " << c.Value);
        std::byte buffer[32] = {};
        std::int32_t length = -1;
        VarToBuffer(c.Type, c.Value, buffer, length);
        EXPECT_EQ(length, c.Length);
        EXPECT_EQ(Hex(buffer, std::strlen(c.Bytes) / 2), c.Bytes);
        if (c.Back.IsEmpty()) continue;
        EXPECT_TRUE(VarEqual(BufferToVar(c.Type, buffer, length), c.Back));
    }
}

TEST(TKdsTypesTest, AWriteThatCannotBeIsRefused) {
    std::byte buffer[32] = {};
    std::int32_t length = 77;
    for (int code = 0; code < KdsDataTypeCount; ++code) {
        VarToBuffer(static_cast<TKdsDataType>(code), Null, buffer, length);
        VarToBuffer(static_cast<TKdsDataType>(code), {}, buffer, length);
    }
    EXPECT_EQ(length, 77);
    EXPECT_EQ(Hex(buffer, 4), "00000000");

    // What no integer, day or amount can hold is an error, not a number out of nowhere.
    for (const TKdsDataType type : {dtInteger, dtInt64, dtCurrency, dtDate}) {
        for (const double value : {Nan, Infinite, -Infinite, 1e300, -1e300}) {
            EXPECT_THROW(VarToBuffer(type, value, buffer, length), EIntError)
                << ToUtf8(KdsTypeName(type)) << " " << value;
        }
    }
    EXPECT_THROW(VarToBuffer(dtDate, TDateTime{2'147'000'000.0}, buffer, length), EIntError);
    EXPECT_THROW(VarToBuffer(dtInteger, u"x", buffer, length), EConvertError);
    EXPECT_THROW(VarToBuffer(dtCustomData, 1, buffer, length), EVariantError);
    for (const TKdsDataType type : {dtUnknown, static_cast<TKdsDataType>(22)}) {
        EXPECT_EQ(Refusal([&] { VarToBuffer(type, 1, buffer, length); }),
                  "Unsupported datatype!!!");
        EXPECT_EQ(Refusal([&] { (void)BufferToVar(type, buffer, 1); }), "Unsupported datatype!!!");
        EXPECT_EQ(Refusal([&] { (void)CompareData(type, buffer, buffer, 1, 1, {}); }),
                  "Data type not supported in comparison");
    }
}

TEST(TKdsTypesTest, ReadsRawBytesAsTheyAre) {
    // A first byte of zero is an empty text; behind a first character zeros belong to the text.
    EXPECT_EQ(BufferToVar(dtChar, "\0abc", 4), TVariant(u""));
    EXPECT_EQ(BufferToVar(dtChar, nullptr, 0), TVariant(u""));
    EXPECT_EQ(BufferToVar(dtAnsiString, "a\0b", 3), TVariant(std::u16string(u"a\0b", 3)));
    EXPECT_EQ(BufferToVar(dtBoolean, "\x02", 1), TVariant(true));
    // Values lie unaligned in records.
    std::byte buffer[12];
    StoreRaw(buffer + 1, std::int64_t{-3});
    EXPECT_EQ(BufferToVar(dtInt64, buffer + 1, 8), TVariant(std::int64_t{-3}));
}

// ---- Comparison ---------------------------------------------------------------------------

// Raw bytes of a value, for cases that say it in C++.
template <typename T>
std::string Raw(T value) {
    std::string bytes(sizeof(T), '\0');
    StoreRaw(bytes.data(), value);
    return bytes;
}
std::string Wide(std::u16string_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * 2};
}
std::string FixedBytes(std::int64_t value, std::int16_t scale) { return Raw(value) + Raw(scale); }
constexpr double Second = 1.0 / 86'400;

struct TCompareCase {
    TKdsDataType Type;
    std::string A, B;
    std::int32_t Result;
    TKdsCompareOptions Options;
};

TEST(TKdsTypesTest, OrdersRawValuesByTheirType) {
    const TKdsCompareOptions partial{coPartial};
    const TKdsCompareOptions noCase{coNoCase};
    const TCompareCase cases[] = {
        {dtBoolean, std::string(1, '\0'), "\xFF", -255, {}},
        {dtShort, "\xFF", "\x01", -1, {}},
        {dtByte, "\xFF", "\x01", 1, {}},
        {dtSmall, Raw<std::int16_t>(-1), Raw<std::int16_t>(1), -1, {}},
        {dtWord, Raw<std::int16_t>(-1), Raw<std::int16_t>(1), 1, {}},
        {dtInteger, Raw(-1), Raw(1), -1, {}},
        {dtCardinal, Raw(-1), Raw(1), 1, {}},
        {dtDate, Raw(-1), Raw(1), -1, {}},
        {dtUInt64, Raw(std::uint64_t{1} << 63), Raw(std::int64_t{1}), -1, {}},
        {dtCurrency, Raw(std::int64_t{-1}), Raw(std::int64_t{0}), -1, {}},
        {dtDouble, Raw(1.5), Raw(1.25), 1, {}},
        {dtDouble, Raw(Nan), Raw(1.0), 0, {}},
        {dtExtended, Raw(-0.0), Raw(0.0), 0, {}},
        // Whole seconds count, the date before the time, also before the epoch.
        {dtDateTime, Raw(1 + 0.4 * Second), Raw(1.0), 0, {}},
        {dtDateTime, Raw(1 + 1.1 * Second), Raw(1 + 0.9 * Second), 1, {}},
        {dtDateTime, Raw(-1.75), Raw(-1.25), 1, {}},
        {dtDateTime, Raw(1.9), Raw(1.1), 0, partial},
        {dtDateTime, Raw(1e300), Raw(Nan), 1, {}},
        {dtDateTime, Raw(-1e300), Raw(Nan), -1, partial},
        {dtTime, Raw(1'999), Raw(1'000), 0, {}},
        {dtFixed, FixedBytes(10, 1), FixedBytes(1, 0), 0, {}},
        // 8-bit text: by unsigned byte, bounded by the lengths; zeros are characters.
        {dtAnsiString, "ABC", "AB", 1, {}},
        {dtAnsiString, "ABC", "AB", 0, partial},
        {dtAnsiString, "AB", "ABC", -1, partial},
        {dtChar, "\xC3\xA9", "z", 1, {}},
        {dtChar, "b", "BB", -1, noCase},
        {dtChar, "b", "B", 1, {}},
        {dtMemoString, "äx", "ÄX", 0, noCase},
        {dtMemoString, "a", std::string("a\0", 2), -1, {}},
        // Wide text ends at its first zero character.
        {dtWideString, Wide(u"ABC"), Wide(u"AB"), 0, partial},
        {dtWideString, Wide(u"AB"), Wide(u"ABC"), -1, partial},
        {dtWideString, Wide(u"äb"), Wide(u"ÄB"), 0, noCase},
        {dtWideString, Wide({u"a\0b", 3}), Wide(u"a"), 0, {}},
        {dtWideString, Wide(u"\uFFFF"), Wide(u"a"), 1, {}},
    };
    for (const TCompareCase& c : cases) {
        SCOPED_TRACE(testing::Message() << ToUtf8(KdsTypeName(c.Type)) << " " << &c - cases);
        // One byte further on: nothing in a record is aligned.
        const std::string a = "!" + c.A;
        const std::string b = "!" + c.B;
        const int unit = c.Type == dtWideString ? 2 : 1;
        const auto length1 = static_cast<std::int32_t>(c.A.size()) / unit;
        const auto length2 = static_cast<std::int32_t>(c.B.size()) / unit;
        EXPECT_EQ(CompareData(c.Type, a.data() + 1, b.data() + 1, length1, length2, c.Options),
                  c.Result);
        if (!c.Options.Has(coPartial) || length1 == length2) {
            EXPECT_EQ(CompareData(c.Type, b.data() + 1, a.data() + 1, length2, length1, c.Options),
                      -c.Result);
        }
    }
}

class TPoint final : public IInterface, public IKdsComparable {
public:
    explicit TPoint(std::int32_t answer) : fAnswer(answer) {}
    [[nodiscard]] std::int32_t Compare(const IInterface*) const override { return fAnswer; }

private:
    std::int32_t fAnswer;
};
class TPlain final : public IInterface {};

TEST(TKdsTypesTest, CustomDataComparesItselfAndIsCountedInItsSlot) {
    std::byte a[8] = {};
    std::byte b[8] = {};
    constexpr std::int32_t least = std::numeric_limits<std::int32_t>::min();
    const auto point = MakeIntf<TPoint>(least);
    const auto plain = MakeIntf<TPlain>();
    for (int i = 0; i < 2; ++i) IntfToBuffer(a, TIntf<IInterface>(point));
    EXPECT_EQ(point->References(), 2);
    IntfToBuffer(b, TIntf<IInterface>(plain));
    EXPECT_EQ(CompareData(dtCustomData, a, b, 8, 8, {}), least);
    EXPECT_EQ(BufferToIntf(a).Get(), point.Get());
    EXPECT_EQ(BufferToVar(dtCustomData, b, 8), TVariant(plain));
    const std::string refusal = "Data type not supported in comparison";
    EXPECT_EQ(Refusal([&] { (void)CompareData(dtCustomData, b, a, 8, 8, {}); }), refusal);
    IntfToBuffer(a, nullptr);
    IntfToBuffer(b, nullptr);
    EXPECT_EQ(Refusal([&] { (void)CompareData(dtCustomData, a, b, 8, 8, {}); }), refusal);
    EXPECT_EQ(point->References(), 1);
    EXPECT_EQ(plain->References(), 1);
}

}  // namespace
}  // namespace kds
