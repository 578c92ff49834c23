// Map from unsigned 32-bit codes to untyped pointers, for codes that are spread evenly, row
// identifiers for instance: a fixed number of buckets, each of them a sorted array.
//
// Shape      A code's bucket is the code masked by fBucketMask. A bucket's items stand in ascending
//            order of their codes taken as signed numbers, without duplicates. The first arrays of
//            all buckets, of 16 items, lie side by side, so that a lookup knows where to read
//            without reading that first; a bucket that outgrows its own has a longer one elsewhere.
//            QUIRK: what searches compares codes as signed numbers, what then chooses the place of
//            a new one as unsigned numbers. Codes on both sides of 80000000h in one bucket can so
//            come out of order, and then be missed and stored twice: one sign for each bucket.
// Units      Counts and lengths are items: signed 32-bit. A bucket's length grows by 16.
// Ownership  Owns its arrays, never what the pointers lead to. nullptr may be stored, and reads
//            back as absent.
// Errors     std::bad_alloc from the constructor, Put and Reserve, which then leave the map as it
//            was. After Reserve the next Put of that code does not allocate; what else there is
//            never does.
// Cost       Get, Put, Remove one bucket: a line of codes when it holds up to 16, else O(log k)
//            comparisons and moves of k items. O(1) for the code of the last Get. GetCount O(1).
//            Clear O(buckets). From the first Put on about 196 bytes a bucket, 25 an item with one
//            bucket for 8; what lies in pages that no code has touched yet is not taken.
// Validity   Iterators are good until the next Put, Remove or Clear.
// Threads    No locks, and Get writes the cache: one thread at a time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>

#include "kds/containers/Wordscan.h"
#include "kds/platform/Object.h"
#include "kds/platform/Prefetch.h"

namespace kds {

struct TCardinalBucketItem {
    std::uint32_t Code = 0;
    void* Data = nullptr;
    friend bool operator==(const TCardinalBucketItem&, const TCardinalBucketItem&) = default;
};

class TCardinalHash : public TObject {
public:
    static constexpr std::int32_t GrowthStep = 16;

    // Fewer than 2 buckets are one. A number that is no power of two leaves some of them empty.
    explicit TCardinalHash(std::int32_t bucketCount);
    ~TCardinalHash() override;

    [[nodiscard]] std::int32_t GetCount() const noexcept { return fCount; }
    [[nodiscard]] std::int32_t BucketCount() const noexcept { return fBucketCount; }
    [[nodiscard]] void* Get(std::uint32_t code) const noexcept {
        if (IsCacheOK && code == CacheCode) return CacheData;
        CacheData = Lookup(code);
        CacheCode = code;
        IsCacheOK = true;
        return CacheData;
    }
    void Put(std::uint32_t code, void* data);  // stores or replaces
    void Remove(std::uint32_t code) noexcept;  // when it is there
    void Clear() noexcept;
    void InvalidateCache() noexcept { IsCacheOK = false; }
    // Sees to it that the next Put of this code needs no memory.
    void Reserve(std::uint32_t code);

    // All items, bucket by bucket; read only.
    class TIterator;
    [[nodiscard]] TIterator begin() const noexcept;
    [[nodiscard]] TIterator end() const noexcept;

    // The first rule of Shape that does not hold, nullptr when all do. Walks everything. The order
    // of codes is not asked for while there are codes of both signs.
    [[nodiscard]] const char* Inconsistency() const noexcept;
    [[nodiscard]] bool IsConsistent() const noexcept { return Inconsistency() == nullptr; }

private:
    // A code that fills unused slots, whose data are nullptr: so they are never below another code,
    // and one that is found in them reads as absent.
    static constexpr std::uint32_t Unused = 0x7FFFFFFF;

    // The first array of a bucket. That of a bucket with a longer one has nothing in use, and the
    // longer one in its first pointer.
    struct TBlock {
        alignas(64) std::uint32_t Codes[GrowthStep];
        void* Data[GrowthStep];
    };
    static_assert(GrowthStep == WordsAtOnce);
    // Followed by Length codes and as many pointers.
    struct TLonger {
        std::int64_t Length;
    };
    struct TCardinalBucketCount {
        std::uint32_t Items : 31 = 0;
        std::uint32_t IsLonger : 1 = 0;  // for good, until Clear
    };
    // Where the items of a bucket lie.
    struct TCardinalBucketArray {
        std::uint32_t* Codes;
        void** Data;
        std::int32_t Length, Count;
    };

