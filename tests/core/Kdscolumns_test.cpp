#include "kds/core/Kdscolumns.h"

#include "tests/core/Coretest.h"

namespace kds {
namespace {

class TKdsColumnTest : public testing::Test {
protected:
    TKdsColumnTest()
        : fTable(TRecording<TKdsTable>::Create(&fRecorder, u"T")), fColumns(fTable->Columns()) {
        fRecorder.Lines.clear();
    }
    ~TKdsColumnTest() override {
        fRecorder.OnNote = nullptr;
        EXPECT_STREQ(fTable->Inconsistency(), nullptr);
    }

    TRecorder fRecorder;
    TOwned<TRecording<TKdsTable>> fTable;
    TKdsTableColumnList* fColumns;
};

TEST_F(TKdsColumnTest, TakesTheRoomItsTypeAndLengthNeed) {
    struct TCase {
        TKdsDataType Type;
        std::int32_t Length, Size;
    };
    for (const TCase& c : {TCase{dtBoolean, 32, 1}, TCase{dtChar, 10, 10}, TCase{dtChar, 0, 0},
                           TCase{dtAnsiString, 10, 13}, TCase{dtWideString, 10, 24},
                           TCase{dtAnsiString, 65'535, 65'538}, TCase{dtMemoString, 10, 8},
                           TCase{dtFixed, 10, 10}, TCase{dtCustomData, 1, 8}}) {
        TKdsColumn* const column = fColumns->Add(u"c", c.Type, c.Length);
        EXPECT_EQ(column->ActualSize(), c.Size) << ToUtf8(KdsTypeName(c.Type));
        EXPECT_EQ(fColumns->RecordSize(), 4 + c.Size);
        column->SetCalculated(true, /*stored=*/false);
        EXPECT_EQ(column->ActualSize(), 0);
        EXPECT_EQ(fColumns->RecordSize(), 4);
        column->SetCalculated(true);
        if (c.Size > 0) {
            column->SetDelayedCalc(true);
            EXPECT_EQ(fColumns->RecordSize(), 4 + c.Size + 4);  // its calculation stamp
        }
        fColumns->Clear();
    }
    EXPECT_EQ(fColumns->Add(u"c", dtWideString)->Length(), DefaultVariableLength);
}

TEST_F(TKdsColumnTest, LaysTheValuesOutBehindTheNullWordsInColumnOrder) {
    for (int i = 0; i < 33; ++i) {
        fColumns->Add(u"c" + ToUtf16(std::to_string(i)), i % 2 == 0 ? dtByte : dtInteger);
    }
    EXPECT_EQ(fColumns->NullBytes(), 8);
    EXPECT_EQ(fColumns->NullOffset(), 0);
    EXPECT_EQ(fColumns->Items(0)->DataOffset(), 8);
    EXPECT_EQ(fColumns->Items(2)->DataOffset(), 8 + 5);
    EXPECT_EQ(fColumns->Items(31)->NullMask(), 0x8000'0000u);
    EXPECT_EQ(fColumns->Items(32)->NullOffset(), 4);
    EXPECT_EQ(fColumns->Items(32)->NullMask(), 1u);

    fColumns->Items(32)->SetIndex(0);
    EXPECT_EQ(fColumns->Find(u"C32")->DataOffset(), 8);
    EXPECT_EQ(fColumns->Find(u"c0")->Index(), 1);
    fColumns->Sort();
    EXPECT_EQ(fColumns->Items(2)->Name(), u"c10");
    fColumns->Items(0)->SetLength(7);  // no length in its bytes, but a layout change all the same
    fColumns->Items(0)->SetDataType(dtChar);
    EXPECT_EQ(fColumns->Items(1)->DataOffset(), 15);
    EXPECT_TRUE(fColumns->IsConsistent());
    EXPECT_THROW(fColumns->Items(0)->SetIndex(33), EListError);
}

TEST_F(TKdsColumnTest, ChangesOfTheLayoutAreRefusedWhileThereAreRows) {
    TKdsColumn* const n = fColumns->Add(u"n", dtInteger);
    TKdsColumn* const s = fColumns->Add(u"s", dtAnsiString, 5);
    TOwned<TKdsRecord> detached;
    const std::pair<const char*, std::function<void()>> changes[] = {
        {"add", [&] { fColumns->Add(u"x", dtInteger); }},
        {"delete", [&] { fColumns->Delete(0); }},
        {"clear", [&] { fColumns->Clear(); }},
        {"free", [&] { n->Free(); }},
        {"move", [&] { fColumns->Move(0, 1); }},
        {"index", [&] { n->SetIndex(1); }},
        {"sort", [&] { fColumns->Sort(); }},
        {"rename", [&] { n->SetName(u"x"); }},
        {"type", [&] { n->SetDataType(dtInt64); }},
        {"length", [&] { s->SetLength(6); }},
        {"calculated", [&] { n->SetCalculated(true, false); }},
        {"delayed", [&] { n->SetDelayedCalc(true); }},
        {"dictionary", [&] { s->SetDictionary(u"words"); }},
        {"strip", [&] { fTable->SetOptions({mtoStripNulls}); }},
    };
    const auto refused = [&](const char* when) {
        for (const auto& [name, change] : changes) {
            EXPECT_EQ(Refusal(change), "Cannot change structure for non-empty table \"T\"")
                << name << " " << when;
        }
        EXPECT_EQ(fColumns->Count(), 2);
        EXPECT_EQ(n->Name(), u"n");
        EXPECT_EQ(n->DataType(), dtInteger);
        EXPECT_EQ(n->Attributes(), TKdsAttributes{caAllowNull});
        EXPECT_EQ(s->Length(), 5);
        EXPECT_EQ(s->Dictionary(), u"");
        EXPECT_EQ(fColumns->Items(0), n);
    };

    detached = fTable->NewRow();
    refused("with a detached row");
    detached.reset();
    fTable->Insert({1, u"a"});
    refused("with a row");
    fTable->EnterLoad(mtsDestroy);
    refused("with a row, in a load bracket");
    fTable->LeaveLoad();
    // What leaves the layout alone may change, and is heard with the index 0.
    fRecorder.Lines.clear();
    n->SetAllowNull(false);
    for (int i = 0; i < 2; ++i) n->SetDecimals(2);
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareUpdate n @0", "acConfirmUpdate n @0",
                                        "acPrepareUpdate n @0", "acConfirmUpdate n @0"}));
    // The row that a search leaves behind does not count.
    fTable->Clear();
    fTable->SetPrimaryKey(u"n");
    fTable->Insert({1, u"a"});
    (void)fTable->Records()->Find({1});
    fTable->Records()->Delete(0);
    fTable->SetPrimaryKey(u"");
    s->SetLength(9);
    EXPECT_EQ(fRecorder.Lines.back(), "acConfirmUpdate s @1");
}

