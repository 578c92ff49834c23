// Any bytes as a table stream: rows that save and load alike, or an error and nothing changed.
#include <cstddef>
#include <cstdint>

#include "kds/kds.h"

namespace {

using TBytes = std::vector<std::byte>;

class TLength final : public kds::IInterface {
public:
    explicit TLength(std::size_t size) : Size(size) {}
    const std::size_t Size;
};
class TLengthData final : public kds::IKdsCustomData {
public:
    [[nodiscard]] TBytes Write(const kds::IInterface* value) override {
        return TBytes(dynamic_cast<const TLength&>(*value).Size);
    }
    [[nodiscard]] kds::TIntf<kds::IInterface> Read(std::span<const std::byte> bytes) override {
        return kds::MakeIntf<TLength>(bytes.size());
    }
};

// One without columns, or one with a column of each kind.
kds::TOwned<kds::TKdsStore> MakeStore(std::u16string_view name, bool defined, bool strips) {
    kds::TOwned<kds::TKdsStore> store(kds::TKdsStore::Create(name));
    kds::TKdsTable* const table = store->Tables()->Add(u"T");
    if (!defined) return store;
    if (strips) table->SetOptions({kds::mtoStripNulls});
    kds::TKdsTableColumnList* const columns = table->Columns();
    columns->Add(u"Id", kds::dtInteger);
    columns->Add(u"Text", kds::dtAnsiString, 3);
    columns->Add(u"Wide", kds::dtWideString, 2);
    columns->Add(u"Memo", kds::dtMemoString)->SetDictionary(u"words:7");
    columns->Add(u"Data", kds::dtCustomData)->SetCustomData(kds::MakeIntf<TLengthData>());
    columns->Add(u"Boss", kds::dtInteger)->ForeignKey(u"T", u"Id");
    columns->Columns(u"Boss")->SetVirtualKey(true);
    columns->Add(u"Price", kds::dtFixed);
    columns->Add(u"When", kds::dtDateTime);
    columns->Add(u"Chief", kds::dtMemoString)->ForeignKey(u"T", u"Memo");
    columns->Columns(u"Chief")->SetVirtualKey(true);
    table->SetPrimaryKey(u"Id");
    static_cast<void>(table->Select(u"Boss, Price desc, When, Text"));
    return store;
}

TBytes Saved(kds::TKdsTable* table) {
    kds::TMemoryStream stream;
    static_cast<void>(table->SaveToStream(stream));
    return stream.Bytes();
}

}  // namespace

// The first byte chooses the table: its lowest bits whether it is defined, strips nulls, has a row.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const bool defined = (data[0] & 1) != 0, strips = (data[0] & 2) != 0;
    const auto store = MakeStore(u"One", defined, strips);
    kds::TKdsTable* const table = store->Tables()->Tables(u"T");
    if (defined && (data[0] & 4) != 0) table->Insert({1, u"one", u"on", u"one"});
    const auto* const bytes = reinterpret_cast<const std::byte*>(data);
    kds::TMemoryStream stream(TBytes(bytes + 1, bytes + size));
    const TBytes before = Saved(table);
    try {
        static_cast<void>(table->LoadFromStream(stream));
    } catch (const kds::EKdsStreamError& error) {
        if (Saved(table) != before || error.Offset() < 0) __builtin_trap();
        return 0;
    }
    if (table->Inconsistency() != nullptr) __builtin_trap();
    for (kds::TKdsRecord* const row : *table->Records()) {
        for (std::int32_t i = 0; i < table->Columns()->Count(); ++i) {
            if (i != 4) static_cast<void>(row->Format(i));
        }
    }
    const TBytes after = Saved(table);
    const auto other = MakeStore(u"Two", defined, strips);
    kds::TKdsTable* const copy = other->Tables()->Tables(u"T");
    kds::TMemoryStream again(after);
    static_cast<void>(copy->LoadFromStream(again));
    if (copy->Records()->Count() != table->Records()->Count()) __builtin_trap();
    return 0;
}
