// A row of columns of every kind for expression tests, offered as variants, typed and raw.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "kds/expr/Expressions.h"
#include "kds/expr/Extvars.h"
#include "kds/expr/Varconvert.h"
#include "kds/platform/Bytes.h"
#include "kds/platform/Text.h"

namespace kds::support {

// The columns of one row. Every value lies in a buffer, too, behind one null word.
class TRowProvider final : public IExpressionProvider, public ITypedExpressionProvider {
public:
    struct TColumn {
        std::u16string Name;
        TExprColumn Known;
        TVariant Value;
    };

    // `size` is that of the raw value; texts are given the room of a length and 60 bytes.
    void Add(std::u16string_view name, TExprKind kind, TExprRawKind raw, TVariant value,
             bool caseless = false) {
        TColumn column{std::u16string(name), {kind, caseless, raw == rwWide, {}}, {}};
        column.Known.Place = {raw, static_cast<std::int32_t>(4 + Columns.size() * 64), 62, 0,
                              1U << Columns.size()};
        Columns.push_back(std::move(column));
        fBytes.resize(4 + Columns.size() * 64);
        Set(Columns.size() - 1, std::move(value));
    }
    void Set(std::size_t index, TVariant value) {
        const TExprRawPlace& place = Columns[index].Known.Place;
        std::byte* const data = fBytes.data() + place.Offset;
        const auto nulls = LoadRaw<std::uint32_t>(fBytes.data());
        StoreRaw(fBytes.data(),
                 value.Assigned() ? nulls | place.NullMask : nulls & ~place.NullMask);
        Columns[index].Value = value;
        if (value.Assigned()) Store(place, value, data);
    }
    void SetPosition(TExprPosition position) override { Positioned = position; }
    [[nodiscard]] bool Contains(std::u16string_view name, std::int32_t& index) override {
        for (index = 0; index < static_cast<std::int32_t>(Columns.size()); ++index) {
            if (SameText(Columns[static_cast<std::size_t>(index)].Name, name)) return true;
        }
        index = -1;
        return false;
    }
    [[nodiscard]] TVariant Evaluate(std::int32_t index) override {
        ++Fetches;
        return Columns[static_cast<std::size_t>(index)].Value;
    }
    [[nodiscard]] TExprColumn Describe(std::int32_t index) override {
        return Columns[static_cast<std::size_t>(index)].Known;
    }
    void Fetch(TExprPosition, std::int32_t index, TExprTarget& target) override {
        ++Fetches;
        target.SetVariant(Columns[static_cast<std::size_t>(index)].Value);
    }
    [[nodiscard]] const std::byte* Buffer(TExprPosition) override {
        return HasBuffer ? fBytes.data() : nullptr;
    }

