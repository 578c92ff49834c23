// The library's side of change lists: what views write and tables deliver.
//
// Shape      A view that has change links has a feed. What its storage does goes into the open log
//            of each stream that has links, put together or exact. When the outermost bracket
//            closes, the logs are sealed and wait in the queue of the table's desk; when the
//            stated events are out, the desk hands them to the links one by one. A change from
//            inside a link only seals, and so does one of another table: it waits until the desk
//            that is delivering has finished.
// Ownership  The table owns its desk, the desk its feeds and the logs in its queue.
// Errors     Writing cannot fail: without memory a stream turns to `rebuilt`. A `rebuilt` that
//            cannot be made leaves its links lost, which the desk tries to mend each time that its
//            queue is empty.
// Threads    One thread at a time.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "kds/core/Kdstables.h"
#include "kds/views/Kdschanges.h"

namespace kds {

class TKdsChangeFeed {
public:
    TKdsChangeFeed(TKdsChangeDesk* desk, TKdsView* view) noexcept : fDesk(desk), fView(view) {}
    ~TKdsChangeFeed();
    TKdsChangeFeed(const TKdsChangeFeed&) = delete;
    TKdsChangeFeed& operator=(const TKdsChangeFeed&) = delete;

    // ---- Written by the view, as soon as its storage has changed ----
    void Inserted(std::int32_t to, TKdsRecord* record) noexcept;
    void Removed(std::int32_t from, TKdsRecord* record) noexcept;
    // Whether it moved or not; the table knows which columns the post has changed.
    void Posted(std::int32_t from, std::int32_t to, TKdsRecord* record) noexcept;
    void Rebuilt() noexcept;
    void ViewEnds() noexcept;

private:
    friend class TKdsChangeDesk;
    friend class TKdsChangeLink;
    struct TStream {
        std::int32_t Links = 0;
        TKdsChangeLog* Log = nullptr;
        bool Rebuilt = false;
    };
    template <typename F>
    void Write(F&& make) noexcept;
    void Append(TStream& stream, const TKdsChange& change);
    [[nodiscard]] static bool PutTogether(TKdsChangeLog& log, const TKdsChange& next);
    [[nodiscard]] std::vector<TKdsRecord*> Rows() const;
    [[nodiscard]] bool HasEntries() const noexcept;
    void ReserveLink();
    void Join(TKdsChangeLink* link, TKdsView* view) noexcept;
    void Leave(TKdsChangeLink* link) noexcept;
    void BeginHere(TKdsChangeLink* link) noexcept;
    void Seal(TFirstError& errors) noexcept;
    void SealRebuilt(unsigned streams, std::uint64_t number);
    void Hand(const TKdsChangeLog& log, TFirstError& errors) noexcept;
    void DropLog(TStream& stream) noexcept;
    void Forget(const TKdsRecord* record) noexcept;

    TKdsChangeDesk* fDesk;
    TKdsView* fView;  // nullptr once there are no links
    std::vector<TKdsChangeLink*> fLinks;
    std::array<TStream, 2> fStreams;  // put together, exact
    std::uint64_t fNumber = 1;
    bool fIsDirty = false;  // in the desk's list of feeds to be sealed
    TKdsChangeFeed* fNextDirty = nullptr;
    bool fHands = false;  // its links are being called
};

class TKdsChangeDesk {
public:
    explicit TKdsChangeDesk(TKdsTable* table) noexcept : fTable(table) {}
    ~TKdsChangeDesk();
    TKdsChangeDesk(const TKdsChangeDesk&) = delete;
    TKdsChangeDesk& operator=(const TKdsChangeDesk&) = delete;

    // What was written since the outermost bracket opened becomes a list that waits. Nothing while
    // a load bracket is open.
    void Seal(TFirstError& errors) noexcept;
    // Calls links until nothing waits, or lets whoever is calling links do it.
    void Deliver(TFirstError& errors) noexcept;
    // Somebody may still be told of a row that was deleted.
    [[nodiscard]] bool HoldsRows() const noexcept;
    // Nothing is left over that should have been delivered.
    [[nodiscard]] bool IsSettled() const noexcept;
    void ForgetRecord(const TKdsRecord* record) noexcept;
    void TableEnds() noexcept;

private:
    friend class TKdsChangeFeed;
    friend class TKdsChangeLink;
    [[nodiscard]] bool IsOpen() const noexcept;
    [[nodiscard]] TKdsChangeFeed* FeedOf(TKdsView* view);
    [[nodiscard]] TKdsChangeLog* NewLog();
    void Recycle(TKdsChangeLog* log) noexcept;
    void MarkDirty(TKdsChangeFeed* feed) noexcept;
    void Push(TKdsChangeLog* log) noexcept;
    void PushOwn(TKdsChangeLink* link) noexcept;
    [[nodiscard]] TKdsChangeLog* Pop() noexcept;
    template <typename F>
    void DropWhen(F&& condition) noexcept;
    void DropOwn(TKdsChangeLink* link) noexcept;
    void DropLogsOf(const TKdsChangeFeed* feed) noexcept;
    void DeliverQueue(TFirstError& errors) noexcept;
    void Hand(TKdsChangeLog* log, TFirstError& errors) noexcept;
    void Call(TKdsChangeLink* link, const TKdsChangeList& list, TFirstError& errors) noexcept;
    [[nodiscard]] bool Recover(TFirstError& errors) noexcept;
    void Lose(TKdsChangeLink* link) noexcept;
    void Mend(TKdsChangeLink* link) noexcept;
    void Enlist() noexcept;
    void Unlist() noexcept;

    TKdsTable* fTable;
    std::vector<std::unique_ptr<TKdsChangeFeed>> fFeeds;
    TKdsChangeFeed* fDirty = nullptr;
    TKdsChangeFeed* fLastDirty = nullptr;
    TKdsChangeLog* fFirst = nullptr;
    TKdsChangeLog* fLast = nullptr;
    TKdsChangeLog* fSpare = nullptr;
    TKdsChangeLog fDelivered;  // what the links are being handed
    bool fDelivers = false;
    bool fEnds = false;
    std::int32_t fLost = 0;    // links
    std::uint64_t fRound = 0;  // of delivering
    bool fIsEnlisted = false;
    TKdsChangeDesk* fNextDesk = nullptr;

    // The link that is being called, nullptr when it has ended or is no longer concerned.
    static inline constinit thread_local TKdsChangeLink* fCalled = nullptr;
    static inline constinit thread_local bool fDrains = false;
    static inline constinit thread_local TKdsChangeDesk* fFirstDesk = nullptr;  // with work left
};

}  // namespace kds
