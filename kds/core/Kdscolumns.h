// Columns: the typed fields of a table, and the lists that hold them.
//
// Shape      A column has a data type, a length for texts, attributes, a default value and display
//            properties. The table's column list owns the columns, keeps a sorted name index and
//            recomputes the record layout when a column or the set of columns changes.
// Units      Lengths are characters: bytes of 8-bit text (UTF-8), 16-bit units of wide text; at
//            most 65'535. Sizes and offsets are bytes.
// Ownership  The table's list owns its columns; order lists borrow them. Interfaces are counted.
// Errors     CannotRestructure for a change of the layout, the order or a name while the table
//            holds records or detached rows of it are alive; DuplicateName; "Column %s size exceeds
//            limit"; ColumnTypeInternal for a column without a type. A refused change has changed
//            nothing. EKdsParseError for an expression that does not compile.
// Cost       FindByName O(log n). A layout change O(columns).
// Validity   Offsets are good until the layout changes, which needs an empty table.
// Threads    Read-only columns may be read by several threads at once.
#pragma once

#include <exception>
#include <span>
#include <string>
#include <vector>

#include "kds/core/Kdsdata.h"
#include "kds/core/Kdslayout.h"
#include "kds/core/Kdslookups.h"
#include "kds/core/Kdsstrings.h"
#include "kds/core/Kdstypes.h"
#include "kds/expr/Expressions.h"
#include "kds/platform/Delegate.h"

namespace kds {

class TKdsColumn;
class TKdsRecord;
class TKdsView;
class TKdsTableColumnList;

enum class TKdsAttribute : std::uint8_t {
    caAllowNull,
    caReadOnly,
    caAutoInc,
    caCalculated,
    caAutoTrim,
    caCaseless,
    caRowDecimals,
    caZeroEmpty,
    caDelayedCalc,
    caShowSign,
    caAlwaysRender,
    caVirtualKey,
    caDontStore,
    caCurrency,
    caLazyLookup
};
using enum TKdsAttribute;
using TKdsAttributes = TSet<TKdsAttribute>;

// What a column, or any column of a list, is about: lets record code skip whole features.
enum class TKdsOccurence : std::uint8_t {
    coAutoInc,
    coCalculated,
    coCaseless,
    coHasDefault,
    coExpression,
    coReference,
    coLookupKey,
    coForeignKey,
    coDelayedCalc,
    coShortLookup,
    coVirtualKey,
    coMemoString,
    coDontStore,
    coLazyLookup,
    coCustomData
};
using enum TKdsOccurence;
using TKdsOccurences = TSet<TKdsOccurence>;

// Reads and writes the values of a custom-data column as bytes.
class IKdsCustomData : public IInterface {
public:
    [[nodiscard]] virtual std::vector<std::byte> Write(const IInterface* value) = 0;
    [[nodiscard]] virtual TIntf<IInterface> Read(std::span<const std::byte> bytes) = 0;
};
// The display text of a value; the record may be absent.
class IKdsFormat : public IInterface {
public:
    [[nodiscard]] virtual std::u16string Format(const TKdsColumn* column, const TVariant& value,
                                                const TKdsRecord* record) = 0;
};
// Draws a value on a surface that only the host knows.
class IKdsRender : public IInterface {
public:
    virtual void Render(const TKdsColumn* column, const TKdsRecord* record, void* surface) = 0;
};

using TKdsGetValueEvent = TDelegate<void(TKdsColumn*, TKdsRecord*, TVariant&)>;

class TKdsColumn : public TKdsName {
public:
    [[nodiscard]] static TOwned<TKdsColumn> Create(std::u16string_view name, TKdsDataType type,
                                                   std::int32_t length = DefaultVariableLength);
    [[nodiscard]] TKdsDataType DataType() const noexcept { return fDataType; }
    void SetDataType(TKdsDataType value);
    [[nodiscard]] std::int32_t Length() const noexcept { return fLength; }
    void SetLength(std::int32_t value);
    [[nodiscard]] std::int32_t DataSize() const noexcept { return fDataSize; }
    [[nodiscard]] std::int32_t DataOffset() const noexcept { return fDataOffset; }
    [[nodiscard]] std::uint32_t NullMask() const noexcept { return fNullMask; }
    [[nodiscard]] std::int32_t NullOffset() const noexcept { return fNullOffset; }
    // Bytes that the column takes in a buffer.
    [[nodiscard]] std::int32_t ActualSize() const noexcept;
    // Position in the table's column list; setting it moves the column, which changes the layout.
    [[nodiscard]] std::int32_t Index() const noexcept { return fIndex; }
    void SetIndex(std::int32_t value);
    [[nodiscard]] TKdsTable* Table() const noexcept;

