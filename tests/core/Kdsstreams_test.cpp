#include "kds/core/Kdsstreams.h"

#include <filesystem>
#include <fstream>
#include <optional>
#include <random>

#include "kds/core/Kdsswapper.h"
#include "kds/util/Tagstream.h"
#include "tests/core/Coretest.h"
#include "tests/support/Allocfail.h"
#include "tests/support/Failingfiles.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

using support::TFailingFiles;

using TBytes = std::vector<std::byte>;

class TNumber final : public IInterface {
public:
    explicit TNumber(std::uint8_t value) : Value(value) {}
    const std::uint8_t Value;
};
// As many bytes as the number says, each of them the number.
class TNumberData final : public IKdsCustomData {
public:
    [[nodiscard]] TBytes Write(const IInterface* value) override {
        const auto number = dynamic_cast<const TNumber*>(value)->Value;
        return TBytes(number, static_cast<std::byte>(number));
    }
    [[nodiscard]] TIntf<IInterface> Read(std::span<const std::byte> bytes) override {
        return MakeIntf<TNumber>(static_cast<std::uint8_t>(bytes.size()));
    }
};

TBytes Saved(TKdsTable* table, bool withStructure = true) {
    TMemoryStream stream;
    EXPECT_TRUE(table->SaveToStream(stream, withStructure));
    return stream.Bytes();
}

// All that a load may change.
std::string StateOf(TKdsTable* table) {
    std::ostringstream text;
    text << ToUtf8(table->Name()) << ' ' << table->Tag() << ' ' << table->Options().Bits() << ' '
         << table->Modified() << ' ' << table->LastRowID() << ' ' << table->OrphanRows() << '\n';
    for (TKdsColumn* const column : *table->Columns()) text << ToUtf8(column->Name()) << ' ';
    for (TKdsRecord* const record : *table->Records()) text << record->RowID() << *record << '\n';
    for (std::int32_t i = 0; i < table->Views()->Count(); ++i) {
        TKdsView* const view = table->Views()->Items(i);
        for (std::int32_t at = 0; at < view->Count(); ++at) text << view->Items(at)->RowID() << ' ';
    }
    return text.str();
}

// Why and where it was refused; nothing when it was loaded.
std::optional<std::pair<std::u16string, std::int64_t>> LoadRefusal(TKdsTable* table, TBytes bytes) {
    TMemoryStream stream(std::move(bytes));
    try {
        static_cast<void>(table->LoadFromStream(stream));
    } catch (const EKdsStreamError& error) {
        EXPECT_STREQ(error.what(), "Cannot load data from stream");
        EXPECT_EQ(stream.Position(), 0);
        return std::pair(std::u16string(error.Cause()), error.Offset());
    }
    return std::nullopt;
}

// ---- Identity -------------------------------------------------------------------------------

struct TIdentityCase {
    const char* Name;
    TKdsTableOptions Options;
    bool WithStructure;
};

// A store with a master and a table that looks into it and into itself, of any columns; the same
// ones for the same seed.
class TAnyStore {
public:
    TAnyStore(std::u16string_view name, std::uint32_t seed, TKdsTableOptions options,
              int inMemory = 0)
        : fRandom(seed), fStore(TKdsStore::Create(name)) {
        constexpr TKdsDataType keyTypes[] = {dtInteger, dtChar,       dtAnsiString,
                                             dtInt64,   dtWideString, dtMemoString};
        const TKdsDataType keyType = keyTypes[Draw(6)];
        Master = fStore->Tables()->Add(u"Master");
        Master->SetOptions({mtoStaticData});
        Master->Columns()->Add(u"Key", keyType, 8);
        Master->SetPrimaryKey(u"Key");
        for (int i = 0; i < 20; ++i) Master->Insert({i * 7 % 20});
        Table = fStore->Tables()->Add(u"Table");
        Table->SetOptions(options);
        Table->SetMaxRecordsInMemory(inMemory);
        Table->Swapper()->SetCachedRecordsBatch(3);
        AddColumn(u"Id", dtInteger);
        for (std::uint32_t i = Draw(40); i > 0; --i) AddAny();
        for (int i = 0; i < 3; ++i) AddKey(u"Key" + ToUtf16(std::to_string(i)), keyType);
        TKdsColumn* const boss = AddColumn(u"Boss", dtInteger);
        boss->ForeignKey(u"Table", u"Id");
        boss->SetVirtualKey(true);
        if (Draw(2) == 0) AddAny();
    }

