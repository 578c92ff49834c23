// Tables: columns, records and views under one roof, and the rules by which they meet.
//
// Shape      A table owns its column list, record list and view list. A change of its records
//            opens a change bracket; when the outermost bracket closes, the views' links hear what
//            happened. Load brackets (EnterLoad, LeaveLoad) switch the views off and on.
// Units      Row identifiers count up from 0 and start again when the table is cleared.
// Ownership  A table belongs to its store's table list, or to who created it. NewRow answers a
//            detached record of the caller's; Insert and its like answer borrowed records.
// Errors     EKdsError with the messages of the catalogue; a refused operation changes nothing.
//            An error of a receiver that hears a change which stands (a view that cannot build,
//            a link) is raised when the operation is complete.
// Cost       Insert, Post and Delete O(log n) for the key and for each view whose order is touched;
//            a post that touches none costs the same however many views there are, as long as none
//            has links or a routine of the host.
// Validity   Records live until deleted; detached records may outlive the table and then only
//            raise RecordStateInvalid.
// Threads    A store and everything in it is used by one thread at a time.
#pragma once

#include <algorithm>
#include <array>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kds/core/Kdscolumns.h"
#include "kds/core/Kdsdata.h"
#include "kds/core/Kdsrecordlists.h"
#include "kds/core/Kdsrecords.h"
#include "kds/core/Kdsstreams.h"
#include "kds/core/Kdsstrings.h"

namespace kds {

class IKdsAccept;
class IKdsStorageFactory;
class IKdsViewFactory;
class TKdsAcceptRecordProc;
class TKdsChangeDesk;
class TKdsStore;
class TKdsSwapper;
class TKdsTableScope;
class TKdsView;
class TKdsViewList;
struct TKdsEvent;
struct TKdsQueuedEvent;

enum class TKdsTableOption : std::uint8_t {
    mtoSkipPKCheck,
    mtoOnceLoaded,
    mtoStaticData,
    mtoStripNulls
};
using enum TKdsTableOption;
using TKdsTableOptions = TSet<TKdsTableOption>;

// What is about to happen to a row, seen from a view.
enum class TKdsApproach : std::uint8_t { Leaving, Entering, Moving };

enum class TKdsTableStatus : std::uint8_t { mtsRegular, mtsDestroy, mtsMassive, mtsUploads };
using enum TKdsTableStatus;

// Watches the end of records (as a deacon, told when the deletion is confirmed) or of the table
// (as a sexton, told when it goes).
class IKdsSexton : public IInterface {
public:
    virtual void RecordDeleted(TKdsTable* table, TKdsRecord* record) = 0;
    virtual void TableDestroyed(TKdsTable* table) = 0;
};

class TKdsKeyValues;

using TKdsComparer = TDelegate<std::int32_t(TKdsRecord*, TKdsRecord*)>;
using TKdsAcceptRecordEvent = TDelegate<void(TKdsView*, TKdsRecord*, bool&)>;

// Which columns a post has changed, by column index.
class TKdsColumnMask {
public:
    void Reset(std::int32_t columnCount) { fWords.assign(Words(columnCount), 0); }
    void Include(std::int32_t column) noexcept { fWords[At(column)] |= Bit(column); }
    [[nodiscard]] bool Has(std::int32_t column) const noexcept {
        return At(column) < fWords.size() && (fWords[At(column)] & Bit(column)) != 0;
    }
    [[nodiscard]] bool Meets(const TKdsColumnMask& other) const noexcept {
        const std::size_t words = std::min(fWords.size(), other.fWords.size());
        for (std::size_t i = 0; i < words; ++i) {
            if ((fWords[i] & other.fWords[i]) != 0) return true;
        }
        return false;
    }
    [[nodiscard]] bool Any() const noexcept {
        return std::ranges::any_of(fWords, [](std::uint64_t word) { return word != 0; });
    }
    // 64 columns a word, the first in the lowest bit.
    [[nodiscard]] std::span<const std::uint64_t> Bits() const noexcept { return fWords; }

private:
    static std::size_t Words(std::int32_t count) noexcept {
        return (static_cast<std::size_t>(count) + 63) / 64;
    }
    static std::size_t At(std::int32_t column) noexcept {
        return static_cast<std::size_t>(column) / 64;
    }
    static std::uint64_t Bit(std::int32_t column) noexcept {
        return std::uint64_t{1} << (column % 64);
    }
    std::vector<std::uint64_t> fWords;
};

class TKdsTable : public TKdsName {
public:
    [[nodiscard]] static TOwned<TKdsTable> Create(std::u16string_view name);

