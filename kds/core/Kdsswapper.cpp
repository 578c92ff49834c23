#include "kds/core/Kdsswapper.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <limits>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdstables.h"

namespace kds {
namespace {

// A batch of large rows is written in pieces, so that composing it takes little memory.
constexpr std::size_t LargestWrite = std::size_t{4} << 20;

[[noreturn]] void Damaged() { throw EStreamError(u"The file of swapped records is damaged"); }

}  // namespace

TKdsSwapper::~TKdsSwapper() {
    try {
        Clear();
    } catch (...) {
        // The file is closed; the exit hook tries to remove it once more.
    }
}

// ---- Settings -----------------------------------------------------------------------------

std::int32_t TKdsSwapper::RecordsInMemory() const noexcept {
    return fTable->Records()->Count() - fCachedRecordsCount;
}

void TKdsSwapper::SetMaxRecordsInMemory(std::int32_t value) {
    if (value == fMaxRecordsInMemory) return;
    if (value < RecordsInMemory()) KdsError(u"MaxRecordsInMemory can not be lowered");
    fMaxRecordsInMemory = value;
    // A row whose values lie beside it would free nothing by going out.
    fTable->fHomeless = fTable->fHomeless || value > 0;
}

void TKdsSwapper::SetCachedRecordsBatch(std::int32_t value) {
    fTable->CheckNotBusy();
    fCachedRecordsBatch = value;
}

std::u16string TKdsSwapper::FileName() const {
    return fStream == nullptr ? std::u16string() : fStream->Name();
}

void TKdsSwapper::Clear() {
    DropLoaded();
    fOpen.clear();
    fEnd = 0;
    const std::unique_ptr<TTemporaryFile> file = std::move(fStream);
    if (file != nullptr) file->Remove();
}

bool TKdsSwapper::IsConsistent() const {
    std::int32_t swapped = 0;
    std::size_t resident = 0;
    for (const TKdsRecord* const record : *fTable->Records()) {
        if (record->IsOut() && (!record->IsSwapped() || record->fBuffer.FileOffs >= fEnd)) {
            return false;
        }
        if (!record->IsSwapped()) continue;
        ++swapped;
        if (!record->IsOut()) ++resident;
    }
    const bool opensFit = std::ranges::all_of(
        fOpen, [](const TOpen& open) { return open.Record->IsSwapped() && !open.Record->IsOut(); });
    return swapped == fCachedRecordsCount && resident == fOpen.size() && opensFit;
}

// ---- Out ----------------------------------------------------------------------------------

void TKdsSwapper::CommitAppend() {
    if (fMaxRecordsInMemory < 1) return;
    if (!fOpen.empty()) Settle();
    if (RecordsInMemory() > fMaxRecordsInMemory && CanSwap()) SwapOut();
}

// Custom data that nobody can write could not be brought back.
bool TKdsSwapper::CanSwap() const {
    const TKdsLayout& layout = fTable->Layout();
    return std::ranges::all_of(layout.ReferenceColumns(), [&](std::int32_t column) {
        return layout.Slot(column).Kind == skMemo ||
               fTable->Columns()->GetItem(column)->CustomData();
    });
}

// Rows that were left in memory because something failed.
void TKdsSwapper::Settle() {
    for (std::size_t i = fOpen.size(); i > 0; --i) {
        const TOpen open = fOpen[i - 1];
        if (open.Record->fRowState != rsRegular) continue;
        if (open.Unsaved) {
            CommitUpdate(open.Record);
        } else {
            CancelUpdate(open.Record);
        }
    }
}

void TKdsSwapper::SwapOut() {
    const TKdsBusyScope busy(fTable);  // handlers of custom data are asked
    const TScopeGuard forget([&] {
        fBatch.clear();
        fImage.clear();
    });
    TKdsTableRecordList* const rows = fTable->Records();
    for (std::int32_t step = 0; step < fCachedRecordsBatch; ++step) {
        const std::int32_t index = fCachedRecordsCount + static_cast<std::int32_t>(fBatch.size());
        if (index >= rows->Count()) break;
        TKdsRecord* const record = rows->ItemAt(index);
        // QUIRK: a row that is out already uses up the step, and the index stays where it is; so
        // all further steps of this batch meet the same row. Only appends in order are bounded.
        // The same goes for a row that is being edited: what is not posted must not be saved.
        if (record->IsSwapped() || record->fRowState != rsRegular) break;
        fBatch.emplace_back(record, static_cast<std::int64_t>(fImage.size()));
        Compose(record, true);
        if (fImage.size() >= LargestWrite) WriteBatch();
    }
    WriteBatch();
}

// The buffers go only when all images are in the file.
void TKdsSwapper::WriteBatch() {
    if (fBatch.empty()) return;
    File().WriteAt(fEnd, fImage);
    const std::int64_t start = fEnd;
    fEnd += static_cast<std::int64_t>(fImage.size());
    for (const auto& [record, offset] : fBatch) Leave(record, start + offset);
    fBatch.clear();
    fImage.clear();
}

IFile& TKdsSwapper::File() {
    if (fStream == nullptr) fStream = std::make_unique<TTemporaryFile>(u"kds");
    return fStream->File();
}

// Rows with texts or custom data get a new image each time they are saved, all others are written
// over the old one; `appends` leaves room for the longest that one may become.
void TKdsSwapper::Compose(const TKdsRecord* record, bool appends) {
    const TKdsLayout& layout = fTable->Layout();
    const bool strips = fTable->fOptions.Has(mtoStripNulls);
    const std::byte* const buffer = record->fBuffer.Original;
    const std::int32_t size = strips ? layout.CompactSize(buffer) : layout.RecordSize();
    if (strips) AppendBytes(&size, sizeof size);
    const std::size_t start = fImage.size();
    AppendBytes(buffer, static_cast<std::size_t>(size));
    for (const std::int32_t column : layout.ReferenceColumns()) {
        const TKdsSlot& slot = layout.Slot(column);
        if (slot.Offset >= size) break;
        std::memset(fImage.data() + start + static_cast<std::size_t>(slot.Offset), 0,
                    static_cast<std::size_t>(slot.Size));
        const bool has = slot.HasValue(buffer);
        if (slot.Kind == skMemo) {
            const std::string_view text =
                has ? TAnsiString::View(LoadRaw<void*>(buffer + slot.Offset)) : "";
            AppendLong(text.data(), text.size());
        } else if (has) {
            const TIntf<IInterface> value = BufferToIntf(buffer + slot.Offset);
            const auto bytes = fTable->Columns()->GetItem(column)->CustomData()->Write(value.Get());
            AppendLong(bytes.data(), bytes.size());
        }
    }
    if (appends && strips && layout.ReferenceColumns().empty()) {
        fImage.resize(start + static_cast<std::size_t>(layout.RecordSize()));
    }
}

void TKdsSwapper::AppendBytes(const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const std::byte*>(data);
    fImage.insert(fImage.end(), bytes, bytes + size);
}

void TKdsSwapper::AppendLong(const void* data, std::size_t size) {
    if (size > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        throw EStreamError(u"A value is too long to be swapped out");
    }
    const auto length = static_cast<std::int32_t>(size);
    AppendBytes(&length, sizeof length);
    if (size > 0) AppendBytes(data, size);
}

void TKdsSwapper::Save(TKdsRecord* record, std::int64_t offset) {
    const TKdsBusyScope busy(fTable);
    const TScopeGuard forget([&] { fImage.clear(); });
    // QUIRK: the image at the very beginning of the file counts as none and is not written over.
    const bool appends = offset < 1;
    Compose(record, appends);
    const std::int64_t place = appends ? fEnd : offset;
    File().WriteAt(place, fImage);
    if (appends) fEnd += static_cast<std::int64_t>(fImage.size());
    Leave(record, place);
}

// The row's values are in the file.
void TKdsSwapper::Leave(TKdsRecord* record, std::int64_t offset) noexcept {
    if (!record->IsSwapped()) ++fCachedRecordsCount;
    record->SetFlag(rfSwapped, true);
    record->SetBit(TKdsRecord::StaleKeysBit, false);
    fTable->fSwaps = true;
    PutBack(record, offset);
}

// Its buffer goes; nothing in it is newer than the image.
void TKdsSwapper::PutBack(TKdsRecord* record, std::int64_t offset) noexcept {
    assert(!record->IsOut());
    const auto open = FindOpen(record);
    if (open != fOpen.end()) fOpen.erase(open);
    std::byte* const buffer = std::exchange(record->fBuffer.Original, nullptr);
    record->fBuffer.FileOffs = offset;
    record->SetBit(TKdsRecord::OutBit, true);
    record->SetBit(TKdsRecord::CompactBit, false);
    fTable->FreeBuffer(record, buffer);
}

void TKdsSwapper::CommitRemove(TKdsRecord* record) noexcept {
    if (!record->IsSwapped()) return;
    if (record == fLastLoadedRecord) DropLoaded();
    const auto open = FindOpen(record);
    if (open != fOpen.end()) fOpen.erase(open);
    record->SetFlag(rfSwapped, false);
    --fCachedRecordsCount;
}

// ---- Editing ------------------------------------------------------------------------------

std::vector<TKdsSwapper::TOpen>::iterator TKdsSwapper::FindOpen(const TKdsRecord* record) noexcept {
    return std::ranges::find(fOpen, record, &TOpen::Record);
}

void TKdsSwapper::BeforeUpdate(TKdsRecord* record) {
    if (!record->IsSwapped()) return;
    BeforeRemove(record);
    // The latest edit is the last one.
    std::rotate(FindOpen(record), FindOpen(record) + 1, fOpen.end());
}

// So that the row's values are there for everybody who hears of its end.
void TKdsSwapper::BeforeRemove(TKdsRecord* record) {
    if (record->IsOut()) {
        BringIn(record);
    } else if (record->IsSwapped() && FindOpen(record) == fOpen.end()) {
        KdsError(u"RecordStateInvalid");  // somebody is reading it
    }
}

void TKdsSwapper::BringIn(TKdsRecord* record) {
    if (record->RowState() == rsDetached) {
        // Its values went with the file.
        record->fBuffer.Proposed = fTable->InitBuffer();
        record->SetBit(TKdsRecord::OutBit, false);
        return;
    }
    fOpen.reserve(fOpen.size() + 1);
    const std::int64_t offset = record->fBuffer.FileOffs;
    record->fBuffer.Original = Take(record);
    record->SetBit(TKdsRecord::OutBit, false);
    fOpen.push_back({record, offset, false});
}

void TKdsSwapper::CancelUpdate(TKdsRecord* record) noexcept {
    const auto open = record->IsSwapped() ? FindOpen(record) : fOpen.end();
    if (open != fOpen.end() && !open->Unsaved) PutBack(record, open->Offset);
}

void TKdsSwapper::CommitUpdate(TKdsRecord* record) {
    const auto open = record->IsSwapped() ? FindOpen(record) : fOpen.end();
    if (open == fOpen.end()) return;
    open->Unsaved = true;
    Save(record, fTable->Layout().ReferenceColumns().empty() ? open->Offset : 0);
}

bool TKdsSwapper::KeepUnsaved(const TKdsRecord* record) noexcept {
    const auto open = FindOpen(record);
    if (open != fOpen.end()) open->Unsaved = true;
    return open != fOpen.end();
}

// ---- In -----------------------------------------------------------------------------------

// Reads ahead by blocks; offsets are of the file, so that a handler may read other rows meanwhile.
class TKdsSwapper::TCursor {
public:
    TCursor(TKdsSwapper* swapper, std::int64_t offset)
        : fSwapper(swapper), fNext(offset), fBlock(std::move(swapper->fBlock)) {
        fBlock.clear();
    }
    ~TCursor() { fSwapper->fBlock = std::move(fBlock); }
    TCursor(const TCursor&) = delete;
    TCursor& operator=(const TCursor&) = delete;

