#include "kds/core/Kdsstores.h"

#include "tests/core/Coretest.h"

namespace kds {
namespace {

class TKdsStoreTest : public testing::Test {
protected:
    TKdsStoreTest() : fStore(Stores()->Append(TRecording<TKdsStore>::Create(&fRecorder, u"Shop"))) {
        fRecorder.Lines.clear();
    }
    ~TKdsStoreTest() override {
        fRecorder.OnNote = nullptr;
        if (fStore != nullptr) fStore->Free();
        EXPECT_EQ(Stores()->Count(), 0);
    }
    // A table that writes down what its list hands it.
    TRecording<TKdsTable>* AddListening(std::u16string_view name) {
        auto table = TRecording<TKdsTable>::Create(&fDown, name);
        table->RecordHandle();
        auto* const kept = table.get();
        fStore->Tables()->Add(std::move(table));
        fDown.Lines.clear();
        fRecorder.Lines.clear();
        return kept;
    }
    [[nodiscard]] TLines TableNames() const { return NamesOf(fStore->Tables()); }

    TRecorder fRecorder;
    TRecorder fDown;
    TKdsStore* fStore;
};

TEST_F(TKdsStoreTest, KeepsTablesInNameOrderAndFindsThemByTheirIndex) {
    EXPECT_EQ(Stores()->Find(u"SHOP"), fStore);
    EXPECT_EQ(Refusal([] { (void)Stores()->Stores(u"none"); }), "Item named \"none\" not found");
    EXPECT_EQ(Refusal([] { TKdsStore::Create(u"sHop"); }), "Duplicate item name \"sHop\"");
    TKdsTableList* const tables = fStore->Tables();
    for (const char16_t* const name : {u"b", u"C", u"a"}) tables->Add(name);
    EXPECT_EQ(TableNames(), (TLines{"a", "b", "C"}));
    EXPECT_EQ(tables->Find(u"c"), tables->Items(2));
    EXPECT_EQ(tables->Tables(u"B")->Store(), fStore);
    EXPECT_EQ(Refusal([&] { (void)tables->Tables(u"x"); }), "Item named \"x\" not found");
    EXPECT_EQ(Refusal([&] { tables->Add(u"A"); }), "Duplicate item name \"A\"");

    // A rename moves the index entry and leaves the table where it stands.
    tables->Items(0)->SetName(u"z");
    EXPECT_EQ(tables->Find(u"Z"), tables->Items(0));
    EXPECT_EQ(tables->Find(u"a"), nullptr);
    tables->Add(u"0");
    EXPECT_EQ(TableNames(), (TLines{"0", "b", "C", "z"}));
    tables->Delete(1);
    EXPECT_EQ(tables->Find(u"b"), nullptr);
    EXPECT_TRUE(tables->IsConsistent());
}

TEST_F(TKdsStoreTest, ANameBeyondSevenBitsStandsInTheListButNotInTheIndex) {
    TKdsTableList* const tables = fStore->Tables();
    const std::string refusal = "Object name cannot contain 'ä' character";
    EXPECT_EQ(Refusal([&] { tables->Add(u"zät"); }), refusal);
    tables->Add(u"b");
    ASSERT_EQ(tables->Count(), 2);
    EXPECT_EQ(tables->Find(u"zät"), nullptr);
    ASSERT_EQ(tables->IndexOfName(u"ZÄT"), 1);
    TKdsTable* const odd = tables->Items(1);

    odd->SetName(u"plain");  // no entry to follow
    EXPECT_EQ(tables->Find(u"plain"), nullptr);
    TKdsTable* const b = tables->Find(u"b");
    EXPECT_EQ(Refusal([&] { b->SetName(u"bä"); }), refusal);
    EXPECT_EQ(b->Name(), u"bä");
    EXPECT_EQ(tables->Find(u"b"), nullptr);
    EXPECT_TRUE(tables->IsConsistent());
    tables->Remove(odd);
    tables->Clear();
}

TEST_F(TKdsStoreTest, HandsMetadataToEveryTableAndKeepsDataToItself) {
    TKdsTable* const a = AddListening(u"a");
    AddListening(u"b");

    a->Columns()->Add(u"n", dtInteger);
    EXPECT_EQ(fDown.Take(), (TLines{"acPrepareInsert n @0", "a < acPrepareInsert n @0",
                                    "b < acPrepareInsert n @0", "acConfirmInsert n @0",
                                    "a < acConfirmInsert n @0", "b < acConfirmInsert n @0"}));
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareInsert n @0", "acConfirmInsert n @0"}));

    TKdsRecord* const row = a->Insert({1});
    row->Signal();
    // Each climbed to the store and no further: nobody was handed a row.
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareInsert row? @0", "acConfirmInsert row0 @0",
                                        "acStatusChanged row0 @0"}));
    EXPECT_EQ(fDown.Take(), (TLines{"acPrepareInsert row? @0", "acConfirmInsert row0 @0",
                                    "acStatusChanged row0 @0"}));
}

