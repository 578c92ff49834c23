// Columns that show those of another table: declarations, and what reads answer while masters come,
// go and change.
#include <functional>
#include <vector>

#include "tests/support/Recorder.h"
#include "tests/views/Lookuptest.h"

namespace kds {
namespace {

using support::Refusal;
using support::TLookupTest;

TEST_F(TLookupTest, DeclarationsAreRefusedForWhatTheyCannotMean) {
    TKdsTableColumnList* const zones = fZones->Columns();
    const TOwned<TKdsTable> alone = TKdsTable::Create(u"Alone");
    TKdsColumn* const single = alone->Columns()->Add(u"A", dtInteger);
    TKdsColumn* const id = zones->Columns(u"Id");
    const struct {
        std::function<void()> Declare;
        const char* Message;
    } cases[] = {
        {[&] { single->ForeignKey(u"Countries", u"Code"); },
         "Table Alone should be a part of a Store"},
        {[&] { id->ForeignKey(u"Nowhere", u"Code"); }, "Item named \"Nowhere\" not found"},
        {[&] { id->ForeignKey(u"Countries", u"Nothing"); },
         "Item named \"Countries.Nothing\" not found"},
        {[&] { id->ForeignKey(u"Countries", u"Code"); },
         "Zones.Id datatype doesn`t match Countries.Code"},
        {[&] { id->ForeignKey(u"Zones", u"Id"); }, "Circular reference for Id detected"},
        {[&] { zones->Columns(u"Country")->ForeignKey(u"Countries", u"Name"); },
         "Column Country already defined as foreign key to Countries"},
        {[&] { zones->AddLookup(u"X", u"Id"); }, "Only reference columns can be looked up"},
        {[&] { zones->AddLookup(u"X", u"Country", u"Nothing"); },
         "Item named \"Countries.Nothing\" not found"},
    };
    for (const auto& tested : cases) {
        EXPECT_EQ(Refusal(tested.Declare), tested.Message);
        EXPECT_EQ(zones->Count(), 2);
        EXPECT_FALSE(id->GetIsForeignKey());
    }
    EXPECT_NO_THROW(zones->Columns(u"Country")->ForeignKey(u"Countries", u"Code"));  // the same
    TKdsColumn* const number = zones->Add(u"Number", dtInteger);
    number->ForeignKey(u"Countries", u"Number");
    EXPECT_EQ(Refusal([&] { zones->AddLookup(u"X", u"Number"); }),
              "\"Number\" should be unique (primary key) of table \"Countries\"");
}

TEST_F(TLookupTest, AReferenceTakesTwoOrEightBytesAndShowsTheMaster) {
    TKdsColumn* const name = AddName();
    TKdsColumn* const shorter =
        fZones->Columns()->AddLookup(u"Row", u"Country", {}, TKdsLookupKind::lkShort);
    EXPECT_EQ(name->ActualSize(), 8);
    EXPECT_EQ(shorter->ActualSize(), 2);
    EXPECT_TRUE(fZones->Columns()->Columns(u"Country")->GetIsLookupKey());
    AddCountries(3);
    TKdsRecord* const zone = AddZone(1, u"AB");

    EXPECT_EQ(VarToStr(zone->GetDataC(name)), u"NAB");
    EXPECT_EQ(zone->GetAsRowC(name), fCountries->Records()->Items(1));
    EXPECT_EQ(VarToStr(zone->GetDataC(shorter)), u"AB");
    const void* data = nullptr;
    std::int32_t size = 0;
    EXPECT_TRUE(zone->GetDataP(shorter, data, size));
    EXPECT_EQ(data, fCountries->Records()->Items(1));
    EXPECT_EQ(size, 8);
    EXPECT_EQ(VarToStr(name->LookupValue(u"AC")), u"NAC");
    EXPECT_EQ(VarToStr(name->LookupValue(u"ZZ")), u"#wrong lookup");
    EXPECT_EQ(Refusal([&] { (void)zone->GetAsRowC(fZones->Columns()->Items(0)); }),
              "Only reference columns can be looked up");
    EXPECT_EQ(Refusal([&] { TKdsEdit(zone)->SetDataC(name, TVariant(u"NAC")); }),
              "Cannot represent references as variant");
}

TEST_F(TLookupTest, UnresolvedKeysAnswerSizeMinusOneAndNullKeysNothing) {
    TKdsColumn* const name = AddName();
    AddCountries(2);
    TKdsRecord* const wrong = AddZone(1, u"ZZ");
    TKdsRecord* const none = AddZone(2, Null);
    const void* data = nullptr;
    std::int32_t size = 0;

    EXPECT_FALSE(wrong->GetDataP(name, data, size));
    EXPECT_EQ(size, -1);
    EXPECT_EQ(wrong->Format(name), u"#wrong lookup");
    EXPECT_FALSE(none->GetDataP(name, data, size));
    EXPECT_EQ(size, 0);
    EXPECT_EQ(none->Format(name), u"");
    fCountries->Insert({u"ZZ", u"Found"});
    EXPECT_EQ(wrong->Format(name), u"Found");
}

TEST_F(TLookupTest, ChainsLeadThroughSeveralTablesButNotInACircle) {
    fCountries->Columns()->Add(u"Capital", dtInteger)->ForeignKey(u"Zones", u"Id");
    TKdsColumn* const name = AddName();
    TKdsColumn* const back = fCountries->Columns()->AddLookup(u"Back", u"Capital", u"Name");
    EXPECT_EQ(Refusal([&] { name->SetTargetField(back); }), "Circular reference for Name detected");
    EXPECT_EQ(name->TargetField(), fCountries->Columns()->Columns(u"Name"));
    fCountries->Insert({u"AA", u"Alpha", 0, 7});
    AddZone(7, u"AA");
    EXPECT_EQ(VarToStr(fCountries->Records()->Items(0)->GetDataC(back)), u"Alpha");
}

TEST_F(TLookupTest, AKeyThatTheHostWritesIsKeptOnlyWhenItLeadsToTheValue) {
    TKdsColumn* const name = AddName();
    AddCountries(20);
    TKdsRecord* const zone = AddZone(1, u"AC");
    TKdsNormalLookup key;
    EXPECT_TRUE(zone->ResolveLookupKey(name, "AD", 2, key));
    EXPECT_EQ(key.Index, 3);
    EXPECT_TRUE(zone->IsValidReference(name, key, "AD", 2));
    EXPECT_FALSE(zone->IsValidReference(name, key, "AC", 2));
    const TKdsNormalLookup untouched = key;
    EXPECT_FALSE(zone->ResolveLookupKey(name, "ZZ", 2, key));
    EXPECT_EQ(key.Index, untouched.Index);

    TKdsEdit edit(zone);
    zone->SetDataP(name, &key, 8);  // of another country than the key column says
    EXPECT_EQ(VarToStr(zone->GetDataC(name)), u"NAC");
    zone->SetAsRowC(name, fCountries->Records()->Items(3));
    EXPECT_EQ(VarToStr(zone->GetDataN(u"Country")), u"AD");
    EXPECT_EQ(VarToStr(zone->GetDataC(name)), u"NAD");
    zone->SetNullC(name);
    EXPECT_TRUE(zone->GetIsNullC(fZones->Columns()->Columns(u"Country")));
    EXPECT_EQ(Refusal([&] { zone->SetDataP(name, &key, 2); }),
              "Datatype buffer length mismatch Zones.Name");
}

TEST_F(TLookupTest, MastersMayGoInAnyOrder) {
    TKdsColumn* const name = AddName();
    TKdsView* const view = fZones->Select(u"Name");
    AddCountries(12);
    TKdsRecord* const zone = AddZone(1, u"AB");
    fCountries->Delete({u"AA"});  // the positions behind it shift
    EXPECT_EQ(VarToStr(zone->GetDataC(name)), u"NAB");
    fCountries->Clear();
    fCountries->Insert({u"AX", u"Other"});  // with the first row's position and identifier
    EXPECT_TRUE(zone->GetIsNullC(name));
    EXPECT_EQ(view->Count(), 1);
    fCountries->Clear();
    fCountries->Columns()->Delete(fCountries->Columns()->Columns(u"Name")->Index());
    EXPECT_EQ(name->MasterTable(), nullptr);
    EXPECT_TRUE(zone->GetIsNullC(name));
    fStore->Tables()->Remove(fCountries);
    EXPECT_EQ(fZones->Columns()->Columns(u"Country")->MasterTable(), nullptr);
    EXPECT_EQ(VarToStr(zone->GetDataN(u"Country")), u"AB");
    EXPECT_EQ(view->Find({Null}), 0);
}

// Keys of another length or, after the host has changed a type, of another form.
TEST_F(TLookupTest, KeysThatCannotBeTheMastersShowNothing) {
    TKdsColumn* const name = AddName();
    fZones->Columns()->Columns(u"Country")->SetLength(20);
    AddCountries(12);
    EXPECT_EQ(AddZone(1, u"AB and more")->Format(name), u"#wrong lookup");
    EXPECT_EQ(AddZone(2, u"AB")->Format(name), u"NAB");
    TKdsView* const view = fZones->Select(u"Name");
    fCountries->Clear();
    fCountries->SetPrimaryKey({});
    fCountries->Columns()->Columns(u"Code")->SetDataType(dtInt64);
    TKdsRecord* const one = fCountries->Insert({1, u"One"});
    EXPECT_EQ(view->Count(), 2);
    TKdsEdit edit(one);
    one->SetDataN(u"Name", u"Uno");
    edit.Post();
    EXPECT_EQ(view->Count(), 2);  // places the rows that show it: there are none
    EXPECT_EQ(fZones->Records()->Items(1)->Format(name), u"#wrong lookup");
    EXPECT_EQ(AddZone(3, u"1")->Format(name), u"#wrong lookup");
}

TEST_F(TLookupTest, WhatIsNoValueIsRefusedBeforeItIsRead) {
    fZones->SetOptions({mtoStripNulls});
    TKdsColumn* const name = AddName();
    TKdsColumn* const country = fZones->Columns()->Columns(u"Country");
    AddCountries(12);
    TKdsRecord* const zone = AddZone(1, Null);
    TKdsLoad load(fZones, mtsMassive);  // writes go to the posted values, which are cut short
    EXPECT_EQ(Refusal([&] { zone->SetDataP(country, nullptr, 2); }), "A value needs its data");
    EXPECT_EQ(Refusal([&] { zone->SetDataP(country, "AB", -1); }),
              "Datatype buffer length mismatch Zones.Country");
    EXPECT_TRUE(zone->GetIsNullC(country));
    zone->SetDataP(country, nullptr, 0);  // the empty text
    EXPECT_EQ(zone->Format(name), u"#wrong lookup");
    TKdsNormalLookup key{0, 0};
    EXPECT_FALSE(zone->ResolveLookupKey(name, nullptr, 2, key));
    EXPECT_FALSE(zone->IsValidReference(name, key, "AA", -1));
    // A value that does not convert leaves nothing behind in the record that searches borrow.
    EXPECT_THROW((void)name->LookupValue(u"far too long a code"), EKdsError);
    EXPECT_EQ(VarToStr(name->LookupValue(u"AC")), u"NAC");
    EXPECT_EQ(fCountries->PrimaryView()->Find({u"AC"}), 2);
}

// The master has gone by the time that its rows go: whoever is told of them finds nothing there.
TEST_F(TLookupTest, NobodyLooksIntoATableThatEnds) {
    const TKdsColumn* const name = AddName();
    AddCountries(2);
    TKdsRecord* const zone = AddZone(1, u"AA");  // the row that goes last
    class TWatch final : public IKdsSexton {
    public:
        TWatch(TKdsRecord* record, const TKdsColumn* column) : fRecord(record), fColumn(column) {}
        void RecordDeleted(TKdsTable*, TKdsRecord*) override {
            ++Heard;
            EXPECT_TRUE(fRecord->GetIsNullC(fColumn));
        }
        void TableDestroyed(TKdsTable*) override {}
        int Heard = 0;

    private:
        TKdsRecord* fRecord;
        const TKdsColumn* fColumn;
    };
    const TIntf<TWatch> watch = MakeIntf<TWatch>(zone, name);
    fCountries->AppendDeacon(watch);
    fStore->Tables()->Remove(fCountries);
    EXPECT_EQ(watch->Heard, 2);
}

// A unique view over what is shown notices at the next use that two rows show the same.
TEST_F(TLookupTest, AUniqueViewIsBuiltAnewWhenAMasterChanges) {
    AddName();
    AddCountries(12);
    AddZone(1, u"AB");
    AddZone(2, u"AC");
    TKdsView* const view = fZones->Views()->MakeIndex(u"Name", {voUnique});
    view->SetActive(true);
    TKdsRecord* const country = fCountries->Records()->Items(1);
    TKdsEdit edit(country);
    country->SetDataN(u"Name", u"NAC");
    edit.Post();
    EXPECT_EQ(Refusal([&] { (void)view->Count(); }),
              "Duplicate rows for \"" + ToUtf8(view->Name()) + "\"");
}

// People and their bosses: a post moves the row itself and those that show it.
TEST_F(TLookupTest, ATableMayLookIntoItself) {
    TKdsTable* const people = fStore->Tables()->Add(u"People");
    people->Columns()->Add(u"Id", dtInteger);
    people->Columns()->Add(u"Name", dtAnsiString, 8);
    people->Columns()->Add(u"Boss", dtInteger)->ForeignKey(u"People", u"Id");
    people->SetPrimaryKey(u"Id");
    people->Columns()->AddLookup(u"BossName", u"Boss", u"Name");
    TKdsView* const view = people->Select(u"BossName,Name");
    for (int i = 0; i < 40; ++i) people->Insert({i, Code(i * 7 % 40), i / 3});
    for (int i = 0; i < 40; i += 3) {
        TKdsRecord* const person = people->Records()->Items(i);
        TKdsEdit edit(person);
        person->SetDataN(u"Name", Code(i * 11 % 40));
        person->SetDataN(u"Boss", (i + 5) % 40);
        edit.Post();
        EXPECT_EQ(view->Count(), 40);
        EXPECT_TRUE(view->IsConsistent()) << i;
    }
}

// A virtual key takes the room of a key, or none beside a reference, and tells the master's value.
TEST_F(TLookupTest, AVirtualKeyKeepsNoValue) {
    TKdsColumn* const country = fZones->Columns()->Columns(u"Country");
    EXPECT_EQ(Refusal([&] { country->SetVirtualKey(true, lkShort); }),
              "A short virtual key needs a master with static data");
    fCountries->SetOptions({mtoStaticData});
    country->SetVirtualKey(true, lkShort);
    EXPECT_EQ(country->ActualSize(), 2);
    EXPECT_EQ(Refusal([&] { fCountries->SetOptions({}); }),
              "Short virtual keys need a master with static data");
    country->SetVirtualKey(true);
    EXPECT_EQ(country->ActualSize(), 8);
    EXPECT_EQ(Refusal([&] { country->SetCalculated(true); }), "A virtual key cannot be calculated");
    AddCountries(12);
    TKdsRecord* const zone = AddZone(1, u"AB");
    EXPECT_EQ(VarToStr(zone->GetDataC(country)), u"AB");
    EXPECT_EQ(zone->Format(country), u"AB");
    EXPECT_EQ(AddZone(2, u"ZZ")->Format(country), u"#wrong lookup");
    EXPECT_EQ(Refusal([&] { country->SetVirtualKey(false); }),
              "Cannot change structure for non-empty table \"Zones\"");

    // The row is what is meant, whatever its code becomes.
    TKdsEdit edit(fCountries->Records()->Items(1));
    edit->SetDataN(u"Code", u"QQ");
    edit.Post();
    EXPECT_EQ(VarToStr(zone->GetDataC(country)), u"QQ");

    fZones->Clear();
    TKdsColumn* const row = fZones->Columns()->AddLookup(u"Row", u"Country");
    EXPECT_EQ(country->ActualSize(), 0);
    TKdsRecord* const other = AddZone(3, u"AC");
    TKdsEdit change(other);
    other->SetAsRowC(row, fCountries->Records()->Items(1));
    change.Post();
    EXPECT_EQ(VarToStr(other->GetDataC(country)), u"QQ");
    const TKdsNormalLookup key{3, fCountries->Records()->Items(3)->RowID()};
    TKdsEdit byKey(other);
    other->SetDataP(row, &key, 8);
    byKey.Post();
    EXPECT_EQ(VarToStr(other->GetDataC(country)), u"AD");
}

// What a lookup filter hides is not found any more; what was found stays.
TEST_F(TLookupTest, ALookupFilterHidesMasterRowsFromNewWrites) {
    TKdsColumn* const name = AddName();
    AddCountries(12);
    EXPECT_EQ(Refusal([&] { name->SourceField()->SetLookupFilter(u"Number < 3"); }),
              "Only reference columns can be looked up");
    EXPECT_EQ(Refusal([&] { name->SetLookupFilter(u"Id < 3"); }),
              "Unknown function or variable \"Id\"");
    EXPECT_EQ(name->LookupFilter(), u"");
    TKdsRecord* const before = AddZone(1, u"AE");
    name->SetLookupFilter(u"Number < 3");
    TKdsRecord* const zone = AddZone(2, u"AC");
    EXPECT_EQ(AddZone(3, u"AE")->Format(name), u"#wrong lookup");
    EXPECT_EQ(VarToStr(name->LookupValue(u"AE")), u"#wrong lookup");
    EXPECT_EQ(zone->Format(name), u"NAC");

    // Hidden from now on, and moved.
    fCountries->Records()->Items(0)->Delete();
    TKdsEdit edit(fCountries->Records()->Items(1));
    edit->SetDataN(u"Number", 9);
    edit.Post();
    EXPECT_EQ(before->Format(name), u"NAE");
    EXPECT_EQ(zone->Format(name), u"NAC");
    TKdsEdit again(zone);
    zone->SetDataN(u"Country", u"AC");
    again.Post();
    EXPECT_EQ(zone->Format(name), u"#wrong lookup");
    name->SetLookupFilter({});
    EXPECT_EQ(zone->Format(name), u"NAC");
}

TEST_F(TLookupTest, VirtualKeysOfOneAnotherAreNoCircle) {
    TKdsColumn* const code = fCountries->Columns()->Columns(u"Code");
    fZones->SetPrimaryKey(u"Country");
    fZones->Columns()->Columns(u"Country")->SetVirtualKey(true);
    code->ForeignKey(u"Zones", u"Country");
    EXPECT_EQ(Refusal([&] { code->SetVirtualKey(true); }), "Circular reference for Code detected");
    EXPECT_FALSE(code->GetIsVirtualKey());
}

TEST_F(TLookupTest, AShortLookupRefusesAMasterThatHasGrownTooLarge) {
    const TKdsColumn* const name = AddName(lkShort);
    fCountries->SetPrimaryKey({});
    TKdsLoad load(fCountries, mtsMassive);
    for (int i = 0; i < 65'535; ++i) fCountries->Insert({Code(i % 26), u"N", i});
    load.Leave();
    TKdsRecord* const zone = AddZone(1, u"AB");
    EXPECT_EQ(zone->GetAsRowC(name), fCountries->Records()->Items(1));
    fCountries->Insert({u"ZZ", u"N", 65'535});
    EXPECT_EQ(Refusal([&] { AddZone(2, u"AC"); }),
              "Table \"Countries\" too large to be referenced by short lookup \"Zones.Name\"");
    fZones->Clear();
    fZones->Columns()->Add(u"Number", dtInteger)->ForeignKey(u"Countries", u"Number");
    fCountries->SetPrimaryKey(u"Number");
    EXPECT_EQ(Refusal([&] { fZones->Columns()->AddLookup(u"Name2", u"Number", u"Name", lkShort); }),
              "Table \"Countries\" too large to be referenced by short lookup \"Zones.Name2\"");
}

// Where the values lie is remembered from the reads before.
TEST_F(TLookupTest, ReadsFollowTheColumnsOfBothTables) {
    fZones->Columns()->Add(u"Number", dtInteger)->ForeignKey(u"Countries", u"Number");
    fCountries->SetPrimaryKey(u"Number");
    TKdsColumn* const shown = fZones->Columns()->AddLookup(u"Shown", u"Number", u"Name");
    const auto fill = [&] {
        for (int i = 0; i < 4; ++i) {
            TOwned<TKdsRecord> country = fCountries->NewRow();
            country->SetDataN(u"Number", i);
            country->SetDataN(u"Name", Letter(i));
            country->SetDataN(u"Code", Code(i));
            fCountries->Records()->Add(std::move(country));
            AddZone(i, Null)->Edit();
            TKdsRecord* const zone = fZones->Records()->Items(i);
            zone->SetDataN(u"Number", i);
            zone->Post();
        }
    };
    const auto expectAll = [&](std::u16string (*expected)(int)) {
        for (int i = 0; i < 12; ++i) {
            EXPECT_EQ(VarToStr(fZones->Records()->Items(i % 4)->GetDataC(shown)), expected(i % 4));
        }
    };
    fill();
    expectAll(Letter);
    TKdsRecord* const country = fCountries->Records()->Items(3);
    country->Edit();
    country->SetDataN(u"Name", u"edited");
    EXPECT_EQ(fZones->Records()->Items(3)->GetDataC(shown), TVariant(u"edited"));
    country->Cancel();
    expectAll(Letter);
    shown->SetTargetField(fCountries->Columns()->Columns(u"Code"));
    expectAll(Code);
    shown->SetTargetField(fCountries->Columns()->Columns(u"Name"));
    for (TKdsTable* const table : {fCountries, fZones}) {
        expectAll(Letter);
        fZones->Clear();
        fCountries->Clear();
        table->Columns()->Insert(0, TKdsColumn::Create(u"First", dtInt64));
        fill();
    }
    expectAll(Letter);
    // Keys lead to other rows from now on; no view repairs them.
    fCountries->Records()->Delete(0);
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(VarToStr(fZones->Records()->Items(1 + i % 3)->GetDataC(shown)),
                  Letter(1 + i % 3));
    }
    fCountries->Clear();
    fCountries->Columns()->Remove(fCountries->Columns()->Columns(u"Name"));
    EXPECT_TRUE(fZones->Records()->Items(0)->GetDataC(shown).IsNull());
}

}  // namespace
}  // namespace kds