    // Good until the next call.
    const std::byte* Take(std::size_t size) {
        if (size > fBlock.size() - fUsed) Read(size);
        return fBlock.data() + std::exchange(fUsed, fUsed + size);
    }
    std::span<const std::byte> TakeLong() {
        const auto size = LoadRaw<std::int32_t>(Take(sizeof(std::int32_t)));
        if (size < 0) Damaged();
        const auto bytes = static_cast<std::size_t>(size);
        return {Take(bytes), bytes};
    }

private:
    void Read(std::size_t size) {
        fBlock.erase(fBlock.begin(), fBlock.begin() + static_cast<std::ptrdiff_t>(fUsed));
        fUsed = 0;
        const std::size_t rest = fBlock.size();
        const std::int64_t left = fSwapper->fEnd - fNext;
        if (left < static_cast<std::int64_t>(size - rest)) Damaged();
        const std::size_t ahead =
            static_cast<std::size_t>(fSwapper->fTable->Layout().RecordSize()) + 256;
        const std::size_t more =
            std::min(std::max(size - rest, ahead), static_cast<std::size_t>(left));
        fBlock.resize(rest + more);
        // What a row that is written over in place has left unwritten may lie behind the end.
        const std::size_t got =
            fSwapper->File().ReadAt(fNext, std::span(fBlock).subspan(rest, more));
        fBlock.resize(rest + got);
        fNext += static_cast<std::int64_t>(got);
        if (fBlock.size() < size) Damaged();
    }

