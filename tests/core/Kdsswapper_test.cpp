#include "kds/core/Kdsswapper.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bit>
#include <filesystem>

#include "kds/views/Kdsstorages.h"
#include "kds/views/Kdsviews.h"
#include "tests/core/Coretest.h"
#include "tests/support/Failingfiles.h"

namespace kds {
namespace {

using support::TFailingFiles;

// A folder of its own, and a table (Id, Name, Qty) whose temporary file goes there.
class TKdsSwapperTest : public testing::TestWithParam<bool> {
protected:
    TKdsSwapperTest()
        : fFolder(ToUtf8(FileSystem().UniqueName(FileSystem().TemporaryFolder(), u"kds"))),
          fFiles(0, ToUtf16(fFolder.string())) {
        std::filesystem::create_directory(fFolder);
        Make(dtAnsiString, {});
    }
    ~TKdsSwapperTest() override {
        EXPECT_STREQ(fTable == nullptr ? nullptr : fTable->Inconsistency(), nullptr);
        fTable.reset();
        EXPECT_EQ(FileCount(), 0);
        std::filesystem::remove_all(fFolder);
    }
    void Make(TKdsDataType nameType, TKdsTableOptions options, int limit = 10, int batch = 4) {
        fTable = TKdsTable::Create(u"T");
        fTable->SetOptions(options);
        fTable->Columns()->Add(u"Id", dtInteger);
        fTable->Columns()->Add(u"Name", nameType, 20);
        fTable->Columns()->Add(u"Qty", dtInteger);
        fTable->SetMaxRecordsInMemory(limit);
        fSwapper = fTable->Swapper();
        fSwapper->SetCachedRecordsBatch(batch);
        fRows = fTable->Records();
    }
    static std::u16string NameOf(int id) { return u"row number " + ToUtf16(std::to_string(id)); }
    void Insert(int first, int count) {
        for (int id = first; id < first + count; ++id) fTable->Insert({id, NameOf(id), id * 7});
    }
    void Rename(int index, std::u16string_view name) {
        TKdsEdit edit(fRows->Items(index));
        edit->SetDataI(1, name);
        edit.Post();
    }
    // The places of the rows that are out.
    [[nodiscard]] std::vector<int> Out() const {
        std::vector<int> places;
        for (int i = 0; i < fRows->Count(); ++i) {
            if (fRows->Items(i)->IsOut()) places.push_back(i);
        }
        return places;
    }
    [[nodiscard]] std::u16string Name(int index) {
        return VarToStr(fRows->Items(index)->GetDataI(1));
    }
    void ExpectRows(int count) {
        ASSERT_EQ(fRows->Count(), count);
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(Name(i), NameOf(i));
            EXPECT_EQ(fRows->Items(i)->GetDataI(2), TVariant(i * 7));
        }
    }
    [[nodiscard]] int FileCount() const {
        return static_cast<int>(std::distance(std::filesystem::directory_iterator(fFolder), {}));
    }