    [[nodiscard]] TKdsTableColumnList* Columns() const noexcept { return fColumns.get(); }
    [[nodiscard]] TKdsTableRecordList* Records() const noexcept { return fRecords.get(); }
    [[nodiscard]] TKdsViewList* Views() const noexcept { return fViews.get(); }
    [[nodiscard]] TKdsStore* Store() const noexcept { return fStore; }
    // The store's pool of texts, shared by its tables; outside a store the table's own.
    [[nodiscard]] TKdsStringManager* Strings() const noexcept;
    [[nodiscard]] const std::u16string& Caption() const noexcept { return fCaption; }
    void SetCaption(std::u16string_view value) { fCaption = value; }
    [[nodiscard]] TKdsTableStatus Status() const noexcept { return fStatus; }
    [[nodiscard]] TKdsTableOptions Options() const noexcept { return fOptions; }
    // mtoStripNulls changes how rows are kept: refused while there are any.
    void SetOptions(TKdsTableOptions value);
    [[nodiscard]] bool Modified() const noexcept { return fModified; }
    void SetModified(bool value) noexcept { fModified = value; }
    [[nodiscard]] std::int32_t Tag() const noexcept { return fTag; }
    void SetTag(std::int32_t value) noexcept { fTag = value; }
    [[nodiscard]] std::int32_t Version() const noexcept { return fVersion; }
    [[nodiscard]] std::uint32_t LastRowID() const noexcept { return fLastRowID; }
    [[nodiscard]] std::int32_t OrphanRows() const noexcept { return fOrphanRows; }
    // Views made later use it.
    [[nodiscard]] const TIntf<IKdsStorageFactory>& StorageFactory() const noexcept;
    void SetStorageFactory(TIntf<IKdsStorageFactory> factory);
    // Keeps the number of rows in memory bounded.
    [[nodiscard]] TKdsSwapper* Swapper() const noexcept { return fSwapper.get(); }
    [[nodiscard]] std::int32_t MaxRecordsInMemory() const noexcept;
    void SetMaxRecordsInMemory(std::int32_t value);

    // ---- Rows ----
    [[nodiscard]] TOwned<TKdsRecord> NewRow(bool defaults = true);
    [[nodiscard]] TOwned<TKdsRecord> NewRow(std::span<const TVariant> values, bool defaults = true);
    [[nodiscard]] TOwned<TKdsRecord> NewRow(std::initializer_list<TVariant> values,
                                            bool defaults = true);
    // Values in column order.
    TKdsRecord* Insert(std::span<const TVariant> values);
    TKdsRecord* Insert(std::initializer_list<TVariant> values);
    // Changes the row with the same primary key, or inserts.
    TKdsRecord* Upsert(std::span<const TVariant> values);
    TKdsRecord* Upsert(std::initializer_list<TVariant> values);
    // By the values of the primary key, in key order; answers whether there was such a row. Fewer
    // values than the key has columns mean the first row that begins with them.
    bool Delete(std::span<const TVariant> values);
    bool Delete(std::initializer_list<TVariant> values);
    void Clear();
    // Calculates the stored columns of all rows anew; the views are built again behind it. Answers
    // how many rows have a column that could not be calculated and is null now.
    std::int32_t Recalculate();

