// Ways to a row's place: what an ordered storage knows of its rows' keys without reading the rows.
//
// Shape      A key's prefix is a number in the order of the rows, see TKdsOrderPlan::Prefix. A
//            guide is the prefix that is sought; a bucket's samples are separators, about one for
//            ten rows: rows before a separator's offset have prefixes up to it, rows from there on
//            have prefixes from it on. A separator need not be the prefix of a row.
// Units      Offsets are rows within one bucket.
// Ownership  Everything by value; plans are borrowed.
// Errors     None: without memory there are no samples.
// Cost       1.3 bytes a row of a bucket that was searched. Window O(log rows), without reading a
//            row; Inserted and Removed touch a few lines of the cache.
// Validity   Hints. Who follows one checks what he finds against the rows.
// Threads    One thread at a time.
#pragma once

#include <array>
#include <cassert>
#include <cstdint>

#include "kds/platform/Prefetch.h"
#include "kds/views/Kdsorders.h"

namespace kds {

// The way to the buffer of a row's posted values. In most tables it lies behind the record itself,
// and the record need not be read to find it.
class TKdsRowReader {
public:
    TKdsRowReader() noexcept = default;
    explicit TKdsRowReader(bool home) noexcept : fHome(home) {}
    [[nodiscard]] const std::byte* Values(const TKdsRecord* record) const noexcept {
        assert(!fHome || record->IsPosting() || record->PostedBuffer() == record->HomeBuffer());
        return fHome ? record->HomeBuffer() : record->PostedBuffer();
    }
    void Prefetch(const TKdsRecord* record, std::int32_t offset) const noexcept {
        if (!fHome) return record->Prefetch();
        kds::Prefetch(record->HomeBuffer());
        kds::Prefetch(record->HomeBuffer() + offset);
    }

private:
    bool fHome = false;
};

// A key that is sought: its prefix, and the prefix of any row. Without a guide only the rows are
// asked.
struct TKdsGuide {
    std::uint64_t Key = 0;
    std::uint64_t Mask = 0;               // the bits that the key's values decide; 0: no guide
    const TKdsOrderPlan* Plan = nullptr;  // nullptr: rows go by their identifiers
    TKdsRowReader Reader;

    [[nodiscard]] bool Usable() const noexcept { return Mask != 0; }
    [[nodiscard]] std::uint64_t Of(const TKdsRecord* record) const {
        return Plan != nullptr ? Plan->Prefix(Reader.Values(record)) : record->RowID();
    }
    void Prefetch(const TKdsRecord* record) const noexcept {
        if (Plan != nullptr) {
            Reader.Prefetch(record, Plan->Part(0).Slot.Offset);
        } else {
            record->Prefetch();
        }
    }
};

// A range of offsets that holds the place, and the offset where it is to be expected.
struct TKdsWindow {
    std::int32_t First = 0;
    std::int32_t Last = 0;
    std::int32_t Likely = -1;
};

class TKdsBucketSamples {
public:
    static constexpr std::int32_t Stride = 10;  // rows from one sample to the next, at first
    static constexpr std::int32_t Capacity = 128;

    // In ascending order of offsets; a prefix that is out of order is taken for its predecessor's.
    void Append(std::uint64_t prefix, std::int32_t offset) noexcept;
    // Narrows `window` to the rows whose prefixes may equal the guide's.
    void Narrow(const TKdsGuide& guide, TKdsWindow& window) const noexcept;
    // A row was put in at this offset of a bucket that now has `rows`, or taken out of it.
    void Inserted(std::int32_t offset, std::uint64_t prefix, std::int32_t rows) noexcept;
    void Removed(std::int32_t offset) noexcept;
    // Brings near what Narrow will read, for a key at this share of the bucket.
    void Prefetch(double share) const noexcept;
    // And what Removed will.
    void PrefetchOffsets() const noexcept;

private:
    void InsertSample(std::int32_t at, std::uint64_t prefix, std::int32_t offset) noexcept;

    std::int32_t fCount = 0;
    std::array<std::uint16_t, Capacity> fOffsets;
    std::array<std::uint64_t, Capacity> fPrefixes;
};

}  // namespace kds
