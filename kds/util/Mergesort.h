// The stable natural merge sort behind every sort of the library, as a template over the items and
// an inlined comparison.
//
// Shape      Runs that are in order already are found, short ones are extended by binary insertion,
//            and neighbouring runs are merged as a stack of their lengths demands. A merge copies
//            the shorter side out and takes item by item until one side keeps winning; then it
//            gallops: it searches how many items of a side to take at once. Large arrays are cut
//            into chunks that are sorted on several threads and merged pairwise.
// Units      Items and counts are signed 64-bit.
// Errors     What the comparison raises reaches the caller; EInvalidArgument when a merge notices
//            that the comparison is no consistent order; std::bad_alloc when there is no room to
//            merge. The array always holds a permutation of its items.
// Threads    The comparison is called from several threads at once when there are 16384 items or
//            more and more than one thread is allowed; all of them have ended on return.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>

#include "kds/platform/Object.h"
#include "kds/util/Sortutils.h"

namespace kds {

[[noreturn]] void RaiseInconsistentComparison();

// `compare(a, b)` answers a signed 32-bit number: negative when a orders before b, 0 when they are
// equal, positive when a orders after b. A comparison that mostly looks at memory behind the items
// offers `Prefetch(item)` as well: it is then called some items ahead, which for scattered records
// halves the time. Items are moved as bytes.
template <typename T, typename C>
void MergeSort(T* items, std::int64_t count, const C& compare, std::int32_t maxThreads);

template <typename T, typename C>
concept TCanPrefetch = requires(const C& compare, const T& item) { compare.Prefetch(item); };

template <typename T>
void CopyItems(T* target, const T* source, std::int64_t count) noexcept {
    static_assert(std::is_trivially_copyable_v<T>, "items are moved as bytes");
    std::memmove(static_cast<void*>(target), source, static_cast<std::size_t>(count) * sizeof(T));
}

// One merge of two neighbouring runs, of which the shorter one was copied out. Up, the copy is of
// the low run and items are taken from the front; down, everything is mirrored.
//
// Shape      The gap between fTarget and fPlaced is exactly as long as what is left of the copy.
//            Writing that back therefore ends every merge, also one that an exception leaves.
template <typename T, typename C, bool Up>
class TMergePass {
public:
    TMergePass(T* copied, T* copiedEnd, T* placed, T* placedEnd, T* target, const C& compare)
        : fCopied(copied),
          fCopiedEnd(copiedEnd),
          fPlaced(placed),
          fPlacedEnd(placedEnd),
          fTarget(target),
          fCompare(compare) {}
    TMergePass(const TMergePass&) = delete;
    TMergePass& operator=(const TMergePass&) = delete;
    ~TMergePass() { MoveItems(fCopied, Distance(fCopied, fCopiedEnd)); }

    // The caller has found that the first item of the placed run goes before the whole copy, and
    // the last of the copy behind the whole placed run.
    void Run(std::int64_t& threshold);

    // How many items from `first` on satisfy `leads`, which holds up to some item and for none
    // behind it: probes at growing distance, then a bisection of the last step.
    template <typename P>
    [[nodiscard]] static std::int64_t Leading(T* first, std::int64_t count, P&& leads);

private:
    static constexpr std::int64_t MinGallop = 7;
    static constexpr std::int64_t PrefetchAhead = 16;  // items; half or twice as many serve less

    // Going down, a cursor stands behind its item.
    [[nodiscard]] static T& At(T* cursor) noexcept { return Up ? cursor[0] : cursor[-1]; }
    [[nodiscard]] static T* Step(T* cursor, std::int64_t count) noexcept {
        return Up ? cursor + count : cursor - count;
    }
    [[nodiscard]] static std::int64_t Distance(const T* cursor, const T* end) noexcept {
        return Up ? end - cursor : cursor - end;
    }
    // Of equal items the one from the low run goes first.
    [[nodiscard]] bool PlacedLeads(const T& placed, const T& copied) const {
        return (Up ? fCompare(placed, copied) : fCompare(copied, placed)) < 0;
    }
    void MoveItems(T*& source, std::int64_t count) noexcept;
    void MoveItem(T*& source) noexcept {
        At(fTarget) = At(source);
        fTarget = Step(fTarget, 1);
        source = Step(source, 1);
    }
    // One side is used up; of the copy the last item does not count, it goes behind everything.
    [[nodiscard]] bool AtEnd() const noexcept {
        return fPlaced == fPlacedEnd || Distance(fCopied, fCopiedEnd) <= 1;
    }
    void TakeSingly(std::int64_t threshold);
    [[nodiscard]] bool TakeRuns();

