// Values that are calculated: when, in which order, and from which of the row's values.
#include "kds/core/Kdsrecords.h"

#include <utility>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdskeyvalues.h"
#include "kds/core/Kdsswapper.h"
#include "kds/core/Kdstables.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

// A routine that reads calculations that read it would never end. Expressions refuse it themselves.
constexpr std::int32_t MaximumComputeDepth = 32;

template <typename T>
bool HoldWhole(std::int64_t number, TKdsScratch& scratch, TKdsValue& value) noexcept {
    if (!std::in_range<T>(number)) return false;
    StoreRaw(scratch.Number, static_cast<T>(number));
    value.Size = sizeof(T);
    return true;
}

bool HoldInteger(TKdsDataType type, std::int64_t number, TKdsScratch& scratch, TKdsValue& value) {
    switch (type) {
        case dtShort: return HoldWhole<std::int8_t>(number, scratch, value);
        case dtSmall: return HoldWhole<std::int16_t>(number, scratch, value);
        case dtInteger: return HoldWhole<std::int32_t>(number, scratch, value);
        case dtInt64:
        case dtUInt64: return HoldWhole<std::int64_t>(number, scratch, value);
        case dtByte: return HoldWhole<std::uint8_t>(number, scratch, value);
        case dtWord: return HoldWhole<std::uint16_t>(number, scratch, value);
        case dtCardinal: return HoldWhole<std::uint32_t>(number, scratch, value);
        case dtDouble:
            StoreRaw(scratch.Number, static_cast<double>(number));
            value.Size = sizeof(double);
            return true;
        default: return false;
    }
}

// The result of an expression as a value of this type, where that needs no conversion; texts are
// copied, for the next evaluation writes over them.
bool HoldSlot(TKdsDataType type, const TExprSlot& slot, TKdsScratch& scratch, TKdsValue& value) {
    value.Type = type;
    value.Data = scratch.Number;
    switch (slot.Kind) {
        case ekBoolean:
            return type == dtBoolean && HoldWhole<std::uint8_t>(slot.Integer, scratch, value);
        case ekInteger: return HoldInteger(type, slot.Integer, scratch, value);
        case ekFloat:
            if (type != dtDouble) return false;
            StoreRaw(scratch.Number, slot.Float);
            value.Size = sizeof(double);
            return true;
        case ekFixed:
            if (type != dtFixed) return false;
            StoreRaw(scratch.Number, slot.Integer);
            StoreRaw(scratch.Number + 8, slot.Scale);
            value.Size = 10;
            return true;
        case ekText:
            if (!IsAnsiType(type)) return false;
            scratch.Ansi = slot.View();
            value.Data = reinterpret_cast<const std::byte*>(scratch.Ansi.data());
            value.Size = static_cast<std::int32_t>(scratch.Ansi.size());
            return true;
        default: return false;
    }
}

}  // namespace

// What the expression gives, and then what the host's routine makes of it.
TVariant TKdsRecord::Compute(const TKdsColumn* column) {
    fTable->Columns()->PrepareExpressions();
    IExpressionEvaluator* const evaluator = column->fEvaluator.Get();
    const TKdsGetValueEvent routine = column->OnGetValue();
    TVariant value = Null;
    TKdsBusyScope busy(fTable);
    if (evaluator != nullptr) value = VariantOfSlot(evaluator->ComputeAt({this, erCurrent}));
    if (!routine || fTable->fComputeDepth >= MaximumComputeDepth) return value;
    ++fTable->fComputeDepth;
    TScopeGuard leave([table = fTable] { --table->fComputeDepth; });
    TKdsStateScope calculating(this, rsCalculate);
    routine(const_cast<TKdsColumn*>(column), this, value);
    return value;
}

// In the raw form that a slot would hold; false: null.
bool TKdsRecord::ComputeValue(const TKdsColumn* column, TKdsScratch& scratch, TKdsValue& value) {
    if (!column->OnGetValue()) {
        fTable->Columns()->PrepareExpressions();
        IExpressionEvaluator* const evaluator = column->fEvaluator.Get();
        if (evaluator == nullptr) return false;
        TKdsBusyScope busy(fTable);
        const TExprSlot result = evaluator->ComputeAt({this, erCurrent});
        if (result.IsNull()) return false;
        if (HoldSlot(column->DataType(), result, scratch, value)) return true;
        HoldVariant(column->DataType(), VariantOfSlot(result), scratch, value);
        return true;
    }
    const TVariant computed = Compute(column);
    if (!computed.Assigned()) return false;
    HoldVariant(column->DataType(), computed, scratch, value);
    return true;
}

bool TKdsRecord::ReadComputed(const TKdsColumn* column, TKdsScratch& scratch, TKdsValue& value) {
    // A search key has no other values to calculate from.
    if (const TKdsKeyValues* const key = fTable->KeyValuesOf(this)) return key->Read(column, value);
    return ComputeValue(column, scratch, value);
}

void TKdsRecord::Calculate(const TKdsColumn* column, TKdsScratch& scratch) {
    TKdsValue value;
    const bool found = ComputeValue(column, scratch, value);
    TKdsStateScope calculating(this, rsCalculate);
    if (!found) {
        StoreNull(column);
    } else if (column->Attributes().Has(caAutoTrim)) {
        StoreVariant(column, BufferToVar(value.Type, value.Data, value.Size));
    } else {
        StoreValue(column, value.Data, value.Size);
    }
}

