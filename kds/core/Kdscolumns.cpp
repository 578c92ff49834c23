#include "kds/core/Kdscolumns.h"

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdstables.h"
#include "kds/platform/Text.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// ---- Creation and layout ------------------------------------------------------------------

TKdsColumn::TKdsColumn(std::u16string_view name, TKdsDataType type, std::int32_t length)
    : TKdsName(nullptr, name), fDataType(type), fLength(length) {
    UpdateDataSize();
    UpdateOccurences();
}

TOwned<TKdsColumn> TKdsColumn::Create(std::u16string_view name, TKdsDataType type,
                                      std::int32_t length) {
    if (type <= dtUnknown || type > dtCustomData) KdsError(u"ColumnTypeInternal");
    CheckLength(name, length);
    return TOwned<TKdsColumn>(new TKdsColumn(name, type, length));
}

void TKdsColumn::CheckLength(std::u16string_view name, std::int32_t length) {
    if (length < 0 || length > MaximumColumnLength) {
        KdsError(u"Column %s size exceeds limit", {name});
    }
}

TKdsTable* TKdsColumn::Table() const noexcept {
    auto* const list = dynamic_cast<TKdsTableColumnList*>(Owner());
    return list == nullptr ? nullptr : list->Table();
}

std::int32_t TKdsColumn::ActualSize() const noexcept {
    if (IsComputed()) return 0;
    if (!LooksUp()) return fDataSize;
    if (!fIsReference && fIsLookupKey) return 0;  // the key is in the reference beside it
    return static_cast<std::int32_t>(fLookupKind == lkShort ? sizeof(TKdsStaticLookup)
                                                            : sizeof(TKdsNormalLookup));
}

void TKdsColumn::UpdateDataSize() noexcept {
    switch (fDataType) {
        case dtChar: fDataSize = fLength; break;
        case dtAnsiString: fDataSize = fLength + 3; break;
        case dtWideString: fDataSize = (fLength + 1) * 2 + 2; break;
        default: fDataSize = kds::DataSize(fDataType); break;
    }
}

void TKdsColumn::UpdateOccurences() noexcept {
    fOccurences = {};
    fOccurences.Set(coAutoInc, fAttributes.Has(caAutoInc));
    fOccurences.Set(coCalculated, fAttributes.Has(caCalculated));
    fOccurences.Set(coCaseless, fAttributes.Has(caCaseless));
    fOccurences.Set(coHasDefault, fDefaultValue.Assigned());
    fOccurences.Set(coExpression, !fExpression.empty());
    // Only a value that is calculated and stored can be late: what the host wrote into another
    // column must not be calculated away by a read.
    fOccurences.Set(coDelayedCalc, fAttributes.HasAll({caCalculated, caDelayedCalc}) &&
                                       !fAttributes.Has(caDontStore));
    fOccurences.Set(coVirtualKey, fAttributes.Has(caVirtualKey));
    fOccurences.Set(coMemoString, fDataType == dtMemoString);
    fOccurences.Set(coDontStore, fAttributes.Has(caDontStore));
    fOccurences.Set(coLazyLookup, fAttributes.Has(caLazyLookup));
    fOccurences.Set(coCustomData, fDataType == dtCustomData);
    fOccurences.Set(coReference, fIsReference);
    fOccurences.Set(coForeignKey, fMasterTable != nullptr && !fIsReference);
    fOccurences.Set(coLookupKey, fIsLookupKey);
    fOccurences.Set(coShortLookup, LooksUp() && fLookupKind == lkShort);
}

// ---- Setters ------------------------------------------------------------------------------

void TKdsColumn::SetDataType(TKdsDataType value) {
    if (value == fDataType) return;
    if (value <= dtUnknown || value > dtCustomData) KdsError(u"ColumnTypeInternal");
    Change(true, [&] { fDataType = value; });
}

void TKdsColumn::SetLength(std::int32_t value) {
    if (value == fLength) return;
    CheckLength(Name(), value);
    Change(true, [&] { fLength = value; });
}

void TKdsColumn::SetIndex(std::int32_t value) {
    if (value == fIndex) return;
    auto* const list = dynamic_cast<TKdsTableColumnList*>(Owner());
    if (list == nullptr) KdsError(u"TablePartOfStore", {Name()});
    list->Move(fIndex, value);
}

