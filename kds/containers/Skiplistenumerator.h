// Enumerator of the unrolled skip list; the list itself moves it along when its buckets change.
//
// Shape      A bucket and a position in it. Going forward the next item is the one behind the
//            position, going back the one before it, so -1 and the bucket's count are positions
//            too. fBucket is nullptr before the first step; fList is nullptr after the last one and
//            when the list has ended the enumerator.
// Ownership  The list knows its live enumerators and holds no reference to them.
// Threads    Belongs to the thread that uses the list.
#pragma once

#include <cstdint>

#include "kds/containers/Listenumerator.h"
#include "kds/containers/Unrolledskiplist.h"

namespace kds {

class TSkipListEnumerator final : public IListEnumerator {
public:
    TSkipListEnumerator(TUnrolledSkipList* list, TListEnumeratorDirection direction) noexcept
        : fList(list), fForward(direction == ledForward) {}

    bool MoveNext() override;
    [[nodiscard]] void* GetCurrent() const override;

private:
    friend class TUnrolledSkipList;

    ~TSkipListEnumerator() override;
    void Leave() noexcept;

    // What the list tells. `At` says whether the enumerator stands in that bucket, at or behind
    // that position.
    [[nodiscard]] bool At(const TSkipListBucket* bucket, std::int32_t position) const noexcept {
        return fBucket == bucket && fPosition >= position;
    }
    void Follow(PSkipListBucket bucket, std::int32_t shift) noexcept {
        fBucket = bucket;
        fPosition += shift;
    }
    void Removed(std::int32_t position) noexcept;
    void BucketGoes(PSkipListBucket before, PSkipListBucket after) noexcept;
    void End() noexcept {
        fList = nullptr;
        fOnItem = false;
    }

    TUnrolledSkipList* fList;
    PSkipListBucket fBucket = nullptr;
    std::int32_t fPosition = 0;
    const bool fForward;
    bool fOnItem = false;  // not so when the item stood on was removed
};

}  // namespace kds
