// Random scripts against a plain model: after every step each view must show what sorting and
// filtering all rows anew would show.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <random>
#include <vector>

#include "kds/kds.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

// One row as the model knows it: its posted values.
struct TModelRow {
    std::int64_t Id = 0;
    std::optional<std::string> Name;
    std::optional<std::int32_t> Qty;
    std::optional<double> Price;
};

struct TModelItem {
    int Field;  // 0 Id, 1 Name, 2 Qty, 3 Price
    bool Descends, Caseless;
};

struct TModelView {
    TKdsView* View;
    std::vector<TModelItem> Order;
    int LeastQty;  // rows below are not members; -1: no test
};

template <typename T>
int Sign(const T& a, const T& b) {
    return (b < a) - (a < b);
}

int CompareField(const TModelRow& a, const TModelRow& b, const TModelItem& item) {
    const auto compare = [&](const auto& x, const auto& y, auto&& order) {
        if (!x || !y) return static_cast<int>(!x) - static_cast<int>(!y);
        const int sign = order(*x, *y);
        return item.Descends ? -sign : sign;
    };
    switch (item.Field) {
        case 0: return item.Descends ? -Sign(a.Id, b.Id) : Sign(a.Id, b.Id);
        case 1:
            return compare(a.Name, b.Name, [&](std::string x, std::string y) {
                const auto upper = [](std::string& text) {
                    for (char& c : text) c = static_cast<char>(std::toupper(c));
                };
                if (item.Caseless) {
                    upper(x);
                    upper(y);
                }
                return Sign(x, y);
            });
        case 2: return compare(a.Qty, b.Qty, [](int x, int y) { return Sign(x, y); });
        default:
            return compare(a.Price, b.Price, [](double x, double y) {
                if (std::isnan(x) || std::isnan(y)) {
                    return static_cast<int>(std::isnan(x)) - static_cast<int>(std::isnan(y));
                }
                return Sign(x, y);
            });
    }
}

class TModel {
public:
    // About `size` rows; identifiers are drawn from three times as many.
    TModel(std::uint32_t seed, TKdsTableOptions options, int size) : fRandom(seed), fSize(size) {
        fStore = TKdsStore::Create(u"Model");
        fTable = fStore->Tables()->Add(u"T");
        fTable->SetOptions(options);
        fTable->Columns()->Add(u"Id", dtInt64);
        fTable->Columns()->Add(u"Name", seed % 2 == 0 ? dtAnsiString : dtMemoString, 8);
        fTable->Columns()->Add(u"Qty", dtInteger);
        fTable->Columns()->Add(u"Price", dtDouble);
        fTable->SetPrimaryKey(u"Id");
        fViews.push_back({fTable->PrimaryView(), {{0, false, false}}, -1});
    }
    ~TModel() { fStore->Free(); }

