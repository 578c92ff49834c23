// Random scripts against a plain model: after every step each view must show what sorting and
// filtering all rows anew would show, whatever storage it uses.
#include "tests/views/Model.h"

#include "tests/support/Seed.h"

namespace kds {
namespace {

struct TModelCase {
    const char* Name;
    TKdsStorageKind Storage;
    TKdsTableOptions Options;
    int InMemory = 0;
};

class TViewModelTest : public testing::TestWithParam<TModelCase> {};

TEST_P(TViewModelTest, EveryViewEqualsOneBuiltAfresh) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    for (std::uint32_t round = 0; round < 2; ++round) {
        TModel model(seed + round, GetParam().Options, 120, GetParam().Storage, false,
                     GetParam().InMemory);
        for (std::int64_t step = 0; step < support::Steps(600); ++step) {
            ASSERT_NO_FATAL_FAILURE(model.Step()) << "step " << step;
            ASSERT_NO_FATAL_FAILURE(model.Check(step % 64 == 0)) << "step " << step;
        }
        EXPECT_EQ(model.Reads() > 0, GetParam().InMemory > 0);
    }
}

// Enough rows for several buckets, which searches find by their first rows and by a directory.
TEST_P(TViewModelTest, LargeViewsAreSearchedAsProbeByProbe) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    TModel model(seed, GetParam().Options, 6'000, GetParam().Storage, false, GetParam().InMemory);
    model.Fill();
    for (std::int64_t step = 0; step < support::Steps(400); ++step) {
        ASSERT_NO_FATAL_FAILURE(model.Step()) << "step " << step;
        ASSERT_NO_FATAL_FAILURE(model.CheckSomeSearches()) << "step " << step;
        if (step % 100 != 99) continue;
        ASSERT_NO_FATAL_FAILURE(model.Check(true)) << "step " << step;
    }
}

constexpr TModelCase Cases[] = {
    {"Skip", skSkip, {}}, {"SkipOfStrippedRows", skSkip, {mtoStripNulls}},
    {"Tree", skTree, {}}, {"List", skList, {}},
    {"Lite", skLite, {}}, {"LiteOfStrippedRows", skLite, {mtoStripNulls}},
};

// Most rows are in the file, so that all that compares them reads it.
constexpr TModelCase Swapped[] = {
    {"Skip", skSkip, {}, 8},
    {"Tree", skTree, {mtoStripNulls}, 8},
    {"List", skList, {}, 1},
    {"Lite", skLite, {mtoStripNulls}, 8},
};

INSTANTIATE_TEST_SUITE_P(Storages, TViewModelTest, testing::ValuesIn(Cases),
                         [](const auto& tested) { return std::string(tested.param.Name); });

INSTANTIATE_TEST_SUITE_P(Swapped, TViewModelTest, testing::ValuesIn(Swapped),
                         [](const auto& tested) { return std::string(tested.param.Name); });

}  // namespace
}  // namespace kds