TEST_F(TKdsColumnTest, ARefusedChangeLeavesTheColumnAsItWas) {
    TKdsColumn* const n = fColumns->Add(u"n", dtInteger);
    fRecorder.Refuse(acPrepareUpdate);
    EXPECT_EQ(Refusal([&] { n->SetDataType(dtInt64); }), "refused");
    EXPECT_EQ(Refusal([&] { n->SetDefaultValue(3); }), "refused");
    EXPECT_EQ(Refusal([&] { n->SetAutoIncrement(true, 5, 2); }), "refused");
    fRecorder.OnNote = nullptr;
    EXPECT_EQ(n->DataSize(), 4);
    EXPECT_TRUE(n->DefaultValue().IsEmpty());
    EXPECT_FALSE(n->Attributes().Has(caAutoInc));
    EXPECT_EQ(Refusal([&] { n->SetDataType(dtUnknown); }),
              "Cannot explicitly create columns of internal type");
    EXPECT_EQ(Refusal([&] { n->SetLength(65'536); }), "Column n size exceeds limit");
    EXPECT_EQ(Refusal([&] { n->SetLength(-1); }), "Column n size exceeds limit");
}

TEST_F(TKdsColumnTest, IsFoundByItsNameAndQualifiedInMessages) {
    TKdsColumn* const n = fColumns->Add(u"n", dtInteger);
    EXPECT_EQ(Refusal([&] { (void)fColumns->Columns(u"m"); }), "Item named \"T.m\" not found");
    EXPECT_EQ(Refusal([&] { fColumns->Add(u"N", dtInteger); }), "Duplicate item name \"N\"");
    n->SetName(u"id");
    EXPECT_EQ(fColumns->Find(u"ID"), n);
    EXPECT_EQ(fColumns->Find(u"n"), nullptr);
    EXPECT_EQ(n->GetDisplayLabel(), u"id");

    // Beyond seven bits a column stands in the list, laid out, but not in the index.
    EXPECT_EQ(Refusal([&] { fColumns->Add(u"größe", dtInteger); }),
              "Object name cannot contain 'ö' character");
    ASSERT_EQ(fColumns->Count(), 2);
    EXPECT_EQ(fColumns->Items(1)->Index(), 1);
    EXPECT_EQ(fTable->Insert({1, 2})->GetDataI(1), TVariant(2));
}

TEST_F(TKdsColumnTest, IsMadeFromTheTextsOfADescription) {
    TKdsColumn* const name =
        fColumns->Add(u" name ", u"AnsiString", u" 12 ", u"Full name", u" notnull  caseless ");
    EXPECT_EQ(name->Name(), u"name");
    EXPECT_EQ(name->Length(), 12);
    EXPECT_EQ(name->GetDisplayLabel(), u"Full name");
    EXPECT_EQ(name->Attributes(), TKdsAttributes{caCaseless});
    EXPECT_EQ(fColumns->Add(u"qty", u"integer (int32)", u"")->DataType(), dtInteger);
    for (const auto& [type, length, attributes, message] :
         {std::tuple(u"Char", u"many", u"", "Column x size exceeds limit"),
          std::tuple(u"Char", u"65536", u"", "Column x size exceeds limit"),
          std::tuple(u"Complex", u"1", u"", "Unsupported datatype!!!"),
          std::tuple(u"Char", u"1", u"shiny", "Item named \"shiny\" not found")}) {
        EXPECT_EQ(Refusal([&] { fColumns->Add(u"x", type, length, u"", attributes); }), message);
    }
    EXPECT_EQ(fColumns->Count(), 2);
}

TEST_F(TKdsColumnTest, IsLateOnlyWhenItIsCalculatedAndStored) {
    TKdsColumn* const n = fColumns->Add(u"n", dtInteger);
    n->SetCalculated(true, /*stored=*/false);
    n->SetDelayedCalc(true);
    EXPECT_TRUE(n->IsComputed() && !n->IsDelayed());
    n->SetCalculated(true);
    EXPECT_TRUE(n->IsDelayed() && !n->IsComputed());
    n->SetCalculated(false);
    EXPECT_FALSE(n->IsDelayed());
    fColumns->Add(u"m", dtMemoString)->SetDefaultValue(u"none");
    EXPECT_TRUE(fColumns->Occurences().HasAll({coMemoString, coHasDefault}));
}

TEST_F(TKdsColumnTest, FormatsNumbersAsItsPropertiesSay) {
    struct TCase {
        TKdsDataType Type;
        TVariant Value;
        std::int32_t Decimals;
        TKdsAttributes Attributes;
        const char16_t* Text;
    };
    for (const TCase& c :
         {TCase{dtDouble, 2.675, 2, {}, u"2.68"}, TCase{dtDouble, 1e30, -1, {}, u"1E30"},
          TCase{dtInteger, 0, -1, {caZeroEmpty}, u""}, TCase{dtInteger, 7, 2, {caShowSign}, u"+7"},
          TCase{dtFixed, TDecimalParts{-125, 2}, 1, {caShowSign}, u"-1.3"},
          TCase{dtCurrency, TCurrency{12'345}, 2, {}, u"1.23"},
          TCase{dtAnsiString, u"x", 2, {caShowSign}, u"x"}, TCase{dtInteger, Null, 2, {}, u""},
          TCase{dtBoolean, true, -1, {}, u"1"}}) {
        const TOwned<TKdsColumn> column = TKdsColumn::Create(u"c", c.Type);
        column->SetDecimals(c.Decimals);
        column->SetAttributes(c.Attributes);
        EXPECT_EQ(ToUtf8(column->FormatValue(c.Value)), ToUtf8(c.Text));
    }
    struct TShout final : IKdsFormat {
        std::u16string Format(const TKdsColumn* column, const TVariant&,
                              const TKdsRecord* record) override {
            return column->Name() + (record == nullptr ? u"!" : u"?");
        }
    };
    TKdsColumn* const n = fColumns->Add(u"n", dtInteger);
    n->SetFormatter(MakeIntf<TShout>());
    EXPECT_EQ(n->FormatValue(1), u"n!");
    EXPECT_EQ(fTable->NewRow()->Format(u"n"), u"n?");
}

TEST(TKdsLayoutTest, TheCompactSizeFollowsTheNullWordsAndDelayedColumns) {
    TKdsLayout layout;
    layout.Reset(4);
    layout.Add(dtInteger, skPlain, 4, /*delayed=*/false);  // at 4
    layout.Add(dtInteger, skPlain, 4, /*delayed=*/true);   // at 8, its stamp at 12
    layout.Add(dtInteger, skComputed, 0, /*delayed=*/false);
    layout.Add(dtMemoString, skMemo, 8, /*delayed=*/false);  // at 16
    layout.Finish();
    EXPECT_TRUE(layout.IsConsistent());
    EXPECT_EQ(layout.RecordSize(), 24);
    std::byte buffer[24] = {};
    EXPECT_EQ(layout.CompactSize(buffer), 16);
    layout.Slot(3).MarkValue(buffer);
    EXPECT_EQ(layout.CompactSize(buffer), 24);
    layout.Slot(3).MarkNull(buffer);

    layout.SetNotNull(0, true);
    EXPECT_TRUE(layout.HasNotNullGap(buffer));
    layout.Slot(0).MarkValue(buffer);
    EXPECT_FALSE(layout.HasNotNullGap(buffer));
    layout.SetNotNull(3, true);
    EXPECT_TRUE(layout.HasNotNullGap(buffer));
}

}  // namespace
}  // namespace kds