    // ---- Load brackets ----
    // Only the outermost pair acts. mtsMassive and mtsDestroy switch the views off; LeaveLoad
    // builds them again and then raises the first error, a duplicate key for instance.
    void EnterLoad(TKdsTableStatus status);
    void LeaveLoad();

    // ---- Streams ----
    // All rows as they read now, edits that are open included; `withStructure` makes the stream
    // tell of the columns too. False when the progress was stopped. The table cannot be changed
    // meanwhile.
    bool SaveToStream(TStream& stream, bool withStructure = true, IKdsProgress* progress = nullptr);
    // Appends what SaveToStream has written: rows of this table's shape or, in a table without
    // columns, with the columns of the stream. EKdsStreamError, and a progress that stops, leave
    // table and stream as they were; so does what OnRecord and progress raise.
    TKdsLoadResult LoadFromStream(TStream& stream, TKdsLoadRecordEvent onRecord = nullptr,
                                  IKdsProgress* progress = nullptr);
    // The file is replaced, readable by its owner alone, when all of the new one has reached the
    // disk; until then and after an error, EStreamError for instance, it is as before.
    bool SaveToFile(std::u16string_view fileName, bool withStructure = true,
                    IKdsProgress* progress = nullptr);
    TKdsLoadResult LoadFromFile(std::u16string_view fileName,
                                TKdsLoadRecordEvent onRecord = nullptr,
                                IKdsProgress* progress = nullptr);
    // Whether some of what is saved can be read only where the host brings the same handlers of
    // custom data.
    [[nodiscard]] bool IsPlatformDependent() const;

    // ---- Keys and views ----
    [[nodiscard]] std::u16string GetPrimaryKey() const;
    void SetPrimaryKey(std::u16string_view orderText);
    [[nodiscard]] TKdsView* PrimaryView() const noexcept { return fPrimaryView; }
    [[nodiscard]] TKdsView* DefaultView() const noexcept { return fDefaultView; }
    [[nodiscard]] bool IsKeyColumn(const TKdsColumn* column) const;
    // Brought up to date; made when there is none and `create` > 0.
    TKdsView* GetDefaultView(std::int32_t create = 1);
    // New views, owned by the view list. An empty order text means the primary key's order, or
    // with `unordered` the order of the row identifiers.
    TKdsView* Select(std::u16string_view orderBy, std::u16string_view filter = {},
                     TKdsAcceptRecordEvent onAccept = nullptr, bool unordered = false);
    TKdsView* SelectA(std::u16string_view orderBy, std::u16string_view filter,
                      TIntf<TKdsAcceptRecordProc> acceptProc, bool unordered = false);
    TKdsView* SelectEx(std::u16string_view orderBy, TKdsComparer onCompare,
                       std::u16string_view filter = {}, TKdsAcceptRecordEvent onAccept = nullptr,
                       bool unordered = false, const TIntf<IKdsViewFactory>& viewFactory = nullptr);
    void RebuildViews(bool full);

    // ---- Filters ----
    // Hide rows from every view but the primary one. Adding and removing rebuild the views; should
    // a view raise then, the others are built and the filter is added or removed all the same.
    // Twice the same filter, or removing an unknown one, has no effect.
    void AppendFilter(TIntf<IKdsAccept> filter);
    void RemoveFilter(const TIntf<IKdsAccept>& filter);
    [[nodiscard]] bool HasFilters() const noexcept { return !fFilters.empty(); }
    // Whether no filter rejects the row; the first one that does ends it.
    [[nodiscard]] bool ApplyFilters(TKdsView* view, TKdsRecord* record);

    // ---- Observers ----
    void AppendDeacon(TIntf<IKdsSexton> observer);
    void RemoveDeacon(const TIntf<IKdsSexton>& observer);
    void NotifyDeacons(TKdsRecord* record);
    void AppendSexton(TIntf<IKdsSexton> observer);
    void RemoveSexton(const TIntf<IKdsSexton>& observer);
    void NotifySextons();

