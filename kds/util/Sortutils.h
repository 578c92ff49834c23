// Sorting and checking ranges of an array of untyped pointers with the caller's comparison.
//
// Shape      Every routine takes the array, an inclusive range L..R and a comparison; R < L is the
//            empty range. The sorting cores are templates (kds/util/Mergesort.h), instantiated here
//            for pointers and delegates; what holds here holds for every instantiation.
// Units      Positions are items, signed 32-bit, counted from 0; sums are taken in 64 bits.
// Errors     What the comparison raises reaches the caller, and MergeSortList and MergeSortedLists
//            raise EInvalidArgument ("Comparison method violates its general contract!") when they
//            notice that it is no consistent order; std::bad_alloc when there is no room for the
//            merge. Whatever is raised, the range then holds a permutation of its items, and
//            whatever the comparison answers, nothing outside the range is touched.
// Cost       MergeSortList O(n log n) comparisons, exactly n - 1 when the range is in order or
//            strictly descending and is sorted on one thread; up to n / 2 pointers of extra room.
//            InsertSortList O(n * n), QuickSortList O(n log n) expected, in place and not stable.
// Threads    MergeSortList may start workers for 16384 items and more: the comparison is then
//            called from several threads at once. Every worker has ended when it returns or raises.
#pragma once

#include <cstdint>

#include "kds/platform/Delegate.h"

namespace kds {

// Negative when the first orders before the second, 0 when they are equal, positive when after.
using TComparator = TDelegate<std::int32_t(void*, void*)>;

[[nodiscard]] bool IsSortedList(void* const* list, std::int32_t L, std::int32_t R,
                                TComparator compare);
void InsertSortList(void** list, std::int32_t L, std::int32_t R, TComparator compare);
void QuickSortList(void** list, std::int32_t L, std::int32_t R, TComparator compare);
// L..start - 1 is in order already; an item goes behind all that compare equal to it.
void BinarySortList(void** list, std::int32_t L, std::int32_t R, std::int32_t start,
                    TComparator compare);
// Merges L..start - 1 with start..R, each of them in order; equal items keep their order.
void MergeSortedLists(void** list, std::int32_t L, std::int32_t R, std::int32_t start,
                      TComparator compare);
// Stable. `maxThreads` above 0 caps the threads of this call, 0 or less sets no further cap.
void MergeSortList(void** list, std::int32_t L, std::int32_t R, TComparator compare,
                   std::int32_t maxThreads);

// The most threads any sort of this process uses, at least 1: what the command line asks for
// ("-maxsortingthreads 4", "/" serves as well as "-"), else the number of processors. Read from
// the process on the first call and kept.
[[nodiscard]] std::int32_t MaxSortingThreads() noexcept;
// Makes the next call of MaxSortingThreads read the process again, for tests that replaced it.
void ForgetMaxSortingThreads() noexcept;

// Set on every thread that takes part in a sort on several threads, for as long as it does. What a
// comparison reaches then must not write, not even caches.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local bool InParallelSort;

}  // namespace kds
