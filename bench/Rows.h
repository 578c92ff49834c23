// The rows that the store's benchmarks work on, and the same rows in the two peers.
//
// Shape      A row is 41 bytes of payload: int64 id (the key, 1 to RowCount), a 16-character
//            string, a double, an int32 group of a thousand and a date of twenty years that is
//            null in one row of ten. Names are random letters, so eight characters nearly always
//            tell two of them apart. Row i of every side holds the same values.
//            Each side has one operation for each of the works and keeps, per id, what its
//            users would keep: the record, the iterator, the id itself.
// Units      KDS_BENCH_ROWS sets the number of rows, a million by default.
// Errors     A result that is not right ends the benchmark with its error.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kds/kds.h"

namespace kds {

struct TRow {
    std::int64_t Id = 0;
    std::array<char, 16> Name{};
    double Value = 0;
    std::int32_t Group = 0;
    std::int32_t Date = 0;
    bool HasDate = false;

    [[nodiscard]] std::string_view NameText() const noexcept { return {Name.data(), Name.size()}; }
    friend bool operator==(const TRow&, const TRow&) = default;
};

inline std::int64_t RowCount() {
    static const std::int64_t count = [] {
        const char* const text = std::getenv("KDS_BENCH_ROWS");
        return text == nullptr ? 1'000'000 : std::strtoll(text, nullptr, 10);
    }();
    return count;
}

// The rows that one iteration of an edit touches: far apart, so that most of what it reads is cold.
inline constexpr std::int64_t BatchSize = 10'000;

class TRowSource {
public:
    explicit TRowSource(std::uint64_t seed) : fRandom(seed) {}
    TRow Row(std::int64_t id) {
        TRow row;
        row.Id = id;
        for (char& letter : row.Name) letter = static_cast<char>('a' + Below(26));
        row.Value = Value();
        row.Group = static_cast<std::int32_t>(Below(1000));
        row.HasDate = Below(10) != 0;
        if (row.HasDate) row.Date = 38'000 + static_cast<std::int32_t>(Below(7300));
        return row;
    }
    double Value() { return std::uniform_real_distribution<double>(0, 1e6)(fRandom); }
    std::int64_t Id() {
        return 1 + static_cast<std::int64_t>(Below(static_cast<std::uint64_t>(RowCount())));
    }
    std::vector<TRow> Batch(std::int64_t firstId) {
        std::vector<TRow> rows;
        for (std::int64_t i = 0; i < BatchSize; ++i) rows.push_back(Row(firstId + i));
        return rows;
    }
    // A batch of ids, each of them once.
    std::vector<std::int64_t> Ids() {
        const std::int64_t count = RowCount();
        std::vector<std::int64_t> ids;
        // Equal steps from a random start, in random order.
        const std::int64_t start = Id();
        const std::int64_t step = count / BatchSize;
        for (std::int64_t i = 0; i < BatchSize; ++i) ids.push_back((start + i * step) % count + 1);
        std::shuffle(ids.begin(), ids.end(), fRandom);
        return ids;
    }
    std::vector<TRow> BatchOf(const std::vector<std::int64_t>& ids) {
        std::vector<TRow> rows;
        for (const std::int64_t id : ids) rows.push_back(Row(id));
        return rows;
    }

private:
    std::uint64_t Below(std::uint64_t bound) { return fRandom() % bound; }
    std::mt19937_64 fRandom;
};

inline const std::vector<TRow>& Rows() {
    static const std::vector<TRow> rows = [] {
        TRowSource source(2'026'11'22);
        std::vector<TRow> made;
        made.reserve(static_cast<std::size_t>(RowCount()));
        for (std::int64_t id = 1; id <= RowCount(); ++id) made.push_back(source.Row(id));
        return made;
    }();
    return rows;
}

// What the users of a side hold of these rows.
inline std::int64_t IdIn(std::int64_t id) noexcept { return id; }
inline std::int64_t IdIn(const TRow& row) noexcept { return row.Id; }
template <typename TSide, typename T>
auto HandlesOf(const TSide& side, const std::vector<T>& rows) {
    std::vector<std::remove_cvref_t<decltype(side.Handle(1))>> handles;
    for (const T& row : rows) handles.push_back(side.Handle(IdIn(row)));
    return handles;
}

// ---- kds ------------------------------------------------------------------------------------

class TKdsSide {
public:
    explicit TKdsSide(std::u16string_view name, TKdsDataType text = dtAnsiString)
        : fStore(TKdsStore::Create(name)) {
        fTable = fStore->Tables()->Add(u"Rows");
        TKdsTableColumnList* const columns = fTable->Columns();
        fId = columns->Add(u"Id", dtInt64);
        fName = columns->Add(u"Name", text, 16);
        fValue = columns->Add(u"Value", dtDouble);
        fGroup = columns->Add(u"Group", dtInteger);
        fDate = columns->Add(u"Date", dtDate);
        for (TKdsColumn* const column : {fName, fValue, fGroup}) column->SetAllowNull(false);
        fTable->SetPrimaryKey(u"Id");
    }
    ~TKdsSide() { fStore->Free(); }
    TKdsSide(const TKdsSide&) = delete;
    TKdsSide& operator=(const TKdsSide&) = delete;

    [[nodiscard]] TKdsTable* Table() const noexcept { return fTable; }
    [[nodiscard]] TKdsRecord* Handle(std::int64_t id) const {
        return fRecords[static_cast<std::size_t>(id)];
    }
    TKdsRecord* Insert(const TRow& row) {
        TOwned<TKdsRecord> record = fTable->NewRow();
        record->Set(fId, row.Id);
        Fill(record.get(), row);
        return fTable->Records()->Add(std::move(record));
    }
    void Load() {
        for (const TRow& row : Rows()) Insert(row);
    }
    // For edits by id: a batch of ids behind those loaded is free.
    void LoadKept() {
        fRecords.resize(static_cast<std::size_t>(RowCount() + BatchSize + 1));
        TKdsLoad load(fTable, mtsMassive);
        for (const TRow& row : Rows()) InsertKept(row);
        load.Leave();
    }
    void InsertKept(const TRow& row) { fRecords[static_cast<std::size_t>(row.Id)] = Insert(row); }
    void Update(TKdsRecord* record, const TRow& row) {
        TKdsEdit edit(record);
        Fill(record, row);
        edit.Post();
    }
    void UpdateValue(TKdsRecord* record, double value) {
        TKdsEdit edit(record);
        record->Set(fValue, value);
        edit.Post();
    }
    void Delete(TKdsRecord* record) { record->Delete(); }
    [[nodiscard]] double FindValue(std::int64_t id) {
        return *fTable->Records()->Find({id})->Get<double>(fValue);
    }
    [[nodiscard]] std::int64_t IdOf(TKdsRecord* record) const {
        return *record->Get<std::int64_t>(fId);
    }
    [[nodiscard]] bool InLowerHalf(TKdsRecord* record) const {
        return *record->Get<std::int32_t>(fGroup) < 500;
    }
    [[nodiscard]] TRow Read(TKdsRecord* record) const {
        TRow row;
        row.Id = IdOf(record);
        const std::string_view name = *record->Get<std::string_view>(fName);
        std::copy_n(name.data(), row.Name.size(), row.Name.data());
        row.Value = *record->Get<double>(fValue);
        row.Group = *record->Get<std::int32_t>(fGroup);
        const auto date = record->Get<std::int32_t>(fDate);
        row.HasDate = date.has_value();
        row.Date = date.value_or(0);
        return row;
    }
    [[nodiscard]] bool Holds(const TRow& row) {
        TKdsRecord* const record = fTable->Records()->Find({row.Id});
        return record != nullptr && Read(record) == row;
    }
    [[nodiscard]] std::int64_t Count() const { return fTable->Records()->Count(); }
    // Every view holds every row, and neighbours stand in order, in a sample of all.
    [[nodiscard]] bool ViewsInOrder() const {
        std::mt19937 random(7);
        for (TKdsView* const view : *fTable->Views()) {
            if (view->Count() != Count()) return false;
            for (int i = 0; i < 10'000; ++i) {
                const auto place = static_cast<std::int32_t>(
                    random() % static_cast<std::uint32_t>(view->Count() - 1));
                TKdsRecord* const record = view->Items(place);
                if (view->IndexOf(record) != place) return false;
                if (view->Compare(record, view->Items(place + 1)) > 0) return false;
            }
        }
        return true;
    }

private:
    void Fill(TKdsRecord* record, const TRow& row) {
        record->Set(fName, row.NameText());
        record->Set(fValue, row.Value);
        record->Set(fGroup, row.Group);
        if (row.HasDate) {
            record->Set(fDate, row.Date);
        } else {
            record->SetNullC(fDate);
        }
    }

    TKdsStore* fStore;
    TKdsTable* fTable = nullptr;
    TKdsColumn* fId = nullptr;
    TKdsColumn* fName = nullptr;
    TKdsColumn* fValue = nullptr;
    TKdsColumn* fGroup = nullptr;
    TKdsColumn* fDate = nullptr;
    std::vector<TKdsRecord*> fRecords;
};

// ---- the orders in plain C++ ------------------------------------------------------------------

struct TByName {
    bool operator()(const TRow& a, const TRow& b) const noexcept {
        const int order = std::memcmp(a.Name.data(), b.Name.data(), a.Name.size());
        return order != 0 ? order < 0 : a.Id < b.Id;
    }
};
struct TByValueDesc {
    bool operator()(const TRow& a, const TRow& b) const noexcept {
        return a.Value != b.Value ? a.Value > b.Value : a.Id < b.Id;
    }
};
struct TByGroupName {
    bool operator()(const TRow& a, const TRow& b) const noexcept {
        return a.Group != b.Group ? a.Group < b.Group : TByName()(a, b);
    }
};
struct TByDateId {
    bool operator()(const TRow& a, const TRow& b) const noexcept {
        if (a.HasDate != b.HasDate) return a.HasDate;
        return a.Date != b.Date ? a.Date < b.Date : a.Id < b.Id;
    }
};
struct TByGroupDescDate {
    bool operator()(const TRow& a, const TRow& b) const noexcept {
        return a.Group != b.Group ? a.Group > b.Group : TByDateId()(a, b);
    }
};

}  // namespace kds
