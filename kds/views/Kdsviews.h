// Views: live row sets over one table, filtered and ordered.
//
// Shape      A view holds the table's records that its accept routine takes, in the order of its
//            order text, of a comparer of the host, or of the row identifiers. It is built once
//            and then follows every insertion, post and deletion. Rows stand by their posted
//            values, also while they are edited.
// Units      Positions are rows: signed 32-bit, from 0; -1 means none.
// Ownership  The table's view list owns its views. A view borrows records and links.
// Errors     PrimaryViewChange and DefaultViewChange for options that these views do not take,
//            NameNotFound for an unknown column in an order text, InvalidUniqueKey and
//            DuplicateRecords when a unique view cannot be built. A view that could not place a
//            record is dismissed and built again by its next Update. While a callback of the host
//            runs inside the engine, changing the same table raises RecordStateInvalid.
// Cost       Items O(log n), O(1) in sequence; IndexOf and Find O(log n); a build O(n log n), no
//            sort when another view's order serves.
// Validity   Positions shift with every change of the table. Deleting while walking: walk from the
//            last row to the first.
// Threads    One thread at a time. A build may sort on several threads and returns after the last.
#pragma once

#include <initializer_list>
#include <iterator>
#include <memory>
#include <ranges>
#include <span>
#include <string>
#include <vector>

#include "kds/core/Kdsdata.h"
#include "kds/core/Kdsprovider.h"
#include "kds/core/Kdstables.h"
#include "kds/platform/Datetime.h"
#include "kds/views/Kdsevents.h"
#include "kds/views/Kdsorders.h"
#include "kds/views/Kdsstorages.h"

namespace kds {

class TKdsChangeFeed;

enum class TKdsViewOption : std::uint8_t { voUnique, voPrimary };
using enum TKdsViewOption;
using TKdsViewOptions = TSet<TKdsViewOption>;

enum class TKdsViewReason : std::uint8_t { vrCustom, vrSelect, vrUnique };
using enum TKdsViewReason;

// What is unchanged during a rebuild and not computed again.
enum class TKdsViewLocking : std::uint8_t { vlFilters, vlOrderBy };
using enum TKdsViewLocking;
using TKdsViewLockings = TSet<TKdsViewLocking>;

// An accept routine that counts its users; derive from it or wrap a callable.
class TKdsAcceptRecordProc : public IInterface {
public:
    virtual void Accept(TKdsView* view, TKdsRecord* record, bool& accept) = 0;
};
template <typename F>
class TKdsAcceptCall final : public TKdsAcceptRecordProc {
public:
    explicit TKdsAcceptCall(F routine) : fRoutine(std::move(routine)) {}
    // The callable takes the record and answers whether it belongs.
    void Accept(TKdsView*, TKdsRecord* record, bool& accept) override { accept = fRoutine(record); }

private:
    F fRoutine;
};
template <typename F>
[[nodiscard]] TIntf<TKdsAcceptRecordProc> AcceptWhen(F routine) {
    return MakeIntf<TKdsAcceptCall<F>>(std::move(routine));
}

// Times in ticks of the performance counter.
struct TKdsViewStats {
    TDateTime CreateTime;
    TDateTime UpdateTime;
    std::int32_t UpdateCount = 0;
    std::int64_t LastFilter = 0;
    std::int64_t LastSort = 0;
    std::int64_t LastUpdate = 0;
    std::int64_t TotalUpdate = 0;
};

class TKdsView : public TKdsActiveItem {
public:
    // Not in the table's list yet, and not built before it is.
    [[nodiscard]] static TOwned<TKdsView> Create(TKdsTable* table, std::u16string_view name);

