// Sorted name lists with attached objects, and the store's path to 8-bit texts.
//
// Shape      TKdsStringList keeps its names sorted, each once, with an object beside it. Names are
//            7-bit. TKdsStringManager hands record code its 8-bit strings; without a dictionary
//            every value holds a string of its own.
// Ownership  The list borrows the objects. Strings are counted by their holders.
// Errors     A name with a character above code 127 raises EKdsError and changes nothing.
// Cost       Find O(log n) comparisons; Add and Delete O(n) moves.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kds/platform/Ansistring.h"
#include "kds/platform/Object.h"

namespace kds {

class TKdsColumn;

class TKdsStringList : public TObject {
public:
    explicit TKdsStringList(bool caseSensitive = false) noexcept : fCaseSensitive(caseSensitive) {}
    ~TKdsStringList() override = default;

    [[nodiscard]] std::int32_t Count() const noexcept {
        return static_cast<std::int32_t>(fEntries.size());
    }
    [[nodiscard]] const std::u16string& Strings(std::int32_t index) const;
    [[nodiscard]] TObject* Objects(std::int32_t index) const;
    // Whether the name is there; `index` is its position, or the one where it belongs.
    [[nodiscard]] bool Find(std::u16string_view name, std::int32_t& index) const;
    [[nodiscard]] TObject* FindObject(std::u16string_view name) const;
    // Answers the position; a name that is there already stays with its first object.
    std::int32_t Add(std::u16string_view name, TObject* object);
    // Sees to it that adding this name next needs no memory.
    void Reserve(std::u16string_view name);
    void Delete(std::int32_t index);
    // Position of the first entry with this object, -1 when there is none. O(n).
    [[nodiscard]] std::int32_t IndexOfObject(const TObject* object) const noexcept;
    void Clear() noexcept { fEntries.clear(); }
    [[nodiscard]] bool IsConsistent() const;

protected:
    virtual void InsertItem(std::int32_t index, std::u16string_view name, TObject* object);
    [[nodiscard]] virtual std::int32_t CompareStrings(std::u16string_view a,
                                                      std::u16string_view b) const;

private:
    struct TEntry {
        std::u16string Name;
        TObject* Object;
    };
    std::vector<TEntry> fEntries;
    std::u16string fSpare;  // the name that Reserve put by
    bool fCaseSensitive;
};

class TKdsStringManager : public TObject {
public:
    TKdsStringManager() = default;
    ~TKdsStringManager() override = default;
    // A string of these bytes for a value of the column.
    [[nodiscard]] TAnsiString ReferString(const TKdsColumn* column, std::string_view text);
    // Gives back what ReferString answered for the same column.
    void ClearString(const TKdsColumn* column, TAnsiString& text) noexcept;
    void Clear() noexcept {}
};

}  // namespace kds
