#include "kds/core/Kdsdata.h"

#include "tests/core/Coretest.h"

namespace kds {
namespace {

class TOpenList final : public TKdsList {
public:
    [[nodiscard]] static TOwned<TOpenList> Create() { return TOwned<TOpenList>(new TOpenList()); }
    [[nodiscard]] std::int32_t Limit() const { return fLimit; }

private:
    TOpenList() : TKdsList(nullptr, /*ownsObjects=*/false, /*broadcaster=*/false) {}
    ~TOpenList() override = default;
};

// A name list under a root that writes down what reaches it.
class TNameListTest : public testing::Test {
protected:
    TNameListTest()
        : fRoot(TRecording<TKdsItem>::Create(&fRecorder, nullptr)),
          fList(TKdsNameList::Create(fRoot.get(), /*ownsObjects=*/true, /*broadcaster=*/false)) {}
    TKdsName* Add(std::u16string_view name) {
        return fList->Append(TKdsName::Create(nullptr, name));
    }
    void AddAll(std::initializer_list<std::u16string_view> names) {
        for (const std::u16string_view name : names) Add(name);
        fRecorder.Lines.clear();
    }
    [[nodiscard]] TLines Names() const { return NamesOf(fList.get()); }
    void TearDown() override {
        fRecorder.OnNote = nullptr;
        EXPECT_TRUE(fList->IsConsistent());
    }

    TRecorder fRecorder;
    TOwned<TRecording<TKdsItem>> fRoot;
    TOwned<TKdsNameList> fList;
};

// ---- Travel -------------------------------------------------------------------------------

TEST(TKdsItemTest, TravelsUpThroughTheOwnersAndDownIntoBroadcastingListsInOrder) {
    TRecorder recorder;
    auto outer = TRecording<TKdsNameList>::Create(&recorder, nullptr, true, true);
    auto* const a = outer->Append(TRecording<TKdsName>::Create(&recorder, nullptr, u"a"));
    outer->Append(TRecording<TKdsName>::Create(&recorder, nullptr, u"b"))->RecordHandle();
    a->RecordHandle();
    recorder.Lines.clear();

    a->SetName(u"A");

    // Each level acts before the one above it, and what is turned at the top reaches everybody.
    EXPECT_EQ(recorder.Take(),
              (TLines{"acPrepareRename A @0", "acPrepareRename A @0", "A < acPrepareRename A @0",
                      "b < acPrepareRename A @0", "acConfirmRename A @0", "acConfirmRename A @0",
                      "A < acConfirmRename A @0", "b < acConfirmRename A @0"}));
}

TEST_F(TNameListTest, AnnouncesInsertionAndDeletionBeforeAndAfter) {
    AddAll({u"a", u"c"});
    fList->Insert(1, TKdsName::Create(nullptr, u"b"));
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareInsert b @1", "acConfirmInsert b @1"}));
    fList->Move(0, 2);
    EXPECT_EQ(Names(), (TLines{"b", "c", "a"}));
    fList->Move(2, 0);
    EXPECT_EQ(Names(), (TLines{"a", "b", "c"}));
    EXPECT_EQ(fRecorder.Take(), TLines{});  // nobody is told
    // An element that ends itself leaves its list first.
    fList->Items(0)->Free();
    EXPECT_EQ(fRecorder.Take(),
              (TLines{"acPrepareDelete a @0", "acConfirmDelete a @0", "acObjectDestroy a @0"}));
    fList->Clear();
    // A deleted one has no owner any more, so its own end is heard by nobody but itself.
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareDelete c @1", "acConfirmDelete c @1",
                                        "acPrepareDelete b @0", "acConfirmDelete b @0"}));
}

// ---- Refusals -----------------------------------------------------------------------------

