// Records: the rows of a table, their states, and access to their values.
//
// Shape      A record has a pair of buffers: Original holds the posted values, Proposed the values
//            being built or edited. The home buffer lies directly behind the record in one block
//            of the table's slab; Proposed of an edit lies apart, and Post brings it home. Rows
//            made since their table limits the records in memory have no home; a row that is out
//            has no buffer at all, and every read asks the table's swapper for one.
//
//              rsDetached --insert--> rsRegular --Edit--> rsEditing
//                  ^                   |     ^                |
//                  +------Delete-------+     +--Post, Cancel--+
//
//            rsDefaults, rsCalculate, rsForced and rsOriginal are entered around one operation;
//            meanwhile the state before decides which buffer is read.
// Units      Sizes of texts are characters: bytes of 8-bit text, 16-bit units of wide text.
// Ownership  A detached record belongs to who created it (TOwned); inserting it gives it to the
//            table. Deleting a record frees it: keep the row identifier and use FindRowID.
// Errors     EKdsError as named beside each operation; NameNotFound for an unknown column name,
//            EListError for a position, EInvalidArgument for a column of another table. A failed
//            write leaves the record as it was.
// Cost       Reading or writing a stored value O(size). Post O(columns) and what the views do.
// Validity   The pointer of GetDataP is good until the next read, write or append of the table.
//            The record is gone when Delete returns.
// Threads    One thread at a time; sort workers read resident values of plain columns.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kds/core/Kdscolumns.h"
#include "kds/core/Kdsdata.h"
#include "kds/fixed/Fixed.h"
#include "kds/platform/Prefetch.h"
#include "kds/platform/Variant.h"
#include "kds/util/Slab.h"

namespace kds {

class TKdsOrderColumnList;
class TKdsTableRecordList;

enum class TKdsRecordState : std::uint8_t {
    rsDetached,
    rsRegular,
    rsEditing,
    rsDestroy,
    rsDefaults,
    rsCalculate,
    rsForced,
    rsOriginal
};
using enum TKdsRecordState;
using TKdsRecordStates = TSet<TKdsRecordState>;

enum class TKdsRecordFlag : std::uint8_t { rfHighlight, rfSwapped };
using enum TKdsRecordFlag;

inline constexpr std::uint32_t NoRowID = 4'294'967'295u;

struct TKdsBuffer {
    union {
        std::byte* Original = nullptr;
        std::int64_t FileOffs;      // while swapped out and not being edited
        std::int64_t DetachedSlot;  // while detached: its place in the table's list of such
        TSlab* Slab;                // without a table: where the record's memory belongs
    };
    std::byte* Proposed = nullptr;
};

// Which values of a record a reading means.
enum class TKdsReading : std::uint8_t {
    Current,  // as the record's state says
    Posted    // those by which views hold the row, also while it is edited
};

// Room for a value that does not live in a resident buffer; the caller keeps it as long as the
// value is used, so that two values can be held at once.
struct TKdsScratch {
    std::byte Number[16];
    std::string Ansi;
    std::u16string Wide;
    TIntf<IInterface> Intf;
};

struct TKdsValue {
    const std::byte* Data = nullptr;
    std::int32_t Size = 0;
    TKdsDataType Type = dtUnknown;  // of the column that finally answered
};

// The raw form of a value of this type, in the scratch: HoldVariant raises CannotConvertValue when
// there is none, ConvertVariant what the conversion raises.
void ConvertVariant(TKdsDataType type, const TVariant& source, TKdsScratch& scratch,
                    TKdsValue& value);
void HoldVariant(TKdsDataType type, const TVariant& source, TKdsScratch& scratch, TKdsValue& value);

// Whether T is the C++ form of a raw value of this type, so that no conversion is needed.
template <typename T>
[[nodiscard]] constexpr bool IsRawForm(TKdsDataType type) noexcept {
    switch (type) {
        case dtBoolean: return std::is_same_v<T, bool>;
        case dtShort: return std::is_same_v<T, std::int8_t>;
        case dtSmall: return std::is_same_v<T, std::int16_t>;
        case dtInteger: return std::is_same_v<T, std::int32_t>;
        case dtInt64: return std::is_same_v<T, std::int64_t>;
        case dtByte: return std::is_same_v<T, std::uint8_t>;
        case dtWord: return std::is_same_v<T, std::uint16_t>;
        case dtCardinal: return std::is_same_v<T, std::uint32_t>;
        case dtUInt64: return std::is_same_v<T, std::uint64_t> || std::is_same_v<T, std::int64_t>;
        case dtDouble: return std::is_same_v<T, double>;
        case dtExtended: return std::is_same_v<T, double> || std::is_same_v<T, TExtended>;
        case dtCurrency: return std::is_same_v<T, TCurrency>;
        case dtDateTime: return std::is_same_v<T, TDateTime>;
        // The raw numbers of dates and times: day number and milliseconds.
        case dtDate:
        case dtTime: return std::is_same_v<T, std::int32_t>;
        default: return false;
    }
}

class TKdsRecord final : public TKdsItem {
public:
    // A detached record; with `defaults` the columns' default values are assigned.
    [[nodiscard]] static TOwned<TKdsRecord> Create(TKdsTable* table, bool defaults);