    using TKdsName::Notify;
    void Notify(TNotification* notification) override;
    void Handle(TNotification* notification) override;
    // The first broken rule of the table, its lists and views; nullptr when all hold. O(n log n).
    [[nodiscard]] const char* Inconsistency() const;

    // ---- For the library ----
    [[nodiscard]] bool IsOfData(const TNotification& notification) const noexcept {
        return notification.Sender == fRecords.get() || notification.Sender->Sphere() == spData;
    }
    void CheckRestructure();
    // What the views look at has changed: which of them care for a post is to be found out anew.
    void ViewsChanged() noexcept {
        fWatch.Known = false;
        fViewsRest = TRest::Unknown;
    }
    void LayoutChanged() noexcept;
    // ---- Columns of other tables that look into this one ----
    void ReserveReferrer() { fReferrers.reserve(fReferrers.size() + 1); }
    void AppendReferrer(TKdsColumn* column) noexcept { fReferrers.push_back(column); }
    void RemoveReferrer(const TKdsColumn* column) noexcept { std::erase(fReferrers, column); }
    [[nodiscard]] const std::vector<TKdsColumn*>& Referrers() const noexcept { return fReferrers; }
    // Counts every change of the rows.
    [[nodiscard]] std::uint64_t ChangeCount() const noexcept { return fChangeCount; }
    // The row that the change with this number has posted, if it did nothing else that matters to
    // who looks it up; NoRowID otherwise, or when that is too long ago.
    [[nodiscard]] std::uint32_t PostedBy(std::uint64_t change) const noexcept {
        return change + fPosts.size() <= fChangeCount ? NoRowID : fPosts[change % fPosts.size()];
    }
    // What is read through these columns, from here or from other tables, is not what it was. The
    // tables that look into this one hear of it, and so on.
    void SourcesChanged() noexcept;
    [[nodiscard]] std::uint64_t Shape() const noexcept { return fShape; }
    // So that a row is placed among rows that stand right.
    void FreshenViews() {
        if (fColumns->LooksUp()) FreshenReadingViews();
    }
    // Views of other tables that look into this one and have links hear of its changes now.
    void FreshenReaders(TFirstError& errors) noexcept;
    // Host callbacks run inside the engine: rows and views must stay as they are.
    [[nodiscard]] bool IsBusy() const noexcept { return fBusy > 0; }
    // Nor may the rows change while a change of them is travelling.
    void CheckNotBusy() const {
        if ((fBusy | fTravels) != 0) RaiseBusy();
    }
    // Events wait, so that they arrive in order.
    [[nodiscard]] bool InBracket() const noexcept { return fBracket > 0 || fDelivers; }
    // Sees to it that this many events of each view find room in the queue.
    void ReserveEvents(std::size_t each);
    void CountStagedEvent() noexcept { ++fStagedEvents; }
    [[nodiscard]] bool TakeStagedEvents() noexcept { return std::exchange(fStagedEvents, 0) > 0; }
    // False when there is no memory for it.
    [[nodiscard]] bool QueueEvent(TKdsView* view, const TKdsEvent& event) noexcept;
    void ForgetView(TKdsView* view) noexcept;
    void ForgetRecord(const TKdsRecord* record) noexcept;
    // Of the change lists; made when it is first asked for.
    [[nodiscard]] TKdsChangeDesk* ChangeDesk();
    [[nodiscard]] const TKdsColumnMask& ChangedColumns() const noexcept { return fChanged; }
    // Whether the posted values of every row but this one lie behind its record: only while a row
    // is being posted its new values lie elsewhere.
    [[nodiscard]] bool RowsAtHome(const TKdsRecord* but) const noexcept {
        return KeepsHome() && !fHomeless && (fPosting == nullptr || fPosting == but);
    }
    // Whether values of some rows may lie in a file: then rows are read through the records alone.
    [[nodiscard]] bool HasSwapped() const noexcept { return fSwaps; }
    // The primary view, brought up to date where that is possible now; nullptr when there is none
    // that can be asked.
    [[nodiscard]] TKdsView* UsablePrimaryView();
    // The detached scratch record of searches, all null. It is taken for as long as the search
    // runs: a routine of the host that searches meanwhile gets another one.
    [[nodiscard]] TOwned<TKdsRecord> TakeLocator();
    void GiveLocator(TOwned<TKdsRecord>&& locator) noexcept;
    // Of a search key that is in use; nullptr for other records.
    [[nodiscard]] const TKdsKeyValues* KeyValuesOf(const TKdsRecord* record) const noexcept {
        return fKeyValues == nullptr ? nullptr : KeyValuesFor(record);
    }
    [[nodiscard]] const TKdsLayout& Layout() const noexcept { return fColumns->Layout(); }

protected:
    explicit TKdsTable(std::u16string_view name);
    ~TKdsTable() override;
    void Init();
    void BeforeDestruction() override;
    void Teardown() noexcept override;

private:
    friend class TKdsStore;
    friend class TKdsTableList;
    friend class TKdsTableRecordList;
    friend class TKdsRecord;
    friend class TKdsChangeBracket;
    friend class TKdsChangeDesk;
    friend class TKdsBusyScope;
    friend class TKdsTravelScope;
    friend class TKdsTableScope;
    friend class TKdsLoad;
    friend class TKdsKeyChange;
    friend class TKdsKeyValues;
    friend class TKdsRowPin;
    friend class TKdsSwapper;
    friend class TKdsView;
    friend class TKdsViewList;
    friend class TKdsTableReader;

