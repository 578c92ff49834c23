#include "kds/views/Kdsaccept.h"

namespace kds {

// In the table's list of filters; may stay there longer than the filter lives.
class TKdsAccept::TEntry final : public IKdsAccept {
public:
    explicit TEntry(TKdsAccept* filter) noexcept : fFilter(filter) {}
    [[nodiscard]] bool Accept(TKdsView* view, TKdsRecord* record) override {
        return fFilter == nullptr || fFilter->Accept(view, record);
    }
    void Leave() noexcept { fFilter = nullptr; }
    [[nodiscard]] bool Lives() const noexcept { return fFilter != nullptr; }

private:
    TKdsAccept* fFilter;
};

// Among its observers, for as long as it is the filter's table.
class TKdsAccept::TWatch final : public IKdsSexton {
public:
    explicit TWatch(TKdsAccept* filter) noexcept : fFilter(filter) {}
    void RecordDeleted(TKdsTable*, TKdsRecord*) override {}
    void TableDestroyed(TKdsTable*) override {
        if (fFilter != nullptr) fFilter->fTable = nullptr;
    }
    void Leave() noexcept { fFilter = nullptr; }

private:
    TKdsAccept* fFilter;
};

TKdsAccept::TKdsAccept(std::u16string_view name)
    : fName(name), fEntry(MakeIntf<TEntry>(this)), fWatch(MakeIntf<TWatch>(this)) {}

TKdsAccept::TKdsAccept(TKdsTable* table, TKdsAcceptRecordEvent onAccept, std::u16string_view name)
    : TKdsAccept(name) {
    fEnabled = true;
    fOnAccept = onAccept;
    SetTable(table);
}

TKdsAccept::~TKdsAccept() {
    try {
        SetTable(nullptr);
    } catch (...) {
        // A view that cannot be built has nobody to tell; from inside a callback the table keeps
        // an entry that lets every row pass.
    }
    fEntry->Leave();
    fWatch->Leave();
}

void TKdsAccept::SetEnabled(bool value) {
    if (value == fEnabled) return;
    if (fTable != nullptr) fTable->CheckNotBusy();
    Change([&] { fEnabled = value; });
}

void TKdsAccept::SetTable(TKdsTable* value) {
    if (value == fTable) return;
    if (fTable != nullptr) fTable->CheckNotBusy();
    if (value != nullptr) {
        value->CheckNotBusy();
        value->AppendSexton(fWatch);
    }
    Change([&] {
        if (fTable != nullptr) fTable->RemoveSexton(fWatch);
        fTable = value;
    });
}

// A view that cannot be built does not keep the change from being made. Links hear of the views
// that are built, and may end this filter.
template <typename F>
void TKdsAccept::Change(F&& store) {
    TFirstError errors;
    const TIntf<TEntry> entry = fEntry;
    if (fEnabled && fTable != nullptr) errors.Run([&] { fTable->RemoveFilter(entry); });
    if (entry->Lives()) {
        store();
        if (fEnabled && fTable != nullptr) errors.Run([&] { fTable->AppendFilter(entry); });
    }
    errors.Rethrow();
}

void TKdsAccept::SetOnAccept(TKdsAcceptRecordEvent value) {
    if (value == fOnAccept) return;
    if (fTable != nullptr) fTable->CheckNotBusy();
    fOnAccept = value;
    if (fEnabled && fTable != nullptr) fTable->RebuildViews(false);
}

bool TKdsAccept::Accept(TKdsView* view, TKdsRecord* record) {
    bool accept = fEnabled && fTable != nullptr;
    const TKdsAcceptRecordEvent routine = fOnAccept;
    if (accept && routine) routine(view, record, accept);
    return accept;
}

}  // namespace kds
