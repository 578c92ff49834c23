#include "tests/views/Model.h"

#include <algorithm>
#include <cmath>

namespace kds {
namespace {

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
        case 2:
        case 4: return compare(a.Qty, b.Qty, [](int x, int y) { return Sign(x, y); });
        case 5:
        case 6:
        case 7: {
            const auto value = [&](const TModelRow& row) -> std::optional<double> {
                if (item.Field == 7) return static_cast<double>(row.Id % 5);
                if (item.Field == 6 && row.Qty) return *row.Qty + static_cast<double>(row.Id % 7);
                // In expressions a NaN is null.
                if (item.Field == 5 && row.Price && !std::isnan(*row.Price)) return -*row.Price;
                return std::nullopt;
            };
            return compare(value(a), value(b), [](double x, double y) { return Sign(x, y); });
        }
        default:
            return compare(a.Price, b.Price, [](double x, double y) {
                if (std::isnan(x) || std::isnan(y)) {
                    return static_cast<int>(std::isnan(x)) - static_cast<int>(std::isnan(y));
                }
                return Sign(x, y);
            });
    }
}

}  // namespace

void TModelLink::HandleEvent(TKdsEvent* event) {
    if (IsMute) return;
    const std::int64_t row = event->Origin == nullptr ? -1 : std::int64_t{event->Origin->RowID()};
    fNotes->insert(fNotes->end(),
                   {static_cast<std::int64_t>(event->Reason), event->OldRow, event->NewRow, row});
}

TModel::TModel(std::uint32_t seed, TKdsTableOptions options, int size, TKdsStorageKind storage,
               bool listens, int inMemory)
    : fRandom(seed), fSize(size), fListens(listens) {
    static int count = 0;
    fStore = TKdsStore::Create(Format(u"Model%d", {++count}));
    fTable = fStore->Tables()->Add(u"T");
    fTable->SetOptions(options);
    fTable->SetMaxRecordsInMemory(inMemory);
    fTable->Swapper()->SetCachedRecordsBatch(5);
    fTable->SetStorageFactory(StorageFactory(storage));
    fTable->Columns()->Add(u"Id", dtInt64);
    fTable->Columns()->Add(u"Name", seed % 2 == 0 ? dtAnsiString : dtMemoString, 8);
    fTable->Columns()->Add(u"Qty", dtInteger);
    fTable->Columns()->Add(u"Price", dtDouble);
    fTable->Columns()->Add(u"Twice", dtInteger)->SetCalculated(true);
    fTable->Columns()->Add(u"Less", dtDouble)->SetCalculated(true, /*stored=*/false);
    fTable->Columns()->Add(u"Late", dtInt64)->SetDelayedCalc(true);
    fTable->Columns()->Add(u"Fifth", dtInt64)->SetCalculated(true, /*stored=*/false);
    fTable->Columns()->Items(7)->SetOnGetValue(TKdsGetValueEvent::Bind<&Remainder>());
    Calculate();
    fTable->SetPrimaryKey(u"Id");
    fViews.emplace_back();
    fViews.back().View = fTable->PrimaryView();
    fViews.back().Order = {{0, false, false}};
    fFilter.SetOnAccept(TKdsAcceptRecordEvent::Bind<&HideOnes>());
    fFilter.SetTable(fTable);
}

TModel::~TModel() {
    fFilter.SetTable(nullptr);
    fStore->Free();
}

void TModel::Calculate() {
    const auto name = [&](int column) { return fTable->Columns()->Items(column)->Name(); };
    const auto set = [&](int column, const std::u16string& text) {
        fTable->Columns()->Items(column)->SetExpression(text);
    };
    set(4, name(2) + u" * 2");
    set(5, u"-" + name(3));
    set(6, u"Twice - " + name(2) + u" + Id % 7");
}

void TModel::HideOnes(TKdsView*, TKdsRecord* record, bool& accept) {
    accept = record->GetDataI(2) != TVariant(std::int32_t{1});
}

// Reads the row through variants, as a routine of a host would.
std::int32_t TModel::CompareCustom(TKdsRecord* a, TKdsRecord* b) {
    const auto quantity = [&](TKdsRecord* record) {
        const TVariant value = record->GetDataI(2);
        return value.IsNull() ? 3 : value.Get<std::int32_t>();
    };
    return fDirection * Sign(quantity(a), quantity(b));
}