void TKdsColumn::SetAttributes(TKdsAttributes value) {
    if (value == fAttributes) return;
    CheckAttributes(value, fLookupKind);
    constexpr TKdsAttributes shaping{caCalculated, caDelayedCalc, caVirtualKey, caDontStore};
    const bool layout = (value & shaping) != (fAttributes & shaping);
    Change(layout, [&] { fAttributes = value; });
}

void TKdsColumn::SetAttribute(TKdsAttribute attribute, bool value) {
    TKdsAttributes attributes = fAttributes;
    attributes.Set(attribute, value);
    SetAttributes(attributes);
}

void TKdsColumn::SetAutoIncrement(bool value, std::int32_t seed, std::int32_t step) {
    if (value == fAttributes.Has(caAutoInc) && seed == fAutoIncSeed && step == fAutoIncStep) return;
    Change(false, [&] {
        fAttributes.Set(caAutoInc, value);
        fAutoIncSeed = seed;
        fAutoIncStep = step;
        fAutoIncNext = seed;
    });
}

void TKdsColumn::SetCalculated(bool value, bool stored) {
    TKdsAttributes attributes = fAttributes;
    attributes.Set(caCalculated, value);
    attributes.Set(caDontStore, value && !stored);
    SetAttributes(attributes);
}

void TKdsColumn::SetDelayedCalc(bool value) {
    TKdsAttributes attributes = fAttributes;
    attributes.Set(caDelayedCalc, value);
    if (value) attributes.Include(caCalculated);
    SetAttributes(attributes);
}

void TKdsColumn::SetDecimals(std::int32_t value) {
    if (value == fDecimals) return;
    Change(false, [&] { fDecimals = value; });
}

void TKdsColumn::SetPrecision(std::int32_t value) {
    if (value == fPrecision) return;
    Change(false, [&] { fPrecision = value; });
}

void TKdsColumn::SetDefaultValue(const TVariant& value) {
    if (value == fDefaultValue) return;
    Change(false, [&] { fDefaultValue = value; });
}

void TKdsColumn::SetDescription(std::u16string_view value) {
    if (value == fDescription) return;
    Change(false, [&] { fDescription = value; });
}

void TKdsColumn::SetDisplayLabel(std::u16string_view value) {
    if (value == fDisplayLabel) return;
    Change(false, [&] { fDisplayLabel = value; });
}

void TKdsColumn::SetDisplayMask(std::u16string_view value) {
    if (value == fDisplayMask) return;
    Change(false, [&] { fDisplayMask = value; });
}

void TKdsColumn::SetDictionary(std::u16string_view value) {
    if (value == fDictionary) return;
    // Values that were shared through one dictionary could not be given back to another.
    if (TKdsTable* const table = Table()) table->CheckRestructure();
    Change(false, [&] {
        fDictionary = value;
        fVocabulary = nullptr;
    });
}

void TKdsColumn::SetVisibility(TKdsVisibility value) {
    if (value == fVisibility) return;
    Change(false, [&] { fVisibility = value; });
}

void TKdsColumn::SetOnGetValue(TKdsGetValueEvent value) {
    if (value == fOnGetValue) return;
    Change(false, [&] { fOnGetValue = value; });
}

void TKdsColumn::SetCustomData(TIntf<IKdsCustomData> value) {
    if (value == fCustomData) return;
    // Rows that are out are read by the handler that has written them.
    const TKdsTable* const table = Table();
    if (table != nullptr && table->HasSwapped()) KdsError(u"CannotRestructure", {table->Name()});
    Change(false, [&] { fCustomData = std::move(value); });
}

void TKdsColumn::SetFormatter(TIntf<IKdsFormat> value) {
    if (value == fFormatter) return;
    Change(false, [&] { fFormatter = std::move(value); });
}

void TKdsColumn::SetRenderer(TIntf<IKdsRender> value) {
    if (value == fRenderer) return;
    Change(false, [&] { fRenderer = std::move(value); });
}

// ---- Queries ------------------------------------------------------------------------------

bool TKdsColumn::GetIsPrimaryKey() const {
    const TKdsTable* const table = Table();
    return table != nullptr && table->IsKeyColumn(this);
}

