// What a view tells its links, and the links.
//
// Shape      A view stages one event a change; the events are delivered when the table operation
//            is complete, all views having placed the record. During a mass operation only links
//            that always want to be called hear of changes; the others learn by evStatusChange how
//            many they missed.
// Units      Rows are positions in the view, -1 for none.
// Ownership  The host owns its links; a link that ends leaves its view, a view that ends lets go
//            of its links, last one first, each hearing evSourceChange.
// Errors     What a handler raises reaches the caller of the table operation when it is complete.
// Validity   The event's record lives until the event has been delivered, also a deleted one. A
//            handler may change the table, ask positions, and end any link or view.
// Threads    One thread at a time.
#pragma once

#include <cstdint>

#include "kds/platform/Delegate.h"
#include "kds/platform/Object.h"

namespace kds {

class TKdsRecord;
class TKdsView;

enum class TKdsEventReason : std::uint8_t {
    evSourceChange,
    evStatusChange,
    evFieldsChange,
    evRecordInsert,
    evRecordDelete,
    evRecordUpdate,
    evRecordSignal
};
using enum TKdsEventReason;

enum class TKdsCallTime : std::uint8_t { ctNormal, ctAlways };
using enum TKdsCallTime;

struct TKdsEvent {
    TKdsEventReason Reason = evSourceChange;
    std::int32_t OldRow = 0;
    std::int32_t NewRow = 0;
    TKdsRecord* Origin = nullptr;
    TKdsCallTime Moment = ctNormal;
};

// An event of one view that waits for the change bracket to close.
struct TKdsQueuedEvent {
    TKdsView* View;  // nullptr once the view is gone
    TKdsEvent Event;
};

class TKdsViewLink : public TObject {
public:
    ~TKdsViewLink() override;
    [[nodiscard]] TKdsView* View() const noexcept { return fView; }
    // Leaves the view it had and hears evSourceChange, with the new view as View() already: the
    // moment to read everything anew. nullptr for none.
    void SetView(TKdsView* view);
    [[nodiscard]] TKdsCallTime Call() const noexcept { return fCall; }
    void SetCall(TKdsCallTime value);
    virtual void HandleEvent(TKdsEvent* event) = 0;

private:
    friend class TKdsView;
    TKdsCallTime fCall = ctNormal;
    TKdsView* fView = nullptr;
    bool* fGone = nullptr;  // set when the link ends while it hears of a new view
};

using TKdsViewEvent = TDelegate<void(TKdsView*, TKdsEvent*)>;

// A link that hands its events to a routine.
class TKdsViewHandler : public TKdsViewLink {
public:
    TKdsViewHandler() = default;
    explicit TKdsViewHandler(TKdsViewEvent onHandle) noexcept : fOnHandle(onHandle) {}
    ~TKdsViewHandler() override = default;
    void SetOnHandle(TKdsViewEvent value) noexcept { fOnHandle = value; }
    void HandleEvent(TKdsEvent* event) override;

private:
    TKdsViewEvent fOnHandle;
};

}  // namespace kds
