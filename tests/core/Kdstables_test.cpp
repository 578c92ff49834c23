#include "kds/core/Kdstables.h"

#include <gtest/gtest.h>

#include <functional>

#include "kds/core/Kdserrors.h"
#include "kds/expr/Varconvert.h"
#include "tests/support/Recorder.h"

namespace kds {
namespace {

using support::Refusal;
using support::TLines;
using support::TRecorder;
using support::TRecording;

constexpr const char* Mixed = "How could we fall into rloMixed mode?";
constexpr const char* Invalid = "Invalid operation for record state";

// Whoever watches ends: a line for each, and a routine of the test's.
class TObserver final : public IKdsSexton {
public:
    explicit TObserver(TLines* lines) : fLines(lines) {}
    void RecordDeleted(TKdsTable* table, TKdsRecord* record) override {
        fLines->push_back("deacon " + support::NameOf(record) + " of " +
                          std::to_string(table->Records()->Count()) + " " +
                          std::to_string(static_cast<int>(record->RowState())) + " " +
                          ToUtf8(VarToStr(record->GetDataI(0))));
        if (OnRecord) OnRecord();
    }
    void TableDestroyed(TKdsTable* table) override {
        fLines->push_back("sexton " + support::NameOf(table) + " of " +
                          std::to_string(table->Records()->Count()));
    }
    std::function<void()> OnRecord;

private:
    TLines* fLines;
};

// A link that writes down what it hears and then does what the test wants.
class TLink final : public TKdsViewLink {
public:
    explicit TLink(TLines* lines) : fLines(lines) {}
    void HandleEvent(TKdsEvent* event) override {
        static constexpr const char* Names[] = {"source", "status", "fields", "insert",
                                                "delete", "update", "signal"};
        fLines->push_back(std::string("link ") + Names[static_cast<std::size_t>(event->Reason)]);
        if (OnEvent) OnEvent(*event);
    }
    std::function<void(const TKdsEvent&)> OnEvent;

private:
    TLines* fLines;
};

// Table1 (id, name) with the key id, in a store that writes down all that climbs to it.
class TKdsTableTest : public testing::Test {
protected:
    TKdsTableTest()
        : fStore(Stores()->Append(TRecording<TKdsStore>::Create(&fRecorder, u"Store"))),
          fTable(fStore->Tables()->Add(u"Table1")),
          fRows(fTable->Records()) {
        fTable->Columns()->Add(u"id", dtInteger);
        fTable->Columns()->Add(u"name", dtAnsiString, 8);
        fTable->SetPrimaryKey(u"id");
        fRecorder.Lines.clear();
    }
    ~TKdsTableTest() override {
        fRecorder.OnNote = nullptr;
        EXPECT_STREQ(fTable == nullptr ? nullptr : fTable->Inconsistency(), nullptr);
        fStore->Free();
    }
    void InsertTen() {
        for (int i = 0; i < 10; ++i) fTable->Insert({i, u"n"});
        fRecorder.Lines.clear();
    }
    [[nodiscard]] std::vector<std::int64_t> Ids() const {
        std::vector<std::int64_t> ids;
        for (TKdsRecord* const record : *fRows) ids.push_back(VarToInt64(record->GetDataI(0)));
        return ids;
    }
    using TIds = std::vector<std::int64_t>;

