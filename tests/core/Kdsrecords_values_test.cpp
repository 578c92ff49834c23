// What records hold: values of every type, conversions and lengths, defaults and numbering.
#include <cmath>
#include <limits>
#include <sstream>

#include "kds/core/Kdsrecords.h"
#include "kds/expr/Extvars.h"
#include "tests/core/Coretest.h"

namespace kds {
namespace {

class TKdsValueTest : public TKdsRecordTest {
protected:
    // Characters of a text; -1 for null.
    static std::int32_t SizeOf(TKdsRecord* record, const TKdsColumn* column) {
        const void* data = nullptr;
        std::int32_t size = 0;
        if (!record->GetDataP(column, data, size)) return -1;
        EXPECT_NE(data, nullptr);
        return size;
    }
};

INSTANTIATE_TEST_SUITE_P(Buffers, TKdsValueTest, testing::Bool(), BuffersName);

struct TValueCase {
    TKdsDataType Type;
    TVariant In;
    TVariant Out;
};

const std::vector<TValueCase>& ValueCases() {
    static const std::vector<TValueCase> cases = {
        {dtBoolean, 5, true},
        {dtShort, 300, std::int8_t{44}},  // the low byte
        {dtSmall, 0x12345, std::int16_t{0x2345}},
        {dtInteger, u"-7", -7},
        {dtInt64, 2.5, std::int64_t{2}},
        {dtByte, 256, std::uint8_t{0}},
        {dtWord, -1, std::uint16_t{65'535}},
        {dtCardinal, -1, 4'294'967'295u},
        {dtUInt64, std::numeric_limits<std::uint64_t>::max(), std::int64_t{-1}},
        {dtChar, u"", u""},
        {dtChar, "a\xFF\xC3", u"a\xDCFF\xDCC3"},  // no valid UTF-8, and kept
        {dtDouble, u"0.1", 0.1},
        {dtCurrency, 1.23456, TCurrency{12'346}},
        {dtDateTime, u"2024-02-29", TDateTime{45'351}},
        {dtDate, TDateTime{45'351.75}, TDateTime{45'351}},
        {dtTime, TDateTime{45'351.75}, TDateTime{0.75}},
        {dtAnsiString, 12.5, u"12.5"},
        {dtAnsiString, std::u16string_view(u"a\0b", 3), std::u16string_view(u"a\0b", 3)},
        {dtAnsiString, u"", u""},
        {dtWideString, u"жук", u"жук"},
        {dtExtended, 1, TExtended{1}},
        {dtMemoString, std::u16string(100'000, u'ж'), std::u16string(100'000, u'ж')},
        {dtMemoString, u"", u""},
        {dtFixed, u"1.50", TDecimalParts{150, 2}},
    };
    return cases;
}

// Each value lives between two others, which must not be touched.
TEST_P(TKdsValueTest, HoldsAValueOfEveryTypeThroughItsWholeLife) {
    for (const TValueCase& c : ValueCases()) {
        SCOPED_TRACE(testing::Message() << ToUtf8(KdsTypeName(c.Type)));
        Add(u"before", dtCardinal);
        TKdsColumn* const column = Add(u"value", c.Type);
        Add(u"after", dtCardinal);
        constexpr std::uint32_t fence = 0xFDFD'FDFD;
        TOwned<TKdsRecord> row = fTable->NewRow();
        EXPECT_TRUE(row->GetIsNullI(0) && row->GetIsNullC(column) && row->GetIsNullN(u"AFTER"));
        row->SetValues({fence, c.In, fence});
        const auto holds = [&](TKdsRecord* record, const TVariant& value) {
            EXPECT_EQ(record->GetDataI(0), TVariant(fence));
            EXPECT_TRUE(VarEqual(record->GetDataC(column), value)) << record->GetDataC(column);
            EXPECT_EQ(record->GetIsNullC(column), value.IsNull());
            EXPECT_EQ(record->GetDataI(2), TVariant(fence));
        };
        holds(row.get(), c.Out);
        TKdsRecord* const record = fTable->Records()->Add(std::move(row));
        holds(record, c.Out);
        for (const bool posts : {false, true}) {
            record->Edit();
            record->SetNullC(column);
            holds(record, Null);
            EXPECT_TRUE(VarEqual(record->GetOldC(column), c.Out));
            posts ? record->Post() : record->Cancel();
            holds(record, posts ? TVariant(Null) : c.Out);
        }
        record->Edit();
        record->SetDataI(1, c.Out);
        record->Post();
        row = fTable->Records()->Extract(record);
        holds(row.get(), c.Out);
        row.reset();
        fColumns->Clear();
    }
}

TEST_P(TKdsValueTest, RefusesWhatDoesNotConvertAndKeepsWhatItHad) {
    const auto tag = MakeIntf<TTag>();
    for (int code = 1; code < KdsDataTypeCount; ++code) {
        const auto type = static_cast<TKdsDataType>(code);
        SCOPED_TRACE(testing::Message() << ToUtf8(KdsTypeName(type)));
        const bool custom = type == dtCustomData;
        TKdsColumn* const column = Add(u"value", type);
        TOwned<TKdsRecord> row = fTable->NewRow({custom ? TVariant(tag) : TVariant(1)});
        const TVariant before = row->GetDataC(column);
        std::vector<TVariant> bad{custom ? TVariant(1) : TVariant(tag)};
        if (!IsTextType(type) && !custom) bad.emplace_back(u"x");
        if (type == dtInt64 || type == dtCurrency || type == dtDate || type == dtFixed) {
            bad.emplace_back(std::nan(""));
        }
        for (const TVariant& value : bad) {
            EXPECT_EQ(Refusal([&] { row->SetDataC(column, value); }), NotConvertible);
        }
        if (IsTextType(type) && type != dtMemoString) {
            EXPECT_EQ(Refusal([&] { row->SetDataC(column, u"123456789"); }),
                      "Value too big to fit in column T.value");
        }
        EXPECT_EQ(row->GetDataC(column), before);
        row.reset();
        fColumns->Clear();
    }
    EXPECT_EQ(tag->References(), 1);
}

// Bytes of 8-bit text, characters of wide text.
TEST_P(TKdsValueTest, CountsTheLengthOfTextInItsOwnUnits) {
    TKdsColumn* const narrow = Add(u"narrow", dtAnsiString, 4);
    TKdsColumn* const wide = Add(u"wide", dtWideString, 4);
    TKdsColumn* const fixed = Add(u"fixed", dtChar, 4);
    const TOwned<TKdsRecord> row = fTable->NewRow({u"жж", u"жжжж", u"жж"});
    for (const TKdsColumn* const column : {narrow, wide, fixed}) {
        EXPECT_EQ(SizeOf(row.get(), column), 4);
        EXPECT_EQ(Refusal([&] { row->SetDataC(column, column == wide ? u"жжжжж" : u"жжж"); }),
                  "Value too big to fit in column T." + ToUtf8(column->Name()));
    }
    row->SetDataC(fixed, u"a");  // zeros follow, which are no part of it
    EXPECT_EQ(SizeOf(row.get(), fixed), 1);
    row->SetDataC(narrow, u"");
    EXPECT_EQ(SizeOf(row.get(), narrow), 0);

    fixed->SetAttributes({caAllowNull, caAutoTrim});
    row->SetDataC(fixed, u"  ab  ");
    EXPECT_EQ(row->GetDataC(fixed), TVariant(u"ab"));
}

TEST_P(TKdsValueTest, TakesRawBytesOfTheRightSizeOnly) {
    AddUsual();
    const TOwned<TKdsRecord> row = fTable->NewRow({1, u"a", u"b", 2});
    const std::int64_t big = 5;
    const std::string mismatch = "Datatype buffer length mismatch T.";
    EXPECT_EQ(Refusal([&] { row->SetDataP(fId, &big, 8); }), mismatch + "id");
    EXPECT_EQ(Refusal([&] { row->SetDataP(fId, nullptr, 0); }), mismatch + "id");
    EXPECT_EQ(Refusal([&] { row->SetDataP(fMemo, "x", -1); }), mismatch + "memo");
    EXPECT_THROW(row->SetDataP(fId, nullptr, 4), EInvalidArgument);
    EXPECT_THROW(row->SetDataP(fName, nullptr, 1), EInvalidArgument);
    EXPECT_EQ(Refusal([&] { row->SetDataP(fName, "123456789", 9); }),
              "Value too big to fit in column T.name");
    std::ostringstream text;
    text << *row;
    EXPECT_EQ(text.str(), "id=1 name=a memo=b qty=2");
    row->SetDataP(fId, &big, 4);
    row->SetDataP(fName, nullptr, 0);
    row->SetDataP(fMemo, "a\0b", 3);
    EXPECT_EQ(row->GetDataC(fId), TVariant(5));
    EXPECT_EQ(row->GetDataC(fName), TVariant(u""));
    EXPECT_EQ(row->Get<std::string_view>(fMemo), std::string_view("a\0b", 3));
}

TEST_P(TKdsValueTest, ReadsAndWritesTypedValuesWithoutVariants) {
    AddUsual();
    TKdsColumn* const wide = Add(u"wide", dtWideString);
    TKdsColumn* const price = Add(u"price", dtFixed);
    TKdsColumn* const day = Add(u"day", dtDate);
    const TOwned<TKdsRecord> row = fTable->NewRow();
    EXPECT_EQ(row->Get<std::int32_t>(fId), std::nullopt);
    row->Set(fId, 7);
    row->Set(fMemo, std::string(20, 'm'));
    row->Set(wide, u"ж");
    row->Set(price, ToFixed(std::int64_t{125}, std::int16_t{2}));
    row->Set(day, 45'351 + DayNumberOfEpoch);
    EXPECT_EQ(row->Get<std::int32_t>(fId), 7);
    EXPECT_EQ(row->Get<std::string_view>(fMemo), std::string(20, 'm'));
    EXPECT_EQ(row->Get<std::u16string>(wide), u"ж");
    EXPECT_EQ(row->Get<std::u16string>(fId), u"7");
    EXPECT_EQ(FixedToVar(*row->Get<TFixed>(price)), TVariant(TDecimalParts{125, 2}));
    EXPECT_EQ(row->GetDataC(day), TVariant(TDateTime{45'351}));
    // Another form goes through a conversion when it is written, and is refused when read.
    row->Set(fName, u"ж");
    row->Set(price, 0.5);
    row->Set(fQty, "12");
    EXPECT_EQ(row->GetDataC(fName), TVariant(u"ж"));
    EXPECT_EQ(row->GetDataC(price), TVariant(TDecimalParts{5, 1}));
    EXPECT_EQ(row->Get<std::int32_t>(fQty), 12);
    EXPECT_THROW((void)row->Get<std::int64_t>(fId), EVariantError);
    EXPECT_THROW((void)row->Get<std::string_view>(wide), EVariantError);
    EXPECT_THROW((void)row->Get<TFixed>(fId), EVariantError);
    EXPECT_EQ(Refusal([&] { row->Set(fId, "x"); }), NotConvertible);
}

TEST_P(TKdsValueTest, RefusesColumnsAndPositionsThatAreNotItsOwn) {
    AddUsual();
    EXPECT_THROW((void)TKdsRecord::Create(nullptr, false), EInvalidArgument);
    const TOwned<TKdsTable> other = TKdsTable::Create(u"O");
    TKdsColumn* const foreign = other->Columns()->Add(u"id", dtInteger);
    const TOwned<TKdsColumn> loose = TKdsColumn::Create(u"id", dtInteger);
    const TOwned<TKdsRecord> row = fTable->NewRow();
    const TOwned<TKdsRecord> stranger = other->NewRow({3});
    const void* data = nullptr;
    std::int32_t size = 0;
    for (const TKdsColumn* const column :
         {static_cast<const TKdsColumn*>(nullptr), static_cast<const TKdsColumn*>(foreign),
          static_cast<const TKdsColumn*>(loose.get())}) {
        EXPECT_THROW((void)row->GetDataC(column), EInvalidArgument);
        EXPECT_THROW(row->SetDataC(column, 1), EInvalidArgument);
        EXPECT_THROW(row->SetNullC(column), EInvalidArgument);
        EXPECT_THROW(row->GetDataP(column, data, size), EInvalidArgument);
        EXPECT_THROW(row->SetDataP(column, &size, 4), EInvalidArgument);
        EXPECT_THROW((void)row->GetOldC(column), EInvalidArgument);
        EXPECT_THROW((void)row->GetAsRowC(column), EInvalidArgument);
        EXPECT_THROW((void)row->Get<std::int32_t>(column), EInvalidArgument);
        EXPECT_THROW(row->Set(column, 1), EInvalidArgument);
        EXPECT_THROW((void)row->Format(column), EInvalidArgument);
        EXPECT_THROW((void)row->SameValueC(column, row.get(), fId), EInvalidArgument);
        EXPECT_THROW(row->CopyValueC(fId, row.get(), column), EInvalidArgument);
    }
    EXPECT_THROW(row->CopyValueC(fId, nullptr, fId), EInvalidArgument);
    EXPECT_FALSE(row->SameValueC(fId, nullptr, fId));
    EXPECT_THROW((void)row->GetDataI(4), EListError);
    EXPECT_THROW(row->SetDataI(-1, 1), EListError);
    EXPECT_EQ(Refusal([&] { row->SetDataN(u"none", 1); }), "Item named \"T.none\" not found");
    EXPECT_EQ(Refusal([&] { (void)row->GetAsRowC(fId); }),
              "Only reference columns can be looked up");
    EXPECT_THROW(row->SetValues({1, u"a", u"b", 2, 3}), EInvalidArgument);
    row->CopyValueC(fId, stranger.get(), foreign);
    EXPECT_TRUE(row->SameValueC(fId, stranger.get(), foreign));
}

TEST_P(TKdsValueTest, CopiesAndComparesValuesAcrossTypes) {
    AddUsual();
    TKdsColumn* const wide = Add(u"wide", dtWideString);
    TKdsColumn* const fixed = Add(u"fixed", dtChar);
    TKdsColumn* const tag = Add(u"tag", dtCustomData);
    const TOwned<TKdsRecord> a =
        fTable->NewRow({12, u"12", u"12", Null, u"12", u"ab", TVariant(MakeIntf<TTag>())});
    const TOwned<TKdsRecord> b = fTable->NewRow({12, u"x", u"12"});
    EXPECT_TRUE(a->SameValueC(fName, b.get(), fMemo));  // both are 8-bit
    EXPECT_TRUE(a->SameValueC(wide, b.get(), fMemo));
    EXPECT_FALSE(a->SameValueC(wide, b.get(), fName));
    EXPECT_FALSE(a->SameValueC(fId, b.get(), fMemo));  // a number is no text
    EXPECT_TRUE(a->SameValueC(fQty, b.get(), fQty));   // two nulls
    EXPECT_FALSE(a->SameValueC(fId, b.get(), fQty));
    EXPECT_FALSE(a->SameValueC(tag, b.get(), fId));  // no text to compare by
    b->CopyValueC(wide, a.get(), fixed);
    EXPECT_EQ(b->GetDataC(wide), TVariant(u"ab"));
    b->CopyValueC(fName, a.get(), wide);
    b->CopyValueC(fQty, b.get(), fName);
    EXPECT_EQ(b->GetDataC(fQty), TVariant(12));
    b->CopyValueC(fQty, a.get(), fQty);
    EXPECT_TRUE(b->GetIsNullC(fQty));
    for (const TKdsColumn* const source : {fixed, tag}) {
        EXPECT_EQ(Refusal([&] { b->CopyValueC(fId, a.get(), source); }), NotConvertible);
    }
    for (TKdsColumn* const column : {fMemo, fName, wide}) a->CopyValueC(column, a.get(), column);
    EXPECT_EQ(a->GetDataC(wide), TVariant(u"12"));
}

TEST_P(TKdsValueTest, AssignsDefaultsAlsoToReadOnlyColumns) {
    AddUsual();
    fQty->SetDefaultValue(5);
    fQty->SetReadOnly(true);
    fName->SetDefaultValue(u"new");
    EXPECT_EQ(fTable->NewRow()->GetDataC(fQty), TVariant(5));
    EXPECT_TRUE(fTable->NewRow(false)->GetIsNullC(fQty));
    EXPECT_EQ(fTable->Insert({1, Null})->GetDataC(fName), TVariant(Null));
    fName->SetDefaultValue(u"too long for it");
    EXPECT_EQ(Refusal([&] { (void)fTable->NewRow(); }), "Value too big to fit in column T.name");
    EXPECT_EQ(fTable->OrphanRows(), 0);
}

TEST_P(TKdsValueTest, NumbersRowsAndMovesPastNumbersThatRowsBring) {
    TKdsColumn* const number = Add(u"number", dtInt64);
    number->SetAutoIncrement(true, 10, 5);
    const auto next = [&] {
        TKdsRecord* const record = fTable->Records()->Add(fTable->NewRow());
        return VarToInt64(record->GetDataC(number));
    };
    EXPECT_EQ(next(), 10);
    fTable->Insert({40});
    EXPECT_EQ(next(), 45);
    fTable->Insert({3});
    EXPECT_GT(next(), 45);
    fTable->Clear();
    EXPECT_EQ(next(), 10);
    number->SetAutoIncrement(true, 0, -1);
    fTable->Insert({-7});
    EXPECT_EQ(next(), -8);
    // There is no number beyond the last one.
    number->SetAutoIncrement(true, 1, 1);
    constexpr std::int64_t last = std::numeric_limits<std::int64_t>::max();
    fTable->Insert({last});
    EXPECT_EQ(next(), last);
    EXPECT_EQ(next(), last);
}

}  // namespace
}  // namespace kds