    [[nodiscard]] TKdsAttributes Attributes() const noexcept { return fAttributes; }
    void SetAttributes(TKdsAttributes value);
    [[nodiscard]] TKdsOccurences Occurences() const noexcept { return fOccurences; }
    [[nodiscard]] bool AllowNull() const noexcept { return fAttributes.Has(caAllowNull); }
    void SetAllowNull(bool value) { SetAttribute(caAllowNull, value); }
    [[nodiscard]] bool ReadOnly() const noexcept { return fAttributes.Has(caReadOnly); }
    void SetReadOnly(bool value) { SetAttribute(caReadOnly, value); }
    // Numbers rows from `seed` in steps; a row that brings a higher number moves the next one on.
    void SetAutoIncrement(bool value, std::int32_t seed = 1, std::int32_t step = 1);
    [[nodiscard]] std::int32_t AutoIncSeed() const noexcept { return fAutoIncSeed; }
    [[nodiscard]] std::int32_t AutoIncStep() const noexcept { return fAutoIncStep; }
    [[nodiscard]] bool Calculated() const noexcept { return fAttributes.Has(caCalculated); }
    // A calculated column that is not stored takes no room and is computed on every read. Its
    // OnGetValue starts from what its expression gives, null without one. A not-null one could
    // never be inserted: it is checked before it is calculated.
    void SetCalculated(bool value, bool stored = true);
    // Calculated on the first read after a change of the table.
    void SetDelayedCalc(bool value);
    [[nodiscard]] bool CaseSensitive() const noexcept { return !fAttributes.Has(caCaseless); }
    void SetCaseSensitive(bool value) { SetAttribute(caCaseless, !value); }
    // A virtual key keeps no value but the key of the master row that holds it, or not even that
    // when a reference column beside it does: 8 bytes a row, 2 with a short one, or none. A value
    // that no master row holds is not kept. EInvalidArgument for a column that is calculated or a
    // reference, and for a short key into a master without mtoStaticData, whose rows might move
    // away under it; CircularReference when the master's column looks back here.
    void SetVirtualKey(bool value, TKdsLookupKind kind = lkNormal);
    // A reference column finds its master row on the first read instead of on the write.
    void SetLazyLookup(bool value) { SetAttribute(caLazyLookup, value && !GetIsVirtualKey()); }

