#include "kds/core/Kdsrecords.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "kds/core/Kdserrors.h"
#include "kds/expr/Extvars.h"
#include "kds/expr/Varconvert.h"
#include "tests/support/Recorder.h"

namespace kds {
namespace {

using support::Refusal;
using support::TLines;

class TTag final : public IInterface, public IKdsExportable {
public:
    [[nodiscard]] TVariant ExportValue() const override { return u"tag"; }
};

// Everything here must hold in tables that keep full rows and in tables that strip them.
class TKdsRecordTest : public testing::TestWithParam<bool> {
protected:
    TKdsRecordTest() : fTable(TKdsTable::Create(u"T")), fColumns(fTable->Columns()) {
        if (GetParam()) fTable->SetOptions({mtoStripNulls});
    }
    ~TKdsRecordTest() override {
        // The routines were the test's own.
        for (TKdsColumn* const column : *fTable->Columns()) column->SetOnGetValue(nullptr);
        EXPECT_STREQ(fTable->Inconsistency(), nullptr);
    }

    TKdsColumn* Add(std::u16string_view name, TKdsDataType type, std::int32_t length = 8) {
        return fColumns->Add(name, type, length);
    }
    // id, name, memo, qty: the usual table.
    void AddUsual() {
        fId = Add(u"id", dtInteger);
        fName = Add(u"name", dtAnsiString);
        fMemo = Add(u"memo", dtMemoString);
        fQty = Add(u"qty", dtInteger);
    }
    template <typename F>
    void SetCompute(TKdsColumn* column, F* routine) {
        column->SetOnGetValue(TKdsGetValueEvent::BindCall(routine));
    }

