// Columns that are calculated by expressions: when they are compiled and calculated, what they
// read, and views that are ordered and filtered by them, over every storage.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kds/core/Kdsprovider.h"
#include "kds/kds.h"
#include "tests/support/Allocfail.h"
#include "tests/support/Recorder.h"

namespace kds {
namespace {

using support::Refusal;

// The largest number times anything but 0, 1 and -1 is an overflow, which an expression raises.
constexpr const char16_t* Explosive = u"Qty * 9223372036854775807";

void Refuse(TExprCall& call) { call.Refuse(); }

// Goes on by a day with every reading.
class TRestlessClock final : public IClock {
public:
    TRestlessClock() noexcept { SetClock(this); }
    ~TRestlessClock() override { SetClock(nullptr); }
    [[nodiscard]] TDateTime Now() override { return {++fDays}; }
    [[nodiscard]] std::int64_t Counter() override { return 0; }
    [[nodiscard]] std::int64_t TicksPerSecond() override { return 1; }

private:
    double fDays = 40'000;
};

// Staff (Id, Name, Qty, Boss -> Staff.Id), in tables that keep whole rows and that strip them.
class TCalculatedTest : public testing::TestWithParam<int> {
protected:
    using TIds = std::vector<std::int64_t>;

    TCalculatedTest() : fStore(TKdsStore::Create(u"Calculated")) {
        fStaff = fStore->Tables()->Add(u"Staff");
        if (GetParam() % 2 == 1) fStaff->SetOptions({mtoStripNulls});
        fStaff->SetStorageFactory(StorageFactory(static_cast<TKdsStorageKind>(GetParam())));
        fStaff->Columns()->Add(u"Id", dtInt64);
        fStaff->Columns()->Add(u"Name", dtAnsiString, 16);
        fQty = fStaff->Columns()->Add(u"Qty", dtInt64);
        fStaff->Columns()->Add(u"Boss", dtInt64)->ForeignKey(u"Staff", u"Id");
        fStaff->SetPrimaryKey(u"Id");
    }
    ~TCalculatedTest() override {
        EXPECT_STREQ(fStaff->Inconsistency(), nullptr);
        fStore->Free();
    }
    enum TStorage { Stored, Unstored, Delayed };
    TKdsColumn* Add(std::u16string_view name, std::u16string_view text, TStorage storage = Stored,
                    TKdsDataType type = dtInt64) {
        TOwned<TKdsColumn> column = TKdsColumn::Create(name, type);
        column->SetExpression(text);
        if (storage == Unstored) column->SetCalculated(true, /*stored=*/false);
        if (storage == Delayed) column->SetDelayedCalc(true);
        return fStaff->Columns()->Add(std::move(column));
    }
    TKdsRecord* Insert(std::int64_t id, const TVariant& qty, const TVariant& boss = Null) {
        return fStaff->Insert({id, u"n", qty, boss});
    }
    static void Post(TKdsRecord* row, std::u16string_view column, const TVariant& value) {
        TKdsEdit edit(row);
        row->SetDataN(column, value);
        edit.Post();
    }
    static TIds IdsOf(TKdsView* view) {
        TIds ids;
        for (TKdsRecord* const row : *view) ids.push_back(VarToInt64(row->GetDataI(0)));
        return ids;
    }

