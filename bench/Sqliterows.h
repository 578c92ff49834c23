// The rows of Rows.h in SQLite: a table in memory whose key is its row number, prepared statements,
// and one transaction that stays open.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/Rows.h"

namespace kds {

class TSqliteSide {
public:
    TSqliteSide() {
        Check(sqlite3_open(":memory:", &fBase));
        Run("CREATE TABLE rows(id INTEGER PRIMARY KEY, name TEXT NOT NULL, value REAL NOT NULL,"
            " grp INTEGER NOT NULL, date INTEGER)");
        fInsert = Statement("INSERT INTO rows VALUES(?1, ?2, ?3, ?4, ?5)");
        fSelect = Statement("SELECT id, name, value, grp, date FROM rows WHERE id = ?1");
        fSelectValue = Statement("SELECT value FROM rows WHERE id = ?1");
        fUpdate =
            Statement("UPDATE rows SET name = ?2, value = ?3, grp = ?4, date = ?5 WHERE id = ?1");
        fUpdateValue = Statement("UPDATE rows SET value = ?2 WHERE id = ?1");
        fDelete = Statement("DELETE FROM rows WHERE id = ?1");
        Run("BEGIN");
    }
    ~TSqliteSide() {
        for (sqlite3_stmt* const statement :
             {fInsert, fSelect, fSelectValue, fUpdate, fUpdateValue, fDelete}) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(fBase);
    }
    TSqliteSide(const TSqliteSide&) = delete;
    TSqliteSide& operator=(const TSqliteSide&) = delete;

    void Load() {
        for (const TRow& row : Rows()) InsertKept(row);
    }
    void LoadKept() {
        Load();
        MakeIndexes();
    }
    void MakeIndexes() {
        Run("CREATE INDEX by_name ON rows(name)");
        Run("CREATE INDEX by_value ON rows(value DESC)");
        Run("CREATE INDEX by_group_name ON rows(grp, name)");
        Run("CREATE INDEX by_date_id ON rows(date, id)");
    }
    void Commit() { Run("COMMIT"); }
    // Into a new file, after Commit.
    void BackUp(const char* fileName, bool syncs) {
        sqlite3* file = nullptr;
        Check(sqlite3_open(fileName, &file));
        if (!syncs)
            Check(sqlite3_exec(file, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr));
        Copy(fBase, file);
        Check(sqlite3_close(file));
    }
    // A base that has just been made, after Commit.
    void Restore(const char* fileName) {
        sqlite3* file = nullptr;
        Check(sqlite3_open(fileName, &file));
        Copy(file, fBase);
        Check(sqlite3_close(file));
    }
    void InsertKept(const TRow& row) {
        BindRow(fInsert, row);
        Step(fInsert);
    }
    void InsertOnly(const TRow& row) { InsertKept(row); }
    void Update(std::int64_t, const TRow& row) {
        BindRow(fUpdate, row);
        Step(fUpdate);
    }
    void UpdateValue(std::int64_t id, double value) {
        sqlite3_bind_int64(fUpdateValue, 1, id);
        sqlite3_bind_double(fUpdateValue, 2, value);
        Step(fUpdateValue);
    }
    void Delete(std::int64_t id) {
        sqlite3_bind_int64(fDelete, 1, id);
        Step(fDelete);
    }
    [[nodiscard]] std::int64_t Handle(std::int64_t id) const noexcept { return id; }
    [[nodiscard]] double FindValue(std::int64_t id) {
        sqlite3_bind_int64(fSelectValue, 1, id);
        Expect(sqlite3_step(fSelectValue), SQLITE_ROW);
        const double value = sqlite3_column_double(fSelectValue, 0);
        sqlite3_reset(fSelectValue);
        return value;
    }
    [[nodiscard]] bool Holds(const TRow& row) {
        sqlite3_bind_int64(fSelect, 1, row.Id);
        bool holds = sqlite3_step(fSelect) == SQLITE_ROW;
        if (holds) {
            TRow held;
            held.Id = sqlite3_column_int64(fSelect, 0);
            std::memcpy(held.Name.data(), sqlite3_column_text(fSelect, 1), held.Name.size());
            held.Value = sqlite3_column_double(fSelect, 2);
            held.Group = sqlite3_column_int(fSelect, 3);
            held.HasDate = sqlite3_column_type(fSelect, 4) != SQLITE_NULL;
            if (held.HasDate) held.Date = sqlite3_column_int(fSelect, 4);
            holds = held == row;
        }
        sqlite3_reset(fSelect);
        return holds;
    }
    [[nodiscard]] std::int64_t Count() {
        sqlite3_stmt* const statement = Statement("SELECT count(*) FROM rows");
        Expect(sqlite3_step(statement), SQLITE_ROW);
        const std::int64_t count = sqlite3_column_int64(statement, 0);
        sqlite3_finalize(statement);
        return count;
    }
    [[nodiscard]] bool ViewsInOrder() const { return true; }

private:
    void Expect(int code, int expected) {
        if (code == expected) return;
        std::fprintf(stderr, "sqlite: %s\n", sqlite3_errmsg(fBase));
        std::abort();
    }
    void Check(int code) { Expect(code, SQLITE_OK); }
    void Run(const char* text) { Check(sqlite3_exec(fBase, text, nullptr, nullptr, nullptr)); }
    void Copy(sqlite3* from, sqlite3* to) {
        sqlite3_backup* const backup = sqlite3_backup_init(to, "main", from, "main");
        Expect(sqlite3_backup_step(backup, -1), SQLITE_DONE);
        Check(sqlite3_backup_finish(backup));
    }
    sqlite3_stmt* Statement(const char* text) {
        sqlite3_stmt* statement = nullptr;
        Check(sqlite3_prepare_v3(fBase, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
        return statement;
    }
    void Step(sqlite3_stmt* statement) {
        Expect(sqlite3_step(statement), SQLITE_DONE);
        sqlite3_reset(statement);
    }
    static void BindRow(sqlite3_stmt* statement, const TRow& row) {
        sqlite3_bind_int64(statement, 1, row.Id);
        sqlite3_bind_text(statement, 2, row.Name.data(), static_cast<int>(row.Name.size()),
                          SQLITE_STATIC);
        sqlite3_bind_double(statement, 3, row.Value);
        sqlite3_bind_int(statement, 4, row.Group);
        if (row.HasDate) {
            sqlite3_bind_int(statement, 5, row.Date);
        } else {
            sqlite3_bind_null(statement, 5);
        }
    }

    sqlite3* fBase = nullptr;
    sqlite3_stmt* fInsert = nullptr;
    sqlite3_stmt* fSelect = nullptr;
    sqlite3_stmt* fSelectValue = nullptr;
    sqlite3_stmt* fUpdate = nullptr;
    sqlite3_stmt* fUpdateValue = nullptr;
    sqlite3_stmt* fDelete = nullptr;
};

}  // namespace kds
