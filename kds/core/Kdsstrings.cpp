#include "kds/core/Kdsstrings.h"

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "kds/core/Kdscolumns.h"
#include "kds/core/Kdserrors.h"
#include "kds/platform/Bytes.h"
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

// ---- TKdsDictionary -----------------------------------------------------------------------

namespace {

__extension__ typedef unsigned __int128 TWide;

constexpr std::uint32_t UsualBucketCount = 11'027;
constexpr std::int32_t ItemMemory = 16;    // accounted for an item
constexpr std::int32_t StringMemory = 17;  // and for a text besides its bytes

// Accounts wrap like the 32-bit numbers they are.
std::int32_t Wrapped(std::uint32_t value) noexcept { return static_cast<std::int32_t>(value); }

std::uint32_t TextMemory(const TAnsiString& text) noexcept {
    return text.Empty() ? 0 : static_cast<std::uint32_t>(text.Size() + StringMemory);
}

struct TSpecification {
    std::u16string_view Name;
    std::uint32_t BucketCount;
};

// "name" or "name:buckets".
TSpecification ReadSpecification(std::u16string_view text) noexcept {
    const std::size_t colon = text.find(u':');
    if (colon == text.npos) return {text, UsualBucketCount};
    constexpr auto usual = static_cast<std::int32_t>(UsualBucketCount);
    const std::int32_t count = TextToIntDef(text.substr(colon + 1), usual);
    return {text.substr(0, colon),
            count < 0 ? UsualBucketCount : static_cast<std::uint32_t>(count)};
}

}  // namespace

TKdsDictionary::TKdsDictionary(std::uint32_t bucketCount)
    : fBuckets(bucketCount),
      fReciprocal(bucketCount == 0 ? 0 : ~std::uint64_t{0} / bucketCount + 1) {}

TKdsDictionary::~TKdsDictionary() { Clear(); }

namespace {

// Eight bytes as digits in base 31, the first one the highest: neighbours are joined into pairs,
// pairs into fours, side by side in one word.
std::uint32_t DigitsOf(std::uint64_t bytes) noexcept {
    constexpr std::uint64_t oneByteOfTwo = 0x00ff'00ff'00ff'00ff;
    constexpr std::uint64_t twoBytesOfFour = 0x0000'ffff'0000'ffff;
    const std::uint64_t pairs = (bytes & oneByteOfTwo) * 31 + (bytes >> 8 & oneByteOfTwo);
    const std::uint64_t fours = (pairs & twoBytesOfFour) * 961 + (pairs >> 16 & twoBytesOfFour);
    return static_cast<std::uint32_t>(fours) * 923'521 + static_cast<std::uint32_t>(fours >> 32);
}

#if defined(__SSE2__)
// Sixteen bytes as digits in base 31, the first one the highest.
std::uint32_t SixteenDigits(const char* text) noexcept {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    const __m128i zero = _mm_setzero_si128();
    const __m128i ofTwo = _mm_set1_epi32(1 << 16 | 31);
    const __m128i ofFour = _mm_set1_epi32(1 << 16 | 961);
    const __m128i pairs = _mm_packs_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(bytes, zero), ofTwo),
                                          _mm_madd_epi16(_mm_unpackhi_epi8(bytes, zero), ofTwo));
    const __m128i fours = _mm_madd_epi16(pairs, ofFour);
    const __m128i eights =
        _mm_add_epi32(_mm_mul_epu32(fours, _mm_set1_epi32(923'521)), _mm_srli_epi64(fours, 32));
    const auto high = static_cast<std::uint32_t>(_mm_cvtsi128_si32(eights));
    const auto low =
        static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(eights, eights)));
    return high * (923'521u * 923'521u) + low;
}
#endif

