#include "kds/containers/Cardinalhash.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "kds/platform/Pages.h"

namespace kds {

namespace {

constexpr std::size_t MappedFrom = std::size_t{8} << 20;  // bytes: less comes from the heap
constexpr std::align_val_t Alignment{64};

std::int32_t AsSigned(std::uint32_t code) noexcept { return static_cast<std::int32_t>(code); }
std::uint32_t SignOf(std::uint32_t code) noexcept { return AsSigned(code) < 0 ? 2 : 1; }

constexpr std::size_t LongerSize(std::int64_t length) noexcept {
    return sizeof(std::int64_t) +
           static_cast<std::size_t>(length) * (sizeof(std::uint32_t) + sizeof(void*));
}

}  // namespace

TCardinalHash::TCardinalHash(std::int32_t bucketCount)
    : fBucketCount(std::max(bucketCount, 1)),
      fBucketMask(static_cast<std::uint32_t>(fBucketCount) - 1) {
    fCounts = std::make_unique<TCardinalBucketCount[]>(static_cast<std::size_t>(fBucketCount));
}

TCardinalHash::~TCardinalHash() { Clear(); }

void* TCardinalHash::LookupBySearch(std::uint32_t code) const noexcept {
    const TCardinalBucketArray bucket = ArrayAt(code & fBucketMask);
    const std::int32_t index = Search(bucket, code, true);
    return index < 0 ? nullptr : bucket.Data[index];
}

TCardinalHash::TCardinalBucketArray TCardinalHash::ArrayAt(std::uint32_t ordinal) const noexcept {
    TBlock& block = fBlocks[ordinal];
    const TCardinalBucketCount& count = fCounts[ordinal];
    const auto items = static_cast<std::int32_t>(count.Items);
    if (count.IsLonger != 0) return ArrayOf(static_cast<TLonger*>(block.Data[0]), items);
    return {block.Codes, block.Data, GrowthStep, items};
}

TCardinalHash::TCardinalBucketArray TCardinalHash::ArrayOf(TLonger* longer,
                                                           std::int32_t count) noexcept {
    auto* const codes = reinterpret_cast<std::uint32_t*>(longer + 1);
    auto* const data = reinterpret_cast<void**>(static_cast<void*>(codes + longer->Length));
    return {codes, data, static_cast<std::int32_t>(longer->Length), count};
}

// Position of the code in the bucket. When it is not there, -1 if `exact`, else the place where it
// belongs.
std::int32_t TCardinalHash::Search(const TCardinalBucketArray& bucket, std::uint32_t code,
                                   bool exact) const noexcept {
    if (bucket.Count == 0 || bucket.Length > GrowthStep || HasBothSigns()) {
        return Bisect(bucket, code, exact);
    }
    // A bucket in order, and one line of the cache: how many codes are below answers what the
    // bisection would. It takes no branch, so that the processor goes on to the next search while
    // this one waits for memory.
    const std::int32_t place = std::countr_one(
        WordsBelow(reinterpret_cast<const std::int32_t*>(bucket.Codes), AsSigned(code)));
    if (!exact) return place;
    return place < bucket.Count && bucket.Codes[place] == code ? place : -1;
}

std::int32_t TCardinalHash::Bisect(const TCardinalBucketArray& bucket, std::uint32_t code,
                                   bool exact) noexcept {
    const std::int32_t count = bucket.Count;
    if (count == 0) return exact ? -1 : 0;
    std::int32_t low = 0;
    std::int32_t high = count - 1;
    // The last item first: codes put in ascending order cost one comparison.
    std::int32_t middle = high;
    for (;;) {
        const std::uint32_t probed = bucket.Codes[middle];
        if (probed == code) return middle;
        if (AsSigned(probed) < AsSigned(code)) {
            low = middle + 1;
        } else {
            high = middle - 1;
        }
        if (low > high) break;
        middle = low + (high - low) / 2;
    }
    if (exact) return -1;
    if (low == count) return count;
    if (high < 0) return 0;
    // QUIRK: unsigned here and signed above, and kept so. It is the same for codes of one sign.
    return bucket.Codes[middle] < code ? middle + 1 : middle;
}

void TCardinalHash::Put(std::uint32_t code, void* data) {
    if (fBlocks == nullptr) CreateBlocks();
    const std::uint32_t ordinal = code & fBucketMask;
    TCardinalBucketArray bucket = ArrayAt(ordinal);
    Prefetch(bucket.Data);
    const std::int32_t place = Search(bucket, code, false);
    if (place < bucket.Count && bucket.Codes[place] == code) {
        bucket.Data[place] = data;
        IsCacheOK = false;
        return;
    }
    if (bucket.Count == bucket.Length) {
        Lengthen(ordinal);
        bucket = ArrayAt(ordinal);
    }
    // The slots of a first array that was not used yet are zeros.
    if (bucket.Count == 0 && bucket.Length == GrowthStep) {
        std::fill_n(bucket.Codes, GrowthStep, Unused);
    }
    std::copy_backward(bucket.Codes + place, bucket.Codes + bucket.Count,
                       bucket.Codes + bucket.Count + 1);
    std::copy_backward(bucket.Data + place, bucket.Data + bucket.Count,
                       bucket.Data + bucket.Count + 1);
    bucket.Codes[place] = code;
    bucket.Data[place] = data;
    ++fCounts[ordinal].Items;
    ++fCount;
    fSigns |= SignOf(code);
    IsCacheOK = false;
}

void TCardinalHash::Remove(std::uint32_t code) noexcept {
    IsCacheOK = false;
    if (fBlocks == nullptr) return;
    const std::uint32_t ordinal = code & fBucketMask;
    const TCardinalBucketArray bucket = ArrayAt(ordinal);
    Prefetch(bucket.Data);
    const std::int32_t place = Search(bucket, code, true);
    if (place < 0) return;
    const std::int32_t last = bucket.Count - 1;
    std::copy(bucket.Codes + place + 1, bucket.Codes + bucket.Count, bucket.Codes + place);
    std::copy(bucket.Data + place + 1, bucket.Data + bucket.Count, bucket.Data + place);
    bucket.Codes[last] = Unused;
    bucket.Data[last] = nullptr;
    --fCounts[ordinal].Items;
    --fCount;
}

void TCardinalHash::Clear() noexcept {
    for (std::size_t i = 0; i < static_cast<std::size_t>(fBucketCount); ++i) {
        if (fCounts[i].IsLonger != 0) ::operator delete(fBlocks[i].Data[0]);
        fCounts[i] = {};
    }
    if (fBlocks != nullptr && BlocksSize() >= MappedFrom) {
        Pages().Unmap(fBlocks, BlocksSize());
    } else {
        ::operator delete(fBlocks, Alignment);
    }
    fBlocks = nullptr;
    fCount = 0;
    fLongerCount = 0;
    fSigns = 0;
    IsCacheOK = false;
}

void TCardinalHash::Reserve(std::uint32_t code) {
    if (fBlocks == nullptr) CreateBlocks();
    const std::uint32_t ordinal = code & fBucketMask;
    const TCardinalBucketArray bucket = ArrayAt(ordinal);
    if (bucket.Count == bucket.Length) Lengthen(ordinal);
}

std::size_t TCardinalHash::BlocksSize() const noexcept {
    const std::size_t size = static_cast<std::size_t>(fBucketCount) * sizeof(TBlock);
    return size < MappedFrom ? size : (size + LargePage - 1) / LargePage * LargePage;
}

void TCardinalHash::CreateBlocks() {
    const std::size_t size = BlocksSize();
    void* const blocks = size < MappedFrom ? ::operator new(size, Alignment) : Pages().Map(size);
    fBlocks = static_cast<TBlock*>(blocks);
    if (size >= MappedFrom) return;  // mapped as zeros
    std::memset(blocks, 0, size);
}

// By one step, into an array of its own.
void TCardinalHash::Lengthen(std::uint32_t ordinal) {
    const TCardinalBucketArray bucket = ArrayAt(ordinal);
    if (bucket.Length > std::numeric_limits<std::int32_t>::max() - GrowthStep) {
        throw std::bad_alloc();
    }
    const std::int64_t length = bucket.Length + GrowthStep;
    auto* const longer = new (::operator new(LongerSize(length))) TLonger{length};
    const TCardinalBucketArray target = ArrayOf(longer, bucket.Count);
    std::copy_n(bucket.Codes, bucket.Count, target.Codes);
    std::copy_n(bucket.Data, bucket.Count, target.Data);
    TBlock& block = fBlocks[ordinal];
    if (fCounts[ordinal].IsLonger != 0) {
        ::operator delete(block.Data[0]);
    } else {
        fCounts[ordinal].IsLonger = 1;
        ++fLongerCount;
        std::fill_n(block.Codes, GrowthStep, Unused);
    }
    block.Data[0] = longer;
}

const char* TCardinalHash::Inconsistency() const noexcept {
    std::int64_t count = 0;
    std::int64_t longer = 0;
    for (std::int32_t i = 0; i < fBucketCount; ++i) {
        const TCardinalBucketCount& bucket = fCounts[static_cast<std::size_t>(i)];
        count += bucket.Items;
        longer += bucket.IsLonger;
        if (fBlocks == nullptr) continue;
        if (const char* const fault = BucketFault(static_cast<std::uint32_t>(i))) return fault;
    }
    if (count != fCount) return "the number of items";
    if (longer != fLongerCount) return "the number of longer arrays";
    if (fBlocks == nullptr && count + longer > 0) return "items without arrays";
    if (!IsCacheOK || HasBothSigns()) return nullptr;
    return CacheData == Lookup(CacheCode) ? nullptr : "the cache";
}

const char* TCardinalHash::BucketFault(std::uint32_t ordinal) const noexcept {
    const TCardinalBucketArray bucket = ArrayAt(ordinal);
    if (bucket.Count > bucket.Length) return "the count of a bucket";
    if (bucket.Length % GrowthStep != 0) return "the length of a bucket";
    for (std::int32_t i = 0; i < bucket.Count; ++i) {
        const std::uint32_t code = bucket.Codes[i];
        if ((code & fBucketMask) != ordinal) return "a code in another's bucket";
        if ((fSigns & SignOf(code)) == 0) return "the sign of a code";
        if (i == 0 || HasBothSigns()) continue;
        if (AsSigned(bucket.Codes[i - 1]) >= AsSigned(code)) return "the order of a bucket";
    }
    const TBlock& block = fBlocks[ordinal];
    const bool isLonger = bucket.Length > GrowthStep;
    for (std::int32_t i = isLonger ? 0 : bucket.Count; i < GrowthStep; ++i) {
        if (block.Codes[i] != Unused && block.Codes[i] != 0) return "the code of an unused slot";
        if (block.Data[i] != nullptr && !isLonger) return "the pointer of an unused slot";
    }
    return nullptr;
}

}  // namespace kds