    TKdsSwapper* fSwapper;
    std::int64_t fNext;  // of the file, behind the block
    std::vector<std::byte> fBlock;
    std::size_t fUsed = 0;
};

const std::byte* TKdsSwapper::Load(TKdsRecord* record) {
    if (!record->IsOut() || record->RowState() == rsDetached) return record->FindBuffer();
    // QUIRK: once the row that was read last has been edited there is nothing to answer; who needs
    // the values calls Fetch.
    if (record == fLastLoadedRecord) return fLastLoadedBuffer;
    DropLoaded();
    const bool plain = fTable->KeepsHome() && fTable->Layout().ReferenceColumns().empty();
    std::byte* const buffer = plain ? fTable->TakeBuffer() : fTable->InitBuffer();
    TScopeGuard undo([&] { fTable->FreeBuffer(record, buffer); });
    ReadImage(record, buffer);
    undo.Dismiss();
    DropLoaded();  // a handler may have read another row
    fLastLoadedRecord = record;
    fLastLoadedBuffer = buffer;
    return buffer;
}

const std::byte* TKdsSwapper::Fetch(TKdsRecord* record) {
    if (fLastLoadedBuffer == nullptr) fLastLoadedRecord = nullptr;
    return Load(record);
}

// The buffer that was read belongs to the caller.
std::byte* TKdsSwapper::Take(TKdsRecord* record) {
    (void)Fetch(record);
    return std::exchange(fLastLoadedBuffer, nullptr);
}

void TKdsSwapper::DropLoaded() noexcept {
    fLastLoadedRecord = nullptr;
    std::byte* const buffer = std::exchange(fLastLoadedBuffer, nullptr);
    if (buffer == nullptr) return;
    fTable->ReleaseReferences(buffer);
    fTable->GiveBack(buffer);
}

void TKdsSwapper::ReadImage(TKdsRecord* record, std::byte* buffer) {
    if (fStream == nullptr) throw EStreamError(u"There is no file of swapped records");
    ++fReads;
    const TKdsLayout& layout = fTable->Layout();
    const auto room = static_cast<std::size_t>(layout.RecordSize());
    if (fTable->KeepsHome() && layout.ReferenceColumns().empty()) {
        if (fStream->File().ReadAt(record->fBuffer.FileOffs, {buffer, room}) != room) Damaged();
    } else {
        TCursor cursor(this, record->fBuffer.FileOffs);
        std::int32_t size = layout.RecordSize();
        if (!fTable->KeepsHome()) size = LoadRaw<std::int32_t>(cursor.Take(sizeof size));
        if (size < layout.NullBytes() || size > layout.RecordSize()) Damaged();
        const std::byte* const bytes = cursor.Take(static_cast<std::size_t>(size));
        if (layout.CompactSize(bytes) > size) Damaged();
        std::memcpy(buffer, bytes, static_cast<std::size_t>(size));
        for (const std::int32_t column : layout.ReferenceColumns()) {
            const TKdsSlot& slot = layout.Slot(column);
            std::memset(buffer + slot.Offset, 0, static_cast<std::size_t>(slot.Size));
        }
        ReadReferences(cursor, buffer, size);
    }
    if (record->HasBit(TKdsRecord::StaleKeysBit)) record->ForgetKeysIn(buffer);
}

void TKdsSwapper::ReadReferences(TCursor& cursor, std::byte* buffer, std::int32_t size) {
    const TKdsLayout& layout = fTable->Layout();
    for (const std::int32_t index : layout.ReferenceColumns()) {
        const TKdsSlot& slot = layout.Slot(index);
        if (slot.Offset >= size) break;
        const bool has = slot.HasValue(buffer);
        const TKdsColumn* const column = fTable->Columns()->GetItem(index);
        if (slot.Kind == skMemo) {
            const auto bytes = cursor.TakeLong();
            if (!has || bytes.empty()) continue;
            TAnsiString text = fTable->Strings()->ReferString(
                column, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
            StoreRaw(buffer + slot.Offset, text.Detach());
        } else if (has) {
            const TKdsBusyScope busy(fTable);
            IntfToBuffer(buffer + slot.Offset, column->CustomData()->Read(cursor.TakeLong()));
        }
    }
}

// ---- Pins ---------------------------------------------------------------------------------

void TKdsRowPin::Hold(TKdsRecord* record) {
    if (record->RowState() == rsDetached) return;
    const std::int64_t offset = record->fBuffer.FileOffs;
    record->fBuffer.Original = record->fTable->fSwapper->Take(record);
    record->SetBit(TKdsRecord::OutBit, false);
    fRecord = record;
    fOffset = offset;
}

void TKdsRowPin::Release() noexcept {
    TKdsSwapper& swapper = *fRecord->fTable->fSwapper;
    // What was read last stays what it is.
    if (swapper.fLastLoadedBuffer == nullptr && !fRecord->HasBit(TKdsRecord::StaleKeysBit)) {
        swapper.fLastLoadedBuffer = std::exchange(fRecord->fBuffer.Original, nullptr);
        swapper.fLastLoadedRecord = fRecord;
    }
    swapper.PutBack(fRecord, fOffset);
}

}  // namespace kds
