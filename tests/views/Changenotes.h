// A mirror for tests: writes down, in short lines, what it gets.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "kds/kds.h"
#include "tests/support/Recorder.h"

namespace kds {

using TRows = std::vector<TKdsRecord*>;

inline TRows RowsOf(TKdsView* view) {
    return view != nullptr && view->Actual() ? TRows(view->begin(), view->end()) : TRows();
}

// "u1 r7 [2]": kind, place or places, row identifier, changed columns of the first eight.
inline std::string LineOf(const TKdsChange& change, const TKdsChangeList& list) {
    std::ostringstream line;
    switch (change.Kind) {
        case ckInserted: line << 'i' << change.To; break;
        case ckRemoved: line << 'd' << change.From; break;
        case ckMoved: line << 'm' << change.From << '>' << change.To; break;
        case ckUpdated: line << 'u' << change.From; break;
        case ckRebuilt: line << "rebuilt " << list.Rows.size(); return line.str();
    }
    line << " r" << change.RowID;
    if (change.Columns.All()) return line.str();
    line << " [";
    for (std::int32_t i = 0; i < 8; ++i) {
        if (change.Columns.Has(i)) line << i;
    }
    return line.str() + ']';
}

// A mirror that writes down what it gets, and then does what it is told to.
class TNotes : public TKdsMirror {
public:
    explicit TNotes(TKdsView* view = nullptr, bool coalesces = true) {
        SetCoalesces(coalesces);
        if (view != nullptr) SetView(view);
        fLists.clear();
    }
    void HandleChanges(const TKdsChangeList& changes) override {
        EXPECT_FALSE(std::exchange(fInside, true)) << "a list inside a list";
        TScopeGuard leave([&] { fInside = false; });
        std::string text;
        for (const TKdsChange& change : changes) {
            text += (text.empty() ? "" : ", ") + LineOf(change, changes);
        }
        fLists.push_back(text);
        TKdsMirror::HandleChanges(changes);
        const auto routine = OnList;
        if (routine) routine(changes);
    }
    support::TLines Take() { return std::exchange(fLists, {}); }
    [[nodiscard]] bool Agrees() const { return Rows() == RowsOf(View()); }
    std::function<void(const TKdsChangeList&)> OnList;

private:
    inline static bool fInside = false;
    support::TLines fLists;
};
using TLines = support::TLines;

}  // namespace kds