    // ---- Options; each rebuilds a view that is built, and does nothing when unchanged ----
    // An expression (docs/expressions.md) over the posted values; a row belongs when it is true.
    // EKdsParseError for a text that does not compile, and the view is as it was.
    [[nodiscard]] const std::u16string& Filter() const noexcept { return fFilter; }
    void SetFilter(std::u16string_view text);
    [[nodiscard]] const std::u16string& OrderBy() const noexcept { return fOrderBy; }
    void SetOrderBy(std::u16string_view text);
    [[nodiscard]] const TKdsAcceptRecordEvent& OnAccept() const noexcept { return fOnAccept; }
    void SetOnAccept(TKdsAcceptRecordEvent value);
    [[nodiscard]] const TKdsComparer& OnCompare() const noexcept { return fOnCompare; }
    void SetOnCompare(TKdsComparer value);
    [[nodiscard]] TKdsViewOptions Options() const noexcept { return fOptions; }
    [[nodiscard]] TKdsViewReason Reason() const noexcept { return fReason; }
    [[nodiscard]] TKdsOrderMode GetSortMode() const noexcept { return fSorting; }
    [[nodiscard]] TKdsOrderColumnList* Columns() const noexcept { return fColumns.get(); }
    [[nodiscard]] bool Unique() const noexcept {
        return fSorting == omOrder && fOptions.HasAny({voUnique, voPrimary});
    }
    [[nodiscard]] std::intptr_t Info() const noexcept { return fInfo; }
    void SetInfo(std::intptr_t value) noexcept { fInfo = value; }
    [[nodiscard]] const TKdsViewStats& Stats() const noexcept { return fStats; }

    // ---- Rows ----
    [[nodiscard]] std::int32_t Count() const {
        Freshen();
        return fRecords->GetCount();
    }
    [[nodiscard]] TKdsRecord* Items(std::int32_t index) const;
    [[nodiscard]] TKdsViewRecords* GetRecords() const noexcept { return fRecords; }
    // Position of the record, -1 when it is not in the view.
    [[nodiscard]] std::int32_t IndexOf(TKdsRecord* record) const;
    // Position of the first row with these values in the order's columns, -1 when there is none;
    // EInvalidArgument for more values than columns. A view in row-identifier order answers -1.
    [[nodiscard]] std::int32_t Find(std::span<const TVariant> values);
    [[nodiscard]] std::int32_t Find(std::initializer_list<TVariant> values) {
        return Find(std::span<const TVariant>(values.begin(), values.size()));
    }
    // The same with options: loNoCase and loPartial widen what is equal, loLastRow means the last
    // such row instead of the first.
    [[nodiscard]] std::int32_t FindRow(std::span<const TVariant> values,
                                       TKdsLocateOptions options = {});
    [[nodiscard]] std::int32_t FindRow(std::initializer_list<TVariant> values,
                                       TKdsLocateOptions options = {}) {
        return FindRow(std::span<const TVariant>(values.begin(), values.size()), options);
    }
    // The record instead of its position; nullptr when there is none.
    [[nodiscard]] TKdsRecord* FindRecord(std::span<const TVariant> values,
                                         TKdsLocateOptions options = {});
    [[nodiscard]] TKdsRecord* FindRecord(std::initializer_list<TVariant> values,
                                         TKdsLocateOptions options = {}) {
        return FindRecord(std::span<const TVariant>(values.begin(), values.size()), options);
    }
    // By any columns, written as an order text: by a search when the view is ordered by them, row
    // by row otherwise. With loNearest, where the row would stand: EInvalidArgument when the view's
    // order does not tell.
    [[nodiscard]] std::int32_t Locate(std::u16string_view columns, std::span<const TVariant> values,
                                      TKdsLocateOptions options = {});
    [[nodiscard]] std::int32_t Locate(std::u16string_view columns,
                                      std::initializer_list<TVariant> values,
                                      TKdsLocateOptions options = {}) {
        return Locate(columns, std::span<const TVariant>(values.begin(), values.size()), options);
    }
    // The row with these values, or where it would stand: 0 to Count.
    [[nodiscard]] std::int32_t FindNearest(std::span<const TVariant> values,
                                           TKdsLocateOptions options = {});
    [[nodiscard]] std::int32_t FindNearest(std::initializer_list<TVariant> values,
                                           TKdsLocateOptions options = {}) {
        return FindNearest(std::span<const TVariant>(values.begin(), values.size()), options);
    }
    // The raw search: `columns` nullptr means the view's own, `count` < 0 all of them.
    void Search(TKdsRecord* record, TKdsOrderColumnList* columns, std::int32_t count,
                TKdsLocateOptions options, std::int32_t& index, bool& found);