    TRecorder fRecorder;
    TRecorder fOnTheWay;  // of a table that records, when there is one
    TKdsStore* fStore;
    TKdsTable* fTable;
    TKdsTableRecordList* fRows;
};

// ---- The order of a change ----------------------------------------------------------------

TEST_F(TKdsTableTest, AnnouncesEveryStepOfARowsLifeInOrder) {
    const auto observer = MakeIntf<TObserver>(&fRecorder.Lines);
    TLink link(&fRecorder.Lines);
    link.SetView(fTable->PrimaryView());
    fTable->AppendDeacon(observer);
    fRecorder.Lines.clear();

    TKdsRecord* const row = fTable->Insert({1, u"a"});
    EXPECT_EQ(fRecorder.Take(),
              (TLines{"acPrepareInsert row? @0", "acConfirmInsert row0 @0", "link insert"}));
    row->Edit();
    row->SetDataN(u"name", u"b");
    EXPECT_EQ(fRecorder.Take(), TLines{});
    row->Post();
    EXPECT_EQ(fRecorder.Take(), (TLines{"acConfirmUpdate row0 @0", "link update"}));
    row->Edit();
    row->Cancel();
    row->Signal();
    EXPECT_EQ(fRecorder.Take(), (TLines{"link signal", "acStatusChanged row0 @0"}));
    row->Delete();
    // The observer meets the row detached, with its last values; the link hears when all is done.
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareDelete row0 @0", "deacon row0 of 0 0 1",
                                        "acConfirmDelete row0 @0", "link delete"}));
    fTable->RemoveDeacon(observer);
    fTable->Insert({2})->Free();
    EXPECT_EQ(fRecorder.Take(),
              (TLines{"acPrepareInsert row? @0", "acConfirmInsert row1 @0", "link insert",
                      "acPrepareDelete row1 @0", "acConfirmDelete row1 @0", "link delete",
                      "acObjectDestroy row1 @0"}));
}

TEST_F(TKdsTableTest, BracketsSwitchTheViewsOffAndOnAroundTheStatus) {
    TLink link(&fRecorder.Lines);
    link.SetView(fTable->PrimaryView());
    fRecorder.OnNote = [&](const TNotification& notification) {
        if (notification.Sender == fTable) {
            fRecorder.Lines.back() +=
                " status " + std::to_string(static_cast<int>(fTable->Status()));
        }
    };
    for (const TKdsTableStatus status : {mtsMassive, mtsDestroy, mtsUploads}) {
        const bool switches = status != mtsUploads;
        const std::string number = std::to_string(static_cast<int>(status));
        fRecorder.Lines.clear();
        fTable->EnterLoad(status);
        fTable->EnterLoad(mtsRegular);  // nested: only counts
        TLines expected;
        if (switches) expected = {"acStatusChanged UV_Table1 @0", "link status"};
        expected.push_back("acStatusChanged Table1 @0 status " + number);
        EXPECT_EQ(fRecorder.Take(), expected);
        EXPECT_EQ(fTable->PrimaryView()->Actual(), !switches);
        fTable->LeaveLoad();
        EXPECT_EQ(fRecorder.Take(), TLines{});
        fTable->LeaveLoad();
        // Links hear of it when all views are built and the table is regular again.
        expected = {"acStatusChanged Table1 @0 status 0"};
        if (switches) {
            expected.insert(expected.begin(), "acStatusChanged UV_Table1 @0");
            expected.push_back("link status");
        }
        EXPECT_EQ(fRecorder.Take(), expected);
        EXPECT_TRUE(fTable->PrimaryView()->Actual());
    }
    fTable->LeaveLoad();  // without its EnterLoad
    EXPECT_EQ(fRecorder.Take(), TLines{});
}

// ---- Refusals -----------------------------------------------------------------------------