    [[nodiscard]] TKdsTable* Table() const noexcept { return fTable; }
    [[nodiscard]] std::uint32_t RowID() const noexcept { return fRowID; }
    [[nodiscard]] TKdsRecordState RowState() const noexcept { return fRowState; }
    [[nodiscard]] std::int32_t Decimals() const noexcept { return fDecimals; }
    void SetDecimals(std::int32_t value) noexcept;
    [[nodiscard]] bool Highlight() const noexcept { return HasFlag(rfHighlight); }
    void SetHighlight(bool value) noexcept { SetFlag(rfHighlight, value); }
    [[nodiscard]] bool IsSwapped() const noexcept { return HasFlag(rfSwapped); }
    // Whether its values are in the swapper's file alone: not while a swapped row is edited.
    [[nodiscard]] bool IsOut() const noexcept { return HasBit(OutBit); }
    // Tells the views' links that the row wants to be looked at.
    void Signal() { Notify(acStatusChanged, nullptr, 0); }

    // ---- Life cycle ----
    void Edit();    // RecordAlreadyEdits unless the record stands in its table unedited
    void Post();    // nothing unless edited; ColumnNotNull and UniqueViolated leave the edit open
    void Cancel();  // nothing unless edited
    void Delete();  // CannotDeleteRecord; frees the record
    // Calculates the stored columns anew, for a row that was loaded in a massive bracket or after
    // an expression has changed: posts the row, unless it is being edited or built.
    void Recalculate();
    // Enters a temporary state, or goes back to the state before it; RecordStateInvalid for any
    // other, because the buffers go with the lasting states. Within one temporary state another
    // changes nothing about the buffer.
    void SwitchState(TKdsRecordState state);
    void EnterForced() { SwitchState(rsForced); }
    void LeaveForced();
    void CheckState(TKdsRecordStates states, bool expected, std::u16string_view key) const {
        if (states.Has(fRowState) != expected) RaiseState(key);
    }
    // A literal is measured only when it is raised: the compiler would do it before the test.
    template <std::size_t N>
    void CheckState(TKdsRecordStates states, bool expected, const char16_t (&key)[N]) const {
        if (states.Has(fRowState) != expected) RaiseState({key, N - 1});
    }
    std::byte* CheckWrite(const TKdsColumn* column);
    void CheckConstraints(TKdsRecordState state);
    // Of a row that is out: what was read, good until the next read.
    [[nodiscard]] const std::byte* FindBuffer() const {
        if (EffectiveState() != rsRegular) return fBuffer.Proposed;
        return IsOut() ? FetchBuffer() : fBuffer.Original;
    }
    [[nodiscard]] const std::byte* BufferFor(TKdsReading reading) const {
        const bool posted = reading == TKdsReading::Posted && EffectiveState() == rsEditing;
        return posted ? fBuffer.Original : FindBuffer();
    }
    // Whether this number was posted; `slot`: of a column with such numbers.
    [[nodiscard]] bool HasNumber(const TKdsSlot& slot, const void* data) const {
        const std::byte* const buffer = BufferFor(TKdsReading::Posted);
        return buffer != nullptr && slot.HasValue(buffer) &&
               slot.IsSameNumber(buffer + slot.Offset, data);
    }

