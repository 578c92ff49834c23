#include "kds/core/Kdsstrings.h"

#include <algorithm>

#include "kds/core/Kdserrors.h"
#include "kds/platform/Text.h"

namespace kds {

const std::u16string& TKdsStringList::Strings(std::int32_t index) const {
    if (index < 0 || index >= Count()) ListIndexError(index);
    return fEntries[static_cast<std::size_t>(index)].Name;
}

TObject* TKdsStringList::Objects(std::int32_t index) const {
    if (index < 0 || index >= Count()) ListIndexError(index);
    return fEntries[static_cast<std::size_t>(index)].Object;
}

bool TKdsStringList::Find(std::u16string_view name, std::int32_t& index) const {
    const auto place = std::lower_bound(fEntries.begin(), fEntries.end(), name,
                                        [this](const TEntry& entry, std::u16string_view sought) {
                                            return CompareStrings(entry.Name, sought) < 0;
                                        });
    index = static_cast<std::int32_t>(place - fEntries.begin());
    return place != fEntries.end() && CompareStrings(place->Name, name) == 0;
}

TObject* TKdsStringList::FindObject(std::u16string_view name) const {
    std::int32_t index = 0;
    return Find(name, index) ? fEntries[static_cast<std::size_t>(index)].Object : nullptr;
}

std::int32_t TKdsStringList::Add(std::u16string_view name, TObject* object) {
    std::int32_t index = 0;
    if (!Find(name, index)) InsertItem(index, name, object);
    return index;
}

void TKdsStringList::Reserve(std::u16string_view name) {
    if (fEntries.size() == fEntries.capacity()) {
        fEntries.reserve(fEntries.size() + fEntries.size() / 2 + 4);
    }
    fSpare = name;
}

void TKdsStringList::Delete(std::int32_t index) {
    if (index < 0 || index >= Count()) ListIndexError(index);
    fEntries.erase(fEntries.begin() + index);
}

std::int32_t TKdsStringList::IndexOfObject(const TObject* object) const noexcept {
    const auto found = std::ranges::find(fEntries, object, &TEntry::Object);
    return found == fEntries.end() ? -1 : static_cast<std::int32_t>(found - fEntries.begin());
}

bool TKdsStringList::IsConsistent() const {
    return std::ranges::adjacent_find(fEntries, [this](const TEntry& a, const TEntry& b) {
               return CompareStrings(a.Name, b.Name) >= 0;
           }) == fEntries.end();
}

void TKdsStringList::InsertItem(std::int32_t index, std::u16string_view name, TObject* object) {
    for (const char16_t character : name) {
        if (character > 127) KdsError(u"Object name cannot contain '%s' character", {character});
    }
    TEntry entry{{}, object};
    if (fSpare == name) {
        entry.Name.swap(fSpare);
    } else {
        entry.Name = name;
    }
    fEntries.insert(fEntries.begin() + index, std::move(entry));
}

std::int32_t TKdsStringList::CompareStrings(std::u16string_view a, std::u16string_view b) const {
    return CompareText(a, b, !fCaseSensitive);
}

TAnsiString TKdsStringManager::ReferString(const TKdsColumn*, std::string_view text) {
    return TAnsiString(text);
}

void TKdsStringManager::ClearString(const TKdsColumn*, TAnsiString& text) noexcept {
    text = TAnsiString();
}

}  // namespace kds
