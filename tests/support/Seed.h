// Seeds and lengths of random tests: another seed each run unless KDS_TEST_SEED asks for one again.
//
// A random test shows its seed when it fails:
//     SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
#pragma once

#include <cstdint>

namespace kds::support {

// The same for the whole run of the program.
[[nodiscard]] std::uint32_t Seed();

// How many steps a random test takes: `usual`, or what KDS_TEST_STEPS says.
[[nodiscard]] std::int64_t Steps(std::int64_t usual);

}  // namespace kds::support