    // ---- Values ----
    // Whether the column has a value; a text's size is in characters.
    bool GetDataP(const TKdsColumn* column, const void*& data, std::int32_t& size);
    void SetDataP(const TKdsColumn* column, const void* data, std::int32_t size);
    [[nodiscard]] TVariant GetDataC(const TKdsColumn* column);
    [[nodiscard]] TVariant GetDataI(std::int32_t index) { return GetDataC(ColumnAt(index)); }
    [[nodiscard]] TVariant GetDataN(std::u16string_view name) { return GetDataC(ColumnBy(name)); }
    void SetDataC(const TKdsColumn* column, const TVariant& value);
    void SetDataI(std::int32_t index, const TVariant& value) { SetDataC(ColumnAt(index), value); }
    void SetDataN(std::u16string_view name, const TVariant& value) {
        SetDataC(ColumnBy(name), value);
    }
    // The posted value while the record is edited; RecordStateInvalid otherwise.
    [[nodiscard]] TVariant GetOldC(const TKdsColumn* column);
    [[nodiscard]] TVariant GetOldI(std::int32_t index) { return GetOldC(ColumnAt(index)); }
    [[nodiscard]] TVariant GetOldN(std::u16string_view name) { return GetOldC(ColumnBy(name)); }
    [[nodiscard]] bool GetIsNullC(const TKdsColumn* column);
    [[nodiscard]] bool GetIsNullI(std::int32_t index) { return GetIsNullC(ColumnAt(index)); }
    [[nodiscard]] bool GetIsNullN(std::u16string_view name) { return GetIsNullC(ColumnBy(name)); }
    void SetNullC(const TKdsColumn* column);
    void SetNullI(std::int32_t index) { SetNullC(ColumnAt(index)); }
    void SetNullN(std::u16string_view name) { SetNullC(ColumnBy(name)); }
    [[nodiscard]] TKdsRecord* GetAsRowC(const TKdsColumn* column);
    // In column order; EInvalidArgument for more values than columns.
    void SetValues(std::span<const TVariant> values);
    void SetValues(std::initializer_list<TVariant> values) {
        SetValues(std::span<const TVariant>(values.begin(), values.size()));
    }
    void CopyValueC(const TKdsColumn* column, TKdsRecord* source, const TKdsColumn* sourceColumn);
    [[nodiscard]] bool SameValueC(const TKdsColumn* column, TKdsRecord* other,
                                  const TKdsColumn* otherColumn);
    [[nodiscard]] std::u16string Format(const TKdsColumn* column);
    [[nodiscard]] std::u16string Format(std::int32_t index) { return Format(ColumnAt(index)); }
    [[nodiscard]] std::u16string Format(std::u16string_view name) { return Format(ColumnBy(name)); }

    // ---- Typed values, without variants ----
    // std::nullopt for null. Numbers, bool, TCurrency, TDateTime, TFixed in their raw form;
    // std::string_view of 8-bit and std::u16string_view of wide text as GetDataP answers them.
    // EVariantError when the column's type has another raw form.
    template <typename T>
    [[nodiscard]] std::optional<T> Get(const TKdsColumn* column);
    // Raw forms and texts are stored as they are; other types are converted as SetDataC does.
    template <typename T>
    void Set(const TKdsColumn* column, const T& value);

    // ---- Comparison ----
    // In the order of the columns (nullptr: all columns of the table, ascending); nulls are last
    // in both directions. `count` < 0: all of them.
    [[nodiscard]] std::int32_t Compare(TKdsOrderColumnList* columns, std::int32_t count,
                                       TKdsRecord* other, TKdsCompareOptions options);
    [[nodiscard]] std::int32_t Compare(TKdsRecord* other, TKdsCompareOptions options) {
        return Compare(nullptr, -1, other, options);
    }

