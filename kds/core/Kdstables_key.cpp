// A table's keys: the primary view, the checks that rest on it, the default view and selections.
#include "kds/core/Kdstables.h"

#include <array>
#include <typeinfo>

#include "kds/core/Kdserrors.h"
#include "kds/views/Kdsviewlists.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// ---- The primary view at work -------------------------------------------------------------

TKdsView* TKdsTable::UsablePrimaryView() {
    TKdsView* const view = fPrimaryView;
    if (view == nullptr) return nullptr;
    // In a mass operation the views are off and duplicates surface at its end.
    if (fStatus == mtsMassive || fStatus == mtsDestroy) return nullptr;
    if (!view->Actual()) {
        TKdsTravelGuard guard;  // links hear of it, and may end the view
        // Two rows with one key: nothing has changed since, so it would fail again.
        if (fKeyFailed) KdsError(u"DuplicateRecords", {view->Name()});
        try {
            if (view->fAsleep) {
                view->fAsleep = false;
                view->SetActive(true);
            } else {
                view->Update();
            }
        } catch (const EKdsError&) {
            // Other failures, of memory for instance, may pass by themselves.
            fKeyFailed = !IsBusy() && !view->Actual();
            throw;
        }
        if (view != fPrimaryView || !view->Actual()) return nullptr;
    }
    return view;
}

void TKdsTable::CheckUniqueViews(TKdsRecord* record) {
    // No view has rows to compare it with.
    if (fStatus == mtsMassive && fViewsRest == TRest::Yes) return;
    const bool posts = record->RowState() == rsEditing;
    const auto unchanged = [&](const TKdsView* view) {
        return posts && view->IsDistinct() &&
               view->SameKey(record->fBuffer.Original, record->fBuffer.Proposed);
    };
    // While the key cannot be built, a post may be what mends it.
    const bool mends = posts && fKeyFailed;
    if (fPrimaryView != nullptr && !fOptions.Has(mtoSkipPKCheck) && !mends) {
        TKdsView* const primary = UsablePrimaryView();
        if (primary != nullptr && !unchanged(primary) && primary->HasEqual(record)) {
            KdsError(u"UniqueViolated", {primary->Name()});
        }
    }
    if (fViews->Count() < 2 && fPrimaryView != nullptr) return;
    for (TKdsView* const view : *fViews) {
        if (view == fPrimaryView || !view->Actual() || !view->Unique()) continue;
        if (view->OnAccept() || view->OnCompare() || unchanged(view)) continue;
        if (view->HasEqual(record)) KdsError(u"UniqueViolated", {view->Name()});
    }
}

// So that placing the row, and telling of it, in the phase that stands, needs no memory.
void TKdsTable::ReservePlaces(const TKdsRecord* record) {
    const std::uint32_t rowID = record->RowID() == NoRowID ? fLastRowID : record->RowID();
    for (TKdsView* const view : *fViews) {
        if (view->Actual()) view->Storage()->Reserve(rowID);
    }
    ReserveEvents(1);
}

// Placing a row waits for memory far away, in every view anew. The views' ways there are gone side
// by side instead, so that the waits overlap. Not from a routine of the host: a search that called
// it may be standing on what this would renew.
void TKdsTable::ApproachPlaces(const TKdsRecord* record, TKdsApproach way) {
    if (fViews == nullptr || IsBusy() || fSwaps) return;
    constexpr std::size_t most = 16;
    std::array<TKdsViewStorage*, most> storages;
    std::size_t count = 0;
    for (TKdsView* const view : *fViews) {
        if (!view->Actual() || view->fRebuilds) continue;
        if (way == TKdsApproach::Moving && view->KeepsPlace()) continue;
        if (count < most) storages[count++] = view->Storage();
    }
    for (std::int32_t step = 0; count > 0; ++step) {
        std::size_t left = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (storages[i]->Approach(record, way, step)) storages[left++] = storages[i];
        }
        count = left;
    }
}

void TKdsTable::ApproachInFollowed(const TKdsRecord* record, std::int32_t step) {
    if (IsBusy()) return;
    for (TKdsView* const view : *fViews) {
        if (!view->IsFollowed() || !view->Actual() || view->fRebuilds) continue;
        (void)view->Storage()->Approach(record, TKdsApproach::Leaving, step);
    }
}

bool TKdsTable::ViewsRest() const noexcept {
    if (typeid(*this) != typeid(TKdsTable)) return false;
    for (const TKdsView* const view : *fViews) {
        if (view->Actual() || !view->fIsPlain || view->fRebuilds) return false;
    }
    return true;
}

