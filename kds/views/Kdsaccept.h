// Filters of a table: objects that hide rows from all of its views but the primary one.
//
// Shape      IKdsAccept is what a table keeps and asks. TKdsAccept is one that a host owns, names,
//            switches on and off, and moves from table to table; it is in its table's list as long
//            as it is enabled and has a table.
// Ownership  A table counts the filters that it holds. A TKdsAccept belongs to the host: its end
//            takes it out of its table, and a table that ends leaves it without one.
// Errors     RecordStateInvalid, and nothing changed, from inside a callback of the engine. What a
//            view raises when it is rebuilt, with the change made and all other views built.
// Cost       A change rebuilds the table's views, less their orders. A row is asked about once for
//            each view when it enters or is posted.
// Threads    As the table.
#pragma once

#include <string>

#include "kds/core/Kdstables.h"

namespace kds {

class IKdsAccept : public IInterface {
public:
    [[nodiscard]] virtual bool Accept(TKdsView* view, TKdsRecord* record) = 0;
};

class TKdsAccept : public TObject {
public:
    // Disabled and without a table.
    explicit TKdsAccept(std::u16string_view name = {});
    // On the table at once, and enabled.
    TKdsAccept(TKdsTable* table, TKdsAcceptRecordEvent onAccept, std::u16string_view name = {});
    ~TKdsAccept() override;

    [[nodiscard]] const std::u16string& Name() const noexcept { return fName; }
    void SetName(std::u16string_view value) { fName = value; }
    [[nodiscard]] bool Enabled() const noexcept { return fEnabled; }
    void SetEnabled(bool value);
    [[nodiscard]] TKdsTable* Table() const noexcept { return fTable; }
    void SetTable(TKdsTable* value);
    // Takes the view, the record and the verdict, true on entry. Without it all rows pass.
    [[nodiscard]] const TKdsAcceptRecordEvent& OnAccept() const noexcept { return fOnAccept; }
    void SetOnAccept(TKdsAcceptRecordEvent value);
    // False while disabled or without a table.
    [[nodiscard]] bool Accept(TKdsView* view, TKdsRecord* record);

private:
    class TEntry;
    class TWatch;
    template <typename F>
    void Change(F&& store);

    std::u16string fName;
    bool fEnabled = false;
    TKdsTable* fTable = nullptr;
    TKdsAcceptRecordEvent fOnAccept;
    TIntf<TEntry> fEntry;  // what the table knows
    TIntf<TWatch> fWatch;
};

}  // namespace kds
