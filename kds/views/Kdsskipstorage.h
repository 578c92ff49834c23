// The skip storage: rows in an unrolled skip list, found by identity. Tables use it unless they are
// told otherwise.
//
// Shape      Each bucket of the list keeps its rows in order. A map leads from a row's identifier
//            to its bucket; directory and samples lead from a key to its place. The latter two are
//            hints, checked against the rows and dropped when there is no memory for them.
// Cost       Row at a position O(log n), O(1) in sequence; Find O(log n) and a scan of one bucket's
//            pointers, without reading a key; Search O(log n) comparisons; Insert, Delete O(log n)
//            and a move of at most 640 pointers. About 12 bytes a row after a build, 12 to 24 after
//            edits.
#pragma once

#include <memory>
#include <ranges>
#include <vector>

#include "kds/containers/Unrolledskiplist.h"
#include "kds/platform/Prefetch.h"
#include "kds/views/Kdsguides.h"
#include "kds/views/Kdsstorages.h"

namespace kds {

// Row identifier to bucket, and about where in it: 4 bytes a row, in pages that come and go with
// the live rows.
class TKdsRowMap {
public:
    static constexpr std::uint32_t None = 0xffff'ffffu;
    // The offset as of the placement, to two places; it drifts with the bucket's other changes.
    static constexpr std::uint32_t OffsetBits = 10;
    [[nodiscard]] static std::uint32_t Entry(std::uint32_t bucket, std::int32_t offset) noexcept {
        return bucket << OffsetBits | static_cast<std::uint32_t>(offset) >> 1;
    }
    [[nodiscard]] static std::uint32_t BucketOf(std::uint32_t entry) noexcept {
        return entry >> OffsetBits;
    }
    [[nodiscard]] static std::int32_t OffsetOf(std::uint32_t entry) noexcept {
        return static_cast<std::int32_t>((entry & ((1u << OffsetBits) - 1)) << 1);
    }
    // Room for the row, so that Put cannot fail.
    void Reserve(std::uint32_t rowID) {
        const std::size_t page = rowID / PageSize;
        if (page >= fPages.size() || fPages[page] == nullptr) AddPage(page);
    }
    void ReserveBelow(std::uint32_t end);  // for all rows before this one
    void Put(std::uint32_t rowID, std::uint32_t entry) noexcept {
        const std::size_t index = rowID / PageSize;
        if (index >= fPages.size() || fPages[index] == nullptr) return;
        TPage& page = *fPages[index];
        std::uint32_t& kept = page.Entries[rowID % PageSize];
        if (kept == None) ++page.Live;
        kept = entry;
    }
    void Remove(std::uint32_t rowID) noexcept;
    [[nodiscard]] std::uint32_t Get(std::uint32_t rowID) const noexcept {
        const std::size_t page = rowID / PageSize;
        if (page >= fPages.size() || fPages[page] == nullptr) return None;
        return fPages[page]->Entries[rowID % PageSize];
    }
    // Brings the row's entry near; false when there is none.
    bool Prefetch(std::uint32_t rowID) const noexcept {
        const std::size_t page = rowID / PageSize;
        if (page >= fPages.size() || fPages[page] == nullptr) return false;
        kds::Prefetch(&fPages[page]->Entries[rowID % PageSize]);
        kds::Prefetch(&fPages[page]->Live);
        return true;
    }
    void Clear() noexcept { fPages.clear(); }

private:
    void AddPage(std::size_t page);

    static constexpr std::uint32_t PageSize = 1024;
    struct TPage {
        std::uint32_t Live = 0;
        std::uint32_t Entries[PageSize];
    };
    std::vector<std::unique_ptr<TPage>> fPages;
};

class TKdsViewRecordSkip final : public TKdsViewRecords {
public:
    [[nodiscard]] std::int32_t GetCount() const override { return fItems.Count(); }
    [[nodiscard]] TKdsRecord* GetItem(std::int32_t index) const override {
        return static_cast<TKdsRecord*>(fItems.Get(index));
    }
    [[nodiscard]] TIntf<IKdsRecordEnumerator> GetEnumerator(
        TListEnumeratorDirection direction) override;
    TUnrolledSkipList fItems;
};

class TKdsViewStorageSkip final : public TKdsViewStorage, private ISkipListTracker {
public:
    TKdsViewStorageSkip() = default;
    ~TKdsViewStorageSkip() override;
    [[nodiscard]] TKdsViewRecords* GetRecords() override { return &fRecords; }
    void Clear() override;
    void Append(TKdsRecord* record) override;
    void Insert(std::int32_t index, TKdsRecord* record) override;
    void Delete(std::int32_t index) override;
    void Switch(std::int32_t from, std::int32_t to) override;
    [[nodiscard]] std::int32_t Find(TKdsRecord* record) override;
    void Search(TKdsRecord* key, TKdsLocateOptions locate, TKdsCompareOptions compare,
                std::int32_t& index, bool& found) override;
    void Sort(TKdsCompareOptions compare, bool force) override;
    bool Build(std::vector<void*>&& records, bool sorts) override;
    void Prepared() override;
    void Reserve(std::uint32_t rowID) override;
    bool Approach(const TKdsRecord* record, TKdsApproach way, std::int32_t step) override;
    [[nodiscard]] bool IsConsistent() override;

private:
    struct TSeparator {
        std::uint64_t Prefix;
        std::uint32_t Bucket;
    };
    using TDirectory = std::vector<TSeparator>;

