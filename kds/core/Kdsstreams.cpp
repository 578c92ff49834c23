#include "kds/core/Kdsstreams.h"

#include <vector>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsstreams_format.h"
#include "kds/core/Kdsswapper.h"
#include "kds/core/Kdstables.h"
#include "kds/util/Tagstream.h"

namespace kds {

class TKdsTableWriter {
public:
    TKdsTableWriter(TKdsTable* table, TStream& stream)
        : fTable(table), fLayout(table->Layout()), fShape(table), fWriter(stream) {}
    bool Write(bool withStructure, IKdsProgress* progress);

private:
    void WriteStructure();
    void WriteRecord(TKdsRecord* record);
    [[nodiscard]] std::int32_t SizeOf(const std::byte* buffer);
    void WriteBuffer(TKdsRecord* record, const std::byte* buffer, std::int32_t size);
    void PointVirtualKeys(TKdsRecord* record, std::byte* copy);
    void WriteVirtualKeys(TKdsRecord* record);
    void WriteMemos(TKdsRecord* record, std::int32_t size);
    void WriteCustomData(TKdsRecord* record, std::int32_t size);
    void WriteBytes(std::span<const std::byte> bytes);

    TKdsTable* fTable;
    const TKdsLayout& fLayout;
    TStreamShape fShape;
    TTagWriter fWriter;
    std::vector<std::byte> fNulls;
    std::vector<std::byte> fLong;
    std::vector<std::byte> fValue;
    std::vector<bool> fHasValue;  // of the virtual keys
    TKdsScratch fScratch;
};

bool TKdsTableWriter::Write(bool withStructure, IKdsProgress* progress) {
    const TKdsBusyScope busy(fTable);
    fWriter.WriteInteger(StreamVersion);
    fWriter.WriteInteger(withStructure ? StreamHasStructure : 0);
    if (withStructure) WriteStructure();
    const std::int32_t count = fTable->Records()->Count();
    fWriter.WriteInteger(count);
    if (progress != nullptr) progress->Start(count);
    for (TKdsRecord* const record : *fTable->Records()) {
        WriteRecord(record);
        if (progress != nullptr && !progress->Step(1)) return false;
    }
    fWriter.Flush();
    return true;
}

void TKdsTableWriter::WriteStructure() {
    fWriter.WriteString(fTable->Name());
    fWriter.WriteInteger(fTable->Tag());
    fWriter.WriteByte(static_cast<std::uint8_t>((fTable->Options() & StreamedOptions).Bits()));
    fWriter.WriteInteger(fLayout.RecordSize());
    fWriter.WriteInteger(fTable->Columns()->Count());
    for (const TKdsColumn* const column : *fTable->Columns()) {
        fWriter.WriteInteger(static_cast<std::int64_t>(column->DataType()));
        fWriter.WriteString(column->Name());
        fWriter.WriteInteger(column->DataSize());
        fWriter.WriteInteger(column->Length());
    }
}

void TKdsTableWriter::WriteRecord(TKdsRecord* record) {
    const TKdsRowPin pin(record);
    // What is calculated on reading is calculated now: the buffer and what follows it must agree.
    TKdsValue value;
    for (const std::int32_t column : fShape.LateReferences) {
        record->ReadValue(fTable->Columns()->GetItem(column), TKdsReading::Current, fScratch,
                          value);
    }
    const std::byte* const buffer = record->FindBuffer();
    const std::int32_t size = SizeOf(buffer);
    fWriter.WriteInteger(record->fDecimals);
    fWriter.WriteByte(record->fRowFlags & StreamedRowFlags);
    if (fShape.Strips) fWriter.WriteInteger(size);
    WriteBuffer(record, buffer, size);
    if (!fShape.Memos.empty()) WriteMemos(record, size);
    if (!fShape.VirtualKeys.empty()) WriteVirtualKeys(record);
    if (!fShape.CustomData.empty()) WriteCustomData(record, size);
}

// Custom data that nobody can write count as null, so that a reader knows what follows.
std::int32_t TKdsTableWriter::SizeOf(const std::byte* buffer) {
    if (!fShape.Strips) return fLayout.RecordSize();
    if (fShape.Unwritable.empty()) return fLayout.CompactSize(buffer);
    fNulls.assign(buffer, buffer + fLayout.NullBytes());
    for (const std::int32_t column : fShape.Unwritable) {
        fLayout.Slot(column).MarkNull(fNulls.data());
    }
    return fLayout.CompactSize(fNulls.data());
}

// The buffer without what means something to this process alone: references, stamps, and what
// longer texts have left behind shorter ones.
void TKdsTableWriter::WriteBuffer(TKdsRecord* record, const std::byte* buffer, std::int32_t size) {
    const auto bytes = static_cast<std::size_t>(size);
    const bool isLong = bytes > TagBufferSize;
    if (isLong) fLong.resize(bytes);
    std::byte* const copy = isLong ? fLong.data() : fWriter.Claim(bytes);
    if (bytes > 0) std::memcpy(copy, buffer, bytes);
    fShape.ClearForeign(copy, size);
    for (const std::int32_t column : fShape.Texts) {
        const TKdsSlot& slot = fLayout.Slot(column);
        if (slot.Offset >= size) break;
        const std::int32_t unit = slot.Type == dtWideString ? 2 : 1;
        const std::int32_t used =
            slot.HasValue(copy) ? 2 + LoadRaw<std::uint16_t>(copy + slot.Offset) * unit : 0;
        std::memset(copy + slot.Offset + used, 0, static_cast<std::size_t>(slot.Size - used));
    }
    for (const std::int32_t column : fShape.Unwritable) fLayout.Slot(column).MarkNull(copy);
    if (!fShape.VirtualKeys.empty()) PointVirtualKeys(record, copy);
    if (isLong) fWriter.WriteRaw(fLong);
}

// The keys say where their rows stand now. One without a value is unresolved in the stream, so that
// a reader knows that nothing follows.
void TKdsTableWriter::PointVirtualKeys(TKdsRecord* record, std::byte* copy) {
    fHasValue.assign(fShape.VirtualKeys.size(), false);
    for (std::size_t i = 0; i < fShape.VirtualKeys.size(); ++i) {
        const TKdsColumn* const column = fShape.VirtualKeys[i];
        if (!fLayout.Slot(column->Index()).HasValue(copy)) continue;
        bool hasKey = false;
        TKdsRecord* const row = record->MasterRow(column, TKdsReading::Current, hasKey);
        TKdsValue value;
        fHasValue[i] = row != nullptr && column->DataType() != dtCustomData &&
                       record->ReadValue(column, TKdsReading::Current, fScratch, value);
        TKdsRecord::SetVirtualKeyIn(
            column, fHasValue[i] ? TKdsRecord::KeyOf(row) : TKdsNormalLookup{}, copy);
    }
}

void TKdsTableWriter::WriteVirtualKeys(TKdsRecord* record) {
    for (std::size_t i = 0; i < fShape.VirtualKeys.size(); ++i) {
        if (!fHasValue[i]) continue;
        const TKdsColumn* const column = fShape.VirtualKeys[i];
        TKdsValue value;
        // A value that has gone since, by the hand of a calculation, counts as no bytes.
        if (!record->ReadValue(column, TKdsReading::Current, fScratch, value)) value = {};
        StreamValue(column, value, fValue);
        if (column->DataType() == dtMemoString) {
            WriteBytes(fValue);
        } else {
            fWriter.WriteRaw(fValue);
        }
    }
}

void TKdsTableWriter::WriteMemos(TKdsRecord* record, std::int32_t size) {
    for (const TKdsColumn* const column : fShape.Memos) {
        if (column->DataOffset() >= size) break;
        TKdsValue value;
        record->ReadValue(column, TKdsReading::Current, fScratch, value);
        WriteBytes({value.Data, static_cast<std::size_t>(value.Size)});
    }
}

void TKdsTableWriter::WriteCustomData(TKdsRecord* record, std::int32_t size) {
    for (const TKdsColumn* const column : fShape.CustomData) {
        if (column->DataOffset() >= size) break;
        TKdsValue value;
        if (!column->CustomData() ||
            !record->ReadValue(column, TKdsReading::Current, fScratch, value)) {
            continue;
        }
        const TIntf<IInterface> held = BufferToIntf(value.Data);
        WriteBytes(column->CustomData()->Write(held.Get()));
    }
}

void TKdsTableWriter::WriteBytes(std::span<const std::byte> bytes) {
    if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        throw EStreamError(u"A value is too long for a stream");
    }
    StoreRaw(fWriter.Claim(4), static_cast<std::int32_t>(bytes.size()));
    fWriter.WriteRaw(bytes);
}

// ---- The table ----------------------------------------------------------------------------

bool TKdsTable::SaveToStream(TStream& stream, bool withStructure, IKdsProgress* progress) {
    CheckNotBusy();
    return TKdsTableWriter(this, stream).Write(withStructure, progress);
}

bool TKdsTable::SaveToFile(std::u16string_view fileName, bool withStructure,
                           IKdsProgress* progress) {
    IFileSystem& files = FileSystem();
    // Beside the target, so that renaming it is one step of one file system.
    const std::u16string name =
        files.UniqueName(fileName.substr(0, fileName.rfind(u'/') + 1), u"kds");
    std::unique_ptr<IFile> file = files.CreateExclusive(name);
    TScopeGuard removeTemporary([&] {
        try {
            files.Remove(name);
        } catch (...) {
        }
    });
    {
        TFileStream stream(std::move(file));
        if (!SaveToStream(stream, withStructure, progress)) return false;
        stream.Sync();
    }
    files.Rename(name, fileName);
    removeTemporary.Dismiss();
    return true;
}

bool TKdsTable::IsPlatformDependent() const { return fColumns->Occurences().Has(coCustomData); }

}  // namespace kds
