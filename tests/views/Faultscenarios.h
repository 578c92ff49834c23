// One public operation each, with what leads to it: the table of operations that the fault tests
// run again and again with a failure at another place.
#pragma once

#include <iterator>

#include "tests/support/Allocfail.h"
#include "tests/views/Faultworld.h"

namespace kds::support {

struct TScenario {
    const char* Name;
    void (*Setup)(TFaultWorld&);
    void (*Act)(TFaultWorld&);
    // A change of rows: whatever memory it needs it has before it changes anything.
    bool Early = false;
};
using TW = TFaultWorld;

inline void Nothing(TW&) {}
inline void OpenEdit(TW& w) { w.Change(w.Row(3), 903); }
inline void KeepPlace(TW& w) {
    w.Row(3)->Edit();
    w.Row(3)->SetDataN(u"Name", w.Row(3)->GetDataN(u"Name"));
}
inline void SetQty(TW& w, const TVariant& qty) {
    w.Row(3)->Edit();
    w.Row(3)->SetDataN(u"Qty", qty);
}
// A massive load whose end has not been reached.
inline void InLoad(TW& w, int id) {
    w.Table->EnterLoad(mtsMassive);
    w.Table->Insert(w.Values(id));
}
// The key's view could not be built and waits for its next use. The others are off, for they would
// ask for it.
inline void KeyViewDown(TW& w) {
    for (TKdsView* const view : *w.Table->Views()) view->SetActive(view == w.Table->PrimaryView());
    InLoad(w, 901);
    try {
        const TFailingAllocation failure(4);
        w.Table->LeaveLoad();
    } catch (const std::bad_alloc&) {
    }
    ASSERT_FALSE(w.Table->PrimaryView()->Actual());
}
// Buckets that are full or nearly so, in all that holds rows. Few views, to be quick.
inline void Fill(TW& w) {
    for (TKdsView* const view : {w.Unique, w.Rich, w.Odd, w.ByLate, w.ByTag}) view->Free();
    TKdsLoad load(w.Table, mtsMassive);
    for (int id = 1'000; w.Table->Records()->Count() < 1'280; ++id) w.Table->Insert(w.Values(id));
    load.Leave();
    for (int id = 3'000; id < 3'254; ++id) w.Table->Insert(w.Values(id));
}
inline void NewLoose(TW& w) { w.Loose = w.Table->NewRow(w.Values(901)); }
inline void ManyColumns(TW& w) {
    TKdsTableColumnList& columns = *w.Empty->Columns();
    while (columns.Count() < 32) columns.Add(Format(u"C%d", {columns.Count()}), dtMemoString);
}
// The key of row 3 with values that move it in every view.
inline std::vector<TVariant> ValuesOf30(TW& w) {
    std::vector<TVariant> values = w.Values(901);
    values[0] = 30;
    return values;
}
// A stream of all rows and of two that are gone again.
inline void SaveTwoMore(TW& w) {
    for (const int id : {901, 902}) w.Table->Insert(w.Values(id));
    TMemoryStream stream;
    w.Table->SaveToStream(stream, /*withStructure=*/false);
    w.Saved = stream.Bytes();
    for (const int id : {901, 902}) w.Table->Delete({id});
}
inline void LoadSaved(TW& w, TKdsLoadRecordEvent onRecord) {
    TMemoryStream stream(w.Saved);
    w.Table->LoadFromStream(stream, onRecord);
}
inline void InsertTooLong(TW& w) { w.Table->Insert({901, 902, u"longer than it may be"}); }
inline void UpsertTooLong(TW& w) { w.Table->Upsert({30, 902, u"longer than it may be"}); }
inline void FillEmpty(TW& w) { w.Empty->Insert({1, u"b"}); }
inline void KeyOfEmpty(TW& w) { w.Empty->SetPrimaryKey(u"A"); }

inline const TScenario Scenarios[] = {
    {"CreateStore", Nothing, [](TW& w) { w.Second = TKdsStore::Create(u"Second"); }},
    {"CreateStoreTwice", Nothing, [](TW&) { TKdsStore::Create(u"faults"); }},
    {"AddTable", Nothing, [](TW& w) { w.Store->Tables()->Add(u"Another"); }},
    {"RenameTable", Nothing, [](TW& w) { w.Empty->SetName(u"A rather long name for a table"); }},
    {"RenameView", Nothing, [](TW& w) { w.ByName->SetName(u"A rather long name for a view"); }},
    {"AddColumn", Nothing,
     [](TW& w) { w.Empty->Columns()->Add(u"A rather long name", dtMemoString); }},
    {"AddColumnToMany", ManyColumns, [](TW& w) { w.Empty->Columns()->Add(u"C", dtMemoString); }},
    {"AddColumnToRows", Nothing, [](TW& w) { w.Table->Columns()->Add(u"C", dtMemoString); }},
    {"RenameColumn", Nothing,
     [](TW& w) { w.Empty->Columns()->Items(1)->SetName(u"A rather long name"); }},
    {"RetypeColumn", Nothing,
     [](TW& w) { w.Empty->Columns()->Items(1)->SetDataType(dtMemoString); }},
    {"DeleteColumn", Nothing, [](TW& w) { w.Empty->Columns()->Delete(1); }},
    {"MoveColumn", Nothing, [](TW& w) { w.Empty->Columns()->Move(1, 0); }},
    {"ColumnDefault", Nothing,
     [](TW& w) { w.Empty->Columns()->Items(1)->SetDefaultValue(u"a text that is no short one"); }},
    {"StripNulls", Nothing, [](TW& w) { w.Empty->SetOptions({mtoStripNulls}); }},
    {"NewRow", Nothing, NewLoose},
    {"Add", NewLoose, [](TW& w) { w.Table->Records()->Add(std::move(w.Loose)); }, true},
    {"AddInFront", NewLoose, [](TW& w) { w.Table->Records()->Insert(0, std::move(w.Loose)); },
     true},
    {"Insert", Nothing, [](TW& w) { w.Table->Insert(w.Values(901)); }, true},
    {"InsertDuplicate", Nothing, [](TW& w) { w.Table->Insert(w.Values(20)); }},
    {"InsertTooLong", Nothing, InsertTooLong},
    {"InsertBesideEdit", OpenEdit, [](TW& w) { w.Table->Insert(w.Values(901)); }, true},
    {"InsertBuildsTheKey", KeyViewDown, [](TW& w) { w.Table->Insert(w.Values(902)); }},
    {"InsertIntoMany", Fill, [](TW& w) { w.Table->Insert(w.Values(901)); }, true},
    {"PostIntoMany",
     [](TW& w) {
         Fill(w);
         w.Change(w.Row(700), 901);
     },
     [](TW& w) { w.Row(700)->Post(); }, true},
    {"DeleteOfMany", Fill, [](TW& w) { w.Row(1'300)->Delete(); }, true},
    {"InsertMassively", [](TW& w) { InLoad(w, 901); },
     [](TW& w) { w.Table->Insert(w.Values(902)); }},
    {"UpsertNew", Nothing, [](TW& w) { w.Table->Upsert(w.Values(901)); }, true},
    {"UpsertOld", Nothing, [](TW& w) { w.Table->Upsert(ValuesOf30(w)); }, true},
    {"UpsertTooLong", Nothing, UpsertTooLong},
    {"Edit", Nothing, [](TW& w) { w.Row(3)->Edit(); }},
    {"SetMemo", [](TW& w) { w.Row(3)->Edit(); },
     [](TW& w) { w.Row(3)->SetDataN(u"Note", u"a text that is no short one"); }},
    {"CopyValue", [](TW& w) { w.Row(3)->Edit(); },
     [](TW& w) {
         TKdsTableColumnList& columns = *w.Table->Columns();
         w.Row(3)->CopyValueC(columns.Items(3), w.Row(4), columns.Items(2));
     }},
    {"PostEverything", OpenEdit, [](TW& w) { w.Row(3)->Post(); }, true},
    {"PostNothing", KeepPlace, [](TW& w) { w.Row(3)->Post(); }, true},
    {"PostOut", [](TW& w) { SetQty(w, Null); }, [](TW& w) { w.Row(3)->Post(); }, true},
    {"PostIn", [](TW& w) { SetQty(w, 6); }, [](TW& w) { w.Row(3)->Post(); }, true},
    {"PostDuplicate", [](TW& w) { w.Change(w.Row(3), 20); }, [](TW& w) { w.Row(3)->Post(); }},
    {"PostOtherDuplicate",
     [](TW& w) {
         w.Change(w.Row(3), 901);
         w.Row(3)->SetDataN(u"Code", 480);
     },
     [](TW& w) { w.Row(3)->Post(); }},
    {"Cancel", OpenEdit, [](TW& w) { w.Row(3)->Cancel(); }},
    {"Delete", Nothing, [](TW& w) { w.Row(3)->Delete(); }, true},
    {"DeleteEdited", OpenEdit, [](TW& w) { w.Row(3)->Delete(); }, true},
    {"DeleteByKey", Nothing, [](TW& w) { w.Table->Delete({30}); }, true},
    {"FreeRow", Nothing, [](TW& w) { w.Row(3)->Free(); }, true},
    {"Extract", Nothing, [](TW& w) { (void)w.Table->Records()->Extract(w.Row(3)); }},
    {"AddAgain", [](TW& w) { w.Loose = w.Table->Records()->Extract(w.Row(3)); },
     [](TW& w) { w.Table->Records()->Add(std::move(w.Loose)); }, true},
    {"MoveRow", Nothing, [](TW& w) { w.Table->Records()->Move(2, 7); }},
    {"Clear", OpenEdit, [](TW& w) { w.Table->Clear(); }},
    {"ClearInUploads", [](TW& w) { w.Table->EnterLoad(mtsUploads); },
     [](TW& w) { w.Table->Clear(); }},
    {"EnterLoad", Nothing, [](TW& w) { w.Table->EnterLoad(mtsMassive); }},
    {"LeaveLoad", [](TW& w) { InLoad(w, 901); }, [](TW& w) { w.Table->LeaveLoad(); }},
    {"LeaveLoadDuplicate", [](TW& w) { InLoad(w, 20); }, [](TW& w) { w.Table->LeaveLoad(); }},
    {"LoadRows", SaveTwoMore,
     [](TW& w) { LoadSaved(w, TKdsLoadRecordEvent::Bind<&TW::TakeNew>(&w)); }},
    {"LoadDuplicates", SaveTwoMore, [](TW& w) { LoadSaved(w, nullptr); }},
    {"FirstKey", FillEmpty, [](TW& w) { w.Empty->SetPrimaryKey(u"A"); }},
    {"FirstKeyDuplicate", [](TW& w) { FillEmpty(w), FillEmpty(w); },
     [](TW& w) { w.Empty->SetPrimaryKey(u"A"); }},
    {"OtherKey", KeyOfEmpty, [](TW& w) { w.Empty->SetPrimaryKey(u"B desc,A"); }},
    {"NoKey", KeyOfEmpty, [](TW& w) { w.Empty->SetPrimaryKey({}); }},
    {"MakeUniqueView", FillEmpty, [](TW& w) { w.Empty->Views()->MakeIndex(u"A", {voUnique}); }},
    {"BuildUniqueView",
     [](TW& w) {
         FillEmpty(w);
         w.Empty->Views()->MakeIndex(u"A", {voUnique});
     },
     [](TW& w) { w.Empty->Views()->GetView(u"UV_U")->SetActive(true); }},
    {"Select", Nothing, [](TW& w) { w.Table->Select(u"Name desc,Id"); }},
    {"SelectByKey", Nothing, [](TW& w) { w.Table->Select({}); }},
    {"SelectBackwards", Nothing, [](TW& w) { w.Table->Select(u"Id desc"); }},
    {"SelectWithProc", Nothing, [](TW& w) { w.Table->SelectA(u"Note", {}, w.AtLeast(2)); }},
    {"SelectWithComparer", Nothing, [](TW& w) { w.Table->SelectEx(u"Name", w.Comparer()); }},
    {"DefaultView", Nothing, [](TW& w) { w.Table->GetDefaultView(); }},
    {"OrderBy", Nothing, [](TW& w) { w.ByName->SetOrderBy(u"Note,Late desc"); }},
    {"OrderByNothing", Nothing, [](TW& w) { w.ByName->SetOrderBy({}); }},
    {"OrderByUnknown", Nothing, [](TW& w) { w.ByName->SetOrderBy(u"Name,Nobody"); }},
    {"FilterText", Nothing,
     [](TW& w) { w.ByName->SetFilter(u"Name > 'n1' AND Note LIKE 'x%' OR Qty IN (1, 3, 5)"); }},
    {"FilterByUnknown", Nothing, [](TW& w) { w.ByName->SetFilter(u"Name > 'n1' AND Nobody"); }},
    {"NoFilterText", Nothing, [](TW& w) { w.Marked->SetFilter({}); }},
    {"ExpressionColumn", FillEmpty,
     [](TW& w) {
         w.Empty->Columns()->Add(u"C", dtMemoString)->SetExpression(u"B || ' is ' || A");
     }},
    {"OtherExpression", Nothing,
     [](TW& w) { w.Table->Columns()->Items(9)->SetExpression(u"Qty * 50 - IIF(Code > 9, 1, 2)"); }},
    {"Recalculate", Nothing, [](TW& w) { (void)w.Table->Recalculate(); }},
    {"OnAccept", Nothing, [](TW& w) { w.ByName->SetOnAccept(w.Accepter()); }},
    {"NoAccept", Nothing, [](TW& w) { w.Rich->SetOnAccept(nullptr); }},
    {"OnCompare", Nothing, [](TW& w) { w.ByName->SetOnCompare(w.Comparer()); }},
    {"NoCompare", Nothing, [](TW& w) { w.Odd->SetOnCompare(nullptr); }},
    {"Deactivate", Nothing, [](TW& w) { w.ByName->SetActive(false); }},
    {"Refresh", Nothing, [](TW& w) { w.Odd->Refresh(); }},
    {"Rebuild", Nothing, [](TW& w) { w.Table->RebuildViews(true); }},
    {"FreeView", Nothing, [](TW& w) { w.ByName->Free(); }},
    {"DeleteView", Nothing, [](TW& w) { w.Table->Views()->Remove(w.Odd); }},
    {"ClearViews", Nothing, [](TW& w) { w.Empty->Views()->Clear(); }},
    {"Link", Nothing, [](TW& w) { w.Mirrors[0]->SetView(w.ByLate); }},
    {"Signal", Nothing, [](TW& w) { w.Row(3)->Signal(); }},
    {"FindByKey", Nothing, [](TW& w) { (void)w.Table->Records()->Find({30}); }},
    {"FindInOrder", Nothing,
     [](TW& w) {
         (void)w.ByName->Find({u"n2", 3});
     }},
    {"FindSlowly", Nothing, [](TW& w) { (void)w.ByTag->Find({w.Tag(2)}); }},
    {"FindRowID", Nothing, [](TW& w) { (void)w.Table->Records()->FindRowID(3); }},
    {"Deacon", Nothing, [](TW& w) { w.Table->AppendDeacon(MakeIntf<TGravedigger>(&w.Fuse)); }},
    {"ClearStore", FillEmpty, [](TW& w) { w.Store->Clear(); }},
    {"ResetStore", FillEmpty, [](TW& w) { w.Store->Reset(); }},
    {"FreeTable", Nothing, [](TW& w) { w.Table->Free(); }},
    {"FreeStore", Nothing, [](TW& w) { w.Store->Free(); }},
};

// Runs an operation that may be refused.
inline void Perform(const TScenario& scenario, TFaultWorld& world) {
    try {
        scenario.Act(world);
    } catch (const Exception&) {
    }
}

// What a scenario looks like before and after, when nothing fails.
inline void LookAround(const TScenario& scenario, TKdsTableOptions options, bool calculated,
                       TLines& before, TLines& after) {
    {
        TFaultWorld world(options);
        scenario.Setup(world);
        before = world.Look(calculated);
    }
    TFaultWorld world(options);
    scenario.Setup(world);
    Perform(scenario, world);
    EXPECT_EQ(world.Fault(), "");
    after = world.Look(calculated);
}

}  // namespace kds::support
