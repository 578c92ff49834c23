// Tables: the order of a change's announcements, what is refused, load brackets, observers, ends.
#include "kds/core/Kdstables.h"

#include <limits>

#include "tests/core/Coretest.h"

namespace kds {
namespace {

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
    const struct {
        TKdsTableStatus Status;
        TLines Enter, Leave;
    } cases[] = {
        // Links hear of it when all views are built and the table is regular again.
        {mtsMassive,
         {"acStatusChanged UV_Table1 @0", "link status", "acStatusChanged Table1 @0 status 2"},
         {"acStatusChanged UV_Table1 @0", "acStatusChanged Table1 @0 status 0", "link status"}},
        {mtsDestroy,
         {"acStatusChanged UV_Table1 @0", "link status", "acStatusChanged Table1 @0 status 1"},
         {"acStatusChanged UV_Table1 @0", "acStatusChanged Table1 @0 status 0", "link status"}},
        {mtsUploads,
         {"acStatusChanged Table1 @0 status 3"},
         {"acStatusChanged Table1 @0 status 0"}},
    };
    for (const auto& c : cases) {
        fRecorder.Lines.clear();
        fTable->EnterLoad(c.Status);
        fTable->EnterLoad(mtsRegular);  // nested: only counts
        EXPECT_EQ(fRecorder.Take(), c.Enter);
        EXPECT_EQ(fTable->PrimaryView()->Actual(), c.Status == mtsUploads);
        fTable->LeaveLoad();
        EXPECT_EQ(fRecorder.Take(), TLines{});
        fTable->LeaveLoad();
        EXPECT_EQ(fRecorder.Take(), c.Leave);
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
    TOwned<TKdsRecord> fresh = fTable->NewRow({50});
    TOwned<TKdsRecord> forced = fTable->NewRow({51});
    forced->EnterForced();
    TOwned<TKdsRecord> duplicate = fTable->NewRow({5});
    TOwned<TKdsRecord> keyless = fTable->NewRow({Null});
    const auto add = [&](TOwned<TKdsRecord>& record) {
        return [&] { fRows->Add(std::move(record)); };
    };
    const auto stays = [&](const char* message, const std::function<void()>& act) {
        SCOPED_TRACE(message);
        EXPECT_EQ(Refusal(act), message);
        EXPECT_EQ(fRows->Count(), 10);
        EXPECT_EQ(fTable->LastRowID(), 10u);
        EXPECT_FALSE(fTable->Modified());
        EXPECT_EQ(fTable->Version(), version);
        EXPECT_EQ(fTable->Status(), mtsRegular);
        EXPECT_EQ(fTable->OrphanRows(), 4);
        EXPECT_EQ(fTable->PrimaryView()->Count(), 10);
        EXPECT_STREQ(fTable->Inconsistency(), nullptr);
    };

    fRecorder.Refuse(acPrepareInsert);
    stays("refused", add(fresh));
    fRecorder.Refuse(acPrepareDelete);
    stays("refused", [&] { row->Delete(); });
    stays("refused", [&] { row->Free(); });
    stays("refused", [&] { (void)fRows->Extract(row); });
    stays("refused", [&] { fTable->Clear(); });
    fRecorder.OnNote = nullptr;
    stays(NotInsertable, add(forced));
    stays(NotUnique, add(duplicate));
    stays("Column \"Table1.id\" cannot contain null", add(keyless));
    stays("Value too big to fit in column Table1.name", [&] {
        fTable->Insert({50, u"123456789"});
    });
    stays(NotDeletable, [&] { (void)fRows->Extract(fresh.get()); });
    stays("List index out of bounds (11)", [&] { fRows->Insert(11, std::move(fresh)); });
    EXPECT_TRUE(fresh && forced && duplicate && keyless);
    EXPECT_EQ(fresh->RowID(), NoRowID);
    EXPECT_EQ(row->RowState(), rsRegular);
    EXPECT_THROW(fRows->Append(TOwned<TKdsItem>(TKdsName::Create(nullptr, u"x"))),
                 EInvalidArgument);

    fRows->SetMaximumCapacity(10);
    stays("List size limit exceeded", add(fresh));
    stays("Current capacity exceeds Maximum", [&] { fRows->SetMaximumCapacity(9); });
    fRows->SetMaximumCapacity(11);
    fRows->Add(std::move(fresh));
}

TEST_F(TKdsTableTest, APostThatIsRefusedStaysOpen) {
    InsertTen();
    TKdsRecord* const row = fRows->Items(3);
    row->Edit();
    row->SetNullN(u"id");
    EXPECT_EQ(Refusal([&] { row->Post(); }), "Column \"Table1.id\" cannot contain null");
    EXPECT_EQ(row->RowState(), rsEditing);
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
    fRecorder.Refuse(acConfirmUpdate);
    row->Edit();
    row->SetDataN(u"id", 3);
    EXPECT_EQ(Refusal([&] { row->Post(); }), "refused");  // the first of two
    EXPECT_EQ(row->RowState(), rsRegular);
    EXPECT_EQ(fTable->PrimaryView()->Find({3}), 0);
    EXPECT_EQ(Refusal([&] { (void)row->GetOldN(u"id"); }), Invalid);
    fRecorder.OnNote = nullptr;
    EXPECT_EQ(Refusal([&] { row->Delete(); }), "link");
    EXPECT_EQ(fRows->Count(), 0);
    EXPECT_EQ(Refusal([&] { fTable->Insert({4}); }), "link");
    // An edit scope whose record a link deletes has nothing left to cancel.
    link.OnEvent = [&](const TKdsEvent& event) {
        if (event.Reason != evRecordUpdate) return;
        event.Origin->Delete();
        throw EKdsError(u"link");
    };
    EXPECT_EQ(Refusal([&] { TKdsEdit(fRows->Items(0)).Post(); }), "link");
    EXPECT_EQ(fRows->Count(), 0);
}

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
    for (const TKdsTableStatus status : {mtsUploads, mtsMassive}) {
        EXPECT_EQ(Refusal([&] { TKdsLoad load(fTable, status); }), "refused");
    }
    fRecorder.OnNote = nullptr;
    EXPECT_EQ(fTable->Status(), mtsRegular);
    EXPECT_TRUE(fTable->PrimaryView()->Actual());
    {
        TKdsLoad load(fTable, mtsMassive);
        for (int i = 0; i < 2; ++i) fTable->Insert({1});
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
    fTable = nullptr;

    std::erase_if(fRecorder.Lines, [](const auto& line) { return line.starts_with("ac"); });
    EXPECT_EQ(fRecorder.Lines,
              (TLines{"sexton Table1 of 2", "deacon row1 of 1 0 2", "deacon row0 of 0 0 1",
                      "link source", "deacon row2 of 0 0 4"}));
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
    InsertTen();
    EXPECT_EQ(Refusal([&] { fRows->Items(0)->Delete(); }), "deacon");
    EXPECT_EQ(std::ranges::count(fRecorder.Lines, "deacon row0 of 9 0 0"), 2);
    fRows->Items(0)->Delete();
    EXPECT_EQ(std::ranges::count(fRecorder.Lines, "deacon row1 of 8 0 1"), 1);
}

// Eight bytes of a key decide most comparisons; these two have the same.
TEST_F(TKdsTableTest, TheLargestNumberStandsBeforeNull) {
    TKdsColumn* const number = fTable->Columns()->Add(u"number", dtInt64);
    constexpr auto largest = std::numeric_limits<std::int64_t>::max();
    for (int i = 0; i < 20; ++i) {
        fTable->Insert({i, u"n", i % 2 == 0 ? TVariant(Null) : TVariant(largest)});
    }

    TKdsView* const built = fTable->Select(u"number");

    for (int i = 0; i < 20; ++i) EXPECT_EQ(built->Items(i)->GetIsNullC(number), i >= 10) << i;
}

}  // namespace
}  // namespace kds