    [[noreturn]] void RaiseBusy() const;
    // ---- Buffers ----
    // Of records with a home buffer, or without.
    [[nodiscard]] TSlab& Slab(bool home);
    [[nodiscard]] bool KeepsHome() const noexcept { return !fOptions.Has(mtoStripNulls); }
    // Of a full-size buffer: whole words, so that it can be compared by them.
    [[nodiscard]] std::size_t BufferRoom() const noexcept {
        constexpr std::size_t step = sizeof(std::uint64_t);
        return (static_cast<std::size_t>(Layout().RecordSize()) + step - 1) / step * step;
    }
    [[nodiscard]] std::byte* TakeBuffer();
    [[nodiscard]] std::byte* InitBuffer();
    void FreeBuffer(TKdsRecord* record, std::byte* buffer) noexcept;
    void GiveBack(std::byte* buffer) noexcept;
    [[nodiscard]] std::byte* CopyBuffer(const std::byte* source);
    // The delayed columns of this buffer are calculated by the next read.
    void MarkLate(std::byte* buffer) const noexcept {
        if (!Layout().DelayedColumns().empty()) MarkDelayed(buffer);
    }
    void MarkDelayed(std::byte* buffer) const noexcept;
    void CompactBuffer(TKdsRecord* record) noexcept;
    void ExpandBuffer(std::byte*& buffer);
    void RetainReferences(const std::byte* buffer) noexcept;
    void ReleaseReferences(std::byte* buffer) noexcept;
    // ---- Texts in the pool ----
    // Rows that bring their texts along keep them; what is written from now on is the store's.
    void EnterStore(TKdsStore* store) noexcept;
    // The columns look their dictionaries up again. Not while there are rows, whose texts must go
    // back to where they came from: a table that has left its store may still hold that one's.
    void ForgetVocabularies() noexcept;
    // ---- Detached rows ----
    void Track(TKdsRecord* record);
    void ReserveTrack() {
        if (fDetached.size() == fDetached.capacity()) GrowTrack();
    }
    void GrowTrack();
    void ReserveDead();
    // For as many deletions as there are rows; for all that Clear does.
    void ReserveDeaths();
    void ReserveClear();
    // Nobody is to be told, or is being told, of a row.
    [[nodiscard]] bool MayBury() const noexcept {
        return !fDelivers && fQueuedOrigins == 0 && fTravels == 0 &&
               (fChangeDesk == nullptr || !HoldsChanges());
    }
    [[nodiscard]] bool HoldsChanges() const noexcept;
    void Untrack(TKdsRecord* record) noexcept {
        const auto slot = static_cast<std::size_t>(record->fBuffer.DetachedSlot);
        fDetached[slot] = fDetached.back();
        fDetached[slot]->fBuffer.DetachedSlot = record->fBuffer.DetachedSlot;
        fDetached.pop_back();
    }
    void DropLocator() noexcept;
    void ReleaseDetached() noexcept;
    // ---- Changes ----
    void ReserveChanges() { fChanged.Reset(Layout().ColumnCount()); }
    void FindChanges(const std::byte* before, const std::byte* after);
    // What all views together look at when a row is posted: some of them at everything, or these
    // bits of a buffer at most. Not known until the next post once ViewsChanged has been called.
    struct TWatch {
        struct TWord {
            std::int32_t Offset;
            std::uint64_t Bits;
            friend bool operator==(const TWord&, const TWord&) = default;
        };
        bool Known = false;
        bool All = false;
        bool Followed = false;    // links hear of every post, also of one that moves no row
        bool Calculated = false;  // at a column that the post itself calculates
        std::vector<TWord> Words;
        friend bool operator==(const TWatch&, const TWatch&) = default;
    };
    [[nodiscard]] TWatch LookAtViews() const;
    // Whether a post moves no row in any view, breaks no key and is nobody else's business than
    // that of links.
    [[nodiscard]] bool IsQuietPost(const std::byte* before, const std::byte* after);
    // Brings near where the row stands in the views that are followed, a step each call, for a
    // post that will ask for its position.
    void ApproachFollowed(const TKdsRecord* record, std::int32_t step) {
        if (fWatch.Followed && fWatch.Known && !fSwaps) ApproachInFollowed(record, step);
    }
    void ApproachInFollowed(const TKdsRecord* record, std::int32_t step);
    void ReserveFollowed() {
        if (fWatch.Followed) ReserveEvents(1);
    }
    // Whether the views may be left out of a notification: that of such a post, and nobody who
    // heard of it before has changed what they look at.
    [[nodiscard]] bool SkipsViews(const TNotification& notification) const noexcept {
        return notification.Sender == fQuietPost && notification.Action == acConfirmUpdate &&
               fWatch.Known && !fWatch.Followed && fStatus == mtsRegular && fStagedEvents == 0;
    }
    void Climb(TNotification* notification);
    // Whether nobody would hear of a row that comes in: while a load keeps the views off, in a
    // store that nobody watches.
    [[nodiscard]] bool IsUnheard() {
        if (fStatus != mtsMassive) return false;
        if (fViewsRest == TRest::Unknown) fViewsRest = ViewsRest() ? TRest::Yes : TRest::No;
        return fViewsRest == TRest::Yes && ClimbsNowhere();
    }
    // No view has rows, and neither they nor the table are of a class of the host's, which may do
    // anything.
    [[nodiscard]] bool ViewsRest() const noexcept;
    [[nodiscard]] bool ClimbsNowhere() const noexcept;
    [[nodiscard]] bool IsInStore() const noexcept;
    void FreshenReadingViews();
    void FollowMasters();
    [[nodiscard]] const TKdsKeyValues* KeyValuesFor(const TKdsRecord* record) const noexcept;
    void UnresolveReaders() noexcept;
    void CountChange(const TNotification& notification) noexcept;
    void CountUnheard() noexcept {
        fVersion = static_cast<std::int32_t>(static_cast<std::uint32_t>(fVersion) + 1);
        fPosts[++fChangeCount % fPosts.size()] = NoRowID;
    }
    void CheckUniqueViews(TKdsRecord* record);
    void ReservePlaces(const TKdsRecord* record);
    void ApproachPlaces(const TKdsRecord* record, TKdsApproach way);
    void FollowAutoIncrement(TKdsRecord* record);
    void CloseBracket(TFirstError& errors) noexcept;
    void DeliverEvents(TFirstError& errors) noexcept;
    void BuryDead() noexcept;
    void ForgetScopes() noexcept;
    void UnlinkDeleted(TNotification* notification) noexcept;
    template <typename F>
    void TellAll(std::vector<TIntf<IKdsSexton>>& observers, F&& tell);
    void Dismiss(std::vector<TIntf<IKdsSexton>>& observers,
                 const TIntf<IKdsSexton>& observer) noexcept;
    // ---- Keys ----
    void MakePrimaryKey(const std::u16string& key);
    void DropPrimaryKey();
    [[nodiscard]] TKdsRecord* FindByColumnValues(std::span<const TVariant> values);
    void MakeDefaultView(std::int32_t create);
    void RestoreDefaultView(TFirstError& errors);
    TKdsView* EnterView(TOwned<TKdsView>&& view);
    TKdsView* DoSelect(std::u16string_view orderBy, TKdsComparer onCompare,
                       std::u16string_view filter, TKdsAcceptRecordEvent onAccept,
                       TIntf<TKdsAcceptRecordProc> acceptProc, bool unordered,
                       const TIntf<IKdsViewFactory>& viewFactory);

