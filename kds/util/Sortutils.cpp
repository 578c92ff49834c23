#include "kds/util/Sortutils.h"

#include <algorithm>
#include <atomic>
#include <string_view>
#include <utility>

#include "kds/platform/Errors.h"
#include "kds/platform/Prefetch.h"
#include "kds/platform/Process.h"
#include "kds/platform/Text.h"
#include "kds/util/Mergesort.h"

namespace kds {

constinit thread_local bool InParallelSort = false;

namespace {

// The delegate as a plain call, which the templates can take as any other comparison.
struct TDelegateCompare {
    TComparator Compare;
    std::int32_t operator()(void* a, void* b) const { return Compare(a, b); }
    // The pointers are the caller's own; one that leads nowhere is fetched in vain, no more.
    void Prefetch(const void* item) const noexcept { kds::Prefetch(item); }
};
using TPointerMerge = TMergeState<void*, TDelegateCompare>;

// 0 until the process was asked. Two threads that ask at the same time find the same answer.
constinit std::atomic<std::int32_t> sortingThreads = 0;

// The value of the switch, -1 when it is absent or no number. The last parameter is not looked at:
// nothing follows it that could be the value.
std::int32_t ThreadsSwitch() {
    const std::vector<std::u16string> parameters = Process().Parameters();
    for (std::size_t i = 0; i + 1 < parameters.size(); ++i) {
        const std::u16string_view name = parameters[i];
        if (name.empty() || (name.front() != u'-' && name.front() != u'/')) continue;
        if (SameText(name.substr(1), u"maxsortingthreads")) {
            return TextToIntDef(parameters[i + 1], -1);
        }
    }
    return -1;
}

std::int32_t ReadSortingThreads() noexcept {
    // A command line that cannot be read sets no limit.
    std::int32_t threads = -1;
    try {
        threads = ThreadsSwitch();
    } catch (...) {
    }
    if (threads < 1) threads = Process().ProcessorCount();
    return std::max(threads, 1);
}

// Orders the first, the middle and the last item of L..R and answers the middle one, parked next to
// the last. The outer two then bound the walks of the partition.
std::int64_t ParkMedian(void** list, std::int64_t L, std::int64_t R, TComparator compare) {
    const std::int64_t middle = (L + R) / 2;
    if (compare(list[L], list[middle]) > 0) std::swap(list[L], list[middle]);
    if (compare(list[L], list[R]) > 0) std::swap(list[L], list[R]);
    if (compare(list[middle], list[R]) > 0) std::swap(list[middle], list[R]);
    std::swap(list[middle], list[R - 1]);
    return R - 1;
}

void InsertSort(void** list, std::int64_t L, std::int64_t R, TComparator compare) {
    for (std::int64_t i = L + 1; i <= R; ++i) {
        void* const item = list[i];
        std::int64_t place = i;
        while (place > L && compare(list[place - 1], item) > 0) --place;
        // The place is known before anything moves, so a comparison that raises loses no item.
        std::move_backward(list + place, list + i, list + i + 1);
        list[place] = item;
    }
}

void QuickSort(void** list, std::int64_t L, std::int64_t R, TComparator compare) {
    while (R - L >= 5) {
        const std::int64_t pivot = ParkMedian(list, L, R, compare);
        void* const value = list[pivot];
        std::int64_t low = L;
        std::int64_t high = pivot;
        for (;;) {
            // A sound comparison stops at the ends by itself; an unsound one is stopped there.
            while (++low < pivot && compare(list[low], value) < 0) {
            }
            while (--high > L && compare(list[high], value) > 0) {
            }
            if (low >= high) break;
            std::swap(list[low], list[high]);
        }
        std::swap(list[low], list[pivot]);
        // The smaller side first and the larger one in this loop: the stack stays logarithmic.
        if (low - L < R - low) {
            QuickSort(list, L, low - 1, compare);
            L = low + 1;
        } else {
            QuickSort(list, low + 1, R, compare);
            R = low - 1;
        }
    }
    InsertSort(list, L, R, compare);
}

}  // namespace

void RaiseInconsistentComparison() {
    throw EInvalidArgument(u"Comparison method violates its general contract!");
}

std::int32_t MaxSortingThreads() noexcept {
    std::int32_t threads = sortingThreads.load(std::memory_order_relaxed);
    if (threads == 0) {
        threads = ReadSortingThreads();
        sortingThreads.store(threads, std::memory_order_relaxed);
    }
    return threads;
}

void ForgetMaxSortingThreads() noexcept { sortingThreads.store(0, std::memory_order_relaxed); }

bool IsSortedList(void* const* list, std::int32_t L, std::int32_t R, TComparator compare) {
    for (std::int64_t i = std::int64_t{L} + 1; i <= R; ++i) {
        if (compare(list[i - 1], list[i]) > 0) return false;
    }
    return true;
}

void InsertSortList(void** list, std::int32_t L, std::int32_t R, TComparator compare) {
    InsertSort(list, L, R, compare);
}

void QuickSortList(void** list, std::int32_t L, std::int32_t R, TComparator compare) {
    QuickSort(list, L, R, compare);
}

void BinarySortList(void** list, std::int32_t L, std::int32_t R, std::int32_t start,
                    TComparator compare) {
    if (R < L) return;
    void** const first = list + L;
    // An empty sorted part is as good as one of a single item.
    void** const unsorted = list + std::max(std::int64_t{start}, std::int64_t{L} + 1);
    TPointerMerge::BinaryInsert(first, list + R + 1, unsorted, TDelegateCompare{compare});
}

void MergeSortedLists(void** list, std::int32_t L, std::int32_t R, std::int32_t start,
                      TComparator compare) {
    if (start <= L || start > R) return;  // one of the two is empty
    const TDelegateCompare comparison{compare};
    TPointerMerge(list + L, std::int64_t{R} - L + 1, comparison)
        .MergeParts(std::int64_t{start} - L);
}

void MergeSortList(void** list, std::int32_t L, std::int32_t R, TComparator compare,
                   std::int32_t maxThreads) {
    if (R <= L) return;
    MergeSort(list + L, std::int64_t{R} - L + 1, TDelegateCompare{compare}, maxThreads);
}

}  // namespace kds
