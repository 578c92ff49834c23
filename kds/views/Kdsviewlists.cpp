#include "kds/views/Kdsviewlists.h"

#include "kds/core/Kdserrors.h"

namespace kds {

TKdsView* TKdsViewList::GetView(std::u16string_view name) const {
    return static_cast<TKdsView*>(ItemByName(name));
}

TKdsView* TKdsViewList::Find(std::u16string_view name) const {
    return static_cast<TKdsView*>(FindByName(name));
}

TKdsView* TKdsViewList::FindIndex(std::u16string_view orderBy, TKdsViewOptions include,
                                  TKdsViewOptions exclude) const {
    for (TKdsView* const view : *this) {
        if (!view->Actual() || view->GetSortMode() != omOrder) continue;
        if (!view->Filter().empty() || view->HasTests()) continue;
        if (view->Suites(orderBy, include, exclude) == imDirect) return view;
    }
    return nullptr;
}

TKdsView* TKdsViewList::MakeIndex(std::u16string_view orderBy, TKdsViewOptions options) {
    TOwned<TKdsView> view = TKdsView::Create(fTable, GenerateName(u"UV_" + fTable->Name()));
    view->fReason = vrUnique;
    view->fOptions = options;
    view->SetOrderBy(orderBy);
    return Append(std::move(view));
}

// Refused before the first view has been switched off.
void TKdsViewList::Clear() {
    fTable->CheckNotBusy();
    TKdsActiveList::Clear();
}

void TKdsViewList::DoInsert(std::int32_t index, TKdsItem* item) {
    if (static_cast<TKdsView*>(item)->Table() != fTable) {
        throw EInvalidArgument(u"The view belongs to another table");
    }
    TKdsActiveList::DoInsert(index, item);
    fTable->ViewsChanged();
}

void TKdsViewList::DoDelete(std::int32_t index) {
    TKdsActiveList::DoDelete(index);
    fTable->ViewsChanged();
}

// While rows or their order are being read, the views that read them stay.
void TKdsViewList::Notify(TNotification* notification) {
    if (notification->Sender == this &&
        (notification->Action == acPrepareInsert || notification->Action == acPrepareDelete)) {
        fTable->CheckNotBusy();
    } else if (notification->Sender == this && notification->Action == acConfirmDelete) {
        fTable->ForgetView(static_cast<TKdsView*>(notification->Target));
    }
    TKdsActiveList::Notify(notification);
}

// All views have placed the record before any link hears of it.
void TKdsViewList::Handle(TNotification* notification) {
    TKdsSteps steps(notification);
    {
        TKdsListCursor cursor(this);
        while (TKdsItem* const view = cursor.NextKept()) {
            steps.Run([&] { view->Handle(notification); });
        }
    }
    if (fTable->TakeStagedEvents()) {
        TKdsChangeBracket bracket(fTable);
        TFirstError errors;
        TKdsListCursor cursor(this);
        while (TKdsItem* const view = cursor.Next()) {
            errors.Run([&] { static_cast<TKdsView*>(view)->FireEvents(); });
        }
        bracket.Close(errors);
        steps.Run([&] { errors.Rethrow(); });
    }
    steps.Finish();
}

const char* TKdsViewList::Inconsistency() {
    if (!TKdsActiveList::IsConsistent()) return "view list";
    for (TKdsView* const view : *this) {
        if (view->Group() != this || view->Table() != fTable) return "a view's table or group";
        if (!view->IsConsistent()) return "rows of a view";
    }
    return nullptr;
}

}  // namespace kds
