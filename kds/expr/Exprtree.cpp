#include "kds/expr/Exprtree.h"

#include <algorithm>

#include "kds/expr/Exprcompiler.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

// A computed text is kept only when it is short: a chain of joins would keep every step of itself.
constexpr std::size_t LongestFolded = 64;

[[nodiscard]] bool IsNumberKind(TExprKind kind) noexcept {
    return kind >= ekBoolean && kind <= ekFloat;
}

}  // namespace

void TExprTree::SetProvider(IExpressionProvider* provider) {
    fProvider = provider;
    fTyped = dynamic_cast<ITypedExpressionProvider*>(provider);
}

std::string_view TExprTree::KeepText(std::string_view text) { return fTexts.emplace_back(text); }

TExprNodeId TExprTree::Add(const TExprNode& node, std::span<const TExprNodeId> links) {
    TExprNode& added = fNodes.emplace_back(node);
    added.FirstLink = static_cast<std::uint32_t>(fLinks.size());
    added.LinkCount = static_cast<std::uint32_t>(links.size());
    fLinks.insert(fLinks.end(), links.begin(), links.end());
    int cost = node.Kind == nkConstant ? 0 : 1;
    for (const TExprNodeId link : links) {
        added.Impure = added.Impure || fNodes[link].Impure;
        if (!IsConstant(link)) cost += fNodes[link].Cost;
    }
    added.Cost = static_cast<std::uint8_t>(std::min(cost, 255));
    added.Calm = IsCalm(added);
    const auto id = static_cast<TExprNodeId>(fNodes.size() - 1);
    if (node.Kind != nkConstant && node.Kind != nkColumn) Fold(id);
    return id;
}

bool TExprTree::IsCalm(const TExprNode& node) const noexcept {
    const auto links = Links(node);
    const auto calm = [&](TExprNodeId id) { return IsConstant(id) || fNodes[id].Calm; };
    if (!std::ranges::all_of(links, calm)) return false;
    const auto comparable = [&](TExprNodeId id) {
        const TExprKind left = TypeOf(links[0]);
        const TExprKind right = TypeOf(id);
        return (IsNumberKind(left) && IsNumberKind(right)) ||
               (left == right && (left == ekText || left == ekDate));
    };
    const auto isKind = [&](TExprKind kind) {
        return [this, kind](TExprNodeId id) { return TypeOf(id) == kind; };
    };
    switch (node.Kind) {
        case nkConstant: return true;
        case nkColumn:
            return fColumns[static_cast<std::size_t>(node.Index)].Known.Place.Kind != rwNone;
        case nkUnary:
            if (node.Op == opNot) return TypeOf(links[0]) == ekBoolean;
            return node.Op == opIsNull || (node.Op == opNegate && TypeOf(links[0]) == ekFloat);
        case nkBinary:
            if (!IsNumberKind(TypeOf(links[0])) || !IsNumberKind(TypeOf(links[1]))) return false;
            if (node.Op == opDivide || node.Op == opModulo) return true;
            return node.Op <= opMultiply && std::ranges::any_of(links, isKind(ekFloat));
        case nkCompare:
        case nkIn:
        case nkBetween: return std::ranges::all_of(links.subspan(1), comparable);
        case nkAnd:
        case nkOr: return std::ranges::all_of(links, isKind(ekBoolean));
        case nkLike:
            return std::ranges::all_of(links, isKind(ekText)) &&
                   std::ranges::all_of(links.subspan(1),
                                       [&](TExprNodeId id) { return IsConstant(id); });
        default: return false;
    }
}

void TExprTree::SetValue(TExprNode& node, const TExprSlot& value) {
    node.Constant = static_cast<std::int32_t>(fConstants.size());
    fConstants.push_back(value);
    if (value.Kind == ekText) fConstants.back() = TExprSlot::OfText(KeepText(value.View()));
}

