#include "kds/platform/Random.h"

#include <atomic>
#include <chrono>

namespace kds {
namespace {

// Successive states lie this far apart: odd, so that all 2^64 of them are met, and close to the
// golden ratio of 2^64, so that neighbours differ in many bits before they are mixed.
constexpr std::uint64_t Step = 0x9E3779B97F4A7C15;

// A bijection in which each bit of the input decides each bit of the answer evenly.
constexpr std::uint64_t Mix(std::uint64_t value) noexcept {
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
    value = (value ^ value >> 27) * 0x94D049BB133111EB;
    return value ^ value >> 31;
}

// The system's clock itself, not the replaceable one: a test that stops the clock must not make
// two of its own runs alike without saying so through SeedRandom.
std::uint64_t ClockSeed() noexcept {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto counter = std::chrono::steady_clock::now().time_since_epoch();
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(now);
    return Mix(static_cast<std::uint64_t>(nanoseconds.count())) +
           static_cast<std::uint64_t>(counter.count());
}

std::atomic<std::uint64_t>& State() noexcept {
    static std::atomic<std::uint64_t> state{ClockSeed()};
    return state;
}

std::atomic<bool> Fixed{false};
std::atomic<std::uint64_t> Reseedings{0};

}  // namespace

std::uint64_t NextRandom() noexcept {
    return Mix(State().fetch_add(Step, std::memory_order_relaxed) + Step);
}

void SeedRandom(std::uint64_t seed) noexcept {
    Fixed.store(true, std::memory_order_relaxed);
    State().store(seed, std::memory_order_relaxed);
}

void ReseedRandom() noexcept {
    if (Fixed.load(std::memory_order_relaxed)) return;
    const std::uint64_t count = Reseedings.fetch_add(1, std::memory_order_relaxed);
    State().store(Mix(ClockSeed() + count * Step), std::memory_order_relaxed);
}

}  // namespace kds
