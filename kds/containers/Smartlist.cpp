#include "kds/containers/Smartlist.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <new>
#include <utility>

#include "kds/platform/Errors.h"

namespace kds {

// Walks by position, and asks the list for its length at each step.
class TSmartListEnumerator final : public IListEnumerator {
public:
    TSmartListEnumerator(TIntf<TSmartList::TLife> life, TListEnumeratorDirection direction) noexcept
        : fLife(std::move(life)), fForward(direction == ledForward) {}

    bool MoveNext() override {
        const TSmartList* const list = fLife->List;
        if (list == nullptr || fState == TState::Ended) return End();
        const std::int32_t count = list->Count();
        const bool first = fState == TState::Before;
        fState = TState::OnItem;
        if (fForward) {
            fIndex = first ? 0 : fIndex + 1;
            return fIndex < count || End();
        }
        // What was cut off behind the position is passed over.
        fIndex = (first ? count : std::min(fIndex, count)) - 1;
        return fIndex >= 0 || End();
    }
    [[nodiscard]] void* GetCurrent() const override {
        const TSmartList* const list = fLife->List;
        if (list == nullptr || fState != TState::OnItem || fIndex >= list->Count()) return nullptr;
        return list->SlotAt(fIndex);
    }

private:
    enum class TState : std::uint8_t { Before, OnItem, Ended };

    ~TSmartListEnumerator() override = default;
    bool End() noexcept {
        fState = TState::Ended;
        return false;
    }