    std::u16string fCaption;
    TOwned<TKdsTableColumnList> fColumns;
    TKdsView* fDefaultView = nullptr;
    TKdsView* fPrimaryView = nullptr;
    std::uint32_t fLastRowID = 0;
    std::int32_t fLoadLocks = 0;
    TKdsTableOptions fOptions;
    std::int32_t fOrphanRows = 0;
    TOwned<TKdsTableRecordList> fRecords;
    TOwned<TKdsRecord> fLocator;
    bool fModified = false;
    TKdsTableStatus fStatus = mtsRegular;
    TKdsStore* fStore = nullptr;
    TOwned<TKdsStringManager> fStrings;
    std::unique_ptr<TKdsSwapper> fSwapper;
    std::int32_t fVersion = 0;
    TOwned<TKdsViewList> fViews;
    std::int32_t fTag = 0;
    TIntf<IKdsStorageFactory> fStorageFactory;
    std::vector<TIntf<IKdsSexton>> fDeacons;
    std::vector<TIntf<IKdsSexton>> fSextons;
    std::vector<TIntf<IKdsAccept>> fFilters;
    std::vector<TKdsColumn*> fReferrers;
    std::uint64_t fChangeCount = 0;
    std::uint64_t fShape = 1;  // counts what SourcesChanged tells
    bool fTellsReaders = false;
    // What delayed columns have read; of the shape of then.
    struct TMaster {
        TKdsTable* Table;
        std::uint64_t Changes;
    };
    std::vector<TMaster> fMasters;
    std::uint64_t fDelayedShape = 0;
    std::array<std::uint32_t, 32> fPosts{};  // of the latest changes, for those that look in
    std::uint64_t fFreshened = 0;            // the change of which readers with links have heard