    // ---- Lookups: how a reference column finds its master row ----
    // The row whose key is this value; the key is untouched when there is none.
    bool ResolveLookupKey(const TKdsColumn* column, const void* data, std::int32_t size,
                          TKdsNormalLookup& key);
    // Whether the key leads to a row with this value; a valid normal key gets its row identifier.
    bool IsValidReference(const TKdsColumn* column, TKdsNormalLookup& key, const void* data,
                          std::int32_t size);
    // Writes the unresolved key into 8 bytes, or into 2 for a short lookup.
    static void MarkAsUnresolved(const TKdsColumn* column, void* key) noexcept;
    // Sets the key column beside a reference column to the key of this row of the master.
    void SetAsRowC(const TKdsColumn* column, TKdsRecord* master);

    // ---- For the library: the one internal read ----
    // The row that a reference column leads to, nullptr when there is none; `hasKey` tells whether
    // there is a value to look up.
    [[nodiscard]] TKdsRecord* MasterRow(const TKdsColumn* column, TKdsReading reading,
                                        bool& hasKey);
    // Writes keys that lead astray anew, so that reads need not look them up each time.
    void RepairKey(const TKdsColumn* column);
    bool ReadValue(const TKdsColumn* column, TKdsReading reading, TKdsScratch& scratch,
                   TKdsValue& value);
    // The buffer of a resident row: what its views hold, also while they hear of its deletion.
    [[nodiscard]] const std::byte* PostedBuffer() const noexcept {
        assert(!IsOut());
        return fRowState == rsDetached ? fBuffer.Proposed : fBuffer.Original;
    }
    // While the record is being posted: the values by which views that have not heard of it yet
    // hold it. Otherwise the posted ones.
    [[nodiscard]] const std::byte* PlacedBuffer() const noexcept {
        return IsPosting() ? fBuffer.Proposed : PostedBuffer();
    }
    // PostedBuffer where TKdsTable::RowsAtHome says so, without a look at the record.
    [[nodiscard]] const std::byte* HomeBuffer() const noexcept {
        return reinterpret_cast<const std::byte*>(this + 1);
    }
    // Starts to bring the record and its home buffer near; for loops over many rows.
    void Prefetch() const noexcept {
        kds::Prefetch(&fBuffer);
        kds::Prefetch(this + 1);
    }
    // The same for all of a row of usual size, before the record itself is looked at.
    void PrefetchWhole() const noexcept {
        constexpr std::ptrdiff_t line = 64;
        const auto* const block = reinterpret_cast<const std::byte*>(this);
        for (std::ptrdiff_t i = 0; i < 3; ++i) kds::Prefetch(block + i * line);
    }
    // Where a search key's values lie: edited or being built, else posted.
    [[nodiscard]] const std::byte* KeyBuffer() const { return FindBuffer(); }
    // While Post's notification travels, the values before it.
    [[nodiscard]] bool IsPosting() const noexcept {
        return fRowState == rsRegular && fBuffer.Proposed != nullptr;
    }

    using TKdsItem::Notify;

private:
    friend class TKdsColumn;
    friend class TKdsTable;
    friend class TKdsTableRecordList;
    friend class TKdsRowPin;
    friend class TKdsStateScope;
    friend class TKdsSwapper;
    friend class TKdsTableReader;
    friend class TKdsTableWriter;
    friend class TKdsView;

    explicit TKdsRecord(TKdsTable* table) noexcept;
    ~TKdsRecord() override = default;
    static void* operator new(std::size_t, TSlab& slab) { return slab.Allocate(); }
    static void operator delete(void* block, TSlab& slab) noexcept { slab.Free(block); }
    // A record whose life has ended has no table any more and names its slab instead.
    static void operator delete(TKdsRecord* record, std::destroying_delete_t) noexcept {
        TSlab* const slab = record->fBuffer.Slab;
        record->~TKdsRecord();
        slab->Free(record);
    }
    void Teardown() noexcept override;
    void LeaveTable() noexcept;

