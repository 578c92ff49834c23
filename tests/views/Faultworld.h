// A store in which everything that calls the host can be made to fail, for tests of what is left
// after a failure.
//
// Shape      Table "T" has a primary key, another unique key, and views of every kind; each of the
//            host's callbacks passes a fuse, and mirrors follow the views by their events alone.
//            Table "U" is empty, so that its columns and keys can be changed.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kds/kds.h"

namespace kds::support {

// Where the engine calls the host.
enum class TSpot { None, Accept, Filter, Compare, Value, Calculate, Function, Deacon, Link, List };

class TFuse {
public:
    // The n-th call at this place from now on bangs, once.
    void Light(TSpot spot, int nth, std::function<void()> bang) {
        fSpot = spot;
        fLeft = nth;
        fBang = std::move(bang);
        fBlown = false;
    }
    void PutOut() { fSpot = TSpot::None; }
    [[nodiscard]] bool Blown() const { return fBlown; }
    void Pass(TSpot spot) {
        if (spot != fSpot || fLeft <= 0 || --fLeft > 0) return;
        fBlown = true;
        fBang();
    }

private:
    TSpot fSpot = TSpot::None;
    int fLeft = 0;
    std::function<void()> fBang;
    bool fBlown = false;
};

// FUSED(x) is x, by the fuse of the world that there is.
inline TFuse* FusedFunctions = nullptr;
inline void Fused(TExprCall& call) {
    if (FusedFunctions != nullptr) FusedFunctions->Pass(TSpot::Function);
    call.Answer(call.Arg(0));
}

// Custom data that compares itself.
class TTag final : public IInterface, public IKdsComparable {
public:
    TTag(int number, TFuse* fuse) : Number(number), fFuse(fuse) { ++Live; }
    ~TTag() override { --Live; }
    std::int32_t Compare(const IInterface* other) const override {
        fFuse->Pass(TSpot::Value);
        return Number - dynamic_cast<const TTag*>(other)->Number;
    }
    int Number;
    inline static int Live = 0;

private:
    TFuse* fFuse;
};

// Follows a view by what it is told. It allocates nothing while it listens.
class TMirror final : public TKdsViewLink {
public:
    explicit TMirror(TFuse* fuse) : fFuse(fuse) { Rows.reserve(256); }
    void HandleEvent(TKdsEvent* event) override {
        Follow(*event);
        fFuse->Pass(TSpot::Link);
    }
    // Whether the view is what was told of it.
    [[nodiscard]] bool Agrees() {
        if (View() == nullptr) return true;
        fRows.clear();
        for (TKdsRecord* const record : *View()) fRows.push_back(record->RowID());
        if (std::exchange(fRereads, false)) Rows = fRows;
        return !Lost && Rows == fRows;
    }
    std::vector<std::uint32_t> Rows;
    bool Lost = false;  // an event did not fit what was told before

private:
    void Follow(const TKdsEvent& event) {
        const auto count = static_cast<std::int32_t>(Rows.size());
        const bool goes = event.Reason == evRecordDelete || event.Reason == evRecordUpdate;
        const bool comes = event.Reason == evRecordInsert || event.Reason == evRecordUpdate;
        // Everything anew. What is told next may have happened already, so that reading waits.
        if (event.Reason == evSourceChange || event.Reason == evStatusChange) fRereads = true;
        if (fRereads) return;
        if (goes && (event.OldRow < 0 || event.OldRow >= count)) Lost = true;
        if (comes && (event.NewRow < 0 || event.NewRow > count - (goes ? 1 : 0))) Lost = true;
        if (Lost || event.Origin == nullptr) return;
        if (goes && Rows[static_cast<std::size_t>(event.OldRow)] != event.Origin->RowID())
            Lost = true;
        if (goes) Rows.erase(Rows.begin() + event.OldRow);
        if (comes) Rows.insert(Rows.begin() + event.NewRow, event.Origin->RowID());
    }
    TFuse* fFuse;
    std::vector<std::uint32_t> fRows;
    bool fRereads = false;
};

class TGravedigger final : public IKdsSexton {
public:
    explicit TGravedigger(TFuse* fuse) : fFuse(fuse) {}
    void RecordDeleted(TKdsTable*, TKdsRecord*) override { fFuse->Pass(TSpot::Deacon); }
    void TableDestroyed(TKdsTable*) override { fFuse->Pass(TSpot::Deacon); }

private:
    TFuse* fFuse;
};

using TLines = std::vector<std::string>;

// The lines that only one of both has; empty when they are equal.
inline std::string Difference(const TLines& seen, const TLines& expected) {
    std::string text;
    const auto tell = [&](const char* sign, const TLines& lines, const TLines& others) {
        for (const std::string& line : lines) {
            if (std::ranges::find(others, line) == others.end()) text += sign + line + '\n';
        }
    };
    tell("seen:     ", seen, expected);
    tell("expected: ", expected, seen);
    return text.empty() && seen != expected ? "another order" : text;
}

class TFaultWorld {
public:
    static constexpr int RowCount = 12;