TEST_F(TNameListTest, ARefusedChangeLeavesEverythingAsItWas) {
    AddAll({u"a", u"b"});
    TKdsItem* const a = fList->Items(0);
    TOwned<TKdsName> c = TKdsName::Create(nullptr, u"c");

    fRecorder.Refuse(acPrepareInsert);
    EXPECT_EQ(Refusal([&] { fList->Insert(1, std::move(c)); }), "refused");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->Owner(), nullptr);

    fRecorder.Refuse(acPrepareDelete);
    EXPECT_EQ(Refusal([&] { fList->Delete(0); }), "refused");
    EXPECT_EQ(Refusal([&] { fList->Clear(); }), "refused");
    EXPECT_EQ(Refusal([&] { a->Free(); }), "refused");
    EXPECT_EQ(a->Owner(), fList.get());

    fRecorder.Refuse(acPrepareRename);
    EXPECT_EQ(Refusal([&] { fList->ItemByName(u"a")->SetName(u"z"); }), "refused");
    EXPECT_EQ(Names(), (TLines{"a", "b"}));
}

TEST_F(TNameListTest, AChangeThatStandsIsCompletedBeforeItsErrorIsRaised) {
    AddAll({u"a"});
    TOwned<TKdsName> b = TKdsName::Create(nullptr, u"b");

    fRecorder.Refuse(acConfirmInsert);
    EXPECT_EQ(Refusal([&] { fList->Append(std::move(b)); }), "refused");
    EXPECT_EQ(b, nullptr);  // the list has it
    EXPECT_EQ(fList->Items(1)->Owner(), fList.get());

    fRecorder.Refuse(acConfirmRename);
    EXPECT_EQ(Refusal([&] { fList->ItemByName(u"b")->SetName(u"B2"); }), "refused");
    EXPECT_EQ(Names(), (TLines{"a", "B2"}));

    fRecorder.Refuse(acConfirmDelete);
    EXPECT_EQ(Refusal([&] { fList->Delete(0); }), "refused");
    EXPECT_EQ(Refusal([&] { fList->Items(0)->Free(); }), "refused");  // heard too late
    EXPECT_EQ(Names(), TLines{});
}

TEST_F(TNameListTest, RefusesWhatItCannotHold) {
    AddAll({u"a"});
    const TOwned<TKdsNameList> other = TKdsNameList::Create(nullptr, true, false);
    TOwned<TKdsName> owned = TKdsName::Create(nullptr, u"b");
    const auto bare = TOpenList::Create();

    EXPECT_THROW(fList->Insert(2, std::move(owned)), EListError);
    EXPECT_THROW(fList->Insert(-1, std::move(owned)), EListError);
    EXPECT_THROW(fList->Append(TOwned<TKdsName>()), EInvalidArgument);
    EXPECT_THROW(fList->Append(owned.get()), EInvalidArgument);  // it would not own it
    EXPECT_THROW(bare->Append(std::move(owned)), EInvalidArgument);
    EXPECT_THROW(bare->Append(static_cast<TKdsItem*>(nullptr)), EInvalidArgument);
    TOwned<TKdsName> foreign(static_cast<TKdsName*>(fList->Items(0)));
    EXPECT_THROW(other->Append(std::move(foreign)), EInvalidArgument);
    EXPECT_THROW(fList->Append(std::move(foreign)), EInvalidArgument);
    (void)foreign.release();
    EXPECT_THROW(fList->Delete(1), EListError);
    EXPECT_THROW(fList->Move(0, 1), EListError);
    EXPECT_THROW((void)fList->Items(1), EListError);
    EXPECT_EQ(fRecorder.Take(), TLines{});
    EXPECT_NE(owned, nullptr);
}

// ---- Receivers that change the list -------------------------------------------------------

TEST_F(TNameListTest, FindsItsPlaceAgainWhenReceiversMoveTheOthers) {
    AddAll({u"a", u"b", u"c"});
    bool acts = true;
    const auto once = [&](TKdsAction action, auto act) {
        acts = true;
        fRecorder.OnNote = [&, action, act](const TNotification& n) {
            if (n.Action == action && std::exchange(acts, false)) act();
        };
    };

    once(acPrepareDelete, [&] { fList->Delete(0); });
    fList->Delete(1);  // b, which stands at 0 by then
    EXPECT_EQ(Names(), (TLines{"c"}));

    once(acPrepareDelete, [&] { fList->Delete(0); });
    fList->Delete(0);  // a receiver was faster
    EXPECT_EQ(Names(), TLines{});

    AddAll({u"d"});
    once(acPrepareInsert, [&] { fList->Clear(); });
    fList->Append(TKdsName::Create(nullptr, u"e"));
    EXPECT_EQ(Names(), (TLines{"e"}));
}