// A delayed column is calculated by the first read after a change of the table, or of those that
// it reads; in a row that is being built or edited by every read, for no change of it is counted.
void TKdsRecord::RefreshDelayed(const TKdsColumn* column, const TKdsSlot& slot) {
    const std::byte* const buffer = FindBuffer();
    if (buffer == nullptr) return;
    fTable->FollowMasters();
    const auto version = static_cast<std::uint32_t>(fTable->fVersion);
    if (LoadRaw<std::uint32_t>(buffer + slot.StampOffset) == version) return;
    TKdsScratch scratch;
    Calculate(column, scratch);
    TKdsStateScope calculating(this, rsCalculate);
    const bool lasts = EffectiveState() == rsRegular;
    StoreRaw(WritableBuffer(slot) + slot.StampOffset, lasts ? version : version - 1);
}

// Stored calculated columns; delayed ones wait for a read. In a change that stands a calculation
// that fails leaves its column null, whatever is raised; only that memory ran out is told, at the
// end, and a row that has values then keeps them.
bool TKdsRecord::CalculateColumns(bool keepGoing) {
    const std::vector<TKdsColumn*>& columns = fTable->Columns()->CalculationOrder();
    // What the others read of these must not be of the values before.
    fTable->MarkLate(const_cast<std::byte*>(FindBuffer()));
    TFirstError errors;
    TKdsScratch scratch;
    bool succeeded = true;
    for (const TKdsColumn* const column : columns) {
        if (!keepGoing) {
            Calculate(column, scratch);
            continue;
        }
        try {
            Calculate(column, scratch);
            continue;
        } catch (const std::bad_alloc&) {
            errors.Keep(std::current_exception());
            if (fRowState != rsDetached) break;
        } catch (...) {
        }
        succeeded = false;
        TKdsStateScope calculating(this, rsCalculate);
        StoreNull(column);
    }
    errors.Rethrow();
    return succeeded;
}

void TKdsRecord::Recalculate() {
    if (fTable == nullptr) KdsError(u"RecordStateInvalid");
    if (fRowState == rsRegular) {
        TKdsEdit edit(this);
        edit.Post();
        return;
    }
    CheckState({rsDetached, rsEditing}, true, u"RecordStateInvalid");
    fTable->CheckNotBusy();
    const TExpressionScope clock;
    (void)CalculateColumns(false);
}

// While the views are off: rows are not moved one by one. Values are calculated from what is
// posted, and an open edit is not touched.
std::int32_t TKdsTable::Recalculate() {
    TKdsTravelGuard guard;  // links hear of it, and may end the table
    const TExpressionScope clock;
    TKdsLoad load(this, mtsMassive);
    if (fColumns == nullptr) return 0;
    std::int32_t failures = 0;
    TFirstError errors;
    for (TKdsRecord* const record : *fRecords) {
        errors.Run([&] {
            if (record->IsOut()) fSwapper->BringIn(record);
            const TKdsStateScope posted = TKdsStateScope::Posted(record);
            if (!record->CalculateColumns(true)) ++failures;
        });
        if (record->fRowState != rsRegular) continue;
        CompactBuffer(record);
        if (record->IsSwapped()) errors.Run([&] { fSwapper->CommitUpdate(record); });
    }
    fModified = true;
    fVersion = static_cast<std::int32_t>(static_cast<std::uint32_t>(fVersion) + 1);
    fPosts[++fChangeCount % fPosts.size()] = NoRowID;
    errors.Run([&] { load.Leave(); });
    errors.Rethrow();
    return failures;
}

// The tables that delayed columns read count their changes; when one has counted on, all delayed
// values are late. What routines of the host read is taken to be what the table looks up.
void TKdsTable::FollowMasters() {
    if (fDelayedShape == fShape && fMasters.empty()) return;
    bool changed = false;
    if (fDelayedShape != fShape) {
        changed = fDelayedShape != 0;
        std::vector<TKdsColumn*> starts;
        for (TKdsColumn* const column : *fColumns) {
            if (column->IsDelayed() || column->LooksUp()) starts.push_back(column);
        }
        std::vector<TMaster> masters;
        for (const TKdsColumn* const column : ColumnsReadBy(std::move(starts))) {
            TKdsTable* const master = column->LooksUp() ? column->MasterTable() : nullptr;
            if (master != nullptr && master != this) masters.push_back({master, 0});
        }
        fMasters = std::move(masters);
        fDelayedShape = fShape;
    }
    for (TMaster& master : fMasters) {
        changed = changed || master.Changes != master.Table->ChangeCount();
        master.Changes = master.Table->ChangeCount();
    }
    if (changed) fVersion = static_cast<std::int32_t>(static_cast<std::uint32_t>(fVersion) + 1);
}

void TKdsTable::SourcesChanged() noexcept {
    if (fTellsReaders) return;  // tables may look into one another
    fTellsReaders = true;
    ++fShape;
    for (const TKdsColumn* const column : fReferrers) {
        if (TKdsTable* const reader = column->Table()) reader->SourcesChanged();
    }
    fTellsReaders = false;
}

}  // namespace kds
