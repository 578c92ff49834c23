#pragma once

#include "kds/views/Kdsviews.h"

namespace kds {

// What the comparer looks at during one search; the search before, of the same view, is restored.
class TKdsView::TCompareScope {
public:
    TCompareScope(TKdsView* view, TKdsOrderColumnList* columns, std::int32_t count) noexcept
        : fView(view),
          fColumns(view->fCompareColumnList),
          fCount(view->fCompareColumnCount),
          fOptions(view->fCompareOptions) {
        view->fCompareColumnList = columns;
        view->fCompareColumnCount = count;
    }
    ~TCompareScope() {
        fView->fCompareColumnList = fColumns;
        fView->fCompareColumnCount = fCount;
        fView->fCompareOptions = fOptions;
    }
    TCompareScope(const TCompareScope&) = delete;
    TCompareScope& operator=(const TCompareScope&) = delete;

private:
    TKdsView* fView;
    TKdsOrderColumnList* fColumns;
    std::int32_t fCount;
    TKdsCompareOptions fOptions;
};

}  // namespace kds