TEST_F(TKdsTableTest, ARefusedChangeOfARowLeavesEverythingAsItWas) {
    InsertTen();
    TKdsRecord* const row = fRows->Items(3);
    fTable->SetModified(false);
    const std::int32_t version = fTable->Version();
    const auto unchanged = [&](const char* what) {
        EXPECT_EQ(fRows->Count(), 10) << what;
        EXPECT_EQ(fTable->LastRowID(), 10u) << what;
        EXPECT_FALSE(fTable->Modified()) << what;
        EXPECT_EQ(fTable->Version(), version) << what;
        EXPECT_EQ(fTable->PrimaryView()->Count(), 10) << what;
        EXPECT_STREQ(fTable->Inconsistency(), nullptr) << what;
    };
    TOwned<TKdsRecord> fresh = fTable->NewRow({50, u"n"});
    fRecorder.Refuse(acPrepareInsert);
    EXPECT_EQ(Refusal([&] { fRows->Add(std::move(fresh)); }), "refused");
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->RowID(), NoRowID);
    EXPECT_EQ(fTable->OrphanRows(), 1);
    unchanged("insert");
    fRecorder.Refuse(acPrepareDelete);
    EXPECT_EQ(Refusal([&] { row->Delete(); }), "refused");
    EXPECT_EQ(Refusal([&] { row->Free(); }), "refused");
    EXPECT_EQ(Refusal([&] { (void)fRows->Extract(row); }), "refused");
    EXPECT_EQ(Refusal([&] { fTable->Clear(); }), "refused");
    EXPECT_EQ(row->Owner(), fRows);
    EXPECT_EQ(fTable->Status(), mtsRegular);
    unchanged("delete");
    fRecorder.OnNote = nullptr;

    struct TCase {
        const char* Message;
        std::function<void()> Act;
    };
    const TOwned<TKdsTable> other = TKdsTable::Create(u"Other");
    TOwned<TKdsRecord> foreign = other->NewRow();
    TOwned<TKdsRecord> forced = fTable->NewRow({51});
    forced->EnterForced();
    TOwned<TKdsRecord> duplicate = fTable->NewRow({5});
    TOwned<TKdsRecord> keyless = fTable->NewRow({Null});
    const TCase cases[] = {
        {"Record cannot be inserted", [&] { fRows->Add(std::move(foreign)); }},
        {"Record cannot be inserted", [&] { fRows->Add(std::move(forced)); }},
        {"Unique constraint \"UV_Table1\" violated", [&] { fRows->Add(std::move(duplicate)); }},
        {"Column \"Table1.id\" cannot contain null", [&] { fRows->Add(std::move(keyless)); }},
        {"Unique constraint \"UV_Table1\" violated",
         [&] {
             fTable->Insert({5, u"n"});
         }},
        {"Value too big to fit in column Table1.name",
         [&] {
             fTable->Insert({50, u"123456789"});
         }},
        {"Value too big to fit in column Table1.name",
         [&] {
             fTable->Upsert({3, u"123456789"});
         }},
        {"Value too big to fit in column Table1.name",
         [&] {
             fTable->Upsert({50, u"123456789"});
         }},
        {"Record cannot be deleted", [&] { (void)fRows->Extract(nullptr); }},
        {"Record cannot be deleted", [&] { (void)fRows->Extract(fresh.get()); }},
        {"List index out of bounds (10)", [&] { fRows->Delete(10); }},
        {"List index out of bounds (-1)", [&] { (void)fRows->Items(-1); }},
        {"List index out of bounds (11)", [&] { fRows->Insert(11, std::move(fresh)); }},
        {"More values than columns",
         [&] {
             fTable->Insert({1, 2, 3});
         }},
        {"More values than order columns",
         [&] {
             (void)fRows->Find({1, 2});
         }},
    };
    for (const TCase& c : cases) {
        EXPECT_EQ(Refusal(c.Act), c.Message);
        unchanged(c.Message);
    }
    EXPECT_TRUE(fresh && foreign && forced && duplicate && keyless);
    EXPECT_EQ(row->RowState(), rsRegular);
    EXPECT_THROW(fRows->Add(TOwned<TKdsRecord>()), EInvalidArgument);
    EXPECT_THROW(fRows->Append(TOwned<TKdsItem>(TKdsName::Create(nullptr, u"x"))),
                 EInvalidArgument);

    fRows->SetMaximumCapacity(10);
    EXPECT_EQ(Refusal([&] { fRows->Add(std::move(fresh)); }), "List size limit exceeded");
    unchanged("full");
    EXPECT_EQ(Refusal([&] { fRows->SetMaximumCapacity(9); }), "Current capacity exceeds Maximum");
    fRows->SetMaximumCapacity(11);
    fRows->Add(std::move(fresh));
}

TEST_F(TKdsTableTest, APostThatIsRefusedStaysOpen) {
    InsertTen();
    TKdsRecord* const row = fRows->Items(3);
    row->Edit();
    row->SetDataN(u"id", 5);
    EXPECT_EQ(Refusal([&] { row->Post(); }), "Unique constraint \"UV_Table1\" violated");
    row->SetNullN(u"id");
    EXPECT_EQ(Refusal([&] { row->Post(); }), "Column \"Table1.id\" cannot contain null");
    EXPECT_EQ(row->RowState(), rsEditing);
    EXPECT_EQ(row->GetOldN(u"id"), TVariant(3));
    EXPECT_EQ(fRecorder.Take(), TLines{});
    row->SetDataN(u"id", 3);  // its own key is not another's
    row->Post();
    fTable->SetOptions({mtoSkipPKCheck});
    row->Edit();
    row->SetDataN(u"id", 5);
    row->Post();
    fTable->Insert({5, u"n"});
    EXPECT_EQ(Ids(), (TIds{0, 1, 2, 5, 4, 5, 6, 7, 8, 9, 5}));
}

