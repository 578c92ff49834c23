// Random expressions on random rows beside SQLite, where the meanings agree: integers that do not
// overflow, floats, texts compared by bytes, three-valued logic.
#ifdef KDS_WITH_SQLITE

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <random>

#include "tests/expr/Exprtest.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

class TGenerator {
public:
    explicit TGenerator(std::uint32_t seed) : fRandom(seed) {}
    std::uint32_t Below(std::uint32_t limit) {
        return static_cast<std::uint32_t>(fRandom()) % limit;
    }

    std::string Integer(int depth) {
        if (depth <= 0) return Pick({"a", "b", std::to_string(Below(20)), "-3", "NULL"});
        switch (Below(10)) {
            case 0: return Pair(Integer(depth - 1), " + ", Integer(depth - 1));
            case 1: return Pair(Integer(depth - 1), " - ", Integer(depth - 1));
            case 2: return Pair(Integer(depth - 2), " * ", Pick({"2", "-1", "a"}));
            case 3: return "(- " + Integer(depth - 1) + ")";
            case 4: return "ABS(" + Integer(depth - 1) + ")";
            case 5: return "LENGTH(" + Text(depth - 1) + ")";
            case 6: return "INSTR(" + Text(depth - 1) + ", " + Text(depth - 1) + ")";
            case 7: return "MAX(" + Integer(depth - 1) + ", " + Integer(depth - 1) + ")";
            case 8: return Choice(depth, &TGenerator::Integer);
            default: return Pair(Integer(depth - 1), Pick({" & ", " | "}), Integer(depth - 1));
        }
    }
    std::string Float(int depth) {
        if (depth <= 0) return Pick({"x", "y", "0.5e0", "x", "-2e0"});
        if (Below(4) == 0) return Choice(depth, &TGenerator::Float);
        return Pair(Float(depth - 1), Pick({" + ", " - ", " * ", " / "}),
                    Below(3) == 0 ? Integer(depth - 1) : Float(depth - 1));
    }
    std::string Text(int depth) {
        if (depth <= 0) return Pick({"s", "t", "'ab'", "''", "'Ba'", "NULL"});
        switch (Below(6)) {
            case 0: return Pair(Text(depth - 1), " || ", Text(depth - 1));
            case 1: return "UPPER(" + Text(depth - 1) + ")";
            case 2:
                return "SUBSTR(" + Text(depth - 1) + ", " + Pick({"1", "2", "3"}) + ", " +
                       Pick({"0", "1", "5"}) + ")";
            case 3: return "REPLACE(" + Text(depth - 1) + ", 'a', " + Text(depth - 2) + ")";
            case 4: return Choice(depth, &TGenerator::Text);
            default: return "LOWER(" + Text(depth - 1) + ")";
        }
    }
    std::string Truth(int depth) {
        switch (depth <= 0 ? 0 : Below(9)) {
            case 0: return Compared(depth, &TGenerator::Integer);
            case 1: return Compared(depth, &TGenerator::Float);
            case 2: return Compared(depth, &TGenerator::Text);
            case 3: return "(NOT " + Truth(depth - 1) + ")";
            case 4:
                return "(" + Text(depth - 1) + Pick({" LIKE ", " NOT LIKE "}) +
                       Pick({"'a%'", "'%b'", "'_a%b_'", "t", "'%a%'"}) + ")";
            case 5:
                return "(" + Integer(depth - 1) + Pick({" IN (", " NOT IN ("}) +
                       Integer(depth - 1) + ", 1, 2, 3, " + Integer(0) + "))";
            case 6:
                return "(" + Integer(depth - 1) + " BETWEEN " + Integer(depth - 1) + " AND " +
                       Integer(depth - 1) + ")";
            case 7: return "(" + Text(depth - 1) + Pick({" IS NULL", " IS NOT NULL"}) + ")";
            default: {
                const std::string op = Pick({" AND ", " OR "});
                std::string chain = "(" + Truth(depth - 1);
                for (std::uint32_t more = Below(4) + 1; more > 0; --more) {
                    chain +=
                        op + (Below(2) == 0 ? "a = " + std::to_string(Below(9)) : Truth(depth - 1));
                }
                return chain + ")";
            }
        }
    }

private:
    using TMaker = std::string (TGenerator::*)(int);
    std::string Pick(std::initializer_list<std::string> all) {
        return *(all.begin() + Below(static_cast<std::uint32_t>(all.size())));
    }
    static std::string Pair(const std::string& a, const std::string& op, const std::string& b) {
        return "(" + a + op + b + ")";
    }
    std::string Compared(int depth, TMaker make) {
        return Pair((this->*make)(depth - 1), Pick({" = ", " <> ", " < ", " <= ", " > ", " >= "}),
                    (this->*make)(depth - 1));
    }
    std::string Choice(int depth, TMaker make) {
        const auto next = [&] { return (this->*make)(depth - 1); };
        switch (Below(4)) {
            case 0: return "COALESCE(" + next() + ", " + next() + ")";
            case 1: return "NULLIF(" + next() + ", " + next() + ")";
            case 2: return "IIF(" + Truth(depth - 1) + ", " + next() + ", " + next() + ")";
            default:
                return "CASE WHEN " + Truth(depth - 1) + " THEN " + next() + " ELSE " + next() +
                       " END";
        }
    }
    std::mt19937 fRandom;
};