    const TIntf<TSmartList::TLife> fLife;
    std::int32_t fIndex = 0;
    const bool fForward;
    TState fState = TState::Before;
};

namespace {

template <typename T>
void MakeRoomForOne(std::vector<T>& array) {
    if (array.size() == array.capacity()) array.reserve(2 * array.size() + 8);
}

// Those of a list without chunks: the number of items, and behind it what no position reaches.
std::vector<std::int32_t> NoStarts() {
    std::vector<std::int32_t> starts(1 + WordsAtOnce, std::numeric_limits<std::int32_t>::max());
    starts[0] = 0;
    return starts;
}

}  // namespace

TSmartList::TSmartList(std::int32_t bucketSize, std::int32_t growthStep)
    : fBucketSize(bucketSize), fGrowthStep(std::min(growthStep, bucketSize)) {
    if (bucketSize < 2) ListIndexError(bucketSize);
    if (growthStep < 1) ListIndexError(growthStep);
    fStarts = NoStarts();
}

TSmartList::~TSmartList() {
    if (fLife) fLife->List = nullptr;
}

void TSmartList::CheckIndex(std::int32_t index) const {
    // One comparison: a negative position becomes a huge one.
    if (static_cast<std::uint32_t>(index) >= static_cast<std::uint32_t>(Count())) {
        ListIndexError(index);
    }
}

// The last chunk that does not start behind the position. Steps of fixed number, without a branch
// on what they find.
std::size_t TSmartList::BisectChunks(std::int32_t index) const noexcept {
    const std::int32_t* first = fStarts.data();
    for (std::size_t left = fChunks.size(); left > 1;) {
        const std::size_t half = left / 2;
        first += first[half] <= index ? half : 0;
        left -= half;
    }
    return static_cast<std::size_t>(first - fStarts.data());
}

void TSmartList::Insert(std::int32_t index, void* value) {
    const std::int32_t count = Count();
    if (index < 0 || index > count) ListIndexError(index);
    if (count == std::numeric_limits<std::int32_t>::max()) throw std::bad_alloc();
    std::size_t chunk = 0;
    if (index == count) {
        chunk = fChunks.size();
        if (chunk == 0 || CountOf(chunk - 1) == fBucketSize) {
            InsertChunk(chunk);
        } else {
            --chunk;
        }
    } else {
        chunk = ChunkAt(index);
        if (CountOf(chunk) == fBucketSize) {
            if (index == 0) {
                InsertChunk(0);
            } else {
                Split(chunk);
                if (index >= fStarts[chunk + 1]) ++chunk;
            }
        }
    }
    MakeRoom(chunk);  // the last that can fail; what was split or added has room
    void** const place = &fChunks[chunk].Items[static_cast<std::size_t>(index - fStarts[chunk])];
    std::copy_backward(place, place + (fStarts[chunk + 1] - index),
                       place + (fStarts[chunk + 1] - index) + 1);
    *place = value;
    Shift(chunk, 1);
}

void* TSmartList::Delete(std::int32_t index) {
    CheckIndex(index);
    const std::size_t chunk = ChunkAt(index);
    void** const place = &fChunks[chunk].Items[static_cast<std::size_t>(index - fStarts[chunk])];
    void* const value = *place;
    std::copy(place + 1, place + (fStarts[chunk + 1] - index), place);
    Shift(chunk, -1);
    const std::int32_t half = fBucketSize / 2;
    const std::int32_t left = CountOf(chunk);
    if (left == 0) {
        RemoveChunk(chunk);
    } else if (chunk > 0 && CountOf(chunk - 1) + left <= half) {
        Absorb(chunk - 1);
    } else if (chunk + 1 < fChunks.size() && left + CountOf(chunk + 1) <= half) {
        Absorb(chunk);
    }
    return value;
}

void TSmartList::Exchange(std::int32_t i, std::int32_t j) {
    CheckIndex(i);
    CheckIndex(j);
    std::swap(SlotAt(i), SlotAt(j));
}

void TSmartList::Clear() noexcept {
    fStarts.erase(fStarts.begin(), fStarts.begin() + static_cast<std::ptrdiff_t>(fChunks.size()));
    fStarts[0] = 0;
    fChunks.clear();
    fRate = 0;
}

// So many more items stand in the chunk.
void TSmartList::Shift(std::size_t chunk, std::int32_t items) noexcept {
    for (std::size_t i = chunk + 1; i <= fChunks.size(); ++i) fStarts[i] += items;
    const auto count = static_cast<std::uint64_t>(Count());
    fRate = count == 0 ? 0 : (std::uint64_t{fChunks.size()} << RateBits) / count;
}

TSmartList::TChunk TSmartList::MakeChunk(std::int32_t capacity) {
    if (fSpare != nullptr) return {std::move(fSpare), fBucketSize};
    const std::int32_t steps = (capacity - 1) / fGrowthStep + 1;
    const auto rounded = std::min(std::int64_t{steps} * fGrowthStep, std::int64_t{fBucketSize});
    return {std::make_unique_for_overwrite<void*[]>(static_cast<std::size_t>(rounded)),
            static_cast<std::int32_t>(rounded)};
}

// For one more item in a chunk that holds fewer than the bucket size.
void TSmartList::MakeRoom(std::size_t chunk) {
    const std::int32_t count = CountOf(chunk);
    if (count < fChunks[chunk].Capacity) return;
    TChunk grown = MakeChunk(count + 1);
    std::copy_n(fChunks[chunk].Items.get(), count, grown.Items.get());
    fChunks[chunk] = std::move(grown);
}

// An empty chunk, which the caller is about to fill.
void TSmartList::InsertChunk(std::size_t at) {
    MakeRoomForOne(fChunks);
    MakeRoomForOne(fStarts);
    TChunk fresh = MakeChunk(1);
    fChunks.insert(fChunks.begin() + static_cast<std::ptrdiff_t>(at), std::move(fresh));
    fStarts.insert(fStarts.begin() + static_cast<std::ptrdiff_t>(at), fStarts[at]);
}

// The upper half of a full chunk moves to a new one behind it.
void TSmartList::Split(std::size_t chunk) {
    const std::int32_t kept = fBucketSize / 2;
    const std::int32_t moved = fBucketSize - kept;
    MakeRoomForOne(fChunks);
    MakeRoomForOne(fStarts);
    TChunk fresh = MakeChunk(moved + 1);
    std::copy_n(fChunks[chunk].Items.get() + kept, moved, fresh.Items.get());
    const auto behind = static_cast<std::ptrdiff_t>(chunk) + 1;
    fChunks.insert(fChunks.begin() + behind, std::move(fresh));
    fStarts.insert(fStarts.begin() + behind, fStarts[chunk] + kept);
}

// An empty chunk goes. Its slots serve as the spare ones when there are none.
void TSmartList::RemoveChunk(std::size_t chunk) noexcept {
    if (fSpare == nullptr && fChunks[chunk].Capacity == fBucketSize) {
        fSpare = std::move(fChunks[chunk].Items);
    }
    const auto at = static_cast<std::ptrdiff_t>(chunk);
    fChunks.erase(fChunks.begin() + at);
    fStarts.erase(fStarts.begin() + at);
    Shift(fChunks.size(), 0);
}

// Merges a chunk with the next one, in the slots of the one that has more. These suffice: a chunk
// with few slots was begun at an end, beside a full one.
void TSmartList::Absorb(std::size_t chunk) noexcept {
    const std::int32_t low = CountOf(chunk);
    const std::int32_t high = CountOf(chunk + 1);
    TChunk& first = fChunks[chunk];
    TChunk& second = fChunks[chunk + 1];
    assert(low + high <= std::max(first.Capacity, second.Capacity));
    if (first.Capacity >= second.Capacity) {
        std::copy_n(second.Items.get(), high, first.Items.get() + low);
    } else {
        void** const items = second.Items.get();
        std::copy_backward(items, items + high, items + high + low);
        std::copy_n(first.Items.get(), low, items);
        std::swap(first, second);
    }
    fStarts[chunk + 1] = fStarts[chunk + 2];
    RemoveChunk(chunk + 1);
}

std::int32_t TSmartList::IndexOf(const void* value) const noexcept {
    for (std::size_t chunk = 0; chunk < fChunks.size(); ++chunk) {
        void* const* const items = fChunks[chunk].Items.get();
        void* const* const end = items + CountOf(chunk);
        void* const* const found = std::find(items, end, value);
        if (found != end) return fStarts[chunk] + static_cast<std::int32_t>(found - items);
    }
    return -1;
}

bool TSmartList::Find(void* value, std::int32_t& index, TComparator compare) const {
    std::int32_t low = 0;
    std::int32_t high = Count();
    while (low < high) {
        const std::int32_t middle = low + (high - low) / 2;
        if (compare(SlotAt(middle), value) < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    index = low;
    return low < Count() && compare(SlotAt(low), value) == 0;
}

void TSmartList::Sort(TComparator compare, std::int32_t maxThreads) {
    const auto items = std::make_unique_for_overwrite<void*[]>(static_cast<std::size_t>(Count()));
    CopyTo(items.get());
    MergeSortList(items.get(), 0, Count() - 1, compare, maxThreads);
    for (std::size_t chunk = 0; chunk < fChunks.size(); ++chunk) {
        std::copy_n(items.get() + fStarts[chunk], CountOf(chunk), fChunks[chunk].Items.get());
    }
}

void TSmartList::CopyTo(void** target) const noexcept {
    for (std::size_t chunk = 0; chunk < fChunks.size(); ++chunk) {
        target = std::copy_n(fChunks[chunk].Items.get(), CountOf(chunk), target);
    }
}

void TSmartList::Assign(void* const* items, std::int32_t count) {
    if (count < 0) ListIndexError(count);
    std::vector<TChunk> chunks;
    std::vector<std::int32_t> starts = NoStarts();
    const auto needed = static_cast<std::size_t>(count / fBucketSize) + 1;
    chunks.reserve(needed);
    starts.reserve(starts.size() + needed);
    for (std::int32_t index = 0; index < count;) {
        const std::int32_t part = std::min(count - index, fBucketSize);
        chunks.push_back(MakeChunk(part));
        std::copy_n(items + index, part, chunks.back().Items.get());
        index += part;
        starts.insert(starts.begin() + static_cast<std::ptrdiff_t>(chunks.size()), index);
    }
    fChunks.swap(chunks);
    fStarts.swap(starts);
    Shift(fChunks.size(), 0);
}

void TSmartList::Reserve() {
    MakeRoomForOne(fChunks);
    MakeRoomForOne(fStarts);
    if (fSpare == nullptr) {
        fSpare = std::make_unique_for_overwrite<void*[]>(static_cast<std::size_t>(fBucketSize));
    }
}

TIntf<IListEnumerator> TSmartList::GetEnumerator(TListEnumeratorDirection direction) {
    if (!fLife) fLife = MakeIntf<TLife>(this);
    return TIntf<IListEnumerator>(MakeIntf<TSmartListEnumerator>(fLife, direction));
}

const char* TSmartList::Inconsistency() const noexcept {
    if (fStarts.size() != fChunks.size() + 1 + WordsAtOnce) return "the number of starts";
    if (fStarts[0] != 0) return "the start of the first chunk";
    for (std::size_t chunk = 0; chunk < fChunks.size(); ++chunk) {
        if (CountOf(chunk) < 1) return "an empty chunk";
        if (CountOf(chunk) > fChunks[chunk].Capacity) return "more items than slots";
        if (fChunks[chunk].Capacity > fBucketSize) return "a chunk with too many slots";
        if (chunk > 0 && CountOf(chunk - 1) + CountOf(chunk) <= fBucketSize / 2) {
            return "two chunks that are one";
        }
        for (const std::int32_t index : {fStarts[chunk], fStarts[chunk + 1] - 1}) {
            if (ChunkAt(index) != chunk) return "the chunk that holds a position";
        }
    }
    if (fLife && fLife->List != this) return "what the enumerators hold on to";
    return nullptr;
}

}  // namespace kds