    // Random access over the rows by position; good until the table changes.
    class TIterator {
    public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = TKdsRecord*;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = TKdsRecord*;

        TIterator() noexcept : TIterator(nullptr, 0) {}
        TIterator(const TKdsView* view, difference_type index) noexcept
            : fView(view), fIndex(index) {}
        TKdsRecord* operator*() const { return fView->ItemAt(static_cast<std::int32_t>(fIndex)); }
        TKdsRecord* operator[](difference_type n) const { return *(*this + n); }
        TIterator& operator++() noexcept { return *this += 1; }
        TIterator& operator--() noexcept { return *this -= 1; }
        TIterator operator++(int) noexcept {
            const TIterator old = *this;
            ++*this;
            return old;
        }
        TIterator operator--(int) noexcept {
            const TIterator old = *this;
            --*this;
            return old;
        }
        TIterator& operator+=(difference_type n) noexcept {
            fIndex += n;
            return *this;
        }
        TIterator& operator-=(difference_type n) noexcept { return *this += -n; }
        friend TIterator operator+(TIterator i, difference_type n) noexcept { return i += n; }
        friend TIterator operator+(difference_type n, TIterator i) noexcept { return i += n; }
        friend TIterator operator-(TIterator i, difference_type n) noexcept { return i -= n; }
        friend difference_type operator-(const TIterator& a, const TIterator& b) noexcept {
            return a.fIndex - b.fIndex;
        }
        friend bool operator==(const TIterator& a, const TIterator& b) noexcept {
            return a.fIndex == b.fIndex;
        }
        friend auto operator<=>(const TIterator& a, const TIterator& b) noexcept {
            return a.fIndex <=> b.fIndex;
        }

    private:
        const TKdsView* fView;
        difference_type fIndex;
    };
    [[nodiscard]] TIterator begin() const noexcept { return {this, 0}; }
    [[nodiscard]] TIterator end() const { return {this, Count()}; }
    // By the first columns of the order: the first row that is not before these values, the first
    // that is behind them, and the rows between. end() in row-identifier order. O(log n).
    [[nodiscard]] TIterator LowerBound(std::span<const TVariant> values);
    [[nodiscard]] TIterator LowerBound(std::initializer_list<TVariant> values) {
        return LowerBound(std::span<const TVariant>(values.begin(), values.size()));
    }
    [[nodiscard]] TIterator UpperBound(std::span<const TVariant> values);
    [[nodiscard]] TIterator UpperBound(std::initializer_list<TVariant> values) {
        return UpperBound(std::span<const TVariant>(values.begin(), values.size()));
    }
    [[nodiscard]] std::ranges::subrange<TIterator> EqualRange(std::span<const TVariant> values) {
        return {LowerBound(values), UpperBound(values)};
    }
    [[nodiscard]] std::ranges::subrange<TIterator> EqualRange(
        std::initializer_list<TVariant> values) {
        return EqualRange(std::span<const TVariant>(values.begin(), values.size()));
    }

    // ---- Comparison ----
    [[nodiscard]] TKdsComparer GetComparer(TKdsCompareOptions options);
    [[nodiscard]] std::int32_t Compare(TKdsRecord* a, TKdsRecord* b);

    // ---- Order of another ----
    [[nodiscard]] TKdsIndexMatch Suites(const TKdsOrderColumnList* columns, std::int32_t count,
                                        TKdsViewOptions include, TKdsViewOptions exclude) const;
    [[nodiscard]] TKdsIndexMatch Suites(std::u16string_view orderBy, TKdsViewOptions include,
                                        TKdsViewOptions exclude) const;

