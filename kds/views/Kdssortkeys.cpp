#include "kds/views/Kdssortkeys.h"

#include <cstring>

#include "kds/core/Kdsswapper.h"

namespace kds {
namespace {

// Of the column that finally answers.
TKdsDataType TypeOf(const TKdsColumn* column) noexcept {
    while (column->LooksUp() && column->Shown() != nullptr) column = column->Shown();
    return column->DataType();
}

}  // namespace

TKdsSortKeys::TKdsSortKeys(const TKdsOrderColumnList& columns) : fColumns(columns) {
    fLayout.Reset(columns.Count());
    for (const TKdsColumn* const column : columns) {
        const TKdsDataType type = TypeOf(column);
        if (IsTextType(type)) {
            const TKdsDataType held = type == dtWideString ? dtWideString : dtMemoString;
            fLayout.Add(held, skMemo, sizeof(void*), /*delayed=*/false);
        } else {
            fLayout.Add(type, skPlain, DataSize(type), /*delayed=*/false);
        }
    }
    fLayout.Finish();
    fPlan.CompileKeys(columns, fLayout);
    fStride = static_cast<std::size_t>(fLayout.RecordSize());
}

bool TKdsSortKeys::CanCopy(const TKdsOrderColumnList& columns) {
    for (const TKdsColumn* const column : columns) {
        if (TypeOf(column) == dtCustomData) return false;
    }
    return true;
}

bool TKdsSortKeys::Read(const std::vector<void*>& records) {
    fBlocks.assign(records.size() * fStride, std::byte{0});
    std::byte* block = fBlocks.data();
    for (void* const item : records) {
        auto* const record = static_cast<TKdsRecord*>(item);
        const TKdsRowPin pin(
            record);  // one read of a row that is out, whatever its columns lead to
        if (!Take(record, block)) return false;
        block += fStride;
    }
    return true;
}

bool TKdsSortKeys::Take(TKdsRecord* record, std::byte* block) {
    std::int32_t index = 0;
    for (const TKdsColumn* const column : fColumns) {
        const TKdsSlot& slot = fLayout.Slot(index++);
        TKdsValue value;
        if (!ReadOrderKey(record, column, TKdsReading::Posted, fScratch, value)) continue;
        if (slot.Kind == skMemo) {
            const bool isWide = slot.Type == dtWideString;
            if (isWide ? value.Type != dtWideString : !IsAnsiType(value.Type)) return false;
            const std::size_t unit = isWide ? sizeof(char16_t) : 1;
            fTexts.emplace_back(std::string_view(reinterpret_cast<const char*>(value.Data),
                                                 static_cast<std::size_t>(value.Size) * unit));
            void* const handle = fTexts.back().Detach();
            fTexts.back() = TAnsiString::Attach(handle);
            StoreRaw(block + slot.Offset, handle);
        } else {
            if (value.Type != slot.Type || value.Size != slot.Size) return false;
            std::memcpy(block + slot.Offset, value.Data, static_cast<std::size_t>(slot.Size));
        }
        slot.MarkValue(block);
    }
    return true;
}

}  // namespace kds
