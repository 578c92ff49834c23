#include "kds/views/Kdsguides.h"

#include <algorithm>
#include <span>

namespace kds {

void TKdsBucketSamples::Append(std::uint64_t prefix, std::int32_t offset) noexcept {
    if (fCount == Capacity) return;
    const auto at = static_cast<std::size_t>(fCount);
    fPrefixes[at] = fCount > 0 ? std::max(prefix, fPrefixes[at - 1]) : prefix;
    fOffsets[at] = static_cast<std::uint16_t>(offset);
    ++fCount;
}

void TKdsBucketSamples::Narrow(const TKdsGuide& guide, TKdsWindow& window) const noexcept {
    const std::span prefixes(fPrefixes.data(), static_cast<std::size_t>(fCount));
    const auto masked = [&](std::uint64_t prefix) { return prefix & guide.Mask; };
    const auto equal = std::ranges::lower_bound(prefixes, guide.Key, {}, masked);
    const auto above = std::ranges::upper_bound(equal, prefixes.end(), guide.Key, {}, masked);
    const std::int32_t rows = window.Last;
    std::uint64_t low = 0;
    std::uint64_t high = ~std::uint64_t{0};
    if (equal != prefixes.begin()) {
        const auto at = static_cast<std::size_t>(equal - prefixes.begin() - 1);
        window.First = std::min<std::int32_t>(fOffsets[at], rows);
        low = prefixes[at];
    }
    if (above != prefixes.end()) {
        const auto at = static_cast<std::size_t>(above - prefixes.begin());
        window.Last = std::clamp<std::int32_t>(fOffsets[at], window.First, rows);
        high = *above;
    }
    // Rows are mostly spread evenly between two samples.
    if (equal == above && low < guide.Key && guide.Key < high) {
        const double share = static_cast<double>(guide.Key - low) / static_cast<double>(high - low);
        window.Likely =
            window.First + static_cast<std::int32_t>(share * (window.Last - window.First));
    }
}

void TKdsBucketSamples::Inserted(std::int32_t offset, std::uint64_t prefix,
                                 std::int32_t rows) noexcept {
    // The bucket was divided meanwhile: those behind its end went with the other rows.
    while (fCount > 0 && fOffsets[static_cast<std::size_t>(fCount - 1)] > rows) --fCount;
    const auto offsets = fOffsets.begin();
    auto at =
        static_cast<std::size_t>(std::lower_bound(offsets, offsets + fCount, offset) - offsets);
    const auto count = static_cast<std::size_t>(fCount);
    // Those at the very offset stay only where they must, so that none gathers where rows come in.
    while (at < count && fOffsets[at] == offset && fPrefixes[at] < prefix) ++at;
    for (std::size_t i = at; i < count; ++i) ++fOffsets[i];
    // Rows that come where samples are far apart bring samples with them.
    const std::int32_t before = at > 0 ? fOffsets[at - 1] : 0;
    const std::int32_t behind = at < count ? fOffsets[at] : rows;
    if (behind - before >= 2 * Stride) InsertSample(static_cast<std::int32_t>(at), prefix, offset);
}

void TKdsBucketSamples::InsertSample(std::int32_t at, std::uint64_t prefix,
                                     std::int32_t offset) noexcept {
    if (fCount == Capacity) {
        // Where rows come and go at the same few places samples gather: half of them will do.
        for (std::size_t i = 0; i < Capacity / 2; ++i) {
            fOffsets[i] = fOffsets[2 * i];
            fPrefixes[i] = fPrefixes[2 * i];
        }
        fCount = Capacity / 2;
        at = (at + 1) / 2;
    }
    std::copy_backward(fOffsets.begin() + at, fOffsets.begin() + fCount,
                       fOffsets.begin() + fCount + 1);
    std::copy_backward(fPrefixes.begin() + at, fPrefixes.begin() + fCount,
                       fPrefixes.begin() + fCount + 1);
    fOffsets[static_cast<std::size_t>(at)] = static_cast<std::uint16_t>(offset);
    fPrefixes[static_cast<std::size_t>(at)] = prefix;
    ++fCount;
}

void TKdsBucketSamples::Removed(std::int32_t offset) noexcept {
    // Those behind; one at the row itself separates its neighbours just as well.
    auto at = static_cast<std::size_t>(fCount);
    for (; at > 0 && fOffsets[at - 1] > offset; --at) --fOffsets[at - 1];
    // One that is hardly needed any more makes room for another elsewhere.
    const auto count = static_cast<std::size_t>(fCount);
    if (at == 0 || at + 1 >= count || fOffsets[at + 1] - fOffsets[at - 1] >= Stride) return;
    std::copy(fOffsets.begin() + at + 1, fOffsets.begin() + count, fOffsets.begin() + at);
    std::copy(fPrefixes.begin() + at + 1, fPrefixes.begin() + count, fPrefixes.begin() + at);
    --fCount;
}

void TKdsBucketSamples::Prefetch(double share) const noexcept {
    constexpr std::int32_t line = 8;  // prefixes
    const auto likely = static_cast<std::int32_t>(share * fCount);
    for (const std::int32_t at : {likely - line, likely, likely + line}) {
        const auto near = static_cast<std::size_t>(std::clamp(at, 0, Capacity - 1));
        kds::Prefetch(&fPrefixes[near]);
        if (at == likely) kds::Prefetch(&fOffsets[near]);
    }
    // The steps of a bisection that lead there.
    const auto quarter = static_cast<std::size_t>(fCount / 4);
    for (const std::size_t step : {2 * quarter, quarter, 3 * quarter}) {
        kds::Prefetch(&fPrefixes[step]);
    }
}

void TKdsBucketSamples::PrefetchOffsets() const noexcept {
    constexpr std::size_t line = 32;  // offsets
    for (std::size_t i = 0; i < fOffsets.size(); i += line) kds::Prefetch(&fOffsets[i]);
}

}  // namespace kds
