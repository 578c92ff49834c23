// A table's filters, and what follows when they change: the views are built anew, and the default
// view is the primary one only while there are none.
#include "kds/core/Kdstables.h"

#include <algorithm>

#include "kds/views/Kdsaccept.h"
#include "kds/views/Kdsviewlists.h"

namespace kds {

bool TKdsTable::ApplyFilters(TKdsView* view, TKdsRecord* record) {
    TKdsBusyScope busy(this);  // so that the filters stay, too
    return std::ranges::all_of(
        fFilters, [&](const TIntf<IKdsAccept>& filter) { return filter->Accept(view, record); });
}

void TKdsTable::AppendFilter(TIntf<IKdsAccept> filter) {
    if (!filter) throw EInvalidArgument(u"A filter is missing");
    CheckNotBusy();
    if (std::ranges::find(fFilters, filter) != fFilters.end()) return;
    fFilters.push_back(std::move(filter));
    // The next use of the default view makes a filtered one.
    if (fFilters.size() == 1 && fDefaultView == fPrimaryView) fDefaultView = nullptr;
    ViewsChanged();
    RebuildViews(false);
}

void TKdsTable::RemoveFilter(const TIntf<IKdsAccept>& filter) {
    const auto place = std::ranges::find(fFilters, filter);
    if (place == fFilters.end()) return;
    CheckNotBusy();
    const TIntf<IKdsAccept> kept = std::move(*place);  // may be the last who holds it
    fFilters.erase(place);
    ViewsChanged();
    TKdsChangeBracket bracket(this);  // links hear of it when all views are built
    TFirstError errors;
    if (fFilters.empty() && fDefaultView != fPrimaryView) RestoreDefaultView(errors);
    errors.Run([&] { RebuildViews(false); });
    bracket.Close(errors);
    errors.Rethrow();
}

// The pointer first: views that hear of the old one's end ask for the default view.
void TKdsTable::RestoreDefaultView(TFirstError& errors) {
    TKdsView* const old = std::exchange(fDefaultView, fPrimaryView);
    if (fPrimaryView != nullptr) {
        fPrimaryView->fAsleep = false;
        errors.Run([&] { fPrimaryView->SetActive(true); });
    }
    // A view of the host's that served as the default one stays.
    if (old != nullptr && old->fMadeAsDefault) errors.Run([&] { old->Free(); });
}

void TKdsTable::RebuildViews(bool full) {
    CheckNotBusy();
    TKdsChangeBracket bracket(this);  // links hear of it when all views are built
    TFirstError errors;
    const auto refresh = [&](TKdsView* view) {
        const TKdsView::TLockScope lock(view,
                                        full ? TKdsViewLockings{} : TKdsViewLockings{vlOrderBy});
        view->Refresh();
    };
    if (full && fPrimaryView != nullptr) errors.Run([&] { refresh(fPrimaryView); });
    TKdsListCursor cursor(fViews.get());
    while (TKdsItem* const item = cursor.Next()) {
        if (item != fPrimaryView) errors.Run([&] { refresh(static_cast<TKdsView*>(item)); });
    }
    bracket.Close(errors);
    errors.Rethrow();
}

}  // namespace kds
