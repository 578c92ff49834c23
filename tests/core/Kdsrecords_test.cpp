// The life of a record: its states, references that it holds, and values that are calculated.
#include "kds/core/Kdsrecords.h"

#include <sstream>
#include <stdexcept>

#include "tests/core/Coretest.h"

namespace kds {
namespace {

INSTANTIATE_TEST_SUITE_P(Buffers, TKdsRecordTest, testing::Bool(), BuffersName);

// ---- States -------------------------------------------------------------------------------

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
        EXPECT_EQ(Refusal([&] { (void)record->GetDataI(0); }), Invalid);
        EXPECT_EQ(Refusal([&] { (void)record->GetDataC(column); }), Invalid);
        EXPECT_EQ(Refusal([&] { record->SetDataN(u"id", 1); }), Invalid);
        EXPECT_EQ(Refusal([&] { record->SetValues({1}); }), Invalid);
        EXPECT_EQ(Refusal([&] { record->Edit(); }), Invalid);
        EXPECT_EQ(Refusal([&] { record->CheckConstraints(rsRegular); }), Invalid);
        EXPECT_EQ(Refusal([&] { (void)record->Compare(record, {}); }), Invalid);
        EXPECT_EQ(Refusal([&] { record->Delete(); }), NotDeletable);
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
    EXPECT_EQ(Refusal([&] { fTable->Records()->Add(std::move(row)); }), NotInsertable);
    EXPECT_NE(row, nullptr);
}

TEST_P(TKdsRecordTest, EachStateAllowsWhatItShould) {
    AddUsual();
    fQty->SetReadOnly(true);
    const std::string none = NothingRaised;
    const std::string readOnly = "Column \"qty\" is read only";
    const std::string already = "Record is already editable";
    struct TCase {
        TKdsRecordState State;
        bool Forced;
        std::string Write, WriteReadOnly, Edit, Old, Delete;
    };
    for (const TCase& c : {TCase{rsDetached, false, none, readOnly, already, Invalid, NotDeletable},
                           TCase{rsRegular, false, NotEditable, NotEditable, none, Invalid, none},
                           TCase{rsEditing, false, none, readOnly, already, none, none},
                           TCase{rsDetached, true, none, none, already, Invalid, NotDeletable},
                           TCase{rsRegular, true, none, none, already, Invalid, NotDeletable},
                           TCase{rsEditing, true, none, none, already, none, NotDeletable}}) {
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
    TKdsEdit(record)->SetDataC(fName, u"lost");
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"a"));
    EXPECT_FALSE(fTable->Modified());
    EXPECT_EQ(fTable->Version(), version);
    TKdsEdit edit(record);
    edit->SetDataC(fName, u"kept");
    edit.Post();
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"kept"));
    EXPECT_TRUE(fTable->Modified());
    EXPECT_EQ(fTable->Version(), version + 1);
    EXPECT_EQ(Refusal([&] { edit.Post(); }), Invalid);
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
    EXPECT_EQ(Refusal([&] { record->SetNullC(fName); }), NotEditable);
    fTable->EnterLoad(mtsUploads);
    EXPECT_EQ(Refusal([&] { record->SetNullC(fName); }), NotEditable);
    fTable->LeaveLoad();
    record->Edit();
    record->Post();
    EXPECT_EQ(record->GetDataC(fName), TVariant(u"massive"));
    EXPECT_TRUE(record->GetIsNullC(fQty) && record->GetIsNullC(fMemo));

    // Nor has one that left the table.
    TOwned<TKdsRecord> row = fTable->Records()->Extract(fTable->Insert({1}));
    row->SetDataC(fQty, 9);
    row->SetDataC(fName, u"name");
    row->CopyValueC(fMemo, row.get(), fName);
    TKdsRecord* const back = fTable->Records()->Add(std::move(row));
    EXPECT_EQ(back->GetDataC(fQty), TVariant(9));
    EXPECT_EQ(back->GetDataC(fMemo), TVariant(u"name"));
}

// Edits that are posted, cancelled or deleted are counted by whoever lets them fail.
TEST_P(TKdsRecordTest, CountsCustomDataThroughEveryChange) {
    const auto a = MakeIntf<TTag>();
    const auto b = MakeIntf<TTag>();
    TKdsColumn* const tag = Add(u"tag", dtCustomData);
    const auto counts = [&] { return std::pair(a->References() - 1, b->References() - 1); };
    using TCounts = std::pair<std::int32_t, std::int32_t>;
    TKdsRecord* const record = fTable->Insert({a});
    record->Edit();
    EXPECT_EQ(counts(), TCounts(2, 0));
    record->SetDataC(tag, b);
    record->SetDataC(tag, record->GetDataC(tag));
    EXPECT_EQ(counts(), TCounts(1, 1));
    record->Post();
    TOwned<TKdsRecord> copy = fTable->NewRow();
    copy->CopyValueC(tag, record, tag);
    EXPECT_EQ(counts(), TCounts(0, 2));
    EXPECT_EQ(record->Format(tag), u"tag");
    fTable->EnterLoad(mtsMassive);
    record->SetDataC(tag, a);
    fTable->LeaveLoad();
    EXPECT_EQ(counts(), TCounts(1, 1));
    // A forced edit that the table clears away.
    record->Edit();
    record->SetDataC(tag, b);
    record->EnterForced();
    fTable->Clear();
    EXPECT_EQ(counts(), TCounts(0, 1));
    fTable->Records()->Add(std::move(copy))->Delete();
    EXPECT_EQ(counts(), TCounts(0, 0));
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
        value = 2 * VarToInt64(record->GetDataC(fQty));
    };
    EXPECT_TRUE(fTable->NewRow()->GetIsNullC(twice));
    SetCompute(twice, &compute);
    TKdsRecord* const record = fTable->Insert({1, u"a", u"b", 4});
    EXPECT_EQ(calls, 0);
    record->Edit();
    record->SetDataC(fQty, 5);
    EXPECT_EQ(record->Get<std::int64_t>(twice), 10);
    EXPECT_EQ(record->GetOldC(twice), TVariant(std::int64_t{8}));  // from the posted values
    EXPECT_EQ(calls, 2);
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
    TKdsRecord* const other = fTable->Insert({2, u"2"});
    for (int i = 0; i < 2; ++i) EXPECT_EQ(record->GetDataC(rows), TVariant(2));
    EXPECT_EQ(calls, 1);
    // The late value is written beside the values that are being held.
    EXPECT_FALSE(other->SameValueC(fName, other, rows));
    other->EnterForced();
    other->CopyValueC(fQty, other, rows);
    other->LeaveForced();
    EXPECT_EQ(other->GetDataC(fQty), TVariant(2));
    EXPECT_EQ(calls, 2);
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
    TKdsRecord* const record = fTable->Insert({1});
    TKdsRecord* const other = fTable->Insert({2});
    auto meddle = [&](TKdsColumn*, TKdsRecord* of, TVariant& value) {
        EXPECT_EQ(Refusal([&] { of->Delete(); }), NotDeletable);
        EXPECT_EQ(Refusal([&] { other->Delete(); }), Invalid);
        EXPECT_EQ(Refusal([&] { fTable->Clear(); }), Invalid);
        EXPECT_EQ(Refusal([&] { fId->SetDisplayLabel(u"x"); }), Invalid);
        value = fTable->Records()->Find({2})->GetDataN(u"id");
    };
    SetCompute(found, &meddle);
    EXPECT_EQ(record->GetDataC(found), TVariant(2));
    EXPECT_EQ(fTable->Records()->Count(), 2);
}

}  // namespace
}  // namespace kds