void TExprTree::Fold(TExprNodeId id) {
    TExprNode& node = fNodes[id];
    if (node.Impure || (node.LinkCount == 0 && node.Kind != nkCall)) return;
    for (const TExprNodeId link : Links(node)) {
        if (fNodes[link].Constant < 0) return;
    }
    TExprArena arena;
    try {
        const TExprSlot value = ComputeConstant(*this, id, arena);
        if (value.Kind == ekOther || (value.Kind == ekText && value.Size > LongestFolded)) return;
        SetValue(node, value);
        node.Type = value.Kind;
    } catch (const EKdsParseError& error) {
        throw EKdsParseError(error.Message(), error.Key(), node.Place);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        // An overflow or a host's refusal is an error of the row, if one ever asks.
    }
}

TExprNodeId TExprTree::Constant(const TExprSlot& value, TExprPlace place, bool decimal) {
    TExprNode node;
    node.Type = value.Kind;
    node.Decimal = decimal;
    node.Place = place;
    SetValue(node, value);
    return Add(node, {});
}

TExprNodeId TExprTree::Replaced(TExprNodeId id, const TExprSlot& value, bool decimal) {
    return Constant(value, fNodes[id].Place, decimal);
}

bool TExprTree::NegateLiteral(TExprNodeId id) noexcept {
    TExprNode& node = fNodes[id];
    if (node.Kind != nkConstant) return false;
    TExprSlot& value = fConstants[static_cast<std::size_t>(node.Constant)];
    if (value.Kind == ekFloat) {
        value.Float = -value.Float;
        return true;
    }
    if (value.Kind != ekInteger && value.Kind != ekFixed) return false;
    // 2^63 is held as its own negative; no other literal comes near the limits.
    if (value.Integer != INT64_MIN) value.Integer = -value.Integer;
    return true;
}

TExprNodeId TExprTree::Column(std::u16string_view name, TExprPlace place) {
    std::int32_t index = -1;
    // The names of the last columns, because long conditions name few columns again and again.
    const auto recent = std::ranges::find(
        fRecentNames, name, [](const auto& known) { return std::u16string_view(known.first); });
    if (recent != fRecentNames.end()) {
        index = recent->second;
    } else {
        if (fProvider == nullptr || !fProvider->Contains(name, index)) {
            ParserError(u"CannotResolveEntry", {name}, place);
        }
        if (fRecentNames.size() < 8) fRecentNames.emplace_back(name, index);
    }
    const auto [known, added] =
        fColumnOfIndex.try_emplace(index, static_cast<std::int32_t>(fColumns.size()));
    if (added) {
        fColumns.push_back({index, fTyped != nullptr ? fTyped->Describe(index) : TExprColumn{}});
    }
    const TExprColumn& column = fColumns[static_cast<std::size_t>(known->second)].Known;
    TExprNode node;
    node.Kind = nkColumn;
    node.Type = column.Kind;
    node.Caseless = column.Caseless;
    node.Wide = column.Wide;
    node.Index = known->second;
    node.Place = place;
    return Add(node, {});
}

std::u16string TExprTree::TextOf(TExprNodeId id) const { return ToUtf16(Value(fNodes[id]).View()); }

// ---- operators ----

void TExprTree::ReadBesideNumber(TExprNodeId& text, TExprKind other) {
    if (TypeOf(text) != ekText || !IsConstant(text) || !IsNumberKind(other)) return;
    const TExprSlot number = ReadNumber(Value(fNodes[text]).View());
    if (number.IsNull()) ParserError(u"InvalidNumberFormat", {TextOf(text)}, fNodes[text].Place);
    text = Replaced(text, number, number.Kind == ekFixed);
}

TExprKind TExprTree::DateKind(TExprOp op, TExprKind left, TExprKind right, TExprPlace place) const {
    const auto open = [](TExprKind kind) { return kind == ekNull || kind == ekAny; };
    if (op == opAdd && (left != ekDate || right != ekDate)) {
        const TExprKind other = left == ekDate ? right : left;
        if (open(other) || IsNumberKind(other)) return ekDate;
    }
    if (op == opSubtract && left == ekDate) {
        if (right == ekDate) return ekFloat;
        if (open(right)) return right == ekNull ? ekDate : ekAny;
        if (IsNumberKind(right)) return ekDate;
    }
    if (op == opSubtract && open(left)) return ekFloat;  // only a date less a date is left
    ParserError(u"IllegalDateOperation", {}, place);
}

