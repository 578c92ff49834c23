// Reading of table streams, which may be damaged or made to harm: every number is checked before
// anything is done with it, and whatever fails, the table is then what it was before.
#include "kds/core/Kdsstreams.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsstreams_format.h"
#include "kds/core/Kdsswapper.h"
#include "kds/core/Kdstables.h"
#include "kds/platform/Text.h"
#include "kds/util/Tagstream.h"
#include "kds/views/Kdsviewlists.h"

namespace kds {

// What loading may change of a table besides adding rows.
class TKdsTableReader {
public:
    TKdsTableReader(TKdsTable* table, TStream& stream, TKdsLoadRecordEvent onRecord,
                    IKdsProgress* progress);
    TKdsLoadResult Read();

private:
    // A row with more bytes than this needs a table that the host has defined: a short stream must
    // not claim much memory, nor each of its records much time.
    static constexpr std::int32_t MaximumCreatedRecord = 256 * 1024;
    // The value of a virtual key whose master row is still to be found, perhaps among the rows that
    // follow.
    struct TPending {
        std::uint32_t RowID;
        std::int32_t Column;
        std::int32_t Position;    // of the master row, in the table that was saved
        std::size_t Start, Size;  // of the value in fValues
    };

    void Load();
    void ReadHead();
    void ReadStructure();
    void TakeColumn(bool create, std::int32_t index);
    void ReadRecords();
    void ReadRecord();
    void TakeBuffer(std::byte* buffer, std::span<const std::byte> bytes);
    void TakeMemos(std::byte* buffer, std::int32_t size);
    void TakeCustomData(std::byte* buffer, std::int32_t size);
    void TakeVirtualKeys(std::byte* buffer);
    [[nodiscard]] std::span<const std::byte> TakeBytes();
    void ResolvePending(bool among);
    [[nodiscard]] bool Resolve(const TPending& pending, bool among);
    [[nodiscard]] TKdsRecord* MasterAt(TKdsTable* master, std::int32_t position);
    [[nodiscard]] bool FindByValue(TKdsRecord* record, const TKdsColumn* column,
                                   std::span<const std::byte> bytes, TKdsNormalLookup& key);
    void Point(TKdsRecord* record, const TKdsColumn* column, const TKdsNormalLookup& key);
    void Undo() noexcept;
    void RemoveRows(TFirstError& errors);
    [[nodiscard]] bool HoldsNewRows() const;
    // Links hear of a load and of its end. They may have ended the table, or emptied it and given
    // it other columns.
    [[nodiscard]] bool HasEnded() const noexcept { return fTable->fColumns == nullptr; }
    [[nodiscard]] bool IsAnother() const noexcept {
        return HasEnded() || fTable->Layout().Version() != fLayout;
    }
    // Calls a routine of the host, whose exceptions are its own.
    template <typename F>
    void CallHost(F&& routine) {
        const TKdsBusyScope busy(fTable);
        fInHost = true;
        routine();
        fInHost = false;
    }

    TKdsTable* fTable;
    TStream& fStream;
    TKdsLoadRecordEvent fOnRecord;
    IKdsProgress* fProgress;
    std::int64_t fStart;
    TTagReader fReader;
    std::vector<TStreamShape> fShape;  // one, once the columns are there
    std::uint32_t fLayout = 0;         // what they make
    bool fStrips = false;
    std::vector<std::uint32_t> fStoredBits;  // of the columns that a buffer may hold
    TKdsLoadResult fResult;
    bool fInHost = false;
    std::vector<std::byte> fValues;
    std::vector<TPending> fPending;
    std::size_t fFirstPending = 0;       // of the record that is being read
    std::vector<std::uint32_t> fRowIDs;  // by position in the stream, where rows mean each other
    bool fMeansItself = false;

    std::uint32_t fFirstRowID = 0;  // of the rows that have been loaded
    std::uint32_t fEndRowID = 0;

