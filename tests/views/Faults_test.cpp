// Whatever fails while an operation runs, memory or the host's own routines: either nothing has
// changed or the change is complete, no view is wrong, and the table goes on working.
#include "tests/views/Faultscenarios.h"

namespace kds {
namespace {

using support::Difference;
using support::LookAround;
using support::TFaultWorld;
using support::TLines;
using support::TScenario;
using support::TSpot;

// Ends the loops over all places of a failure once one has been told of.
struct TEnough {};

class TFaultTest : public testing::TestWithParam<std::tuple<TScenario, TKdsTableOptions>> {
protected:
    // `raised`: an error came out, so the change may not have happened at all.
    void Check(TFaultWorld& world, bool raised, bool calculated, int nth) const {
        EXPECT_EQ(world.Fault(), "") << "failure " << nth;
        const TLines seen = world.Look(calculated);
        EXPECT_EQ(world.Fault(), "") << "after failure " << nth;
        if (!raised || seen != fBefore) {
            EXPECT_EQ(Difference(seen, fAfter), "") << "failure " << nth << " raised " << raised;
        }
        if (HasFailure()) throw TEnough();
    }
    // A view that could not place a row would have been dismissed.
    static void CheckNothingCameTooLate(TFaultWorld& world, int nth) {
        for (TKdsView* const view : *world.Table->Views()) {
            EXPECT_TRUE(view->Actual()) << ToUtf8(view->Name()) << " at failure " << nth;
        }
    }
    [[nodiscard]] std::unique_ptr<TFaultWorld> World() const {
        auto world = std::make_unique<TFaultWorld>(std::get<1>(GetParam()));
        std::get<0>(GetParam()).Setup(*world);
        return world;
    }
    // Fails the n-th allocation, for every n, or all from there on.
    template <typename C>
    void FailEverywhere(bool andAllAfter, C&& check) {
        int nth = 0;
        try {
            support::FailEachAllocation(
                [this] { return World(); },
                [&](const auto& world) {
                    ++nth;
                    support::Perform(std::get<0>(GetParam()), *world);
                },
                [&](const auto& world, bool raised) { check(*world, raised, nth); }, andAllAfter);
        } catch (const TEnough&) {
        }
    }
    // What is calculated by a routine that raises may be null.
    static bool TellsOfCalculated(TSpot spot) {
        return spot != TSpot::Calculate && spot != TSpot::Function;
    }
    // Throws at the n-th call of a routine of the host, for every n.
    void ThrowEverywhere(TSpot spot, bool ours) {
        for (int nth = 1;; ++nth) {
            const std::unique_ptr<TFaultWorld> world = World();
            bool raised = false;
            world->Fuse.Light(spot, nth, [ours] {
                if (ours) throw EKdsError(u"No!");
                throw std::runtime_error("No!");
            });
            try {
                std::get<0>(GetParam()).Act(*world);
            } catch (const std::exception&) {
                raised = true;
            }
            world->Fuse.PutOut();
            // A filter rejects the rows for which it raises, until it is asked again.
            TKdsTable* const table = spot == TSpot::Function ? world->Alive() : nullptr;
            if (table != nullptr && table->Views()->IndexOf(world->Marked) >= 0) {
                world->Marked->Refresh();
            }
            SCOPED_TRACE(testing::Message()
                         << "spot " << static_cast<int>(spot) << " ours " << ours);
            Check(*world, raised, TellsOfCalculated(spot), nth);
            if (!world->Fuse.Blown()) return;
        }
    }
    TLines fBefore, fAfter;
};

TEST_P(TFaultTest, EachAllocationThatFailsLeavesNothingHalfDone) {
    const auto& [scenario, options] = GetParam();
    LookAround(scenario, options, true, fBefore, fAfter);
    FailEverywhere(false, [&, early = scenario.Early](TFaultWorld& world, bool raised, int nth) {
        if (early) CheckNothingCameTooLate(world, nth);
        Check(world, raised, true, nth);
    });
}

// Then what undoes a change finds no memory either. Views that were switched off may stay so, and
// half of a series of changes may stand, but nothing is wrong and nothing is lost.
TEST_P(TFaultTest, NoMemoryFromSomeAllocationOnLeavesNothingWrong) {
    FailEverywhere(true, [](TFaultWorld& world, bool, int nth) {
        EXPECT_EQ(world.Fault(), "") << "from allocation " << nth;
        (void)world.Look();
        EXPECT_EQ(world.Fault(), "") << "from allocation " << nth;
        if (HasFailure()) throw TEnough();
    });
}

TEST_P(TFaultTest, EachRoutineOfTheHostThatThrowsLeavesNothingHalfDone) {
    const auto& [scenario, options] = GetParam();
    try {
        for (const TSpot spot : {TSpot::Accept, TSpot::Filter, TSpot::Compare, TSpot::Value,
                                 TSpot::Calculate, TSpot::Function, TSpot::Deacon, TSpot::Link}) {
            LookAround(scenario, options, TellsOfCalculated(spot), fBefore, fAfter);
            ThrowEverywhere(spot, true);
            ThrowEverywhere(spot, false);
        }
    } catch (const TEnough&) {
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, TFaultTest,
                         testing::Combine(testing::ValuesIn(support::Scenarios),
                                          testing::Values(TKdsTableOptions{},
                                                          TKdsTableOptions{mtoStripNulls})),
                         [](const auto& tested) {
                             return std::string(std::get<0>(tested.param).Name) +
                                    (std::get<1>(tested.param).Empty() ? "" : "Stripped");
                         });

}  // namespace
}  // namespace kds