    // ---- Membership ----
    [[nodiscard]] bool Accept(TKdsRecord* record);
    void AnonymousAccept(TKdsView* view, TKdsRecord* record, bool& accept);

    // How many rows the filter has raised for since the view was built; these do not belong. And
    // what it raised first.
    [[nodiscard]] std::int64_t FilterErrors() const noexcept { return fFilterErrors; }
    [[nodiscard]] const std::exception_ptr& FilterError() const noexcept { return fFilterError; }
    [[nodiscard]] bool EvaluatorAccept(TKdsRecord* record);

    // ---- Links ----
    void AppendLink(TKdsViewLink* link);
    void RemoveLink(TKdsViewLink* link);
    [[nodiscard]] std::int32_t LinkCount() const noexcept {
        return static_cast<std::int32_t>(fLinks.size());
    }
    [[nodiscard]] std::int32_t AlwaysCount() const noexcept { return fAlwaysCount; }
    [[nodiscard]] std::int32_t ChangeCount() const noexcept { return fChangeCount; }
    void RaiseEvent(TKdsEventReason reason, std::int32_t oldRow, std::int32_t newRow,
                    TKdsRecord* origin);
    void FireEvents();
    void Deliver(const TKdsEvent& event);

    using TKdsActiveItem::Handle;
    void Handle(TNotification* notification) override;
    [[nodiscard]] bool Ready() const noexcept override;
    void Prepare() override;
    void Dismiss() override;
    // Rows in order and each where the storage says it is. O(n log n).
    [[nodiscard]] bool IsConsistent();

    // ---- For the library ----
    // Of a view whose order reads other tables: follows what has changed there since.
    void Freshen() const {
        if (fReadsOthers) const_cast<TKdsView*>(this)->FollowOthers();
    }
    [[nodiscard]] bool ReadsOthers() const noexcept { return fReadsOthers; }
    // What storages place and search rows by: an item by its posted values, the key as it reads.
    [[nodiscard]] std::int32_t CompareItem(TKdsRecord* item, TKdsRecord* key,
                                           TKdsCompareOptions options);
    // Two members, by their posted values, equal keys by row identifier.
    [[nodiscard]] std::int32_t CompareMembers(TKdsRecord* a, TKdsRecord* b,
                                              TKdsCompareOptions options);
    [[nodiscard]] bool HasTests() const noexcept {
        return fOnAccept || !fFilter.empty() || IsFiltered();
    }
    // By the table's filters, from which the primary view is free.
    [[nodiscard]] bool IsFiltered() const noexcept {
        return fTable->HasFilters() && fTable->PrimaryView() != this;
    }
    // Whether every row stands where its values of now put it, but perhaps this one: not so in an
    // order that can change without notice, nor while another row is being posted.
    [[nodiscard]] bool RowsStandByKey(const TKdsRecord* but) const;
    // No two rows have equal keys, as far as is known.
    [[nodiscard]] bool IsDistinct() const noexcept { return fDistinct; }
    [[nodiscard]] bool HasEqual(TKdsRecord* record);
    // Whether a post that changes none of the order's columns concerns the view all the same.
    [[nodiscard]] bool NeedsEveryPost() const noexcept {
        return !fIsPlain || HasTests() || fOnCompare || (Unique() && !fDistinct);
    }
    // Whether links hear of each post.
    [[nodiscard]] bool IsFollowed() const noexcept {
        return !fLinks.empty() || fChanges != nullptr;
    }
    [[nodiscard]] bool SameKey(const std::byte* a, const std::byte* b) const;
    [[nodiscard]] const TKdsOrderPlan& Plan() const;
    // Whether rows are compared in their buffers, without the records.
    [[nodiscard]] bool ReadsBuffers() const;
    [[nodiscard]] TKdsOrderColumnList* CompareColumns() const noexcept {
        return fCompareColumnList;
    }
    [[nodiscard]] std::int32_t CompareCount() const noexcept { return fCompareColumnCount; }
    [[nodiscard]] TKdsViewStorage* Storage() const noexcept { return fStorage.get(); }
    [[nodiscard]] bool Rebuilds() const noexcept { return fRebuilds; }
    [[nodiscard]] TKdsRecord* ItemAt(std::int32_t index) const { return fRecords->At(index); }

protected:
    TKdsView(TKdsTable* table, std::u16string_view name);
    ~TKdsView() override;
    void Teardown() noexcept override;

private:
    friend class TKdsTable;
    friend class TKdsViewList;
    friend class TKdsViewLink;
    friend class TKdsChangeDesk;
    friend class TKdsChangeFeed;
    friend class TKdsChangeLink;
    friend class TKdsKeyChange;
    class TCompareScope;
    class TLinkWalk;

