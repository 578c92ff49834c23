// One script through four tables whose views use the four storages: nobody may tell them apart.
#include <memory>

#include "tests/support/Seed.h"
#include "tests/views/Model.h"

namespace kds {
namespace {

constexpr TKdsTableOptions Options[] = {{}, {mtoStripNulls}, {mtoStaticData}};

class TFour {
public:
    TFour(std::uint32_t seed, TKdsTableOptions options, int size, int inMemory = 0) {
        for (const TKdsStorageKind kind : {skSkip, skTree, skList, skLite}) {
            fModels.push_back(std::make_unique<TModel>(seed, options, size, kind, true, inMemory));
        }
    }
    void Fill() {
        for (const auto& model : fModels) model->Fill();
    }
    void Step(bool thorough) {
        TModelNotes first;
        for (const auto& model : fModels) {
            ASSERT_NO_FATAL_FAILURE(model->Step());
            if (thorough && !model->HasStaleViews()) {
                ASSERT_STREQ(model->Inconsistency(), nullptr) << "storage " << IndexOf(model);
            }
            const TModelNotes notes = model->Digest(thorough);
            if (model == fModels.front()) {
                first = notes;
            } else {
                ASSERT_EQ(notes, first) << "storage " << IndexOf(model);
            }
        }
    }

private:
    [[nodiscard]] std::ptrdiff_t IndexOf(const std::unique_ptr<TModel>& model) const {
        return &model - fModels.data();
    }
    std::vector<std::unique_ptr<TModel>> fModels;
};

TEST(TStorageDifferenceTest, FourStoragesAnswerAlikeAfterEveryStep) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    const std::int64_t steps = support::Steps(1'600);
    constexpr std::int64_t aRound = 20'000;
    const std::int64_t rounds = std::max<std::int64_t>(std::size(Options), steps / aRound);
    for (std::int64_t round = 0; round < rounds; ++round) {
        const auto at = static_cast<std::size_t>(round);
        TFour four(seed + static_cast<std::uint32_t>(round), Options[at % std::size(Options)], 40,
                   round % 2 == 0 ? 0 : 7);
        for (std::int64_t step = 0; step < steps / rounds; ++step) {
            ASSERT_NO_FATAL_FAILURE(four.Step(step % 64 == 0))
                << "round " << round << " step " << step;
        }
    }
}

TEST(TStorageDifferenceTest, FourStoragesAnswerAlikeInLargeTables) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    TFour four(seed, {}, 5'000);
    four.Fill();
    for (std::int64_t step = 0; step < support::Steps(200); ++step) {
        ASSERT_NO_FATAL_FAILURE(four.Step(step % 256 == 0)) << "step " << step;
    }
}

}  // namespace
}  // namespace kds