// A list of four that broadcasts, and what it meets when "b" hears of a status.
class TBroadcastTest : public testing::Test {
protected:
    TBroadcastTest() {
        for (const char16_t* const name : {u"a", u"b", u"c", u"d"}) {
            fList->Append(TRecording<TKdsName>::Create(&fRecorder, nullptr, name))->RecordHandle();
        }
    }
    template <typename F>
    std::string Broadcast(F&& act) {
        fRecorder.Lines.clear();
        bool acts = true;
        fRecorder.OnNote = [&](const TNotification&) {
            if (fRecorder.Lines.back().starts_with("b <") && std::exchange(acts, false)) act();
        };
        fList->Notify(acStatusChanged, nullptr, 0);
        fRecorder.OnNote = nullptr;
        std::string heard;
        for (const std::string& line : fRecorder.Lines) {
            if (line.find("< acStatus") != std::string::npos) heard += line[0];
        }
        return heard;
    }
    TRecorder fRecorder;
    TOwned<TRecording<TKdsNameList>> fList =
        TRecording<TKdsNameList>::Create(&fRecorder, nullptr, true, true);
};

TEST_F(TBroadcastTest, ReachesEveryElementThatWasThereAndStillIs) {
    const auto insert = [&](std::int32_t index, std::u16string_view name) {
        fList->Insert(index, TKdsName::Create(nullptr, name));
    };
    EXPECT_EQ(Broadcast([&] { insert(0, u"0"); }), "abcd");
    EXPECT_EQ(Broadcast([&] { insert(4, u"1"); }), "abcd");
    EXPECT_EQ(Broadcast([&] { insert(6, u"2"); }), "abcd");
    EXPECT_EQ(Broadcast([&] { fList->Delete(0); }), "abcd");
    EXPECT_EQ(Broadcast([&] { fList->Remove(fList->FindByName(u"c")); }), "abd");
    EXPECT_EQ(Broadcast([&] { fList->FindByName(u"b")->Free(); }), "abd");
}

TEST_F(TBroadcastTest, EndsWhenAnElementEndsTheList) {
    EXPECT_EQ(Broadcast([&] { fList.reset(); }), "ab");
}

// ---- Capacity -----------------------------------------------------------------------------

TEST(TKdsListTest, GrowsBySixteenWhileSmallThenByAQuarterWithinItsMaximum) {
    const auto list = TOpenList::Create();
    const TOwned<TKdsItem> item = TKdsItem::Create(nullptr);
    list->SetMaximumCapacity(115);
    std::vector<std::int32_t> limits;
    while (list->Count() < 115) {
        list->Append(item.get());
        if (limits.empty() || limits.back() != list->Limit()) limits.push_back(list->Limit());
    }
    EXPECT_EQ(limits, (std::vector<std::int32_t>{16, 32, 48, 64, 80, 100, 115}));
    EXPECT_EQ(Refusal([&] { list->Append(item.get()); }), "List size limit exceeded");
    EXPECT_EQ(list->Count(), 115);
    EXPECT_TRUE(list->IsConsistent());
    list->Clear();
    EXPECT_EQ(list->Limit(), 0);
}