    TKdsStore* fStore;
    TKdsTable* fStaff;
    TKdsColumn* fQty;
};

INSTANTIATE_TEST_SUITE_P(Storages, TCalculatedTest, testing::Range(0, 4));

TEST_P(TCalculatedTest, CalculatesEachColumnBehindThoseThatItReads) {
    // Declared the wrong way round; B is on the way, and read by a key that is looked up.
    TKdsColumn* const a = fStaff->Columns()->Add(u"A", dtInt64);
    TKdsColumn* const b = Add(u"B", u"Qty + 1", Unstored);
    TKdsColumn* const key = fStaff->Columns()->Add(u"K", dtInt64);
    key->ForeignKey(u"Staff", u"Id");
    fStaff->Columns()->AddLookup(u"Shown", u"K", u"Name");
    TKdsColumn* const late = Add(u"Late", u"Qty", Delayed);
    TKdsColumn* const c = Add(u"C", u"Qty * 10");
    late->SetExpression(u"C - 1");
    b->SetExpression(u"C + 1");
    key->SetExpression(u"B - 101");
    a->SetExpression(u"Shown || ':' || Late");
    a->SetDataType(dtAnsiString);
    TKdsRecord* const row = Insert(0, 10);
    EXPECT_EQ(row->GetDataC(c), TVariant(std::int64_t{100}));
    EXPECT_EQ(row->GetDataC(a), TVariant(u"n:99"));
    row->Edit();
    row->SetDataC(fQty, 11);
    EXPECT_EQ(row->GetDataC(late), TVariant(std::int64_t{99}));
    row->SetDataC(c, 7);  // until the post calculates it
    EXPECT_EQ(row->GetDataC(late), TVariant(std::int64_t{6}));
    row->Post();
    EXPECT_TRUE(row->GetIsNullC(a));  // there is no row 10
    EXPECT_EQ(row->GetDataC(key), TVariant(std::int64_t{10}));
    Insert(10, 11);
    row->Recalculate();
    EXPECT_EQ(row->GetDataC(a), TVariant(u"n:109"));
}

TEST_P(TCalculatedTest, RefusesWhatDoesNotCompileOrReadsItself) {
    TKdsColumn* const a = Add(u"A", u"Qty + 1");
    TKdsColumn* const b = Add(u"B", u"A + 1", Unstored);
    TKdsColumn* const c = Add(u"C", u"B + 1", Delayed);
    const std::pair<std::string, std::function<void()>> refused[] = {
        {"Unknown function or variable \"Nothing\"", [&] { a->SetExpression(u"Nothing + 1"); }},
        {"Unknown function or variable \"Nothing\"", [&] { Add(u"D", u"Nothing"); }},
        {"Missing argument for \"+\"", [&] { a->SetExpression(u"Qty +"); }},
        {"Circular reference for A detected", [&] { a->SetExpression(u"C"); }},
        {"Circular reference for B detected", [&] { b->SetExpression(u"A + B"); }},
        {"A reference column cannot be calculated nor a virtual key",
         [&] { fStaff->Columns()->AddLookup(u"L", u"Boss")->SetExpression(u"Id"); }},
    };
    for (const auto& [message, operation] : refused) EXPECT_EQ(Refusal(operation), message);
    EXPECT_EQ(a->Expression(), u"Qty + 1");
    EXPECT_EQ(fStaff->Columns()->Find(u"D"), nullptr);
    TKdsRecord* const row = Insert(1, 1);
    EXPECT_EQ(row->GetDataC(c), TVariant(std::int64_t{4}));
    a->SetExpression(u"Qty + 10");  // rows keep what was stored until they are calculated anew
    EXPECT_EQ(row->GetDataC(c), TVariant(std::int64_t{4}));
    EXPECT_EQ(fStaff->Recalculate(), 0);
    EXPECT_EQ(row->GetDataC(c), TVariant(std::int64_t{13}));
    b->SetExpression(u"");
    EXPECT_TRUE(row->GetIsNullC(b));
    EXPECT_TRUE(row->GetIsNullC(c));
}

// Unstored columns of rows that look one another up: each step is an evaluation in another.
TEST_P(TCalculatedTest, ClimbsFromRowToRowAndRefusesACircleAndACliff) {
    TKdsColumn* const depth = fStaff->Columns()->Add(u"Depth", dtInteger);
    depth->SetCalculated(true, /*stored=*/false);
    fStaff->Columns()->AddLookup(u"BossDepth", u"Boss", u"Depth");
    depth->SetExpression(u"1 + NVL(BossDepth, 0)");
    for (int i = 0; i < 33; ++i) Insert(i, 0, i == 0 ? TVariant() : TVariant(i - 1));
    TKdsRecordList* const rows = fStaff->Records();
    const auto at = [&](int i) { return static_cast<TKdsRecord*>(rows->Items(i)); };
    EXPECT_EQ(at(31)->GetDataC(depth), TVariant(32));
    EXPECT_EQ(Refusal([&] { (void)at(32)->GetDataC(depth); }),
              "Circular reference for Depth detected");
    // Where rows are ordered, what cannot be calculated is null.
    TKdsView* const view = fStaff->Select(u"Depth desc", u"Id > 28");
    EXPECT_EQ(IdsOf(view), (TIds{31, 30, 29, 32}));
    EXPECT_EQ(view->Find({31}), 1);
    Post(at(31), u"Boss", 0);  // 32 stands behind it now
    EXPECT_EQ(IdsOf(view), (TIds{30, 29, 32, 31}));
    Post(at(30), u"Boss", 30);
    EXPECT_EQ(Refusal([&] { (void)at(30)->GetDataC(depth); }),
              "Circular reference for Depth detected");
    EXPECT_EQ(IdsOf(view), (TIds{29, 32, 31, 30}));
}

TEST_P(TCalculatedTest, APostIsRefusedAnInsertionStands) {
    TKdsColumn* const kept = Add(u"Kept", Explosive);
    TKdsColumn* const read = Add(u"Read", Explosive, Unstored);
    TKdsColumn* const late = Add(u"Late", Explosive, Delayed);
    TKdsView* const ordered = fStaff->Select(u"Read, Id");
    TKdsView* const filtered = fStaff->Select(u"Late, Id", u"Read IS NULL OR Read >= 0");
    TKdsRecord* const row = Insert(1, 0);
    row->Edit();
    row->SetDataC(fQty, 2);
    EXPECT_EQ(Refusal([&] { row->Post(); }), "Integer overflow");
    EXPECT_EQ(row->RowState(), rsEditing);
    EXPECT_EQ(row->GetOldC(fQty), TVariant(std::int64_t{0}));
    row->Cancel();
    TKdsRecord* const inserted = Insert(2, 2);
    EXPECT_TRUE(inserted->GetIsNullC(kept));
    for (const TKdsColumn* const column : {read, late}) {
        EXPECT_EQ(Refusal([&] { (void)inserted->GetDataC(column); }), "Integer overflow");
    }
    EXPECT_EQ(IdsOf(ordered), (TIds{1, 2}));
    EXPECT_EQ(IdsOf(filtered), (TIds{1}));
    EXPECT_EQ(filtered->FilterErrors(), 1);
    EXPECT_EQ(fStaff->Recalculate(), 1);
    EXPECT_EQ(Refusal([&] { inserted->Recalculate(); }), "Integer overflow");
    EXPECT_EQ(inserted->RowState(), rsRegular);
    // A routine of the host takes over from the expression.
    auto mend = [](TKdsColumn*, TKdsRecord*, TVariant& value) { value = VarToInt64(value) + 5; };
    kept->SetExpression(u"Qty");
    kept->SetOnGetValue(TKdsGetValueEvent::BindCall(&mend));
    Post(inserted, u"Name", u"x");
    EXPECT_EQ(inserted->GetDataC(kept), TVariant(std::int64_t{7}));
    kept->SetOnGetValue(nullptr);
}

// Whatever kind of exception it is.
TEST_P(TCalculatedTest, AFunctionOfTheHostThatThrowsIsAnErrorOfItsRow) {
    auto doubled = [](TExprCall& call) {
        if (call.Whole(0) > 100) throw std::runtime_error("too large");
        call.AnswerInteger(call.Whole(0) * 2);
    };
    ExpressionFunctions().Add(
        {u"DOUBLED", 1, 1, "n", ekInteger, 0, TExprRoutine::BindCall(&doubled)});
    TKdsColumn* const kept = Add(u"Kept", u"DOUBLED(Qty)");
    TKdsView* const filtered = fStaff->Select(u"Id", u"DOUBLED(Qty) > 10");
    TKdsRecord* const row = Insert(1, 7);
    TKdsRecord* const large = Insert(2, 200);
    EXPECT_EQ(IdsOf(filtered), (TIds{1}));
    EXPECT_EQ(filtered->FilterErrors(), 1);
    EXPECT_TRUE(large->GetIsNullC(kept));
    row->Edit();
    row->SetDataC(fQty, 300);
    EXPECT_THROW(row->Post(), std::runtime_error);
    EXPECT_EQ(row->RowState(), rsEditing);
    EXPECT_EQ(row->GetOldC(kept), TVariant(std::int64_t{14}));
    row->SetDataC(fQty, 8);
    row->Post();
    EXPECT_EQ(row->GetDataC(kept), TVariant(std::int64_t{16}));
    EXPECT_EQ(IdsOf(filtered), (TIds{1}));
    ExpressionFunctions().Add({u"DOUBLED", 1, 1, "n", ekAny, 0, TExprRoutine::Bind<&Refuse>()});
}

TEST_P(TCalculatedTest, ColumnsThatGoOrGetOtherNamesAreToldOfByTheNextPreparation) {
    TKdsColumn* const sum = Add(u"Sum", u"Qty + 1", Unstored);
    TKdsColumn* const twice = Add(u"Twice", u"Sum * 2", Delayed);
    TKdsView* const views[] = {fStaff->Select(u"Twice"), fStaff->Select(u"", u"Twice > 0"),
                               fStaff->Select(u"Name")};
    fQty->SetName(u"Quantity");
    EXPECT_NE(sum->ExpressionError(), nullptr);
    TKdsRecord* const row = Insert(1, 1);
    EXPECT_TRUE(row->GetIsNullC(sum));
    EXPECT_TRUE(row->GetIsNullC(twice));
    for (TKdsView* const view : {views[0], views[1]}) {
        EXPECT_EQ(Refusal([&] { view->SetActive(true); }), "Unknown function or variable \"Qty\"");
    }
    EXPECT_EQ(IdsOf(views[2]), (TIds{1}));
    sum->SetExpression(u"Quantity + 1");
    EXPECT_EQ(row->GetDataC(twice), TVariant(std::int64_t{4}));
    for (TKdsView* const view : views) {
        view->SetActive(true);  // one was switched off by the change,
        view->Update();         // and one could not be built before
        EXPECT_EQ(IdsOf(view), (TIds{1}));
    }
    // Other names lead into a circle, which only the next preparation can tell.
    fStaff->Clear();
    twice->SetName(u"Other");
    fQty->SetName(u"Twice");
    sum->SetExpression(u"Twice + 1");
    fQty->SetName(u"Qty");
    twice->SetName(u"Twice");
    const bool either = sum->ExpressionError() != nullptr || twice->ExpressionError() != nullptr;
    EXPECT_TRUE(either);
    views[0]->SetActive(false);
    EXPECT_EQ(Refusal([&] { views[0]->SetActive(true); }).substr(0, 22), "Circular reference for");
    EXPECT_TRUE(Insert(1, 1)->GetIsNullC(twice));
    sum->SetExpression(u"Qty");
    EXPECT_EQ(Insert(2, 1)->GetDataC(twice), TVariant(std::int64_t{2}));
}

TEST_P(TCalculatedTest, OrdersReadEachValueOnceAndTextsAreCompiledOnce) {
    int evaluations = 0;
    int compilations = 0;
    auto count = [&](TExprCall& call) {
        ++evaluations;
        call.Answer(call.Arg(0));
    };
    auto fold = [&](TExprCall& call) {
        ++compilations;
        call.AnswerInteger(0);
    };
    ExpressionFunctions().Add(
        {u"COUNTED", 1, 1, "*", ekAny, ffTakesNulls, TExprRoutine::BindCall(&count)});
    ExpressionFunctions().Add({u"FOLDED", 1, 1, "*", ekAny, 0, TExprRoutine::BindCall(&fold)});
    struct TCase {
        TKdsDataType Type;
        const char16_t* Text;
    };
    const TCase cases[] = {
        {dtInteger, u"COUNTED(Qty) + FOLDED(0)"},
        {dtDouble, u"COUNTED(Qty) / 3 + FOLDED(0)"},
        {dtAnsiString, u"COUNTED('a' || Qty) || LEFT('', FOLDED(0))"},
        {dtWideString, u"COUNTED('a' || Qty) || LEFT('', FOLDED(0))"},
        {dtFixed, u"COUNTED(Qty) * 1.5 + FOLDED(0)"},
    };
    for (const TCase& tested : cases) {
        fStaff->Clear();
        TKdsColumn* const read = fStaff->Columns()->Add(u"Read", tested.Type);
        read->SetCalculated(true, /*stored=*/false);
        compilations = 0;
        read->SetExpression(tested.Text);
        for (int i = 0; i < 100; ++i) {
            Insert(i, i % 9 == 8 ? TVariant() : TVariant(i * 7 % 10));
        }
        evaluations = 0;
        TKdsView* const view = fStaff->Select(u"Read desc, Name");
        EXPECT_EQ(evaluations, 100);
        TIds expected(100);
        for (int i = 0; i < 100; ++i) expected[static_cast<std::size_t>(i)] = i;
        std::ranges::stable_sort(expected, std::greater<>(),
                                 [](std::int64_t id) { return id % 9 == 8 ? -1 : id * 7 % 10; });
        EXPECT_EQ(IdsOf(view), expected);
        Post(fStaff->Records()->Items(3), u"Qty", 11);
        EXPECT_TRUE(view->IsConsistent());
        evaluations = 0;
        view->Refresh();
        EXPECT_EQ(evaluations, 100);
        EXPECT_EQ(compilations, 1);
        view->Free();
        fStaff->Clear();
        read->Free();
    }
    for (const char16_t* const name : {u"COUNTED", u"FOLDED"}) {
        ExpressionFunctions().Add({name, 1, 1, "*", ekAny, 0, TExprRoutine::Bind<&Refuse>()});
    }
}

// What the first pass has put by serves all that follow.
TEST_P(TCalculatedTest, NeitherFiltersNorCalculationsTakeMemoryForEachRow) {
    Add(u"Stored", u"Qty * 2 + Boss");
    Add(u"Read", u"UPPER(Name) || '/' || Stored", Unstored, dtAnsiString);
    Add(u"Slow", u"LENGTH(Read) + Qty", Delayed);
    fStaff->Columns()->AddLookup(u"BossName", u"Boss", u"Name");
    for (int i = 0; i < 300; ++i) {
        fStaff->Insert(
            {i, Format(u"name %d", {i % 40}), i % 9 == 8 ? TVariant() : TVariant(i), i / 2});
    }
    for (const char16_t* const text : {
             u"Qty * 2 + Id > 150 AND Name LIKE 'name 1%'",
             u"Name LIKE '%' || Qty || '_' OR Qty IN (1, 5, Boss, NULL) XOR Id = 4",
             u"Qty IN (1, 2, 3, 4, 5, 6, 7, 8) OR Name IN ('name 1', 'name 2', 'name 3')",
             u"REPLACE(UPPER(Name) || Qty, 'A', 'bbb') <> REPEAT(Name, 30)",
             u"CASE WHEN Qty > 9 THEN SUBSTR(Name, 2) ELSE PADL(Name, 20) END > 'a'",
             u"ROUND(Qty / 3, 2) * 1.25 < SQRT(Id) + MOD(Id, 7)",
             u"ADDDAYS(#2024-02-29#, Qty) > #2024-05-01# AND YEAR(ADDMONTHS(#2024-01-31#, Id)) > 1",
             u"Read LIKE 'NAME%' AND Slow > 20 AND BossName <> 'name 4'",
         }) {
        SCOPED_TRACE(ToUtf8(text));
        const TIntf<IExpressionEvaluator> filter = CompileExpression(fStaff->Columns(), text);
        int accepted[2] = {};
        std::int64_t allocations = 0;
        for (int& count : accepted) {
            allocations = support::Allocations();
            for (TKdsRecord* const row : *fStaff->Records()) {
                count += filter->TestAt({row, erPosted}) > 0 ? 1 : 0;
            }
        }
        EXPECT_EQ(support::Allocations(), allocations);
        EXPECT_GT(accepted[0], 0);
        EXPECT_EQ(accepted[1], accepted[0]);
    }
}

TEST_P(TCalculatedTest, TheClockStandsForOneOperationAndOrdersNothing) {
    TKdsColumn* const first = Add(u"First", u"NOW()", Stored, dtDateTime);
    TKdsColumn* const second = Add(u"Second", u"NOW()", Stored, dtDateTime);
    Add(u"Read", u"IIF(Qty = 0, NOW(), Second)", Unstored, dtDateTime);
    Add(u"Late", u"Read", Delayed, dtDateTime);
    const TRestlessClock clock;
    TKdsRecord* const row = Insert(1, 1);
    EXPECT_EQ(row->GetDataC(first), row->GetDataC(second));
    const TVariant before = row->GetDataC(first);
    Post(row, u"Qty", 2);  // no view looks at it
    EXPECT_EQ(row->GetDataC(first), row->GetDataC(second));
    EXPECT_NE(row->GetDataC(first), before);
    Insert(2, 0);
    EXPECT_EQ(IdsOf(fStaff->Select(u"First desc")), (TIds{2, 1}));
    for (const char16_t* const order : {u"Read", u"Id, Late desc"}) {
        EXPECT_EQ(Refusal([&] { (void)fStaff->Select(order); }),
                  "Invalid expression:\rRead = IIF(Qty = 0, NOW(), Second)");
    }
}

// What is looked up is followed wherever it stands behind an expression.
TEST_P(TCalculatedTest, FollowsTheTablesThatItReads) {
    TKdsTable* const homes = fStore->Tables()->Add(u"Homes");
    TKdsTable* const lands = fStore->Tables()->Add(u"Lands");
    lands->Columns()->Add(u"Code", dtInteger);
    TKdsColumn* const tax = lands->Columns()->Add(u"Tax", dtInteger);
    lands->SetPrimaryKey(u"Code");
    homes->Columns()->Add(u"Code", dtInteger);
    homes->Columns()->Add(u"Land", dtInteger)->ForeignKey(u"Lands", u"Code");
    homes->SetPrimaryKey(u"Code");
    homes->Columns()->AddLookup(u"LandTax", u"Land", u"Tax");
    TKdsColumn* const rent = homes->Columns()->Add(u"Rent", dtInteger);
    rent->SetCalculated(true, /*stored=*/false);
    rent->SetExpression(u"LandTax * 10");
    fStaff->Columns()->Add(u"Home", dtInteger)->ForeignKey(u"Homes", u"Code");
    fStaff->Columns()->AddLookup(u"HomeRent", u"Home", u"Rent");
    TKdsColumn* const read = Add(u"Read", u"HomeRent + 1", Unstored);
    TKdsColumn* const late = Add(u"Late", u"Read + 1", Delayed);
    TKdsColumn* const kept = Add(u"Kept", u"Late + 1");
    for (int i = 0; i < 3; ++i) lands->Insert({i, i});
    for (int i = 0; i < 3; ++i) homes->Insert({i, i});
    for (int i = 0; i < 3; ++i) fStaff->Insert({i, u"n", 0, Null, i});
    TKdsView* const views[] = {fStaff->Select(u"Read"), fStaff->Select(u"Late"),
                               fStaff->Select(u"HomeRent"), fStaff->Select(u"Kept", u"Late > 10")};
    TKdsRecord* const last = fStaff->Records()->Items(2);
    const auto check = [&](const TIds& ids, const TIds& filtered, const TVariant& value) {
        for (TKdsView* const view : {views[0], views[1], views[2]}) EXPECT_EQ(IdsOf(view), ids);
        EXPECT_EQ(IdsOf(views[3]), filtered);
        EXPECT_EQ(last->GetDataC(late), value);
    };
    check({0, 1, 2}, {1, 2}, TVariant(std::int64_t{22}));
    EXPECT_EQ(last->GetDataC(kept), TVariant(std::int64_t{23}));
    Post(lands->Records()->Items(2), u"Tax", -1);
    check({2, 0, 1}, {1}, TVariant(std::int64_t{-8}));
    EXPECT_EQ(last->GetDataC(kept), TVariant(std::int64_t{23}));  // until it is posted
    rent->SetExpression(u"-LandTax");
    check({1, 0, 2}, {}, TVariant(std::int64_t{3}));
    homes->Delete({2});
    check({1, 0, 2}, {}, TVariant(Null));
    // Nothing leads to a table that has gone.
    tax->SetDisplayLabel(u"Tax!");
    lands->Free();
    check({0, 1, 2}, {}, TVariant(Null));
    homes->Free();
    check({0, 1, 2}, {}, TVariant(Null));
    EXPECT_TRUE(last->GetIsNullC(read));
}

TEST_P(TCalculatedTest, RowsOfAMassiveBracketAreCalculatedOnDemand) {
    TKdsColumn* const sum = Add(u"Sum", u"Qty * 2");
    TKdsView* const view = fStaff->Select(u"Sum desc");
    {
        TKdsLoad load(fStaff, mtsMassive);
        for (int i = 0; i < 3; ++i) Insert(i, i);
        load.Leave();
    }
    TKdsRecord* const edited = fStaff->Records()->Items(1);
    EXPECT_TRUE(edited->GetIsNullC(sum));
    edited->Edit();
    edited->SetDataC(fQty, 5);
    edited->Recalculate();  // what is being edited, and nothing is posted
    EXPECT_EQ(edited->GetDataC(sum), TVariant(std::int64_t{10}));
    EXPECT_EQ(edited->GetOldC(sum), TVariant(Null));
    EXPECT_EQ(fStaff->Recalculate(), 0);  // what is posted, and the edit stays open
    EXPECT_EQ(edited->GetOldC(sum), TVariant(std::int64_t{2}));
    EXPECT_EQ(IdsOf(view), (TIds{2, 1, 0}));
    edited->Post();
    EXPECT_EQ(IdsOf(view), (TIds{1, 2, 0}));
    TOwned<TKdsRecord> loose = fStaff->NewRow({9, u"n", 4});
    loose->Recalculate();
    EXPECT_EQ(loose->GetDataC(sum), TVariant(std::int64_t{8}));
}

}  // namespace
}  // namespace kds
