// Mirrors that follow views by change lists alone.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kds/kds.h"
#include "tests/support/Allocfail.h"
#include "tests/views/Changenotes.h"

namespace kds {
namespace {

// Rows r0 to r3 with quantities 10 to 40, and a view by quantity.
class TChangesTest : public testing::Test {
protected:
    TChangesTest() {
        fStore = TKdsStore::Create(u"Changes");
        fTable = fStore->Tables()->Add(u"T");
        fTable->Columns()->Add(u"Id", dtInt64);
        fTable->Columns()->Add(u"Qty", dtInteger);
        fTable->Columns()->Add(u"Note", dtInteger);
        fTable->SetPrimaryKey(u"Id");
        for (int i = 0; i < 4; ++i) fTable->Insert({i, 10 * (i + 1), 0});
        fView = fTable->Select(u"Qty");
    }
    ~TChangesTest() override {
        if (fStore == nullptr) return;
        if (fTable != nullptr) {
            EXPECT_EQ(fTable->Inconsistency(), nullptr);
        }
        fStore->Free();
    }
    [[nodiscard]] TKdsRecord* Row(std::int64_t id) { return fTable->Records()->Find({id}); }
    static void Post(TKdsRecord* record, std::int32_t column, std::int32_t value) {
        TKdsEdit edit(record);
        record->SetDataI(column, value);
        edit.Post();
    }
    void Set(std::int64_t id, std::int32_t column, std::int32_t value) {
        Post(Row(id), column, value);
    }
    void Insert(std::int64_t id, std::int32_t qty) { fTable->Insert({id, qty, 0}); }