    enum class TOutcome : std::uint8_t { NotMember, Member, Unchanged, Removed };
    struct TPlace {
        TOutcome Outcome = TOutcome::NotMember;
        std::int32_t Old = -1;
        std::int32_t New = -1;
    };

    // A rebuild in which these are unchanged. When a link that hears of it on the way rebuilds the
    // view for another reason, only what is unchanged for both reasons is, for both rebuilds.
    class TLockScope {
    public:
        TLockScope(TKdsView* view, TKdsViewLockings unchanged) noexcept : fView(view) {
            const bool isFirst = view->fLockScopes++ == 0;
            // A view that is not built has nothing to keep.
            if (isFirst && view->fActual) view->fLocking = unchanged;
            if (!isFirst) view->fLocking = view->fLocking & unchanged;
        }
        ~TLockScope() {
            if (--fView->fLockScopes == 0) fView->fLocking = {};
        }
        TLockScope(const TLockScope&) = delete;
        TLockScope& operator=(const TLockScope&) = delete;

    private:
        TKdsView* fView;
    };

    void CompileFilter();
    void CheckGuards() const;
    [[noreturn]] static void RaiseForeign();
    void ReserveLink();
    template <typename F>
    void ChangeOption(TKdsViewLocking locked, F&& store);
    void ParseOrder(std::vector<TKdsColumn*>& madeNotNull);
    void SetNullability(const std::vector<TKdsColumn*>& columns, bool value);
    [[nodiscard]] TKdsView* ReusableView(TKdsIndexMatch& match);
    void Fill(TKdsView* source, TKdsIndexMatch match);
    [[nodiscard]] bool TakeAll(bool sorts, std::int64_t& filtered);
    void SortRows(bool force);
    void CheckDistinct();
    [[nodiscard]] bool IsInOrder(TKdsCompareOptions options);
    template <typename F>
    void WithKey(const TKdsOrderColumnList* columns, std::span<const TVariant> values, F&& use);
    void SearchKey(std::span<const TVariant> values, TKdsLocateOptions options, std::int32_t& index,
                   bool& found);
    [[nodiscard]] bool IsOrderedBy(const TKdsOrderColumnList& columns, std::int32_t count,
                                   TKdsLocateOptions options) const;
    [[nodiscard]] std::int32_t ScanFor(TKdsRecord* key, const TKdsOrderColumnList* columns,
                                       std::int32_t count, TKdsLocateOptions options);
    [[nodiscard]] TIterator Bound(std::span<const TVariant> values, bool isUpper);