// A text of usual size is compared without a call.
bool SameBytes(const char* a, const char* b, std::size_t size) noexcept {
#if defined(__SSE2__)
    constexpr std::size_t step = 16;
    if (size >= step && size <= 8 * step) {
        const auto difference = [&](std::size_t at) {
            return _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a + at)),
                                 _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + at)));
        };
        __m128i all = difference(size - step);
        for (std::size_t at = 0; at + step < size; at += step) {
            all = _mm_or_si128(all, difference(at));
        }
        return _mm_movemask_epi8(_mm_cmpeq_epi8(all, _mm_setzero_si128())) == 0xffff;
    }
#endif
    return std::memcmp(a, b, size) == 0;
}

// QUIRK: texts are compared as far as a zero byte, like C strings. Two texts of one length that
// differ behind one are the same to the pool when they share a bucket, and the second one reads as
// the first.
bool SameAsFarAsZero(const char* a, const char* b, std::size_t size) noexcept {
    return size == 0 || SameBytes(a, b, size) || std::strncmp(a, b, size) == 0;
}

// h := h * 31 + byte for each byte.
inline std::uint32_t HashBytes(const char* text, std::int32_t length) noexcept {
    constexpr std::uint32_t eighthPower = 923'521u * 923'521u;
    std::uint32_t hash = 0;
#if defined(__SSE2__)
    for (; length >= 16; length -= 16, text += 16) {
        hash = hash * (eighthPower * eighthPower) + SixteenDigits(text);
    }
#endif
    for (; length >= 8; length -= 8, text += 8) {
        hash = hash * eighthPower + DigitsOf(LoadRaw<std::uint64_t>(text));
    }
    for (; length > 0; --length) hash = hash * 31 + static_cast<unsigned char>(*text++);
    return hash;
}

}  // namespace

std::uint32_t TKdsDictionary::HashOf(const char* text, std::int32_t length) noexcept {
    return HashBytes(text, length);
}

// The hash modulo the bucket count: the fraction of hash / count, times count. Exact for 32 bits,
// and far cheaper than a division.
inline std::size_t TKdsDictionary::BucketOf(const char* text, std::int32_t length) const {
    if (fReciprocal == 0) {  // of none and of one
        if (fBuckets.empty()) throw EDivByZero(u"A dictionary of no buckets");
        return 0;
    }
    const std::uint64_t fraction = fReciprocal * HashBytes(text, length);
    return static_cast<std::size_t>((static_cast<TWide>(fraction) * fBuckets.size()) >> 64);
}

[[gnu::always_inline]] inline THashItem** TKdsDictionary::Locate(const char* text,
                                                                 std::int32_t length) {
    THashItem** link = &fBuckets[BucketOf(text, length)];
    const auto size = static_cast<std::size_t>(std::max(length, 0));
    for (; *link != nullptr; link = &(*link)->Next) {
        const std::string_view key = (*link)->Key.View();
        if (key.size() == size && SameAsFarAsZero(key.data(), text, size)) break;
    }
    return link;
}

THashItem** TKdsDictionary::Find(const char* text, std::int32_t length) {
    return Locate(text, length);
}

void TKdsDictionary::Add(const TAnsiString& text) {
    THashItem*& head = fBuckets[BucketOf(text.View().data(), text.Size())];
    head = new THashItem{head, text};
    fStringMemory = Wrapped(static_cast<std::uint32_t>(fStringMemory) + TextMemory(text));
    fCount = Wrapped(static_cast<std::uint32_t>(fCount) + 1);
}

void TKdsDictionary::Remove(THashItem** link) noexcept {
    THashItem* const item = *link;
    if (item == nullptr) return;
    *link = item->Next;
    fStringMemory = Wrapped(static_cast<std::uint32_t>(fStringMemory) - TextMemory(item->Key));
    fCount = Wrapped(static_cast<std::uint32_t>(fCount) - 1);
    delete item;
}

// QUIRK: the count stays, so that Memory tells of items that are gone.
void TKdsDictionary::Clear() noexcept {
    for (THashItem*& head : fBuckets) {
        while (head != nullptr) delete std::exchange(head, head->Next);
    }
    fStringMemory = 0;
}