    [[nodiscard]] std::int32_t Decimals() const noexcept { return fDecimals; }
    void SetDecimals(std::int32_t value);  // -1: as many as the value has
    [[nodiscard]] std::int32_t Precision() const noexcept { return fPrecision; }
    void SetPrecision(std::int32_t value);
    [[nodiscard]] const TVariant& DefaultValue() const noexcept { return fDefaultValue; }
    void SetDefaultValue(const TVariant& value);
    [[nodiscard]] const std::u16string& Description() const noexcept { return fDescription; }
    void SetDescription(std::u16string_view value);
    // The name when no label is set.
    [[nodiscard]] const std::u16string& GetDisplayLabel() const noexcept;
    void SetDisplayLabel(std::u16string_view value);
    [[nodiscard]] const std::u16string& DisplayMask() const noexcept { return fDisplayMask; }
    void SetDisplayMask(std::u16string_view value);
    // Characters that a typical value needs.
    [[nodiscard]] std::int32_t GetDisplayWidth() const noexcept;
    [[nodiscard]] const std::u16string& Dictionary() const noexcept { return fDictionary; }
    void SetDictionary(std::u16string_view value);
    [[nodiscard]] const std::u16string& Expression() const noexcept { return fExpression; }
    // Over the other columns of the table (docs/expressions.md); makes the column calculated. Rows
    // keep what was stored before until they are posted or calculated anew (Recalculate). Compiled
    // at once in a table, otherwise when the column gets there: EKdsParseError, CircularReference
    // for one that reads this column again, and nothing has changed. An empty text takes it away.
    void SetExpression(std::u16string_view value);
    // Why it does not compile since the columns that it reads have changed. Until that is mended
    // the column is null, and views that read it cannot be built.
    [[nodiscard]] const std::exception_ptr& ExpressionError() const;
    [[nodiscard]] const std::u16string& LookupFilter() const noexcept { return fLookupFilter; }
    // Of a reference column: an expression over the master's columns. Master rows for which it is
    // not true are not found by what is written from now on; keys that lead to them stay valid.
    // LookupReference for other columns, EKdsParseError for a text that does not compile: also
    // when a key is written after the master's columns have changed.
    void SetLookupFilter(std::u16string_view value);
    // Whether it lets this row of the master pass.
    [[nodiscard]] bool PassesLookupFilter(TKdsRecord* master) const;
    [[nodiscard]] TKdsVisibility Visibility() const noexcept { return fVisibility; }
    void SetVisibility(TKdsVisibility value);
    [[nodiscard]] bool GetVisible() const noexcept { return fVisibility != viNothing; }
    [[nodiscard]] const TKdsGetValueEvent& OnGetValue() const noexcept { return fOnGetValue; }
    void SetOnGetValue(TKdsGetValueEvent value);
    [[nodiscard]] const TIntf<IKdsCustomData>& CustomData() const noexcept { return fCustomData; }
    void SetCustomData(TIntf<IKdsCustomData> value);
    [[nodiscard]] const TIntf<IKdsFormat>& Formatter() const noexcept { return fFormatter; }
    void SetFormatter(TIntf<IKdsFormat> value);
    [[nodiscard]] const TIntf<IKdsRender>& Renderer() const noexcept { return fRenderer; }
    void SetRenderer(TIntf<IKdsRender> value);

    [[nodiscard]] bool GetIsPrimaryKey() const;
    [[nodiscard]] bool GetIsForeignKey() const noexcept { return fOccurences.Has(coForeignKey); }
    [[nodiscard]] bool GetIsLookupKey() const noexcept { return fOccurences.Has(coLookupKey); }
    [[nodiscard]] bool GetIsReference() const noexcept { return fOccurences.Has(coReference); }
    [[nodiscard]] bool GetIsVirtualKey() const noexcept { return fOccurences.Has(coVirtualKey); }

