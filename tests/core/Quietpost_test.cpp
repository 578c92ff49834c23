// Posts that no view cares for skip the views, and rows that come in while the views are off are
// told to nobody: whoever begins to care must hear the next one.
#include "tests/core/Coretest.h"

namespace kds {
namespace {

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
        fLink.OnEvent = [&](const TKdsEvent& event) { fUpdates += event.Reason == evRecordUpdate; };
    }
    static void PostQty(TKdsRecord* record, int qty) {
        TKdsEdit edit(record);
        edit->SetDataN(u"qty", qty);
        edit.Post();
        EXPECT_STREQ(record->Table()->Inconsistency(), nullptr);
    }
    void Post(int index, int qty) {
        PostQty(fRows->Items(index), qty);
        fRecorder.Lines.clear();
    }
    // A table with the key id that records what passes it on its way.
    TKdsTable* AddRecording() {
        auto* const table =
            fStore->Tables()->Add(TRecording<TKdsTable>::Create(&fOnTheWay, u"Recording"));
        for (const char16_t* const name : {u"id", u"qty"}) table->Columns()->Add(name, dtInteger);
        table->SetPrimaryKey(u"id");
        return table;
    }
    TKdsView* fView;
    TLink fLink{&fRecorder.Lines};
    std::int32_t fUpdates = 0;
};

TEST_F(TQuietPostTest, IsHeardAgainByWhoeverBeginsToCare) {
    const auto isLast = [&](int index, const TKdsView* view) {
        return view->Items(view->Count() - 1) == fRows->Items(index);
    };

    fLink.SetView(fView);
    Post(1, 1);
    EXPECT_EQ(fUpdates, 1);
    fLink.SetView(nullptr);
    Post(1, 2);
    EXPECT_EQ(fUpdates, 1);

    TKdsView* const byQty = fTable->Select(u"qty");
    Post(2, 7);
    EXPECT_TRUE(isLast(2, byQty));
    // Switched off, it keeps the order by which it was built last until it is built anew.
    byQty->SetOrderBy(u"name");
    byQty->SetActive(false);
    byQty->SetOrderBy(u"qty");
    Post(4, 8);
    byQty->SetActive(true);
    Post(5, 9);
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
    fRecorder.Lines.clear();
    PostQty(fRows->Items(7), 1);
    EXPECT_EQ(fRecorder.Take().size(), 2u);  // the view, and the store above
}

TEST_F(TQuietPostTest, IsHeardByALinkThatComesOnTheWay) {
    TKdsTable* const table = AddRecording();
    TKdsRecord* const row = table->Insert({1, 1});
    PostQty(row, 2);
    fOnTheWay.OnNote = [&](const TNotification& note) {
        if (note.Action == acConfirmUpdate) fLink.SetView(table->PrimaryView());
    };

    PostQty(row, 3);

    EXPECT_EQ(fUpdates, 1);
    fOnTheWay.OnNote = nullptr;
}

// In a store that writes nothing down.
TEST_F(TQuietPostTest, RowsOfALoadAreHeardOfByWhoeverCares) {
    TKdsStore* const store = TKdsStore::Create(u"Plain");
    const auto add = [&](TOwned<TKdsTable>&& made) {
        TKdsTable* const table = store->Tables()->Add(std::move(made));
        table->Columns()->Add(u"id", dtInteger);
        table->SetPrimaryKey(u"id");
        return table;
    };
    const auto insert = [](TKdsTable* table) {
        table->Insert({table->Records()->Count()});
        EXPECT_STREQ(table->Inconsistency(), nullptr);
    };
    TKdsTable* const table = add(TKdsTable::Create(u"Table"));
    TKdsView* const descending = table->Select(u"id desc");
    {
        TKdsLoad load(table, mtsMassive);
        insert(table);
        table->Views()->SetActive(true);
        for (int rows = 2; rows <= 3; ++rows) {
            insert(table);
            EXPECT_EQ(descending->Count(), rows);
        }
        load.Leave();
    }
    (void)table->SelectEx(u"id", nullptr, {}, nullptr, false, MakeIntf<TViewMaker>(&fRecorder));
    {
        TKdsLoad load(table, mtsMassive);
        fRecorder.Lines.clear();
        insert(table);
        EXPECT_EQ(fRecorder.Take().size(), 1u);
        load.Leave();
    }
    TKdsTable* const recording = add(TRecording<TKdsTable>::Create(&fOnTheWay, u"Recording"));
    {
        TKdsLoad load(recording, mtsMassive);
        fOnTheWay.Lines.clear();
        insert(recording);
        EXPECT_EQ(fOnTheWay.Take().size(), 2u);
        load.Leave();
    }
    store->Free();
}

TEST_F(TQuietPostTest, ARowWhoseKeyChangesAfterItsCheckStandsWhereItBelongs) {
    TKdsTable* const table = AddRecording();
    TKdsColumn* const id = table->Columns()->Items(0);
    for (int i = 0; i < 10; ++i) table->Insert({i * 10});
    std::int32_t placed = 0;
    fOnTheWay.OnNote = [&](const TNotification& note) {
        if (note.Action == acPrepareInsert) static_cast<TKdsRecord*>(note.Target)->Set(id, placed);
    };

    for (const auto& [checked, key] : {std::pair(1000, 15), {25, 2000}, {3000, 4000}, {35, -1}}) {
        placed = key;
        table->Insert({checked});
        EXPECT_STREQ(table->Inconsistency(), nullptr) << checked << " " << placed;
    }

    fOnTheWay.OnNote = nullptr;
}

}  // namespace
}  // namespace kds