    void Fill(int count) {
        for (int i = 0; i < count; ++i) {
            TKdsRecord* const row = Table->Records()->Add(Table->NewRow({i}));
            if (Draw(10) == 0) row->SetHighlight(true);
            if (Draw(10) == 0) row->SetDecimals(static_cast<std::int32_t>(Draw(100)));
        }
        for (TKdsRecord* const row : *Table->Records()) {
            TKdsEdit edit(row);
            for (std::int32_t i = 1; i < Table->Columns()->Count(); ++i) {
                if (Draw(4) > 0) SetAny(row, Table->Columns()->Items(i), count);
            }
            edit.Post();
        }
    }
    std::uint32_t Draw(std::uint32_t bound) {
        return static_cast<std::uint32_t>(fRandom() % bound);
    }

    TKdsTable *Master, *Table;

private:
    TKdsColumn* AddColumn(std::u16string_view name, TKdsDataType type) {
        return Table->Columns()->Add(name, type, 1 + static_cast<std::int32_t>(Draw(12)));
    }
    void AddAny() {
        const auto type = static_cast<TKdsDataType>(1 + Draw(KdsDataTypeCount - 1));
        const std::u16string name = u"C" + ToUtf16(std::to_string(Table->Columns()->Count()));
        TKdsColumn* const column = AddColumn(name, type);
        if (type == dtMemoString && Draw(2) == 0) column->SetDictionary(u"words");
        if (type == dtCustomData && Draw(4) > 0) column->SetCustomData(MakeIntf<TNumberData>());
        if (type != dtInteger) return;
        const std::uint32_t kind = Draw(6);
        if (kind == 0) column->SetAutoIncrement(true);
        if (kind == 0 || kind > 3) return;
        static constexpr auto number = [](TKdsColumn*, TKdsRecord* record, TVariant& value) {
            value = record->GetDataI(0);
        };
        column->SetOnGetValue(TKdsGetValueEvent::BindCall(&number));
        column->SetCalculated(true, kind > 1);
        if (kind == 3) column->SetDelayedCalc(true);
    }
    // A foreign key; virtual or not, with columns that follow it or without.
    void AddKey(const std::u16string& name, TKdsDataType type) {
        TKdsColumn* const key = AddColumn(name, type);
        if (IsTextType(type)) key->SetLength(8);
        key->ForeignKey(u"Master", u"Key");
        const bool isShort = Draw(2) == 0;
        const TKdsLookupKind kind = isShort ? lkShort : lkNormal;
        if (Draw(2) == 0) key->SetVirtualKey(true, kind);
        if (Draw(2) == 0) Table->Columns()->AddLookup(name + u"Row", name, u"Key", kind);
        // In front of its key: nothing of the key column is left behind the last value then.
        if (Draw(2) == 0 && Table->Columns()->Items(Table->Columns()->Count() - 1) != key) {
            key->SetIndex(Table->Columns()->Count() - 1);
        }
    }
    void SetAny(TKdsRecord* row, TKdsColumn* column, int rows) {
        if (column->IsComputed() || column->GetIsReference()) return;
        const TKdsDataType type = column->DataType();
        if (column->MasterTable() == Master) {
            row->SetDataC(column, static_cast<std::int32_t>(Draw(25)));
        } else if (column->MasterTable() == Table) {
            row->SetDataC(column,
                          static_cast<std::int32_t>(Draw(static_cast<std::uint32_t>(rows) + 2)));
        } else if (type == dtCustomData) {
            const TIntf<IInterface> number =
                MakeIntf<TNumber>(static_cast<std::uint8_t>(Draw(256)));
            IInterface* const raw = number.Get();
            row->SetDataP(column, &raw, 8);
        } else {
            const bool isText = IsTextType(type);
            const std::int32_t longest = type == dtMemoString ? 300 : column->Length();
            std::string bytes(isText ? Draw(static_cast<std::uint32_t>(longest) + 1)
                                     : static_cast<std::size_t>(column->DataSize()),
                              '\0');
            const auto size = static_cast<std::int32_t>(bytes.size());
            if (type == dtWideString) bytes.resize(bytes.size() * 2);
            for (char& byte : bytes) byte = static_cast<char>(Draw(type == dtBoolean ? 2 : 256));
            row->SetDataP(column, bytes.data(), size);
        }
    }