    void Step();
    void Check(bool thorough);
    void Fill() {
        while (Size() < fSize) Insert();
        for (int i = 0; i < 4; ++i) MakeView();
    }
    void CheckSomeSearches() {
        for (const TModelView& view : fViews) CheckSearches(view.View, false);
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
    [[nodiscard]] bool Before(const TModelView& view, std::uint32_t a, std::uint32_t b) const {
        for (const TModelItem& item : view.Order) {
            const int order = CompareField(fRows.at(a), fRows.at(b), item);
            if (order != 0) return order < 0;
        }
        return a < b;
    }

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
};

void TModel::Insert() {
    const TModelRow row = RandomRow();
    TOwned<TKdsRecord> record = fTable->NewRow();
    Write(record.get(), row);
    if (Taken(row.Id, NoRowID)) {
        EXPECT_THROW(fTable->Records()->Add(std::move(record)), EKdsError);
        EXPECT_EQ(record->RowState(), rsDetached);
        return;
    }
    fRows[fTable->Records()->Add(std::move(record))->RowID()] = row;
}

void TModel::Edit() {
    TKdsRecord* const record = RandomRecord();
    if (record == nullptr) return;
    if (record->RowState() != rsEditing) record->Edit();
    TModelRow row = fRows[record->RowID()];
    const TModelRow drawn = RandomRow();
    if (Draw(3) == 0) row.Id = drawn.Id;
    if (Draw(3) == 0) row.Name = drawn.Name;
    if (Draw(3) == 0) row.Qty = drawn.Qty;
    if (Draw(3) == 0) row.Price = drawn.Price;
    Write(record, row);
    fEdits[record->RowID()] = row;
}

void TModel::Post() {
    if (fEdits.empty()) return;
    const auto edit = std::next(fEdits.begin(), Draw(static_cast<int>(fEdits.size())));
    TKdsRecord* const record = fTable->Records()->FindRowID(edit->first);
    if (Taken(edit->second.Id, edit->first)) {
        EXPECT_THROW(record->Post(), EKdsError);
        EXPECT_EQ(record->RowState(), rsEditing);
        return;
    }
    record->Post();
    fRows[edit->first] = edit->second;
    fEdits.erase(edit);
}

void TModel::Cancel() {
    if (fEdits.empty()) return;
    fTable->Records()->FindRowID(fEdits.begin()->first)->Cancel();
    fEdits.erase(fEdits.begin());
}

void TModel::Delete() {
    TKdsRecord* const record = RandomRecord();
    if (record == nullptr) return;
    fEdits.erase(record->RowID());
    fRows.erase(record->RowID());
    record->Delete();
}

void TModel::MakeView() {
    if (fViews.size() > 6) return;
    TModelView view{nullptr, {}, Draw(2) == 0 ? -1 : Draw(4)};
    std::u16string text;
    const int items = Draw(4);
    std::vector<int> fields{0, 1, 2, 3};
    std::ranges::shuffle(fields, fRandom);
    for (int i = 0; i < items; ++i) {
        const auto at = static_cast<std::size_t>(i);
        view.Order.push_back({fields[at], Draw(2) == 0, fields[at] == 1 && Draw(2) == 0});
        if (i > 0) text += u',';
        text += fTable->Columns()->Items(fields[at])->Name();
        if (view.Order.back().Descends) text += u" desc";
        if (view.Order.back().Caseless) text += u" nocase";
    }
    const auto least = view.LeastQty;
    view.View = least < 0
                    ? fTable->Select(text, {}, nullptr, true)
                    : fTable->SelectA(text, {}, AcceptWhen([least](TKdsRecord* record) {
                                          return record->GetDataI(2) != TVariant(Null) &&
                                                 record->GetDataI(2).Get<std::int32_t>() >= least;
                                      }),
                                      true);
    fViews.push_back(view);
}

void TModel::DropView() {
    if (fViews.size() < 2) return;
    const auto place = fViews.begin() + 1 + Draw(static_cast<int>(fViews.size()) - 1);
    place->View->Free();
    fViews.erase(place);
}

void TModel::ChangeView() {
    if (fViews.size() < 2) return;
    TModelView& view =
        fViews[1 + static_cast<std::size_t>(Draw(static_cast<int>(fViews.size()) - 1))];
    view.Order = {{2, true, false}, {1, false, true}};
    view.View->SetOrderBy(fTable->Columns()->Items(2)->Name() + u" desc," +
                          fTable->Columns()->Items(1)->Name() + u" nocase");
}

void TModel::LoadBracket() {
    fTable->EnterLoad(Draw(2) == 0 ? mtsMassive : mtsUploads);
    for (int i = Draw(20); i > 0; --i) {
        const TModelRow row = RandomRow();
        if (Taken(row.Id, NoRowID)) continue;
        TOwned<TKdsRecord> record = fTable->NewRow();
        Write(record.get(), row);
        fRows[fTable->Records()->Add(std::move(record))->RowID()] = row;
    }
    for (int i = Draw(6); i > 0; --i) Delete();
    fTable->LeaveLoad();
}

// Renames need an empty table; afterwards the sleeping views are switched on again.
void TModel::Rename() {
    fTable->Clear();
    fRows.clear();
    fEdits.clear();
    const std::int32_t column = 1 + Draw(3);
    fTable->Columns()->Items(column)->SetName(Format(u"Renamed%d", {++fRenames}));
    for (const TModelView& view : fViews) view.View->SetActive(true);
}

void TModel::Step() {
    const int growth = Size() < fSize ? 42 : 22;
    const int draw = Draw(100);
    if (draw < growth) return Insert();
    if (draw < 60) return Edit();
    if (draw < 75) return Post();
    if (draw < 80) return Cancel();
    if (draw < 92) return Delete();
    if (draw < 95) return MakeView();
    if (draw < 96) return DropView();
    if (draw < 97) return ChangeView();
    if (draw < 98) return LoadBracket();
    if (Draw(40) == 0) return Rename();
}

void TModel::CheckView(const TModelView& view) {
    std::vector<std::uint32_t> expected;
    for (const auto& [rowID, row] : fRows) {
        if (view.LeastQty < 0 || row.Qty.value_or(-1) >= view.LeastQty) expected.push_back(rowID);
    }
    std::ranges::sort(expected, [&](auto a, auto b) { return Before(view, a, b); });
    std::vector<std::uint32_t> shown;
    for (TKdsRecord* const record : *view.View) shown.push_back(record->RowID());
    ASSERT_EQ(shown, expected);
    for (std::int32_t i = 0; i < view.View->Count(); ++i) {
        ASSERT_EQ(view.View->IndexOf(view.View->Items(i)), i);
    }
}

// The fast search must answer what the search probe by probe answers, hint included.
void TModel::CheckSearches(TKdsView* view, bool thorough) {
    if (view->Count() == 0) return;
    TOwned<TKdsRecord> foreign = fTable->NewRow();
    Write(foreign.get(), RandomRow());
    TKdsRecord* const key = Draw(2) == 0 ? foreign.get() : RandomRecord();
    TKdsViewStorage* const storage = view->Storage();
    for (int i = 0; i < (thorough ? 64 : 3); ++i) {
        const auto locate =
            TKdsLocateOptions::FromBits(static_cast<std::uint32_t>(thorough ? i : Draw(64)));
        TKdsCompareOptions compare;
        compare.Set(coNoCase, locate.Has(loNoCase));
        compare.Set(coPartial, locate.Has(loPartial));
        compare.Set(coUseRowID, locate.Has(loUseRowID));
        const std::int32_t hint = Draw(view->Count() + 1);
        struct {
            std::int32_t Index, Hint;
            bool Found;
        } literal{locate.Has(loNearest) ? 0 : -1, 0, false}, fast = literal;
        storage->SetSearchHint(hint);
        storage->TKdsViewStorage::Search(key, locate, compare, literal.Index, literal.Found);
        literal.Hint = storage->SearchHint();
        storage->SetSearchHint(hint);
        storage->Search(key, locate, compare, fast.Index, fast.Found);
        fast.Hint = storage->SearchHint();
        ASSERT_EQ(fast.Found, literal.Found) << "options " << locate.Bits() << " hint " << hint;
        ASSERT_EQ(fast.Index, literal.Index) << "options " << locate.Bits() << " hint " << hint;
        ASSERT_EQ(fast.Hint, literal.Hint) << "options " << locate.Bits() << " hint " << hint;
    }
    CheckPrefix(view, key);
}

// By the first columns of the order only: the first equal row, else where it would stand.
void TModel::CheckPrefix(TKdsView* view, TKdsRecord* key) {
    const std::int32_t columns = view->Columns()->Count();
    if (columns == 0) return;
    const std::int32_t count = 1 + Draw(columns);
    std::int32_t index = -1;
    bool found = false;
    view->Search(key, nullptr, count, {loNearest}, index, found);
    const auto order = [&](std::int32_t place) {
        return OrderRecords(view->Items(place), TKdsReading::Posted, key, TKdsReading::Current,
                            view->Columns(), count, {});
    };
    std::int32_t expected = 0;
    while (expected < view->Count() && view->Items(expected) != key && order(expected) < 0) {
        ++expected;
    }
    if (view->IndexOf(key) >= 0 && key->RowState() == rsEditing) return;  // it equals itself
    ASSERT_EQ(index, expected);
    ASSERT_EQ(found,
              expected < view->Count() && (view->Items(expected) == key || order(expected) == 0));
}

void TModel::Check(bool thorough) {
    ASSERT_STREQ(fTable->Inconsistency(), nullptr);
    for (const TModelView& view : fViews) {
        ASSERT_NO_FATAL_FAILURE(CheckView(view)) << "order " << ToUtf8(view.View->OrderBy());
        ASSERT_NO_FATAL_FAILURE(CheckSearches(view.View, thorough))
            << "order " << ToUtf8(view.View->OrderBy());
    }
}

class TViewModelTest : public testing::TestWithParam<TKdsTableOptions> {};

TEST_P(TViewModelTest, EveryViewEqualsOneBuiltAfresh) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    for (std::uint32_t round = 0; round < 2; ++round) {
        TModel model(seed + round, GetParam(), 120);
        for (std::int64_t step = 0; step < support::Steps(1'200); ++step) {
            ASSERT_NO_FATAL_FAILURE(model.Step()) << "step " << step;
            ASSERT_NO_FATAL_FAILURE(model.Check(step % 64 == 0)) << "step " << step;
        }
    }
}

// Enough rows for several buckets, which searches find by their first rows and by a directory.
TEST_P(TViewModelTest, LargeViewsAreSearchedAsProbeByProbe) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    TModel model(seed, GetParam(), 6'000);
    model.Fill();
    for (std::int64_t step = 0; step < support::Steps(400); ++step) {
        ASSERT_NO_FATAL_FAILURE(model.Step()) << "step " << step;
        ASSERT_NO_FATAL_FAILURE(model.CheckSomeSearches()) << "step " << step;
        if (step % 100 != 99) continue;
        ASSERT_NO_FATAL_FAILURE(model.Check(true)) << "step " << step;
    }
}

INSTANTIATE_TEST_SUITE_P(Options, TViewModelTest,
                         testing::Values(TKdsTableOptions{}, TKdsTableOptions{mtoStripNulls}));

}  // namespace
}  // namespace kds