    // The display text of a value of this column; empty for null. The record may be absent.
    [[nodiscard]] std::u16string FormatValue(const TVariant& value,
                                             const TKdsRecord* record = nullptr) const;
    // ---- References to other tables ----
    // Declares that the values are those of a column of a table of the same store.
    // TablePartOfStore without a store, NameNotFound, DataTypeMismatch, ColumnForeignKey for a
    // second one.
    void ForeignKey(std::u16string_view tableName, std::u16string_view columnName);
    // nullptr when the column refers to nothing, or when what it referred to has gone.
    [[nodiscard]] TKdsTable* MasterTable() const noexcept { return fMasterTable; }
    [[nodiscard]] TKdsColumn* MasterField() const noexcept { return fMasterField; }
    // Of a reference column: the key column beside it, and the master's column that it shows.
    [[nodiscard]] TKdsColumn* SourceField() const noexcept { return fSourceField; }
    [[nodiscard]] TKdsColumn* TargetField() const noexcept { return fTargetField; }
    // Reads its values from rows of another table.
    [[nodiscard]] bool LooksUp() const noexcept {
        return fOccurences.HasAny({coReference, coVirtualKey});
    }
    // What such a column shows of a master row.
    [[nodiscard]] TKdsColumn* Shown() const noexcept {
        return fTargetField != nullptr ? fTargetField : fMasterField;
    }
    // A virtual key, or a reference beside one: no value tells which master row is meant, only the
    // key itself does.
    [[nodiscard]] bool IsVirtual() const noexcept {
        return (fSourceField != nullptr ? fSourceField : this)->GetIsVirtualKey();
    }
    // Resolves on the first read. What has no value to resolve cannot.
    [[nodiscard]] bool IsLazy() const noexcept {
        return fOccurences.Has(coLazyLookup) && !IsVirtual();
    }
    // Of such a column: the one whose slot has the key.
    [[nodiscard]] const TKdsColumn* KeyHolder() const noexcept {
        return fFirstFollower != nullptr ? fFirstFollower : this;
    }
    // Whether keys of the two tables have one form: not so once a type was changed, and then
    // nothing is found.
    [[nodiscard]] bool CanResolve() const noexcept {
        const TKdsColumn* const source = fSourceField != nullptr ? fSourceField : this;
        return fMasterField != nullptr && (!fIsReference || fSourceField != nullptr) &&
               HaveSameForm(source->fDataType, fMasterField->fDataType);
    }
    // Of a reference column: shows another column of the master; nullptr stands for the row itself.
    // CircularReference when that one looks back here.
    void SetTargetField(TKdsColumn* value);
    // Of a reference column: what it shows of the master row with this key, or "#wrong lookup".
    [[nodiscard]] TVariant LookupValue(const TVariant& value) const;

    // Calculated and without room in the buffer.
    [[nodiscard]] bool IsComputed() const noexcept {
        return fOccurences.HasAll({coCalculated, coDontStore});
    }
    [[nodiscard]] bool IsDelayed() const noexcept { return fOccurences.Has(coDelayedCalc); }
    // Of a column that is calculated by an expression; nullptr for others, and while there is an
    // ExpressionError.
    [[nodiscard]] IExpressionEvaluator* Evaluator() const;
    // What is read is calculated by then, not kept from before.
    [[nodiscard]] bool CalculatesOnRead() const noexcept { return IsComputed() || IsDelayed(); }

protected:
    TKdsColumn(std::u16string_view name, TKdsDataType type, std::int32_t length);
    ~TKdsColumn() override = default;
    void Teardown() noexcept override;

private:
    friend class TKdsTableColumnList;
    friend class TKdsRecord;
    friend class TKdsStringManager;
    friend class TKdsTable;
    friend class TKdsTableReader;

    // Prepare, store, confirm; `layout` tells whether the record layout follows. A refusal leaves
    // the column as it was.
    template <typename F>
    void Change(bool layout, F&& store);
    void SetAttribute(TKdsAttribute attribute, bool value);
    // There is none after the last number of its kind: that one stays.
    [[nodiscard]] std::int64_t NumberAfter(std::int64_t number) const noexcept {
        std::int64_t next = 0;
        return __builtin_add_overflow(number, fAutoIncStep, &next) ? number : next;
    }
    void UpdateDataSize() noexcept;
    void UpdateOccurences() noexcept;
    void TakeShapeOf(const TKdsColumn* shown);
    void CheckAttributes(TKdsAttributes value, TKdsLookupKind kind);
    [[nodiscard]] TIntf<IExpressionEvaluator> CompileIn(TKdsTableColumnList* list,
                                                        std::u16string_view text) const;
    void CompileAnew(TKdsTableColumnList* list);
    void DropEvaluator() noexcept;
    void GiveUpExpression();
    void CheckVirtual(TKdsTable* master, TKdsColumn* field, TKdsLookupKind kind);
    void CheckCircle(const TKdsColumn* shown) const;
    void FindPath() const;
    void ForgetMaster() noexcept;
    void ForgetMasterColumn(const TKdsColumn* column) noexcept;
    static void CheckLength(std::u16string_view name, std::int32_t length);