    std::mt19937 fRandom;
    TOwned<TKdsStore> fStore;
};

// What GetDataP tells, and of custom data the number.
std::string ValueOf(TKdsRecord* record, TKdsColumn* column) {
    const void* data = nullptr;
    std::int32_t size = 0;
    if (!record->GetDataP(column, data, size)) return "null" + std::to_string(size);
    if (column->DataType() == dtCustomData) {
        const auto held = BufferToIntf(data);
        return std::to_string(dynamic_cast<const TNumber*>(held.Get())->Value);
    }
    const std::int32_t unit = column->DataType() == dtWideString ? 2 : 1;
    return std::string(static_cast<const char*>(data), static_cast<std::size_t>(size * unit));
}

class TKdsStreamIdentityTest : public testing::TestWithParam<TIdentityCase> {};

TEST_P(TKdsStreamIdentityTest, LoadsWhatWasSaved) {
    for (std::uint32_t round = 0; round < support::Steps(60); ++round) {
        const std::uint32_t seed = support::Seed() + round;
        SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
        TAnyStore from(u"From", seed, GetParam().Options), to(u"To", seed, GetParam().Options);
        from.Fill(static_cast<int>(from.Draw(30)));
        TKdsTable *const source = from.Table, *const target = to.Table;
        // Other identifiers and places than those that were saved.
        target->Insert({-1});
        target->Clear();
        const TBytes bytes = Saved(source, GetParam().WithStructure);
        TMemoryStream stream(bytes);

        const TKdsLoadResult result = target->LoadFromStream(stream);

        ASSERT_EQ(result.Loaded, source->Records()->Count());
        ASSERT_EQ(result.Unresolved, 0);
        // Before a read calculates what is late.
        ASSERT_TRUE(Saved(target, GetParam().WithStructure) == bytes);
        ASSERT_STREQ(target->Inconsistency(), nullptr);
        ASSERT_EQ(target->Options(), source->Options());
        for (std::int32_t i = 0; i < result.Loaded; ++i) {
            TKdsRecord *const row = target->Records()->Items(i), *const old =
                                                                     source->Records()->Items(i);
            ASSERT_EQ(row->Decimals(), old->Decimals());
            ASSERT_EQ(row->Highlight(), old->Highlight());
            for (std::int32_t c = 0; c < target->Columns()->Count(); ++c) {
                TKdsColumn *const column = target->Columns()->Items(c), *const was =
                                                                            source->Columns()
                                                                                ->Items(c);
                if (column->DataType() == dtCustomData && !column->CustomData()) {
                    ASSERT_TRUE(row->GetIsNullC(column));
                    continue;
                }
                ASSERT_EQ(ValueOf(row, column), ValueOf(old, was))
                    << i << ' ' << ToUtf8(column->Name()) << ' '
                    << ToUtf8(KdsTypeName(column->DataType()));
            }
        }
    }
}