    explicit TFaultWorld(TKdsTableOptions options = {});
    ~TFaultWorld();
    TFaultWorld(const TFaultWorld&) = delete;
    TFaultWorld& operator=(const TFaultWorld&) = delete;

    // Nothing once the store, or the table in it, is gone.
    [[nodiscard]] TKdsTable* Alive(std::u16string_view table = u"T") const {
        TKdsStore* const store = Stores()->Find(u"Faults");
        return store == nullptr ? nullptr : store->Tables()->Find(table);
    }
    [[nodiscard]] TKdsRecord* Row(std::uint32_t rowID) const {
        return Table->Records()->FindRowID(rowID);
    }
    [[nodiscard]] TVariant Tag(int number) { return MakeIntf<TTag>(number, &Fuse); }
    [[nodiscard]] std::vector<TVariant> Values(int id) {
        return {id,
                500 - id,
                Format(u"n%d", {id % 4}),
                std::u16string(static_cast<std::size_t>(id % 5), u'x'),
                id % 30 == 20 ? TVariant(Null) : TVariant(id % 7),
                Tag(id % 4)};
    }
    // An edit that moves the row in every view.
    void Change(TKdsRecord* record, int id) {
        if (record->RowState() != rsEditing) record->Edit();
        record->SetValues(Values(id));
    }
    // The first broken promise of the views that are built, empty when all hold.
    [[nodiscard]] std::string Fault();
    // Everything a host can see, after each view was brought up to date; whether the table still
    // works comes last. With `calculated` false less what the host calculates.
    [[nodiscard]] TLines Look(bool calculated = true);

    TFuse Fuse;
    TKdsStore* Store;
    TKdsTable* Table;
    TKdsTable* Empty;
    TKdsView *Unique, *ByName, *Rich, *Odd, *ByLate, *ByTag, *Plain, *Marked;
    TOwned<TKdsRecord> Loose;  // a detached row
    TKdsStore* Second = nullptr;
    TIntf<TGravedigger> Gravedigger;
    std::vector<std::unique_ptr<TMirror>> Mirrors;
    std::unique_ptr<TKdsAccept> Filter;
    std::vector<std::byte> Saved;

