#include "tests/support/Seed.h"

#include <cstdlib>
#include <random>
#include <string>

namespace kds::support {
namespace {

std::uint32_t ReadSeed() {
    const char* const text = std::getenv("KDS_TEST_SEED");
    return text == nullptr ? std::random_device{}() : static_cast<std::uint32_t>(std::stoul(text));
}

}  // namespace

std::uint32_t Seed() {
    static const std::uint32_t seed = ReadSeed();
    return seed;
}

std::int64_t Steps(std::int64_t usual) {
    const char* const text = std::getenv("KDS_TEST_STEPS");
    return text == nullptr ? usual : std::stoll(text);
}

}  // namespace kds::support