// From, elements, to: whether the writer refuses. Going back to unlimited counts as lowering, and
// a limit that is raised is not compared with the count.
TEST(TKdsListTest, RefusesAMaximumThatItReadsAsTooLow) {
    struct TCase {
        std::int32_t From, Elements, To;
        bool Refused;
        std::int32_t Limit;
    };
    for (const TCase& c :
         {TCase{0, 3, 2, true, 16}, TCase{0, 3, 3, false, 3}, TCase{5, 3, 0, true, 5},
          TCase{5, 3, 2, true, 5}, TCase{5, 3, 4, false, 4}, TCase{5, 3, 9, false, 5},
          TCase{5, 0, 0, false, 0}, TCase{0, 0, -1, true, 0}, TCase{5, 0, -1, true, 0},
          TCase{5, 3, 5, false, 5}}) {
        SCOPED_TRACE(testing::Message() << c.From << " " << c.Elements << " " << c.To);
        const auto list = TOpenList::Create();
        const TOwned<TKdsItem> item = TKdsItem::Create(nullptr);
        list->SetMaximumCapacity(c.From);
        for (int i = 0; i < c.Elements; ++i) list->Append(item.get());
        EXPECT_EQ(Refusal([&] { list->SetMaximumCapacity(c.To); }),
                  c.Refused ? "Current capacity exceeds Maximum" : "nothing raised");
        EXPECT_EQ(list->MaximumCapacity(), c.Refused ? c.From : c.To);
        EXPECT_EQ(list->Limit(), c.Limit);
        EXPECT_TRUE(list->IsConsistent());
    }
}

TEST_F(TNameListTest, EnumeratesForwardOverWhatComesAndInReverseOverWhatIsLeft) {
    EXPECT_FALSE(fList->GetEnumerator(ledReverse)->MoveNext());
    AddAll({u"a", u"b", u"c"});
    const auto forward = fList->GetEnumerator(ledForward);
    const auto reverse = fList->GetEnumerator(ledReverse);
    EXPECT_EQ(forward->GetCurrent(), nullptr);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(forward->MoveNext());
    Add(u"d");
    EXPECT_TRUE(forward->MoveNext());
    EXPECT_EQ(forward->GetCurrent(), fList->FindByName(u"d"));
    EXPECT_FALSE(forward->MoveNext());
    for (const std::int32_t index : {3, 2}) fList->Delete(index);
    EXPECT_TRUE(reverse->MoveNext());
    EXPECT_EQ(reverse->GetCurrent(), fList->FindByName(u"b"));
    fList->Clear();
    EXPECT_EQ(reverse->GetCurrent(), nullptr);
    fList.reset();
    EXPECT_FALSE(reverse->MoveNext());
    fList = TKdsNameList::Create(fRoot.get(), true, false);
}

// ---- Names --------------------------------------------------------------------------------

TEST_F(TNameListTest, KnowsNamesInAnyCaseAndRefusesTwins) {
    AddAll({u"Table", u"table_0", u"Ärger"});

    EXPECT_EQ(fList->GenerateName(u"Table"), u"Table_1");
    EXPECT_EQ(fList->GenerateName(u"Free"), u"Free");
    EXPECT_EQ(fList->IndexOfName(u"äRGER"), 2);
    EXPECT_EQ(Refusal([&] { (void)fList->ItemByName(u"none"); }), "Item named \"none\" not found");
    EXPECT_EQ(Refusal([&] { Add(u"TABLE"); }), "Duplicate item name \"TABLE\"");
    TKdsName* const table = fList->ItemByName(u"table");
    EXPECT_EQ(Refusal([&] { table->SetName(u"TABLE_0"); }), "Duplicate item name \"TABLE_0\"");
    EXPECT_EQ(table->Name(), u"Table");
    fRecorder.Lines.clear();
    table->SetName(u"Table");
    EXPECT_EQ(fRecorder.Take(), TLines{});
    table->SetName(u"TABLE");
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareRename TABLE @0", "acConfirmRename TABLE @0"}));
    AddAll({u"a", u"Ω", u"ä"});
    fList->ItemByName(u"ä")->SetName(u"B");
    fList->Sort();
    EXPECT_EQ(Names(), (TLines{"a", "B", "TABLE", "table_0", "Ärger", "Ω"}));
}

// ---- Active items -------------------------------------------------------------------------

class TProbe final : public TKdsActiveItem {
public:
    [[nodiscard]] static TOwned<TProbe> Create(TLines* lines, std::u16string_view name) {
        return TOwned<TProbe>(new TProbe(lines, name));
    }
    void Prepare() override {
        fLines->push_back("prepare " + support::NameOf(this));
        if (Fails) throw EKdsError(u"cannot prepare");
    }
    void Dismiss() override { fLines->push_back("dismiss " + support::NameOf(this)); }
    bool Fails = false;

private:
    TProbe(TLines* lines, std::u16string_view name)
        : TKdsActiveItem(nullptr, name), fLines(lines) {}
    ~TProbe() override = default;
    TLines* fLines;
};