TExprKind TExprTree::ArithmeticKind(TExprOp op, TExprNodeId& left, TExprNodeId& right,
                                    TExprPlace place) {
    const TExprKind l = TypeOf(left);
    const TExprKind r = TypeOf(right);
    if (l == ekOther || r == ekOther) ParserError(u"InvalidFunctionArguments", {u"+"}, place);
    if (l == ekDate || r == ekDate) return DateKind(op, l, r, place);
    if (op == opAdd && l == ekText && r == ekText) return ekText;
    ReadBesideNumber(left, r);
    ReadBesideNumber(right, l);
    // What meets a float becomes one anyway.
    const auto widen = [&](TExprNodeId& id, TExprNodeId other) {
        if (TypeOf(id) != ekInteger || TypeOf(other) != ekFloat || !IsConstant(id)) return;
        id = Replaced(id, TExprSlot::OfFloat(ToFloat(Value(fNodes[id]))), false);
    };
    if (op <= opDivide) {
        widen(left, right);
        widen(right, left);
    }
    if (op == opDivide) return ekFloat;
    if (op == opIntDivide || op == opModulo) return ekInteger;
    const TExprKind x = TypeOf(left) == ekBoolean ? ekInteger : TypeOf(left);
    const TExprKind y = TypeOf(right) == ekBoolean ? ekInteger : TypeOf(right);
    if (x == ekNull || y == ekNull) return ekNull;
    // A text may turn out to be any kind of number, or a second text to be joined.
    if (x > ekFloat || y > ekFloat || op == opPower) return ekAny;
    return std::max(x, y);
}

TExprNodeId TExprTree::Unary(TExprOp op, TExprNodeId operand, TExprPlace place) {
    TExprNode node;
    node.Kind = nkUnary;
    node.Op = op;
    node.Place = place;
    const TExprKind kind = TypeOf(operand);
    if (op == opIsNull) {
        node.Type = ekBoolean;
    } else if (op == opNot) {
        CheckLogic(operand);
        node.Type = ekBoolean;
    } else if (op == opBitNot) {
        if (kind != ekInteger && kind != ekNull && kind != ekAny) {
            ParserError(u"IllegalBitwiseOperation", {}, place);
        }
        node.Type = ekInteger;
    } else {
        if (kind == ekDate) ParserError(u"IllegalDateOperation", {}, place);
        if (kind == ekOther) ParserError(u"InvalidFunctionArguments", {u"-"}, place);
        ReadBesideNumber(operand, ekInteger);
        node.Type = kind == ekBoolean ? ekInteger : kind == ekText ? ekAny : kind;
    }
    return Add(node, {{operand}});
}

TExprNodeId TExprTree::Binary(TExprOp op, TExprNodeId left, TExprNodeId right, TExprPlace place) {
    TExprNode node;
    node.Kind = nkBinary;
    node.Op = op;
    node.Place = place;
    if (IsComparison(op)) {
        CheckCompared(left, right, place);
        node.Kind = nkCompare;
        node.Type = ekBoolean;
    } else if (op == opXor) {
        CheckLogic(left);
        CheckLogic(right);
        node.Type = ekBoolean;
    } else if (op == opJoin) {
        if (TypeOf(left) == ekOther || TypeOf(right) == ekOther) {
            ParserError(u"InvalidFunctionArguments", {u"||"}, place);
        }
        node.Type = ekText;
    } else if (op >= opBitOr && op <= opShiftRight) {
        for (const TExprKind kind : {TypeOf(left), TypeOf(right)}) {
            if (kind == ekInteger || kind == ekNull || kind == ekAny) continue;
            ParserError(u"IllegalBitwiseOperation", {}, place);
        }
        node.Type = ekInteger;
    } else {
        node.Type = ArithmeticKind(op, left, right, place);
    }
    return Add(node, {{left, right}});
}

// ---- comparisons ----