    TOwned<TKdsTable> fTable;
    TKdsTableColumnList* fColumns;
    TKdsColumn *fId = nullptr, *fName = nullptr, *fMemo = nullptr, *fQty = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Buffers, TKdsRecordTest, testing::Bool(), [](const auto& tested) {
    return std::string(tested.param ? "Stripped" : "Whole");
});

// ---- Values of every type -----------------------------------------------------------------

struct TValueCase {
    TKdsDataType Type;
    TVariant In;
    TVariant Out;
};

const std::vector<TValueCase>& ValueCases() {
    static const std::vector<TValueCase> cases = {
        {dtBoolean, 5, true},
        {dtShort, 300, std::int8_t{44}},  // the low byte
        {dtShort, -1, std::int8_t{-1}},
        {dtSmall, 0x12345, std::int16_t{0x2345}},
        {dtInteger, u"-7", -7},
        {dtInt64, 2.5, std::int64_t{2}},
        {dtByte, 256, std::uint8_t{0}},
        {dtWord, -1, std::uint16_t{65'535}},
        {dtCardinal, -1, 4'294'967'295u},
        {dtUInt64, std::numeric_limits<std::uint64_t>::max(), std::int64_t{-1}},
        {dtChar, u"abc", u"abc"},
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
TEST_P(TKdsRecordTest, HoldsAValueOfEveryTypeThroughItsWholeLife) {
    for (const TValueCase& c : ValueCases()) {
        SCOPED_TRACE(testing::Message() << ToUtf8(KdsTypeName(c.Type)));
        Add(u"before", dtCardinal);
        TKdsColumn* const column = Add(u"value", c.Type);
        Add(u"after", dtCardinal);
        constexpr std::uint32_t fence = 0xFDFD'FDFD;
        TOwned<TKdsRecord> row = fTable->NewRow();
        EXPECT_TRUE(row->GetIsNullI(0) && row->GetIsNullC(column) && row->GetIsNullN(u"AFTER"));
        EXPECT_EQ(row->GetDataC(column), TVariant(Null));
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
        record->Edit();
        record->SetNullC(column);
        holds(record, Null);
        EXPECT_TRUE(VarEqual(record->GetOldC(column), c.Out));
        record->Cancel();
        holds(record, c.Out);
        record->Edit();
        record->SetNullN(u"value");
        record->Post();
        holds(record, Null);
        record->Edit();
        record->SetDataI(1, c.Out);
        record->Post();
        holds(record, c.Out);
        row = fTable->Records()->Extract(record);
        holds(row.get(), c.Out);
        row.reset();
        fColumns->Clear();
    }
}

TEST_P(TKdsRecordTest, RefusesWhatDoesNotConvertAndKeepsWhatItHad) {
    const auto tag = MakeIntf<TTag>();
    for (int code = 1; code < KdsDataTypeCount; ++code) {
        const auto type = static_cast<TKdsDataType>(code);
        SCOPED_TRACE(testing::Message() << ToUtf8(KdsTypeName(type)));
        TKdsColumn* const column = Add(u"value", type);
        TOwned<TKdsRecord> row = fTable->NewRow();
        const TVariant good = type == dtCustomData ? TVariant(tag) : TVariant(1);
        row->SetDataC(column, good);
        const TVariant before = row->GetDataC(column);
        const TVariant bad = type == dtCustomData ? TVariant(1) : TVariant(tag);
        EXPECT_EQ(Refusal([&] { row->SetDataC(column, bad); }),
                  "Cannot convert value to column datatype");
        if (!IsTextType(type) && type != dtCustomData) {
            EXPECT_EQ(Refusal([&] { row->SetDataC(column, u"x"); }),
                      "Cannot convert value to column datatype");
        }
        if (IsTextType(type) && type != dtMemoString) {
            EXPECT_EQ(Refusal([&] { row->SetDataC(column, u"123456789"); }),
                      "Value too big to fit in column T.value");
        }
        if (type == dtInt64 || type == dtCurrency || type == dtDate || type == dtFixed) {
            EXPECT_EQ(Refusal([&] { row->SetDataC(column, std::nan("")); }),
                      "Cannot convert value to column datatype");
        }
        EXPECT_EQ(row->GetDataC(column), before);
        row.reset();
        fColumns->Clear();
    }
    EXPECT_EQ(tag->References(), 1);
}

// Bytes of 8-bit text, characters of wide text.
TEST_P(TKdsRecordTest, CountsTheLengthOfTextInItsOwnUnits) {
    TKdsColumn* const narrow = Add(u"narrow", dtAnsiString, 4);
    TKdsColumn* const wide = Add(u"wide", dtWideString, 4);
    TKdsColumn* const fixed = Add(u"fixed", dtChar, 4);
    const TOwned<TKdsRecord> row = fTable->NewRow({u"жж", u"жжжж", u"жж"});
    for (const TKdsColumn* const column : {narrow, fixed}) {
        EXPECT_EQ(Refusal([&] { row->SetDataC(column, u"жжж"); }),
                  "Value too big to fit in column T." + ToUtf8(column->Name()));
    }
    EXPECT_NE(Refusal([&] { row->SetDataC(wide, u"жжжжж"); }), "nothing raised");
    const void* data = nullptr;
    std::int32_t size = 0;
    EXPECT_TRUE(row->GetDataP(narrow, data, size));
    EXPECT_EQ(size, 4);
    EXPECT_TRUE(row->GetDataP(wide, data, size));
    EXPECT_EQ(size, 4);
    row->SetDataC(fixed, u"a");  // zeros follow, which are no part of it
    EXPECT_TRUE(row->GetDataP(fixed, data, size));
    EXPECT_EQ(size, 1);
    row->SetDataC(narrow, u"");
    EXPECT_TRUE(row->GetDataP(narrow, data, size));
    EXPECT_NE(data, nullptr);
    EXPECT_EQ(size, 0);
    EXPECT_FALSE(row->GetIsNullC(narrow));

    fixed->SetAttributes({caAllowNull, caAutoTrim});
    row->SetDataC(fixed, u"  ab  ");
    EXPECT_EQ(row->GetDataC(fixed), TVariant(u"ab"));
}

TEST_P(TKdsRecordTest, TakesRawBytesOfTheRightSizeOnly) {
    AddUsual();
    const TOwned<TKdsRecord> row = fTable->NewRow({1, u"a", u"b", 2});
    const std::int64_t big = 5;
    const std::string mismatch = "Datatype buffer length mismatch T.";
    EXPECT_EQ(Refusal([&] { row->SetDataP(fId, &big, 8); }), mismatch + "id");
    EXPECT_EQ(Refusal([&] { row->SetDataP(fId, &big, -1); }), mismatch + "id");
    EXPECT_EQ(Refusal([&] { row->SetDataP(fId, nullptr, 0); }), mismatch + "id");
    EXPECT_EQ(Refusal([&] { row->SetDataP(fName, "x", -1); }), mismatch + "name");
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

TEST_P(TKdsRecordTest, ReadsAndWritesTypedValuesWithoutVariants) {
    AddUsual();
    TKdsColumn* const wide = Add(u"wide", dtWideString);
    TKdsColumn* const price = Add(u"price", dtFixed);
    TKdsColumn* const on = Add(u"on", dtBoolean);
    TKdsColumn* const day = Add(u"day", dtDate);
    const TOwned<TKdsRecord> row = fTable->NewRow();
    EXPECT_EQ(row->Get<std::int32_t>(fId), std::nullopt);
    row->Set(fId, 7);
    row->Set(fName, "ann");
    row->Set(fMemo, std::string(20, 'm'));
    row->Set(wide, u"ж");
    row->Set(price, ToFixed(std::int64_t{125}, std::int16_t{2}));
    row->Set(on, true);
    row->Set(day, 45'351 + DayNumberOfEpoch);
    EXPECT_EQ(row->Get<std::int32_t>(fId), 7);
    EXPECT_EQ(row->Get<std::string_view>(fName), "ann");
    EXPECT_EQ(row->Get<std::string_view>(fMemo), std::string(20, 'm'));
    EXPECT_EQ(row->Get<std::u16string>(wide), u"ж");
    EXPECT_EQ(row->Get<std::u16string>(fId), u"7");
    EXPECT_EQ(FixedToVar(*row->Get<TFixed>(price)), TVariant(TDecimalParts{125, 2}));
    EXPECT_EQ(row->Get<bool>(on), true);
    EXPECT_EQ(row->GetDataC(day), TVariant(TDateTime{45'351}));
    // Another form goes through a conversion when it is written, and is refused when read.
    row->Set(fId, std::int64_t{8});
    row->Set(fName, u"ж");
    row->Set(price, 0.5);
    row->Set(fQty, "12");
    EXPECT_EQ(row->GetDataC(fId), TVariant(8));
    EXPECT_EQ(row->GetDataC(fName), TVariant(u"ж"));
    EXPECT_EQ(row->GetDataC(price), TVariant(TDecimalParts{5, 1}));
    EXPECT_EQ(row->Get<std::int32_t>(fQty), 12);
    EXPECT_THROW((void)row->Get<std::int64_t>(fId), EVariantError);
    EXPECT_THROW((void)row->Get<std::string_view>(wide), EVariantError);
    EXPECT_THROW((void)row->Get<TFixed>(fId), EVariantError);
    EXPECT_EQ(Refusal([&] { row->Set(fId, "x"); }), "Cannot convert value to column datatype");
}

// ---- Wrong columns, wrong records ---------------------------------------------------------

TEST_P(TKdsRecordTest, RefusesColumnsAndPositionsThatAreNotItsOwn) {
    AddUsual();
    const TOwned<TKdsTable> other = TKdsTable::Create(u"O");
    TKdsColumn* const foreign = other->Columns()->Add(u"id", dtInteger);
    const TOwned<TKdsColumn> loose = TKdsColumn::Create(u"id", dtInteger);
    const TOwned<TKdsRecord> row = fTable->NewRow();
    const TOwned<TKdsRecord> stranger = other->NewRow();
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
    stranger->SetDataC(foreign, 3);
    row->CopyValueC(fId, stranger.get(), foreign);
    EXPECT_TRUE(row->SameValueC(fId, stranger.get(), foreign));
    EXPECT_THROW((void)TKdsRecord::Create(nullptr, false), EInvalidArgument);
}

TEST_P(TKdsRecordTest, ADetachedRowThatOutlivesItsTableOnlyRefuses) {
    AddUsual();
    TOwned<TKdsRecord> row = fTable->NewRow({1, u"a", u"memo", 2});
    TOwned<TKdsRecord> kept = fTable->Records()->Extract(fTable->Insert({2, u"b", u"memo", 3}));
    TOwned<TKdsRecord> forced = fTable->NewRow();
    forced->EnterForced();
    const TKdsColumn* const column = fId;
    fTable = TKdsTable::Create(u"Next");
    fColumns = nullptr;
    for (TKdsRecord* const record : {row.get(), kept.get(), forced.get()}) {
        EXPECT_EQ(record->Table(), nullptr);
        const std::string invalid = "Invalid operation for record state";
        EXPECT_EQ(Refusal([&] { (void)record->GetDataI(0); }), invalid);
        EXPECT_EQ(Refusal([&] { (void)record->GetDataC(column); }), invalid);
        EXPECT_EQ(Refusal([&] { record->SetDataN(u"id", 1); }), invalid);
        EXPECT_EQ(Refusal([&] { record->SetValues({1}); }), invalid);
        EXPECT_EQ(Refusal([&] { record->Edit(); }), invalid);
        EXPECT_EQ(Refusal([&] { record->CheckConstraints(rsRegular); }), invalid);
        EXPECT_EQ(Refusal([&] { (void)record->Compare(record, {}); }), invalid);
        EXPECT_EQ(Refusal([&] { record->Delete(); }), "Record cannot be deleted");
        record->Post();
        record->Cancel();
        record->Signal();
        record->LeaveForced();
        EXPECT_EQ(record->FindBuffer(), nullptr);
        std::ostringstream text;
        text << *record;
        EXPECT_EQ(text.str(), "(no table)");
        EXPECT_EQ(Refusal([&] { TKdsEdit edit(record); }),
                  "There is no table or record to begin with");
    }
    EXPECT_EQ(Refusal([&] { fTable->Records()->Add(std::move(row)); }),
              "Record cannot be inserted");
    EXPECT_NE(row, nullptr);
}

// ---- States -------------------------------------------------------------------------------

TEST_P(TKdsRecordTest, EachStateAllowsWhatItShould) {
    AddUsual();
    fQty->SetReadOnly(true);
    const std::string none = "nothing raised";
    const std::string notEditable = "Record is not in editable state";
    const std::string readOnly = "Column \"qty\" is read only";
    struct TCase {
        TKdsRecordState State;
        bool Forced;
        std::string Write, WriteReadOnly, Edit, Old, Delete;
    };
    const std::string already = "Record is already editable";
    const std::string invalid = "Invalid operation for record state";
    const std::string kept = "Record cannot be deleted";
    for (const TCase& c : {TCase{rsDetached, false, none, readOnly, already, invalid, kept},
                           TCase{rsRegular, false, notEditable, notEditable, none, invalid, none},
                           TCase{rsEditing, false, none, readOnly, already, none, none},
                           TCase{rsDetached, true, none, none, already, invalid, kept},
                           TCase{rsRegular, true, none, none, already, invalid, kept},
                           TCase{rsEditing, true, none, none, already, none, kept}}) {
        SCOPED_TRACE(testing::Message() << int{static_cast<std::uint8_t>(c.State)} << c.Forced);
        TOwned<TKdsRecord> row = fTable->NewRow({1, u"a", u"b"});
        TKdsRecord* record = row.get();
        if (c.State != rsDetached) fTable->Records()->Add(std::move(row));
        if (c.State == rsEditing) record->Edit();
        if (c.Forced) record->EnterForced();
        EXPECT_EQ(Refusal([&] { record->SetDataC(fName, u"new"); }), c.Write);
        EXPECT_EQ(Refusal([&] { record->SetDataC(fQty, 5); }), c.WriteReadOnly);
        EXPECT_EQ(Refusal([&] { record->SetNullC(fQty); }), c.WriteReadOnly);
        EXPECT_EQ(Refusal([&] { (void)record->GetOldC(fName); }), c.Old);
        EXPECT_EQ(record->GetDataC(fName), TVariant(c.Write == none ? u"new" : u"a"));
        EXPECT_EQ(c.Edit == none ? none : Refusal([&] { record->Edit(); }), c.Edit);
        if (c.Forced) {
            record->EnterForced();  // within itself it changes nothing
            record->SetDataC(fMemo, u"forced");
            record->LeaveForced();
            EXPECT_EQ(record->GetDataC(fMemo), TVariant(u"forced"));
            EXPECT_EQ(record->RowState(), c.State);
            EXPECT_EQ(record->GetDataC(fName), TVariant(u"new"));
            record->EnterForced();
        }
        EXPECT_EQ(Refusal([&] { record->Delete(); }), c.Delete);
        if (c.Forced) record->LeaveForced();
        row.reset();
        fTable->Clear();
    }
}

TEST_P(TKdsRecordTest, PostAndCancelDoNothingUnlessEdited) {
    AddUsual();
    TKdsRecord* const record = fTable->Insert({1, u"a", u"b", 2});
    const std::int32_t version = fTable->Version();
    fTable->SetModified(false);
    record->Post();
    record->Cancel();
    EXPECT_FALSE(fTable->Modified());
    record->Edit();
    record->SetDataC(fName, u"z");
    EXPECT_EQ(record->GetOldN(u"name"), TVariant(u"a"));
    EXPECT_EQ(record->GetOldI(0), TVariant(1));
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"z"));
    record->Cancel();
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"a"));
    EXPECT_EQ(fTable->Version(), version);
    {
        TKdsEdit edit(record);
        edit->SetDataC(fName, u"lost");
    }
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"a"));
    TKdsEdit edit(record);
    edit->SetDataC(fName, u"kept");
    edit.Post();
    EXPECT_EQ(record->RowState(), rsRegular);
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"kept"));
    EXPECT_TRUE(fTable->Modified());
    EXPECT_EQ(fTable->Version(), version + 1);
    EXPECT_EQ(Refusal([&] { edit.Post(); }), "Invalid operation for record state");
}

TEST_P(TKdsRecordTest, WritesToPostedRowsWhereTheTableAllowsThem) {
    AddUsual();
    TKdsRecord* const record = fTable->Insert({1, u"a"});
    // Nothing is in use behind the name: a stripped row has no room there yet.
    record->EnterForced();
    record->SetDataC(fQty, 7);
    record->SetDataC(fMemo, u"forced");
    record->CopyValueC(fName, record, fMemo);
    record->LeaveForced();
    EXPECT_EQ(record->GetDataC(fQty), TVariant(7));
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"forced"));
    fTable->EnterLoad(mtsMassive);
    record->SetNullC(fQty);
    record->SetNullC(fMemo);
    record->SetDataC(fName, u"massive");
    fTable->LeaveLoad();
    EXPECT_EQ(Refusal([&] { record->SetNullC(fName); }), "Record is not in editable state");
    fTable->EnterLoad(mtsUploads);
    EXPECT_EQ(Refusal([&] { record->SetNullC(fName); }), "Record is not in editable state");
    fTable->LeaveLoad();
    record->Edit();
    record->Post();
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"massive"));
    EXPECT_TRUE(record->GetIsNullC(fQty) && record->GetIsNullC(fMemo));
}

