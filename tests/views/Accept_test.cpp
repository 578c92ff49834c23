// Filters of a table, and finding rows by values of any columns.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "kds/kds.h"

namespace kds {
namespace {

class TAcceptTest : public testing::Test {
protected:
    TAcceptTest() : fStore(TKdsStore::Create(u"Accept")), fTable(fStore->Tables()->Add(u"T")) {
        fTable->Columns()->Add(u"Id", dtInteger);
        fTable->Columns()->Add(u"Name", dtAnsiString, 8);
        fTable->Columns()->Add(u"Qty", dtInteger);
        fTable->SetPrimaryKey(u"Id");
        for (int i = 0; i < 8; ++i) fTable->Insert({i, i % 2 == 0 ? u"even" : u"Odd", i / 2});
    }
    ~TAcceptTest() override { fStore->Free(); }

    static void TakeEven(TKdsView*, TKdsRecord* record, bool& accept) {
        accept = VarToInt64(record->GetDataN(u"Id")) % 2 == 0;
    }
    static TKdsAcceptRecordEvent Even() { return TKdsAcceptRecordEvent::Bind<&TakeEven>(); }

    TKdsStore* fStore;
    TKdsTable* fTable;
};

TEST_F(TAcceptTest, HidesRowsFromAllViewsButThePrimaryOne) {
    TKdsView* const byQty = fTable->Select(u"Qty");
    TKdsAccept filter(fTable, Even());
    EXPECT_EQ(byQty->Count(), 4);
    EXPECT_EQ(fTable->PrimaryView()->Count(), 8);
    EXPECT_EQ(fTable->Select(u"Name")->Count(), 4);
    TKdsRecord* const odd = fTable->Records()->Items(1);
    EXPECT_EQ(byQty->IndexOf(odd), -1);
    TKdsEdit edit(odd);
    odd->SetDataN(u"Id", 10);
    edit.Post();
    EXPECT_EQ(byQty->Count(), 5);
    filter.SetEnabled(false);
    EXPECT_EQ(byQty->Count(), 8);
    EXPECT_FALSE(filter.Accept(byQty, odd));
}

TEST_F(TAcceptTest, AFilterTextHoldsForEveryChangeAndForItsColumns) {
    TKdsView* const view = fTable->Select(u"Qty desc", u"Qty * 2 >= 4 AND Name LIKE 'e%'");
    EXPECT_EQ(view->Count(), 2);  // 4 and 6
    TKdsRecord* const first = fTable->Records()->Items(0);
    TKdsEdit edit(first);
    first->SetDataN(u"Qty", 9);
    EXPECT_EQ(view->Count(), 2);  // not posted yet
    edit.Post();
    EXPECT_EQ(view->IndexOf(first), 0);
    view->SetFilter(u"Qty = 9");
    EXPECT_EQ(view->Count(), 1);

    EXPECT_THROW(view->SetFilter(u"Qty > Nothing"), EKdsParseError);
    EXPECT_THROW((void)fTable->Select(u"Id", u"Qty >"), EKdsParseError);
    EXPECT_EQ(view->Filter(), u"Qty = 9");
    EXPECT_EQ(view->Count(), 1);
    EXPECT_THROW(fTable->PrimaryView()->SetFilter(u"Qty = 1"), EKdsError);

    // A value that cannot be judged keeps its row out, and the view goes on.
    view->SetFilter(u"Qty + 9223372036854775807 > 0");
    EXPECT_EQ(view->Count(), 1);  // quantity 0
    EXPECT_EQ(view->FilterErrors(), 7);
    EXPECT_THROW(std::rethrow_exception(view->FilterError()), EIntOverflow);

    view->SetFilter(u"Qty >= 3");
    fTable->Clear();
    fTable->Columns()->Columns(u"Qty")->SetName(u"Quantity");
    EXPECT_FALSE(view->Active());  // as when a column of its order changes
    EXPECT_THROW(view->SetActive(true), EKdsParseError);
    view->SetFilter(u"Quantity >= 3");
    fTable->Insert({1, u"a", 4});
    EXPECT_EQ(view->Count(), 1);
}

TEST_F(TAcceptTest, TheDefaultViewIsThePrimaryOneOnlyWithoutFilters) {
    TKdsView* const primary = fTable->GetDefaultView();
    ASSERT_EQ(primary, fTable->PrimaryView());
    TKdsAccept first(fTable, Even());
    EXPECT_EQ(fTable->DefaultView(), nullptr);
    TKdsView* const filtered = fTable->GetDefaultView();
    EXPECT_NE(filtered, primary);
    EXPECT_EQ(filtered->Count(), 4);
    TKdsAccept second(fTable, nullptr);
    first.SetTable(nullptr);
    EXPECT_EQ(fTable->DefaultView(), filtered);
    EXPECT_EQ(filtered->Count(), 8);
    const std::int32_t views = fTable->Views()->Count();
    second.SetEnabled(false);
    EXPECT_EQ(fTable->DefaultView(), primary);
    EXPECT_EQ(fTable->Views()->Count(), views - 1);  // the one that the table had made is gone
    EXPECT_FALSE(fTable->HasFilters());
}

TEST_F(TAcceptTest, AViewOfTheHostsThatServesAsTheDefaultOneStays) {
    TKdsTable* const table = fStore->Tables()->Add(u"Keyless");
    table->Columns()->Add(u"Id", dtInteger);
    TKdsView* const mine = table->Views()->MakeIndex(u"Id", {voUnique});
    mine->SetActive(true);
    table->SetPrimaryKey(u"Id");
    const TIntf<IKdsAccept> unknown;
    table->RemoveFilter(unknown);
    EXPECT_THROW(table->AppendFilter(nullptr), EInvalidArgument);
    {
        TKdsAccept filter(table, Even());
        table->GetDefaultView();
    }
    EXPECT_EQ(table->Views()->Items(0), mine);
    EXPECT_EQ(table->DefaultView(), table->PrimaryView());
    EXPECT_STREQ(table->Inconsistency(), nullptr);
}

// A filter that changes filters from inside, one that raises, and tables that end first.
TEST_F(TAcceptTest, OutcomesOfWhatFiltersMustNotDo) {
    TKdsView* const view = fTable->Select(u"Name");
    TKdsAccept* inner = nullptr;
    const auto meddle = [&](TKdsView*, TKdsRecord*, bool&) {
        if (inner != nullptr) inner->SetEnabled(false);
    };
    TKdsAccept filter(fTable, TKdsAcceptRecordEvent::BindCall(&meddle));
    inner = &filter;
    EXPECT_THROW(fTable->Insert({20, u"x", 1}), EKdsError);
    EXPECT_TRUE(filter.Enabled());
    inner = nullptr;
    view->Update();  // which could not place the row
    EXPECT_EQ(view->Count(), 9);

    const auto raise = [](TKdsView*, TKdsRecord*, bool&) { throw EConvertError(u"no"); };
    filter.SetTable(nullptr);
    TKdsAccept raising;
    raising.SetOnAccept(TKdsAcceptRecordEvent::BindCall(&raise));
    raising.SetTable(fTable);
    EXPECT_THROW(raising.SetEnabled(true), EConvertError);
    EXPECT_TRUE(raising.Enabled());  // the change is made
    EXPECT_EQ(fTable->PrimaryView()->Count(), fTable->Records()->Count());

    auto outliving = std::make_unique<TKdsAccept>(fStore->Tables()->Add(u"Short"), nullptr);
    fStore->Tables()->Remove(outliving->Table());
    EXPECT_EQ(outliving->Table(), nullptr);
    raising.SetEnabled(false);
    view->Update();
    EXPECT_EQ(view->Count(), fTable->Records()->Count());
}

// A link that hears of the views that are built anew may end the filter that was changed.
TEST_F(TAcceptTest, AFilterMayEndWhileItIsSwitched) {
    TKdsView* const view = fTable->Select(u"Name");
    auto filter = std::make_unique<TKdsAccept>(fTable, Even());
    const auto end = [&](TKdsView*, TKdsEvent* event) {
        if (event->Reason == evStatusChange) filter.reset();
    };
    TKdsViewHandler link(TKdsViewEvent::BindCall(&end));
    link.SetView(view);
    TKdsAccept* const ending = filter.get();
    ending->SetEnabled(false);
    EXPECT_EQ(filter, nullptr);
    EXPECT_FALSE(fTable->HasFilters());
    EXPECT_EQ(view->Count(), 8);
    filter = std::make_unique<TKdsAccept>();
    filter->SetOnAccept(Even());
    filter->SetTable(fTable);
    filter.get()->SetEnabled(true);  // ended while it enters
    EXPECT_EQ(filter, nullptr);
    EXPECT_FALSE(fTable->HasFilters());
    EXPECT_STREQ(fTable->Inconsistency(), nullptr);
}

TEST_F(TAcceptTest, LocatesBySearchOrRowByRow) {
    TKdsView* const view = fTable->Select(u"Name nocase desc,Qty");
    const auto idAt = [&](std::int32_t row) { return VarToInt64(view->Items(row)->GetDataI(0)); };
    // Odd 1 3 5 7, then even 0 2 4 6.
    EXPECT_EQ(view->Locate(u"Name", {u"EVEN"}, {loNoCase}), 4);
    EXPECT_EQ(view->Locate(u"Name", {u"EVEN"}), -1);  // row by row: these letters are not there
    EXPECT_EQ(view->Locate(u"Name", {u"even"}, {loLastRow}), 7);
    EXPECT_EQ(view->Locate(u"Qty", {2}), 2);
    EXPECT_EQ(view->Locate(u"Qty", {2}, {loLastRow}), 6);
    EXPECT_EQ(view->Locate(u"Qty,Name", {3, u"o"}, {loNoCase, loPartial}), 3);
    EXPECT_EQ(view->Locate(u"Name", {u"m"}, {loNoCase, loNearest}), 4);
    EXPECT_EQ(view->Locate(u"Qty", {9}), -1);
    EXPECT_THROW((void)view->Locate(u"Qty", {9}, {loNearest}), EInvalidArgument);
    EXPECT_THROW((void)view->Locate(u"Nothing", {9}), EKdsError);
    EXPECT_THROW((void)view->Locate(u"", {}), EInvalidArgument);
    EXPECT_EQ(view->FindRow({u"odd"}, {loLastRow}), 3);
    EXPECT_EQ(view->FindRecord({u"odd", 1}), view->Items(1));
    EXPECT_EQ(view->FindRecord({u"none"}), nullptr);

    std::vector<std::int64_t> found;
    for (TKdsRecord* const row : view->EqualRange({u"ODD"})) {
        found.push_back(VarToInt64(row->GetDataI(0)));
    }
    EXPECT_EQ(found, (std::vector<std::int64_t>{1, 3, 5, 7}));
    EXPECT_EQ(view->LowerBound({u"even", 1}) - view->begin(), 5);
    EXPECT_EQ(view->UpperBound({u"even", 1}) - view->begin(), 6);
    EXPECT_EQ(idAt(5), 2);
    EXPECT_EQ(fTable->Select({}, {}, nullptr, true)->EqualRange({u"odd"}).size(), 0u);
}

}  // namespace
}  // namespace kds
