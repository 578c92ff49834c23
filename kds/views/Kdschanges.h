// Change lists: how a host keeps an exact copy of a view's rows without ever reading the view.
//
// Shape      A link first gets `rebuilt`, the rows at the moment when it was attached, and then a
//            list for each outermost change bracket in which the view's rows have changed: one
//            operation, a batch of the host (TKdsChangeBracket), an mtsUploads bracket. Lists
//            applied in order make the copy what the view was when the bracket closed. A list is
//            either one `rebuilt` or entries about single rows.
//            A post that leaves the row in its place gives `updated`, unless no value can have
//            changed; a post that moves it one `moved`; what joins or leaves by the filter is
//            `inserted` or `removed`. `rebuilt` stands for everything else that changes rows:
//            building, dismissing and sorting the view, mtsMassive and mtsDestroy brackets, and
//            more entries than the larger of 1024 and the number of rows.
// Units      Positions are rows from 0 and refer to the copy after all earlier entries.
// Ownership  The host owns its links. Lists, entries and records are lent for the call.
// Errors     What HandleChanges raises reaches the caller of the operation when all links have
//            been called; that link misses what still waits and gets a `rebuilt` once nothing
//            waits any more, or, when it raises again, after the next operation. Without memory
//            for an entry the list becomes `rebuilt`; without memory for that, too, the operation
//            raises std::bad_alloc when it is complete and the links get their `rebuilt` as soon
//            as there is some.
// Cost       An entry O(1) beside the change itself, a `rebuilt` O(rows). A view without such
//            links tests one pointer for each change of its rows.
// Validity   Links are called when the view's links have heard their events and no bracket of the
//            table is open. They may change anything and end any link, view or table: such changes
//            make later lists, none arrives inside a call. Rows that were deleted can be read until
//            nothing waits; an entry or a row of `rebuilt` is nullptr when the host has freed the
//            record itself.
// Threads    One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kds/core/Kdsrecords.h"
#include "kds/platform/Delegate.h"
#include "kds/platform/Object.h"

namespace kds {

class TKdsChangeDesk;
class TKdsChangeFeed;
class TKdsChangeLink;
class TKdsColumnMask;
class TKdsView;

enum class TKdsChangeKind : std::uint8_t { ckInserted, ckRemoved, ckMoved, ckUpdated, ckRebuilt };
using enum TKdsChangeKind;

// The columns whose values may have changed, by column index. What is calculated or refers to
// something outside the row counts as changed whenever it may be.
class TKdsChangedColumns {
public:
    TKdsChangedColumns() = default;  // none
    explicit TKdsChangedColumns(const TKdsColumnMask& mask);
    [[nodiscard]] static TKdsChangedColumns Every() noexcept {
        TKdsChangedColumns columns;
        columns.fAll = true;
        return columns;
    }
    [[nodiscard]] bool All() const noexcept { return fAll; }
    [[nodiscard]] bool Has(std::int32_t column) const noexcept;
    void Include(const TKdsChangedColumns& other);
    friend bool operator==(const TKdsChangedColumns&, const TKdsChangedColumns&) = default;

private:
    std::uint64_t fFirst = 0;
    std::vector<std::uint64_t> fRest;  // beyond 64 columns
    bool fAll = false;
};

struct TKdsChange {
    TKdsRecord* Record = nullptr;
    std::int32_t From = -1;  // removed, moved, updated: where the row stood
    std::int32_t To = -1;    // inserted, moved, updated: where it stands when this is done
    std::uint32_t RowID = NoRowID;
    TKdsChangeKind Kind = ckRebuilt;
    TKdsChangedColumns Columns = TKdsChangedColumns::Every();  // of moved and updated
};

struct TKdsChangeList {
    TKdsView* View = nullptr;  // nullptr for a link that has lost its view
    std::span<const TKdsChange> Entries;
    std::span<TKdsRecord* const> Rows;  // of `rebuilt`, the only entry then

