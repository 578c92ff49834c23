#include "kds/views/Kdschanges.h"

#include <algorithm>

#include "kds/core/Kdstables.h"
#include "kds/views/Kdschangefeeds.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// ---- Columns ------------------------------------------------------------------------------

TKdsChangedColumns::TKdsChangedColumns(const TKdsColumnMask& mask) {
    const std::span<const std::uint64_t> bits = mask.Bits();
    if (bits.empty()) return;
    fFirst = bits.front();
    if (bits.size() > 1) fRest.assign(bits.begin() + 1, bits.end());
}

bool TKdsChangedColumns::Has(std::int32_t column) const noexcept {
    if (fAll) return true;
    if (column < 0) return false;
    const auto word = static_cast<std::size_t>(column) / 64;
    if (word > fRest.size()) return false;
    return ((word == 0 ? fFirst : fRest[word - 1]) >> (column % 64) & 1) != 0;
}

void TKdsChangedColumns::Include(const TKdsChangedColumns& other) {
    if (fAll) return;
    if (other.fAll) {
        *this = Every();
        return;
    }
    if (fRest.size() < other.fRest.size()) fRest.resize(other.fRest.size());
    fFirst |= other.fFirst;
    for (std::size_t i = 0; i < other.fRest.size(); ++i) fRest[i] |= other.fRest[i];
}

// ---- Copies -------------------------------------------------------------------------------

void ApplyChanges(const TKdsChangeList& changes, std::vector<TKdsRecord*>& rows) {
    const auto at = [&](std::int32_t place) { return rows.begin() + place; };
    for (const TKdsChange& change : changes) {
        const auto [from, to] = std::pair(change.From, change.To);
        switch (change.Kind) {
            case ckInserted: rows.insert(at(to), change.Record); break;
            case ckRemoved: rows.erase(at(from)); break;
            case ckMoved:
                if (from < to) {
                    std::rotate(at(from), at(from) + 1, at(to) + 1);
                } else {
                    std::rotate(at(to), at(from), at(from) + 1);
                }
                break;
            case ckUpdated: break;
            case ckRebuilt: rows.assign(changes.Rows.begin(), changes.Rows.end()); break;
        }
    }
}

// ---- Links --------------------------------------------------------------------------------

TKdsChangeLink::~TKdsChangeLink() {
    if (TKdsChangeDesk::fCalled == this) TKdsChangeDesk::fCalled = nullptr;
    if (fQueuedAt != nullptr) fQueuedAt->DropOwn(this);
    if (fFeed != nullptr) fFeed->Leave(this);
}

TKdsView* TKdsChangeLink::View() const noexcept {
    return fFeed == nullptr ? nullptr : fFeed->fView;
}

void TKdsChangeLink::SetView(TKdsView* view) {
    // Nobody would tell the link when the view has gone.
    if (view != nullptr && (view->fEnds || view->Table() == nullptr)) view = nullptr;
    if (view != View()) Attach(view, fStream);
}

void TKdsChangeLink::SetCoalesces(bool value) {
    if (value == Coalesces()) return;
    const std::uint8_t stream = value ? 0 : 1;
    if (View() == nullptr) {
        fStream = stream;
    } else {
        Attach(View(), stream);
    }
}

void TKdsChangeLink::Attach(TKdsView* view, std::uint8_t stream) {
    TKdsTravelGuard guard;
    TKdsChangeDesk* desk = fFeed == nullptr ? nullptr : fFeed->fDesk;
    TKdsChangeFeed* feed = nullptr;
    std::vector<TKdsRecord*> rows;
    if (view != nullptr) {
        desk = view->Table()->ChangeDesk();
        feed = desk->FeedOf(view);
        feed->ReserveLink();
        rows = feed->Rows();
    }
    // From here on nothing fails but the routine of the host.
    if (fQueuedAt != nullptr) fQueuedAt->DropOwn(this);
    if (fFeed != nullptr) fFeed->Leave(this);
    fStream = stream;
    if (feed != nullptr) feed->Join(this, view);
    fOwn.Rows.swap(rows);
    desk->PushOwn(this);
    TFirstError errors;
    desk->Deliver(errors);
    errors.Rethrow();
}

void TKdsChangeHandler::HandleChanges(const TKdsChangeList& changes) {
    const TKdsChangeEvent routine = fOnChanges;
    if (routine) routine(changes.View, changes);
}

}  // namespace kds