    [[nodiscard]] static std::optional<std::int32_t> Number(TKdsRecord* record, int column) {
        return record->Get<std::int32_t>(record->Table()->Columns()->GetItem(column));
    }
    // Bound to views and columns.
    std::int32_t CompareNotes(TKdsRecord* a, TKdsRecord* b) {
        Fuse.Pass(TSpot::Compare);
        const TKdsColumn* const note = a->Table()->Columns()->GetItem(3);
        const auto length = [&](TKdsRecord* record) {
            return static_cast<std::int32_t>(
                record->Get<std::string_view>(note).value_or("").size());
        };
        return length(b) - length(a);
    }
    void AcceptEven(TKdsView*, TKdsRecord* record, bool& accept) {
        Fuse.Pass(TSpot::Accept);
        accept = Number(record, 0).value_or(1) % 20 == 0;
    }
    void Hide(TKdsView*, TKdsRecord* record, bool& accept) {
        Fuse.Pass(TSpot::Filter);
        accept = Number(record, 0) != 50;
    }
    void TakeNew(TKdsTable*, TKdsRecord* record, bool& accept) {
        Fuse.Pass(TSpot::Accept);
        accept = Number(record, 0) > 900;
    }
    void Calculate(TKdsColumn* column, TKdsRecord* record, TVariant& value) {
        Fuse.Pass(TSpot::Calculate);
        if (const auto qty = Number(record, 4)) value = *qty * column->Index();
    }
    [[nodiscard]] TKdsComparer Comparer() {
        return TKdsComparer::Bind<&TFaultWorld::CompareNotes>(this);
    }
    [[nodiscard]] TKdsAcceptRecordEvent Accepter() {
        return TKdsAcceptRecordEvent::Bind<&TFaultWorld::AcceptEven>(this);
    }
    [[nodiscard]] TIntf<TKdsAcceptRecordProc> AtLeast(std::int32_t qty) {
        return AcceptWhen([this, qty](TKdsRecord* record) {
            Fuse.Pass(TSpot::Accept);
            return Number(record, 4).value_or(-1) >= qty;
        });
    }

private:
    void LookAtTable(TKdsTable* table, bool calculated, TLines& lines);
    static std::string RowText(TKdsRecord* record, bool calculated, bool old);
    static std::string ViewText(TKdsView* view);
    static std::string ViewFault(TKdsView* view);
};

inline TFaultWorld::TFaultWorld(TKdsTableOptions options) {
    ExpressionFunctions().Add(
        {u"FUSED", 1, 1, "*", ekAny, ffTakesNulls, TExprRoutine::Bind<&Fused>()});
    FusedFunctions = &Fuse;
    Store = TKdsStore::Create(u"Faults");
    Table = Store->Tables()->Add(u"T");
    Table->SetOptions(options);
    TKdsTableColumnList& columns = *Table->Columns();
    columns.Add(u"Id", dtInteger);
    columns.Add(u"Code", dtInteger);
    columns.Add(u"Name", dtAnsiString, 8)->SetDefaultValue(u"none");
    columns.Add(u"Note", dtMemoString);
    columns.Add(u"Qty", dtInteger);
    columns.Add(u"Tag", dtCustomData);
    columns.Add(u"Twice", dtInteger)->SetCalculated(true);
    columns.Add(u"Late", dtInteger)->SetCalculated(true, /*stored=*/false);
    columns.Add(u"Slow", dtInteger)->SetDelayedCalc(true);
    columns.Add(u"Sum", dtInteger)->SetExpression(u"FUSED(Qty) * 100 + Code");
    columns.Add(u"Mark", dtAnsiString, 24)->SetCalculated(true, /*stored=*/false);
    columns.Items(10)->SetExpression(u"UPPER(FUSED(Name)) || '/' || Sum");
    for (int i = 6; i < 9; ++i) {
        columns.Items(i)->SetOnGetValue(TKdsGetValueEvent::Bind<&TFaultWorld::Calculate>(this));
    }
    Table->SetPrimaryKey(u"Id");
    for (int i = 0; i < RowCount; ++i) Table->Insert(Values((i * 7) % RowCount * 10));
    Unique = Table->Views()->MakeIndex(u"Code", {voUnique});
    Unique->SetActive(true);
    ByName = Table->Select(u"Name nocase,Qty desc");
    Rich = Table->SelectA(u"Qty desc", {}, AtLeast(3));
    Odd = Table->SelectEx({}, Comparer(), {}, Accepter(), true);
    ByLate = Table->Select(u"Late,Slow desc");
    ByTag = Table->Select(u"Tag desc");
    Plain = Table->Select({}, {}, nullptr, true);
    Marked = Table->Select(u"Mark,Id");
    Marked->SetFilter(u"FUSED(Sum) > 700 AND Mark LIKE 'N%' OR Qty IS NULL");
    Filter = std::make_unique<TKdsAccept>(
        Table, TKdsAcceptRecordEvent::Bind<&TFaultWorld::Hide>(this), u"Hide 50");
    for (TKdsView* const view :
         {Table->PrimaryView(), Unique, ByName, Rich, Odd, ByTag, Plain, Marked}) {
        Mirrors.push_back(std::make_unique<TMirror>(&Fuse));
        Mirrors.back()->SetView(view);
    }
    Gravedigger = MakeIntf<TGravedigger>(&Fuse);
    Table->AppendDeacon(Gravedigger);
    Table->AppendSexton(Gravedigger);
    Empty = Store->Tables()->Add(u"U");
    Empty->Columns()->Add(u"A", dtInteger);
    Empty->Columns()->Add(u"B", dtAnsiString, 4);
    Empty->GetDefaultView();
    Empty->Select(u"B desc");
}

inline TFaultWorld::~TFaultWorld() {
    Fuse.PutOut();
    Loose.reset();
    for (const char16_t* const name : {u"Second", u"Faults"}) {
        if (TKdsStore* const store = Stores()->Find(name)) store->Free();
    }
    Mirrors.clear();
    FusedFunctions = nullptr;
    EXPECT_EQ(TTag::Live, 0);
}

inline std::string TFaultWorld::RowText(TKdsRecord* record, bool calculated, bool old) {
    std::string text;
    for (TKdsColumn* const column : *record->Table()->Columns()) {
        if (column->Calculated() && !calculated) continue;
        const TVariant value = old ? record->GetOldC(column) : record->GetDataC(column);
        text += text.empty() ? "" : " ";
        if (value.Type() == varInterface) {
            text +=
                '#' + std::to_string(dynamic_cast<TTag&>(*value.Get<TIntf<IInterface>>()).Number);
        } else {
            text += value.Assigned() ? ToUtf8(VarToText(value)) : "-";
        }
    }
    return text;
}

// Membership and place of every record, told by the view's own routines one by one.
inline std::string TFaultWorld::ViewFault(TKdsView* view) {
    const std::string name = ToUtf8(view->Name()) + ": ";
    std::int32_t members = 0;
    for (TKdsRecord* const record : *view->Table()->Records()) {
        const std::int32_t index = view->IndexOf(record);
        if (view->Accept(record) != (index >= 0)) return name + "membership";
        if (index >= 0 && view->Items(index) != record) return name + "position";
        if (index >= 0) ++members;
    }
    if (members != view->Count()) return name + "rows that are not records";
    for (std::int32_t i = 1; i < view->Count(); ++i) {
        if (view->CompareMembers(view->Items(i - 1), view->Items(i), {coUseRowID}) >= 0) {
            return name + "order";
        }
    }
    return {};
}

inline std::string TFaultWorld::Fault() {
    for (const char16_t* const name : {u"T", u"U"}) {
        TKdsTable* const table = Alive(name);
        if (table == nullptr) continue;
        if (const char* const rule = table->Inconsistency()) return rule;
        for (TKdsView* const view : *table->Views()) {
            if (!view->Actual()) continue;
            if (const std::string fault = ViewFault(view); !fault.empty()) return fault;
        }
    }
    for (const auto& mirror : Mirrors) {
        if (!mirror->Agrees()) return "the mirror of " + ToUtf8(mirror->View()->Name());
    }
    return {};
}

// A view that was dismissed comes back with its next update.
inline std::string TFaultWorld::ViewText(TKdsView* view) {
    std::string line = "view " + ToUtf8(view->Name()) + " by " + ToUtf8(view->OrderBy()) +
                       (view->Active() ? " on" : " off");
    try {
        view->Update();
        if (view->Actual()) line += ViewFault(view);
    } catch (const Exception& error) {
        line += " " + std::string(error.what());
    }
    for (TKdsRecord* const record : *view) line += " " + std::to_string(record->RowID());
    return line;
}

inline void TFaultWorld::LookAtTable(TKdsTable* table, bool calculated, TLines& lines) {
    TLines views;
    for (TKdsView* const view : *table->Views()) {
        // What is calculated decides which rows it has.
        if (view != Marked || calculated) views.push_back(ViewText(view));
    }
    lines.push_back("table " + ToUtf8(table->Name()) + " key " + ToUtf8(table->GetPrimaryKey()) +
                    " status " + std::to_string(static_cast<int>(table->Status())) + " next " +
                    std::to_string(table->LastRowID()));
    for (TKdsColumn* const column : *table->Columns()) {
        lines.push_back(
            "column " + ToUtf8(column->Name()) + " " +
            std::to_string(static_cast<int>(column->DataType())) + " " +
            std::to_string(column->Length()) + " " + std::to_string(column->Attributes().Bits()) +
            (table->Columns()->Find(column->Name()) == column ? "" : " not to be found"));
    }
    for (TKdsRecord* const record : *table->Records()) {
        const bool edits = record->RowState() == rsEditing;
        lines.push_back("row " + std::to_string(record->RowID()) + ": " +
                        RowText(record, calculated, false) +
                        (edits ? " was " + RowText(record, calculated, true) : ""));
    }
    lines.insert(lines.end(), views.begin(), views.end());
}

inline TLines TFaultWorld::Look(bool calculated) {
    TLines lines;
    if (Loose != nullptr) lines.push_back("loose " + RowText(Loose.get(), calculated, false));
    for (std::int32_t s = 0; s < Stores()->Count(); ++s) {
        lines.push_back("store " + ToUtf8(Stores()->Items(s)->Name()));
        for (TKdsTable* const table : *Stores()->Items(s)->Tables()) {
            if (Stores()->Items(s)->Tables()->Find(table->Name()) != table)
                lines.push_back("not to be found");
            LookAtTable(table, calculated, lines);
        }
    }
    if (TKdsTable* const table = Alive(); table != nullptr && table->Status() == mtsRegular) {
        try {
            TKdsRecord* const probe = table->Insert(Values(7'000));
            Change(probe, 7'001);
            probe->Post();
            probe->Delete();
            lines.push_back("works");
        } catch (const Exception& error) {
            lines.push_back(error.what());
        }
    }
    return lines;
}

}  // namespace kds::support