class TActiveTest : public testing::Test {
protected:
    TActiveTest()
        : fTable(TRecording<TKdsTable>::Create(&fRecorder, u"T")),
          fList(TKdsActiveList::Create(fTable.get())) {}
    TProbe* Add(std::u16string_view name, bool active = true) {
        TOwned<TProbe> probe = TProbe::Create(&fRecorder.Lines, name);
        probe->SetActive(active);
        return fList->Append(std::move(probe));
    }

    TRecorder fRecorder;
    TOwned<TRecording<TKdsTable>> fTable;
    TOwned<TKdsActiveList> fList;
};

TEST_F(TActiveTest, IsPreparedExactlyWhileItIsWantedAndItsGroupIsOn) {
    TProbe* const a = Add(u"a");
    EXPECT_EQ(fRecorder.Take(), (TLines{"acPrepareInsert a @0", "prepare a", "acStatusChanged a @0",
                                        "acConfirmInsert a @0"}));
    TProbe* const b = Add(u"b", /*active=*/false);
    fRecorder.Lines.clear();

    b->Refresh();
    b->Update();
    EXPECT_EQ(fRecorder.Take(), TLines{});
    a->Refresh();
    EXPECT_EQ(fRecorder.Take(), (TLines{"dismiss a", "prepare a", "acStatusChanged a @0"}));
    fList->SetActive(false);
    EXPECT_EQ(fRecorder.Take(), (TLines{"dismiss a", "acStatusChanged a @0"}));
    EXPECT_TRUE(a->Active());
    b->SetActive(true);
    EXPECT_EQ(fRecorder.Take(), TLines{});
    fList->SetActive(true);
    EXPECT_EQ(fRecorder.Take(),
              (TLines{"prepare a", "acStatusChanged a @0", "prepare b", "acStatusChanged b @0"}));
    fList->Delete(0);
    EXPECT_EQ(fRecorder.Take(), (TLines{"dismiss a", "acStatusChanged a @0", "acPrepareDelete a @0",
                                        "acConfirmDelete a @0"}));
    fList->Clear();
    EXPECT_EQ(fRecorder.Take(), (TLines{"dismiss b", "acStatusChanged b @0", "acPrepareDelete b @0",
                                        "acConfirmDelete b @0"}));
}

TEST_F(TActiveTest, AFailedPreparationLeavesItDismissedAndWanted) {
    TProbe* const a = Add(u"a");
    a->Fails = true;
    fRecorder.Lines.clear();
    EXPECT_EQ(Refusal([&] { a->Refresh(); }), "cannot prepare");
    EXPECT_EQ(fRecorder.Take(),
              (TLines{"dismiss a", "prepare a", "dismiss a", "acStatusChanged a @0"}));
    // The others are brought up to date all the same.
    TProbe* const b = Add(u"b");
    fList->SetActive(false);
    EXPECT_EQ(Refusal([&] { fList->SetActive(true); }), "cannot prepare");
    EXPECT_TRUE(b->Actual());
    a->Fails = false;
    a->Update();
    EXPECT_TRUE(a->Actual());

    // A refused deletion takes it into use again.
    for (const TKdsAction refused : {acPrepareDelete, acStatusChanged}) {
        fRecorder.Refuse(refused);
        EXPECT_EQ(Refusal([&] { fList->Delete(0); }), "refused");
        EXPECT_TRUE(a->Active() && a->Actual());
        EXPECT_EQ(a->Group(), fList.get());
    }
    fRecorder.OnNote = nullptr;
    fRecorder.Lines.clear();
    fList.reset();
    EXPECT_EQ(fRecorder.Lines.front(), "acObjectDestroy list @0");
    EXPECT_EQ(fRecorder.Lines[1], "dismiss a");
}

}  // namespace
}  // namespace kds