// Rows that are out say what rows in memory say: while they are written, edited, saved, looked into
// and cut off from what they looked into.
TEST_P(TKdsStreamIdentityTest, RowsThatAreOutAreLikeOthers) {
    std::int64_t reads = 0;
    for (std::uint32_t round = 0; round < support::Steps(60); ++round) {
        const std::uint32_t seed = support::Seed() + round;
        SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
        TAnyStore in(u"In", seed, GetParam().Options), out(u"Out", seed, GetParam().Options, 2);
        for (TAnyStore* const store : {&in, &out}) store->Fill(20);
        ASSERT_TRUE(Saved(out.Table) == Saved(in.Table));
        for (int step = 0; step < 3; ++step) {
            for (TKdsTable* const table : {in.Table, out.Table}) {
                if (step == 1) table->Records()->Delete(0);
                if (step == 1) table->Records()->Items(1)->Edit();
                if (step == 1) table->Insert({30});
            }
            for (TAnyStore* const store : {&in, &out}) {
                if (step == 2) store->Master->Clear();
            }
            for (std::int32_t i = 0; i < in.Table->Records()->Count(); ++i) {
                for (std::int32_t c = 0; c < in.Table->Columns()->Count(); ++c) {
                    ASSERT_EQ(
                        ValueOf(out.Table->Records()->Items(i), out.Table->Columns()->Items(c)),
                        ValueOf(in.Table->Records()->Items(i), in.Table->Columns()->Items(c)))
                        << step << ' ' << i << ' ' << c;
                }
            }
            ASSERT_STREQ(out.Table->Inconsistency(), nullptr);
        }
        reads += out.Table->Swapper()->Reads();
    }
    EXPECT_GT(reads, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Options, TKdsStreamIdentityTest,
    testing::Values(TIdentityCase{"Whole", {}, true}, TIdentityCase{"WholeBare", {}, false},
                    TIdentityCase{"Stripped", {mtoStripNulls}, true},
                    TIdentityCase{"StrippedBare", {mtoStripNulls, mtoStaticData}, false},
                    TIdentityCase{"All", {mtoStripNulls, mtoStaticData, mtoSkipPKCheck}, true}),
    [](const auto& tested) { return std::string(tested.param.Name); });

// ---- Damage ---------------------------------------------------------------------------------

struct TDamageCase {
    const char* Name;
    TKdsTableOptions Options;
    bool Defined;  // a table with columns, views and rows instead of one with nothing
    bool WithStructure;
};

class TKdsStreamDamageTest : public testing::TestWithParam<TDamageCase> {
protected:
    struct TTarget {
        TOwned<TKdsStore> Store;
        TKdsTable* Table;
        std::string Before;
    };
    static TTarget Make(TKdsTableOptions options, bool defined) {
        TTarget target{TOwned<TKdsStore>(TKdsStore::Create(u"S")), nullptr, {}};
        TKdsTable* const table = target.Table = target.Store->Tables()->Add(u"T");
        if (!defined) return target;
        table->SetOptions(options);
        TKdsTableColumnList* const columns = table->Columns();
        columns->Add(u"Id", dtInteger);
        columns->Add(u"Text", dtAnsiString, 3);
        columns->Add(u"Wide", dtWideString, 2);
        columns->Add(u"Memo", dtMemoString)->SetDictionary(u"words:7");
        columns->Add(u"Data", dtCustomData)->SetCustomData(MakeIntf<TNumberData>());
        if (GetParam().Defined) {
            columns->Add(u"Boss", dtInteger)->ForeignKey(u"T", u"Id");
            columns->Columns(u"Boss")->SetVirtualKey(true);
        }
        table->SetPrimaryKey(u"Id");
        return target;
    }
    static void AddRows(TKdsTable* table, int first) {
        table->Insert({first, u"ab", u"\u0416x", u"memo"});
        const TIntf<IInterface> number = MakeIntf<TNumber>(std::uint8_t{3});
        IInterface* const raw = number.Get();
        TKdsRecord* const row = table->Records()->Add(table->NewRow({first + 1}));
        TKdsEdit edit(row);
        row->SetDataP(table->Columns()->Items(4), &raw, 8);
        if (GetParam().Defined) row->SetDataN(u"Boss", first);
        edit.Post();
        table->Insert({first + 2, Null, Null, u"memo"});
    }
    static TTarget Target() {
        TTarget target = Make(GetParam().Options, GetParam().Defined);
        if (GetParam().Defined) {
            AddRows(target.Table, 10);
            static_cast<void>(target.Table->Select(u"Boss desc, Text"));
        }
        target.Before = StateOf(target.Table);
        return target;
    }
    static TBytes Good() {
        const TTarget source = Make(GetParam().Options, true);
        AddRows(source.Table, 1);
        return Saved(source.Table, GetParam().WithStructure);
    }
    // Refused with nothing changed, or loaded to something whole; with little memory.
    static bool IsLoaded(const TBytes& bytes) {
        const TTarget target = Target();
        const std::int64_t before = support::AllocatedBytes();
        const auto refusal = LoadRefusal(target.Table, bytes);
        EXPECT_LT(support::AllocatedBytes() - before, 4 << 20);
        EXPECT_STREQ(target.Table->Inconsistency(), nullptr);
        if (refusal) {
            EXPECT_EQ(StateOf(target.Table), target.Before);
            EXPECT_GE(refusal->second, 0);
            EXPECT_LE(refusal->second, static_cast<std::int64_t>(bytes.size()));
        } else {
            // Reads all there is.
            EXPECT_FALSE(Saved(target.Table).empty() || StateOf(target.Table).empty());
            // Nobody there knows these data.
            for (TKdsRecord* const row : *target.Table->Records()) {
                if (!GetParam().Defined) {
                    EXPECT_TRUE(row->GetIsNullI(4));
                }
            }
        }
        return !refusal;
    }
};

TEST_P(TKdsStreamDamageTest, RefusesAStreamThatIsCutShort) {
    const TBytes good = Good();
    ASSERT_TRUE(IsLoaded(good));
    for (std::size_t size = 0; size < good.size(); ++size) {
        ASSERT_FALSE(IsLoaded({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)}))
            << size;
    }
}

