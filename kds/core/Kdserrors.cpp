#include "kds/core/Kdserrors.h"

#include <array>

#include "kds/platform/Translator.h"

namespace kds {
namespace {

// The texts are fixed letter for letter: translation files and hosts look for them.
constexpr auto KdsMessages = std::to_array<TMessage>({
    {u"NameNotFound", u"Item named \"%s\" not found"},
    {u"DuplicateName", u"Duplicate item name \"%s\""},
    {u"TablePartOfStore", u"Table %s should be a part of a Store"},
    {u"FieldPrimaryKey", u"\"%s\" should be unique (primary key) of table \"%s\""},
    {u"CannotRestructure", u"Cannot change structure for non-empty table \"%s\""},
    {u"ColumnReadonly", u"Column \"%s\" is read only"},
    {u"ColumnNotNull", u"Column \"%s.%s\" cannot contain null"},
    {u"CannotModifyRecord", u"Record is not in editable state"},
    {u"CannotInsertRecord", u"Record cannot be inserted"},
    {u"CannotDeleteRecord", u"Record cannot be deleted"},
    {u"RecordAlreadyEdits", u"Record is already editable"},
    {u"RecordStateInvalid", u"Invalid operation for record state"},
    {u"DataBufferMismatch", u"Datatype buffer length mismatch %s.%s"},
    {u"DataTypeUnsupported", u"Unsupported datatype!!!"},
    {u"DataBufferOverflow", u"Value too big to fit in column %s.%s"},
    {u"CannotConvertValue", u"Cannot convert value to column datatype"},
    {u"CannotCompareValue", u"Data type not supported in comparison"},
    {u"CantCompareRecords", u"Cannot compare records"},
    {u"DuplicateRecords", u"Duplicate rows for \"%s\""},
    {u"InvalidUniqueKey", u"Unique key invalid (no columns)"},
    {u"UniqueViolated", u"Unique constraint \"%s\" violated"},
    {u"CannotLookupVariant", u"Cannot represent references as variant"},
    {u"LookupReference", u"Only reference columns can be looked up"},
    {u"ColumnTypeInternal", u"Cannot explicitly create columns of internal type"},
    {u"SinglePrimaryKey", u"Table already has a primary key"},
    {u"DefaultViewChange", u"Cannot change options for default table view"},
    {u"PrimaryViewChange", u"Cannot change options for primary table view"},
    {u"StreamReadError", u"Cannot load data from stream"},
    {u"ColumnForeignKey", u"Column %s already defined as foreign key to %s"},
    {u"UnresolvedLookup", u"#wrong lookup"},
    {u"DataTypeMismatch", u"%s.%s datatype doesn`t match %s.%s"},
    {u"StaticLookupLong", u"Table \"%s\" too large to be referenced by short lookup \"%s.%s\""},
    {u"MaximumCapacity", u"List size limit exceeded"},
});
static_assert(KdsMessages.size() == 33);

}  // namespace

std::u16string GetMessageText(std::u16string_view key) {
    return MessageText(u"Kds.Errors", KdsMessages, key);
}

EKdsStreamError::EKdsStreamError(std::u16string_view cause, std::int64_t offset)
    : EKdsError(GetMessageText(u"StreamReadError")),
      fCause(std::make_shared<const std::u16string>(cause)),
      fOffset(offset) {}

void KdsError(std::u16string_view key) { throw EKdsError(GetMessageText(key)); }

void KdsError(std::u16string_view key, std::initializer_list<TFormatArg> arguments) {
    throw EKdsError(Format(GetMessageText(key), arguments));
}

}  // namespace kds
