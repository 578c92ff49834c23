// Routines of the host that change the store while it works: from inside the engine every change
// is refused and the operation goes on as if nothing had been tried; links, which hear of a change
// when it is complete, may do whatever they like.
#include "tests/views/Changenotes.h"
#include "tests/views/Faultscenarios.h"

namespace kds {
namespace {

using support::Difference;
using support::Scenarios;
using support::TFaultWorld;
using support::TLines;
using support::TScenario;
using support::TSpot;

struct TMeddling {
    const char* Name;
    bool AllowedForDeacons;  // it touches no row that views hold
    void (*Do)(TFaultWorld&);
};
using TW = TFaultWorld;

// Rows 8 and 9 are left alone by the scenarios, unless all rows go; row 9 is being edited.
TKdsRecord* RowOf(TFaultWorld& world, std::uint32_t rowID, TKdsRecordState state) {
    TKdsRecord* const record = world.Row(rowID);
    if (record == nullptr || record->RowState() != state) throw EKdsError(u"Not now");
    return record;
}
// A view that the scenario left alive.
TKdsView* Living(TFaultWorld& world, TKdsView* view) {
    if (world.Table->Views()->IndexOf(view) < 0) throw EKdsError(u"Not now");
    return view;
}
TKdsRecord* Eight(TFaultWorld& world) { return RowOf(world, 8, rsRegular); }
TKdsRecord* Nine(TFaultWorld& world) { return RowOf(world, 9, rsEditing); }
const TMeddling Meddlings[] = {
    {"Insert", false, [](TW& w) { w.Table->Insert(w.Values(801)); }},
    {"Add", false, [](TW& w) { w.Table->Records()->Add(w.Table->NewRow(w.Values(801))); }},
    {"Upsert", false, [](TW& w) { w.Table->Upsert(w.Values(80)); }},
    {"DeleteByKey", false, [](TW& w) { w.Table->Delete({80}); }},
    {"Delete", false, [](TW& w) { Eight(w)->Delete(); }},
    {"FreeRow", false, [](TW& w) { Eight(w)->Free(); }},
    {"Extract", false, [](TW& w) { (void)w.Table->Records()->Extract(Eight(w)); }},
    {"DeleteAt", false, [](TW& w) { w.Table->Records()->Delete(0); }},
    {"MoveRow", false, [](TW& w) { w.Table->Records()->Move(0, 5); }},
    {"ClearRows", false, [](TW& w) { w.Table->Records()->Clear(); }},
    {"Edit", true, [](TW& w) { Eight(w)->Edit(); }},
    {"Post", false, [](TW& w) { Nine(w)->Post(); }},
    {"Cancel", true, [](TW& w) { Nine(w)->Cancel(); }},
    {"Clear", false, [](TW& w) { w.Table->Clear(); }},
    {"EnterLoad", false, [](TW& w) { w.Table->EnterLoad(mtsMassive); }},
    {"SetPrimaryKey", false, [](TW& w) { w.Table->SetPrimaryKey(u"Code"); }},
    {"Select", false, [](TW& w) { w.Table->Select(u"Note"); }},
    {"MakeIndex", false, [](TW& w) { w.Table->Views()->MakeIndex(u"Note", {voUnique}); }},
    {"AppendView", false, [](TW& w) { w.Table->Views()->Append(TKdsView::Create(w.Table, u"V")); }},
    {"SetOrderBy", false, [](TW& w) { Living(w, w.ByTag)->SetOrderBy(u"Code"); }},
    {"SetOnAccept", false, [](TW& w) { Living(w, w.ByTag)->SetOnAccept(w.Accepter()); }},
    {"SetOnCompare", false, [](TW& w) { Living(w, w.ByTag)->SetOnCompare(w.Comparer()); }},
    {"SetFilter", false, [](TW& w) { Living(w, w.Marked)->SetFilter(u"Sum > 800"); }},
    {"SetExpression", true, [](TW& w) { w.Table->Columns()->Items(10)->SetExpression(u"Name"); }},
    {"Load", false,
     [](TW& w) {
         TMemoryStream stream;
         w.Table->SaveToStream(stream, /*withStructure=*/false);
         stream.Seek(0);
         w.Table->LoadFromStream(stream);
     }},
    {"Recalculate", false, [](TW& w) { (void)w.Table->Recalculate(); }},
    {"Deactivate", true,
     [](TW& w) {
         // All of them, so that the one at work is among them.
         for (TKdsView* const view : {w.Odd, w.Rich, w.ByTag, w.ByLate, w.ByName})
             Living(w, view)->SetActive(false);
     }},
    {"Refresh", true,
     [](TW& w) {
         for (TKdsView* const view : {w.Unique, w.Odd, w.Rich, w.ByTag, w.ByLate, w.ByName})
             Living(w, view)->Refresh();
     }},
    {"FreeView", false, [](TW& w) { Living(w, w.ByTag)->Free(); }},
    {"FreeViews", false, [](TW& w) { w.Table->Views()->Clear(); }},
    {"ViewsOff", true, [](TW& w) { w.Table->Views()->SetActive(false); }},
    {"Rebuild", false, [](TW& w) { w.Table->RebuildViews(true); }},
    {"AppendFilter", false, [](TW& w) { TKdsAccept(w.Table, w.Accepter()).SetOnAccept(nullptr); }},
    {"DisableFilter", false, [](TW& w) { w.Filter->SetEnabled(false); }},
    {"MoveFilter", false, [](TW& w) { w.Filter->SetTable(w.Empty); }},
    {"ForeignKey", true, [](TW& w) { w.Table->Columns()->Items(4)->ForeignKey(u"U", u"A"); }},
    {"AddColumn", false, [](TW& w) { w.Table->Columns()->Add(u"C", dtInteger); }},
    {"RenameColumn", false, [](TW& w) { w.Table->Columns()->Items(3)->SetName(u"Other"); }},
    {"NotNullColumn", true, [](TW& w) { w.Table->Columns()->Items(3)->SetAllowNull(false); }},
    {"DeleteColumn", false, [](TW& w) { w.Table->Columns()->Delete(3); }},
    {"FreeTable", false, [](TW& w) { w.Table->Free(); }},
    {"RemoveTable", false, [](TW& w) { w.Store->Tables()->Remove(w.Table); }},
    {"ClearStore", false, [](TW& w) { w.Store->Clear(); }},
    {"ResetStore", false, [](TW& w) { w.Store->Reset(); }},
    {"FreeStore", false, [](TW& w) { w.Store->Free(); }},
    {"RemoveStore", false, [](TW& w) { Stores()->Remove(w.Store); }},
};

// Searches are no changes: one inside another disturbs neither.
void LookSomethingUp(TFaultWorld& world) {
    EXPECT_EQ(world.Table->Records()->FindRowID(8)->RowID(), 8u);
    EXPECT_EQ(world.ByName->Find({u"nobody"}), -1);
    (void)world.ByTag->FindNearest({world.Tag(1)});
    // A view that is being filled has not come to the row yet, perhaps.
    if (world.Plain->Rebuilds()) return;
    EXPECT_EQ(world.Plain->IndexOf(world.Row(8)) >= 0, world.Plain->Actual());
}

const TScenario* Scenario(std::string_view name) {
    return std::ranges::find(Scenarios, name,
                             [](const TScenario& s) { return std::string_view(s.Name); });
}

// The operations that call each of the host's routines.
constexpr const char* Callers[] = {
    "Insert",         "PostEverything", "Delete",     "LeaveLoad",
    "SelectWithProc", "OrderBy",        "OnAccept",   "OnCompare",
    "Rebuild",        "FindSlowly",     "UpsertOld",  "SelectWithComparer",
    "LoadRows",       "Recalculate",    "FilterText", "OtherExpression"};

// Runs each caller with `meddle` done in the n-th call of each routine, for growing n; whatever it
// does, the operation must end as if it had done nothing.
template <typename F>
void MeddleEverywhere(F&& meddle) {
    for (const char* const caller : Callers) {
        const TScenario& scenario = *Scenario(caller);
        const auto setUp = [&](TFaultWorld& world) {
            scenario.Setup(world);
            world.Change(world.Row(9), 809);
        };
        TLines after;
        {
            TFaultWorld world;
            setUp(world);
            Perform(scenario, world);
            after = world.Look();
        }
        for (const TSpot spot : {TSpot::Accept, TSpot::Filter, TSpot::Compare, TSpot::Value,
                                 TSpot::Calculate, TSpot::Function, TSpot::Deacon}) {
            for (int nth = 1, step = 1;; nth += step++) {
                TFaultWorld world;
                setUp(world);
                SCOPED_TRACE(testing::Message()
                             << caller << " spot " << static_cast<int>(spot) << " call " << nth);
                world.Fuse.Light(spot, nth, [&] { meddle(world, spot); });
                Perform(scenario, world);
                world.Fuse.PutOut();
                if (!world.Fuse.Blown()) break;
                ASSERT_FALSE(testing::Test::HasFailure());
                ASSERT_EQ(world.Fault(), "");
                ASSERT_EQ(Difference(world.Look(), after), "");
            }
        }
    }
}

class TMeddlingTest : public testing::TestWithParam<TMeddling> {};

TEST_P(TMeddlingTest, IsRefusedInsideTheEngineAndChangesNothing) {
    MeddleEverywhere([](TFaultWorld& world, TSpot spot) {
        if (spot == TSpot::Deacon && GetParam().AllowedForDeacons) return;
        // While the views are off some of it means nothing.
        const std::string_view name = GetParam().Name;
        const bool concernsViews = name == "Refresh" || name == "ViewsOff" || name == "DeleteByKey";
        if (world.Table->Status() == mtsMassive && concernsViews) {
            GetParam().Do(world);
            return;
        }
        EXPECT_THROW(GetParam().Do(world), EKdsError);
    });
}

TEST(TLookingTest, SearchesInsideTheEngineDisturbNothing) {
    MeddleEverywhere([](TFaultWorld& world, TSpot) { LookSomethingUp(world); });
}

TEST_P(TMeddlingTest, IsALinksGoodRightAndLeavesEveryViewRight) {
    for (int i = 0; i < 2 * static_cast<int>(std::size(Scenarios)); ++i) {
        const TScenario& scenario = Scenarios[i / 2];
        const TSpot spot = i % 2 == 0 ? TSpot::Link : TSpot::List;
        for (int nth = 1;; ++nth) {
            TFaultWorld world;
            scenario.Setup(world);
            if (world.Row(9) != nullptr) world.Change(world.Row(9), 809);
            TNotes notes(world.ByName);
            notes.OnList = [&](const TKdsChangeList&) { world.Fuse.Pass(TSpot::List); };
            world.Fuse.Light(spot, nth, [&] {
                if (world.Alive() == nullptr) return;
                try {
                    GetParam().Do(world);
                } catch (const Exception&) {
                }
            });
            Perform(scenario, world);
            world.Fuse.PutOut();
            if (!world.Fuse.Blown()) break;
            SCOPED_TRACE(testing::Message() << scenario.Name << " event " << nth);
            world.Mirrors.clear();
            ASSERT_EQ(world.Fault(), "");
            // Views that a load has switched off are told of when it ends.
            const bool isLoading = world.Alive() == nullptr || world.Table->Status() != mtsRegular;
            ASSERT_TRUE(isLoading || notes.Agrees());
            (void)world.Look();
            ASSERT_EQ(world.Fault(), "");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Changes, TMeddlingTest, testing::ValuesIn(Meddlings),
                         [](const auto& tested) { return std::string(tested.param.Name); });

}  // namespace
}  // namespace kds