TEST_P(TKdsStreamDamageTest, SurvivesWhateverByteIsWrong) {
    const TBytes good = Good();
    for (std::size_t i = 0; i < good.size(); ++i) {
        for (const int flipped : {1, 2, 4, 8, 16, 32, 64, 128, 255}) {
            SCOPED_TRACE(testing::Message() << "byte " << i << " with " << flipped);
            TBytes bytes = good;
            bytes[i] ^= static_cast<std::byte>(flipped);
            static_cast<void>(IsLoaded(bytes));
            if (HasFailure()) return;
        }
    }
}

TEST_P(TKdsStreamDamageTest, SurvivesAnyLackOfMemory) {
    const TBytes good = Good();
    support::FailEachAllocation(
        Target, [&](TTarget& target) { EXPECT_FALSE(LoadRefusal(target.Table, good)); },
        [](TTarget& target, bool raised) {
            ASSERT_STREQ(target.Table->Inconsistency(), nullptr);
            if (raised) {
                ASSERT_EQ(StateOf(target.Table), target.Before);
            }
        });
}

INSTANTIATE_TEST_SUITE_P(
    Tables, TKdsStreamDamageTest,
    testing::Values(TDamageCase{"Created", {}, false, true},
                    TDamageCase{"CreatedStripped", {mtoStripNulls}, false, true},
                    TDamageCase{"Defined", {}, true, false},
                    TDamageCase{"DefinedStripped", {mtoStripNulls}, true, true}),
    [](const auto& tested) { return std::string(tested.param.Name); });

// ---- Golden files ---------------------------------------------------------------------------