    std::vector<TColumn> Columns;
    TExprPosition Positioned;
    bool HasBuffer = true;
    int Fetches = 0;

private:
    static void Store(const TExprRawPlace& place, const TVariant& value, std::byte* data) {
        switch (place.Kind) {
            case rwNone: return;
            case rwBoolean:
            case rwInt8:
            case rwUInt8: return StoreRaw(data, static_cast<std::int8_t>(VarToInt64(value)));
            case rwInt16:
            case rwUInt16: return StoreRaw(data, static_cast<std::int16_t>(VarToInt64(value)));
            case rwInt32:
            case rwUInt32: return StoreRaw(data, static_cast<std::int32_t>(VarToInt64(value)));
            case rwInt64: return StoreRaw(data, VarToInt64(value));
            case rwSingle: return StoreRaw(data, static_cast<float>(VarToDouble(value)));
            case rwDouble: return StoreRaw(data, VarToDouble(value));
            case rwCurrency: return StoreRaw(data, VarToCurrency(value).Scaled);
            case rwDateTime: return StoreRaw(data, VarToDateTime(value).Days);
            case rwDate:
                return StoreRaw(data,
                                SplitDateTime(VarToDateTime(value).Days).Day + DayNumberOfEpoch);
            case rwTime:
                return StoreRaw(data, SplitDateTime(VarToDateTime(value).Days).Milliseconds);
            case rwFixed:
                StoreRaw(data, VarToFixed(value).Value);
                return StoreRaw(data + 8, VarToFixed(value).Scale);
            case rwChar:
            case rwAnsi: {
                const std::string text = VarToAnsi(value);
                std::memset(data, 0, 64);
                const std::size_t at = place.Kind == rwChar ? 0 : 2;
                if (at != 0) StoreRaw(data, static_cast<std::uint16_t>(text.size()));
                std::memcpy(data + at, text.data(), std::min<std::size_t>(text.size(), 60));
                return;
            }
            case rwWide: {
                const std::u16string text = VarToStr(value);
                StoreRaw(data, static_cast<std::uint16_t>(text.size()));
                std::memcpy(data + 2, text.data(), std::min<std::size_t>(text.size() * 2, 60));
                return;
            }
            case rwMemo: return;
        }
    }
    std::vector<std::byte> fBytes = std::vector<std::byte>(4);
};

// The row of the examples in docs/expressions.md.
[[nodiscard]] inline TIntf<TRowProvider> ExampleRow() {
    auto row = MakeIntf<TRowProvider>();
    row->Add(u"Id", ekInteger, rwInt32, 7);
    row->Add(u"Name", ekText, rwAnsi, u"Brass bolt");
    row->Add(u"Code", ekText, rwWide, u"bx-20", true);
    row->Add(u"Price", ekFloat, rwDouble, 0.1);
    row->Add(u"Fee", ekFixed, rwCurrency, TCurrency{25'000});
    row->Add(u"Rate", ekFixed, rwFixed, TDecimalParts{1250, 3});
    row->Add(u"Active", ekBoolean, rwBoolean, true);
    row->Add(u"Made", ekDate, rwDateTime, VarToDateTime(u"2024-02-29T12:30:00"));
    row->Add(u"Day", ekDate, rwDate, VarToDateTime(u"2024-02-29"));
    row->Add(u"Note", ekText, rwChar, Null);
    row->Add(u"Small", ekInteger, rwInt8, -5);
    row->Add(u"Big", ekInteger, rwInt64, INT64_MAX);
    row->Add(u"Order No", ekInteger, rwUInt16, 60'000);
    row->Add(u"At", ekDate, rwTime, VarToDateTime(u"12:30:00"));
    row->Add(u"Missing", ekInteger, rwInt32, Null);
    row->Add(u"Boss.Name", ekText, rwNone, u"Ann");
    return row;
}

// What became of a text: "kind value", or the key of the error and its place.
[[nodiscard]] inline std::string Shown(const TVariant& value) {
    if (!value.Assigned()) return "NULL";
    return ToUtf8(ToLiteral(value));
}
[[nodiscard]] inline std::string Outcome(std::u16string_view text, const TIntf<TRowProvider>& row,
                                         bool specialise) {
    try {
        TExprOptions options;
        options.Specialise = specialise;
        const auto evaluator = MakeExpressionParser(options)->Parse(text, row);
        evaluator->SetPosition({row.Get(), erPosted});
        const TVariant value = evaluator->Evaluate();
        const int truth = evaluator->Test();
        const bool same = evaluator->TestAt({row.Get(), erPosted}) == truth;
        return same || !evaluator->IsPure() ? Shown(value) : "Test and TestAt differ";
    } catch (const EKdsParseError& error) {
        return "!" + ToUtf8(error.Key()) + "@" + std::to_string(error.Position());
    } catch (const Exception& error) {
        return std::string("!") + error.what();
    }
}
// Raw, typed and as variants: all ways give the same, or all outcomes are shown.
[[nodiscard]] inline std::string OutcomeOfAllWays(std::u16string_view text,
                                                  const TIntf<TRowProvider>& row) {
    const std::string raw = Outcome(text, row, true);
    row->HasBuffer = false;
    const std::string typed = Outcome(text, row, true);
    row->HasBuffer = true;
    const std::string general = Outcome(text, row, false);
    return raw == typed && raw == general ? raw : raw + " | " + typed + " | " + general;
}

}  // namespace kds::support