// Taken together once, so that a post that changes nothing they look at costs the same however
// many there are. What has a routine of the host is asked each time, and so is a view of a class
// of the host's, which may do anything.
TKdsTable::TWatch TKdsTable::LookAtViews() const {
    TWatch watch;
    watch.Known = true;
    std::vector<std::byte> bits(BufferRoom());
    const auto include = [&](std::int32_t offset, std::int32_t size) {
        std::fill_n(bits.begin() + offset, size, std::byte{0xff});
    };
    for (const TKdsView* const view : *fViews) {
        if (view->NeedsEveryPost()) watch.All = true;
        if (view->IsFollowed()) watch.Followed = true;
        if (view->GetSortMode() != omOrder) continue;
        for (std::int32_t i = 0; i < view->Plan().Count(); ++i) {
            const TKdsSlot& slot = view->Plan().Part(i).Slot;
            if (view->Plan().Part(i).Column->Calculated()) watch.Calculated = true;
            // Values whose bytes do not tell whether they have changed.
            if (slot.Kind >= skCustom || slot.StampOffset >= 0) {
                watch.All = true;
                continue;
            }
            include(slot.Offset, slot.Size);
            std::byte* const nulls = bits.data() + slot.NullOffset;
            StoreRaw(nulls, LoadRaw<std::uint32_t>(nulls) | slot.NullMask);
        }
    }
    constexpr std::size_t step = sizeof(std::uint64_t);
    for (std::size_t offset = 0; offset < bits.size(); offset += step) {
        const auto word = LoadRaw<std::uint64_t>(bits.data() + offset);
        if (word != 0) watch.Words.push_back({static_cast<std::int32_t>(offset), word});
    }
    return watch;
}

bool TKdsTable::IsQuietPost(const std::byte* before, const std::byte* after) {
    // A buffer that is cut behind its last value cannot be read by words.
    if (fStatus != mtsRegular || !KeepsHome()) return false;
    if (fPrimaryView != nullptr && !(fPrimaryView->Actual() && fPrimaryView->IsDistinct())) {
        return false;
    }
    if (!fWatch.Known) {
        fWatch = LookAtViews();
        // Should somebody change the views on the way, what the post has changed is found out then.
        ReserveChanges();
    }
    if (fWatch.All || fWatch.Calculated) return false;
    std::uint64_t changed = 0;
    for (const TWatch::TWord& word : fWatch.Words) {
        changed |= word.Bits & (LoadRaw<std::uint64_t>(before + word.Offset) ^
                                LoadRaw<std::uint64_t>(after + word.Offset));
    }
    return changed == 0;
}

namespace {

bool SameBytes(const std::byte* a, const std::byte* b, std::int32_t size) noexcept {
    switch (size) {
        case 4: return LoadRaw<std::uint32_t>(a) == LoadRaw<std::uint32_t>(b);
        case 8: return LoadRaw<std::uint64_t>(a) == LoadRaw<std::uint64_t>(b);
        default: return std::memcmp(a, b, static_cast<std::size_t>(size)) == 0;
    }
}

}  // namespace

void TKdsTable::FindChanges(const std::byte* before, const std::byte* after) {
    const TKdsLayout& layout = Layout();
    fChanged.Reset(layout.ColumnCount());
    for (std::int32_t i = 0; i < layout.ColumnCount(); ++i) {
        const TKdsSlot& slot = layout.Slot(i);
        // What is calculated on reading may have changed whenever anything has.
        bool changed = slot.Kind == skComputed || slot.StampOffset >= 0;
        if (!changed) {
            const bool had = slot.HasValue(before);
            changed = had != slot.HasValue(after);
            if (!changed && had) {
                changed = slot.Kind == skMemo
                              ? TAnsiString::View(LoadRaw<void*>(before + slot.Offset)) !=
                                    TAnsiString::View(LoadRaw<void*>(after + slot.Offset))
                              : slot.Kind == skCustom || !SameBytes(before + slot.Offset,
                                                                    after + slot.Offset, slot.Size);
            }
        }
        if (changed) fChanged.Include(i);
    }
    if (!fColumns->LooksUp()) return;
    // What a reference shows follows the key column beside it, whatever its own key says; the key
    // column may have no place but the reference.
    for (const TKdsColumn* const column : *fColumns) {
        if (column->GetIsVirtualKey() && fChanged.Has(column->KeyHolder()->Index())) {
            fChanged.Include(column->Index());
        }
    }
    for (const TKdsColumn* const column : *fColumns) {
        const TKdsColumn* const source = column->SourceField();
        if (source != nullptr && fChanged.Has(source->Index())) fChanged.Include(column->Index());
    }
}