    TSlab* fSlab = nullptr;
    TSlab* fBareSlab = nullptr;
    bool fHomeless = false;  // there may be rows without a home
    bool fSwaps = false;     // there may be rows that are out
    std::byte* fSpareBuffer = nullptr;
    std::vector<TKdsRecord*> fDetached;
    std::vector<TKdsRecord*> fDead;  // deleted in the open bracket, whole until it closes
    std::vector<TKdsQueuedEvent> fEvents;
    std::unique_ptr<TKdsChangeDesk> fChangeDesk;
    TKdsColumnMask fChanged;
    TWatch fWatch;
    enum class TRest : std::uint8_t { Unknown, Yes, No };
    TRest fViewsRest = TRest::Unknown;
    TKdsRecord* fQuietPost = nullptr;  // while the notification of such a post travels
    std::int32_t fBusy = 0;
    std::int32_t fTravels = 0;
    std::int32_t fBracket = 0;
    std::int32_t fPreparing = 0;  // unique views that are making their columns not null
    std::int32_t fStagedEvents = 0;
    std::int32_t fComputeDepth = 0;
    std::int32_t fTelling = 0;        // walks over observers
    std::int32_t fQueuedOrigins = 0;  // events in the queue that name a row
    TKdsTableScope* fScopes = nullptr;
    const TKdsRecord* fPosting = nullptr;  // whose new values views are hearing of
    bool fDelivers = false;
    bool fKeyFailed =
        false;  // the primary view could not be built; deleting or posting a row clears it
    TKdsScratch fScratch;                       // of the public reads
    const TKdsKeyValues* fKeyValues = nullptr;  // of the search under way, innermost
};

// Around each insertion, post and deletion: the outermost one delivers the views' events as its
// last act and then frees the rows that were deleted.
class TKdsChangeBracket {
public:
    explicit TKdsChangeBracket(TKdsTable* table) noexcept : fTable(table) { ++table->fBracket; }
    ~TKdsChangeBracket() {
        if (fTable == nullptr) return;
        TFirstError unheard;  // the operation itself is raising
        Close(unheard);
    }
    void Close(TFirstError& errors) noexcept {
        std::exchange(fTable, nullptr)->CloseBracket(errors);
    }
    TKdsChangeBracket(const TKdsChangeBracket&) = delete;
    TKdsChangeBracket& operator=(const TKdsChangeBracket&) = delete;

private:
    TKdsTravelGuard fGuard;
    TKdsTable* fTable;
};

// While host callbacks run inside the engine: changing the same table raises RecordStateInvalid.
class TKdsBusyScope {
public:
    explicit TKdsBusyScope(TKdsTable* table) noexcept : fTable(table) { ++table->fBusy; }
    ~TKdsBusyScope() { --fTable->fBusy; }
    TKdsBusyScope(const TKdsBusyScope&) = delete;
    TKdsBusyScope& operator=(const TKdsBusyScope&) = delete;

private:
    TKdsTable* fTable;
};

// While the notifications of one change of the records travel: another change is refused.
class TKdsTravelScope {
public:
    explicit TKdsTravelScope(TKdsTable* table) noexcept : fTable(table) { ++table->fTravels; }
    ~TKdsTravelScope() { Leave(); }
    void Leave() noexcept {
        if (fTable != nullptr) --std::exchange(fTable, nullptr)->fTravels;
    }
    TKdsTravelScope(const TKdsTravelScope&) = delete;
    TKdsTravelScope& operator=(const TKdsTravelScope&) = delete;

private:
    TKdsTable* fTable;
};

// What a scope of the host holds on to; the table clears it when the record or the table goes.
class TKdsTableScope {
public:
    TKdsTableScope(const TKdsTableScope&) = delete;
    TKdsTableScope& operator=(const TKdsTableScope&) = delete;

protected:
    explicit TKdsTableScope(TKdsTable* table);
    ~TKdsTableScope();
    void CheckOpen() const;  // RecordStateInvalid once there is nothing to end

    TKdsTable* fTable;
    TKdsRecord* fRecord = nullptr;
    bool fOpen = true;

private:
    friend class TKdsTable;
    TKdsTableScope* fNext;
};

// An edit that is cancelled unless it was posted.
class TKdsEdit : public TKdsTableScope {
public:
    explicit TKdsEdit(TKdsRecord* record);
    ~TKdsEdit();
    void Post();
    TKdsRecord* operator->() const noexcept { return fRecord; }

private:
    static TKdsTable* TableOf(TKdsRecord* record) noexcept;
};

// A load bracket. Leave raises what the rebuilt views have to say; the destructor does not.
class TKdsLoad : public TKdsTableScope {
public:
    TKdsLoad(TKdsTable* table, TKdsTableStatus status);
    ~TKdsLoad();
    void Leave();

private:
    void End() noexcept;
};

}  // namespace kds
