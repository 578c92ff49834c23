#include "kds/views/Kdsevents.h"

#include <algorithm>

#include "kds/core/Kdstables.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// ---- Links --------------------------------------------------------------------------------

TKdsViewLink::~TKdsViewLink() {
    if (fView != nullptr) fView->RemoveLink(this);
}

void TKdsViewLink::SetView(TKdsView* view) {
    if (view == fView) return;
    TKdsTravelGuard guard;
    if (fView != nullptr) fView->RemoveLink(this);
    fView = view;
    TFirstError errors;
    errors.Run([&] {
        TKdsEvent event;
        HandleEvent(&event);
    });
    // The handler may have gone on to yet another view.
    if (view != nullptr && fView == view) view->AppendLink(this);
    errors.Rethrow();
}

void TKdsViewLink::SetCall(TKdsCallTime value) {
    if (value == fCall) return;
    fCall = value;
    if (fView != nullptr) fView->fAlwaysCount += value == ctAlways ? 1 : -1;
}

void TKdsViewHandler::HandleEvent(TKdsEvent* event) {
    const TKdsViewEvent routine = fOnHandle;
    if (routine) routine(View(), event);
}

// ---- The view's side ----------------------------------------------------------------------

void TKdsView::AppendLink(TKdsViewLink* link) {
    if (link == nullptr) throw EInvalidArgument(u"There is no link to append");
    if (std::ranges::find(fLinks, link) != fLinks.end()) return;
    fLinks.push_back(link);
    link->fView = this;
    if (link->Call() == ctAlways) ++fAlwaysCount;
}

void TKdsView::RemoveLink(TKdsViewLink* link) {
    const auto place = std::ranges::find(fLinks, link);
    if (place == fLinks.end()) return;
    if (link->Call() == ctAlways) --fAlwaysCount;
    fLinks.erase(place);
    link->fView = nullptr;
}

void TKdsView::RaiseEvent(TKdsEventReason reason, std::int32_t oldRow, std::int32_t newRow,
                          TKdsRecord* origin) {
    if (fTable == nullptr) return;
    TKdsEvent event{reason, oldRow, newRow, origin, ctNormal};
    if (fTable->Status() != mtsRegular) {
        ++fChangeCount;
        if (fAlwaysCount == 0) return;
        event.Moment = ctAlways;
    } else {
        fChangeCount = 0;
    }
    if (fLinks.empty()) return;
    fRaisedEvent = event;
    fEventToFire = &fRaisedEvent;
    fTable->CountStagedEvent();
}

void TKdsView::FireEvents() {
    if (fEventToFire == nullptr) return;
    const TKdsEvent event = *fEventToFire;
    fEventToFire = nullptr;
    if (fTable != nullptr && fTable->InBracket()) {
        fTable->QueueEvent(this, event);
    } else {
        Deliver(event);
    }
}

// A handler may end any link: those that are left are asked whether they still are.
void TKdsView::Deliver(const TKdsEvent& event) {
    TKdsTravelGuard guard;
    const std::vector<TKdsViewLink*> links = fLinks;
    TFirstError errors;
    for (TKdsViewLink* const link : links) {
        if (std::ranges::find(fLinks, link) == fLinks.end()) continue;
        if (event.Moment == ctAlways && link->Call() != ctAlways) continue;
        errors.Run([&] {
            TKdsEvent copy = event;
            link->HandleEvent(&copy);
        });
    }
    errors.Rethrow();
}

}  // namespace kds
