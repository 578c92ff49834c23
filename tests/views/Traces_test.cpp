// Whole scenarios, written out: every position, state and event in order.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kds/kds.h"
#include "tests/support/Recorder.h"

namespace kds {
namespace {

using support::Refusal;
using support::TLines;

// Writes down what a view tells its links.
class TRecorder final : public TKdsViewLink {
public:
    TRecorder(TLines* lines, std::string name) : fLines(lines), fName(std::move(name)) {}
    void HandleEvent(TKdsEvent* event) override {
        static constexpr const char* Names[] = {"source", "status", "fields", "insert",
                                                "delete", "update", "signal"};
        std::string line = fName + " " + Names[static_cast<std::size_t>(event->Reason)] + "(" +
                           std::to_string(event->OldRow) + "," + std::to_string(event->NewRow) +
                           ")";
        // A deleted record is still whole while it is told of.
        if (event->Origin != nullptr) line += " id=" + ToUtf8(event->Origin->Format(u"id"));
        fLines->push_back(line);
    }

private:
    TLines* fLines;
    std::string fName;
};

class TTraceTest : public testing::Test {
protected:
    TTraceTest() : fStore(TKdsStore::Create(u"Traces")), fTable(fStore->Tables()->Add(u"T")) {
        fTable->Columns()->Add(u"id", dtInteger);
        fTable->Columns()->Add(u"name", dtAnsiString, 8);
        fTable->Columns()->Add(u"qty", dtInteger);
        fTable->SetPrimaryKey(u"id");
    }
    ~TTraceTest() override { fStore->Free(); }