    const std::filesystem::path fFolder;
    TFailingFiles fFiles;
    TOwned<TKdsTable> fTable;
    TKdsSwapper* fSwapper = nullptr;
    TKdsTableRecordList* fRows = nullptr;
};

using TPlaces = std::vector<int>;

TEST_F(TKdsSwapperTest, OldestRowsGoOutInBatches) {
    Insert(0, 10);
    EXPECT_EQ(FileCount(), 0);
    EXPECT_EQ(fSwapper->CacheFileSize(), 0);
    Insert(10, 1);
    EXPECT_EQ(Out(), (TPlaces{0, 1, 2, 3}));
    EXPECT_EQ(fSwapper->RecordsInMemory(), 7);
    EXPECT_EQ(fSwapper->CacheFileSize(), 4 * fTable->Layout().RecordSize());
    Insert(11, 3);
    EXPECT_EQ(fSwapper->RecordsInMemory(), 10);
    Insert(14, 1);
    EXPECT_EQ(Out(), (TPlaces{0, 1, 2, 3, 4, 5, 6, 7}));
    ExpectRows(15);

    const std::filesystem::path name = ToUtf8(fSwapper->FileName());
    EXPECT_EQ(name.parent_path(), fFolder);
    EXPECT_EQ(name.filename().string().substr(0, 3), "kds");
    struct stat status {};
    ASSERT_EQ(::stat(name.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);

    fSwapper->SetMaxRecordsInMemory(10);
    EXPECT_EQ(Refusal([&] { fTable->SetMaxRecordsInMemory(6); }),
              "MaxRecordsInMemory can not be lowered");
    EXPECT_EQ(fTable->MaxRecordsInMemory(), 10);
    fTable->SetMaxRecordsInMemory(7);

    fTable->Clear();
    EXPECT_EQ(FileCount(), 0);
    EXPECT_EQ(fSwapper->FileName(), u"");
    Insert(0, 20);
    ExpectRows(20);
}

// A batch larger than all rows takes out the new one, too.
TEST_F(TKdsSwapperTest, InsertMayAnswerARowThatIsOut) {
    Make(dtMemoString, {}, 2, 100);
    Insert(0, 3);
    EXPECT_EQ(Out(), (TPlaces{0, 1, 2}));
    ExpectRows(3);
}

TEST_F(TKdsSwapperTest, OneRowIsKept) {
    Insert(0, 20);
    const std::int64_t before = fSwapper->Reads();
    for (int i = 0; i < 3; ++i) {
        (void)Name(0);
        (void)fRows->Items(0)->GetDataI(2);
    }
    EXPECT_EQ(fSwapper->Reads(), before + 1);
    // Both are in the comparison at once.
    EXPECT_LT(fRows->Items(0)->Compare(fRows->Items(1), {}), 0);
    EXPECT_TRUE(fRows->Items(0)->SameValueC(fTable->Columns()->Items(1), fRows->Items(0),
                                            fTable->Columns()->Items(1)));
    EXPECT_FALSE(fRows->Items(0)->SameValueC(fTable->Columns()->Items(1), fRows->Items(1),
                                             fTable->Columns()->Items(1)));
}

// What is there as it is, and hosts may rely on.
TEST_F(TKdsSwapperTest, Quirks) {
    Insert(0, 8);
    fRows->Items(1)->Edit();
    fRows->Items(1)->SetDataI(1, u"open");
    Insert(8, 8);
    EXPECT_EQ(Out(), (TPlaces{0}));  // the row in turn is being edited
    EXPECT_EQ(fSwapper->RecordsInMemory(), 15);
    fRows->Items(1)->Post();
    Insert(16, 1);
    EXPECT_EQ(Out(), (TPlaces{0, 1, 2, 3, 4}));
    EXPECT_EQ(Name(1), u"open");

    const std::int64_t size = fSwapper->CacheFileSize();
    Rename(2, u"in place");
    EXPECT_EQ(fSwapper->CacheFileSize(), size);
    EXPECT_EQ(fSwapper->Load(fRows->Items(2)), nullptr);  // it was read last, and then edited
    Rename(2, u"again");
    EXPECT_EQ(Name(2), u"again");
    Rename(0, u"a new image");  // the old one is at the beginning of the file
    EXPECT_EQ(fSwapper->CacheFileSize(), size + fTable->Layout().RecordSize());
    EXPECT_EQ(Name(0), u"a new image");

    // A row in front of those that are out: the place in turn is taken by one that is.
    fRows->Insert(0, fTable->NewRow({99, u"front"}));
    const TPlaces before = Out();
    Insert(17, 5);
    EXPECT_EQ(Out(), before);
}

struct TKind {
    const char* Name;
    TKdsDataType Type;
    TKdsTableOptions Options;
};
constexpr TKind Kinds[] = {{"Whole", dtAnsiString, {}},
                           {"Stripped", dtAnsiString, {mtoStripNulls}},
                           {"Memo", dtMemoString, {}},
                           {"StrippedMemo", dtMemoString, {mtoStripNulls}}};

TEST_F(TKdsSwapperTest, SeveralEditsAtOnce) {
    for (const TKind& kind : Kinds) {
        SCOPED_TRACE(kind.Name);
        Make(kind.Type, kind.Options);
        // The shortest image first: another one that grows must not reach into its neighbour.
        for (int i = 0; i < 20; ++i) fTable->Insert({i});
        TKdsRecord *const a = fRows->Items(4), *const b = fRows->Items(5);
        EXPECT_EQ(fSwapper->CurrentEditingRecord(), nullptr);
        for (TKdsRecord* const row : {a, b}) {
            row->Edit();
            row->SetDataI(1, NameOf(1000));
            row->SetDataI(2, 5);
            EXPECT_EQ(fSwapper->CurrentEditingRecord(), row);
        }
        EXPECT_EQ(a->GetOldC(fTable->Columns()->Items(1)), TVariant(Null));
        a->Post();
        b->Cancel();
        EXPECT_EQ(fSwapper->CurrentEditingOffset(), -1);
        EXPECT_EQ(Name(4), NameOf(1000));
        for (const int i : {3, 5, 6}) {
            EXPECT_EQ(fRows->Items(i)->GetDataI(0), TVariant(i));
            EXPECT_EQ(fRows->Items(i)->GetDataI(1), TVariant(Null));
        }
        // Posted beside the edit.
        a->EnterForced();
        a->SetDataI(2, 6);
        a->LeaveForced();
        EXPECT_TRUE(a->IsOut());
        (void)Name(3);
        EXPECT_EQ(a->GetDataI(2), TVariant(6));
        ASSERT_STREQ(fTable->Inconsistency(), nullptr);
    }
}

TEST_F(TKdsSwapperTest, DeletedRowsKeepTheirValuesToTheEnd) {
    for (const TKind& kind : Kinds) {
        SCOPED_TRACE(kind.Name);
        Make(kind.Type, kind.Options);
        Insert(0, 20);
        TOwned<TKdsRecord> row = fRows->Extract(fRows->Items(3));
        EXPECT_FALSE(row->IsSwapped());
        EXPECT_EQ(VarToStr(row->GetDataI(1)), NameOf(3));
        while (fRows->Count() > 0) fRows->Delete(fRows->Count() / 2);
        EXPECT_EQ(fSwapper->CachedRecordsCount(), 0);
        fRows->Add(std::move(row));
        EXPECT_EQ(Name(0), NameOf(3));
    }
}

// Pooled texts have no other user than rows in memory.
TEST_F(TKdsSwapperTest, TextsGoBackToThePool) {
    Make(dtMemoString, {});
    fTable->Columns()->Items(1)->SetDictionary(u"names");
    Insert(0, 100);
    TKdsDictionary* const pool = fTable->Strings()->GetDictionaryList(0);
    EXPECT_EQ(pool->Count(), fSwapper->RecordsInMemory());
    EXPECT_EQ(Name(2), NameOf(2));
    EXPECT_EQ(pool->Count(), fSwapper->RecordsInMemory() + 1);
    fRows->Clear();
    EXPECT_EQ(pool->Count(), 0);
}

TEST_F(TKdsSwapperTest, CustomDataWithoutAHandlerStayInMemory) {
    fTable->Columns()->Add(u"Data", dtCustomData);
    Insert(0, 20);
    EXPECT_EQ(Out(), TPlaces{});
}

// Each row once for its key and once for its neighbour; inserting looks at few.
TEST_F(TKdsSwapperTest, ViewsReadFewRows) {
    constexpr int count = 1000;
    for (const TKdsStorageKind kind : {skSkip, skTree, skList, skLite}) {
        Make(dtAnsiString, {}, 20, 10);
        fTable->SetStorageFactory(StorageFactory(kind));
        for (int i = 0; i < count; ++i) fTable->Insert({i * 37 % count, NameOf(i % 10), i});
        std::int64_t before = fSwapper->Reads();
        TKdsView* const view = fTable->Select(u"Name,Id", {}, nullptr, true);
        ASSERT_EQ(view->Count(), count);
        EXPECT_LE(fSwapper->Reads() - before, count);
        view->Free();
        before = fSwapper->Reads();
        fTable->SetPrimaryKey(u"Id");
        EXPECT_LE(fSwapper->Reads() - before, 2 * count);
        for (int i = 0; i < 50; ++i) {
            before = fSwapper->Reads();
            fTable->Insert({count + i * 37 % 50, u"new", i});
            EXPECT_LE(fSwapper->Reads() - before, std::bit_width(unsigned{count + 50}) + 4);
        }
        EXPECT_STREQ(fTable->Inconsistency(), nullptr);
    }
}

// Every call of the file fails once, in both ways: what stood stands, and everything works again.
TEST_F(TKdsSwapperTest, FaultsLoseNothing) {
    int failures = 0;
    for (const TKind& kind : Kinds) {
        for (const auto mode : {TFailingFiles::TMode::Refused, TFailingFiles::TMode::Short}) {
            bool happened = true;
            for (int nth = 1; happened; ++nth) {
                SCOPED_TRACE(testing::Message() << kind.Name << nth);
                Make(kind.Type, kind.Options, 6, 2);
                fTable->SetPrimaryKey(u"Id");
                fFiles.FailAt(nth, mode);
                std::map<int, std::u16string> expected;
                int raised = 0;
                const auto run = [&](auto&& call) {
                    const std::string refusal = Refusal(call);
                    if (refusal == NothingRaised) return;
                    ++raised;
                    const bool known = refusal == "Disk full" ||
                                       refusal == "The file of swapped records is damaged";
                    EXPECT_TRUE(known) << refusal;
                };
                for (int i = 0; i < 12; ++i) {
                    run([&] { Insert(i, 1); });
                    expected[i] = NameOf(i);  // whatever was raised
                }
                ASSERT_EQ(fRows->Count(), 12);
                const auto rename = [&](int id) {
                    TKdsRecord* const row = fRows->FindRowID(static_cast<std::uint32_t>(id));
                    row->Edit();
                    row->SetDataI(1, NameOf(100 + id));
                    expected[id] = NameOf(100 + id);
                    row->Post();
                };
                for (const int id : {1, 3, 9}) run([&] { rename(id); });
                run([&] {
                    fRows->FindRowID(2)->Delete();
                    expected.erase(2);
                });
                run([&] { Insert(12, 1); });
                if (fRows->FindRowID(12) != nullptr) expected[12] = NameOf(12);
                happened = fFiles.Happened();
                fFiles.FailAt(0, mode);
                failures += raised;
                EXPECT_LE(raised, 1);
                if (mode == TFailingFiles::TMode::Refused) {
                    EXPECT_EQ(raised, happened ? 1 : 0);
                }
                ASSERT_EQ(static_cast<std::size_t>(fRows->Count()), expected.size());
                for (const auto& [id, name] : expected) {
                    TKdsRecord* const row = fRows->FindRowID(static_cast<std::uint32_t>(id));
                    EXPECT_EQ(VarToStr(row->GetDataI(1)), name) << id;
                    EXPECT_EQ(fRows->Find({id}), row);
                }
                Insert(20, 6);
                EXPECT_LE(fSwapper->RecordsInMemory(), 8);
                ASSERT_STREQ(fTable->Inconsistency(), nullptr);
                fTable.reset();
                EXPECT_EQ(FileCount(), 0);
            }
        }
    }
    EXPECT_GT(failures, 60);
}

// What has been loaded goes again when a call of the file fails while it comes; its going calls
// the file for nothing.
TEST_F(TKdsSwapperTest, AFailedLoadIsUndoneInSpiteOfAFault) {
    int faults = 0;
    for (const TKind& kind : Kinds) {
        Make(kind.Type, kind.Options, 100);
        Insert(100, 40);
        TMemoryStream whole;
        fTable->SaveToStream(whole, true);
        std::vector<std::byte> bytes = whole.Bytes();
        bytes.resize(bytes.size() - 3);
        bool happened = true;
        for (int nth = 1; happened; ++nth) {
            SCOPED_TRACE(testing::Message() << kind.Name << nth);
            Make(kind.Type, kind.Options, 6, 2);
            fTable->SetPrimaryKey(u"Id");
            Insert(0, 12);
            TMemoryStream stream(bytes);
            fFiles.FailAt(nth, TFailingFiles::TMode::Refused);
            EXPECT_THROW((void)fTable->LoadFromStream(stream), EKdsStreamError);
            happened = fFiles.Happened();
            fFiles.FailAt(0, TFailingFiles::TMode::Refused);
            faults += happened ? 1 : 0;
            ExpectRows(12);
            ASSERT_STREQ(fTable->Inconsistency(), nullptr);
            EXPECT_EQ(fTable->Insert({12, NameOf(12), 84})->RowID(), 12u);
        }
    }
    EXPECT_GT(faults, 30);
}

TEST_F(TKdsSwapperTest, AFileThatStaysBehindIsToldOf) {
    for (const bool ends : {false, true}) {
        Insert(0, 20);
        fFiles.FailAt(1, TFailingFiles::TMode::Refused);
        if (ends) {
            fTable.reset();
            Make(dtAnsiString, {});
        } else {
            EXPECT_EQ(Refusal([&] { fTable->Clear(); }), "Disk full");
        }
        EXPECT_TRUE(fFiles.Happened());
        fFiles.FailAt(0, TFailingFiles::TMode::Refused);
        EXPECT_EQ(FileCount(), 1);
        Insert(0, 20);
        ExpectRows(20);
        EXPECT_EQ(FileCount(), 2);
        fTable->Clear();
        EXPECT_EQ(FileCount(), 1);
        std::filesystem::remove(*std::filesystem::directory_iterator(fFolder));
    }
}

// A file that cannot be removed goes when the process does; a child leaves its parent's alone.
TEST_F(TKdsSwapperTest, TheProcessLeavesNoFile) {
    Insert(0, 20);
    ASSERT_EQ(FileCount(), 1);
    const ::pid_t child = ::fork();
    if (child == 0) {
        auto* const table = TKdsTable::Create(u"T").release();
        table->Columns()->Add(u"Id", dtInteger);
        table->SetMaxRecordsInMemory(1);
        for (int i = 0; i < 3; ++i) table->Insert({i});
        std::exit(FileCount() == 2 ? 0 : 1);
    }
    int status = 1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(FileCount(), 1);
    ExpectRows(20);
}

}  // namespace
}  // namespace kds