    TKdsAttributes fAttributes{caAllowNull};
    std::int32_t fAutoIncSeed = 0;
    std::int32_t fAutoIncStep = 0;
    TIntf<IKdsCustomData> fCustomData;
    std::int32_t fDataOffset = 0;
    std::int32_t fDataSize = 0;
    TKdsDataType fDataType;
    std::int32_t fDecimals = -1;
    TVariant fDefaultValue;
    std::u16string fDescription, fDictionary, fDisplayLabel, fDisplayMask;
    std::u16string fExpression;
    TIntf<IExpressionEvaluator> fEvaluator;  // of the expression,
    std::uint32_t fEvaluatorLayout = 0;      // for the columns of then; 0: to be compiled
    std::exception_ptr fExpressionError;
    TIntf<IKdsFormat> fFormatter;
    TIntf<IKdsRender> fRenderer;
    std::int32_t fIndex = -1;
    std::int32_t fIndexOrig = -1;
    std::int32_t fLength;
    std::uint32_t fNullMask = 0;
    std::int32_t fNullOffset = 0;
    TKdsOccurences fOccurences;
    std::int32_t fPrecision = -1;
    TKdsVisibility fVisibility = viRegular;
    TKdsGetValueEvent fOnGetValue;
    mutable TIntf<TKdsDictionary> fVocabulary;  // found under the name, until it is dropped
    std::u16string fLookupFilter;
    mutable TIntf<IExpressionEvaluator> fLookupEvaluator;  // of the filter,
    mutable std::uint32_t fLookupLayout = 0;               // for the master's columns of then
    std::int64_t fAutoIncNext = 0;
    TKdsTable* fMasterTable = nullptr;
    TKdsColumn* fMasterField = nullptr;
    TKdsColumn* fSourceField = nullptr;
    TKdsColumn* fTargetField = nullptr;
    bool fIsReference = false;
    bool fIsLookupKey = false;             // reference columns follow its values:
    TKdsColumn* fFirstFollower = nullptr;  // they are linked one to the next
    TKdsColumn* fNextFollower = nullptr;
    TKdsLookupKind fLookupKind = lkNormal;
    mutable TKdsLookupPath fPath;
};

// A list of columns that somebody else owns, or the table's own.
class TKdsColumnList : public TKdsNameList {
public:
    using TKdsNameList::Items;
    [[nodiscard]] TKdsColumn* Items(std::int32_t index) const {
        return static_cast<TKdsColumn*>(TKdsNameList::Items(index));
    }
    // Unchecked.
    [[nodiscard]] TKdsColumn* GetItem(std::int32_t index) const {
        return static_cast<TKdsColumn*>(fItems[static_cast<std::size_t>(index)]);
    }

    // Range-for over the columns, in list order; good until the list changes.
    class TIterator {
    public:
        explicit TIterator(TKdsItem* const* place) noexcept : fPlace(place) {}
        TKdsColumn* operator*() const noexcept { return static_cast<TKdsColumn*>(*fPlace); }
        TIterator& operator++() noexcept {
            ++fPlace;
            return *this;
        }
        friend bool operator==(TIterator, TIterator) = default;

    private:
        TKdsItem* const* fPlace;
    };
    [[nodiscard]] TIterator begin() const noexcept { return TIterator(fItems.data()); }
    [[nodiscard]] TIterator end() const noexcept { return TIterator(fItems.data() + fCount); }

protected:
    using TKdsNameList::TKdsNameList;
    ~TKdsColumnList() override = default;
};

class TKdsTableColumnList final : public TKdsColumnList {
public:
    TKdsColumn* Add(TOwned<TKdsColumn>&& column);
    TKdsColumn* Add(std::u16string_view name, TKdsDataType type,
                    std::int32_t length = DefaultVariableLength);
    // From texts, as column descriptions hold them: the type by its display name, the length a
    // number or empty, the attributes words separated by blanks (notnull, readonly, caseless).
    TKdsColumn* Add(std::u16string_view name, std::u16string_view type, std::u16string_view length);
    TKdsColumn* Add(std::u16string_view name, std::u16string_view type, std::u16string_view length,
                    std::u16string_view displayLabel, std::u16string_view attributes);
    // A reference column: shows a column of the master row that the foreign key beside it leads to,
    // or with no target that row itself. A short lookup takes 2 bytes a row instead of 8 and serves
    // masters of up to 65535 rows. LookupReference when the key column is no foreign key,
    // FieldPrimaryKey when what it refers to is not the master's whole primary key,
    // StaticLookupLong for a short lookup into too many rows.
    TKdsColumn* AddLookup(std::u16string_view name, std::u16string_view keyColumn,
                          std::u16string_view targetColumn = {}, TKdsLookupKind kind = lkNormal);
    [[nodiscard]] TKdsColumn* Find(std::u16string_view name) const;
    // Raises NameNotFound with the qualified name.
    [[nodiscard]] TKdsColumn* Columns(std::u16string_view name) const;
    [[nodiscard]] TKdsName* FindByName(std::u16string_view name) const override;
    [[nodiscard]] std::u16string QualifyName(std::u16string_view name) const override;
    // By name; refused while the table holds records, because the order fixes the layout.
    void Sort() override;