// SQLite's value beside ours: truths are 1 and 0 there.
[[nodiscard]] bool Same(sqlite3_stmt* statement, const TVariant& value) {
    switch (sqlite3_column_type(statement, 0)) {
        case SQLITE_NULL: return !value.Assigned();
        case SQLITE_TEXT:
            return value.IsText() && VarToAnsi(value) == reinterpret_cast<const char*>(
                                                             sqlite3_column_text(statement, 0));
        case SQLITE_INTEGER:
            return value.Assigned() && !value.IsText() &&
                   VarToInt64(value) == sqlite3_column_int64(statement, 0);
        default: {
            if (!value.Assigned() || value.IsText()) return false;
            const double expected = sqlite3_column_double(statement, 0);
            return std::fabs(VarToDouble(value) - expected) <= 1e-9 * std::fabs(expected);
        }
    }
}

TEST(TExpressionDifferentialTest, AgreesWithSqlite) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    TGenerator random(seed);
    sqlite3* base = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &base), SQLITE_OK);
    sqlite3_exec(base,
                 "PRAGMA case_sensitive_like = ON; CREATE TABLE r(a INTEGER, b INTEGER, x REAL,"
                 " y REAL, s TEXT, t TEXT); INSERT INTO r DEFAULT VALUES",
                 nullptr, nullptr, nullptr);
    const auto row = MakeIntf<support::TRowProvider>();
    row->Add(u"a", ekInteger, rwInt32, 0);
    row->Add(u"b", ekInteger, rwInt64, 0);
    row->Add(u"x", ekFloat, rwDouble, 0);
    row->Add(u"y", ekFloat, rwSingle, 0);
    row->Add(u"s", ekText, rwAnsi, u"");
    row->Add(u"t", ekText, rwChar, u"");
    for (std::int64_t step = 0; step < support::Steps(4000); ++step) {
        const int depth = static_cast<int>(random.Below(5));
        const std::string text = random.Below(3) > 0    ? random.Truth(depth)
                                 : random.Below(2) == 0 ? random.Float(depth)
                                                        : random.Text(depth);
        sqlite3_stmt* statement = nullptr;
        ASSERT_EQ(sqlite3_prepare_v2(base, ("SELECT " + text + " FROM r").c_str(), -1, &statement,
                                     nullptr),
                  SQLITE_OK)
            << text << ": " << sqlite3_errmsg(base);
        const auto raw = MakeExpressionParser()->Parse(ToUtf16(text), row);
        const auto general = MakeExpressionParser({.Specialise = false, .Functions = nullptr})
                                 ->Parse(ToUtf16(text), row);
        for (int i = 0; i < 4; ++i) {
            std::string update = "UPDATE r SET ";
            for (std::size_t column = 0; column < 6; ++column) {
                const TVariant value =
                    random.Below(6) == 0 ? TVariant(Null)
                    : column < 2         ? TVariant(static_cast<std::int32_t>(random.Below(12)) - 4)
                    : column < 4         ? TVariant((random.Below(9) - 4.0) / 2)
                                 : TVariant(std::u16string(u"aBba").substr(random.Below(4)));
                row->Set(column, value);
                const std::string literal = !value.Assigned() ? "NULL"
                                            : value.IsText()  ? "'" + VarToAnsi(value) + "'"
                                                              : VarToAnsi(value);
                update +=
                    (column == 0 ? "" : ", ") + std::string(1, "abxyst"[column]) + " = " + literal;
            }
            ASSERT_EQ(sqlite3_exec(base, update.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
            ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW) << text;
            for (const auto* evaluator : {&raw, &general}) {
                (*evaluator)->SetPosition({});
                ASSERT_TRUE(Same(statement, (*evaluator)->Evaluate()))
                    << text << "\n"
                    << update << "\ngives " << (*evaluator)->Evaluate();
            }
            sqlite3_reset(statement);
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(base);
}

}  // namespace
}  // namespace kds

#endif
