#include "kds/containers/Skiplistenumerator.h"

namespace kds {

TSkipListEnumerator::~TSkipListEnumerator() { Leave(); }

// An enumerator that has ended no longer hears of changes.
void TSkipListEnumerator::Leave() noexcept {
    if (fList != nullptr) fList->fEnums.Remove(this);
    End();
}

bool TSkipListEnumerator::MoveNext() {
    if (fList == nullptr) return false;
    if (fBucket == nullptr) {  // the ends of the list as they are now, not when it was made
        fBucket = fForward ? fList->fFirst : fList->fLast;
        fPosition = fForward ? -1 : fBucket->List.Count();
    }
    fPosition += fForward ? 1 : -1;
    if (fPosition < 0 || fPosition >= fBucket->List.Count()) {
        fBucket = fForward ? fList->NextBucket(fBucket) : fList->PrevBucket(fBucket);
        if (fBucket == nullptr) {
            Leave();
            return false;
        }
        fPosition = fForward ? 0 : fBucket->List.Count() - 1;
    }
    fOnItem = true;
    return true;
}

void* TSkipListEnumerator::GetCurrent() const {
    return fOnItem ? fBucket->List.Get(fPosition) : nullptr;
}

// The item at this position of the enumerator's bucket is gone.
void TSkipListEnumerator::Removed(std::int32_t position) noexcept {
    if (fPosition < position) return;
    if (fPosition == position) fOnItem = false;
    // Going forward, the item that moved into the gap comes next; going back, the one before it.
    if (fPosition > position || fForward) --fPosition;
}

// The enumerator's bucket, empty now, leaves the list; its neighbours are nullptr at the ends.
void TSkipListEnumerator::BucketGoes(PSkipListBucket before, PSkipListBucket after) noexcept {
    // At the end of the way the other neighbour stands in, with nothing left to come: what is
    // appended there later is still met.
    const bool toAfter = fForward ? after != nullptr : before == nullptr;
    fBucket = toAfter ? after : before;
    fPosition = toAfter ? (fForward ? -1 : 0) : before->List.Count() - (fForward ? 1 : 0);
}

}  // namespace kds
