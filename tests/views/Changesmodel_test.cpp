// Random scripts followed by change lists: anything in any order, by links that raise and meddle,
// over every view storage.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kds/core/Kdsswapper.h"
#include "kds/kds.h"
#include "tests/support/Seed.h"
#include "tests/views/Changenotes.h"

namespace kds {
namespace {

// A mirror of the rows' values that reads, of a changed row, what the list says has changed. After
// each list it is one of the states that the view had at the end of a bracket.
class TShadow : public TNotes {
public:
    TShadow(TKdsView* view, bool coalesces, unsigned raises)
        : fRaises(raises), fCopier(TKdsViewEvent::Bind<&TShadow::Copy>(this)) {
        SetCoalesces(coalesces);
        Watch(view);
    }
    void Watch(TKdsView* view) {
        fCopier.SetView(view);
        SetView(view);
    }
    void HandleChanges(const TKdsChangeList& changes) override {
        const TRows before = Rows();
        TNotes::HandleChanges(changes);
        Follow(changes);
        if (!changes.IsRebuilt()) {
            while (!fCopies.empty() && fCopies.front() != Rows()) fCopies.erase(fCopies.begin());
            EXPECT_FALSE(fCopies.empty()) << "no bracket has ended with these rows";
        }
        if (fRaises != 0 && ++fCalls % fRaises == 0) throw EKdsError(u"raised");
    }
    void Check() {
        EXPECT_TRUE(Agrees());
        ASSERT_EQ(fValues.size(), Rows().size());
        for (std::size_t i = 0; i < fValues.size(); ++i) EXPECT_EQ(fValues[i], Read(Rows()[i]));
        fCopies.clear();
        (void)Take();
    }

private:
    using TValues = std::vector<std::string>;
    // What depends on the row alone.
    static constexpr std::int32_t Shown[] = {0, 1, 2, 3, 4, 6, 7, 8, 9};
    static std::string Value(TKdsRecord* record, std::int32_t column) {
        const TKdsStateScope posted = TKdsStateScope::Posted(record);
        std::ostringstream text;
        text << record->GetDataI(column);
        return text.str();
    }
    static TValues Read(TKdsRecord* record) {
        TValues values;
        for (const std::int32_t i : Shown) values.push_back(Value(record, i));
        return values;
    }
    void Copy(TKdsView* view, TKdsEvent*) { fCopies.push_back(RowsOf(view)); }
    void Follow(const TKdsChangeList& changes) {
        if (changes.IsRebuilt()) fValues.clear();
        for (TKdsRecord* const row : changes.Rows) fValues.push_back(Read(row));
        for (const TKdsChange& change : changes) {
            TValues values;
            if (change.From >= 0) {
                values = fValues.at(static_cast<std::size_t>(change.From));
                fValues.erase(fValues.begin() + change.From);
            }
            if (change.Kind == ckInserted) values.resize(std::size(Shown));
            for (std::size_t i = 0; i < std::size(Shown) && change.Kind != ckRebuilt; ++i) {
                // Also of a row that is gone.
                const std::string value = Value(change.Record, Shown[i]);
                if (change.Columns.Has(Shown[i])) values[i] = value;
            }
            if (change.To >= 0) fValues.insert(fValues.begin() + change.To, values);
        }
    }
    unsigned fRaises;
    unsigned fCalls = 0;
    std::vector<TValues> fValues;
    std::vector<TRows> fCopies;
    TKdsViewHandler fCopier;
};

class TChangesModelTest : public testing::TestWithParam<unsigned> {
protected:
    ~TChangesModelTest() override {
        fShadows.clear();
        fStore->Free();
    }
    int Draw(int bound) { return static_cast<int>(fRandom() % static_cast<unsigned>(bound)); }
    void MakeWorld(std::uint32_t seed);
    void Hide(TKdsView*, TKdsRecord* record, bool& accept) {
        accept = record->GetIsNullI(3) || VarToInt64(record->GetDataI(3)) != 2;
    }
    void StepOfHomes();
    void Reload();
    void Step(int depth);
    void Bracket(int depth);
    TKdsRecord* Any() {
        const std::int32_t count = fTable->Records()->Count();
        return count == 0 ? nullptr : fTable->Records()->Items(Draw(count));
    }
    TVariant Maybe(int bound) { return Draw(6) == 0 ? TVariant() : TVariant(Draw(bound)); }
    // Duplicate keys, open edits and the like are refused, and links raise: none of it matters.
    template <typename F>
    static void Try(F&& operation) {
        try {
            operation();
        } catch (const EKdsError&) {
        }
    }