TEST_P(TKdsRecordTest, ARowThatLeftItsTableCanBeWrittenToItsLastColumn) {
    AddUsual();
    TOwned<TKdsRecord> row = fTable->Records()->Extract(fTable->Insert({1}));
    row->SetDataC(fQty, 9);
    row->SetDataC(fMemo, u"memo");
    row->SetDataC(fName, u"name");
    row->CopyValueC(fMemo, row.get(), fName);
    TKdsRecord* const record = fTable->Records()->Add(std::move(row));
    EXPECT_EQ(record->GetDataC(fQty), TVariant(9));
    EXPECT_EQ(record->GetDataC(fMemo), TVariant(u"name"));
}

// ---- References ---------------------------------------------------------------------------

TEST_P(TKdsRecordTest, CountsCustomDataThroughEveryChange) {
    const auto a = MakeIntf<TTag>();
    const auto b = MakeIntf<TTag>();
    TKdsColumn* const tag = Add(u"tag", dtCustomData);
    Add(u"memo", dtMemoString);
    const auto counts = [&] { return std::pair(a->References() - 1, b->References() - 1); };
    using TCounts = std::pair<std::int32_t, std::int32_t>;
    TKdsRecord* const record = fTable->Insert({a, u"x"});
    EXPECT_EQ(counts(), TCounts(1, 0));
    record->Edit();
    EXPECT_EQ(counts(), TCounts(2, 0));
    record->SetDataC(tag, b);
    EXPECT_EQ(counts(), TCounts(1, 1));
    record->SetDataC(tag, record->GetDataC(tag));
    record->Post();
    EXPECT_EQ(counts(), TCounts(0, 1));
    record->Edit();
    record->SetDataC(tag, a);
    record->Cancel();
    EXPECT_EQ(counts(), TCounts(0, 1));
    record->Edit();
    record->SetNullC(tag);
    record->Post();
    EXPECT_EQ(counts(), TCounts(0, 0));
    record->EnterForced();
    record->SetDataC(tag, b);
    record->LeaveForced();
    TOwned<TKdsRecord> copy = fTable->NewRow();
    copy->CopyValueC(tag, record, tag);
    EXPECT_EQ(counts(), TCounts(0, 2));
    EXPECT_EQ(record->Format(tag), u"tag");
    // A forced edit that the table clears away.
    record->Edit();
    record->SetDataC(tag, a);
    record->EnterForced();
    fTable->Clear();
    EXPECT_EQ(counts(), TCounts(0, 1));
    copy.reset();
    fTable->Insert({a, Null});
    fTable->EnterLoad(mtsMassive);
    fTable->Records()->Items(0)->SetDataC(tag, b);
    fTable->LeaveLoad();
    EXPECT_EQ(counts(), TCounts(0, 1));
    fTable->Records()->Items(0)->Delete();
    EXPECT_EQ(counts(), TCounts(0, 0));
}