TEST_F(TKdsTableTest, AnErrorAfterTheFactIsRaisedWhenTheChangeIsComplete) {
    TLink link(&fRecorder.Lines);
    link.SetView(fTable->PrimaryView());
    link.OnEvent = [](const TKdsEvent&) { throw EKdsError(u"link"); };
    TOwned<TKdsRecord> fresh = fTable->NewRow({1, u"a"});
    EXPECT_EQ(Refusal([&] { fRows->Add(std::move(fresh)); }), "link");
    EXPECT_EQ(fresh, nullptr);
    ASSERT_EQ(fRows->Count(), 1);
    TKdsRecord* const row = fRows->Items(0);
    row->Edit();
    row->SetDataN(u"id", 2);
    EXPECT_EQ(Refusal([&] { row->Post(); }), "link");
    EXPECT_EQ(row->RowState(), rsRegular);
    EXPECT_EQ(fTable->PrimaryView()->Find({2}), 0);
    fRecorder.Refuse(acConfirmUpdate);
    row->Edit();
    row->SetDataN(u"id", 3);
    EXPECT_EQ(Refusal([&] { row->Post(); }), "refused");  // the first of two
    EXPECT_EQ(row->GetDataN(u"id"), TVariant(3));
    EXPECT_EQ(Refusal([&] { (void)row->GetOldN(u"id"); }), Invalid);
    fRecorder.OnNote = nullptr;
    EXPECT_EQ(Refusal([&] { row->Delete(); }), "link");
    EXPECT_EQ(fRows->Count(), 0);
    EXPECT_EQ(Refusal([&] { fTable->Insert({4}); }), "link");
    EXPECT_EQ(Refusal([&] { fRows->Items(0)->Free(); }), "link");  // and it is gone
    EXPECT_EQ(fRows->Count(), 0);
    // An edit scope whose record a link deletes has nothing left to cancel.
    link.OnEvent = nullptr;
    TKdsRecord* const last = fTable->Insert({5});
    link.OnEvent = [&](const TKdsEvent& event) {
        if (event.Reason != evRecordUpdate) return;
        event.Origin->Delete();
        throw EKdsError(u"link");
    };
    EXPECT_EQ(Refusal([&] {
                  TKdsEdit edit(last);
                  edit.Post();
              }),
              "link");
    EXPECT_EQ(fRows->Count(), 0);
}

// ---- Receivers that meddle ----------------------------------------------------------------

TEST_F(TKdsTableTest, NoRowChangesWhileAChangeIsTravelling) {
    InsertTen();
    TKdsRecord* const row = fRows->Items(3);
    TLines refusals;
    fRecorder.OnNote = [&](const TNotification& notification) {
        if (notification.Sender->Sphere() == spMeta) return;
        TKdsRecord* const other = fRows->Items(7);
        if (other->RowState() == rsRegular) other->Edit();
        for (const std::string& refusal :
             {Refusal([&] { fTable->Insert({99}); }), Refusal([&] { other->Delete(); }),
              Refusal([&] { other->Post(); }), Refusal([&] { fTable->Clear(); }),
              Refusal([&] { fRows->Move(0, 5); }), Refusal([&] { fTable->Free(); }),
              Refusal([&] { fTable->EnterLoad(mtsMassive); }),
              Refusal([&] { (void)fRows->Extract(other); })}) {
            refusals.push_back(refusal);
        }
    };
    fTable->Insert({10});
    row->Edit();
    row->Post();
    row->Delete();
    fRecorder.OnNote = nullptr;
    EXPECT_EQ(refusals, TLines(5 * 8, Invalid));
    fRows->Items(6)->Cancel();
    EXPECT_EQ(Ids(), (TIds{0, 1, 2, 4, 5, 6, 7, 8, 9, 10}));
}