    [[nodiscard]] void* Lookup(std::uint32_t code) const noexcept {
        if (fBlocks == nullptr) return nullptr;
        // The scan finds what the bisection would in a bucket that is in order.
        if (code != Unused && !HasBothSigns()) {
            TBlock& block = fBlocks[code & fBucketMask];
            Prefetch(block.Data);
            const std::uint32_t equal = WordsEqual(block.Codes, code);
            if (equal != 0) return block.Data[std::countr_zero(equal)];
            if (fLongerCount == 0) return nullptr;
        }
        return LookupBySearch(code);
    }
    [[nodiscard]] void* LookupBySearch(std::uint32_t code) const noexcept;
    [[nodiscard]] bool HasBothSigns() const noexcept { return fSigns == 3; }
    [[nodiscard]] TCardinalBucketArray ArrayAt(std::uint32_t ordinal) const noexcept;
    [[nodiscard]] static TCardinalBucketArray ArrayOf(TLonger* longer, std::int32_t count) noexcept;
    [[nodiscard]] std::int32_t Search(const TCardinalBucketArray& bucket, std::uint32_t code,
                                      bool exact) const noexcept;
    [[nodiscard]] static std::int32_t Bisect(const TCardinalBucketArray& bucket, std::uint32_t code,
                                             bool exact) noexcept;
    void Lengthen(std::uint32_t ordinal);
    void CreateBlocks();
    [[nodiscard]] std::size_t BlocksSize() const noexcept;
    [[nodiscard]] const char* BucketFault(std::uint32_t ordinal) const noexcept;

    TBlock* fBlocks = nullptr;  // of all buckets; nullptr until the first Put
    std::unique_ptr<TCardinalBucketCount[]> fCounts;
    std::int32_t fBucketCount;
    std::uint32_t fBucketMask;
    mutable bool IsCacheOK = false;
    mutable std::uint32_t CacheCode = 0;
    mutable void* CacheData = nullptr;

    std::int32_t fCount = 0;        // of all buckets
    std::int32_t fLongerCount = 0;  // buckets with a longer array
    std::uint32_t fSigns =
        0;  // 1 once a code below 80000000h was put since Clear, 2 for the others
};

// Bidirectional: the ordinal of a bucket and a position in it.
class TCardinalHash::TIterator {
public:
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = TCardinalBucketItem;
    using difference_type = std::ptrdiff_t;
    using pointer = const TCardinalBucketItem*;
    using reference = TCardinalBucketItem;

    TIterator() = default;
    [[nodiscard]] TCardinalBucketItem operator*() const noexcept {
        const TCardinalBucketArray bucket = fHash->ArrayAt(static_cast<std::uint32_t>(fOrdinal));
        return {bucket.Codes[fPosition], bucket.Data[fPosition]};
    }
    TIterator& operator++() noexcept {
        ++fPosition;
        SkipForward();
        return *this;
    }
    TIterator operator++(int) noexcept {
        TIterator old = *this;
        ++*this;
        return old;
    }
    TIterator& operator--() noexcept {
        while (fPosition == 0) fPosition = CountOf(--fOrdinal);
        --fPosition;
        return *this;
    }
    TIterator operator--(int) noexcept {
        TIterator old = *this;
        --*this;
        return old;
    }
    friend bool operator==(const TIterator&, const TIterator&) = default;

private:
    friend class TCardinalHash;
    TIterator(const TCardinalHash* hash, std::int32_t ordinal) noexcept
        : fHash(hash), fOrdinal(ordinal) {
        SkipForward();
    }
    [[nodiscard]] std::int32_t CountOf(std::int32_t ordinal) const noexcept {
        return static_cast<std::int32_t>(fHash->fCounts[static_cast<std::size_t>(ordinal)].Items);
    }
    void SkipForward() noexcept {
        while (fOrdinal < fHash->fBucketCount && fPosition == CountOf(fOrdinal)) {
            ++fOrdinal;
            fPosition = 0;
        }
    }

    const TCardinalHash* fHash = nullptr;
    std::int32_t fOrdinal = 0;
    std::int32_t fPosition = 0;
};

inline TCardinalHash::TIterator TCardinalHash::begin() const noexcept { return {this, 0}; }
inline TCardinalHash::TIterator TCardinalHash::end() const noexcept { return {this, fBucketCount}; }

}  // namespace kds
