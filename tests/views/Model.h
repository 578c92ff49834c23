// A table under a random script, beside a plain model of what it must hold.
//
// Shape      A step changes the table and the model alike; Check compares every view with what
//            sorting and filtering all rows anew would show. Models with one seed take the same
//            steps, whatever storages their views use, and Digest tells whether they agree.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kds/core/Kdsswapper.h"
#include "kds/kds.h"

namespace kds {

// One row as the model knows it: its posted values.
struct TModelRow {
    std::int64_t Id = 0;
    std::optional<std::string> Name;
    std::optional<std::int32_t> Qty;
    std::optional<double> Price;
};

struct TModelItem {
    int Field;  // 0 Id, 1 Name, 2 Qty, 3 Price, from 4 on what is calculated
    bool Descends, Caseless;
};

// What the views of a model say, in numbers.
using TModelNotes = std::vector<std::int64_t>;

class TModelLink final : public TKdsViewLink {
public:
    explicit TModelLink(TModelNotes* notes) noexcept : fNotes(notes) {}
    void HandleEvent(TKdsEvent* event) override;
    bool IsMute = false;

private:
    TModelNotes* fNotes;
};

struct TModelView {
    TKdsView* View = nullptr;
    std::vector<TModelItem> Order;
    int LeastQty = -1;      // rows below are not members; -1: no test
    bool IsCustom = false;  // ordered by a routine first
    bool IsStale = false;   // the routine has changed since
    std::unique_ptr<TModelLink> Link;
};

class TModel {
public:
    // About `size` rows; identifiers are drawn from three times as many. `inMemory`: so many rows
    // stay in memory when others come in; 0: all.
    TModel(std::uint32_t seed, TKdsTableOptions options, int size, TKdsStorageKind storage,
           bool listens = false, int inMemory = 0);
    ~TModel();
    TModel(const TModel&) = delete;
    TModel& operator=(const TModel&) = delete;

    void Step();
    void Check(bool thorough);
    void Fill() {
        while (Size() < fSize) Insert();
        for (int i = 0; i < 4; ++i) MakeView();
    }
    void CheckSomeSearches() {
        for (const TModelView& view : fViews) CheckSearches(view.View, false);
    }
    // What was heard since the last time, what the views show, and what searches in them find;
    // equal for equal scripts.
    [[nodiscard]] TModelNotes Digest(bool thorough);
    [[nodiscard]] const char* Inconsistency() const { return fTable->Inconsistency(); }
    [[nodiscard]] std::int64_t Reads() const { return fTable->Swapper()->Reads(); }
    [[nodiscard]] bool HasStaleViews() const {
        return std::ranges::any_of(fViews, &TModelView::IsStale);
    }

private:
    using TRows = std::map<std::uint32_t, TModelRow>;

    int Draw(int bound) { return static_cast<int>(fRandom() % static_cast<unsigned>(bound)); }
    TModelRow RandomRow() {
        TModelRow row;
        row.Id = Draw(fSize * 3);
        if (Draw(6) != 0)
            row.Name = std::string(static_cast<std::size_t>(1 + Draw(2)), "abAB"[Draw(4)]);
        if (Draw(6) != 0) row.Qty = Draw(5);
        if (Draw(4) != 0) row.Price = Draw(10) == 0 ? std::nan("") : Draw(4) - 1.5;
        return row;
    }
    static void Write(TKdsRecord* record, const TModelRow& row) {
        const auto set = [&](std::int32_t column, const auto& value) {
            value ? record->SetDataI(column, *value) : record->SetNullI(column);
        };
        record->SetDataI(0, row.Id);
        set(1, row.Name);
        set(2, row.Qty);
        set(3, row.Price);
    }
    [[nodiscard]] bool Taken(std::int64_t id, std::uint32_t but) const {
        return std::ranges::any_of(
            fRows, [&](const auto& entry) { return entry.first != but && entry.second.Id == id; });
    }
    TKdsRecord* RandomRecord() {
        if (fRows.empty()) return nullptr;
        return fTable->Records()->FindRowID(std::next(fRows.begin(), Draw(Size()))->first);
    }
    [[nodiscard]] int Size() const { return static_cast<int>(fRows.size()); }
    // By expressions stored, not stored and delayed, and by a routine.
    void Calculate();
    static void Remainder(TKdsColumn*, TKdsRecord* record, TVariant& value) {
        value = VarToInt64(record->GetDataI(0)) % 5;
    }
    static void HideOnes(TKdsView* view, TKdsRecord* record, bool& accept);
    std::int32_t CompareCustom(TKdsRecord* a, TKdsRecord* b);
    template <typename F>
    [[nodiscard]] bool Refuses(F&& change);
    [[nodiscard]] bool Before(const TModelView& view, std::uint32_t a, std::uint32_t b) const;

    void Insert();
    void Edit();
    void Post();
    void Cancel();
    void Delete();
    void MakeView();
    void DropView();
    void ChangeView();
    void LoadBracket();
    void Rename();
    void Reload();
    void TurnRoutine();
    void NoteRows(TKdsView* view, bool thorough, TModelNotes& notes);
    void NoteSearches(TKdsView* view, bool thorough, TModelNotes& notes);
    void CheckView(const TModelView& view);
    void CheckSearches(TKdsView* view, bool thorough);
    void CheckPrefix(TKdsView* view, TKdsRecord* key);

    std::mt19937 fRandom;
    int fSize;
    TKdsStore* fStore;
    TKdsTable* fTable;
    TRows fRows;
    std::map<std::uint32_t, TModelRow> fEdits;
    std::vector<TModelView> fViews;
    int fRenames = 0;
    int fDirection = 1;  // of the routine that orders custom views
    bool fListens;
    TModelNotes fHeard;
    TKdsAccept fFilter;  // hides rows with the quantity 1
};

}  // namespace kds
