// Sorted name lists with attached objects, and the pool that keeps equal 8-bit texts once.
//
// Shape      TKdsStringList keeps its names sorted, each once, with an object beside it. Names are
//            7-bit. TKdsDictionary is a hash set of texts: a chain of items for each bucket, the
//            latest first; its buckets are never more than it was made with. TKdsStringManager
//            holds dictionaries by name, and record code gets its 8-bit strings from it and gives
//            them back. A column without a dictionary gets a string of its own for every value.
// Units      Sizes are bytes. Memory is what the texts are accounted for, not what malloc gave.
// Ownership  The list borrows the objects. The manager and the columns that found a dictionary
//            share it. Strings are counted: a text that the pool and one record hold counts 2, and
//            goes when that record gives it back.
// Errors     A name with a character above code 127 raises EKdsError and changes nothing.
//            EDivByZero from every search in a dictionary of no buckets. std::bad_alloc.
// Cost       Find O(log n) comparisons; Add and Delete O(n) moves. A text O(its length) and the
//            length of its chain: with many times more texts than buckets, or with texts chosen so
//            that their hashes agree, every write searches a long chain. Name more buckets then.
// Validity   Clear of a manager drops its dictionaries: they are empty from then on, and a column
//            that still holds one looks its name up again at the next write. Strings that records
//            hold live on.
// Threads    One thread at a time; readers of values never count.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kds/platform/Ansistring.h"
#include "kds/platform/Interface.h"
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

// One pooled text.
struct THashItem {
    THashItem* Next;
    TAnsiString Key;  // the pool's own reference
};

class TKdsDictionary final : public TObject, public IInterface {
public:
    explicit TKdsDictionary(std::uint32_t bucketCount);
    ~TKdsDictionary() override;

    [[nodiscard]] static std::uint32_t HashOf(const char* text, std::int32_t length) noexcept;
    // The link that points at the text's item, or the empty one at the end of its chain.
    [[nodiscard]] THashItem** Find(const char* text, std::int32_t length);
    [[nodiscard]] THashItem** Find(const TAnsiString& text) {
        return Find(text.View().data(), text.Size());
    }
    void Add(const TAnsiString& text);  // also one that is there already
    void Remove(THashItem** link) noexcept;
    void Clear() noexcept;
    [[nodiscard]] std::int32_t Memory() const noexcept;
    [[nodiscard]] std::uint32_t Size() const noexcept {
        return static_cast<std::uint32_t>(fBuckets.size());
    }
    [[nodiscard]] std::int32_t Count() const noexcept { return fCount; }
    // Its manager does not know it any more.
    [[nodiscard]] bool Dropped() const noexcept { return fDropped; }
    void Drop() noexcept;
    [[nodiscard]] bool IsConsistent() const noexcept;

private:
    friend class TKdsStringManager;
    [[nodiscard]] std::size_t BucketOf(const char* text, std::int32_t length) const;
    [[nodiscard]] THashItem** Locate(const char* text, std::int32_t length);

    std::vector<THashItem*> fBuckets;
    std::int32_t fCount = 0;
    std::int32_t fStringMemory = 0;
    std::uint64_t fReciprocal;  // of the bucket count, in parts of 2 to the 64
    bool fDropped = false;
};

class TKdsStringManager : public TObject {
public:
    TKdsStringManager() = default;
    ~TKdsStringManager() override { Clear(); }
    // That of the column, made when it is the first to name it; nullptr when it names none.
    TKdsDictionary* GetDictionary(const TKdsColumn* column);
    // A string of these bytes for a value of the column.
    [[nodiscard]] TAnsiString ReferString(const TKdsColumn* column, std::string_view text);
    // Gives back what ReferString answered for the same column; leaves the variable empty.
    void ClearString(const TKdsColumn* column, TAnsiString& text) noexcept;
    void Clear() noexcept;
    [[nodiscard]] std::int32_t GetDictionaryCount() const noexcept { return fDictionaries.Count(); }
    [[nodiscard]] TKdsDictionary* GetDictionaryList(std::int32_t index) const;
    [[nodiscard]] const std::u16string& GetDictionaryName(std::int32_t index) const {
        return fDictionaries.Strings(index);
    }

private:
    [[nodiscard]] TKdsDictionary* FindDictionary(const TKdsColumn* column) const noexcept;

    TKdsStringList fDictionaries;
};

}  // namespace kds