    [[nodiscard]] bool IsRebuilt() const noexcept {
        return Entries.size() == 1 && Entries.front().Kind == ckRebuilt;
    }
    [[nodiscard]] auto begin() const noexcept { return Entries.begin(); }
    [[nodiscard]] auto end() const noexcept { return Entries.end(); }
};

// Makes of `rows`, a copy of the view's rows before the changes, that after them. O(rows) for an
// entry that shifts others. When memory runs out, `rows` is to be filled anew.
void ApplyChanges(const TKdsChangeList& changes, std::vector<TKdsRecord*>& rows);

// A list that waits for its links, or gathers entries until its bracket closes.
struct TKdsChangeLog {
    std::vector<TKdsChange> Entries;
    std::vector<TKdsRecord*> Rows;
    TKdsChangeFeed* Feed = nullptr;  // whose links get it,
    TKdsChangeLink* Only = nullptr;  // or the one that does
    std::uint64_t Number = 0;        // of the bracket, counted by the feed
    unsigned Streams = 0;            // bits: which of the feed's links
    std::size_t Barrier = 0;         // entries that somebody attached meanwhile does not get
    TKdsChangeLog* Next = nullptr;

    void Forget(const TKdsRecord* record) noexcept;
    void Clear() noexcept;
};

class TKdsChangeLink : public TObject {
public:
    ~TKdsChangeLink() override;
    [[nodiscard]] TKdsView* View() const noexcept;
    // Gets `rebuilt` with the rows of now, none for nullptr: at once, or when the bracket or the
    // call that is under way has ended. A view that ends lets go of the link in the same way.
    void SetView(TKdsView* view);
    // Whether adjacent entries of one row are put together; otherwise the list is the exact log.
    // A link that has a view begins anew with `rebuilt`.
    [[nodiscard]] bool Coalesces() const noexcept { return fStream == 0; }
    void SetCoalesces(bool value);
    virtual void HandleChanges(const TKdsChangeList& changes) = 0;

protected:
    TKdsChangeLink() = default;

private:
    friend class TKdsChangeDesk;
    friend class TKdsChangeFeed;
    void Attach(TKdsView* view, std::uint8_t stream);

    TKdsChangeFeed* fFeed = nullptr;
    TKdsChangeDesk* fQueuedAt = nullptr;  // where fOwn waits
    TKdsChangeLog fOwn;                   // a `rebuilt` for this link alone
    std::uint64_t fSince = 0;             // the first bracket that it hears of,
    std::size_t fSkip = 0;                // and how many entries of that one it does not
    std::uint64_t fTried = 0;             // the round in which it got a new start
    std::uint8_t fStream = 0;
    bool fLost = false;  // its copy is wrong until it gets a new start
};

using TKdsChangeEvent = TDelegate<void(TKdsView*, const TKdsChangeList&)>;

// A link that hands its lists to a routine.
class TKdsChangeHandler : public TKdsChangeLink {
public:
    TKdsChangeHandler() = default;
    explicit TKdsChangeHandler(TKdsChangeEvent onChanges) noexcept : fOnChanges(onChanges) {}
    ~TKdsChangeHandler() override = default;
    void SetOnChanges(TKdsChangeEvent value) noexcept { fOnChanges = value; }
    void HandleChanges(const TKdsChangeList& changes) override;

private:
    TKdsChangeEvent fOnChanges;
};

// A copy of a view's rows that keeps itself.
class TKdsMirror : public TKdsChangeLink {
public:
    TKdsMirror() = default;
    ~TKdsMirror() override = default;
    [[nodiscard]] const std::vector<TKdsRecord*>& Rows() const noexcept { return fRows; }
    void HandleChanges(const TKdsChangeList& changes) override { ApplyChanges(changes, fRows); }

private:
    std::vector<TKdsRecord*> fRows;
};

}  // namespace kds
