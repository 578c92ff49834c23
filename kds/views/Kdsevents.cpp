#include "kds/views/Kdsevents.h"

#include <algorithm>

#include "kds/core/Kdstables.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// ---- Links --------------------------------------------------------------------------------

TKdsViewLink::~TKdsViewLink() {
    if (fGone != nullptr) *fGone = true;
    if (fView != nullptr) fView->RemoveLink(this);
}

void TKdsViewLink::SetView(TKdsView* view) {
    if (view == fView) return;
    TKdsTravelGuard guard;
    if (view != nullptr) view->ReserveLink();  // from here on nothing fails but the handler
    if (fView != nullptr) fView->RemoveLink(this);
    fView = view;
    bool gone = false;
    bool* const outer = std::exchange(fGone, &gone);
    TFirstError errors;
    errors.Run([&] {
        TKdsEvent event;
        HandleEvent(&event);
    });
    if (gone) {
        if (outer != nullptr) *outer = true;
        errors.Rethrow();
        return;
    }
    fGone = outer;
    // The handler may have gone on to yet another view.
    if (view != nullptr && fView == view) view->AppendLink(this);
    errors.Rethrow();
}

void TKdsViewLink::SetCall(TKdsCallTime value) {
    if (value == fCall) return;
    fCall = value;
    // While it is greeted by a view it is not among the view's links yet.
    if (fView != nullptr && std::ranges::find(fView->fLinks, this) != fView->fLinks.end()) {
        fView->fAlwaysCount += value == ctAlways ? 1 : -1;
    }
}

void TKdsViewHandler::HandleEvent(TKdsEvent* event) {
    const TKdsViewEvent routine = fOnHandle;
    if (routine) routine(View(), event);
}

// ---- The view's side ----------------------------------------------------------------------

// A walk over the links that survives their coming and going: it ends at the links that were there
// at the start.
class TKdsView::TLinkWalk {
public:
    explicit TLinkWalk(TKdsView* view) noexcept
        : fView(view), fBound(view->fLinks.size()), fOuter(view->fLinkWalks) {
        view->fLinkWalks = this;
    }
    ~TLinkWalk() { fView->fLinkWalks = fOuter; }
    TLinkWalk(const TLinkWalk&) = delete;
    TLinkWalk& operator=(const TLinkWalk&) = delete;
    [[nodiscard]] TKdsViewLink* Next() noexcept {
        return fNext < fBound ? fView->fLinks[fNext++] : nullptr;
    }
    // For the innermost walk and those around it.
    static void Removed(TLinkWalk* walk, std::size_t index) noexcept {
        for (; walk != nullptr; walk = walk->fOuter) {
            if (index < walk->fNext) --walk->fNext;
            if (index < walk->fBound) --walk->fBound;
        }
    }

private:
    TKdsView* fView;
    std::size_t fNext = 0;
    std::size_t fBound;
    TLinkWalk* fOuter;
};

void TKdsView::ReserveLink() {
    if (fLinks.size() == fLinks.capacity()) fLinks.reserve(fLinks.size() + fLinks.size() / 2 + 4);
}

void TKdsView::AppendLink(TKdsViewLink* link) {
    if (link == nullptr) throw EInvalidArgument(u"There is no link to append");
    if (std::ranges::find(fLinks, link) != fLinks.end()) return;
    TKdsView* const previous = std::exchange(link->fView, nullptr);
    if (previous != nullptr && previous != this) previous->RemoveLink(link);
    if (fEnds) return;  // nobody would tell the link when the view has gone
    ReserveLink();
    fLinks.push_back(link);
    if (fTable != nullptr) fTable->ViewsChanged();
    link->fView = this;
    if (link->Call() == ctAlways) ++fAlwaysCount;
}

void TKdsView::RemoveLink(TKdsViewLink* link) {
    const auto place = std::ranges::find(fLinks, link);
    if (place == fLinks.end()) return;
    if (link->Call() == ctAlways) --fAlwaysCount;
    TLinkWalk::Removed(fLinkWalks, static_cast<std::size_t>(place - fLinks.begin()));
    fLinks.erase(place);
    if (fTable != nullptr) fTable->ViewsChanged();
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
    // Without memory for the queue it is told at once: out of turn, but told.
    if (fTable == nullptr || !fTable->InBracket() || !fTable->QueueEvent(this, event))
        Deliver(event);
}

// Without memory of its own: every link that is there hears of the change.
void TKdsView::Deliver(const TKdsEvent& event) {
    TKdsTravelGuard guard;
    TFirstError errors;
    TLinkWalk walk(this);
    while (TKdsViewLink* const link = walk.Next()) {
        if (event.Moment == ctAlways && link->Call() != ctAlways) continue;
        errors.Run([&] {
            TKdsEvent copy = event;
            link->HandleEvent(&copy);
        });
    }
    errors.Rethrow();
}

}  // namespace kds