    static bool HasQty(TKdsRecord* record) { return VarToInt64(record->GetDataN(u"qty")) > 0; }
    void Link(TRecorder& recorder, TKdsView* view) {
        recorder.SetView(view);
        fLines.clear();  // less the greeting
    }
    [[nodiscard]] TLines Taken() { return std::exchange(fLines, {}); }
    [[nodiscard]] static std::vector<std::uint32_t> Rows(TKdsView* view) {
        std::vector<std::uint32_t> rows;
        for (TKdsRecord* const record : *view) rows.push_back(record->RowID());
        return rows;
    }
    TKdsStore* fStore;
    TKdsTable* fTable;
    TLines fLines;
};

using TRowIDs = std::vector<std::uint32_t>;

TEST_F(TTraceTest, AKeyChangeMovesTheRowInThePrimaryViewAndLeavesTheSelection) {
    fTable->Insert({1, u"b", 5});
    TKdsRecord* const row = fTable->Insert({2, u"a", 5});
    fTable->Insert({3, u"c", 0});
    TKdsView* const selection = fTable->SelectA(u"name", {}, AcceptWhen(&HasQty));
    TKdsView* const primary = fTable->PrimaryView();
    TRecorder ofPrimary(&fLines, "P");
    TRecorder ofSelection(&fLines, "V");
    Link(ofPrimary, primary);
    Link(ofSelection, selection);
    ASSERT_EQ(Rows(selection), (TRowIDs{1, 0}));

    row->Edit();
    row->SetDataN(u"id", 9);
    EXPECT_EQ(primary->IndexOf(row), 1);  // by its posted values
    EXPECT_EQ(row->GetOldN(u"id"), TVariant(2));
    row->Post();
    EXPECT_EQ(Taken(), (TLines{"P update(1,2) id=9", "V update(0,0) id=9"}));
    EXPECT_EQ(Rows(primary), (TRowIDs{0, 2, 1}));

    row->Edit();
    row->SetDataN(u"qty", 0);
    row->Post();
    EXPECT_EQ(Taken(), (TLines{"P update(2,2) id=9", "V delete(0,-1) id=9"}));

    row->Delete();
    EXPECT_EQ(Taken(), (TLines{"P delete(2,-1) id=9"}));
    EXPECT_EQ(Rows(primary), (TRowIDs{0, 2}));
    EXPECT_EQ(Rows(selection), (TRowIDs{0}));
    EXPECT_STREQ(fTable->Inconsistency(), nullptr);
}

TEST_F(TTraceTest, ADuplicateSurfacesAtTheEndOfAMassiveLoadAndCanBeMended) {
    TKdsView* const byName = fTable->Select(u"name");
    TRecorder ofPrimary(&fLines, "P");
    TRecorder ofName(&fLines, "N");
    Link(ofPrimary, fTable->PrimaryView());
    Link(ofName, byName);

    fTable->EnterLoad(mtsMassive);
    EXPECT_EQ(Taken(), (TLines{"P status(0,0)", "N status(0,0)"}));
    fTable->Insert({1, u"b", 1});
    TKdsRecord* const twin = fTable->Insert({1, u"a", 2});
    EXPECT_EQ(Taken(), TLines{});
    EXPECT_EQ(Refusal([&] { fTable->LeaveLoad(); }), "Duplicate rows for \"UV_T\"");

    EXPECT_EQ(fTable->Status(), mtsRegular);
    EXPECT_EQ(Taken(), (TLines{"N status(0,0)"}));
    EXPECT_FALSE(fTable->PrimaryView()->Actual());
    EXPECT_EQ(Rows(byName), (TRowIDs{1, 0}));
    EXPECT_EQ(Refusal([&] { fTable->Insert({2, u"c", 3}); }), "Duplicate rows for \"UV_T\"");

    twin->Delete();
    fTable->Insert({2, u"c", 3});
    EXPECT_EQ(Rows(fTable->PrimaryView()), (TRowIDs{0, 2}));
    EXPECT_EQ(Rows(byName), (TRowIDs{0, 2}));
    EXPECT_STREQ(fTable->Inconsistency(), nullptr);
}

TEST_F(TTraceTest, AnOpenEditMovesNobodyElse) {
    for (int i = 0; i < 6; ++i) fTable->Insert({i * 10, std::u16string(1, u"fbdace"[i]), i});
    TKdsView* const byName = fTable->Select(u"name");
    TKdsRecord* const edited = fTable->Records()->FindRowID(2);  // "d"
    TRecorder ofName(&fLines, "N");
    Link(ofName, byName);

    edited->Edit();
    edited->SetDataN(u"name", u"z");
    fTable->Insert({99, u"dd", 0});
    EXPECT_EQ(Rows(byName), (TRowIDs{3, 1, 4, 2, 6, 5, 0}));
    TKdsRecord* const other = fTable->Records()->FindRowID(3);  // "a"
    other->Edit();
    other->SetDataN(u"name", u"dz");
    other->Post();
    EXPECT_EQ(Rows(byName), (TRowIDs{1, 4, 2, 6, 3, 5, 0}));
    fTable->Records()->FindRowID(5)->Delete();
    TKdsView* const made = fTable->Select(u"name");
    EXPECT_EQ(Rows(made), Rows(byName));

    edited->Cancel();
    EXPECT_EQ(Rows(byName), (TRowIDs{1, 4, 2, 6, 3, 0}));
    EXPECT_EQ(Taken(),
              (TLines{"N insert(-1,4) id=99", "N update(0,4) id=30", "N delete(5,-1) id=50"}));
    EXPECT_STREQ(fTable->Inconsistency(), nullptr);
}

TEST_F(TTraceTest, EventsOfChangesInsideAHandlerArriveInOrder) {
    TKdsRecord* const first = fTable->Insert({1, u"a", 1});
    struct TEcho {
        TKdsTable* Table;
        void Handle(TKdsView*, TKdsEvent* event) {
            // Each insertion below 4 inserts the next one.
            if (event->Reason != evRecordInsert) return;
            const std::int64_t id = VarToInt64(event->Origin->GetDataN(u"id"));
            if (id < 4) Table->Insert({id + 1, u"echo", 0});
        }
    } echo{fTable};
    TKdsViewHandler handler(TKdsViewEvent::Bind<&TEcho::Handle>(&echo));
    handler.SetView(fTable->PrimaryView());
    TRecorder ofPrimary(&fLines, "P");
    Link(ofPrimary, fTable->PrimaryView());

    fTable->Insert({2, u"b", 2});
    EXPECT_EQ(Taken(),
              (TLines{"P insert(-1,1) id=2", "P insert(-1,2) id=3", "P insert(-1,3) id=4"}));

    // A handler that deletes the row it hears about: its record stays whole for the links behind.
    struct TDeleter {
        void Handle(TKdsView*, TKdsEvent* event) {
            if (event->Reason == evRecordUpdate) event->Origin->Delete();
        }
    } deleter;
    handler.SetOnHandle(TKdsViewEvent::Bind<&TDeleter::Handle>(&deleter));
    first->Edit();
    first->SetDataN(u"qty", 7);
    first->Post();
    EXPECT_EQ(Taken(), (TLines{"P update(0,0) id=1", "P delete(0,-1) id=1"}));
    EXPECT_EQ(fTable->Records()->Count(), 3);
    EXPECT_STREQ(fTable->Inconsistency(), nullptr);
}

TEST_F(TTraceTest, OnlyLinksThatAlwaysWantItHearDuringUploads) {
    TRecorder normal(&fLines, "normal");
    TRecorder always(&fLines, "always");
    always.SetCall(ctAlways);
    Link(normal, fTable->PrimaryView());
    Link(always, fTable->PrimaryView());

    fTable->EnterLoad(mtsUploads);
    fTable->Insert({1, u"a", 1});
    fTable->Insert({2, u"b", 1});
    EXPECT_EQ(fTable->PrimaryView()->ChangeCount(), 2);
    fTable->LeaveLoad();

    EXPECT_EQ(Taken(), (TLines{"always insert(-1,0) id=1", "always insert(-1,1) id=2",
                               "normal status(0,2)", "always status(0,2)"}));
    EXPECT_EQ(fTable->PrimaryView()->ChangeCount(), 0);
}

}  // namespace
}  // namespace kds