TEST_F(TKdsStoreTest, TellsItsTablesInOrderWhenItsVisibilityChanges) {
    AddListening(u"b");
    AddListening(u"a");
    fStore->SetVisibility(viRegular);
    EXPECT_EQ(fRecorder.Take(), TLines{});

    // The second table hears although a receiver of the first one's raises.
    fRecorder.Refuse(acStatusChanged);
    EXPECT_EQ(Refusal([&] { fStore->SetVisibility(viSpecial); }), "refused");
    EXPECT_EQ(fRecorder.Take(), (TLines{"acStatusChanged a @0", "acStatusChanged b @0"}));
    EXPECT_EQ(fStore->Visibility(), viSpecial);
}

TEST_F(TKdsStoreTest, ClearsRowsThenResetsTablesThenEndsWithThemHearingOfIt) {
    for (const char16_t* const name : {u"a", u"b"}) {
        AddListening(name)->Columns()->Add(u"n", dtInteger);
        fStore->Tables()->Tables(name)->Insert({1});
    }
    fStore->Clear();
    ASSERT_EQ(TableNames(), (TLines{"a", "b"}));
    for (TKdsTable* const table : *fStore->Tables()) {
        EXPECT_EQ(table->Records()->Count(), 0);
        EXPECT_EQ(table->Columns()->Count(), 1);
    }
    fRecorder.Lines.clear();
    fStore->Reset();
    EXPECT_EQ(TableNames(), TLines{});
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareDelete b @1", "acConfirmDelete b @1",
                                        "acPrepareDelete a @0", "acConfirmDelete a @0"}));
    AddListening(u"c");
    std::exchange(fStore, nullptr)->Free();
    EXPECT_EQ(fDown.Lines.front(), "c < acObjectDestroy Shop @0");
}

TEST_F(TKdsStoreTest, MayBeEndedByAnObserverOfATableThatIsGoing) {
    struct TSexton final : IKdsSexton {
        TKdsStore** Store = nullptr;
        void RecordDeleted(TKdsTable*, TKdsRecord*) override {}
        void TableDestroyed(TKdsTable*) override {
            if (*Store != nullptr) std::exchange(*Store, nullptr)->Free();
        }
    };
    const auto sexton = MakeIntf<TSexton>();
    sexton->Store = &fStore;
    fStore->Tables()->Add(u"a");
    fStore->Tables()->Add(u"b")->AppendSexton(sexton);

    fStore->Reset();

    EXPECT_EQ(Stores()->Count(), 0);
}

// ---- String list --------------------------------------------------------------------------

TEST(TKdsStringListTest, KeepsSevenBitNamesSortedEachOnce) {
    TKdsStringList names, other;
    EXPECT_EQ(names.Add(u"b", &names), 0);
    EXPECT_EQ(names.Add(u"A", &other), 0);
    EXPECT_EQ(names.Add(u"B", &other), 1);  // there already, with its first object
    EXPECT_EQ(names.FindObject(u"B"), &names);
    EXPECT_EQ(names.IndexOfObject(&other), 0);
    EXPECT_EQ(Refusal([&] { names.Add(u"c\u0080\u0081", nullptr); }),
              "Object name cannot contain '\u0080' character");
    EXPECT_EQ(names.Count(), 2);
    EXPECT_THROW((void)names.Strings(2), EListError);
    EXPECT_THROW(names.Delete(-1), EListError);
    EXPECT_TRUE(names.IsConsistent());

    TKdsStringList exact(/*caseSensitive=*/true);
    for (const char16_t* const name : {u"b", u"B"}) exact.Add(name, nullptr);
    EXPECT_EQ(exact.Strings(0), u"B");
    EXPECT_EQ(exact.Count(), 2);
}

}  // namespace
}  // namespace kds