    struct TBefore {
        std::int32_t Rows;
        std::uint32_t LastRowID;
        bool Modified;
        TKdsTableOptions Options;
        std::u16string Name;
        std::int32_t Tag;
        std::int32_t Columns;
        std::vector<std::int64_t> AutoIncNext;
    } fBefore;
};

TKdsTableReader::TKdsTableReader(TKdsTable* table, TStream& stream, TKdsLoadRecordEvent onRecord,
                                 IKdsProgress* progress)
    : fTable(table),
      fStream(stream),
      fOnRecord(onRecord),
      fProgress(progress),
      fStart(stream.Position()),
      fReader(stream),
      fStrips(table->fOptions.Has(mtoStripNulls)),
      fBefore{table->Records()->Count(),
              table->fLastRowID,
              table->fModified,
              table->fOptions,
              table->Name(),
              table->fTag,
              table->Columns()->Count(),
              {}} {
    for (const TKdsColumn* const column : *table->Columns()) {
        fBefore.AutoIncNext.push_back(column->fAutoIncNext);
    }
}

// Undone is what the host stopped or has raised as well. Only its own exceptions, and that memory
// ran out, reach it as they are.
TKdsLoadResult TKdsTableReader::Read() {
    TKdsTravelGuard guard;  // links hear of the rows, and may end the table
    std::u16string cause;
    try {
        Load();
        if (fResult.Stopped) {
            fResult = {.Stopped = true};
        } else {
            fReader.GiveBack();
        }
        return fResult;
    } catch (const Exception& error) {
        Undo();
        if (fInHost) throw;
        cause = error.Message();
    } catch (...) {
        Undo();
        throw;
    }
    throw EKdsStreamError(cause, fReader.Position());
}

void TKdsTableReader::Load() {
    ReadHead();
    TKdsLoad load(fTable, mtsMassive);
    if (IsAnother()) throw EStreamError(u"The table was changed meanwhile");
    fFirstRowID = fEndRowID = fTable->fLastRowID;
    {
        // Before the views are built again: nobody sees the rows.
        TScopeGuard undo([&] { Undo(); });
        {
            TScopeGuard end([&] { fEndRowID = fTable->fLastRowID; });
            ReadRecords();
        }
        if (fResult.Stopped) return;
        ResolvePending(false);
        undo.Dismiss();
    }
    load.Leave();  // raises what the rebuilt views have to say, of duplicates for instance
    if (!IsAnother()) ResolvePending(true);
    fResult.Unresolved = static_cast<std::int32_t>(fPending.size());
}

// ---- Head ---------------------------------------------------------------------------------

void TKdsTableReader::ReadHead() {
    if (fReader.ReadInteger() != StreamVersion) throw EStreamError(u"Another version");
    if (fReader.ReadInteger(0, StreamHasStructure) != 0) ReadStructure();
    const TKdsLayout& layout = fTable->Layout();
    fShape.emplace_back(fTable);
    fLayout = layout.Version();
    for (const TKdsColumn* const column : fShape[0].VirtualKeys) {
        if (column->MasterTable() == fTable) fMeansItself = true;
    }
    fStoredBits.assign(static_cast<std::size_t>(layout.NullBytes()) / 4, 0);
    for (std::int32_t i = 0; i < layout.ColumnCount(); ++i) {
        const TKdsSlot& slot = layout.Slot(i);
        if (slot.Kind != skComputed) {
            fStoredBits[static_cast<std::size_t>(slot.NullOffset) / 4] |= slot.NullMask;
        }
    }
}

void TKdsTableReader::ReadStructure() {
    constexpr auto widest = std::numeric_limits<std::int32_t>::max();
    constexpr std::int64_t shortestColumn = 5;  // two bytes of text, three of numbers
    TKdsTableColumnList* const columns = fTable->Columns();
    const bool create = columns->Count() == 0;
    const std::u16string name = fReader.ReadString();
    const std::int64_t tag = fReader.ReadInteger(std::numeric_limits<std::int32_t>::min(), widest);
    const auto options = TKdsTableOptions::FromBits(fReader.ReadByte());
    if (!StreamedOptions.HasAll(options)) throw EStreamError(u"Options that no table has");
    fStrips = options.Has(mtoStripNulls);
    const std::int64_t recordSize = fReader.ReadInteger(0, widest);
    const std::int64_t count = fReader.ReadInteger(0, fReader.Remaining() / shortestColumn);
    if (!create && count != columns->Count()) throw EStreamError(u"Another number of columns");
    for (std::int32_t i = 0; i < count; ++i) TakeColumn(create, i);
    if (recordSize != columns->RecordSize()) throw EStreamError(u"Another size of records");
    if (create) {
        if (fTable->Name() != name) fTable->SetName(name);
        fTable->SetTag(static_cast<std::int32_t>(tag));
    }
    // Rows that are there are kept as they are.
    TKdsTableOptions taken = options;
    taken.Set(mtoOnceLoaded, fTable->fOptions.Has(mtoOnceLoaded));
    if (fBefore.Rows == 0) fTable->SetOptions(taken);
}

void TKdsTableReader::TakeColumn(bool create, std::int32_t index) {
    constexpr auto widest = std::numeric_limits<std::int32_t>::max();
    const auto type = static_cast<TKdsDataType>(
        fReader.ReadInteger(static_cast<int>(dtUnknown) + 1, static_cast<int>(dtCustomData)));
    const std::u16string name = fReader.ReadString();
    const std::int64_t dataSize = fReader.ReadInteger(0, widest);
    const std::int64_t length = fReader.ReadInteger(0, MaximumColumnLength);
    TKdsTableColumnList* const columns = fTable->Columns();
    if (create) {
        columns->Add(name, type, static_cast<std::int32_t>(length));
        if (columns->RecordSize() > MaximumCreatedRecord) {
            throw EStreamError(u"Records too large for a table that is not defined yet");
        }
    }
    const TKdsColumn* const column = columns->Items(index);
    if (column->DataType() != type || column->DataSize() != dataSize) {
        throw EStreamError(u"Another type or size of a column");
    }
}

// ---- Records ------------------------------------------------------------------------------

void TKdsTableReader::ReadRecords() {
    const std::int64_t shortest =
        2 + (fStrips ? 1 + fTable->Layout().NullBytes() : fTable->Layout().RecordSize());
    const auto count =
        static_cast<std::int32_t>(fReader.ReadInteger(0, std::numeric_limits<std::int32_t>::max()));
    if (count > fReader.Remaining() / shortest) {
        throw EStreamError(u"More records than there is room for");
    }
    if (fProgress != nullptr) CallHost([&] { fProgress->Start(count); });
    for (std::int32_t i = 0; i < count && !fResult.Stopped; ++i) {
        ReadRecord();
        if (fProgress != nullptr) CallHost([&] { fResult.Stopped = !fProgress->Step(1); });
    }
}

void TKdsTableReader::ReadRecord() {
    const std::int32_t recordSize = fTable->Layout().RecordSize();
    fFirstPending = fPending.size();
    const auto decimals = static_cast<std::int8_t>(fReader.ReadInteger(-1, 127));
    const std::uint8_t flags = fReader.ReadByte();
    if ((flags & ~StreamedRowFlags) != 0) throw EStreamError(u"Flags that no record has");
    const auto size =
        fStrips ? static_cast<std::int32_t>(fReader.ReadInteger(0, recordSize)) : recordSize;
    const auto bytes = fReader.Take(static_cast<std::size_t>(size));
    TOwned<TKdsRecord> record = TKdsRecord::Create(fTable, false);
    std::byte* const buffer = record->fBuffer.Proposed;
    TakeBuffer(buffer, bytes);
    if (!fShape[0].Memos.empty()) TakeMemos(buffer, size);
    if (!fShape[0].VirtualKeys.empty()) TakeVirtualKeys(buffer);
    if (!fShape[0].CustomData.empty()) TakeCustomData(buffer, size);
    record->fDecimals = decimals;
    record->SetHighlight(flags != 0);
    bool accept = true;
    if (fOnRecord) CallHost([&] { fOnRecord(fTable, record.get(), accept); });
    std::uint32_t id = NoRowID;
    if (accept) {
        id = fTable->Records()->Add(std::move(record))->RowID();
        ++fResult.Loaded;
    } else {
        ++fResult.Refused;
        fPending.resize(fFirstPending);
    }
    if (fMeansItself) fRowIDs.push_back(id);
    for (std::size_t i = fFirstPending; i < fPending.size(); ++i) fPending[i].RowID = id;
}

// References come in as anything: they are gone before anybody can follow one.
void TKdsTableReader::TakeBuffer(std::byte* buffer, std::span<const std::byte> bytes) {
    const TKdsLayout& layout = fTable->Layout();
    if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
    fShape[0].ClearForeign(buffer, layout.RecordSize());
    for (std::size_t word = 0; word < fStoredBits.size(); ++word) {
        std::byte* const place = buffer + word * 4;
        StoreRaw(place, LoadRaw<std::uint32_t>(place) & fStoredBits[word]);
    }
    fTable->MarkLate(buffer);
    if (bytes.size() < static_cast<std::size_t>(layout.RecordSize()) &&
        static_cast<std::size_t>(layout.CompactSize(buffer)) > bytes.size()) {
        throw EStreamError(u"A record that ends before its last value");
    }
    for (const std::int32_t column : fShape[0].Texts) {
        const TKdsSlot& slot = layout.Slot(column);
        const std::int32_t length = LoadRaw<std::uint16_t>(buffer + slot.Offset);
        if (slot.HasValue(buffer) && length > fTable->Columns()->GetItem(column)->Length()) {
            throw EStreamError(u"A text longer than its column");
        }
    }
}

std::span<const std::byte> TKdsTableReader::TakeBytes() {
    const auto size = LoadRaw<std::int32_t>(fReader.Take(4).data());
    if (size < 0 || size > fReader.Remaining()) throw EStreamError(u"A length out of its range");
    return fReader.Take(static_cast<std::size_t>(size));
}

void TKdsTableReader::TakeMemos(std::byte* buffer, std::int32_t size) {
    for (const TKdsColumn* const column : fShape[0].Memos) {
        if (column->DataOffset() >= size) break;
        const auto bytes = TakeBytes();
        const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
        if (slot.Kind != skMemo) continue;  // calculated on reading
        if (!slot.HasValue(buffer)) {
            if (!bytes.empty()) throw EStreamError(u"A text of a column that is null");
            continue;
        }
        TAnsiString text = fTable->Strings()->ReferString(
            column, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        StoreRaw(buffer + slot.Offset, text.Detach());
    }
}

void TKdsTableReader::TakeCustomData(std::byte* buffer, std::int32_t size) {
    for (const TKdsColumn* const column : fShape[0].CustomData) {
        const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
        if (slot.Offset >= size) break;
        if (!slot.HasValue(buffer)) continue;
        const auto bytes = TakeBytes();
        if (!column->CustomData()) {
            slot.MarkNull(buffer);
            continue;
        }
        const TKdsBusyScope busy(fTable);
        IntfToBuffer(buffer + slot.Offset, column->CustomData()->Read(bytes));
    }
}

// ---- Virtual keys -------------------------------------------------------------------------

// All of them are unresolved until the last record has come.
void TKdsTableReader::TakeVirtualKeys(std::byte* buffer) {
    const TKdsLayout& layout = fTable->Layout();
    for (const TKdsColumn* const column : fShape[0].VirtualKeys) {
        const bool hasValue = layout.Slot(column->Index()).HasValue(buffer);
        const TKdsNormalLookup key = TKdsRecord::VirtualKeyIn(column, buffer);
        for (const TKdsColumn* follower = column->fFirstFollower; follower != nullptr;
             follower = follower->fNextFollower) {
            const TKdsSlot& slot = layout.Slot(follower->Index());
            hasValue ? slot.MarkValue(buffer) : slot.MarkNull(buffer);
        }
        if (!hasValue) continue;
        TKdsRecord::SetVirtualKeyIn(column, {}, buffer);
        if (key.Index < 0) continue;
        const auto bytes = column->DataType() == dtMemoString
                               ? TakeBytes()
                               : fReader.Take(static_cast<std::size_t>(column->DataSize()));
        fPending.push_back({NoRowID, column->Index(), key.Index, fValues.size(), bytes.size()});
        fValues.insert(fValues.end(), bytes.begin(), bytes.end());
    }
}

// First by the positions, while the views are off. What is left may be found by value once they can
// be searched: `among` tells that they can. A value may be that of another virtual key, so that one
// leads to the next.
void TKdsTableReader::ResolvePending(bool among) {
    for (std::size_t before = fPending.size() + 1; fPending.size() < before;) {
        before = fPending.size();
        std::erase_if(fPending, [&](const TPending& pending) { return Resolve(pending, among); });
    }
}

// Whether nothing is left to be done.
bool TKdsTableReader::Resolve(const TPending& pending, bool among) {
    if (IsAnother()) return true;
    TKdsRecord* const record = fTable->Records()->FindRowID(pending.RowID);
    if (record == nullptr) return true;
    const TKdsColumn* const column = fTable->Columns()->GetItem(pending.Column);
    // The host may have decided meanwhile.
    const std::byte* const buffer = record->FindBuffer();
    if (!fTable->Layout().Slot(pending.Column).HasValue(buffer) ||
        TKdsRecord::VirtualKeyIn(column, buffer).Index >= 0) {
        return true;
    }
    TKdsTable* const master = column->MasterTable();
    if (master == nullptr) return false;
    const auto bytes = std::span(fValues).subspan(pending.Start, pending.Size);
    TKdsNormalLookup key;
    if (TKdsRecord* const row = MasterAt(master, pending.Position)) {
        TKdsScratch scratch;
        TKdsValue value;
        std::vector<std::byte> held;
        if (row->ReadValue(column->Shown(), TKdsReading::Current, scratch, value)) {
            StreamValue(column, value, held);
            if (std::ranges::equal(held, bytes)) key = TKdsRecord::KeyOf(row);
        }
    }
    if (key.Index < 0 && (among || master != fTable) && !FindByValue(record, column, bytes, key)) {
        return false;
    }
    if (key.Index < 0) return false;
    Point(record, column, key);
    return true;
}

TKdsRecord* TKdsTableReader::MasterAt(TKdsTable* master, std::int32_t position) {
    if (master == fTable) {
        const auto place = static_cast<std::size_t>(position);
        return place < fRowIDs.size() ? master->Records()->FindRowID(fRowIDs[place]) : nullptr;
    }
    return position < master->Records()->Count() ? master->Records()->ItemAt(position) : nullptr;
}

bool TKdsTableReader::FindByValue(TKdsRecord* record, const TKdsColumn* column,
                                  std::span<const std::byte> bytes, TKdsNormalLookup& key) {
    auto size = bytes.size();
    const std::size_t unit = column->DataType() == dtWideString ? 2 : 1;
    if (IsTextType(column->DataType()) && column->DataType() != dtMemoString) {
        // The zeros that fill it up.
        const auto isZero = [](std::byte byte) { return byte == std::byte{0}; };
        size -= size % unit;
        while (size > 0 && std::ranges::all_of(bytes.subspan(size - unit, unit), isZero)) {
            size -= unit;
        }
    }
    return record->ResolveLookupKey(column,
                                    bytes.empty() ? static_cast<const void*>("") : bytes.data(),
                                    static_cast<std::int32_t>(size / unit), key);
}

// Views that are on hear of it.
void TKdsTableReader::Point(TKdsRecord* record, const TKdsColumn* column,
                            const TKdsNormalLookup& key) {
    if (!fTable->Views()->Active()) {
        if (record->IsOut()) fTable->fSwapper->BringIn(record);
        TKdsRecord::SetVirtualKeyIn(column, key, const_cast<std::byte*>(record->FindBuffer()));
        if (record->RowState() == rsRegular) fTable->fSwapper->CommitUpdate(record);
        return;
    }
    record->Edit();
    TKdsRecord::SetVirtualKeyIn(column, key, record->fBuffer.Proposed);
    record->Post();
}

// ---- Undoing ------------------------------------------------------------------------------

void TKdsTableReader::Undo() noexcept {
    if (HasEnded()) return;
    TFirstError unheard;
    unheard.Run([&] { RemoveRows(unheard); });
    if (HasEnded()) return;
    const bool countsOn = HoldsNewRows();
    if (!countsOn) fTable->fLastRowID = fBefore.LastRowID;
    fTable->fModified = fBefore.Modified;
    TKdsTableColumnList* const columns = fTable->Columns();
    while (columns->Count() > fBefore.Columns) {
        const std::int32_t count = columns->Count();
        unheard.Run([&] { columns->Delete(count - 1); });
        if (columns->Count() == count) break;
    }
    const bool hasAll = std::cmp_equal(columns->Count(), fBefore.AutoIncNext.size());
    for (std::size_t i = 0; i < fBefore.AutoIncNext.size() && hasAll && !countsOn; ++i) {
        columns->GetItem(static_cast<std::int32_t>(i))->fAutoIncNext = fBefore.AutoIncNext[i];
    }
    unheard.Run([&] { fTable->SetOptions(fBefore.Options); });
    if (fTable->Name() != fBefore.Name) unheard.Run([&] { fTable->SetName(fBefore.Name); });
    fTable->fTag = fBefore.Tag;
    unheard.Run([&] { fStream.Seek(fStart); });
}

// The last one first, and only those that were loaded: links may have added and deleted others
// meanwhile. With the views off, as they are while the rows come in.
void TKdsTableReader::RemoveRows(TFirstError& errors) {
    TKdsTableRecordList* const rows = fTable->Records();
    // With fewer numbers given out than that the table has been cleared.
    if (fEndRowID == fFirstRowID || fTable->fLastRowID < fEndRowID) return;
    const bool inBracket = fTable->fLoadLocks > 0;
    if (!inBracket) errors.Run([&] { fTable->EnterLoad(mtsMassive); });
    // Where the views could not be switched off links hear of each row, and may take others away.
    for (std::int32_t i = std::numeric_limits<std::int32_t>::max(); !HasEnded(); --i) {
        i = std::min(i, rows->Count() - 1);
        if (i < 0) break;
        const std::uint32_t id = rows->ItemAt(i)->RowID();
        if (id >= fFirstRowID && id < fEndRowID) errors.Run([&] { rows->Delete(i); });
    }
    if (HasEnded()) return;
    if (!inBracket) errors.Run([&] { fTable->LeaveLoad(); });
}

// Rows that links have added, or that could not be removed: no other may get their numbers.
bool TKdsTableReader::HoldsNewRows() const {
    for (const TKdsRecord* const record : *fTable->Records()) {
        if (record->RowID() >= fBefore.LastRowID) return true;
    }
    return false;
}

// ---- The table ----------------------------------------------------------------------------

namespace {

// A stream that does not even tell its size cannot be loaded either.
template <typename F>
auto Opened(F&& open) {
    try {
        return open();
    } catch (const EStreamError& error) {
        throw EKdsStreamError(error.Message(), 0);
    }
}

}  // namespace

TKdsLoadResult TKdsTable::LoadFromStream(TStream& stream, TKdsLoadRecordEvent onRecord,
                                         IKdsProgress* progress) {
    CheckNotBusy();
    const auto reader =
        Opened([&] { return std::make_unique<TKdsTableReader>(this, stream, onRecord, progress); });
    return reader->Read();
}

TKdsLoadResult TKdsTable::LoadFromFile(std::u16string_view fileName, TKdsLoadRecordEvent onRecord,
                                       IKdsProgress* progress) {
    CheckNotBusy();
    TFileStream stream(Opened([&] { return FileSystem().OpenRead(fileName); }));
    return LoadFromStream(stream, onRecord, progress);
}

}  // namespace kds