    [[nodiscard]] bool HasFlag(TKdsRecordFlag flag) const noexcept {
        return (fRowFlags & (1u << static_cast<unsigned>(flag))) != 0;
    }
    void SetFlag(TKdsRecordFlag flag, bool value) noexcept;
    [[nodiscard]] bool HasBit(std::uint8_t bit) const noexcept { return (fRowFlags & bit) != 0; }
    void SetBit(std::uint8_t bit, bool value) noexcept {
        fRowFlags = static_cast<std::uint8_t>(value ? fRowFlags | bit : fRowFlags & ~bit);
    }
    [[nodiscard]] const std::byte* FetchBuffer() const;
    [[nodiscard]] std::byte* Home() noexcept { return reinterpret_cast<std::byte*>(this + 1); }
    [[nodiscard]] static bool IsTemporary(TKdsRecordState state) noexcept {
        return state >= rsDefaults;
    }
    [[nodiscard]] TKdsRecordState EffectiveState() const noexcept {
        return IsTemporary(fRowState) ? fOldState : fRowState;
    }
    void Become(TKdsRecordState state) noexcept { fOldState = std::exchange(fRowState, state); }
    [[nodiscard]] TKdsColumn* ColumnAt(std::int32_t index) const;
    [[nodiscard]] TKdsColumn* ColumnBy(std::u16string_view name) const;
    void CheckColumn(const TKdsColumn* column) const;
    [[noreturn, gnu::noinline]] void RaiseColumn() const;
    // Resident, never nullptr, and with room for this column.
    [[nodiscard]] std::byte* WritableBuffer(const TKdsSlot& slot) {
        if (HasBit(CompactBit | OutBit)) MakeWritable(slot);
        return EffectiveState() == rsRegular ? fBuffer.Original : fBuffer.Proposed;
    }
    // Whether making room moves the buffer: it ends behind its last value. Delayed columns always
    // have room, so that a read that calculates them moves nothing.
    [[nodiscard]] bool MovesForWrite(const TKdsSlot& slot) const noexcept {
        return HasBit(CompactBit) && slot.StampOffset < 0 && EffectiveState() != rsEditing;
    }
    void MakeWritable(const TKdsSlot& slot);
    void ExpandBuffer();

    void CheckNotNull() const;

    // Called by the record list's notifications.
    void PrepareInsert();
    void ConfirmInsert();
    void PrepareDelete();
    void ConfirmDelete();
    void CheckDelete() const;