    void GiveUp() noexcept;
    void HandleData(TNotification* notification);
    void HandleMeta(TNotification* notification);
    void HandleColumn(TNotification* notification, TKdsColumn* column);
    [[nodiscard]] std::u16string OrderText() const;
    [[nodiscard]] bool ReadsThrough(const TKdsColumn* column) const noexcept;
    void Follow(TNotification* notification);
    [[nodiscard]] TPlace PlaceInserted(TKdsRecord* record);
    [[nodiscard]] TPlace PlaceUpdated(TKdsRecord* record);
    [[nodiscard]] TPlace PlaceDeleted(TKdsRecord* record);
    [[nodiscard]] std::int32_t SearchPlace(TKdsRecord* record);
    // Of an order that stored values alone decide, without a routine of the host; else nullptr.
    [[nodiscard]] const TKdsOrderPlan* PlainPlan() const;
    [[nodiscard]] bool BelongsBehindLast(TKdsRecord* record) const;
    [[nodiscard]] std::int32_t PlaceForNew(TKdsRecord* record);
    void PlacedUnchecked() noexcept;
    [[nodiscard]] bool KeepsPlace() const;
    // ---- Other tables ----
    struct TSource {
        TKdsTable* Table;
        std::uint64_t Changes;
        bool IsDirect;  // a column of the order shows what lies in this very table
    };
    // Those of the order and the filter, and what reading them reads.
    [[nodiscard]] std::vector<TKdsColumn*> ColumnsRead() const;
    void CheckExpressions();
    [[nodiscard]] std::vector<TSource> Sources() const;
    [[nodiscard]] bool IsFresh() const noexcept;
    void FollowOthers();
    [[nodiscard]] bool PlaceReadersOf(const std::vector<TSource>& sources);
    [[nodiscard]] bool PostedMasters(const TSource& before, const TSource& now,
                                     std::vector<TKdsRecord*>& masters) const;
    void CollectReaders(const TKdsColumn* column, TKdsRecord* master,
                        std::vector<TKdsRecord*>& rows) const;
    void ReplaceRows(const std::vector<TKdsRecord*>& rows);
    void RepairKeys();

    TOwned<TKdsOrderColumnList> fColumns;
    std::int32_t fChangeCount = 0;
    TKdsEvent fRaisedEvent;
    TKdsEvent* fEventToFire = nullptr;
    std::u16string fFilter;
    TIntf<IExpressionEvaluator> fEvaluator;  // of the filter, while the view is built
    std::uint32_t fFilterLayout = 0;         // of the columns that it was compiled for
    std::int64_t fFilterErrors = 0;
    std::exception_ptr fFilterError;
    std::intptr_t fInfo = 0;
    std::vector<TKdsViewLink*> fLinks;
    TLinkWalk* fLinkWalks = nullptr;     // that are under way, innermost first
    TKdsChangeFeed* fChanges = nullptr;  // while there are change links
    std::unique_ptr<TKdsViewStorage> fStorage;
    TKdsViewRecords* fRecords = nullptr;  // the storage's
    std::int32_t fAlwaysCount = 0;
    std::u16string fOrderBy;
    std::u16string fRenamedOrder;  // what it becomes when a column's new name stands
    TKdsViewLockings fLocking;
    std::int32_t fLockScopes = 0;
    TKdsViewOptions fOptions;
    TKdsViewReason fReason = vrCustom;
    bool fRebuilds = false;
    TKdsOrderMode fSorting = omRowID;
    TKdsAcceptRecordEvent fOnAccept;
    TIntf<TKdsAcceptRecordProc> fAcceptProc;
    TKdsOrderColumnList* fCompareColumnList = nullptr;
    std::int32_t fCompareColumnCount = -1;
    TKdsCompareOptions fCompareOptions;
    TKdsComparer fOnCompare;
    TKdsViewStats fStats;
    // What the key check of a row that is about to come in has found: no row is equal, and this
    // is where it would stand.
    const TKdsRecord* fCheckedRecord = nullptr;
    std::int32_t fCheckedPlace = -1;
    // When the latest change was a row that came in behind all others: this row. The next one may
    // go there, too.
    TKdsRecord* fLastRow = nullptr;
    bool fDistinct = false;
    bool fAsleep = false;    // switched off by a change of its columns; its next use wakes it
    bool fEntering = false;  // being built on its way into the list
    bool fEnds = false;
    bool fMadeAsDefault = false;            // by the table
    std::vector<const TKdsColumn*> fReads;  // where there are expressions: as it was built
    bool fReadsOthers = false;              // the order shows columns of other tables
    std::vector<TSource> fSources;          // as of the last time,
    std::uint64_t fSourcesShape = 0;        // and the shape of what they were found in
    bool fIsPlain = false;                  // of this very class
};

}  // namespace kds