    TKdsStore* fStore;
    TKdsTable* fTable;
    TKdsView* fView;
};

// ---- What is written ----------------------------------------------------------------------

struct TScriptCase {
    const char* Name;
    // In one batch: "q1=35" and "n1=5" post, "+9=35" inserts, "-1" deletes the row with that Id;
    // "*" attaches another link.
    const char* Script;
    const char* Together;
    const char* Exact;  // nullptr: the same
};
const TScriptCase ScriptCases[] = {
    {"Nothing", "", "", nullptr},
    {"PostWithoutChange", "q1=20 n1=0", "", nullptr},
    {"Insert", "+9=25", "i2 r4", nullptr},
    {"Delete", "-1", "d1 r1", nullptr},
    {"UpdateInPlace", "q1=25", "u1 r1 [1]", nullptr},
    {"UpdateElsewhere", "n1=5", "u1 r1 [2]", nullptr},
    {"MoveDown", "q0=35", "m0>2 r0 [1]", nullptr},
    {"MoveUp", "q3=15", "m3>1 r3 [1]", nullptr},
    {"UpdatedUpdated", "n1=5 q1=25", "u1 r1 [12]", "u1 r1 [2], u1 r1 [1]"},
    {"InsertedUpdated", "+9=25 n9=5", "i2 r4", "i2 r4, u2 r4 [2]"},
    {"InsertedMoved", "+9=25 q9=5", "i0 r4", "i2 r4, m2>0 r4 [1]"},
    {"InsertedRemoved", "+9=25 -9", "", "i2 r4, d2 r4"},
    {"InsertedMovedRemoved", "+9=25 q9=5 -9", "", "i2 r4, m2>0 r4 [1], d0 r4"},
    {"MovedMoved", "q0=35 q0=25", "m0>1 r0 [1]", "m0>2 r0 [1], m2>1 r0 [1]"},
    {"MovedAndBack", "q0=35 q0=5", "u0 r0 [1]", "m0>2 r0 [1], m2>0 r0 [1]"},
    {"UpdatedMovedAndBack", "n0=1 q0=35 q0=5", "u0 r0 [12]", "u0 r0 [2], m0>2 r0 [1], m2>0 r0 [1]"},
    {"MovedRemoved", "q0=35 -0", "d0 r0", "m0>2 r0 [1], d2 r0"},
    {"UpdatedMoved", "n0=1 q0=35", "u0 r0 [2], m0>2 r0 [1]", nullptr},
    {"MovedUpdated", "q0=35 n0=1", "m0>2 r0 [1], u2 r0 [2]", nullptr},
    {"UpdatedRemoved", "n1=5 -1", "u1 r1 [2], d1 r1", nullptr},
    {"RemovedInserted", "-1 +1=20", "d1 r1, i1 r4", nullptr},
    {"OtherRowBetween", "n1=5 n2=5 n1=6", "u1 r1 [2], u2 r2 [2], u1 r1 [2]", nullptr},
    {"NothingBetween", "n1=5 +9=25 -9 q1=22", "u1 r1 [12]", "u1 r1 [2], i2 r4, d2 r4, u1 r1 [1]"},
    {"LinkBetween", "+9=25 * -9", "i2 r4, d2 r4", nullptr},
    {"LinkBetweenUpdates", "n0=1 * q0=35 q0=5", "u0 r0 [2], u0 r0 [1]",
     "u0 r0 [2], m0>2 r0 [1], m2>0 r0 [1]"},
};

class TChangesScriptTest : public TChangesTest, public testing::WithParamInterface<TScriptCase> {
protected:
    void Run(const std::string& script) {
        std::istringstream steps(script);
        for (std::string step; steps >> step;) {
            if (step == "*") {
                fThird.SetView(fView);
                continue;
            }
            const std::int64_t id = step[1] - '0';
            const int value = step.size() > 3 ? std::stoi(step.substr(3)) : 0;
            switch (step[0]) {
                case 'q': Set(id, 1, value); break;
                case 'n': Set(id, 2, value); break;
                case '+': Insert(id, value); break;
                default: fTable->Delete({id});
            }
        }
    }
    TNotes fThird;
};

TEST_P(TChangesScriptTest, WritesWhatHappensAndPutsTogetherWhatMayBe) {
    const auto& [name, script, together, exact] = GetParam();
    TNotes joined(fView);
    TNotes log(fView, false);
    const auto list = [](const char* text) { return *text == '\0' ? TLines() : TLines{text}; };
    {
        const TKdsChangeBracket batch(fTable);
        Run(script);
        EXPECT_EQ(joined.Take(), TLines()) << "before the batch has ended";
    }
    EXPECT_EQ(joined.Take(), list(together));
    EXPECT_EQ(log.Take(), list(exact == nullptr ? together : exact));
    EXPECT_TRUE(joined.Agrees());
    EXPECT_TRUE(log.Agrees());
    EXPECT_TRUE(fThird.Agrees());
}

INSTANTIATE_TEST_SUITE_P(Scripts, TChangesScriptTest, testing::ValuesIn(ScriptCases),
                         [](const auto& tested) { return std::string(tested.param.Name); });

TEST_F(TChangesTest, AnUploadsBracketIsOneListAndOthersRebuild) {
    TNotes notes(fView);
    {
        TKdsLoad load(fTable, mtsUploads);
        Insert(9, 25);
        Set(0, 1, 35);
        fTable->Delete({9});
        EXPECT_EQ(notes.Take(), TLines());
        EXPECT_EQ(fTable->Inconsistency(), nullptr);
        load.Leave();
    }
    EXPECT_EQ(notes.Take(), TLines{"i2 r4, m0>3 r0 [1], d1 r4"});
    Insert(9, 25);
    EXPECT_EQ(notes.Take(), TLines{"i1 r5"});
    TKdsLoad load(fTable, mtsMassive);
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 0"});
    Insert(8, 22);
    load.Leave();
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 6"});
    EXPECT_TRUE(notes.Agrees());
    fView->Refresh();
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 6"});
    fView->SetOrderBy(u"Qty desc");
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 6"});
    EXPECT_TRUE(notes.Agrees());
    fView->SetActive(false);
    fView->SetActive(true);
    EXPECT_EQ(notes.Take(), (TLines{"rebuilt 0", "rebuilt 6"}));
    {
        const TKdsChangeBracket batch(fTable);
        Set(0, 1, 1);
        fView->Refresh();
        Set(0, 1, 2);
    }
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 6"});
    fTable->Clear();
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 0"});
}

TEST_F(TChangesTest, RowsJoinAndLeaveByTheFilter) {
    TKdsView* const view = fTable->SelectA(u"Id", u"", AcceptWhen([](TKdsRecord* record) {
                                               return VarToInt64(record->GetDataI(1)) >= 20;
                                           }));
    TNotes notes(view);
    Set(0, 1, 50);
    Set(0, 1, 60);
    Set(0, 1, 5);
    Set(0, 1, 6);
    EXPECT_EQ(notes.Take(), (TLines{"i0 r0", "u0 r0 [1]", "d0 r0"}));
}

TEST_F(TChangesTest, EditsCancelsAndRefusedOperationsWriteNothing) {
    TNotes notes(fView);
    TKdsRecord* const row = Row(1);
    row->Edit();
    row->SetDataI(1, 99);
    row->Cancel();
    EXPECT_ANY_THROW(Insert(2, 25));
    row->Edit();
    row->SetDataI(0, std::int64_t{2});
    EXPECT_ANY_THROW(row->Post());
    row->Cancel();
    EXPECT_ANY_THROW(fView->SetOrderBy(u"Nobody"));
    EXPECT_EQ(notes.Take(), TLines());
}

TEST_F(TChangesTest, AViewThatCannotPlaceARowIsRebuilt) {
    bool raises = false;
    TKdsView* const view = fTable->SelectA(u"Id", u"", AcceptWhen([&](TKdsRecord*) {
                                               if (raises) throw EKdsError(u"accept");
                                               return true;
                                           }));
    TNotes notes(view);
    raises = true;
    EXPECT_EQ(support::Refusal([&] { Set(0, 1, 50); }), "accept");
    raises = false;
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 0"});
    view->Update();
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 4"});
    EXPECT_TRUE(notes.Agrees());
}

TEST_F(TChangesTest, WhatMayHaveChangedCountsAsChanged) {
    fTable->Clear();
    // More columns than a word has bits; the last one is computed on every read.
    for (int i = 0; i < 80; ++i) {
        fTable->Columns()->Add(u"C" + ToUtf16(std::to_string(i)), dtInteger);
    }
    fTable->Columns()->Items(82)->SetCalculated(true, /*stored=*/false);
    TKdsRecord* const row = fTable->Insert({1, 2, 3});
    std::vector<int> changed;
    bool first = true;
    TNotes notes(fView);
    notes.OnList = [&](const TKdsChangeList& list) {
        for (int i = 0; i < 90; ++i) {
            if (list.Entries.front().Columns.Has(i)) changed.push_back(i);
        }
        first = false;
    };
    {
        const TKdsChangeBracket batch(fTable);
        Post(row, 5, 1);
        Post(row, 70, 1);
    }
    EXPECT_FALSE(first);
    EXPECT_EQ(changed, (std::vector<int>{5, 70, 82}));
}

TEST_F(TChangesTest, TheLongestLogIsAsLongAsTheView) {
    TNotes notes(fView);
    TNotes exact(fView, false);
    const auto post = [&](int count, bool alternating) {
        const TKdsChangeBracket batch(fTable);
        for (int i = 0; i < count; ++i) Set(alternating ? i % 2 : 0, 2, fTable->Version());
    };
    const auto size = [](TNotes& link) {
        const TLines lists = link.Take();
        EXPECT_EQ(lists.size(), 1u);
        return lists.at(0) == "rebuilt 4" ? -1 : std::ranges::count(lists.at(0), 'u');
    };
    post(1024, true);
    EXPECT_EQ(size(notes), 1024);
    post(1025, true);
    EXPECT_EQ(size(notes), -1);
    exact.Take();
    post(2000, false);
    EXPECT_EQ(size(notes), 1);
    EXPECT_EQ(size(exact), -1);
    EXPECT_TRUE(exact.Agrees());
}

TEST_F(TChangesTest, LinksHearAfterTheEventsAndOutsideOfBrackets) {
    std::string order;
    auto onEvent = [&](TKdsView*, TKdsEvent*) { order += 'e'; };
    TKdsViewHandler handler(TKdsViewEvent::BindCall(&onEvent));
    handler.SetView(fView);
    order.clear();
    auto onChanges = [&](TKdsView* view, const TKdsChangeList& list) {
        EXPECT_EQ(view, list.View);
        EXPECT_FALSE(fTable->InBracket());
        order += 'c';
    };
    TKdsChangeHandler changes(TKdsChangeEvent::BindCall(&onChanges));
    changes.SetView(fView);
    EXPECT_EQ(std::exchange(order, {}), "c");
    {
        const TKdsChangeBracket batch(fTable);
        Set(0, 2, 1);
        Set(1, 2, 1);
    }
    EXPECT_EQ(order, "eec");
}

// ---- Links that change things -------------------------------------------------------------

TEST_F(TChangesTest, ChangesFromInsideMakeLaterLists) {
    TNotes first(fView);
    TNotes second(fView);
    TNotes other;
    TKdsTable* const table = fStore->Tables()->Add(u"U");
    table->Columns()->Add(u"Id", dtInt64);
    table->SetPrimaryKey(u"Id");
    first.OnList = [&](const TKdsChangeList& list) {
        first.OnList = nullptr;
        TKdsRecord* const removed = list.Entries.front().Record;
        fTable->Delete({2});
        fTable->Delete({0});
        other.SetView(table->PrimaryView());
        table->Insert({1});
        table->Delete({1});
        EXPECT_EQ(VarToInt64(removed->GetDataI(1)), 20);
        EXPECT_EQ(second.Take(), TLines());
    };
    std::int64_t sum = 0;
    second.OnList = [&](const TKdsChangeList& list) {
        for (const TKdsChange& change : list) sum += VarToInt64(change.Record->GetDataI(1));
    };
    fTable->Delete({1});
    EXPECT_EQ(first.Take(), (TLines{"d1 r1", "d1 r2", "d0 r0"}));
    EXPECT_EQ(second.Take(), (TLines{"d1 r1", "d1 r2", "d0 r0"}));
    EXPECT_EQ(sum, 20 + 30 + 10);
    EXPECT_EQ(other.Take(), (TLines{"rebuilt 0", "i0 r0", "d0 r0"}));
    EXPECT_EQ(table->Inconsistency(), nullptr);
}

TEST_F(TChangesTest, ALinkThatRaisesGetsANewStartAndTheOthersGoOn) {
    TNotes first(fView);
    TNotes second(fView);
    first.OnList = [&](const TKdsChangeList& list) {
        if (list.IsRebuilt()) return;
        Set(1, 2, fTable->Version());
        throw EKdsError(u"first");
    };
    int left = 1;
    second.OnList = [&](const TKdsChangeList&) {
        if (left-- > 0) throw EKdsError(u"second");
    };
    EXPECT_EQ(support::Refusal([&] { Set(0, 1, 35); }), "first");
    EXPECT_EQ(first.Take(), (TLines{"m0>2 r0 [1]", "rebuilt 4"}));
    EXPECT_EQ(second.Take(), (TLines{"m0>2 r0 [1]", "rebuilt 4"}));
    // One that always raises is called once more for each operation and stays behind.
    first.OnList = [&](const TKdsChangeList&) { throw EKdsError(u"always"); };
    for (int i = 1; i < 3; ++i) {
        EXPECT_EQ(support::Refusal([&] { Set(2, 1, 100 + i); }), "always");
    }
    EXPECT_EQ(first.Take(), (TLines{"m1>3 r2 [1]", "rebuilt 4", "rebuilt 4"}));
    EXPECT_EQ(second.Take(), (TLines{"m1>3 r2 [1]", "u3 r2 [1]"}));
    first.OnList = nullptr;
    Set(2, 2, 77);
    EXPECT_EQ(first.Take(), TLines{"rebuilt 4"});
    Set(2, 2, 78);
    EXPECT_EQ(first.Take(), TLines{"u3 r2 [2]"});
    EXPECT_TRUE(first.Agrees());
}

TEST_F(TChangesTest, ALinkBeginsAnewWhereverItIsAttached) {
    TNotes first(fView);
    TNotes second;
    {
        TKdsLoad load(fTable, mtsUploads);
        Set(0, 1, 35);
        second.SetView(fView);
        Set(1, 1, 36);
        load.Leave();
    }
    EXPECT_EQ(first.Take(), TLines{"m0>2 r0 [1], m0>2 r1 [1]"});
    EXPECT_EQ(second.Take(), (TLines{"rebuilt 4", "m0>2 r1 [1]"}));
    first.OnList = [&](const TKdsChangeList& list) {
        if (list.IsRebuilt()) return;
        first.OnList = nullptr;
        second.SetView(nullptr);
        second.SetView(fView);
        first.SetCoalesces(false);
        Set(2, 2, 5);
    };
    Set(3, 2, 5);
    EXPECT_EQ(first.Take(), (TLines{"u3 r3 [2]", "rebuilt 4", "u0 r2 [2]"}));
    EXPECT_EQ(second.Take(), (TLines{"rebuilt 4", "u0 r2 [2]"}));
    second.SetView(nullptr);
    EXPECT_EQ(second.Take(), TLines{"rebuilt 0"});
    Set(3, 2, 6);
    EXPECT_EQ(second.Take(), TLines());
}

// What a link ends from inside a call. Every case runs with the change made in a batch, so that
// another list waits, and without.
enum class TVictim { Itself, Later, Earlier, View, Table, Store, Record };
struct TEndCase {
    const char* Name;
    TVictim Victim;
};
class TChangesEndTest : public TChangesTest, public testing::WithParamInterface<TEndCase> {};

TEST_P(TChangesEndTest, NothingDangles) {
    for (const bool raises : {false, true}) {
        const TOwned<TKdsStore> store(raises ? TKdsStore::Create(u"Again") : nullptr);
        auto first = std::make_unique<TNotes>(fView);
        auto acting = std::make_unique<TNotes>(fView);
        auto last = std::make_unique<TNotes>(fView);
        TKdsRecord* const row = Row(1);
        acting->OnList = [&](const TKdsChangeList& list) {
            if (list.Entries.front().Kind != ckUpdated) return;
            fTable->Delete({3});  // waits
            switch (GetParam().Victim) {
                case TVictim::Itself: acting.reset(); break;
                case TVictim::Later: last.reset(); break;
                case TVictim::Earlier: first.reset(); break;
                case TVictim::View: std::exchange(fView, nullptr)->Free(); break;
                case TVictim::Table: std::exchange(fTable, nullptr)->Free(); break;
                case TVictim::Store:
                    fTable = nullptr;
                    std::exchange(fStore, nullptr)->Free();
                    break;
                case TVictim::Record: row->Free(); EXPECT_EQ(list.Entries.front().Record, nullptr);
            }
            if (raises) throw EKdsError(u"and raises");
        };
        if (raises) {
            EXPECT_EQ(support::Refusal([&] { Post(row, 2, 5); }), "and raises");
        } else {
            Post(row, 2, 6);
        }
        for (const auto& link : {first.get(), acting.get(), last.get()}) {
            if (link == nullptr) continue;
            EXPECT_TRUE(link->Agrees());
            if (fTable == nullptr || fView == nullptr) {
                EXPECT_EQ(link->View(), nullptr);
                EXPECT_EQ(link->Take().back(), "rebuilt 0");
            }
        }
        if (fTable == nullptr || fView == nullptr) return;
        if (Row(3) == nullptr) Insert(3, 40);
        if (Row(1) == nullptr) Insert(1, 20);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Victims, TChangesEndTest,
    testing::Values(TEndCase{"Itself", TVictim::Itself}, TEndCase{"Later", TVictim::Later},
                    TEndCase{"Earlier", TVictim::Earlier}, TEndCase{"View", TVictim::View},
                    TEndCase{"Table", TVictim::Table}, TEndCase{"Store", TVictim::Store},
                    TEndCase{"Record", TVictim::Record}),
    [](const auto& tested) { return std::string(tested.param.Name); });

TEST_F(TChangesTest, AViewThatEndsWhileListsWaitLeavesItsLinksEmpty) {
    TNotes notes(fView);
    {
        const TKdsChangeBracket batch(fTable);
        Set(0, 2, 1);
        std::exchange(fView, nullptr)->Free();
        EXPECT_EQ(notes.Take(), TLines());
    }
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 0"});
    EXPECT_EQ(notes.View(), nullptr);
    notes.SetView(fTable->PrimaryView());
    EXPECT_EQ(notes.Take(), TLines{"rebuilt 4"});
}

TEST_F(TChangesTest, AViewOrTableThatEndsInAnOpenBracketLeavesEmptyLinks) {
    TNotes early(fTable->PrimaryView());
    TNotes late;
    {
        const TKdsChangeBracket batch(fTable);
        late.SetView(fView);  // its first rows wait
        std::exchange(fView, nullptr)->Free();
    }
    EXPECT_EQ(late.Take(), TLines{"rebuilt 0"});
    fTable->EnterLoad(mtsUploads);
    Set(0, 2, 1);
    std::exchange(fTable, nullptr)->Free();
    EXPECT_EQ(early.Take(), TLines{"rebuilt 0"});
    EXPECT_EQ(early.View(), nullptr);
}

TEST_F(TChangesTest, WhatHandlersOfEventsChangeMakesListsOfItsOwn) {
    TNotes notes(fView);
    bool again = true;
    auto onEvent = [&](TKdsView*, TKdsEvent* event) {
        if (event->Reason == evRecordUpdate && std::exchange(again, false)) Set(1, 2, 5);
    };
    TKdsViewHandler handler(TKdsViewEvent::BindCall(&onEvent));
    handler.SetView(fView);
    Set(0, 1, 35);
    EXPECT_EQ(notes.Take(), (TLines{"m0>2 r0 [1]", "u0 r1 [2]"}));
}

// ---- Without memory -----------------------------------------------------------------------

struct TFollowed {
    explicit TFollowed(TKdsView* view) : Mirror(view), Exact(view, false) {}
    // Writes nothing down, so that every allocation is the library's.
    struct TQuiet : TKdsMirror {
        TQuiet(TKdsView* view, bool coalesces = true) {
            SetCoalesces(coalesces);
            SetView(view);
        }
    };
    TQuiet Mirror, Exact;
};

TEST_F(TChangesTest, MirrorsStayRightWhateverAllocationFails) {
    using TOperation = std::function<void()>;
    const std::vector<std::pair<const char*, TOperation>> operations = {
        {"insert", [&] { Insert(100 + fTable->Version(), 25); }},
        {"move", [&] { Post(fView->Items(0), 1, 50); }},
        {"update", [&] { Post(fView->Items(0), 2, fTable->Version()); }},
        {"delete", [&] { fView->Items(0)->Delete(); }},
        {"batch",
         [&] {
             const TKdsChangeBracket batch(fTable);
             for (int i = 0; i < 3; ++i) Insert(1000 + 10 * fTable->Version() + i, 25);
             fView->Items(1)->Delete();
         }},
        {"refresh", [&] { fView->Refresh(); }},
    };
    for (const auto& [name, operation] : operations) {
        for (const bool andAllAfter : {false, true}) {
            SCOPED_TRACE(name);
            support::FailEachAllocation(
                [&] {
                    while (fTable->Records()->Count() < 5) Insert(5000 + fTable->Version(), 35);
                    return std::make_unique<TFollowed>(fView);
                },
                [&](auto&) { operation(); },
                [&](auto& state, bool) {
                    // With memory again, a lost mirror is mended by whatever happens next.
                    fView->Update();
                    { const TKdsChangeBracket next(fTable); }
                    EXPECT_EQ(state->Mirror.Rows(), RowsOf(fView));
                    EXPECT_EQ(state->Exact.Rows(), RowsOf(fView));
                    EXPECT_EQ(fTable->Inconsistency(), nullptr);
                },
                andAllAfter);
        }
    }
}

}  // namespace
}  // namespace kds