TEST_F(TKdsTableTest, ALinkMayChangeTheTableFreely) {
    InsertTen();
    TLink link(&fRecorder.Lines);
    link.SetView(fTable->PrimaryView());
    link.OnEvent = [&](const TKdsEvent& event) {
        if (event.Reason != evRecordUpdate) return;
        // Everything goes, the row that is being told of included; then a new one comes.
        while (fRows->Count() > 0) fRows->Items(0)->Delete();
        EXPECT_EQ(event.Origin->RowState(), rsDetached);
        EXPECT_EQ(event.Origin->GetDataI(0), TVariant(3));
        fTable->Insert({77});
    };
    TKdsRecord* const row = fRows->Items(3);
    row->Edit();
    row->Post();
    EXPECT_EQ(Ids(), (TIds{77}));

    // Or ends the table.
    link.OnEvent = [&](const TKdsEvent& event) {
        if (event.Reason == evRecordInsert) std::exchange(fTable, nullptr)->Free();
    };
    fTable->Insert({78});
    EXPECT_EQ(fStore->Tables()->Count(), 0);
    EXPECT_EQ(link.View(), nullptr);
}

// ---- Row identifiers and order ------------------------------------------------------------

TEST_F(TKdsTableTest, CountsRowIdentifiersUpAndNeverGivesOneTwice) {
    InsertTen();
    EXPECT_EQ(fRows->FindRowID(3), fRows->Items(3));
    EXPECT_EQ(fRows->FindRowID(10), nullptr);
    EXPECT_EQ(fRows->FindRowID(NoRowID), nullptr);
    EXPECT_EQ(fRows->IndexOf(fRows->Items(7)), 7);
    TOwned<TKdsRecord> loose = fTable->NewRow();
    EXPECT_EQ(fRows->IndexOf(loose.get()), -1);
    fRows->Delete(3);
    EXPECT_EQ(fRows->FindRowID(3), nullptr);
    EXPECT_EQ(fRows->IndexOf(fRows->FindRowID(9)), 8);
    EXPECT_EQ(fTable->Insert({3})->RowID(), 10u);

    // A row that leaves keeps its identifier and comes back with it.
    TOwned<TKdsRecord> last = fRows->Extract(fRows->FindRowID(10));
    EXPECT_EQ(fTable->OrphanRows(), 1);
    EXPECT_EQ(last->RowState(), rsDetached);
    EXPECT_EQ(fRows->Add(std::move(last))->RowID(), 10u);
    EXPECT_EQ(fRows->Order(), rloRowID);
    loose.reset();
    EXPECT_EQ(fTable->OrphanRows(), 0);

    fTable->Clear();
    EXPECT_EQ(fTable->LastRowID(), 0u);
    EXPECT_EQ(fTable->Insert({1})->RowID(), 0u);
    // Identifiers from before a clearance are passed by, and may stand behind higher ones.
    fTable->Insert({2});
    TOwned<TKdsRecord> first = fRows->Extract(fRows->Items(0));
    fTable->Clear();
    fTable->Insert({8});
    TOwned<TKdsRecord> second = fRows->Extract(fTable->Insert({9}));
    fTable->Clear();
    EXPECT_EQ(fRows->Add(std::move(second))->RowID(), 1u);
    EXPECT_EQ(fTable->Insert({10})->RowID(), 2u);
    fRows->Add(std::move(first));
    EXPECT_EQ(fRows->Order(), rloMixed);
    EXPECT_STREQ(fTable->Inconsistency(), nullptr);
}

TEST_F(TKdsTableTest, ATwinOfARowIdentifierIsRefused) {
    fTable->Insert({1});
    fTable->Insert({2});
    TOwned<TKdsRecord> row = fRows->Extract(fRows->Items(0));
    fTable->Clear();
    fTable->Insert({3});  // with the identifier 0 again
    EXPECT_EQ(Refusal([&] { fRows->Add(std::move(row)); }), "Record cannot be inserted");
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->GetDataI(0), TVariant(1));
}