    std::mt19937 fRandom;
    TKdsStore* fStore = nullptr;
    TKdsTable* fTable = nullptr;
    TKdsTable* fHomes = nullptr;
    TKdsAccept fFilter;
    std::vector<TKdsView*> fViews;
    std::vector<std::unique_ptr<TShadow>> fShadows;
    int fNested = 0;
};

void TChangesModelTest::MakeWorld(std::uint32_t seed) {
    fRandom.seed(seed + GetParam());
    fStore = TKdsStore::Create(u"Model");
    fTable = fStore->Tables()->Add(u"T");
    if (GetParam() % 2 == 1) fTable->SetOptions({mtoStripNulls});
    // The primary view is made by this factory, too.
    fTable->SetStorageFactory(StorageFactory(static_cast<TKdsStorageKind>(GetParam() % 4)));
    if (GetParam() >= 4) {  // most rows are in the file
        fTable->SetMaxRecordsInMemory(6);
        fTable->Swapper()->SetCachedRecordsBatch(4);
    }
    fTable->Columns()->Add(u"Id", dtInt64);
    fTable->Columns()->Add(u"Name", dtMemoString);
    fTable->Columns()->Add(u"Qty", dtInteger);
    fTable->Columns()->Add(u"Price", dtDouble);
    fHomes = fStore->Tables()->Add(u"Homes");
    fHomes->Columns()->Add(u"Code", dtInteger);
    fHomes->Columns()->Add(u"Caption", dtMemoString);
    fHomes->SetPrimaryKey(u"Code");
    fTable->Columns()->Add(u"Home", dtInteger)->ForeignKey(u"Homes", u"Code");
    fTable->Columns()->AddLookup(u"Caption", u"Home", u"Caption");
    const auto calculate = [&](const char16_t* name, const char16_t* text) {
        TKdsColumn* const column = fTable->Columns()->Add(name, dtAnsiString);
        column->SetExpression(text);
        return column;
    };
    calculate(u"Kept", u"Qty || '-' || Home");
    calculate(u"Read", u"Name || Qty")->SetCalculated(true, /*stored=*/false);
    calculate(u"Late", u"Read || Kept")->SetDelayedCalc(true);
    calculate(u"KeptCaption", u"NVL(Caption, '?') || Read");
    calculate(u"ReadCaption", u"Caption || Kept")->SetCalculated(true, /*stored=*/false);
    calculate(u"LateCaption", u"Caption || '+'")->SetDelayedCalc(true);
    fTable->SetPrimaryKey(u"Id");
    for (int i = 0; i < 6; ++i) fHomes->Insert({i, Maybe(5)});
    for (int i = 0; i < 30; ++i) fTable->Insert({i, Maybe(5), Maybe(9), Maybe(4), Maybe(9)});
    fFilter.SetOnAccept(TKdsAcceptRecordEvent::Bind<&TChangesModelTest::Hide>(this));
    fFilter.SetTable(fTable);
    const auto accept = AcceptWhen(
        [](TKdsRecord* row) { return !row->GetIsNullI(2) && VarToInt64(row->GetDataI(2)) >= 3; });
    fViews = {fTable->PrimaryView(),
              fTable->Select(u"Qty desc,Name"),
              fTable->SelectA(u"Price", u"", accept),
              fTable->Select(u"", u"", nullptr, true),
              fTable->Select(u"Caption desc,Qty"),
              fTable->Select(u"Late desc,Read", u"Kept >= '3'"),
              fTable->Select(u"ReadCaption,KeptCaption desc", u"LateCaption <> '2+'")};
    for (TKdsView* const view : fViews) {
        for (const unsigned raises : {0u, 0u, 7u}) {
            fShadows.push_back(std::make_unique<TShadow>(view, fShadows.size() % 3 != 1, raises));
        }
        // The first of each view changes things now and then.
        fShadows[fShadows.size() - 3]->OnList = [this](const TKdsChangeList&) {
            if (fNested >= 3 || Draw(5) != 0) return;
            ++fNested;
            Step(2);
        };
    }
}

void TChangesModelTest::Bracket(int depth) {
    const int steps = 1 + Draw(8);
    const auto run = [&] {
        for (int i = 0; i < steps; ++i) Step(depth + 1);
    };
    switch (Draw(6)) {
        case 0: {
            TKdsLoad load(fTable, mtsMassive);
            run();
            load.Leave();
            break;
        }
        case 1:
        case 2: {
            TKdsLoad load(fTable, mtsUploads);
            run();
            load.Leave();
            break;
        }
        default: {
            TKdsChangeBracket batch(fTable);
            run();
            TFirstError errors;
            batch.Close(errors);
            errors.Rethrow();
        }
    }
}

void TChangesModelTest::StepOfHomes() {
    const int code = Draw(9);
    TKdsRecord* const home = fHomes->Records()->Find({code});
    if (home == nullptr) {
        fHomes->Insert({code, Maybe(5)});
    } else if (Draw(4) == 0) {
        home->Delete();
    } else {
        TKdsEdit edit(home);
        home->SetDataI(1, Maybe(5));
        edit.Post();
    }
}

// Of the rows that are there some may be refused where they are to come in again.
void TChangesModelTest::Reload() {
    TMemoryStream stream;
    fTable->SaveToStream(stream);
    if (Draw(2) == 0) fTable->Clear();
    stream.Seek(0);
    (void)fTable->LoadFromStream(stream);
}

void TChangesModelTest::Step(int depth) {
    Try([&] {
        TKdsRecord* const row = Any();
        TKdsView* const view = fViews[static_cast<std::size_t>(Draw(7))];
        const int kind = Draw(112);
        if (row == nullptr || kind < 20) {
            fTable->Insert({Draw(90), Maybe(5), Maybe(9), Maybe(4), Maybe(9)});
        } else if (kind < 35) {
            row->Delete();
        } else if (kind < 70) {
            if (row->RowState() != rsEditing) row->Edit();
            const int column = 1 + Draw(4);
            row->SetDataI(column, Maybe(9));
            if (Draw(8) != 0) row->Post();
        } else if (kind < 75) {
            if (row->RowState() == rsEditing) Draw(2) == 0 ? row->Post() : row->Cancel();
        } else if (kind < 85) {
            if (depth < 2) Bracket(depth);
        } else if (kind < 88) {
            view->Refresh();
        } else if (kind < 90) {
            view->SetActive(!view->Active());
        } else if (kind < 92) {
            fViews[1]->SetOrderBy(Draw(2) == 0 ? u"Qty desc,Name" : u"Name,Id desc");
        } else if (kind < 98) {
            TShadow& link = *fShadows[static_cast<std::size_t>(Draw(21))];
            Draw(2) == 0 ? link.SetCoalesces(!link.Coalesces()) : link.Watch(view);
        } else if (kind < 108) {
            StepOfHomes();
        } else if (kind < 110) {
            fFilter.SetEnabled(!fFilter.Enabled());
        } else if (Draw(3) == 0) {
            Draw(2) == 0 ? fTable->Clear() : Reload();
        }
    });
}

TEST_P(TChangesModelTest, MirrorsAreWhatTheViewsWere) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    MakeWorld(seed);
    const std::int64_t steps = support::Steps(600);
    for (std::int64_t i = 0; i < steps && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        fNested = 0;
        Step(0);
        for (TKdsView* const view : fViews) Try([&] { view->SetActive(true); });
        // Who raised twice in a row is mended by what happens next. Views that follow other tables
        // tell their links when they are read.
        for (int j = 0; j < 3; ++j) {
            Try([&] {
                TFirstError errors;
                TKdsChangeBracket(fTable).Close(errors);
                errors.Rethrow();
            });
            for (TKdsView* const view : fViews) Try([&] { (void)RowsOf(view); });
        }
        for (const auto& link : fShadows) link->Check();
        ASSERT_STREQ(fTable->Inconsistency(), nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(Worlds, TChangesModelTest, testing::Range(0u, 8u));

}  // namespace
}  // namespace kds