// ---- The table's column list --------------------------------------------------------------

TKdsTableColumnList::TKdsTableColumnList(TKdsTable* table)
    : TKdsColumnList(table, /*ownsObjects=*/true, /*broadcaster=*/true), fTable(table) {}

TKdsColumn* TKdsTableColumnList::Add(TOwned<TKdsColumn>&& column) {
    return Append(std::move(column));
}

TKdsColumn* TKdsTableColumnList::Add(std::u16string_view name, TKdsDataType type,
                                     std::int32_t length) {
    return Add(TKdsColumn::Create(name, type, length));
}

TKdsColumn* TKdsTableColumnList::Add(std::u16string_view name, std::u16string_view type,
                                     std::u16string_view length) {
    return Add(name, type, length, {}, {});
}

TKdsColumn* TKdsTableColumnList::Add(std::u16string_view name, std::u16string_view type,
                                     std::u16string_view length, std::u16string_view displayLabel,
                                     std::u16string_view attributes) {
    const TKdsDataType dataType = DataTypeByName(type);
    if (dataType == dtUnknown) KdsError(u"DataTypeUnsupported");
    const std::u16string_view digits = Trim(length);
    TOwned<TKdsColumn> column = TKdsColumn::Create(
        Trim(name), dataType, digits.empty() ? DefaultVariableLength : TextToIntDef(digits, -1));
    column->SetDisplayLabel(displayLabel);
    for (std::u16string_view rest = Trim(attributes); !rest.empty();) {
        const std::u16string_view word = rest.substr(0, rest.find(u' '));
        if (SameText(word, u"notnull")) {
            column->SetAllowNull(false);
        } else if (SameText(word, u"readonly")) {
            column->SetReadOnly(true);
        } else if (SameText(word, u"caseless")) {
            column->SetCaseSensitive(false);
        } else {
            KdsError(u"NameNotFound", {word});
        }
        rest = Trim(rest.substr(word.size()));
    }
    return Add(std::move(column));
}

TKdsName* TKdsTableColumnList::FindByName(std::u16string_view name) const { return Find(name); }

TKdsColumn* TKdsTableColumnList::Find(std::u16string_view name) const {
    return static_cast<TKdsColumn*>(fNames.FindObject(name));
}

TKdsColumn* TKdsTableColumnList::Columns(std::u16string_view name) const {
    return static_cast<TKdsColumn*>(ItemByName(name));
}

std::u16string TKdsTableColumnList::QualifyName(std::u16string_view name) const {
    return fTable->Name() + u"." + std::u16string(name);
}

void TKdsTableColumnList::Sort() {
    fTable->CheckRestructure();
    TKdsColumnList::Sort();
    Relayout();
}

void TKdsTableColumnList::DoSwitch(std::int32_t from, std::int32_t to) {
    fTable->CheckRestructure();
    TKdsColumnList::DoSwitch(from, to);
    Relayout();
}

void TKdsTableColumnList::Handle(TNotification* notification) {
    const bool ours = notification->Sender == this || notification->Sender->Owner() == this;
    TKdsSteps steps(notification);
    if (ours) {
        CheckRestructure(notification);
        if (notification->Action == acPrepareInsert) {
            const auto* const column = static_cast<TKdsColumn*>(notification->Target);
            if (!column->fExpression.empty()) (void)column->CompileIn(this, column->fExpression);
        }
        ReserveFor(*notification);
        steps.Run([&] { Follow(notification); });
    }
    steps.Run([&] { TKdsColumnList::Handle(notification); });
    // The index comes last: it may refuse a name, and then the layout must be right already.
    if (ours) steps.Run([&] { UpdateNameIndex(notification); });
    steps.Finish();
}

void TKdsTableColumnList::CheckRestructure(TNotification* notification) const {
    switch (notification->Action) {
        case acPrepareDelete:
        case acPrepareInsert:
        case acPrepareRename: fTable->CheckRestructure(); return;
        case acPrepareUpdate:
            if (notification->Index != 0) fTable->CheckRestructure();
            // A view that is being built or searched would lose its rows on the way.
            if (fTable->IsBusy()) fTable->CheckNotBusy();
            return;
        default: return;
    }
}