void TExprTree::MatchConstant(TExprNodeId& id, TExprNodeId other) {
    if (!IsConstant(id)) return;
    const TExprKind beside = TypeOf(other);
    const TExprKind kind = TypeOf(id);
    if (kind == ekFixed && fNodes[id].Decimal && beside == ekFloat) {
        id = Replaced(id, TExprSlot::OfFloat(ToFloat(Value(fNodes[id]))), false);
        return;
    }
    if (kind == ekInteger && beside == ekFloat) {
        const TExprSlot number = TExprSlot::OfFloat(ToFloat(Value(fNodes[id])));
        if (CompareNumbers(number, Value(fNodes[id])) == 0) id = Replaced(id, number, false);
        return;
    }
    if (kind != ekText) return;
    if (beside == ekDate) {
        const TExprSlot date = ReadDate(Value(fNodes[id]).View());
        if (date.IsNull()) ParserError(u"InvalidDateFormat", {TextOf(id)}, fNodes[id].Place);
        id = Replaced(id, date, false);
    } else if (beside == ekBoolean) {
        id = Replaced(id, ReadBoolean(Value(fNodes[id]).View()), false);
    } else if (IsNumberKind(beside)) {
        ReadBesideNumber(id, beside);
        MatchConstant(id, other);  // a decimal beside a float
    }
}

void TExprTree::CheckCompared(TExprNodeId& left, TExprNodeId& right, TExprPlace place) {
    MatchConstant(left, right);
    MatchConstant(right, left);
    const TExprKind l = TypeOf(left);
    const TExprKind r = TypeOf(right);
    if (l == ekOther || r == ekOther) ParserError(u"InvalidFunctionArguments", {u"="}, place);
    if (l != ekDate && r != ekDate) return;
    const TExprKind other = l == ekDate ? r : l;
    if (other != ekDate && other != ekNull && other != ekAny) {
        ParserError(u"IllegalDateOperation", {}, place);
    }
}

TExprCompare TExprTree::CompareOf(TExprNodeId left, TExprNodeId right) const noexcept {
    const TExprNode& a = fNodes[left];
    const TExprNode& b = fNodes[right];
    return {{a.Caseless || b.Caseless, a.Wide || b.Wide}, a.Decimal, b.Decimal};
}

void TExprTree::CheckLogic(TExprNodeId id) const {
    const TExprKind kind = TypeOf(id);
    if (kind == ekNull || kind == ekAny || IsNumberKind(kind)) return;
    ParserError(u"IllegalLogicOperation", {}, fNodes[id].Place);
}

TExprNodeId TExprTree::Logic(TExprNodeKind kind, std::span<const TExprNodeId> operands,
                             TExprPlace place) {
    for (const TExprNodeId operand : operands) CheckLogic(operand);
    TExprNode node;
    node.Kind = kind;
    node.Type = ekBoolean;
    node.Place = place;
    return Add(node, operands);
}

TExprNodeId TExprTree::In(std::vector<TExprNodeId>& operands, TExprPlace place) {
    for (std::size_t i = 1; i < operands.size(); ++i) {
        CheckCompared(operands[0], operands[i], place);
    }
    TExprNode node;
    node.Kind = nkIn;
    node.Type = ekBoolean;
    node.Place = place;
    return Add(node, operands);
}

TExprNodeId TExprTree::Between(TExprNodeId operand, TExprNodeId low, TExprNodeId high,
                               TExprPlace place) {
    CheckCompared(operand, low, place);
    CheckCompared(operand, high, place);
    // A column may be named twice, any other operand is computed once.
    if (fNodes[operand].Kind == nkColumn) {
        const TExprNodeId both[] = {Binary(opGreaterEqual, operand, low, place),
                                    Binary(opLessEqual, operand, high, place)};
        return Logic(nkAnd, both, place);
    }
    TExprNode node;
    node.Kind = nkBetween;
    node.Type = ekBoolean;
    node.Place = place;
    return Add(node, {{operand, low, high}});
}

TExprNodeId TExprTree::Like(std::span<const TExprNodeId> operands, TExprPlace place) {
    for (const TExprNodeId operand : operands) {
        const TExprKind kind = TypeOf(operand);
        if (kind == ekText || kind == ekNull || kind == ekAny) continue;
        ParserError(u"InvalidFunctionArguments", {u"LIKE"}, fNodes[operand].Place);
    }
    // A wrong escape is wrong whatever the rows are.
    const auto value = [&](TExprNodeId id) { return Value(fNodes[id]).View(); };
    const bool hasEscape = operands.size() > 2;
    if (IsConstant(operands[1]) && TypeOf(operands[1]) == ekText &&
        (!hasEscape || (IsConstant(operands[2]) && TypeOf(operands[2]) == ekText))) {
        const std::string_view escape = hasEscape ? value(operands[2]) : std::string_view();
        TExprPattern().Compile(value(operands[1]), hasEscape ? &escape : nullptr, false, place);
    }
    TExprNode node;
    node.Kind = nkLike;
    node.Type = ekBoolean;
    node.Place = place;
    return Add(node, operands);
}

