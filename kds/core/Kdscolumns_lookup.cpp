// Columns that refer to another table, and those that look into it.
#include "kds/core/Kdscolumns.h"
#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsprovider.h"
#include "kds/core/Kdsstores.h"
#include "kds/core/Kdstables.h"
#include "kds/expr/Exprerrors.h"
#include "kds/views/Kdsorders.h"

namespace kds {
namespace {

bool IsWholeKey(TKdsTable* table, const TKdsColumn* column) {
    const TOwned<TKdsOrderColumnList> key = TKdsOrderColumnList::Create();
    key->Parse(table, table->GetPrimaryKey());
    return key->Count() == 1 && key->GetItem(0) == column;
}

}  // namespace

void TKdsColumn::ForeignKey(std::u16string_view tableName, std::u16string_view columnName) {
    TKdsTable* const own = Table();
    if (own == nullptr || own->Store() == nullptr) {
        KdsError(u"TablePartOfStore", {own == nullptr ? Name() : own->Name()});
    }
    TKdsTable* const master = own->Store()->Tables()->Tables(tableName);
    TKdsColumn* const field = master->Columns()->Columns(columnName);
    if (!HaveSameForm(fDataType, field->DataType())) {
        KdsError(u"DataTypeMismatch", {own->Name(), Name(), master->Name(), field->Name()});
    }
    if (field == this) ParserError(u"CircularReference", {Name()});
    if (GetIsVirtualKey()) CheckVirtual(master, field, fLookupKind);
    if (fMasterTable == master && fMasterField == field && !fIsReference) return;
    if (fMasterTable != nullptr) KdsError(u"ColumnForeignKey", {Name(), fMasterTable->Name()});
    master->ReserveReferrer();
    Change(false, [&] {
        fMasterTable = master;
        fMasterField = field;
        master->AppendReferrer(this);
    });
}

void TKdsColumn::SetVirtualKey(bool value, TKdsLookupKind kind) {
    TKdsAttributes attributes = fAttributes;
    attributes.Set(caVirtualKey, value);
    CheckAttributes(attributes, kind);
    if (attributes == fAttributes && (!value || kind == fLookupKind)) return;
    Change(true, [&] {
        fAttributes = attributes;
        if (value) fLookupKind = kind;
    });
}

void TKdsColumn::CheckAttributes(TKdsAttributes value, TKdsLookupKind kind) {
    if (fIsReference && value.HasAny({caCalculated, caVirtualKey})) {
        throw EInvalidArgument(u"A reference column cannot be calculated nor a virtual key");
    }
    if (!value.Has(caVirtualKey)) return;
    if (value.Has(caCalculated)) throw EInvalidArgument(u"A virtual key cannot be calculated");
    CheckVirtual(fMasterTable, fMasterField, kind);
}

// A virtual key of this kind, into this column of a master.
void TKdsColumn::CheckVirtual(TKdsTable* master, TKdsColumn* field, TKdsLookupKind kind) {
    if (master == nullptr) return;
    CheckCircle(field);
    if (kind != lkShort) return;
    // A short key has no identity: only where rows stay is it one.
    if (!master->Options().Has(mtoStaticData)) {
        throw EInvalidArgument(u"A short virtual key needs a master with static data");
    }
    if (master->Records()->Count() > TKdsStaticLookup{}.Index) {
        const TKdsTable* const own = Table();
        KdsError(u"StaticLookupLong",
                 {master->Name(), own == nullptr ? std::u16string() : own->Name(), Name()});
    }
}

// What this column would show must not show this column.
void TKdsColumn::CheckCircle(const TKdsColumn* shown) const {
    for (; shown != nullptr; shown = shown->LooksUp() ? shown->Shown() : nullptr) {
        if (shown == this) ParserError(u"CircularReference", {Name()});
    }
}

TKdsColumn* TKdsTableColumnList::AddLookup(std::u16string_view name, std::u16string_view keyColumn,
                                           std::u16string_view targetColumn, TKdsLookupKind kind) {
    TKdsColumn* const key = Columns(keyColumn);
    if (!key->GetIsForeignKey()) KdsError(u"LookupReference");
    TKdsTable* const master = key->fMasterTable;
    if (!IsWholeKey(master, key->fMasterField)) {
        KdsError(u"FieldPrimaryKey", {key->fMasterField->Name(), master->Name()});
    }
    if (kind == lkShort && master->Records()->Count() > TKdsStaticLookup{}.Index) {
        KdsError(u"StaticLookupLong", {master->Name(), fTable->Name(), name});
    }
    if (key->GetIsVirtualKey()) key->CheckVirtual(master, key->fMasterField, kind);
    TKdsColumn* const target =
        targetColumn.empty() ? nullptr : master->Columns()->Columns(targetColumn);
    TOwned<TKdsColumn> column(new TKdsColumn(name, dtInteger, DefaultVariableLength));
    column->fIsReference = true;
    column->fLookupKind = kind;
    master->ReserveReferrer();
    column->fMasterTable = master;
    column->fMasterField = key->fMasterField;
    column->fSourceField = key;
    column->fTargetField = target;
    column->TakeShapeOf(target != nullptr ? target : key->fMasterField);
    master->AppendReferrer(column.get());
    return Add(std::move(column));
}

// A reference has the type of what it shows.
void TKdsColumn::TakeShapeOf(const TKdsColumn* shown) {
    fDataType = shown->fDataType;
    fLength = shown->fLength;
    UpdateDataSize();
    UpdateOccurences();
}

void TKdsColumn::SetTargetField(TKdsColumn* value) {
    if (!fIsReference || fMasterTable == nullptr) KdsError(u"LookupReference");
    if (value == fTargetField) return;
    if (value != nullptr && value->Owner() != fMasterTable->Columns()) {
        throw EInvalidArgument(u"The column does not belong to the table that is looked into");
    }
    CheckCircle(value);
    Change(false, [&] {
        fTargetField = value;
        fPath = {};
        TakeShapeOf(value != nullptr ? value : fMasterField);
    });
}

void TKdsColumn::SetLookupFilter(std::u16string_view value) {
    if (value == fLookupFilter) return;
    if (!fIsReference || fMasterTable == nullptr) KdsError(u"LookupReference");
    if (!value.empty()) (void)CompileExpression(fMasterTable->Columns(), value);
    Change(false, [&] {
        fLookupFilter = value;
        fLookupEvaluator = nullptr;
    });
}

void TKdsColumn::FindPath() const {
    const TKdsLayout& layout = Table()->Layout();
    const TKdsLayout& masterLayout = fMasterTable->Layout();
    if (fPath.IsFor(layout)) return;
    fPath = {};
    if (IsVirtual() || fSourceField == nullptr || !CanResolve()) return;
    const TKdsSlot& source = layout.Slot(fSourceField->fIndex);
    const TKdsSlot& field = masterLayout.Slot(fMasterField->fIndex);
    const TKdsSlot& shown = masterLayout.Slot(Shown()->fIndex);
    if (!source.IsKeyNumber() || !field.IsKeyNumber() || source.Size != field.Size ||
        shown.Kind > skCustom || shown.StampOffset >= 0) {
        return;
    }
    fPath.Source = source;
    fPath.Key = layout.Slot(fIndex);
    fPath.Field = field;
    fPath.Shown = shown;
    fPath.IsShort = fOccurences.Has(coShortLookup);
    fPath.MasterLayout = &masterLayout;
    fPath.Version = layout.Version();
    fPath.MasterVersion = masterLayout.Version();
    fPath.Masters = fMasterTable->Records();
}

// What it cannot judge does not pass.
bool TKdsColumn::PassesLookupFilter(TKdsRecord* master) const {
    if (fLookupFilter.empty()) return true;
    const std::uint32_t layout = fMasterTable->Layout().Version();
    if (!fLookupEvaluator || fLookupLayout != layout) {
        fLookupEvaluator = nullptr;
        fLookupEvaluator = CompileExpression(fMasterTable->Columns(), fLookupFilter);
        fLookupLayout = layout;
    }
    const TIntf<IExpressionEvaluator> evaluator = fLookupEvaluator;
    TKdsBusyScope busy(fMasterTable);
    try {
        return evaluator->TestAt({master, erPosted}) > 0;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        return false;
    }
}

TVariant TKdsColumn::LookupValue(const TVariant& value) const {
    if (!fIsReference) KdsError(u"LookupReference");
    if (fMasterTable == nullptr || fMasterField == nullptr) {
        return TVariant(GetMessageText(u"UnresolvedLookup"));
    }
    TOwned<TKdsRecord> key = fMasterTable->TakeLocator();
    TScopeGuard giveBack([&] { fMasterTable->GiveLocator(std::move(key)); });
    key->StoreVariant(fMasterField, value);
    TKdsScratch scratch;
    TKdsValue raw;
    TKdsNormalLookup found;
    if (!key->ReadValue(fMasterField, TKdsReading::Current, scratch, raw) ||
        !key->ResolveLookupKey(this, raw.Data, raw.Size, found)) {
        return TVariant(GetMessageText(u"UnresolvedLookup"));
    }
    TKdsRecord* const row = fMasterTable->Records()->ItemAt(found.Index);
    if (!PassesLookupFilter(row)) return TVariant(GetMessageText(u"UnresolvedLookup"));
    return row->GetDataC(Shown());
}

// ---- What has gone ------------------------------------------------------------------------

void TKdsColumn::Teardown() noexcept {
    if (fMasterTable != nullptr) fMasterTable->RemoveReferrer(this);
    fMasterTable = nullptr;
    TKdsName::Teardown();
}

void TKdsColumn::ForgetMaster() noexcept {
    fMasterTable = nullptr;
    fMasterField = nullptr;
    fTargetField = nullptr;
    fLookupEvaluator = nullptr;
    fPath = {};
    UpdateOccurences();
    if (TKdsTable* const table = Table()) table->SourcesChanged();
}

// Without what it refers to a column is an ordinary one; without what it shows it shows nothing.
void TKdsColumn::ForgetMasterColumn(const TKdsColumn* column) noexcept {
    if (fMasterField != column && fTargetField != column) return;
    if (TKdsTable* const master = fMasterTable) master->RemoveReferrer(this);
    ForgetMaster();
}

void TKdsTableColumnList::ForgetColumn(const TKdsColumn* column) noexcept {
    for (TKdsColumn* const other : *this) {
        if (other->fSourceField == column) other->fSourceField = nullptr;
        other->fFirstFollower = nullptr;  // linked anew with the layout
    }
    const std::vector<TKdsColumn*>& referrers = fTable->Referrers();
    for (std::size_t i = referrers.size(); i > 0; --i) {
        if (i <= referrers.size()) referrers[i - 1]->ForgetMasterColumn(column);
    }
}

void TKdsTableColumnList::MarkLookupKeys() noexcept {
    for (TKdsColumn* const column : *this) column->fFirstFollower = nullptr;
    for (std::int32_t i = fCount; i > 0; --i) {
        TKdsColumn* const column = GetItem(i - 1);
        if (TKdsColumn* const source = column->fSourceField) {
            column->fNextFollower = std::exchange(source->fFirstFollower, column);
        }
    }
    for (TKdsColumn* const column : *this) {
        column->fIsLookupKey = column->fFirstFollower != nullptr;
    }
    for (TKdsColumn* const column : *this) column->UpdateOccurences();
}

}  // namespace kds