// So that layout and name index, which follow when the change stands, need no memory then.
void TKdsTableColumnList::ReserveFor(const TNotification& notification) {
    if (notification.Action == acPrepareInsert) {
        fLayout.Reserve(fCount + 1);
        fNames.Reserve(static_cast<TKdsColumn*>(notification.Target)->Name());
    } else if (notification.Action == acPrepareRename) {
        fNames.Reserve(static_cast<TKdsColumn*>(notification.Sender)->Name());
    }
}

void TKdsTableColumnList::Follow(TNotification* notification) {
    switch (notification->Action) {
        // Also in a load bracket that clears the table: its rows may be new ones. A table that
        // ends does not come here, it has let go of this list.
        case acConfirmInsert:
        case acConfirmRename: Relayout(); return;
        case acConfirmDelete:
            ForgetColumn(static_cast<TKdsColumn*>(notification->Target));
            static_cast<TKdsColumn*>(notification->Target)->fVocabulary = nullptr;
            static_cast<TKdsColumn*>(notification->Target)->DropEvaluator();
            Relayout();
            return;
        case acConfirmUpdate:
            if (notification->Index != 0) {
                Relayout();
            } else {
                UpdateNotNull();
            }
            ExpressionsChanged(static_cast<TKdsColumn*>(notification->Sender));
            return;
        default: return;
    }
}

void TKdsTableColumnList::Relayout() {
    MarkLookupKeys();
    fLayout.Reset(fCount);
    std::int32_t index = 0;
    for (TKdsColumn* const column : *this) {
        TKdsSlotKind kind = skPlain;
        if (column->IsComputed()) {
            kind = skComputed;
        } else if (column->LooksUp()) {
            kind = skLookup;
        } else if (column->DataType() == dtMemoString) {
            kind = skMemo;
        } else if (column->DataType() == dtCustomData) {
            kind = skCustom;
        }
        fLayout.Add(column->DataType(), kind, column->ActualSize(), column->IsDelayed());
        if (column->GetIsLookupKey() || column->GetIsVirtualKey()) fLayout.SetResolves(index);
        const TKdsSlot& slot = fLayout.Slot(index);
        column->fIndex = index++;
        if (column->fIndexOrig < 0) column->fIndexOrig = column->fIndex;
        column->fDataOffset = slot.Offset;
        column->fNullOffset = slot.NullOffset;
        column->fNullMask = slot.NullMask;
    }
    fLayout.Finish();
    fExpressionsReady = false;
    fTable->SourcesChanged();
    UpdateNotNull();
    fTable->LayoutChanged();
}

void TKdsTableColumnList::UpdateNotNull() {
    fOccurences = {};
    for (TKdsColumn* const column : *this) {
        fOccurences = fOccurences | column->Occurences();
        fLayout.SetNotNull(column->Index(), !column->AllowNull());
    }
}

void TKdsTableColumnList::UpdateNameIndex(TNotification* notification) {
    const TNotification& n = *notification;
    if (n.Sender == this && n.Action == acConfirmInsert) {
        auto* const column = static_cast<TKdsColumn*>(n.Target);
        fNames.Add(column->Name(), column);
    } else if (n.Sender == this && n.Action == acConfirmDelete) {
        const std::int32_t index = fNames.IndexOfObject(n.Target);
        if (index >= 0) fNames.Delete(index);
    } else if (n.Action == acConfirmRename) {
        auto* const column = static_cast<TKdsColumn*>(n.Sender);
        const std::int32_t index = fNames.IndexOfObject(column);
        if (index < 0) return;
        fNames.Delete(index);
        fNames.Add(column->Name(), column);
    }
}

bool TKdsTableColumnList::IsConsistent() const {
    if (!TKdsColumnList::IsConsistent() || !fNames.IsConsistent()) return false;
    if (fLayout.ColumnCount() != fCount || !fLayout.IsConsistent()) return false;
    for (std::int32_t i = 0; i < fCount; ++i) {
        if (GetItem(i)->Index() != i || GetItem(i)->DataOffset() != fLayout.Slot(i).Offset) {
            return false;
        }
    }
    return true;
}

}  // namespace kds
