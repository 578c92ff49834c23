// What the tests of this layer share: the refusals of the store as they are worded, and tables to
// try things on.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "kds/core/Kdserrors.h"
#include "kds/expr/Varconvert.h"
#include "tests/support/Recorder.h"

namespace kds {

using support::NamesOf;
using support::Refusal;
using support::TLines;
using support::TRecorder;
using support::TRecording;

inline constexpr const char* NothingRaised = "nothing raised";
inline constexpr const char* Invalid = "Invalid operation for record state";
inline constexpr const char* NotEditable = "Record is not in editable state";
inline constexpr const char* NotDeletable = "Record cannot be deleted";
inline constexpr const char* NotInsertable = "Record cannot be inserted";
inline constexpr const char* NotConvertible = "Cannot convert value to column datatype";
inline constexpr const char* NotUnique = "Unique constraint \"UV_Table1\" violated";

// Custom data with a text, so that it can be shown and copied.
class TTag final : public IInterface, public IKdsExportable {
public:
    [[nodiscard]] TVariant ExportValue() const override { return u"tag"; }
};

// Table "T" without a key. Everything of records must hold in tables that keep full rows and in
// tables that strip them: the parameter.
class TKdsRecordTest : public testing::TestWithParam<bool> {
protected:
    TKdsRecordTest() : fTable(TKdsTable::Create(u"T")), fColumns(fTable->Columns()) {
        if (GetParam()) fTable->SetOptions({mtoStripNulls});
    }
    ~TKdsRecordTest() override {
        // The routines were the test's own.
        for (TKdsColumn* const column : *fTable->Columns()) column->SetOnGetValue(nullptr);
        EXPECT_STREQ(fTable->Inconsistency(), nullptr);
    }

    TKdsColumn* Add(std::u16string_view name, TKdsDataType type, std::int32_t length = 8) {
        return fColumns->Add(name, type, length);
    }
    // id, name, memo, qty: the usual table.
    void AddUsual() {
        fId = Add(u"id", dtInteger);
        fName = Add(u"name", dtAnsiString);
        fMemo = Add(u"memo", dtMemoString);
        fQty = Add(u"qty", dtInteger);
    }
    template <typename F>
    void SetCompute(TKdsColumn* column, F* routine) {
        column->SetOnGetValue(TKdsGetValueEvent::BindCall(routine));
    }

    TOwned<TKdsTable> fTable;
    TKdsTableColumnList* fColumns;
    TKdsColumn *fId = nullptr, *fName = nullptr, *fMemo = nullptr, *fQty = nullptr;
};

inline std::string BuffersName(const testing::TestParamInfo<bool>& tested) {
    return tested.param ? "Stripped" : "Whole";
}

// A link that writes down what it hears and then does what the test wants.
class TLink final : public TKdsViewLink {
public:
    explicit TLink(TLines* lines) : fLines(lines) {}
    void HandleEvent(TKdsEvent* event) override {
        static constexpr const char* Names[] = {"source", "status", "fields", "insert",
                                                "delete", "update", "signal"};
        fLines->push_back(std::string("link ") + Names[static_cast<std::size_t>(event->Reason)]);
        if (OnEvent) OnEvent(*event);
    }
    std::function<void(const TKdsEvent&)> OnEvent;

private:
    TLines* fLines;
};

// Table1 (id, name) with the key id, in a store that writes down all that climbs to it.
class TKdsTableTest : public testing::Test {
protected:
    TKdsTableTest()
        : fStore(Stores()->Append(TRecording<TKdsStore>::Create(&fRecorder, u"Store"))),
          fTable(fStore->Tables()->Add(u"Table1")),
          fRows(fTable->Records()) {
        fTable->Columns()->Add(u"id", dtInteger);
        fTable->Columns()->Add(u"name", dtAnsiString, 8);
        fTable->SetPrimaryKey(u"id");
        fRecorder.Lines.clear();
    }
    ~TKdsTableTest() override {
        fRecorder.OnNote = nullptr;
        EXPECT_STREQ(fTable == nullptr ? nullptr : fTable->Inconsistency(), nullptr);
        fStore->Free();
    }
    void InsertTen() {
        for (int i = 0; i < 10; ++i) fTable->Insert({i, u"n"});
        fRecorder.Lines.clear();
    }
    using TIds = std::vector<std::int64_t>;
    [[nodiscard]] TIds Ids() const {
        TIds ids;
        for (TKdsRecord* const record : *fRows) ids.push_back(VarToInt64(record->GetDataI(0)));
        return ids;
    }

    TRecorder fRecorder;
    TRecorder fOnTheWay;  // of a table that records, when there is one
    TKdsStore* fStore;
    TKdsTable* fTable;
    TKdsTableRecordList* fRows;
};

}  // namespace kds