    T* fCopied;
    T* const fCopiedEnd;
    T* fPlaced;
    T* const fPlacedEnd;
    T* fTarget;
    const C& fCompare;
};

// One sequential sort or merge: the data, the room to merge in and the runs found so far.
template <typename T, typename C>
class TMergeState {
    static_assert(std::is_trivially_copyable_v<T>, "items are moved as bytes");

public:
    TMergeState(T* items, std::int64_t count, const C& compare) noexcept
        : fItems(items), fCount(count), fCompare(compare) {}

    void Sort();
    // Merges the first `start` items with the rest; both parts are in order.
    void MergeParts(std::int64_t start);

    // Length of the run at the front of first..last; a strictly descending one is reversed. Only a
    // strict one may be: reversing equal neighbours would not be stable.
    [[nodiscard]] static std::int64_t FindRun(T* first, T* last, const C& compare);
    // Binary insertion of start..last into first..start, which is in order.
    static void BinaryInsert(T* first, T* last, T* start, const C& compare);

private:
    static constexpr std::int64_t InsertionOnly = 32;  // fewer items need no merging
    static constexpr std::int64_t InitialThreshold = 7;
    static constexpr std::int64_t FirstRoom = 256;
    // The collapse rule looks at three runs only, so lengths on the stack may grow more slowly
    // than Fibonacci's numbers do: 2^30 items can pile up 49 runs, 2^37 items 63.
    static constexpr std::int32_t MaxRuns = 64;

    struct TRun {
        std::int64_t Start, Length;
    };

    [[nodiscard]] static std::int64_t MinRun(std::int64_t count) noexcept;
    void PushRun(std::int64_t start, std::int64_t length) noexcept;
    void Collapse();
    void ForceCollapse();
    void MergeAt(std::int32_t run);
    void Merge(T* low, std::int64_t lowCount, T* high, std::int64_t highCount);
    [[nodiscard]] T* Room(std::int64_t count);
    T* const fItems;
    const std::int64_t fCount;
    const C& fCompare;
    std::int64_t fThreshold = InitialThreshold;  // wins in a row that start a gallop
    std::unique_ptr<T[]> fRoom;
    std::int64_t fRoomCount = 0;
    std::array<TRun, MaxRuns> fRuns;
    std::int32_t fRunCount = 0;
};

// One sort on several threads: the chunks and who waits for whom.
template <typename T, typename C>
class TParallelMergeSort {
public:
    static constexpr std::int32_t MaxChunks = 16;

    TParallelMergeSort(T* items, std::int64_t count, const C& compare,
                       std::int32_t chunks) noexcept;
    void Run();

private:
    struct TChunk {
        std::int64_t Start = 0, End = 0;
        std::atomic<bool> Done = false;  // the thread that owns the chunk has left the array
        std::exception_ptr Error;        // written before Done
        std::thread Worker;
    };

    void Work(std::int32_t chunk) noexcept;
    void MergeGroups(std::int32_t chunk) noexcept;

