// Keeps only a bounded number of a table's record buffers in memory; the others wait in a temporary
// file and are read back on demand.
//
// Shape      The oldest rows go out first, a batch at a time, once an append takes the number in
//            memory beyond the limit. One buffer that was read is kept. An image in the file is
//              [4 bytes]   size of the buffer's bytes, with mtoStripNulls only
//              n bytes     the buffer; references are zero in it
//              and for each stored memo column with room in those bytes: 4 bytes of length, the
//              characters; for each custom-data column that has a value: 4 bytes of length, what
//              its handler wrote. Images that were given up are dead space until Clear.
// Units      Records, except file offsets and sizes, which are bytes.
// Ownership  Belongs to its table. A row that is out owns no buffer; its references go back to the
//            string pool and are taken anew when it is read.
// Errors     EKdsError "MaxRecordsInMemory can not be lowered". EStreamError when the file fails:
//            an append or post that raises it stands all the same, and its rows stay in memory
//            until a later append or post of them can write them. A read that fails changes
//            nothing.
// Cost       An append O(1) plus, once a batch, one write. Reading a row that is out: one read of
//            the file, none when it was the last one read. 48 bytes stay in memory for each row,
//            and what its views need. Rows that were in the table before the limit was first set
//            keep the room of their values: set it while the table is empty.
// Validity   Only appends at the end are bounded: after an insertion in front, or while the next
//            row in turn is being edited, appends swap nothing; RecordsInMemory tells. A table with
//            a stored custom-data column without a handler does not swap. A process that is killed
//            leaves its file, kds*, in the temporary folder.
// Threads    One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kds/core/Kdsrecords.h"
#include "kds/platform/Tempfile.h"

namespace kds {

class TKdsSwapper final {
public:
    explicit TKdsSwapper(TKdsTable* table) noexcept : fTable(table) {}
    ~TKdsSwapper();
    TKdsSwapper(const TKdsSwapper&) = delete;
    TKdsSwapper& operator=(const TKdsSwapper&) = delete;

    // 0: all of them.
    [[nodiscard]] std::int32_t MaxRecordsInMemory() const noexcept { return fMaxRecordsInMemory; }
    void SetMaxRecordsInMemory(std::int32_t value);
    [[nodiscard]] std::int32_t CachedRecordsBatch() const noexcept { return fCachedRecordsBatch; }
    void SetCachedRecordsBatch(std::int32_t value);
    [[nodiscard]] std::int32_t CachedRecordsCount() const noexcept { return fCachedRecordsCount; }
    [[nodiscard]] std::int32_t RecordsInMemory() const noexcept;
    [[nodiscard]] std::int64_t CacheFileSize() const noexcept { return fEnd; }
    [[nodiscard]] std::u16string FileName() const;  // empty while there is no file
    // How many images were read so far.
    [[nodiscard]] std::int64_t Reads() const noexcept { return fReads; }
    // The swapped row whose edit began last, and where its image lies; nullptr and -1 without one.
    [[nodiscard]] TKdsRecord* CurrentEditingRecord() const noexcept {
        return fOpen.empty() ? nullptr : fOpen.back().Record;
    }
    [[nodiscard]] std::int64_t CurrentEditingOffset() const noexcept {
        return fOpen.empty() ? -1 : fOpen.back().Offset;
    }
    // The values of a swapped row; good until the next read.
    [[nodiscard]] const std::byte* Load(TKdsRecord* record);
    [[nodiscard]] bool IsConsistent() const;

private:
    friend class TKdsRecord;
    friend class TKdsRowPin;
    friend class TKdsTable;
    friend class TKdsTableReader;
    friend class TKdsTableRecordList;

    // A swapped row that has its buffer in memory: it is edited, or could not be written.
    struct TOpen {
        TKdsRecord* Record;
        std::int64_t Offset;
        bool Unsaved;  // its image does not say any more what the row says
    };
    class TCursor;

    void Clear();
    void CommitAppend();
    void CommitRemove(TKdsRecord* record) noexcept;
    void BeforeUpdate(TKdsRecord* record);
    void CancelUpdate(TKdsRecord* record) noexcept;
    void CommitUpdate(TKdsRecord* record);
    void BeforeRemove(TKdsRecord* record);
    void Save(TKdsRecord* record, std::int64_t offset);
    // As Load, also when that has nothing to answer.
    [[nodiscard]] const std::byte* Fetch(TKdsRecord* record);
    // Gives the row its buffer back until it is saved, or its update cancelled.
    void BringIn(TKdsRecord* record);
    // Whether its buffer is in memory to stay until it is saved: then it will be.
    bool KeepUnsaved(const TKdsRecord* record) noexcept;
    [[nodiscard]] std::byte* Take(TKdsRecord* record);
    void PutBack(TKdsRecord* record, std::int64_t offset) noexcept;
    void DropLoaded() noexcept;

    [[nodiscard]] bool CanSwap() const;
    void SwapOut();
    void WriteBatch();
    void Settle();
    void Compose(const TKdsRecord* record, bool appends);
    void AppendBytes(const void* data, std::size_t size);
    void AppendLong(const void* data, std::size_t size);
    [[nodiscard]] IFile& File();
    void Leave(TKdsRecord* record, std::int64_t offset) noexcept;
    [[nodiscard]] std::vector<TOpen>::iterator FindOpen(const TKdsRecord* record) noexcept;
    void ReadImage(TKdsRecord* record, std::byte* buffer);
    void ReadReferences(TCursor& cursor, std::byte* buffer, std::int32_t size);

    TKdsTable* fTable;
    std::unique_ptr<TTemporaryFile> fStream;
    std::int64_t fEnd = 0;  // where the next image goes
    std::vector<TOpen> fOpen;
    TKdsRecord* fLastLoadedRecord = nullptr;
    std::byte* fLastLoadedBuffer = nullptr;
    std::int32_t fMaxRecordsInMemory = 0;
    std::int32_t fCachedRecordsBatch = 1024;
    std::int32_t fCachedRecordsCount = 0;
    std::int64_t fReads = 0;
    std::vector<std::byte> fImage;                             // what is written next
    std::vector<std::pair<TKdsRecord*, std::int64_t>> fBatch;  // the rows in it, from its beginning
    std::vector<std::byte> fBlock;                             // of the cursor
};

// The buffer of a row that is out is in memory while this lives: for reads of several values, or of
// other rows in between. The row cannot be edited or deleted meanwhile.
class TKdsRowPin {
public:
    explicit TKdsRowPin(TKdsRecord* record) {
        if (record->IsOut()) Hold(record);
    }
    ~TKdsRowPin() {
        if (fRecord != nullptr) Release();
    }
    TKdsRowPin(const TKdsRowPin&) = delete;
    TKdsRowPin& operator=(const TKdsRowPin&) = delete;

private:
    void Hold(TKdsRecord* record);
    void Release() noexcept;

    TKdsRecord* fRecord = nullptr;
    std::int64_t fOffset = 0;
};

}  // namespace kds