    void AssignDefaults();
    // Whether all of them could be calculated.
    bool CalculateColumns(bool keepGoing);
    [[nodiscard]] TVariant Compute(const TKdsColumn* column);
    bool ComputeValue(const TKdsColumn* column, TKdsScratch& scratch, TKdsValue& value);
    void Calculate(const TKdsColumn* column, TKdsScratch& scratch);
    void RefreshDelayed(const TKdsColumn* column, const TKdsSlot& slot);
    bool ReadComputed(const TKdsColumn* column, TKdsScratch& scratch, TKdsValue& value);
    bool ReadOut(const TKdsColumn* column, const TKdsSlot& slot, TKdsScratch& scratch,
                 TKdsValue& value);
    static void ReadSlot(const TKdsSlot& slot, const std::byte* buffer, TKdsValue& value) noexcept;
    // Apart, so that the usual write saves no registers for it.
    [[gnu::noinline]] void SetChecked(const TKdsColumn* column, const void* data,
                                      std::int32_t size);
    void StoreValue(const TKdsColumn* column, const void* data, std::int32_t size);
    void StorePlain(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                    std::int32_t size);
    void StoreText(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                   std::int32_t size);
    // ---- Lookups ----
    [[nodiscard]] bool FindMasterValues(const TKdsLookupPath& path, const std::byte* buffer,
                                        const std::byte*& values) const;
    bool ReadLookup(const TKdsColumn* column, TKdsReading reading, TKdsScratch& scratch,
                    TKdsValue& value);
    // Apart, so that the usual reads save no registers for the others.
    [[gnu::noinline]] bool GetOwnP(const TKdsColumn* column, const void*& data, std::int32_t& size);
    [[gnu::noinline]] bool GetLookupP(const TKdsColumn* column, const void*& data,
                                      std::int32_t& size);
    [[gnu::noinline]] bool FollowLookupP(const TKdsColumn* column, const void*& data,
                                         std::int32_t& size);
    [[gnu::noinline]] bool FollowLookup(const TKdsColumn* column, TKdsReading reading,
                                        TKdsScratch& scratch, TKdsValue& value);
    void StoreKey(const TKdsColumn* column, const void* data, std::int32_t size);
    void StoreReferenceKey(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                           std::int32_t size);
    using TFollowerSet = std::vector<const TKdsColumn*>;
    void StoreVirtual(const TKdsColumn* source, const TKdsNormalLookup& key,
                      const TFollowerSet& unresolved);
    void SaveKeys(const TKdsColumn* source, const TKdsNormalLookup& key,
                  const TFollowerSet& unresolved);
    [[nodiscard]] static TKdsRecord* ValidRow(const TKdsColumn* column, const TKdsNormalLookup& key,
                                              const void* data, std::int32_t size);
    bool FindMaster(const TKdsColumn* column, const TKdsValue& value, TKdsNormalLookup& key);
    // The key of a virtual key column in a buffer, in its own slot and in all that follow it:
    // unresolved where it holds none.
    [[nodiscard]] static TKdsNormalLookup VirtualKeyIn(const TKdsColumn* source,
                                                       const std::byte* buffer) noexcept;
    static void SetVirtualKeyIn(const TKdsColumn* source, const TKdsNormalLookup& key,
                                std::byte* buffer) noexcept;
    void NullReferences(const TKdsColumn* source);
    // The master's rows have gone, and their identifiers come again.
    void Unresolve(const TKdsColumn* column) noexcept;
    void ForgetKeysIn(std::byte* buffer) const noexcept;
    [[nodiscard]] TKdsNormalLookup KeyFor(const TKdsColumn* source, const void* data,
                                          std::int32_t size, TFollowerSet& unresolved);
    [[nodiscard]] static TKdsNormalLookup KeyOf(const TKdsRecord* row);
    [[nodiscard]] static TKdsRecord* RowOfKey(const TKdsColumn* column,
                                              const TKdsNormalLookup& key);
    void StoreReference(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                        std::int32_t size);
    void StoreVariant(const TKdsColumn* column, const TVariant& value);
    void StoreNull(const TKdsColumn* column);
    void BringHome() noexcept;
    [[noreturn]] static void RaiseState(std::u16string_view key);
    [[noreturn]] static void RaiseMismatch(const TKdsColumn* column, std::u16string_view key);
    [[noreturn]] static void RaiseNotRaw();

    // In the flags: the buffer that was posted last has been cut behind its last value.
    static constexpr std::uint8_t CompactBit = 0x80;
    // There is no buffer; the posted values lie in the swapper's file.
    static constexpr std::uint8_t OutBit = 0x40;
    // No home buffer lies behind the record.
    static constexpr std::uint8_t HomelessBit = 0x20;
    // The virtual keys in its image lead to rows that have gone.
    static constexpr std::uint8_t StaleKeysBit = 0x10;