    // A place that was found beforehand; good when the rows there confirm it.
    struct TForecast {
        TKdsGuide Guide;
        std::uint32_t Bucket = 0;
        TKdsWindow Window;
        bool Known = false;
    };

    void Placed(void* const* items, std::int32_t count, std::uint32_t bucket,
                std::int32_t first) noexcept override;
    void Cleared() noexcept override;
    void Track();
    void PutIn(std::int32_t index, TKdsRecord* record);
    TKdsRecord* TakeOut(std::int32_t index);
    [[nodiscard]] std::uint64_t PrefixOf(const TKdsRecord* record) const;
    void DropSamplesOfSwapped() noexcept;
    [[nodiscard]] std::int32_t OffsetIn(const TSkipListBucket* bucket, std::int32_t guess,
                                        const TKdsRecord* record);
    [[nodiscard]] std::int32_t LikelyOffset(const TSkipListBucket* bucket,
                                            const TKdsRecord* record);
    [[nodiscard]] bool CanSearchByOrder(TKdsLocateOptions locate, TKdsCompareOptions compare) const;
    [[nodiscard]] TKdsGuide GuideTo(const TKdsRecord* key, const std::byte* values,
                                    std::int32_t count) const;
    template <typename F>
    void SearchByOrder(TKdsRecord* key, TKdsLocateOptions locate, const TKdsGuide& guide,
                       F&& compare, std::int32_t& index, bool& found);
    template <typename F>
    [[nodiscard]] std::int32_t Boundary(F&& before, TKdsRecord* skipped, const TKdsGuide& guide);
    template <typename F>
    [[nodiscard]] std::int32_t BoundaryIn(const TSkipListBucket* bucket, F&& holds,
                                          const TKdsGuide& guide, TKdsWindow window) const;
    template <typename F>
    [[nodiscard]] PSkipListBucket LikelyBucket(const TKdsGuide& guide, F&& holds);
    [[nodiscard]] std::ranges::subrange<TDirectory::const_iterator> EqualBuckets(
        const TKdsGuide& guide) const;
    [[nodiscard]] TKdsWindow WindowIn(const TSkipListBucket* bucket, const TKdsGuide& guide);
    [[nodiscard]] bool UpdateDirectory(const TKdsGuide& guide);
    void MakeDirectory(const TKdsGuide& guide);
    [[nodiscard]] TKdsBucketSamples* SamplesOf(std::uint32_t bucket) const noexcept;
    [[nodiscard]] TKdsBucketSamples* MakeSamples(const TSkipListBucket* bucket,
                                                 const TKdsGuide& guide) noexcept;
    void DropGuides() noexcept;
    bool ApproachPresent(const TKdsRecord* record, std::int32_t step);
    bool ApproachNext(const TKdsRecord* record, std::int32_t step);
    bool Forecast(const TKdsRecord* record);

    TKdsViewRecordSkip fRecords;
    TKdsRowMap fRows;
    bool fTracks = false;
    // Where each bucket began when this was last written: a hint, so that a search looks into the
    // right bucket at once. What it says is always checked against the rows.
    TDirectory fDirectory;
    std::int32_t fStale = 0;  // buckets that were filled, split or merged since
    std::vector<std::unique_ptr<TKdsBucketSamples>> fSamples;  // by bucket id; hints as well
    TForecast fForecast;
    std::uint32_t fExpectedRow = NoRowID;  // whose offset was found beforehand, a hint too
    std::int32_t fExpectedOffset = 0;
};

}  // namespace kds
