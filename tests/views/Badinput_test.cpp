// What hosts get wrong: each is told so, and everything is as it was.
#include <algorithm>
#include <limits>
#include <random>

#include "tests/support/Seed.h"
#include "tests/views/Faultscenarios.h"

namespace kds {
namespace {

using support::Difference;
using support::TFaultWorld;
using support::TLines;
using TW = TFaultWorld;

struct TMistake {
    const char* Name;
    void (*Make)(TFaultWorld&);
};

TOwned<TKdsRecord> ForeignRow(TW& w) { return w.Empty->NewRow(); }
TOwned<TKdsOrderColumnList> ForeignColumns(TW& w) {
    TOwned<TKdsOrderColumnList> columns = TKdsOrderColumnList::Create();
    columns->Parse(w.Empty, u"B");
    return columns;
}
void Seek(TW& w, TKdsRecord* row, TKdsOrderColumnList* columns) {
    std::int32_t index = 0;
    bool found = false;
    w.ByName->Search(row, columns, -1, {}, index, found);
}
constexpr std::int32_t Largest = std::numeric_limits<std::int32_t>::max();

const TMistake Mistakes[] = {
    {"NoRowToSearch", [](TW& w) { Seek(w, nullptr, nullptr); }},
    {"ForeignRowToSearch", [](TW& w) { Seek(w, ForeignRow(w).get(), nullptr); }},
    {"ForeignColumnsToSearch", [](TW& w) { Seek(w, w.Row(3), ForeignColumns(w).get()); }},
    {"ForeignColumnsToCompare",
     [](TW& w) { (void)w.Row(3)->Compare(ForeignColumns(w).get(), -1, w.Row(4), {}); }},
    {"ForeignRowToCompare", [](TW& w) { (void)w.Row(3)->Compare(ForeignRow(w).get(), {}); }},
    {"NoRowToCompare", [](TW& w) { (void)w.ByName->Compare(w.Row(3), nullptr); }},
    {"ForeignRowToCompareInView",
     [](TW& w) { (void)w.ByName->Compare(w.Row(3), ForeignRow(w).get()); }},
    {"NoRowToAccept", [](TW& w) { (void)w.Rich->Accept(nullptr); }},
    {"ForeignRowToAccept", [](TW& w) { (void)w.Rich->Accept(ForeignRow(w).get()); }},
    {"NoTableToParse", [](TW&) { TKdsOrderColumnList::Create()->Parse(nullptr, u"A"); }},
    {"TooManyValues",
     [](TW& w) {
         (void)w.ByName->Find({u"n1", 2, 3});
     }},
    {"UnfitValue",
     [](TW& w) {
         (void)w.ByName->Find({u"n1", u"no number"});
     }},
    {"LongValue", [](TW& w) { (void)w.ByName->Find({u"longer than any name"}); }},
    {"PositionBefore", [](TW& w) { (void)w.ByName->Items(-1); }},
    {"PositionBehind", [](TW& w) { (void)w.ByName->Items(w.ByName->Count()); }},
    {"PositionFarBehind", [](TW& w) { (void)w.Table->Records()->Items(Largest); }},
    {"NoSuchView", [](TW& w) { (void)w.Table->Views()->GetView(u"V"); }},
    {"ViewAt", [](TW& w) { (void)w.Table->Views()->Items(9); }},
    {"DeleteViewAt", [](TW& w) { w.Table->Views()->Delete(-1); }},
    {"MoveRow", [](TW& w) { w.Table->Records()->Move(0, 12); }},
    {"DeleteRowAt", [](TW& w) { w.Table->Records()->Delete(Largest); }},
    {"InsertRowAt", [](TW& w) { w.Table->Records()->Insert(13, w.Table->NewRow(w.Values(901))); }},
    {"ForeignRow", [](TW& w) { w.Table->Records()->Add(ForeignRow(w)); }},
    {"Duplicate", [](TW& w) { w.Table->Insert(w.Values(20)); }},
    {"TooLong", support::InsertTooLong},
    {"UpsertTooLong", support::UpsertTooLong},
    {"NoRow", [](TW& w) { w.Table->Records()->Add(nullptr); }},
    {"ExtractForeign", [](TW& w) { (void)w.Table->Records()->Extract(ForeignRow(w).get()); }},
    {"ForeignView", [](TW& w) { w.Table->Views()->Append(TKdsView::Create(w.Empty, u"V")); }},
    {"NoView", [](TW& w) { w.Table->Views()->Append(TOwned<TKdsView>()); }},
    {"ViewOfNothing", [](TW&) { (void)TKdsView::Create(nullptr, u"V"); }},
    {"TwinView", [](TW& w) { w.Table->Views()->Append(TKdsView::Create(w.Table, u"vw_t")); }},
    {"NoLink", [](TW& w) { w.ByName->AppendLink(nullptr); }},
    {"NoFactory", [](TW& w) { w.Table->SetStorageFactory(nullptr); }},
    {"NoStorage",
     [](TW& w) {
         class TNoStorage final : public TKdsStorageFactory {
         public:
             std::unique_ptr<TKdsViewStorage> CreateStorage(TKdsTable*) override { return nullptr; }
         };
         w.Empty->SetStorageFactory(MakeIntf<TNoStorage>());
         TScopeGuard restore([&] { w.Empty->SetStorageFactory(MakeIntf<TKdsStorageFactory>()); });
         w.Empty->Select(u"A");
     }},
    {"FactoryOfForeignViews",
     [](TW& w) {
         class TForeign final : public IKdsViewFactory {
         public:
             explicit TForeign(TKdsTable* table) : fTable(table) {}
             TOwned<TKdsView> CreateView(TKdsTable*, std::u16string_view name) override {
                 return fTable == nullptr ? nullptr : TKdsView::Create(fTable, name);
             }
             TKdsTable* fTable;
         };
         EXPECT_THROW(
             w.Table->SelectEx({}, nullptr, {}, nullptr, false, MakeIntf<TForeign>(nullptr)),
             Exception);
         w.Table->SelectEx({}, nullptr, {}, nullptr, false, MakeIntf<TForeign>(w.Empty));
     }},
    {"Filter", [](TW& w) { w.ByName->SetFilter(u"Qty > two"); }},
    {"SelectByFilter", [](TW& w) { w.Table->Select({}, u"Qty > two"); }},
    {"UniqueByNothing",
     [](TW& w) {
         TKdsView* const view = w.Empty->Views()->MakeIndex({}, {voUnique});
         TScopeGuard remove([&] { view->Free(); });
         view->SetActive(true);
     }},
    {"OrderOfKey", [](TW& w) { w.Table->PrimaryView()->SetOrderBy(u"Code"); }},
    {"AcceptOfKey", [](TW& w) { w.Table->PrimaryView()->SetOnAccept(w.Accepter()); }},
    {"CompareOfKey", [](TW& w) { w.Table->PrimaryView()->SetOnCompare(w.Comparer()); }},
    {"OrderOfDefault", [](TW& w) { w.Empty->DefaultView()->SetOrderBy(u"B"); }},
    {"KeyOfNobody", [](TW& w) { w.Table->SetPrimaryKey(u"Id,Nobody"); }},
    {"OtherKeyOfRows", [](TW& w) { w.Table->SetPrimaryKey(u"Code"); }},
    {"NoKeyOfRows", [](TW& w) { w.Table->SetPrimaryKey({}); }},
};

class TMistakeTest : public testing::TestWithParam<TMistake> {};

TEST_P(TMistakeTest, IsToldAndChangesNothing) {
    TLines before;
    {
        TFaultWorld world;
        before = world.Look();
    }
    TFaultWorld world;

    EXPECT_THROW(GetParam().Make(world), Exception);

    EXPECT_EQ(world.Fault(), "");
    EXPECT_EQ(Difference(world.Look(), before), "");
}

INSTANTIATE_TEST_SUITE_P(Hosts, TMistakeTest, testing::ValuesIn(Mistakes),
                         [](const auto& tested) { return std::string(tested.param.Name); });

// Texts out of the pieces of order texts and of anything else, broken characters among it.
std::u16string RandomText(std::mt19937& random) {
    constexpr std::u16string_view plain[] = {
        u"Id",      u"code", u"NAME",   u"Note", u"Qty",    u"Tag",   u"Late",    u"Slow",
        u",",       u",",    u",",      u" ",    u"desc",   u" desc", u" nocase", u" DESC",
        u" nolook", u"\t",   u"\u00e4", u"\"",   u"\u0130", u"%s%n"};
    constexpr char16_t broken[] = {0, 0xd800, 0xdcff};
    std::u16string text;
    for (unsigned n = random() % 8; n > 0; --n) {
        switch (random() % 26) {
            case 0: text.append(70'000, u'a'); break;
            case 1:
            case 2:
            case 3: text += broken[random() % std::size(broken)]; break;
            default: text += plain[random() % std::size(plain)]; break;
        }
    }
    return text;
}

TEST(TRandomTextTest, IsRefusedOrUnderstood) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    TFaultWorld world;
    const TLines before = world.Look();
    for (std::int64_t step = 0; step < support::Steps(3'000); ++step) {
        const std::u16string text = RandomText(random);
        try {
            switch (random() % 10) {
                case 0: world.Table->Select(text)->Free(); break;
                case 1: world.ByName->SetOrderBy(text); break;
                case 2: world.Table->SetPrimaryKey(text); break;
                case 3: world.Empty->SetPrimaryKey(text); break;
                case 4: (void)world.ByName->Suites(text, {}, {}); break;
                case 5: world.Table->Views()->MakeIndex(text, {voUnique})->Free(); break;
                case 6: world.Store->Tables()->Add(text)->Free(); break;
                case 7: world.Empty->Columns()->Add(text, text, text, text, text)->Free(); break;
                case 8: (void)world.Table->Insert({901, 902, text})->RowID(); break;
                default: (void)world.ByName->Find({text}); break;
            }
        } catch (const Exception& error) {
            EXPECT_NE(std::string(error.what()), "");
        }
        // What stands although it was refused: a name that the index does not take.
        for (std::int32_t i = world.Store->Tables()->Count() - 1; i >= 0; --i) {
            TKdsTable* const table = world.Store->Tables()->Items(i);
            if (table != world.Table && table != world.Empty) table->Free();
        }
        while (world.Empty->Columns()->Count() > 2) world.Empty->Columns()->Delete(2);
        world.Empty->SetPrimaryKey({});
        (void)world.Table->Delete({901});
        ASSERT_EQ(world.Fault(), "") << "step " << step;
    }
    world.ByName->SetOrderBy(u"Name nocase,Qty desc");
    TLines after = world.Look();
    // Row identifiers go up, and a key that was tried leaves its columns not null.
    const auto tidy = [](TLines lines) {
        std::erase_if(lines, [](const std::string& line) {
            return line.starts_with("column") || line.starts_with("table");
        });
        return lines;
    };
    EXPECT_EQ(Difference(tidy(after), tidy(before)), "");
}

}  // namespace
}  // namespace kds