TEST_P(TKdsRecordTest, CopiesAndComparesValuesAcrossTypes) {
    AddUsual();
    TKdsColumn* const wide = Add(u"wide", dtWideString);
    TKdsColumn* const fixed = Add(u"fixed", dtChar);
    TKdsColumn* const tag = Add(u"tag", dtCustomData);
    const TOwned<TKdsRecord> a = fTable->NewRow({12, u"12", u"12", Null, u"12", u"ab"});
    const TOwned<TKdsRecord> b = fTable->NewRow({12, u"x", u"12"});
    EXPECT_TRUE(a->SameValueC(fName, b.get(), fMemo));  // both are 8-bit
    EXPECT_TRUE(a->SameValueC(wide, b.get(), fMemo));
    EXPECT_FALSE(a->SameValueC(wide, b.get(), fName));
    EXPECT_FALSE(a->SameValueC(fId, b.get(), fMemo));  // a number is no text
    EXPECT_TRUE(a->SameValueC(fQty, b.get(), fQty));   // two nulls
    EXPECT_FALSE(a->SameValueC(fId, b.get(), fQty));
    b->CopyValueC(wide, a.get(), fixed);
    EXPECT_EQ(b->GetDataC(wide), TVariant(u"ab"));
    b->CopyValueC(fName, a.get(), wide);
    EXPECT_EQ(b->GetDataC(fName), TVariant(u"12"));
    b->CopyValueC(fQty, b.get(), fName);
    EXPECT_EQ(b->GetDataC(fQty), TVariant(12));
    b->CopyValueC(fQty, a.get(), fQty);
    EXPECT_TRUE(b->GetIsNullC(fQty));
    EXPECT_EQ(Refusal([&] { b->CopyValueC(fQty, a.get(), fixed); }),
              "Cannot convert value to column datatype");
    for (TKdsColumn* const column : {fMemo, fName, wide}) a->CopyValueC(column, a.get(), column);
    EXPECT_EQ(a->GetDataC(wide), TVariant(u"12"));
    a->SetDataC(tag, MakeIntf<TTag>());
    EXPECT_FALSE(a->SameValueC(tag, b.get(), fId));  // no text to compare by
    EXPECT_EQ(Refusal([&] { b->CopyValueC(fId, a.get(), tag); }),
              "Cannot convert value to column datatype");
}

