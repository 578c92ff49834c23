#include "kds/core/Kdsstrings.h"

#include <map>
#include <random>
#include <set>

#include "tests/core/Coretest.h"
#include "tests/support/Allocfail.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

// A text that is drawn from few, so that equal ones meet often; some have a zero byte inside.
std::string AnyText(std::mt19937& random) {
    const auto number = random() % 40;
    if (number == 0) return {};
    if (number == 1) return std::string("\0x", 2);
    return std::string(number % 17, static_cast<char>('a' + number % 3)) + std::to_string(number);
}

class TKdsStringsTest : public testing::Test {
protected:
    TOwned<TKdsColumn> Column(std::u16string_view dictionary) {
        TOwned<TKdsColumn> column = TKdsColumn::Create(u"c", dtMemoString);
        column->SetDictionary(dictionary);
        return column;
    }
    TKdsStringManager fStrings;
};

TEST_F(TKdsStringsTest, ReadsTheNameAndTheBucketCount) {
    struct {
        std::u16string_view Specification;
        std::uint32_t Size;
    } const cases[] = {{u"a", 11'027},  {u"b:500", 500},           {u"c:x", 11'027},
                       {u"d:", 11'027}, {u"e:-3", 11'027},         {u"f:7:8", 11'027},
                       {u"g:1", 1},     {u"h:9999999999", 11'027}, {u"i:0", 0}};
    for (const auto& [specification, size] : cases) {
        EXPECT_EQ(fStrings.GetDictionary(Column(specification).get())->Size(), size);
    }
    EXPECT_EQ(fStrings.GetDictionary(Column(u"").get()), nullptr);
    // In any case of its letters, and with the count of who came first.
    const TOwned<TKdsColumn> again = Column(u"A:500");
    EXPECT_EQ(fStrings.GetDictionary(again.get()), fStrings.GetDictionaryList(0));
    EXPECT_EQ(fStrings.GetDictionaryCount(), 9);
    EXPECT_EQ(fStrings.GetDictionaryName(8), u"i");
    EXPECT_EQ(Refusal([&] { (void)fStrings.ReferString(Column(u"kл").get(), "x"); }),
              "Object name cannot contain 'л' character");
    EXPECT_THROW((void)fStrings.ReferString(Column(u"i").get(), "x"), EDivByZero);
}

TEST_F(TKdsStringsTest, HashesByteAfterByte) {
    std::mt19937 random(support::Seed());
    std::string text;
    for (int length = 0; length < 70; ++length) {
        std::uint32_t hash = 0;
        for (const char c : text) hash = hash * 31 + static_cast<unsigned char>(c);
        EXPECT_EQ(TKdsDictionary::HashOf(text.data(), length), hash) << length;
        TKdsDictionary dictionary(1 + static_cast<std::uint32_t>(random() % 5000));
        dictionary.Add(TAnsiString(text));
        EXPECT_TRUE(dictionary.IsConsistent()) << dictionary.Size();  // with a real division
        text += static_cast<char>(random());
    }
}

TEST_F(TKdsStringsTest, AccountsForWhatItHolds) {
    const TOwned<TKdsColumn> column = Column(u"w:10");
    TAnsiString first = fStrings.ReferString(column.get(), "four");
    TKdsDictionary* const words = fStrings.GetDictionary(column.get());
    EXPECT_EQ(words->Memory(), 10 * 8 + 16 + 4 + 17);
    TAnsiString second = fStrings.ReferString(column.get(), "four");
    EXPECT_TRUE(first.SameInstance(second));
    EXPECT_EQ(words->Memory(), 10 * 8 + 16 + 4 + 17);
    fStrings.ClearString(column.get(), second);
    EXPECT_EQ(words->Count(), 1);
    TAnsiString nothing = fStrings.ReferString(column.get(), "");
    fStrings.ClearString(column.get(), nothing);
    EXPECT_EQ(words->Memory(), 10 * 8 + 2 * 16 + 4 + 17);
    // QUIRK: the items are gone and still counted.
    words->Clear();
    EXPECT_EQ(words->Memory(), 10 * 8 + 2 * 16);
    fStrings.ClearString(column.get(), first);
}

// QUIRK: as C strings they are equal, when they lie in one bucket.
TEST_F(TKdsStringsTest, TakesTextsForEqualThatDifferBehindAZero) {
    const TOwned<TKdsColumn> column = Column(u"w:1");
    const TAnsiString first = fStrings.ReferString(column.get(), std::string_view("a\0b", 3));
    const TAnsiString second = fStrings.ReferString(column.get(), std::string_view("a\0c", 3));
    EXPECT_TRUE(first.SameInstance(second));
}

// Two users of a text that the cleared pool had count as one user and the pool.
TEST_F(TKdsStringsTest, TextsOfAClearedPoolLeaveTheNewOneAlone) {
    const TOwned<TKdsColumn> column = Column(u"w");
    TAnsiString first = fStrings.ReferString(column.get(), "text");
    const TAnsiString second = fStrings.ReferString(column.get(), "text");
    fStrings.Clear();
    const TAnsiString third = fStrings.ReferString(column.get(), "text");
    EXPECT_FALSE(third.SameInstance(second));
    fStrings.ClearString(column.get(), first);
    const TOwned<TKdsColumn> other = Column(u"W");
    EXPECT_TRUE(fStrings.ReferString(other.get(), "text").SameInstance(third));
}

TEST_F(TKdsStringsTest, AgreesWithACountOfEachText) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    const TOwned<TKdsColumn> column = Column(u"w:7");
    TKdsDictionary* const words = fStrings.GetDictionary(column.get());
    std::vector<TAnsiString> held;
    std::multiset<std::string> model;
    bool hadEmpty = false;  // that one stays
    for (int step = 0; step < 5000; ++step) {
        if (held.empty() || random() % 100 < (step / 500 % 2 == 0 ? 60u : 40u)) {
            const std::string text = AnyText(random);
            held.push_back(fStrings.ReferString(column.get(), text));
            hadEmpty = hadEmpty || text.empty();
            model.insert(text);
            ASSERT_EQ(held.back().View(), text);
            ASSERT_EQ(held.back().RefCount(),
                      text.empty() ? 0 : static_cast<std::int32_t>(model.count(text)) + 1);
        } else {
            std::swap(held[random() % held.size()], held.back());
            const std::string text(held.back().View());
            fStrings.ClearString(column.get(), held.back());
            held.pop_back();
            model.erase(model.find(text));
            ASSERT_EQ(*words->Find(text.data(), static_cast<std::int32_t>(text.size())) != nullptr,
                      text.empty() ? hadEmpty : model.contains(text));
        }
        ASSERT_TRUE(words->IsConsistent());
        const std::set<std::string> distinct(model.begin(), model.end());
        ASSERT_EQ(words->Count(),
                  static_cast<std::int32_t>(distinct.size() - distinct.count("")) + hadEmpty);
    }
    for (TAnsiString& text : held) fStrings.ClearString(column.get(), text);
}

// Two tables in one store with columns of two dictionaries, and all that rows go through.
class TPooledTablesTest : public testing::Test {
protected:
    TPooledTablesTest() : fStore(TKdsStore::Create(u"Pool")) {
        for (TKdsTable*& table : fTables) {
            table = fStore->Tables()->Add(table == fTables[0] ? u"A" : u"B");
            table->Columns()->Add(u"id", dtInteger);
            table->Columns()->Add(u"one", dtMemoString)->SetDictionary(u"Words");
            table->Columns()->Add(u"two", dtMemoString)->SetDictionary(u"words:3");
            table->Columns()->Add(u"other", dtMemoString)->SetDictionary(u"names:5");
            table->SetPrimaryKey(u"id");
            table->Select(u"one");
        }
    }
    ~TPooledTablesTest() override { fStore->Free(); }

    void Write(TKdsRecord* row, std::mt19937& random) {
        TKdsColumn* const column =
            row->Table()->Columns()->Items(1 + static_cast<int>(random() % 3));
        if (random() % 8 == 0) {
            row->SetNullC(column);
        } else {
            row->Set(column, AnyText(random));
        }
    }
    void Step(TKdsTable* table, std::mt19937& random) {
        const std::int32_t count = table->Records()->Count();
        const auto what = random() % 100;
        if (count == 0 || what < 35) {
            TOwned<TKdsRecord> row = table->NewRow();
            row->Set(table->Columns()->Items(0), fNextId++);
            for (int i = 0; i < 3; ++i) Write(row.get(), random);
            if (what % 8 != 0) table->Records()->Add(std::move(row));
            return;
        }
        TKdsRecord* const row = table->Records()->Items(
            static_cast<std::int32_t>(random() % static_cast<unsigned>(count)));
        if (what < 65) {
            row->Cancel();
            TKdsEdit edit(row);
            Write(row, random);
            Write(row, random);
            if (what % 3 != 0) edit.Post();
        } else if (what < 98) {
            row->Delete();
        } else {
            table->Clear();
        }
        // A search for a text that nobody has leaves nothing behind.
        (void)table->Views()->Items(table->Views()->Count() - 1)->Find({TVariant("sought")});
    }
    // The pool holds what the rows hold and nothing else.
    void Check() {
        std::map<std::int32_t, std::set<std::string>> used;  // by dictionary
        for (TKdsTable* const table : fTables) {
            for (TKdsRecord* const row : *table->Records()) {
                for (int column = 1; column <= 3; ++column) {
                    const auto text = row->Get<std::string_view>(table->Columns()->Items(column));
                    if (text && !text->empty()) used[column == 3].emplace(*text);
                }
            }
            ASSERT_STREQ(table->Inconsistency(), nullptr);
        }
        for (std::int32_t i = 0; i < fStore->Strings()->GetDictionaryCount(); ++i) {
            TKdsDictionary* const pool = fStore->Strings()->GetDictionaryList(i);
            ASSERT_TRUE(pool->IsConsistent());
            const auto& texts = used[fStore->Strings()->GetDictionaryName(i) != u"names" ? 0 : 1];
            for (const std::string& text : texts)
                ASSERT_NE(*pool->Find(TAnsiString(text)), nullptr);
            const bool hasEmpty = *pool->Find("", 0) != nullptr;
            ASSERT_EQ(pool->Count(), static_cast<std::int32_t>(texts.size()) + hasEmpty);
        }
    }

    TKdsStore* fStore;
    TKdsTable* fTables[2] = {};
    std::int32_t fNextId = 0;
};

TEST_F(TPooledTablesTest, HoldWhatTheirRowsHold) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    for (int step = 0; step < 1500; ++step) {
        ASSERT_NO_FATAL_FAILURE(Step(fTables[random() % 2], random));
        ASSERT_NO_FATAL_FAILURE(Check()) << "step " << step;
    }
    EXPECT_EQ(fStore->Strings()->GetDictionaryCount(), 2);
}

TEST_F(TPooledTablesTest, GiveTheirTextsBackWhenTheyGo) {
    fTables[0]->Insert({1, u"both", u"first", u""});
    fTables[1]->Insert({1, u"both", u"second", u""});
    TKdsDictionary* const words = fStore->Strings()->GetDictionaryList(1);
    ASSERT_EQ(words->Count(), 3);
    fStore->Tables()->Remove(fTables[1]);
    EXPECT_EQ(words->Count(), 2);
    fTables[0]->Clear();
    EXPECT_EQ(words->Count(), 0);
    EXPECT_TRUE(words->IsConsistent());
}

// Its rows keep the texts of its own pool, which has gone.
TEST_F(TPooledTablesTest, BringRowsIntoAStore) {
    TOwned<TKdsTable> made = TKdsTable::Create(u"C");
    TKdsTable* const table = made.get();
    TKdsColumn* const column = table->Columns()->Add(u"one", dtMemoString);
    column->SetDictionary(u"words");
    table->Insert({u"own"});
    table->Insert({u"own"});
    EXPECT_EQ(table->Strings()->GetDictionaryList(0)->Count(), 1);
    fTables[0]->Insert({1, u"own", u"", u""});
    fStore->Tables()->Add(std::move(made));
    TKdsDictionary* const words = fStore->Strings()->GetDictionaryList(1);
    table->Records()->Delete(0);   // the other row and this one shared it: not the store's
    EXPECT_EQ(words->Count(), 2);  // and the empty text
    EXPECT_EQ(table->Records()->Items(0)->GetDataI(0), TVariant(u"own"));
    table->Insert({u"own"});
    EXPECT_EQ(table->Strings()->ReferString(column, "own").RefCount(), 4);
    // The texts outlive a pool that is cleared under them.
    fStore->Strings()->Clear();
    table->Insert({u"own"});
    EXPECT_EQ(table->Records()->Items(1)->GetDataI(0), TVariant(u"own"));
    table->Clear();
    EXPECT_EQ(fStore->Strings()->GetDictionaryList(0)->Count(), 0);
}

TEST_F(TPooledTablesTest, LoseNothingWhenMemoryRunsOut) {
    TKdsTable* const table = fTables[0];
    table->Insert({1, u"old", u"old", u"old"});
    support::FailEachAllocation([] { return 0; },
                                [&](int) {
                                    TKdsEdit edit(table->Records()->Items(0));
                                    edit->SetDataN(u"one", TVariant("a"));
                                    edit->SetDataN(u"two", TVariant("b"));
                                    edit->SetDataN(u"other", TVariant("c"));
                                },
                                [&](int, bool) { ASSERT_NO_FATAL_FAILURE(Check()); });
}

}  // namespace
}  // namespace kds