    T* const fItems;
    const C& fCompare;
    const std::int32_t fChunkCount;
    std::array<TChunk, MaxChunks> fChunks;
};

template <typename T, typename C, bool Up>
void TMergePass<T, C, Up>::MoveItems(T*& source, std::int64_t count) noexcept {
    T* const from = source;
    T* const to = fTarget;
    source = Step(from, count);
    fTarget = Step(to, count);
    CopyItems(Up ? to : fTarget, Up ? from : source, count);
}

template <typename T, typename C, bool Up>
template <typename P>
std::int64_t TMergePass<T, C, Up>::Leading(T* first, std::int64_t count, P&& leads) {
    std::int64_t low = 0;  // items known to lead
    std::int64_t probe = 0;
    while (probe < count && leads(At(Step(first, probe)))) {
        low = probe + 1;
        probe = 2 * probe + 1;
    }
    std::int64_t high = std::min(probe, count);
    while (low < high) {
        const std::int64_t middle = low + (high - low) / 2;
        if (leads(At(Step(first, middle)))) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

template <typename T, typename C, bool Up>
void TMergePass<T, C, Up>::Run(std::int64_t& threshold) {
    MoveItem(fPlaced);
    while (!AtEnd()) {
        TakeSingly(threshold);
        if (AtEnd()) break;
        while (TakeRuns()) threshold = std::max<std::int64_t>(threshold - 1, 0);
        threshold += 2;
    }
    threshold = std::max<std::int64_t>(threshold, 1);
    // A sound comparison keeps the last item of the copy for the end.
    if (fCopied == fCopiedEnd) RaiseInconsistentComparison();
    MoveItems(fPlaced, Distance(fPlaced, fPlacedEnd));
}

// Item by item, until one side has won `threshold` times in a row or AtEnd holds.
template <typename T, typename C, bool Up>
void TMergePass<T, C, Up>::TakeSingly(std::int64_t threshold) {
    T* copied = fCopied;
    T* placed = fPlaced;
    T* target = fTarget;
    const TScopeGuard keep([&]() noexcept {
        fCopied = copied;
        fPlaced = placed;
        fTarget = target;
    });
    std::int64_t streak = 0;
    std::int64_t last = 0;
    do {
        std::int64_t takePlaced = 0;
        if constexpr (TCanPrefetch<T, C>) {
            // Who wins is guessed, and the processor looks at the next items meanwhile.
            const std::int64_t copiedLeft = Distance(copied, fCopiedEnd) - 1;
            const std::int64_t placedLeft = Distance(placed, fPlacedEnd) - 1;
            fCompare.Prefetch(At(Step(copied, std::min(copiedLeft, PrefetchAhead))));
            fCompare.Prefetch(At(Step(placed, std::min(placedLeft, PrefetchAhead))));
            if (PlacedLeads(At(placed), At(copied))) {
                At(target) = At(placed);
                placed = Step(placed, 1);
                takePlaced = 1;
            } else {
                At(target) = At(copied);
                copied = Step(copied, 1);
            }
        } else {
            // Without a branch on who wins, which on random items is guessed wrongly every other
            // time.
            takePlaced =
                __builtin_expect_with_probability(PlacedLeads(At(placed), At(copied)), 1, 0.5);
            At(target) = At(takePlaced != 0 ? placed : copied);
            placed = Step(placed, takePlaced);
            copied = Step(copied, 1 - takePlaced);
        }
        target = Step(target, 1);
        streak = (streak & ((takePlaced ^ last) - 1)) + 1;
        last = takePlaced;
    } while (streak < threshold && placed != fPlacedEnd && Distance(copied, fCopiedEnd) > 1);
}

// As many of each side as go before the next of the other. Whether both runs were long enough to
// go on like this.
template <typename T, typename C, bool Up>
bool TMergePass<T, C, Up>::TakeRuns() {
    const std::int64_t copiedRun =
        Leading(fCopied, Distance(fCopied, fCopiedEnd),
                [&](const T& item) { return !PlacedLeads(At(fPlaced), item); });
    MoveItems(fCopied, copiedRun);
    if (AtEnd()) return false;
    MoveItem(fPlaced);
    if (AtEnd()) return false;
    const std::int64_t placedRun =
        Leading(fPlaced, Distance(fPlaced, fPlacedEnd),
                [&](const T& item) { return PlacedLeads(item, At(fCopied)); });
    MoveItems(fPlaced, placedRun);
    if (AtEnd()) return false;
    MoveItem(fCopied);
    return !AtEnd() && copiedRun >= MinGallop && placedRun >= MinGallop;
}

template <typename T, typename C>
void TMergeState<T, C>::Sort() {
    if (fCount < 2) return;
    T* const last = fItems + fCount;
    if (fCount < InsertionOnly) {
        BinaryInsert(fItems, last, fItems + FindRun(fItems, last, fCompare), fCompare);
        return;
    }
    const std::int64_t minRun = MinRun(fCount);
    for (T* first = fItems; first < last;) {
        std::int64_t length = FindRun(first, last, fCompare);
        if (length < minRun) {
            const std::int64_t extended = std::min(minRun, last - first);
            BinaryInsert(first, first + extended, first + length, fCompare);
            length = extended;
        }
        PushRun(first - fItems, length);
        Collapse();
        first += length;
    }
    ForceCollapse();
}

template <typename T, typename C>
void TMergeState<T, C>::MergeParts(std::int64_t start) {
    Merge(fItems, start, fItems + start, fCount - start);
}

// The leading five bits of `count`, rounded up: with it the number of runs is a power of two or
// just below one, which keeps the merges balanced.
template <typename T, typename C>
std::int64_t TMergeState<T, C>::MinRun(std::int64_t count) noexcept {
    std::int64_t rest = 0;
    while (count >= InsertionOnly) {
        rest |= count & 1;
        count >>= 1;
    }
    return count + rest;
}

template <typename T, typename C>
std::int64_t TMergeState<T, C>::FindRun(T* first, T* last, const C& compare) {
    if (last - first < 2) return last - first;
    T* next = first + 2;
    if (compare(first[1], first[0]) < 0) {
        while (next < last && compare(next[0], next[-1]) < 0) ++next;
        std::reverse(first, next);
    } else {
        while (next < last && compare(next[0], next[-1]) >= 0) ++next;
    }
    return next - first;
}

template <typename T, typename C>
void TMergeState<T, C>::BinaryInsert(T* first, T* last, T* start, const C& compare) {
    if constexpr (TCanPrefetch<T, C>) {
        for (const T* item = start; item < last; ++item) compare.Prefetch(*item);
    }
    for (; start < last; ++start) {
        const T item = *start;
        T* place = first;
        for (std::int64_t left = start - first; left > 0;) {
            const std::int64_t half = left / 2;
            const bool behind = compare(item, place[half]) >= 0;
            place += behind ? half + 1 : 0;
            left = behind ? left - half - 1 : half;
        }
        // The place is known before anything moves, so a comparison that raises loses no item.
        CopyItems(place + 1, place, start - place);
        *place = item;
    }
}

template <typename T, typename C>
void TMergeState<T, C>::PushRun(std::int64_t start, std::int64_t length) noexcept {
    assert(fRunCount < MaxRuns);
    fRuns[static_cast<std::size_t>(fRunCount++)] = {start, length};
}

// QUIRK: the rule looks at the three topmost runs and never at a fourth, so the lengths further
// down may break it. Which runs meet decides the number of comparisons; the rule stays as it is.
template <typename T, typename C>
void TMergeState<T, C>::Collapse() {
    while (fRunCount > 1) {
        const TRun* const top = fRuns.data() + fRunCount - 1;
        const std::int32_t second = fRunCount - 2;
        if (second > 0 && top[-2].Length <= top[-1].Length + top[0].Length) {
            MergeAt(top[-2].Length < top[0].Length ? second - 1 : second);
        } else if (top[-1].Length <= top[0].Length) {
            MergeAt(second);
        } else {
            return;
        }
    }
}

template <typename T, typename C>
void TMergeState<T, C>::ForceCollapse() {
    while (fRunCount > 1) {
        const TRun* const top = fRuns.data() + fRunCount - 1;
        const std::int32_t second = fRunCount - 2;
        MergeAt(second > 0 && top[-2].Length < top[0].Length ? second - 1 : second);
    }
}

// Merges a run with the one above it; it is the second or the third from the top.
template <typename T, typename C>
void TMergeState<T, C>::MergeAt(std::int32_t run) {
    TRun* const low = fRuns.data() + run;
    const TRun lowRun = low[0];
    const TRun highRun = low[1];
    low[0].Length += highRun.Length;
    if (run == fRunCount - 3) low[1] = low[2];
    --fRunCount;
    Merge(fItems + lowRun.Start, lowRun.Length, fItems + highRun.Start, highRun.Length);
}

template <typename T, typename C>
void TMergeState<T, C>::Merge(T* low, std::int64_t lowCount, T* high, std::int64_t highCount) {
    using TUp = TMergePass<T, C, true>;
    using TDown = TMergePass<T, C, false>;
    if (lowCount == 0 || highCount == 0) return;
    // What lies before the first item of the high run, or behind the last of the low one, is in
    // place already.
    const std::int64_t front =
        TUp::Leading(low, lowCount, [&](const T& item) { return fCompare(*high, item) >= 0; });
    low += front;
    lowCount -= front;
    if (lowCount == 0) return;
    highCount -= TDown::Leading(high + highCount, highCount, [&](const T& item) {
        return fCompare(item, low[lowCount - 1]) >= 0;
    });
    if (highCount == 0) return;
    if (lowCount <= highCount) {
        T* const room = Room(lowCount);
        CopyItems(room, low, lowCount);
        TUp(room, room + lowCount, high, high + highCount, low, fCompare).Run(fThreshold);
    } else {
        T* const room = Room(highCount);
        CopyItems(room, high, highCount);
        TDown(room + highCount, room, high, low, high + highCount, fCompare).Run(fThreshold);
    }
}

// Room for `count` items: at first what small merges need, later a power of two. Never more than
// half the range, because a merge copies its shorter side.
template <typename T, typename C>
T* TMergeState<T, C>::Room(std::int64_t count) {
    if (fRoomCount < count) {
        const std::int64_t half = fCount / 2;
        const auto grown =
            static_cast<std::int64_t>(std::bit_ceil(static_cast<std::uint64_t>(count)));
        const std::int64_t wanted = std::min(std::max(grown, FirstRoom), half);
        fRoom.reset();  // what it held is dead, and both at once would cost more
        fRoomCount = 0;
        fRoom = std::make_unique_for_overwrite<T[]>(static_cast<std::size_t>(wanted));
        fRoomCount = wanted;
    }
    return fRoom.get();
}

template <typename T, typename C>
TParallelMergeSort<T, C>::TParallelMergeSort(T* items, std::int64_t count, const C& compare,
                                             std::int32_t chunks) noexcept
    : fItems(items), fCompare(compare), fChunkCount(chunks) {
    const std::int64_t size = count / chunks;
    for (std::int32_t i = 0; i < chunks; ++i) {
        TChunk& chunk = fChunks[static_cast<std::size_t>(i)];
        chunk.Start = i * size;
        chunk.End = i == chunks - 1 ? count : chunk.Start + size;
    }
}

template <typename T, typename C>
void TParallelMergeSort<T, C>::Run() {
    std::array<bool, MaxChunks> started{};
    for (std::int32_t i = 0; i < fChunkCount - 1; ++i) {
        const auto slot = static_cast<std::size_t>(i);
        // A thread that cannot start is no failure of the sort: the caller does its work below.
        try {
            fChunks[slot].Worker = std::thread([this, i] { Work(i); });
            started[slot] = true;
        } catch (...) {
        }
    }
    // In ascending order, because a chunk's work waits for lower chunks only. The caller's own
    // chunk is the last, and with it goes the final merge.
    for (std::int32_t i = 0; i < fChunkCount; ++i) {
        if (!started[static_cast<std::size_t>(i)]) Work(i);
    }
    for (TChunk& chunk : fChunks) {
        if (chunk.Worker.joinable()) chunk.Worker.join();
    }
    // The caller's chunk owns every group, so any error has come up to it.
    const TChunk& own = fChunks[static_cast<std::size_t>(fChunkCount - 1)];
    if (own.Error) std::rethrow_exception(own.Error);
}

template <typename T, typename C>
void TParallelMergeSort<T, C>::Work(std::int32_t chunk) noexcept {
    TChunk& own = fChunks[static_cast<std::size_t>(chunk)];
    const bool outer = std::exchange(InParallelSort, true);
    try {
        TMergeState<T, C>(fItems + own.Start, own.End - own.Start, fCompare).Sort();
    } catch (...) {
        own.Error = std::current_exception();
    }
    MergeGroups(chunk);
    InParallelSort = outer;
    own.Done.store(true, std::memory_order_release);
    own.Done.notify_all();
}

// Groups of 2, 4, 8... chunks. The thread of a group's highest chunk owns it: it waits for the
// owner of the lower half and merges the two halves. A short last group may have no upper half, and
// then there is nothing to merge. This thread is done at the first group that it does not own, or
// when there was an error in one of the halves: it passes that on to the owner of the next group,
// so nothing that stands on the failed part is merged, whoever is still at work there.
template <typename T, typename C>
void TParallelMergeSort<T, C>::MergeGroups(std::int32_t chunk) noexcept {
    TChunk& own = fChunks[static_cast<std::size_t>(chunk)];
    for (std::int32_t half = 1; half < fChunkCount && !own.Error; half *= 2) {
        const std::int32_t first = chunk / (2 * half) * (2 * half);
        const std::int32_t last = std::min(first + 2 * half, fChunkCount) - 1;
        if (chunk != last) return;
        if (first + half > last) continue;
        const TChunk& lower = fChunks[static_cast<std::size_t>(first + half - 1)];
        lower.Done.wait(false, std::memory_order_acquire);
        own.Error = lower.Error;
        if (own.Error) return;
        const std::int64_t start = fChunks[static_cast<std::size_t>(first)].Start;
        try {
            TMergeState<T, C>(fItems + start, own.End - start, fCompare)
                .MergeParts(lower.End - start);
        } catch (...) {
            own.Error = std::current_exception();
        }
    }
}

template <typename T, typename C>
void MergeSort(T* items, std::int64_t count, const C& compare, std::int32_t maxThreads) {
    constexpr std::int64_t chunkSize = 8192;  // fewer items a thread cost more than they save
    std::int64_t threads = count / chunkSize;
    if (maxThreads > 0) threads = std::min<std::int64_t>(threads, maxThreads);
    threads = std::min<std::int64_t>(threads, TParallelMergeSort<T, C>::MaxChunks);
    if (threads > 1) threads = std::min<std::int64_t>(threads, MaxSortingThreads());
    if (threads <= 1) {
        TMergeState<T, C>(items, count, compare).Sort();
    } else {
        TParallelMergeSort<T, C>(items, count, compare, static_cast<std::int32_t>(threads)).Run();
    }
}

}  // namespace kds