// ---- Defaults and numbering ---------------------------------------------------------------

TEST_P(TKdsRecordTest, AssignsDefaultsAlsoToReadOnlyColumns) {
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

TEST_P(TKdsRecordTest, NumbersRowsAndMovesPastNumbersThatRowsBring) {
    TKdsColumn* const number = Add(u"number", dtInt64);
    Add(u"n", dtInteger);
    number->SetAutoIncrement(true, 10, 5);
    const auto next = [&] {
        TKdsRecord* const record = fTable->Records()->Add(fTable->NewRow());
        return VarToInt64(record->GetDataC(number));
    };
    EXPECT_EQ(next(), 10);
    EXPECT_EQ(next(), 15);
    fTable->Insert({40});
    EXPECT_EQ(next(), 45);
    fTable->Insert({3});
    EXPECT_EQ(next() > 45, true);
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

// ---- Calculation --------------------------------------------------------------------------

TEST_P(TKdsRecordTest, ComputesOnEveryReadWhatIsNotStored) {
    AddUsual();
    TKdsColumn* const twice = Add(u"twice", dtInt64);
    twice->SetCalculated(true, /*stored=*/false);
    int calls = 0;
    auto compute = [&](TKdsColumn*, TKdsRecord* record, TVariant& value) {
        ++calls;
        EXPECT_TRUE(value.IsNull());
        const TVariant qty = record->GetDataN(u"qty");
        if (qty.Assigned()) value = 2 * VarToInt64(qty);
    };
    EXPECT_TRUE(fTable->NewRow()->GetIsNullC(twice));
    SetCompute(twice, &compute);
    TKdsRecord* const record = fTable->Insert({1, u"a", u"b", 4});
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(record->GetDataC(twice), TVariant(std::int64_t{8}));
    record->Edit();
    record->SetDataC(fQty, 5);
    EXPECT_EQ(record->GetDataC(twice), TVariant(std::int64_t{10}));
    EXPECT_EQ(record->GetOldC(twice), TVariant(std::int64_t{8}));  // from the posted values
    EXPECT_EQ(record->Get<std::int64_t>(twice), 10);
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(Refusal([&] { record->SetDataC(twice, 1); }), "Unsupported datatype!!!");
    record->Cancel();
    // Two computed values are held at once.
    TKdsRecord* const other = fTable->Insert({2, u"a", u"b", 5});
    EXPECT_FALSE(record->SameValueC(twice, other, twice));
    EXPECT_LT(record->Compare(other, {}), 0);
    auto endless = [&](TKdsColumn* column, TKdsRecord* of, TVariant& value) {
        value = of->GetDataC(column).Assigned() ? 2 : 1;
    };
    SetCompute(twice, &endless);  // reads itself, down to a depth where it is null
    EXPECT_TRUE(record->GetDataC(twice).Assigned());
    auto failing = [](TKdsColumn*, TKdsRecord*, TVariant&) { throw std::runtime_error("mine"); };
    SetCompute(twice, &failing);
    EXPECT_THROW((void)record->GetDataC(twice), std::runtime_error);
    EXPECT_EQ(record->RowState(), rsRegular);
}

TEST_P(TKdsRecordTest, CalculatesStoredColumnsOnInsertAndPost) {
    AddUsual();
    fQty->SetCalculated(true);
    fQty->SetReadOnly(true);
    auto length = [&](TKdsColumn*, TKdsRecord* record, TVariant& value) {
        const auto name = record->Get<std::string_view>(fName);
        if (name && *name == "bad") throw std::runtime_error("mine");
        if (name && *name == "long") value = u"no number";
        if (name && !value.Assigned()) value = static_cast<std::int32_t>(name->size());
    };
    SetCompute(fQty, &length);
    TKdsRecord* const record = fTable->Insert({1, u"abc"});
    EXPECT_EQ(record->GetDataC(fQty), TVariant(3));
    record->Edit();
    record->SetDataC(fName, u"ab");
    record->Post();
    EXPECT_EQ(record->GetDataC(fQty), TVariant(2));
    // A post is refused and stays open; an insertion stands already, and the column stays null.
    for (const char16_t* const name : {u"bad", u"long"}) {
        record->Edit();
        record->SetDataC(fName, name);
        EXPECT_ANY_THROW(record->Post());
        EXPECT_EQ(record->RowState(), rsEditing);
        EXPECT_EQ(record->GetOldC(fQty), TVariant(2));
        record->Cancel();
        TKdsRecord* const inserted = fTable->Insert({2, name});
        EXPECT_EQ(inserted->RowState(), rsRegular);
        EXPECT_TRUE(inserted->GetIsNullC(fQty));
        EXPECT_EQ(inserted->GetDataC(fName), TVariant(name));
    }
    fTable->EnterLoad(mtsMassive);
    EXPECT_TRUE(fTable->Insert({3, u"abc"})->GetIsNullC(fQty));
    fTable->LeaveLoad();
}

TEST_P(TKdsRecordTest, CalculatesDelayedColumnsOnTheFirstReadAfterAChange) {
    AddUsual();
    TKdsColumn* const rows = Add(u"rows", dtInteger);
    Add(u"tail", dtAnsiString);
    rows->SetDelayedCalc(true);
    int calls = 0;
    auto count = [&](TKdsColumn*, TKdsRecord*, TVariant& value) {
        ++calls;
        value = fTable->Records()->Count();
    };
    SetCompute(rows, &count);
    TKdsRecord* const record = fTable->Insert({1, u"1"});
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(record->GetDataC(rows), TVariant(1));
    EXPECT_EQ(record->GetDataC(rows), TVariant(1));
    EXPECT_EQ(calls, 1);
    TKdsRecord* const other = fTable->Insert({2, u"2"});
    EXPECT_EQ(record->GetDataC(rows), TVariant(2));
    EXPECT_EQ(calls, 2);
    // The late value is written beside the values that are being held.
    EXPECT_FALSE(other->SameValueC(fName, other, rows));
    other->EnterForced();
    other->CopyValueC(fQty, other, rows);
    other->LeaveForced();
    EXPECT_EQ(other->GetDataC(fQty), TVariant(2));
    EXPECT_EQ(calls, 3);
    auto failing = [&](TKdsColumn*, TKdsRecord*, TVariant&) { throw EKdsError(u"late"); };
    SetCompute(rows, &failing);
    fTable->Insert({3});
    EXPECT_EQ(Refusal([&] { (void)record->GetDataC(rows); }), "late");
    SetCompute(rows, &count);
    EXPECT_EQ(record->GetDataC(rows), TVariant(3));
    // A search for a late value compares with what is sought, not with what a blank row gives.
    TKdsView* const view = fTable->Select(u"rows,id");
    EXPECT_EQ(view->Find({3, 2}), 1);
    EXPECT_EQ(view->Find({99}), -1);
}

TEST_P(TKdsRecordTest, ARoutineMayReadOnButNotChangeTheTableItRunsIn) {
    AddUsual();
    TKdsColumn* const found = Add(u"found", dtInteger);
    found->SetCalculated(true, /*stored=*/false);
    fTable->SetPrimaryKey(u"id");
    TKdsRecord* const record = fTable->Insert({1, u"a", u"b", 2});
    TKdsRecord* const other = fTable->Insert({2, u"b"});
    TLines refusals;
    auto meddle = [&](TKdsColumn*, TKdsRecord* of, TVariant& value) {
        const auto row = fTable->NewRow({3});
        EXPECT_EQ(Refusal([&] { of->Delete(); }), "Record cannot be deleted");
        refusals = {Refusal([&] { fTable->Insert({3}); }),
                    Refusal([&] { other->Delete(); }),
                    Refusal([&] { (void)fTable->Records()->Extract(other); }),
                    Refusal([&] { fTable->Records()->Move(0, 1); }),
                    Refusal([&] { fTable->Clear(); }),
                    Refusal([&] { fTable->EnterLoad(mtsMassive); }),
                    Refusal([&] { fTable->SetPrimaryKey(u"name"); }),
                    Refusal([&] { fTable->RebuildViews(true); }),
                    Refusal([&] { fId->SetDisplayLabel(u"x"); }),
                    Refusal([&] { fId->SetAllowNull(true); })};
        value = fTable->Records()->Find({2})->GetDataN(u"id");
    };
    SetCompute(found, &meddle);
    EXPECT_EQ(record->GetDataC(found), TVariant(2));
    EXPECT_EQ(refusals, TLines(10, "Invalid operation for record state"));
    EXPECT_EQ(fTable->Status(), mtsRegular);
    EXPECT_EQ(fTable->Records()->Count(), 2);
    EXPECT_TRUE(fTable->PrimaryView()->Actual());
}

}  // namespace
}  // namespace kds