    TKdsRecordState fRowState = rsDetached;
    TKdsRecordState fOldState = rsDetached;
    std::int8_t fDecimals = -1;
    std::uint8_t fRowFlags = 0;
    std::uint32_t fRowID = NoRowID;
    TKdsTable* fTable;
    TKdsBuffer fBuffer;
};
static_assert(sizeof(TKdsRecord) == 48, "a row costs these bytes and its values");

// Enters a temporary state and restores both state fields, also on exceptions and when nested.
class TKdsStateScope {
public:
    TKdsStateScope(TKdsRecord* record, TKdsRecordState state) noexcept
        : fRecord(record), fRowState(record->fRowState), fOldState(record->fOldState) {
        // From within a temporary state the state before it still decides about the buffer.
        if (!TKdsRecord::IsTemporary(fRowState)) record->fOldState = fRowState;
        record->fRowState = state;
    }
    // Reads of the record answer its posted values until the scope is left.
    [[nodiscard]] static TKdsStateScope Posted(TKdsRecord* record) noexcept {
        return {record, /*placed=*/false};
    }
    // The values by which a view that has not heard of the record's post yet holds it: while it
    // is being posted those before the post, otherwise the posted ones.
    [[nodiscard]] static TKdsStateScope Placed(TKdsRecord* record) noexcept {
        return {record, /*placed=*/true};
    }
    ~TKdsStateScope() {
        fRecord->fRowState = fRowState;
        fRecord->fOldState = fOldState;
    }
    TKdsStateScope(const TKdsStateScope&) = delete;
    TKdsStateScope& operator=(const TKdsStateScope&) = delete;

private:
    TKdsStateScope(TKdsRecord* record, bool placed) noexcept
        : fRecord(record), fRowState(record->fRowState), fOldState(record->fOldState) {
        const bool before = placed && record->IsPosting();
        if (!before && record->EffectiveState() != rsEditing) return;
        record->fRowState = rsOriginal;
        record->fOldState = before ? rsEditing : rsRegular;
    }
    TKdsRecord* fRecord;
    TKdsRecordState fRowState;
    TKdsRecordState fOldState;
};

template <typename T>
std::optional<T> TKdsRecord::Get(const TKdsColumn* column) {
    const void* data = nullptr;
    std::int32_t size = 0;
    if (!GetDataP(column, data, size)) return std::nullopt;
    const TKdsDataType type = column->DataType();
    if constexpr (std::is_same_v<T, std::string_view>) {
        if (IsAnsiType(type))
            return T(static_cast<const char*>(data), static_cast<std::size_t>(size));
    } else if constexpr (std::is_same_v<T, TFixed>) {
        if (type == dtFixed) {
            return ToFixed(LoadRaw<std::int64_t>(data),
                           LoadRaw<std::int16_t>(static_cast<const std::byte*>(data) + 8));
        }
    } else if constexpr (std::is_same_v<T, bool>) {
        if (type == dtBoolean) return LoadRaw<std::uint8_t>(data) != 0;
    } else {
        if (IsRawForm<T>(type)) return LoadRaw<T>(data);
    }
    RaiseNotRaw();
}

// Wide text may lie unaligned in its slot, so it is copied out.
template <>
[[nodiscard]] std::optional<std::u16string> TKdsRecord::Get(const TKdsColumn* column);

template <typename T>
void TKdsRecord::Set(const TKdsColumn* column, const T& value) {
    if (column == nullptr) CheckColumn(column);
    const TKdsDataType type = column->DataType();
    if constexpr (std::is_convertible_v<const T&, std::string_view>) {
        const std::string_view text = value;
        if (IsAnsiType(type))
            return SetDataP(column, text.data(), static_cast<std::int32_t>(text.size()));
        SetDataC(column, TVariant(text));
    } else if constexpr (std::is_convertible_v<const T&, std::u16string_view>) {
        const std::u16string_view text = value;
        if (type == dtWideString)
            return SetDataP(column, text.data(), static_cast<std::int32_t>(text.size()));
        SetDataC(column, TVariant(text));
    } else if constexpr (std::is_same_v<T, TFixed>) {
        if (type == dtFixed) {
            std::byte raw[10];
            StoreRaw(raw, value.Value);
            StoreRaw(raw + 8, value.Scale);
            return SetDataP(column, raw, 10);
        }
        SetDataC(column, FixedToVar(value));
    } else {
        if (IsRawForm<T>(type))
            return SetDataP(column, &value, static_cast<std::int32_t>(sizeof(T)));
        SetDataC(column, TVariant(value));
    }
}

// Name=value of every column, in UTF-8; null prints as nothing.
std::ostream& operator<<(std::ostream& stream, TKdsRecord& record);

}  // namespace kds