TKdsRecord* TKdsTable::FindByColumnValues(std::span<const TVariant> values) {
    TKdsView* const primary = UsablePrimaryView();
    if (primary == nullptr) return nullptr;
    std::vector<TVariant> key;
    for (const TKdsColumn* const column : *primary->Columns()) {
        const auto index = static_cast<std::size_t>(column->Index());
        if (index >= values.size()) return nullptr;
        key.push_back(values[index]);
    }
    const std::int32_t index = primary->Find(key);
    return index < 0 ? nullptr : primary->Items(index);
}

// ---- Setting it ---------------------------------------------------------------------------

std::u16string TKdsTable::GetPrimaryKey() const {
    return fPrimaryView == nullptr ? std::u16string() : fPrimaryView->OrderBy();
}

bool TKdsTable::IsKeyColumn(const TKdsColumn* column) const {
    if (fPrimaryView == nullptr) return false;
    // From the text: the view need not be built.
    const TOwned<TKdsOrderColumnList> columns = TKdsOrderColumnList::Create();
    columns->Parse(const_cast<TKdsTable*>(this), fPrimaryView->OrderBy());
    return columns->Contains(column);
}

// What a change of the primary key touches, as it was: put back unless the change stands. Views
// that were built for the new key meanwhile give up their rows and are built again by their next
// use.
class TKdsKeyChange {
public:
    TKdsKeyChange(TKdsTable* table, const std::u16string& key)
        : fTable(table), fPrimary(table->fPrimaryView), fDefault(table->fDefaultView) {
        const TOwned<TKdsOrderColumnList> columns = TKdsOrderColumnList::Create();
        columns->Parse(table, key);
        for (TKdsColumn* const column : *columns) {
            if (column->AllowNull()) fNullable.push_back(column);
        }
        if (fPrimary != nullptr) fPrimaryOrder = fPrimary->OrderBy();
        if (fDefault != nullptr) fDefaultOrder = fDefault->OrderBy();
    }
    ~TKdsKeyChange() {
        if (fStands || (fPrimary != nullptr && fPrimary->IsDead())) return;
        TKdsView* const made = std::exchange(fTable->fPrimaryView, fPrimary);
        fTable->fDefaultView = fDefault;
        ++fTable->fPreparing;  // the views' orders are not concerned
        TFirstError unheard;
        if (made != nullptr && made != fPrimary) unheard.Run([&] { made->Free(); });
        PutBack(fPrimary, fPrimaryOrder);
        PutBack(fDefault, fDefaultOrder);
        unheard.Run([&] {
            for (TKdsColumn* const column : fNullable) column->SetAllowNull(true);
        });
        --fTable->fPreparing;
    }
    TKdsKeyChange(const TKdsKeyChange&) = delete;
    TKdsKeyChange& operator=(const TKdsKeyChange&) = delete;
    void Stands() noexcept { fStands = true; }

private:
    static void PutBack(TKdsView* view, std::u16string& order) noexcept {
        if (view == nullptr || view->fOrderBy == order) return;
        view->fOrderBy.swap(order);
        view->GiveUp();
    }
    TKdsTable* fTable;
    TKdsView* fPrimary;
    TKdsView* fDefault;
    std::u16string fPrimaryOrder, fDefaultOrder;
    std::vector<TKdsColumn*> fNullable;
    bool fStands = false;
};

void TKdsTable::SetPrimaryKey(std::u16string_view orderText) {
    const std::u16string key = NormalizeOrder(orderText);
    if (key == GetPrimaryKey()) return;
    CheckNotBusy();
    TKdsChangeBracket bracket(this);  // links hear of it when it is done
    TFirstError errors;
    errors.Run([&] {
        TKdsKeyChange change(this, key);
        if (key.empty()) {
            DropPrimaryKey();
        } else {
            if (fPrimaryView != nullptr) {
                fPrimaryView->SetOrderBy(key);
            } else {
                MakePrimaryKey(key);
            }
            if (fDefaultView != nullptr && fDefaultView != fPrimaryView) {
                fDefaultView->SetOrderBy(key);
            }
        }
        change.Stands();
        fKeyFailed = false;
    });
    bracket.Close(errors);
    errors.Rethrow();
}

// The view made for a first key goes again when the change is refused.
void TKdsTable::MakePrimaryKey(const std::u16string& key) {
    fPrimaryView = fViews->MakeIndex(key, {voUnique, voPrimary});
    if (HasFilters()) {
        fPrimaryView->fAsleep = true;
    } else {
        fPrimaryView->SetActive(true);
    }
}