// ---- choices and calls ----

TExprKind TExprTree::CommonKind(std::span<const TExprNodeId> ids) const noexcept {
    TExprKind common = ekNull;
    for (const TExprNodeId id : ids) {
        const TExprKind kind = TypeOf(id);
        if (kind == ekNull) continue;
        if (common != ekNull && common != kind) return ekAny;
        common = kind;
    }
    return common;
}

TExprNodeId TExprTree::Case(std::vector<TExprNodeId>& operands, bool selector, bool orElse,
                            TExprPlace place) {
    const std::size_t first = selector ? 1 : 0;
    const std::size_t end = operands.size() - (orElse ? 1 : 0);
    std::vector<TExprNodeId> results;
    for (std::size_t i = first; i < end; i += 2) {
        if (selector) {
            CheckCompared(operands[0], operands[i], place);
        } else {
            CheckLogic(operands[i]);
        }
        results.push_back(operands[i + 1]);
    }
    if (orElse) results.push_back(operands.back());
    TExprNode node;
    node.Kind = nkCase;
    node.Type = CommonKind(results);
    node.Selector = selector;
    node.Else = orElse;
    node.Place = place;
    return Add(node, operands);
}

TExprKind TExprTree::CallKind(const TExprFunction& function, std::vector<TExprNodeId>& operands,
                              TExprPlace place) {
    for (std::size_t i = 0; i < operands.size(); ++i) {
        const TExprKind kind = TypeOf(operands[i]);
        if (kind == ekNull || kind == ekAny) continue;
        if ((AcceptsOf(kind) & function.AcceptedBy(i)) == 0) {
            ParserError(u"InvalidFunctionArguments", {function.Name}, fNodes[operands[i]].Place);
        }
    }
    const std::span<const TExprNodeId> all(operands);
    switch (function.Form) {
        case fmCall: return function.Result;
        case fmIsNull: return ekBoolean;
        case fmFirst: return CommonKind(all);
        case fmIif: CheckLogic(operands[0]); return CommonKind(all.subspan(1));
        case fmNullIf: CheckCompared(operands[0], operands[1], place); return TypeOf(operands[0]);
        case fmChoose: return CommonKind(all.subspan(1));
        case fmDecode: break;
    }
    std::vector<TExprNodeId> results;
    for (std::size_t i = 1; i < operands.size(); i += 2) {
        if (i + 1 < operands.size()) CheckCompared(operands[0], operands[i], place);
        results.push_back(operands[std::min(i + 1, operands.size() - 1)]);
    }
    return CommonKind(results);
}

TExprNodeId TExprTree::Call(std::u16string_view name, std::vector<TExprNodeId>& operands,
                            TExprPlace place) {
    std::shared_ptr<const TExprFunction> function = fFunctionsKnown.Find(name);
    if (!function) ParserError(u"CannotResolveEntry", {name}, place);
    // With two arguments it is NVL.
    if (function->Form == fmIsNull && operands.size() == 2) function = fFunctionsKnown.Find(u"NVL");
    const auto count = static_cast<std::int32_t>(operands.size());
    if (count < function->MinArguments || count > function->MaxArguments) {
        ParserError(u"InvalidFunctionArguments", {function->Name}, place);
    }
    TExprNode node;
    node.Kind = nkCall;
    node.Type = CallKind(*function, operands, place);
    node.Place = place;
    node.Impure = (function->Flags & (ffImpure | ffReadsClock)) != 0;
    fImpure = fImpure || node.Impure;
    fReadsClock = fReadsClock || (function->Flags & ffReadsClock) != 0;
    const auto known = std::ranges::find(fFunctions, function);
    node.Index = static_cast<std::int32_t>(known - fFunctions.begin());
    if (known == fFunctions.end()) fFunctions.push_back(std::move(function));
    return Add(node, operands);
}

}  // namespace kds