// Streams of the first version, byte for byte; KDS_UPDATE_GOLDEN=1 writes them anew.
TEST(TKdsStreamGoldenTest, WritesAndReadsTheBytesOfTheFirstVersion) {
    for (const bool strips : {false, true}) {
        const TOwned<TKdsStore> store(TKdsStore::Create(u"Shop"));
        const auto make = [&](std::u16string_view tableName) {
            TKdsTable* const table = store->Tables()->Add(tableName);
            if (strips) table->SetOptions({mtoStripNulls});
            TKdsTableColumnList* const columns = table->Columns();
            columns->Add(u"Id", dtInteger);
            columns->Add(u"Name", dtAnsiString, 6);
            columns->Add(u"Title", dtWideString, 4);
            columns->Add(u"Note", dtMemoString);
            columns->Add(u"Tag", dtCustomData)->SetCustomData(MakeIntf<TNumberData>());
            columns->Add(u"Boss", dtInteger)->ForeignKey(tableName, u"Id");
            columns->Columns(u"Boss")->SetVirtualKey(true);
            return table;
        };
        TKdsTable* const table = make(u"Staff");
        table->SetTag(300);
        const TIntf<IInterface> number = MakeIntf<TNumber>(std::uint8_t{2});
        IInterface* const raw = number.Get();
        TKdsRecord* const first = table->Insert({1, u"Ann", u"\u0416", u"a note"});
        table->Insert({-200, u"Bob", Null, Null, Null, 1})->SetHighlight(true);
        table->Insert({70'000})->SetDecimals(2);
        TKdsEdit edit(first);
        first->SetDataP(table->Columns()->Items(4), &raw, 8);
        edit.Post();
        const std::string name = strips ? "tests/golden/stripped.kds" : "tests/golden/whole.kds";
        const TBytes bytes = Saved(table, strips);
        const auto* const chars = reinterpret_cast<const char*>(bytes.data());
        if (std::getenv("KDS_UPDATE_GOLDEN") != nullptr) {
            std::ofstream(name, std::ios::binary)
                .write(chars, static_cast<std::streamsize>(bytes.size()));
        }
        std::ifstream file(name, std::ios::binary);

        EXPECT_TRUE(std::ranges::equal(std::string(std::istreambuf_iterator<char>(file), {}),
                                       std::string(chars, bytes.size())))
            << name;
        TKdsTable* const copy = make(u"Copy");
        EXPECT_EQ(copy->LoadFromFile(ToUtf16(name)).Loaded, 3);
        EXPECT_EQ(VarToInt64(copy->Records()->Items(1)->GetDataN(u"Boss")), 1);
    }
}

// ---- Undoing, refusing, telling ---------------------------------------------------------------

// Table1 has the rows 0 to 9; another of its shape has what is loaded.
class TKdsStreamLoadTest : public TKdsTableTest {
protected:
    TKdsStreamLoadTest() {
        InsertTen();
        fOther = fStore->Tables()->Add(u"Other");
        fOther->Columns()->Add(u"id", dtInteger);
        fOther->Columns()->Add(u"name", dtAnsiString, 8);
        for (int i = 0; i < 6; ++i) fOther->Insert({20 + i, u"o"});
    }
    struct TProgress final : IKdsProgress {
        void Start(std::int32_t total) override { Total = total; }
        [[nodiscard]] bool Step(std::int32_t count) override { return (Done += count) != StopAt; }
        std::int32_t Total = 0, Done = 0, StopAt = 0;
    };
    TKdsTable* fOther;
};

TEST_F(TKdsStreamLoadTest, UndoesWhatBreaksAKeyWhenTheViewsComeBack) {
    TKdsView* const byName = fTable->Select(u"name desc, id");
    fOther->Insert({7, u"dup"});
    const std::string before = StateOf(fTable);

    const auto refusal = LoadRefusal(fTable, Saved(fOther, false));

    ASSERT_TRUE(refusal);
    EXPECT_EQ(ToUtf8(refusal->first), "Duplicate rows for \"UV_Table1\"");
    EXPECT_EQ(StateOf(fTable), before);
    EXPECT_EQ(byName->Count(), 10);
    EXPECT_EQ(fTable->Insert({30, u"x"})->RowID(), 10u);
}

// What a link does while a load is being undone is its own.
TEST_F(TKdsStreamLoadTest, UndoingLeavesWhatLinksHaveDoneMeanwhile) {
    struct TBusyLink final : TKdsViewLink {
        void HandleEvent(TKdsEvent*) override {
            if (IsDone) return;
            TKdsTable* const table = View()->Table();
            try {
                table->Insert({77, u"new"});
                IsDone = true;
                table->Records()->FindRowID(3)->Delete();
                table->Records()->FindRowID(4)->Delete();
            } catch (const EKdsError&) {  // while the key cannot be built
            }
        }
        bool IsDone = true;
    } link;
    link.SetView(fTable->Select(u"name desc, id"));
    fOther->Insert({7, u"dup"});
    link.IsDone = false;

    EXPECT_TRUE(LoadRefusal(fTable, Saved(fOther, false)));

    EXPECT_TRUE(link.IsDone);
    EXPECT_EQ(fTable->Records()->Count(), 9);
    EXPECT_NE(fTable->Records()->Find({77}), nullptr);
    EXPECT_EQ(fTable->Records()->Find({3}), nullptr);
    EXPECT_EQ(fTable->Records()->Find({20}), nullptr);
    EXPECT_NE(fTable->Insert({30, u"x"}), nullptr);
    EXPECT_STREQ(fTable->Inconsistency(), nullptr);
}

TEST_F(TKdsStreamLoadTest, StopsWhenTheProgressSays) {
    const TBytes bytes = Saved(fOther, false);
    const std::string before = StateOf(fTable);
    for (std::int32_t at = 1; at <= 7; ++at) {
        TMemoryStream stream(bytes), saved;
        TProgress loading, saving;
        loading.StopAt = saving.StopAt = at;

        EXPECT_EQ(fOther->SaveToStream(saved, true, &saving), at == 7);
        const TKdsLoadResult result = fTable->LoadFromStream(stream, nullptr, &loading);

        EXPECT_EQ(loading.Total, 6);
        EXPECT_EQ(result.Stopped, at < 7);
        EXPECT_EQ(result.Loaded, at < 7 ? 0 : 6);
        if (at < 7) {
            EXPECT_EQ(StateOf(fTable), before);
        }
        EXPECT_EQ(stream.Position(), at < 7 ? 0 : stream.Size());
    }
}

TEST_F(TKdsStreamLoadTest, AsksTheHostOfEachRecord) {
    TMemoryStream stream(Saved(fOther, false));
    const std::int64_t end = stream.Size();
    stream.Seek(end);
    stream.Write(std::as_bytes(std::span("behind")));  // what another wrote is left to be read
    stream.Seek(0);
    int asked = 0;
    const auto odd = [&](TKdsTable* table, TKdsRecord* record, bool& accept) {
        EXPECT_EQ(Refusal([&] { table->Insert({99, u"x"}); }), Invalid);
        accept = ++asked % 2 == 1;
        if (accept) record->SetDataN(u"name", u"mine");
    };

    const TKdsLoadResult result =
        fTable->LoadFromStream(stream, TKdsLoadRecordEvent::BindCall(&odd));

    EXPECT_EQ(result.Loaded, 3);
    EXPECT_EQ(result.Refused, 3);
    EXPECT_EQ(stream.Position(), end);
    EXPECT_EQ(Ids(), (TIds{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 20, 22, 24}));
    const std::string before = StateOf(fTable);
    stream.Seek(0);
    const auto raising = [&](TKdsTable*, TKdsRecord*, bool&) {
        if (++asked == 10) throw EListError(u"mine");
    };
    EXPECT_EQ(Refusal([&] {
                  static_cast<void>(
                      fTable->LoadFromStream(stream, TKdsLoadRecordEvent::BindCall(&raising)));
              }),
              "mine");
    EXPECT_EQ(StateOf(fTable), before);
}

TEST_F(TKdsStreamLoadTest, RefusesAnotherStructure) {
    const TBytes bytes = Saved(fOther);
    const struct {
        std::u16string_view Cause;
        TKdsDataType Type;
        std::int32_t Length, Columns;
    } cases[] = {{u"Another type or size of a column", dtAnsiString, 9, 2},
                 {u"Another type or size of a column", dtChar, 11, 2},
                 {u"Another number of columns", dtAnsiString, 8, 3}};
    for (const auto& [cause, type, length, columns] : cases) {
        const TOwned<TKdsTable> table = TKdsTable::Create(u"New");
        table->Columns()->Add(u"id", dtInteger);
        table->Columns()->Add(u"name", type, length);
        if (columns > 2) table->Columns()->Add(u"more", dtBoolean);
        const auto refusal = LoadRefusal(table.get(), bytes);
        ASSERT_TRUE(refusal);
        EXPECT_EQ(refusal->first, cause);
    }
    const TOwned<TKdsTable> large = TKdsTable::Create(u"Large");
    for (const auto* const name : {u"a", u"b", u"c", u"d", u"e"}) {
        large->Columns()->Add(name, dtAnsiString, MaximumColumnLength);
    }
    const TOwned<TKdsTable> fresh = TKdsTable::Create(u"New");
    EXPECT_EQ(LoadRefusal(fresh.get(), Saved(large.get()))->first,
              u"Records too large for a table that is not defined yet");
    EXPECT_EQ(fresh->Columns()->Count(), 0);
    EXPECT_FALSE(LoadRefusal(large.get(), Saved(large.get())));
    fresh->SetOptions({mtoOnceLoaded});
    fOther->SetTag(7);
    fOther->SetOptions({mtoOnceLoaded, mtoSkipPKCheck});
    EXPECT_FALSE(LoadRefusal(fresh.get(), Saved(fOther)));
    EXPECT_EQ(fresh->Name(), u"Other");
    EXPECT_EQ(fresh->Tag(), 7);
    EXPECT_EQ(fresh->Options(), (TKdsTableOptions{mtoOnceLoaded, mtoSkipPKCheck}));
}

// A boss may stand behind who has it, and at another place than when it was saved.
TEST_F(TKdsStreamLoadTest, FindsMasterRowsByPlaceAndByValue) {
    const auto make = [&](std::u16string_view name) {
        TKdsTable* const table = fStore->Tables()->Add(name);
        table->Columns()->Add(u"id", dtInteger);
        table->Columns()->Add(u"boss", dtInteger)->ForeignKey(name, u"id");
        table->Columns()->Items(1)->SetVirtualKey(true);
        table->SetPrimaryKey(u"id");
        return table;
    };
    TKdsTable *const from = make(u"From"), *const to = make(u"To");
    for (int i = 0; i < 30; ++i) from->Insert({i});
    for (int i = 0; i < 30; ++i) {
        TKdsEdit edit(from->Records()->Items(i));
        edit->SetDataI(1, (i + 1) % 31);  // the last one has none
        edit.Post();
    }
    to->Insert({100});
    to->Insert({7, 100});  // instead of the 7 that is refused
    TMemoryStream stream(Saved(from));
    const auto notSeven = [](TKdsTable*, TKdsRecord* record, bool& accept) {
        const std::int64_t id = VarToInt64(record->GetDataI(0));
        accept = id != 7 && id != 20;
    };

    const TKdsLoadResult result =
        to->LoadFromStream(stream, TKdsLoadRecordEvent::BindCall(&notSeven));

    EXPECT_EQ(result.Loaded, 28);
    EXPECT_EQ(result.Unresolved, 1);  // 19, whose boss is 20
    for (TKdsRecord* const row : *to->Records()) {
        const std::int64_t id = VarToInt64(row->GetDataI(0));
        if (id == 100) continue;
        EXPECT_EQ(ToUtf8(row->Format(1)), id == 7                ? "100"
                                          : id == 19 || id == 29 ? "#wrong lookup"
                                                                 : std::to_string(id + 1))
            << id;
    }
}

// ---- Files ----------------------------------------------------------------------------------

class TKdsStreamFileTest : public TKdsStreamLoadTest {
protected:
    TKdsStreamFileTest()
        : fFolder(ToUtf8(FileSystem().UniqueName(FileSystem().TemporaryFolder(), u"kds"))),
          fName(ToUtf16(fFolder.string()) + u"/table") {
        std::filesystem::create_directory(fFolder);
    }
    ~TKdsStreamFileTest() override { std::filesystem::remove_all(fFolder); }
    std::size_t FileCount() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(fFolder), {}));
    }
    const std::filesystem::path fFolder;
    const std::u16string fName;
};