std::int32_t TKdsDictionary::Memory() const noexcept {
    return Wrapped(Size() * std::uint32_t{sizeof(void*)} +
                   static_cast<std::uint32_t>(fCount) * std::uint32_t{ItemMemory} +
                   static_cast<std::uint32_t>(fStringMemory));
}

void TKdsDictionary::Drop() noexcept {
    fDropped = true;
    Clear();
}

bool TKdsDictionary::IsConsistent() const noexcept {
    std::uint32_t memory = 0;
    for (std::size_t bucket = 0; bucket < fBuckets.size(); ++bucket) {
        for (const THashItem* item = fBuckets[bucket]; item != nullptr; item = item->Next) {
            const std::string_view key = item->Key.View();
            const auto length = static_cast<std::int32_t>(key.size());
            if (HashOf(key.data(), length) % fBuckets.size() != bucket) return false;
            memory += TextMemory(item->Key);
        }
    }
    return memory == static_cast<std::uint32_t>(fStringMemory);
}

// ---- TKdsStringManager --------------------------------------------------------------------

namespace {

TKdsDictionary* Usable(const TIntf<TKdsDictionary>& cached) noexcept {
    return cached && !cached->Dropped() ? cached.Get() : nullptr;
}

}  // namespace

// By name. Never makes one, so that giving a string back cannot fail.
TKdsDictionary* TKdsStringManager::FindDictionary(const TKdsColumn* column) const noexcept {
    if (column->fDictionary.empty()) return nullptr;
    const std::u16string_view name = ReadSpecification(column->fDictionary).Name;
    auto* const found = static_cast<TKdsDictionary*>(fDictionaries.FindObject(name));
    column->fVocabulary = TIntf<TKdsDictionary>(found);
    return found;
}

TKdsDictionary* TKdsStringManager::GetDictionary(const TKdsColumn* column) {
    if (TKdsDictionary* const cached = Usable(column->fVocabulary)) return cached;
    TKdsDictionary* const found = FindDictionary(column);
    if (found != nullptr || column->fDictionary.empty()) return found;
    const auto [name, bucketCount] = ReadSpecification(column->fDictionary);
    TIntf<TKdsDictionary> made = MakeIntf<TKdsDictionary>(bucketCount);
    fDictionaries.Add(name, made.Get());
    made->Retain();  // the list's share
    column->fVocabulary = std::move(made);
    return column->fVocabulary.Get();
}

TAnsiString TKdsStringManager::ReferString(const TKdsColumn* column, std::string_view text) {
    TKdsDictionary* const dictionary = GetDictionary(column);
    if (dictionary == nullptr) return TAnsiString(text);
    const THashItem* const item =
        *dictionary->Locate(text.data(), static_cast<std::int32_t>(text.size()));
    if (item != nullptr) return item->Key;
    TAnsiString made(text);
    dictionary->Add(made);
    return made;
}

// The variable and the pool: nobody else holds the text. Two records may hold one that a dropped
// dictionary had; what the pool has now under the same text is not that one and stays.
void TKdsStringManager::ClearString(const TKdsColumn* column, TAnsiString& text) noexcept {
    if (text.Empty()) return;
    if (text.RefCount() == 2) {
        TKdsDictionary* dictionary = Usable(column->fVocabulary);
        if (dictionary == nullptr) dictionary = FindDictionary(column);
        if (dictionary != nullptr && dictionary->Size() > 0) {
            THashItem** const link = dictionary->Find(text);
            if (*link != nullptr && (*link)->Key.SameInstance(text)) dictionary->Remove(link);
        }
    }
    text = TAnsiString();
}

void TKdsStringManager::Clear() noexcept {
    for (std::int32_t i = 0; i < fDictionaries.Count(); ++i) {
        TKdsDictionary* const dictionary = GetDictionaryList(i);
        dictionary->Drop();
        dictionary->Release();
    }
    fDictionaries.Clear();
}

TKdsDictionary* TKdsStringManager::GetDictionaryList(std::int32_t index) const {
    return static_cast<TKdsDictionary*>(fDictionaries.Objects(index));
}

}  // namespace kds