    using TKdsColumnList::Handle;
    void Handle(TNotification* notification) override;
    [[nodiscard]] const TKdsLayout& Layout() const noexcept { return fLayout; }
    [[nodiscard]] TKdsOccurences Occurences() const noexcept { return fOccurences; }
    // Some column reads another table.
    [[nodiscard]] bool LooksUp() const noexcept {
        return fOccurences.HasAny({coReference, coVirtualKey});
    }
    [[nodiscard]] std::int32_t RecordSize() const noexcept { return fLayout.RecordSize(); }
    [[nodiscard]] std::int32_t NullOffset() const noexcept { return fLayout.NullOffset(); }
    [[nodiscard]] std::int32_t NullBytes() const noexcept { return fLayout.NullBytes(); }
    [[nodiscard]] TKdsTable* Table() const noexcept { return fTable; }
    [[nodiscard]] bool IsConsistent() const override;

    // ---- Calculated columns ----
    // Compiles what has to be compiled since the columns have changed.
    void PrepareExpressions() {
        if (!fExpressionsReady) MakeExpressions();
    }
    // Those that are calculated when a row is posted, each behind those that it reads. What a
    // routine of the host reads nobody knows: otherwise they are in column order.
    [[nodiscard]] const std::vector<TKdsColumn*>& CalculationOrder() {
        PrepareExpressions();
        return fCalculationOrder;
    }

protected:
    void DoSwitch(std::int32_t from, std::int32_t to) override;

private:
    friend class TKdsColumn;
    friend class TKdsTable;
    explicit TKdsTableColumnList(TKdsTable* table);
    ~TKdsTableColumnList() override = default;
    void CheckRestructure(TNotification* notification) const;
    void ReserveFor(const TNotification& notification);
    void Follow(TNotification* notification);
    void Relayout();
    void UpdateNotNull();
    void MarkLookupKeys() noexcept;
    void ForgetColumn(const TKdsColumn* column) noexcept;
    void UpdateNameIndex(TNotification* notification);
    // ---- Calculated columns ----
    void MakeExpressions();
    void CheckCircle(const TKdsColumn* column, const IExpressionEvaluator& evaluator) const;
    [[nodiscard]] std::vector<TKdsColumn*> SameRowReads(const TKdsColumn* column) const;
    void ExpressionsChanged(const TKdsColumn* column) noexcept;

    TKdsStringList fNames;
    TKdsLayout fLayout;
    TKdsOccurences fOccurences;
    TKdsTable* fTable;
    bool fExpressionsReady = false;
    std::vector<TKdsColumn*> fCalculationOrder;
};

// All columns that reads of these columns read, themselves first and each once: through keys into
// other tables, and through expressions that are calculated on reading.
[[nodiscard]] std::vector<TKdsColumn*> ColumnsReadBy(std::vector<TKdsColumn*> columns);

template <typename F>
void TKdsColumn::Change(bool layout, F&& store) {
    TKdsTravelGuard guard;
    const std::int32_t index = layout ? 1 : 0;
    Notify(acPrepareUpdate, nullptr, index);
    store();
    UpdateDataSize();
    UpdateOccurences();
    Notify(acConfirmUpdate, nullptr, index);
}

}  // namespace kds