TEST_F(TKdsTableTest, ARowPutInElsewhereMixesTheListUntilOneIsLeft) {
    InsertTen();
    fRows->Insert(4, fTable->NewRow({44}));
    EXPECT_EQ(fRows->Order(), rloMixed);
    TKdsRecord* const row = fRows->Items(4);
    EXPECT_EQ(row->RowID(), 10u);
    EXPECT_EQ(Refusal([&] { (void)fRows->IndexOf(row); }), Mixed);
    EXPECT_EQ(Refusal([&] { (void)fRows->FindRowID(1); }), Mixed);
    EXPECT_EQ(Refusal([&] { row->Delete(); }), Mixed);
    EXPECT_EQ(Refusal([&] { row->Free(); }), Mixed);
    EXPECT_EQ(Refusal([&] { (void)fTable->Delete({44}); }), Mixed);
    EXPECT_EQ(fRows->Count(), 11);
    // The views and the key are as good as ever.
    EXPECT_EQ(fRows->Find({44}), row);
    EXPECT_EQ(fTable->PrimaryView()->IndexOf(row), 10);
    EXPECT_EQ(Refusal([&] { fTable->Insert({44}); }), "Unique constraint \"UV_Table1\" violated");
    TOwned<TKdsRecord> out = fRows->Extract(row);
    EXPECT_EQ(fRows->Count(), 10);
    fRows->Move(0, 9);
    EXPECT_EQ(fRows->Items(9)->GetDataI(0), TVariant(0));
    EXPECT_STREQ(fTable->Inconsistency(), nullptr);
    while (fRows->Count() > 2) fRows->Delete(0);
    EXPECT_EQ(fRows->Order(), rloMixed);
    fRows->Delete(0);
    EXPECT_EQ(fRows->Order(), rloRowID);
    EXPECT_EQ(fRows->IndexOf(fRows->Items(0)), 0);
    fRows->Items(0)->Delete();
    fRows->Insert(0, std::move(out));  // into an empty list: the last place
    EXPECT_EQ(fRows->Order(), rloRowID);
}

TEST_F(TKdsTableTest, FindsRowsByKeyAndChangesOrInsertsThem) {
    InsertTen();
    TKdsRecord* const row = fTable->Upsert({3, u"new"});
    EXPECT_EQ(row->RowID(), 3u);
    EXPECT_EQ(row->GetDataN(u"name"), TVariant(u"new"));
    row->Edit();
    row->SetDataN(u"name", u"lost");
    EXPECT_EQ(fTable->Upsert({3}), row);  // an open edit is cancelled
    EXPECT_EQ(row->GetDataN(u"name"), TVariant(u"new"));
    EXPECT_EQ(fTable->Upsert({33, u"x"})->RowID(), 10u);
    EXPECT_TRUE(fTable->Delete({33}));
    EXPECT_FALSE(fTable->Delete({33}));
    fTable->EnterLoad(mtsMassive);
    EXPECT_EQ(fRows->Find({3}), nullptr);  // the key is switched off
    fTable->LeaveLoad();
    const TOwned<TKdsTable> keyless = TKdsTable::Create(u"K");
    keyless->Columns()->Add(u"n", dtInteger);
    keyless->Insert({1});
    EXPECT_EQ(keyless->Records()->Find({1}), nullptr);
    EXPECT_FALSE(keyless->Delete({1}));
    keyless->Upsert({1});
    EXPECT_EQ(keyless->Records()->Count(), 2);
}

// ---- Ends ---------------------------------------------------------------------------------

TEST_F(TKdsTableTest, ClearsItsRowsAndStartsAnew) {
    InsertTen();
    fRows->Items(4)->Edit();
    TOwned<TKdsRecord> loose = fTable->NewRow({5});
    TKdsView* const view = fTable->Select(u"name");
    fTable->EnterLoad(mtsUploads);
    fTable->Clear();  // inside a bracket that keeps the views on
    EXPECT_EQ(fTable->Status(), mtsUploads);
    EXPECT_TRUE(view->Actual());
    EXPECT_EQ(view->Count(), 0);
    EXPECT_EQ(fTable->LastRowID(), 0u);
    EXPECT_EQ(fTable->Version(), 0);
    EXPECT_EQ(fTable->OrphanRows(), 0);
    fTable->LeaveLoad();
    fRecorder.Lines.clear();
    fTable->Clear();
    EXPECT_EQ(fRecorder.Take(), TLines{});
    fRows->Add(std::move(loose));
    EXPECT_EQ(fTable->OrphanRows(), 0);
    fTable->EnterLoad(mtsDestroy);
    fTable->Clear();
    EXPECT_EQ(fRows->Count(), 1);
    fTable->LeaveLoad();
}