bool TModel::Before(const TModelView& view, std::uint32_t a, std::uint32_t b) const {
    if (view.IsCustom) {
        const int order = Sign(fRows.at(a).Qty.value_or(3), fRows.at(b).Qty.value_or(3));
        if (order != 0) return fDirection * order < 0;
    }
    for (const TModelItem& item : view.Order) {
        const int order = CompareField(fRows.at(a), fRows.at(b), item);
        if (order != 0) return order < 0;
    }
    return a < b;
}

template <typename F>
bool TModel::Refuses(F&& change) {
    try {
        change();
        return false;
    } catch (const EKdsError& error) {
        for (const char16_t c : error.Message()) fHeard.push_back(c);
        return true;
    }
}

void TModel::Insert() {
    const TModelRow row = RandomRow();
    TOwned<TKdsRecord> record = fTable->NewRow();
    Write(record.get(), row);
    if (Taken(row.Id, NoRowID)) {
        EXPECT_TRUE(Refuses([&] { fTable->Records()->Add(std::move(record)); }));
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
        EXPECT_TRUE(Refuses([&] { record->Post(); }));
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
    TModelView view;
    view.LeastQty = Draw(2) == 0 ? -1 : Draw(4);
    view.IsCustom = Draw(6) == 0;
    std::u16string text;
    const int items = Draw(4);
    std::vector<int> fields{0, 1, 2, 3, 4, 5, 6, 7};
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
    const auto accept = AcceptWhen([least](TKdsRecord* record) {
        return record->GetDataI(2) != TVariant(Null) &&
               record->GetDataI(2).Get<std::int32_t>() >= least;
    });
    const std::u16string_view filters[] = {u"Twice >= %d", u"Late - Id %% 7 >= %d / 2",
                                           u"NVL(Less * 0, 0) + Fifth + Twice - Id %% 5 >= %d"};
    view.View = least < 0 ? fTable->Select(text, {}, nullptr, true)
                : Draw(2) == 0
                    ? fTable->SelectA(text, {}, accept, true)
                    : fTable->Select(text, Format(filters[Draw(3)], {2 * least}), nullptr, true);
    if (view.IsCustom) view.View->SetOnCompare(TKdsComparer::Bind<&TModel::CompareCustom>(this));
    if (fListens && Draw(2) == 0) {
        view.Link = std::make_unique<TModelLink>(&fHeard);
        view.Link->SetView(view.View);
    }
    fViews.push_back(std::move(view));
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
    for (int i = Draw(20); i > 0 && Size() < fSize * 8 / 5; --i) {
        const TModelRow row = RandomRow();
        if (Taken(row.Id, NoRowID)) continue;
        TOwned<TKdsRecord> record = fTable->NewRow();
        Write(record.get(), row);
        fRows[fTable->Records()->Add(std::move(record))->RowID()] = row;
    }
    for (int i = Draw(6); i > 0; --i) Delete();
    EXPECT_EQ(fTable->Recalculate(), 0);
    fTable->LeaveLoad();
}

// Renames need an empty table; afterwards the sleeping views are switched on again.
void TModel::Rename() {
    fTable->Clear();
    fRows.clear();
    fEdits.clear();
    const std::int32_t column = 1 + Draw(3);
    fTable->Columns()->Items(column)->SetName(Format(u"Renamed%d", {++fRenames}));
    Calculate();
    for (const TModelView& view : fViews) view.View->SetActive(true);
}

// The rows come back in their order and with other identifiers. Open edits would be saved.
void TModel::Reload() {
    while (!fEdits.empty()) Cancel();
    TMemoryStream stream;
    EXPECT_TRUE(fTable->SaveToStream(stream, Draw(2) == 0));
    fTable->Clear();
    stream.Seek(0);
    EXPECT_EQ(fTable->LoadFromStream(stream).Loaded, Size());
    TRows rows;
    for (auto& [rowID, row] : std::exchange(fRows, {})) {
        rows[fTable->Records()->Items(static_cast<std::int32_t>(rows.size()))->RowID()] = row;
    }
    fRows = std::move(rows);
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
    if (Draw(4) == 0) return fFilter.SetEnabled(!fFilter.Enabled());
    if (Draw(40) == 0) return Rename();
    if (Draw(12) == 0) return Reload();
    if (fListens) TurnRoutine();
}

// The order of the custom views changes without anybody being told; refreshed they have it.
void TModel::TurnRoutine() {
    const bool turns = !HasStaleViews();
    if (turns) fDirection = -fDirection;
    for (TModelView& view : fViews) {
        if (!view.IsCustom) continue;
        view.IsStale = turns;
        if (!turns) view.View->Refresh();
        if (view.Link) view.Link->IsMute = turns;  // where rows stand is anybody's guess until then
    }
}

void TModel::CheckView(const TModelView& view) {
    std::vector<std::uint32_t> expected;
    for (const auto& [rowID, row] : fRows) {
        if (fFilter.Enabled() && view.View != fTable->PrimaryView() && row.Qty == 1) continue;
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
    if (columns == 0 || view->OnCompare()) return;
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
    if (key->Owner() == nullptr) {
        // Rows that are edited stand by what they were.
        std::int32_t behind = expected;
        while (behind < view->Count() && order(behind) == 0) ++behind;
        std::vector<TVariant> values;
        for (std::int32_t i = 0; i < count; ++i) {
            values.push_back(key->GetDataC(view->Columns()->GetItem(i)));
        }
        const auto range = view->EqualRange(values);
        ASSERT_EQ(range.begin() - view->begin(), expected);
        ASSERT_EQ(range.end() - view->begin(), behind);
    }
    ASSERT_EQ(found,
              expected < view->Count() && (view->Items(expected) == key || order(expected) == 0));
}

// Large views in samples, and as a whole now and then.
void TModel::NoteRows(TKdsView* view, bool thorough, TModelNotes& notes) {
    const std::int32_t count = view->Count();
    notes.push_back(count);
    if (count == 0) return;
    if (count <= 128 || thorough) {
        for (TKdsRecord* const record : *view) notes.push_back(record->RowID());
    }
    for (int i = 0; i < 4; ++i) {
        TKdsRecord* const record = view->Items(Draw(count));
        notes.push_back(record->RowID());
        notes.push_back(view->IndexOf(record));
        notes.push_back(view->IndexOf(RandomRecord()));
    }
}

void TModel::NoteSearches(TKdsView* view, bool thorough, TModelNotes& notes) {
    TOwned<TKdsRecord> foreign = fTable->NewRow();
    Write(foreign.get(), RandomRow());
    TKdsRecord* const row = RandomRecord();
    TKdsRecord* const key = row == nullptr || Draw(2) == 0 ? foreign.get() : row;
    for (int i = 0; i < (thorough ? 64 : 4); ++i) {
        const auto locate =
            TKdsLocateOptions::FromBits(static_cast<std::uint32_t>(thorough ? i : Draw(64)));
        view->Storage()->SetSearchHint(Draw(view->Count() + 1));
        std::int32_t index = -1;
        bool found = false;
        view->Search(key, nullptr, -1, locate, index, found);
        // Where rows never change, any of several equal rows may be the one that is found; and a
        // key that fits no place in the order may be met by one bisection and missed by another.
        if (fTable->Options().Has(mtoStaticData) &&
            !locate.HasAny({loLastRow, loNearest, loNoKeyRow})) {
            const bool fits = !locate.HasAny({loNoCase, loPartial});
            if (fits && key->RowState() != rsEditing) notes.push_back(found);
            continue;
        }
        notes.push_back(found);
        notes.push_back(index);
        notes.push_back(view->Storage()->SearchHint());
    }
}

TModelNotes TModel::Digest(bool thorough) {
    TModelNotes notes = std::exchange(fHeard, {});
    for (const TModelView& view : fViews) {
        if (view.IsStale) continue;
        NoteRows(view.View, thorough, notes);
        NoteSearches(view.View, thorough, notes);
    }
    return notes;
}

void TModel::Check(bool thorough) {
    ASSERT_STREQ(fTable->Inconsistency(), nullptr);
    for (const TModelView& view : fViews) {
        ASSERT_NO_FATAL_FAILURE(CheckView(view)) << "order " << ToUtf8(view.View->OrderBy());
        ASSERT_NO_FATAL_FAILURE(CheckSearches(view.View, thorough))
            << "order " << ToUtf8(view.View->OrderBy());
    }
}

}  // namespace kds
