#include "kds/views/Kdschangefeeds.h"

#include <algorithm>

#include "kds/views/Kdsviews.h"

namespace kds {

namespace {

constexpr std::size_t LeastLimit = 1024;   // entries that a log may always hold
constexpr std::size_t KeptEntries = 4096;  // room for so many is kept for the next log

// The one entry of every list that stands for all rows.
std::span<const TKdsChange> RebuiltEntry() noexcept {
    static const TKdsChange entry;
    return {&entry, 1};
}

}  // namespace

// ---- Writing ------------------------------------------------------------------------------

TKdsChangeFeed::~TKdsChangeFeed() {
    for (TStream& stream : fStreams) delete stream.Log;
    for (TKdsChangeLink* const link : fLinks) {
        if (link != nullptr) link->fFeed = nullptr;
    }
    if (fView != nullptr) fView->fChanges = nullptr;
}

void TKdsChangeFeed::Inserted(std::int32_t to, TKdsRecord* record) noexcept {
    Write([&] {
        TKdsChange change;
        change.Kind = ckInserted;
        change.To = to;
        change.Record = record;
        return change;
    });
}

void TKdsChangeFeed::Removed(std::int32_t from, TKdsRecord* record) noexcept {
    Write([&] {
        TKdsChange change;
        change.Kind = ckRemoved;
        change.From = from;
        change.Record = record;
        return change;
    });
}

void TKdsChangeFeed::Posted(std::int32_t from, std::int32_t to, TKdsRecord* record) noexcept {
    const TKdsColumnMask& changed = fDesk->fTable->ChangedColumns();
    if (from == to && !changed.Any()) return;
    Write([&] {
        TKdsChange change;
        change.Kind = from == to ? ckUpdated : ckMoved;
        change.From = from;
        change.To = to;
        change.Record = record;
        change.Columns = TKdsChangedColumns(changed);
        return change;
    });
}

// Without memory the stream falls back to what needs none.
template <typename F>
void TKdsChangeFeed::Write(F&& make) noexcept {
    fDesk->MarkDirty(this);
    try {
        TKdsChange change = make();
        change.RowID = change.Record->RowID();
        for (TStream& stream : fStreams) {
            if (stream.Links > 0 && !stream.Rebuilt) Append(stream, change);
        }
    } catch (...) {
        Rebuilt();
    }
}

void TKdsChangeFeed::Append(TStream& stream, const TKdsChange& change) {
    if (stream.Log == nullptr) stream.Log = fDesk->NewLog();
    TKdsChangeLog& log = *stream.Log;
    const bool coalesces = &stream == fStreams.data();
    if (coalesces && PutTogether(log, change)) return;
    log.Entries.push_back(change);
    const std::size_t count = log.Entries.size();
    if (count <= LeastLimit || count <= static_cast<std::size_t>(fView->Count())) return;
    DropLog(stream);
    stream.Rebuilt = true;
}

// Whether the last entry has taken in the next one. What somebody who was attached meanwhile does
// not get stays as it is.
bool TKdsChangeFeed::PutTogether(TKdsChangeLog& log, const TKdsChange& next) {
    std::vector<TKdsChange>& entries = log.Entries;
    if (entries.size() <= log.Barrier) return false;
    TKdsChange& last = entries.back();
    if (last.RowID != next.RowID) return false;
    if (last.Kind == ckUpdated && next.Kind == ckUpdated) {
        last.Columns.Include(next.Columns);
        return true;
    }
    if (last.Kind == ckInserted && next.Kind != ckInserted) {
        if (next.Kind == ckRemoved) {
            entries.pop_back();
        } else {
            last.To = next.To;
        }
        return true;
    }
    if (last.Kind != ckMoved) return false;
    if (next.Kind == ckRemoved) {
        const std::int32_t from = last.From;
        last = next;
        last.From = from;
        return true;
    }
    if (next.Kind != ckMoved) return false;
    last.Columns.Include(next.Columns);
    last.To = next.To;
    if (last.From != last.To) return true;
    last.Kind = ckUpdated;  // and so may be one with the entry before
    if (entries.size() - 1 <= log.Barrier) return true;
    TKdsChange& before = entries[entries.size() - 2];
    if (before.RowID != last.RowID || before.Kind != ckUpdated) return true;
    before.Columns.Include(last.Columns);
    entries.pop_back();
    return true;
}

void TKdsChangeFeed::Rebuilt() noexcept {
    fDesk->MarkDirty(this);
    for (TStream& stream : fStreams) {
        DropLog(stream);
        stream.Rebuilt = stream.Links > 0;
    }
}

void TKdsChangeFeed::DropLog(TStream& stream) noexcept {
    if (stream.Log != nullptr) fDesk->Recycle(std::exchange(stream.Log, nullptr));
}

// ---- Sealing ------------------------------------------------------------------------------

std::vector<TKdsRecord*> TKdsChangeFeed::Rows() const {
    std::vector<TKdsRecord*> rows;
    // While it is being built the view holds a part of its rows, and not in order; it will give
    // notice when it is done.
    if (!fView->Actual() || fView->Rebuilds()) return rows;
    rows.reserve(static_cast<std::size_t>(fView->Count()));
    for (TKdsRecord* const record : *fView) rows.push_back(record);
    return rows;
}

void TKdsChangeFeed::Seal(TFirstError& errors) noexcept {
    const std::uint64_t number = fNumber++;
    unsigned rebuilt = 0;
    for (std::size_t i = 0; i < fStreams.size(); ++i) {
        TStream& stream = fStreams[i];
        const unsigned bit = 1u << i;
        if (std::exchange(stream.Rebuilt, false)) rebuilt |= bit;
        if (stream.Log == nullptr) continue;
        if (stream.Log->Entries.empty()) {
            DropLog(stream);
            continue;
        }
        TKdsChangeLog* const log = std::exchange(stream.Log, nullptr);
        log->Feed = this;
        log->Number = number;
        log->Streams = bit;
        fDesk->Push(log);
    }
    if (rebuilt != 0) errors.Run([&] { SealRebuilt(rebuilt, number); });
}

void TKdsChangeFeed::SealRebuilt(unsigned streams, std::uint64_t number) {
    TScopeGuard lose([&] {
        for (TKdsChangeLink* const link : fLinks) {
            if (link != nullptr && (streams >> link->fStream & 1) != 0) fDesk->Lose(link);
        }
    });
    std::vector<TKdsRecord*> rows = Rows();
    TKdsChangeLog* const log = fDesk->NewLog();
    lose.Dismiss();
    log->Rows.swap(rows);
    log->Feed = this;
    log->Number = number;
    log->Streams = streams;
    fDesk->Push(log);
}

bool TKdsChangeFeed::HasEntries() const noexcept {
    return std::ranges::any_of(fStreams, [](const TStream& stream) {
        return stream.Log != nullptr && !stream.Log->Entries.empty();
    });
}

void TKdsChangeFeed::Forget(const TKdsRecord* record) noexcept {
    for (const TStream& stream : fStreams) {
        if (stream.Log != nullptr) stream.Log->Forget(record);
    }
}

void TKdsChangeLog::Forget(const TKdsRecord* record) noexcept {
    for (TKdsChange& change : Entries) {
        if (change.Record == record) change.Record = nullptr;
    }
    std::ranges::replace(Rows, record, nullptr);
}

// ---- Links --------------------------------------------------------------------------------

void TKdsChangeFeed::ReserveLink() { fLinks.reserve(fLinks.size() + 1); }

void TKdsChangeFeed::Join(TKdsChangeLink* link, TKdsView* view) noexcept {
    fLinks.push_back(link);
    link->fFeed = this;
    ++fStreams[link->fStream].Links;
    BeginHere(link);
    fView = view;
    view->fChanges = this;
    fDesk->fTable->ViewsChanged();
}

// The link hears of nothing that was written before.
void TKdsChangeFeed::BeginHere(TKdsChangeLink* link) noexcept {
    TKdsChangeLog* const log = fStreams[link->fStream].Log;
    link->fSince = fNumber;
    link->fSkip = log == nullptr ? 0 : log->Entries.size();
    if (log != nullptr) log->Barrier = log->Entries.size();
}

void TKdsChangeFeed::Leave(TKdsChangeLink* link) noexcept {
    const auto place = std::ranges::find(fLinks, link);
    if (fHands) {
        *place = nullptr;  // the walk over the links goes on
    } else {
        fLinks.erase(place);
    }
    fDesk->Mend(link);
    link->fFeed = nullptr;
    TStream& stream = fStreams[link->fStream];
    if (--stream.Links > 0) return;
    DropLog(stream);
    stream.Rebuilt = false;
    if (fStreams[0].Links + fStreams[1].Links > 0) return;
    fDesk->DropLogsOf(this);
    std::exchange(fView, nullptr)->fChanges = nullptr;
    fDesk->fTable->ViewsChanged();
}

// What waits would end with no rows, too.
void TKdsChangeFeed::ViewEnds() noexcept {
    fDesk->DropLogsOf(this);
    for (std::size_t i = fLinks.size(); i-- > 0;) {
        TKdsChangeLink* const link = fLinks[i];
        if (link == nullptr) continue;
        Leave(link);
        link->fOwn.Rows.clear();
        fDesk->PushOwn(link);
    }
    TFirstError unheard;  // the view is going; its errors have nowhere to go
    fDesk->Deliver(unheard);
}

void TKdsChangeFeed::Hand(const TKdsChangeLog& log, TFirstError& errors) noexcept {
    fHands = true;
    // Who comes in meanwhile begins behind this list.
    for (std::size_t i = 0; i < fLinks.size(); ++i) {
        TKdsChangeLink* const link = fLinks[i];
        if (link == nullptr || (log.Streams >> link->fStream & 1) == 0) continue;
        if (link->fLost || log.Number < link->fSince) continue;
        const std::size_t skip = log.Number == link->fSince ? link->fSkip : 0;
        const std::span<const TKdsChange> entries =
            log.Entries.empty() ? RebuiltEntry() : std::span(log.Entries).subspan(skip);
        if (!entries.empty()) fDesk->Call(link, {fView, entries, log.Rows}, errors);
    }
    fHands = false;
    std::erase(fLinks, nullptr);
}

// ---- The desk: its queue ------------------------------------------------------------------

TKdsChangeDesk::~TKdsChangeDesk() {
    Unlist();
    while (TKdsChangeLog* const log = Pop()) {
        if (log->Only != nullptr) {
            log->Only->fQueuedAt = nullptr;
        } else {
            delete log;
        }
    }
    fFeeds.clear();
    while (fSpare != nullptr) delete std::exchange(fSpare, fSpare->Next);
}

bool TKdsChangeDesk::IsOpen() const noexcept {
    return fTable->fBracket > 0 || fTable->fDelivers || (fTable->fLoadLocks > 0 && !fEnds);
}

bool TKdsChangeDesk::IsSettled() const noexcept {
    return fDrains || IsOpen() || (fFirst == nullptr && fDirty == nullptr);
}

TKdsChangeFeed* TKdsChangeDesk::FeedOf(TKdsView* view) {
    if (view->fChanges != nullptr) return view->fChanges;
    std::erase_if(fFeeds, [](const std::unique_ptr<TKdsChangeFeed>& feed) {
        return feed->fView == nullptr && !feed->fHands && !feed->fIsDirty;
    });
    fFeeds.push_back(std::make_unique<TKdsChangeFeed>(this, view));
    return fFeeds.back().get();
}

TKdsChangeLog* TKdsChangeDesk::NewLog() {
    if (fSpare == nullptr) return new TKdsChangeLog;
    TKdsChangeLog* const log = std::exchange(fSpare, fSpare->Next);
    log->Next = nullptr;
    return log;
}

void TKdsChangeDesk::Recycle(TKdsChangeLog* log) noexcept {
    log->Clear();
    log->Next = std::exchange(fSpare, log);
}

void TKdsChangeLog::Clear() noexcept {
    if (Entries.capacity() > KeptEntries) std::vector<TKdsChange>().swap(Entries);
    Entries.clear();
    std::vector<TKdsRecord*>().swap(Rows);
    Feed = nullptr;
    Only = nullptr;
    Number = 0;
    Streams = 0;
    Barrier = 0;
    Next = nullptr;
}

void TKdsChangeDesk::MarkDirty(TKdsChangeFeed* feed) noexcept {
    if (std::exchange(feed->fIsDirty, true)) return;
    (fDirty == nullptr ? fDirty : fLastDirty->fNextDirty) = feed;
    fLastDirty = feed;
}

void TKdsChangeDesk::Push(TKdsChangeLog* log) noexcept {
    log->Next = nullptr;
    (fFirst == nullptr ? fFirst : fLast->Next) = log;
    fLast = log;
}

TKdsChangeLog* TKdsChangeDesk::Pop() noexcept {
    TKdsChangeLog* const log = fFirst;
    if (log != nullptr) fFirst = log->Next;
    return log;
}

void TKdsChangeDesk::PushOwn(TKdsChangeLink* link) noexcept {
    link->fQueuedAt = this;
    link->fOwn.Only = link;
    Push(&link->fOwn);
}

template <typename F>
void TKdsChangeDesk::DropWhen(F&& condition) noexcept {
    TKdsChangeLog* log = std::exchange(fFirst, nullptr);
    while (log != nullptr) {
        TKdsChangeLog* const next = log->Next;
        if (!condition(*log)) {
            Push(log);
        } else if (log->Only != nullptr) {
            log->Only->fQueuedAt = nullptr;
            log->Clear();
        } else {
            Recycle(log);
        }
        log = next;
    }
}

void TKdsChangeDesk::DropOwn(TKdsChangeLink* link) noexcept {
    DropWhen([&](const TKdsChangeLog& log) { return log.Only == link; });
}

void TKdsChangeDesk::DropLogsOf(const TKdsChangeFeed* feed) noexcept {
    DropWhen([&](const TKdsChangeLog& log) {
        return log.Feed == feed || (log.Only != nullptr && log.Only->fFeed == feed);
    });
}

void TKdsChangeDesk::Seal(TFirstError& errors) noexcept {
    if (fTable->fLoadLocks > 0 || fEnds) return;
    while (fDirty != nullptr) {
        TKdsChangeFeed* const feed = std::exchange(fDirty, fDirty->fNextDirty);
        feed->fNextDirty = nullptr;
        feed->fIsDirty = false;
        feed->Seal(errors);
    }
}

bool TKdsChangeDesk::HoldsRows() const noexcept {
    if (fFirst != nullptr || fDelivers) return true;
    for (const TKdsChangeFeed* feed = fDirty; feed != nullptr; feed = feed->fNextDirty) {
        if (feed->HasEntries()) return true;
    }
    return false;
}

// A record that was never a row stands nowhere.
void TKdsChangeDesk::ForgetRecord(const TKdsRecord* record) noexcept {
    if (fEnds || record->RowID() == NoRowID) return;
    for (TKdsChangeFeed* feed = fDirty; feed != nullptr; feed = feed->fNextDirty) {
        feed->Forget(record);
    }
    for (TKdsChangeLog* log = fFirst; log != nullptr; log = log->Next) log->Forget(record);
    if (fDelivers) fDelivered.Forget(record);
}

// The rows go with the table. Its links have yet to hear that their views end.
void TKdsChangeDesk::TableEnds() noexcept {
    fEnds = true;
    DropWhen([](const TKdsChangeLog&) { return true; });
    for (const std::unique_ptr<TKdsChangeFeed>& feed : fFeeds) feed->Rebuilt();
    for (TKdsChange& change : fDelivered.Entries) change.Record = nullptr;
    std::ranges::fill(fDelivered.Rows, nullptr);
}

// ---- The desk: calling --------------------------------------------------------------------

void TKdsChangeDesk::Enlist() noexcept {
    if (std::exchange(fIsEnlisted, true)) return;
    TKdsChangeDesk** place = &fFirstDesk;
    while (*place != nullptr) place = &(*place)->fNextDesk;
    *place = this;
}

void TKdsChangeDesk::Unlist() noexcept {
    if (!std::exchange(fIsEnlisted, false)) return;
    TKdsChangeDesk** place = &fFirstDesk;
    while (*place != this) place = &(*place)->fNextDesk;
    *place = std::exchange(fNextDesk, nullptr);
}

void TKdsChangeDesk::Deliver(TFirstError& errors) noexcept {
    if ((fFirst == nullptr && fLost == 0) || IsOpen()) return;
    Enlist();
    if (fDrains) return;
    TKdsTravelGuard guard;  // desks go with their tables, and those may end meanwhile
    fDrains = true;
    while (TKdsChangeDesk* const desk = fFirstDesk) {
        desk->DeliverQueue(errors);
        desk->Unlist();
        if (desk->fTable->MayBury()) desk->fTable->BuryDead();
    }
    fDrains = false;
}

void TKdsChangeDesk::DeliverQueue(TFirstError& errors) noexcept {
    ++fRound;
    fDelivers = true;
    while (!IsOpen()) {
        if (TKdsChangeLog* const log = Pop()) {
            Hand(log, errors);
        } else if (!Recover(errors)) {
            break;
        }
    }
    fDelivers = false;
}

// What is handed out lies with the desk meanwhile: the link that it was for may end, or wait for
// something new.
void TKdsChangeDesk::Hand(TKdsChangeLog* log, TFirstError& errors) noexcept {
    fDelivered.Entries.swap(log->Entries);
    fDelivered.Rows.swap(log->Rows);
    fDelivered.Number = log->Number;
    fDelivered.Streams = log->Streams;
    TKdsChangeLink* const link = log->Only;
    TKdsChangeFeed* const feed = log->Feed;
    if (link != nullptr) {
        link->fQueuedAt = nullptr;
        log->Clear();
        Mend(link);
        Call(link, {link->View(), RebuiltEntry(), fDelivered.Rows}, errors);
    } else {
        Recycle(log);
        feed->Hand(fDelivered, errors);
    }
    fDelivered.Clear();
}

void TKdsChangeDesk::Call(TKdsChangeLink* link, const TKdsChangeList& list,
                          TFirstError& errors) noexcept {
    fCalled = link;
    bool raised = true;
    errors.Run([&] {
        link->HandleChanges(list);
        raised = false;
    });
    if (std::exchange(fCalled, nullptr) == nullptr) return;
    if (!raised) {
        link->fTried = 0;
    } else if (link->fQueuedAt == nullptr && link->fFeed != nullptr) {
        link->fFeed->fDesk->Lose(link);
    }
}

void TKdsChangeDesk::Lose(TKdsChangeLink* link) noexcept {
    if (!std::exchange(link->fLost, true)) ++fLost;
}

void TKdsChangeDesk::Mend(TKdsChangeLink* link) noexcept {
    if (std::exchange(link->fLost, false)) --fLost;
}

// Gives a lost link a new start, each of them once a round; whether there was one.
bool TKdsChangeDesk::Recover(TFirstError& errors) noexcept {
    if (fLost == 0) return false;
    for (const std::unique_ptr<TKdsChangeFeed>& feed : fFeeds) {
        for (TKdsChangeLink* const link : feed->fLinks) {
            if (link == nullptr || !link->fLost || link->fTried == fRound) continue;
            link->fTried = fRound;
            bool made = false;
            errors.Run([&] {
                link->fOwn.Rows = feed->Rows();
                made = true;
            });
            if (!made) continue;
            feed->BeginHere(link);
            PushOwn(link);
            return true;
        }
    }
    return false;
}

}  // namespace kds