TEST_F(TKdsTableTest, ALoadThatCannotBeginLeavesNoBracketBehind) {
    fRecorder.Refuse(acStatusChanged);
    EXPECT_EQ(Refusal([&] { TKdsLoad load(fTable, mtsUploads); }), "refused");
    EXPECT_EQ(Refusal([&] { TKdsLoad load(fTable, mtsMassive); }), "refused");
    fRecorder.OnNote = nullptr;
    EXPECT_EQ(fTable->Status(), mtsRegular);
    EXPECT_TRUE(fTable->PrimaryView()->Actual());
    {
        TKdsLoad load(fTable, mtsMassive);
        fTable->Insert({1});
        fTable->Insert({1});
        EXPECT_EQ(Refusal([&] { load.Leave(); }), "Duplicate rows for \"UV_Table1\"");
    }
    EXPECT_EQ(fTable->Status(), mtsRegular);
    fRows->Delete(1);
}

TEST_F(TKdsTableTest, TellsObserversOfItsEndWhileItIsWhole) {
    const auto observer = MakeIntf<TObserver>(&fRecorder.Lines);
    fTable->AppendSexton(observer);
    fTable->AppendSexton(nullptr);
    fTable->AppendDeacon(observer);
    TLink link(&fRecorder.Lines);
    fTable->Insert({1});
    fTable->Insert({2});
    TOwned<TKdsRecord> loose = fTable->NewRow({3});
    link.SetView(fTable->Select(u"name"));
    link.OnEvent = [&](const TKdsEvent& event) {
        // Late guests are turned out too.
        if (event.Reason == evSourceChange) fTable->Insert({4});
    };
    fRecorder.Lines.clear();

    fTable->Free();

    TLines ends;
    for (const std::string& line : fRecorder.Take()) {
        if (!line.starts_with("ac")) ends.push_back(line);
    }
    EXPECT_EQ(ends, (TLines{"sexton Table1 of 2", "deacon row1 of 1 0 2", "deacon row0 of 0 0 1",
                            "link source", "deacon row2 of 0 0 4"}));
    fTable = nullptr;
    EXPECT_EQ(loose->Table(), nullptr);
    EXPECT_EQ(observer->References(), 1);
}

TEST_F(TKdsTableTest, AnObserverMayTakeItselfOut) {
    const auto first = MakeIntf<TObserver>(&fRecorder.Lines);
    const auto second = MakeIntf<TObserver>(&fRecorder.Lines);
    fTable->AppendDeacon(first);
    fTable->AppendDeacon(second);
    first->OnRecord = [&] {
        fTable->RemoveDeacon(first);
        throw EKdsError(u"deacon");
    };
    fTable->Insert({1});
    fTable->Insert({2});
    EXPECT_EQ(Refusal([&] { fRows->Items(0)->Delete(); }), "deacon");
    fRecorder.Lines.clear();
    fRows->Items(0)->Delete();
    EXPECT_EQ(std::ranges::count(fRecorder.Lines, "deacon row1 of 0 0 2"), 1);
}

// ---- Posts that no view cares for ---------------------------------------------------------

// Makes views of a class of the host's, which write down what they hear.
class TViewMaker final : public IKdsViewFactory {
public:
    explicit TViewMaker(TRecorder* recorder) : fRecorder(recorder) {}
    TOwned<TKdsView> CreateView(TKdsTable* table, std::u16string_view name) override {
        auto view = TRecording<TKdsView>::Create(fRecorder, table, name);
        view->RecordHandle();
        return TOwned<TKdsView>(view.release());
    }

private:
    TRecorder* fRecorder;
};

// Table1 with qty, ten rows of qty 0 and a view by name; a post of qty has concerned nobody yet.
class TQuietPostTest : public TKdsTableTest {
protected:
    TQuietPostTest() {
        fTable->Columns()->Add(u"qty", dtInteger);
        for (int i = 0; i < 10; ++i) fTable->Insert({i, u"n", 0});
        fView = fTable->Select(u"name");
        Post(0, 0);
    }
    void Post(int index, int qty) {
        TKdsEdit edit(fRows->Items(index));
        edit->SetDataN(u"qty", qty);
        edit.Post();
        EXPECT_STREQ(fTable->Inconsistency(), nullptr);
        fRecorder.Lines.clear();
    }
    TKdsTable* AddRecording() {
        return fStore->Tables()->Add(TRecording<TKdsTable>::Create(&fOnTheWay, u"Recording"));
    }
    TKdsView* fView;
};