void TKdsTable::DropPrimaryKey() {
    if (fRecords->Count() > 0) KdsError(u"PrimaryViewChange");
    TKdsView* const view = std::exchange(fPrimaryView, nullptr);
    if (fDefaultView == view) {
        fDefaultView = nullptr;
    } else if (fDefaultView != nullptr) {
        fDefaultView->SetOrderBy({});
    }
    view->Free();
}

// ---- The default view ---------------------------------------------------------------------

TKdsView* TKdsTable::GetDefaultView(std::int32_t create) {
    TKdsChangeBracket bracket(this);  // links hear of it when it is done
    TFirstError errors;
    errors.Run([&] { MakeDefaultView(create); });
    bracket.Close(errors);
    errors.Rethrow();
    return fDefaultView;
}

void TKdsTable::MakeDefaultView(std::int32_t create) {
    if (fDefaultView != nullptr) {
        TKdsView* const view = fDefaultView;
        if (view->fAsleep && view->Group()->Active()) {
            view->fAsleep = false;
            view->SetActive(true);
        }
        view->Update();
        return;
    }
    const std::u16string key = GetPrimaryKey();
    if (!HasFilters()) {
        fDefaultView = fViews->FindIndex(key, {voPrimary}, {});
        if (fDefaultView != nullptr) fDefaultView->SetActive(true);
    }
    if (fDefaultView == nullptr && create > 0) {
        TOwned<TKdsView> view = TKdsView::Create(this, fViews->GenerateName(u"DV_" + Name()));
        view->SetOrderBy(key);
        view->fMadeAsDefault = true;
        fDefaultView = EnterView(std::move(view));
    }
}

// Switched on, and so built, before it enters the list: a view that fails never gets there.
TKdsView* TKdsTable::EnterView(TOwned<TKdsView>&& view) {
    TKdsView* const entering = view.get();
    entering->fEntering = true;
    TScopeGuard entered([&] { entering->fEntering = false; });
    entering->SetActive(true);
    TKdsView* const kept = fViews->Append(std::move(view));
    return kept;
}

// ---- Selections ---------------------------------------------------------------------------

TKdsView* TKdsTable::Select(std::u16string_view orderBy, std::u16string_view filter,
                            TKdsAcceptRecordEvent onAccept, bool unordered) {
    return DoSelect(orderBy, nullptr, filter, onAccept, nullptr, unordered, nullptr);
}

TKdsView* TKdsTable::SelectA(std::u16string_view orderBy, std::u16string_view filter,
                             TIntf<TKdsAcceptRecordProc> acceptProc, bool unordered) {
    return DoSelect(orderBy, nullptr, filter, nullptr, std::move(acceptProc), unordered, nullptr);
}

TKdsView* TKdsTable::SelectEx(std::u16string_view orderBy, TKdsComparer onCompare,
                              std::u16string_view filter, TKdsAcceptRecordEvent onAccept,
                              bool unordered, const TIntf<IKdsViewFactory>& viewFactory) {
    return DoSelect(orderBy, onCompare, filter, onAccept, nullptr, unordered, viewFactory);
}

TKdsView* TKdsTable::DoSelect(std::u16string_view orderBy, TKdsComparer onCompare,
                              std::u16string_view filter, TKdsAcceptRecordEvent onAccept,
                              TIntf<TKdsAcceptRecordProc> acceptProc, bool unordered,
                              const TIntf<IKdsViewFactory>& viewFactory) {
    CheckNotBusy();
    TKdsChangeBracket bracket(this);  // links hear of it when it is done
    const std::u16string name = fViews->GenerateName(u"VW_" + Name());
    TOwned<TKdsView> view =
        viewFactory ? viewFactory->CreateView(this, name) : TKdsView::Create(this, name);
    if (view == nullptr || view->Table() != this) {
        throw EInvalidArgument(u"The view factory made no view of this table");
    }
    view->fReason = vrSelect;
    view->SetFilter(filter);
    view->SetOrderBy(orderBy.empty() && !unordered ? GetPrimaryKey() : std::u16string(orderBy));
    if (!onAccept && acceptProc) {
        view->fAcceptProc = std::move(acceptProc);
        view->SetOnAccept(TKdsAcceptRecordEvent::Bind<&TKdsView::AnonymousAccept>(view.get()));
    } else {
        view->SetOnAccept(onAccept);
    }
    view->SetOnCompare(onCompare);
    TKdsView* const kept = EnterView(std::move(view));
    TFirstError errors;
    bracket.Close(errors);
    errors.Rethrow();
    return kept;
}

}  // namespace kds