TEST_F(TKdsStreamFileTest, KeepsTheOldFileUntilTheNewOneIsComplete) {
    fTable->SaveToFile(fName);
    fOther->Insert({std::int32_t{50}, u"more"});
    int calls = 0;
    for (bool happened = true; happened; ++calls) {
        {
            TFailingFiles failing(calls + 1);
            const std::string refusal = Refusal([&] { fOther->SaveToFile(fName); });
            happened = failing.Happened();
            EXPECT_EQ(refusal, happened ? "Disk full" : NothingRaised);
        }
        EXPECT_EQ(FileCount(), 1u);
        const TOwned<TKdsTable> copy = TKdsTable::Create(u"Copy");
        EXPECT_EQ(copy->LoadFromFile(fName).Loaded, happened ? 10 : 7);
    }
    EXPECT_EQ(calls, 6);  // a name, the file, its bytes, the sync, the new name
    TProgress stops;
    stops.StopAt = 2;
    EXPECT_FALSE(fTable->SaveToFile(fName, true, &stops));
    EXPECT_EQ(FileCount(), 1u);
}

TEST_F(TKdsStreamFileTest, TellsOfAFileThatCannotBeRead) {
    fOther->SaveToFile(fName);
    const std::string before = StateOf(fTable);
    for (int call = 1; call <= 3; ++call) {  // opening, the size, the bytes
        TFailingFiles failing(call);
        try {
            static_cast<void>(fTable->LoadFromFile(fName));
            ADD_FAILURE() << call;
        } catch (const EKdsStreamError& error) {
            EXPECT_EQ(error.Cause(), u"Disk full");
        }
        EXPECT_EQ(StateOf(fTable), before);
    }
    EXPECT_EQ(fTable->LoadFromFile(fName).Loaded, 6);
}

}  // namespace
}  // namespace kds