TEST_F(TQuietPostTest, IsHeardAgainByWhoeverBeginsToCare) {
    TLink link(&fRecorder.Lines);
    std::int32_t updates = 0;
    link.OnEvent = [&](const TKdsEvent& event) { updates += event.Reason == evRecordUpdate; };
    const auto isLast = [&](int index, const TKdsView* view) {
        return view->Items(view->Count() - 1) == fRows->Items(index);
    };

    link.SetView(fView);
    Post(1, 1);
    EXPECT_EQ(updates, 1);
    link.SetView(nullptr);
    Post(1, 2);
    EXPECT_EQ(updates, 1);

    TKdsView* const byQty = fTable->Select(u"qty");
    Post(2, 7);
    EXPECT_TRUE(isLast(2, byQty));
    byQty->SetOrderBy(u"name");
    Post(2, 0);
    byQty->SetOrderBy(u"qty desc");
    Post(3, -1);
    EXPECT_TRUE(isLast(3, byQty));
    byQty->SetActive(false);
    Post(4, -2);
    byQty->SetActive(true);
    Post(5, -3);
    EXPECT_TRUE(isLast(5, byQty));
    byQty->Free();

    const auto isSmall = [](TKdsView*, TKdsRecord* record, bool& accept) {
        accept = *record->Get<std::int32_t>(record->Table()->Columns()->Columns(u"qty")) < 50;
    };
    Post(6, 0);
    fView->SetOnAccept(TKdsAcceptRecordEvent::BindCall(&isSmall));
    Post(6, 50);
    EXPECT_EQ(fView->IndexOf(fRows->Items(6)), -1);
    fView->SetOnAccept(nullptr);
    Post(6, 0);

    (void)fTable->SelectEx(u"name", nullptr, {}, nullptr, false, MakeIntf<TViewMaker>(&fRecorder));
    fRecorder.OnNote = [&](const TNotification& note) { updates += note.Sender != nullptr; };
    updates = 0;
    Post(7, 1);
    EXPECT_EQ(updates, 2);  // the view, and the store above
}

TEST_F(TQuietPostTest, IsHeardByALinkThatComesOnTheWay) {
    TKdsTable* const table = AddRecording();
    table->Columns()->Add(u"id", dtInteger);
    table->Columns()->Add(u"qty", dtInteger);
    table->SetPrimaryKey(u"id");
    TKdsRecord* const row = table->Insert({1, 1});
    const auto post = [&](int qty) {
        TKdsEdit edit(row);
        edit->SetDataN(u"qty", qty);
        edit.Post();
    };
    post(2);
    TLink link(&fRecorder.Lines);
    std::int32_t updates = 0;
    link.OnEvent = [&](const TKdsEvent& event) { updates += event.Reason == evRecordUpdate; };
    fOnTheWay.OnNote = [&](const TNotification& note) {
        if (note.Action == acConfirmUpdate) link.SetView(table->PrimaryView());
    };

    post(3);

    EXPECT_EQ(updates, 1);
    EXPECT_STREQ(table->Inconsistency(), nullptr);
    fOnTheWay.OnNote = nullptr;
}

TEST_F(TQuietPostTest, ARowWhoseKeyChangesAfterItsCheckStandsWhereItBelongs) {
    TKdsTable* const table = AddRecording();
    TKdsColumn* const id = table->Columns()->Add(u"id", dtInteger);
    table->SetPrimaryKey(u"id");
    for (int i = 0; i < 10; ++i) table->Insert({i * 10});
    const auto insert = [&](int checked, int placed) {
        fOnTheWay.OnNote = [&](const TNotification& note) {
            if (note.Action == acPrepareInsert)
                static_cast<TKdsRecord*>(note.Target)->Set(id, placed);
        };
        table->Insert({checked});
        EXPECT_STREQ(table->Inconsistency(), nullptr) << checked << " " << placed;
    };

    insert(1000, 15);
    insert(25, 2000);
    insert(3000, 4000);
    insert(35, -1);

    fOnTheWay.OnNote = nullptr;
}

}  // namespace
}  // namespace kds
