// A table's rows as a list: their identifiers, their order, and how they are found.
#include "kds/core/Kdsrecordlists.h"

#include "tests/core/Coretest.h"

namespace kds {
namespace {

using TKdsRecordListTest = TKdsTableTest;

constexpr const char* Mixed = "How could we fall into rloMixed mode?";

TEST_F(TKdsRecordListTest, CountsRowIdentifiersUpAndNeverGivesOneTwice) {
    InsertTen();
    EXPECT_EQ(fRows->FindRowID(3), fRows->Items(3));
    EXPECT_EQ(fRows->FindRowID(10), nullptr);
    EXPECT_EQ(fRows->FindRowID(NoRowID), nullptr);
    TOwned<TKdsRecord> loose = fTable->NewRow();
    EXPECT_EQ(fRows->IndexOf(loose.get()), -1);
    fRows->Delete(3);
    EXPECT_EQ(fRows->FindRowID(3), nullptr);
    EXPECT_EQ(fRows->IndexOf(fRows->FindRowID(9)), 8);
    EXPECT_EQ(fTable->Insert({3})->RowID(), 10u);

    // A row that leaves keeps its identifier and comes back with it.
    TOwned<TKdsRecord> last = fRows->Extract(fRows->FindRowID(10));
    EXPECT_EQ(fTable->OrphanRows(), 1);  // the loose one: this one may come back
    EXPECT_EQ(last->RowState(), rsDetached);
    EXPECT_EQ(fRows->Add(std::move(last))->RowID(), 10u);
    EXPECT_EQ(fRows->Order(), rloRowID);
    loose.reset();
    EXPECT_EQ(fTable->OrphanRows(), 0);

    fTable->Clear();
    EXPECT_EQ(fTable->Insert({1})->RowID(), 0u);
    // Identifiers from before a clearance are passed by, and may stand behind higher ones.
    fTable->Insert({2});
    TOwned<TKdsRecord> first = fRows->Extract(fRows->Items(0));
    fTable->Clear();
    fTable->Insert({8});
    TOwned<TKdsRecord> second = fRows->Extract(fTable->Insert({9}));
    // An identifier that is taken again is refused.
    EXPECT_EQ(Refusal([&] { fRows->Add(std::move(first)); }), NotInsertable);
    ASSERT_NE(first, nullptr);
    fTable->Clear();
    EXPECT_EQ(fRows->Add(std::move(second))->RowID(), 1u);
    EXPECT_EQ(fTable->Insert({10})->RowID(), 2u);
    fRows->Add(std::move(first));
    EXPECT_EQ(fRows->Order(), rloMixed);
}

TEST_F(TKdsRecordListTest, ARowPutInElsewhereMixesTheListUntilOneIsLeft) {
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
    EXPECT_EQ(Refusal([&] { fTable->Insert({44}); }), NotUnique);
    TOwned<TKdsRecord> out = fRows->Extract(row);
    fRows->Move(0, 9);
    EXPECT_EQ(Ids(), (TIds{1, 2, 3, 4, 5, 6, 7, 8, 9, 0}));
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

TEST_F(TKdsRecordListTest, FindsRowsByKeyAndChangesOrInsertsThem) {
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
    EXPECT_EQ(Refusal([&] { (void)fRows->Find({1, 2}); }), "More values than order columns");
    fTable->EnterLoad(mtsMassive);
    EXPECT_EQ(fRows->Find({3}), nullptr);  // the key is switched off
    fTable->LeaveLoad();
    fTable->Clear();
    fTable->SetPrimaryKey({});
    for (int i = 0; i < 2; ++i) fTable->Upsert({1});
    EXPECT_EQ(fRows->Count(), 2);
    EXPECT_EQ(fRows->Find({1}), nullptr);
    EXPECT_FALSE(fTable->Delete({1}));
}

}  // namespace
}  // namespace kds
