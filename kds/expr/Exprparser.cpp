#include <limits>

#include "kds/expr/Expressions.h"
#include "kds/expr/Exprevaluator.h"
#include "kds/expr/Exprlexer.h"
#include "kds/expr/Exprtree.h"

namespace kds {
namespace {

constexpr int DeepestNesting = 256;

// How tightly operators bind, loosest first.
enum class TLevel : std::uint8_t {
    None,
    Or,
    And,
    Not,
    Compare,
    BitOr,
    BitAnd,
    Shift,
    Sum,
    Product,
    Unary,
    Power
};

struct TOperator {
    TLevel Level = TLevel::None;
    TExprOp Op = opAdd;
};

[[nodiscard]] TOperator OperatorOf(TExprToken token) noexcept {
    switch (token) {
        case tkOr: return {TLevel::Or};
        case tkXor: return {TLevel::Or, opXor};
        case tkAnd: return {TLevel::And};
        case tkEqual: return {TLevel::Compare, opEqual};
        case tkNotEqual: return {TLevel::Compare, opNotEqual};
        case tkLess: return {TLevel::Compare, opLess};
        case tkLessEqual: return {TLevel::Compare, opLessEqual};
        case tkGreater: return {TLevel::Compare, opGreater};
        case tkGreaterEqual: return {TLevel::Compare, opGreaterEqual};
        case tkIn:
        case tkLike:
        case tkBetween:
        case tkIs: return {TLevel::Compare};
        case tkBitOr: return {TLevel::BitOr, opBitOr};
        case tkBitAnd: return {TLevel::BitAnd, opBitAnd};
        case tkShiftLeft: return {TLevel::Shift, opShiftLeft};
        case tkShiftRight: return {TLevel::Shift, opShiftRight};
        case tkPlus: return {TLevel::Sum, opAdd};
        case tkMinus: return {TLevel::Sum, opSubtract};
        case tkJoin: return {TLevel::Sum, opJoin};
        case tkMultiply: return {TLevel::Product, opMultiply};
        case tkDivide: return {TLevel::Product, opDivide};
        case tkIntDivide: return {TLevel::Product, opIntDivide};
        case tkModulo: return {TLevel::Product, opModulo};
        case tkPower: return {TLevel::Power, opPower};
        default: return {};
    }
}

[[nodiscard]] constexpr TLevel Above(TLevel level) noexcept {
    return static_cast<TLevel>(static_cast<int>(level) + 1);
}

class TParser {
public:
    TParser(std::u16string_view text, TExprTree& tree) : fLexer(text), fTree(tree) {}

    TExprNodeId Parse() {
        fLexer.Next();
        if (fLexer.Token() == tkEnd) fLexer.RaiseInvalid(fLexer.Place());
        const TExprNodeId root = Expression(TLevel::Or);
        if (fLexer.Token() == tkClose) {
            ParserError(u"InvalidBracketUsage", {u")"}, fLexer.Place());
        }
        if (fLexer.Token() != tkEnd) fLexer.RaiseInvalid(fLexer.Place());
        return root;
    }

private:
    // One level of nesting, which is what recursion costs.
    class TNest {
    public:
        explicit TNest(TParser& parser) : fDepth(parser.fDepth) {
            if (++fDepth > DeepestNesting) parser.fLexer.RaiseInvalid(parser.fLexer.Place());
        }
        ~TNest() { --fDepth; }
        TNest(const TNest&) = delete;
        TNest& operator=(const TNest&) = delete;

    private:
        int& fDepth;
    };

    void TakeOperator() {
        fBefore = fLexer.Written();
        fBeforePlace = fLexer.Place();
        fLexer.Next();
    }

    TExprNodeId Expression(TLevel lowest) {
        TExprNodeId left =
            lowest <= TLevel::Not && fLexer.Token() == tkNot ? Negation() : Operand();
        bool compared = false;
        for (;;) {
            if (fLexer.Token() == tkNot && lowest <= TLevel::Compare && !compared) {
                left = NegatedCompare(left);
                compared = true;
                continue;
            }
            const TOperator next = OperatorOf(fLexer.Token());
            if (next.Level == TLevel::None || next.Level < lowest) return left;
            if (next.Level == TLevel::Compare) {
                if (compared) fLexer.RaiseInvalid(fLexer.Place());
                left = Comparison(left, next.Op);
                compared = true;
                continue;
            }
            // What is looser than a comparison may be followed by another one in its right operand.
            compared = compared && next.Level > TLevel::Compare;
            left = next.Level <= TLevel::And ? LogicOrXor(left, next) : Arithmetic(left, next);
        }
    }

    // Chains of one operator become one node.
    TExprNodeId LogicOrXor(TExprNodeId left, TOperator next) {
        const TExprToken token = fLexer.Token();
        const TExprPlace place = fLexer.Place();
        if (token == tkXor) {
            TakeOperator();
            return fTree.Binary(opXor, left, Expression(Above(TLevel::Or)), place);
        }
        const std::size_t base = fOperands.size();
        fOperands.push_back(left);
        while (fLexer.Token() == token) {
            TakeOperator();
            const TExprNodeId operand = Expression(Above(next.Level));
            fOperands.push_back(operand);
        }
        const std::span<const TExprNodeId> all(fOperands.data() + base, fOperands.size() - base);
        const TExprNodeId node = fTree.Logic(token == tkOr ? nkOr : nkAnd, all, place);
        fOperands.resize(base);
        return node;
    }
    TExprNodeId Arithmetic(TExprNodeId left, TOperator next) {
        const TExprPlace place = fLexer.Place();
        TakeOperator();
        const TExprNodeId right = Expression(Above(next.Level));
        return fTree.Binary(next.Op, left, right, place);
    }

    TExprNodeId Negation() {
        const TNest nest(*this);
        const TExprPlace place = fLexer.Place();
        TakeOperator();
        const TExprNodeId operand = Expression(TLevel::Not);
        return fTree.Unary(opNot, operand, place);
    }

    // ---- comparisons ----

    TExprNodeId NegatedCompare(TExprNodeId left) {
        const TExprPlace place = fLexer.Place();
        fLexer.Next();
        const TExprToken token = fLexer.Token();
        if (token != tkIn && token != tkLike && token != tkBetween) fLexer.RaiseInvalid(place);
        return fTree.Unary(opNot, Comparison(left, opEqual), place);
    }
    TExprNodeId Comparison(TExprNodeId left, TExprOp op) {
        const TExprPlace place = fLexer.Place();
        const TExprToken token = fLexer.Token();
        TakeOperator();
        switch (token) {
            case tkIn: return InList(left, place);
            case tkLike: return Like(left, place);
            case tkBetween: return Between(left, place);
            case tkIs: return IsNull(left);
            default: return fTree.Binary(op, left, Expression(Above(TLevel::Compare)), place);
        }
    }
    TExprNodeId InList(TExprNodeId left, TExprPlace place) {
        if (fLexer.Token() != tkOpen) {
            ParserError(u"MissingArgument", {u"IN"}, place);
        }
        const TNest nest(*this);
        TakeOperator();
        if (fLexer.Token() == tkClose) ParserError(u"InvalidBracketUsage", {u")"}, fLexer.Place());
        std::vector<TExprNodeId> operands{left};
        List(operands);
        return fTree.In(operands, place);
    }
    // Operands separated by commas up to the bracket.
    void List(std::vector<TExprNodeId>& operands) {
        for (;;) {
            operands.push_back(Expression(TLevel::Or));
            if (fLexer.Token() != tkComma) break;
            TakeOperator();
        }
        Close();
    }
    void Close() {
        if (fLexer.Token() == tkEnd) {
            ParserError(u"MissingCloseBracket", {u")"}, fLexer.Place());
        }
        if (fLexer.Token() != tkClose) fLexer.RaiseInvalid(fLexer.Place());
        fLexer.Next();
    }
    TExprNodeId Like(TExprNodeId left, TExprPlace place) {
        TExprNodeId operands[] = {left, Expression(Above(TLevel::Compare)), 0};
        if (fLexer.Token() != tkEscape) return fTree.Like({operands, 2}, place);
        TakeOperator();
        operands[2] = Expression(Above(TLevel::Compare));
        return fTree.Like(operands, place);
    }
    TExprNodeId Between(TExprNodeId left, TExprPlace place) {
        const TExprNodeId low = Expression(Above(TLevel::Compare));
        if (fLexer.Token() != tkAnd) {
            if (fLexer.Token() == tkEnd) ParserError(u"MissingArgument", {u"BETWEEN"}, place);
            fLexer.RaiseInvalid(fLexer.Place());
        }
        TakeOperator();
        return fTree.Between(left, low, Expression(Above(TLevel::Compare)), place);
    }
    TExprNodeId IsNull(TExprNodeId left) {
        const TExprPlace place = fBeforePlace;
        const bool negated = fLexer.Token() == tkNot;
        if (negated) TakeOperator();
        if (fLexer.Token() == tkEnd) RaiseMissing();
        if (fLexer.Token() != tkNull) fLexer.RaiseInvalid(fLexer.Place());
        fLexer.Next();
        const TExprNodeId node = fTree.Unary(opIsNull, left, place);
        return negated ? fTree.Unary(opNot, node, place) : node;
    }

    // ---- operands ----

    [[noreturn]] void RaiseMissing() {
        if (fBefore.empty()) fLexer.RaiseInvalid(fLexer.Place());
        ParserError(u"MissingArgument", {std::u16string_view(fBefore)}, fBeforePlace);
    }

    // With its signs and its power.
    TExprNodeId Operand() {
        const TExprToken token = fLexer.Token();
        if (token == tkPlus || token == tkMinus || token == tkBitNot) return Signed(token);
        const TExprNodeId base = Primary();
        if (fLexer.Token() != tkPower) return base;
        const TNest nest(*this);
        const TExprPlace place = fLexer.Place();
        TakeOperator();
        // From the right, and a sign may stand there: 2 ** -1.
        return fTree.Binary(opPower, base, Operand(), place);
    }
    TExprNodeId Signed(TExprToken token) {
        const TNest nest(*this);
        const TExprPlace place = fLexer.Place();
        TakeOperator();
        if (token == tkMinus && fLexer.Token() == tkLiteral) return NegatedLiteral(place);
        const TExprNodeId operand = Operand();
        return fTree.Unary(token == tkMinus  ? opNegate
                           : token == tkPlus ? opPlus
                                             : opBitNot,
                           operand, place);
    }
    // The sign belongs to a literal, unless a power stands between: -2 ** 2 is -4.
    TExprNodeId NegatedLiteral(TExprPlace place) {
        const bool beyond = fLexer.IsBeyond() && fLexer.Value().Kind == ekInteger;
        const TExprPlace literalPlace = fLexer.Place();
        const std::u16string written(fLexer.Written());
        const TExprNodeId literal = Literal();
        if (fLexer.Token() != tkPower) {
            if (fTree.NegateLiteral(literal)) return literal;
            return fTree.Unary(opNegate, literal, place);
        }
        if (beyond)
            ParserError(u"InvalidNumberFormat", {std::u16string_view(written)}, literalPlace);
        const TNest nest(*this);
        const TExprPlace power = fLexer.Place();
        TakeOperator();
        return fTree.Unary(opNegate, fTree.Binary(opPower, literal, Operand(), power), place);
    }
    TExprNodeId Literal() {
        const TExprNodeId node = fTree.Constant(fLexer.Value(), fLexer.Place(), fLexer.IsDecimal());
        fLexer.Next();
        return node;
    }

    TExprNodeId Primary() {
        const TExprToken token = fLexer.Token();
        const TExprPlace place = fLexer.Place();
        switch (token) {
            case tkLiteral:
                if (fLexer.IsBeyond())
                    ParserError(u"InvalidNumberFormat", {fLexer.Written()}, place);
                return Literal();
            case tkNull:
            case tkTrue:
            case tkFalse:
                fLexer.Next();
                return fTree.Constant(
                    token == tkNull ? TExprSlot{} : TExprSlot::OfBoolean(token == tkTrue), place);
            case tkName: return NameOrCall();
            case tkOpen: return Bracketed();
            case tkCase: return Case();
            case tkModulo:
                if (fLexer.Written() != u"%" && fLexer.OpensCall()) return NameOrCall();
                [[fallthrough]];
            default: RaiseNoOperand();
        }
    }
    [[noreturn]] void RaiseNoOperand() {
        const TExprToken token = fLexer.Token();
        if (token == tkEnd || token == tkComma || token == tkClose) {
            if (token == tkComma && fBefore.empty()) {
                ParserError(u"MissingArgument", {u","}, fLexer.Place());
            }
            if (token == tkClose && fBefore.empty()) {
                ParserError(u"InvalidBracketUsage", {u")"}, fLexer.Place());
            }
            RaiseMissing();
        }
        if (OperatorOf(token).Level != TLevel::None || token == tkNot) {
            ParserError(u"IllegalUnaryToken", {fLexer.Written()}, fLexer.Place());
        }
        fLexer.RaiseInvalid(fLexer.Place());
    }

    TExprNodeId Bracketed() {
        const TNest nest(*this);
        TakeOperator();
        if (fLexer.Token() == tkClose) ParserError(u"InvalidBracketUsage", {u")"}, fLexer.Place());
        if (fLexer.Token() == tkEnd) ParserError(u"MissingCloseBracket", {u")"}, fLexer.Place());
        const TExprNodeId node = Expression(TLevel::Or);
        Close();
        return node;
    }

    TExprNodeId NameOrCall() {
        const std::u16string name(fLexer.Name());
        const TExprPlace place = fLexer.Place();
        const bool bracketed = fLexer.Written().starts_with(u'[');
        fLexer.Next();
        if (fLexer.Token() != tkOpen || bracketed) return fTree.Column(name, place);
        const TNest nest(*this);
        fBefore = name;
        fBeforePlace = place;
        fLexer.Next();
        std::vector<TExprNodeId> operands;
        if (fLexer.Token() == tkClose) {
            fLexer.Next();
        } else {
            if (fLexer.Token() == tkEnd) {
                ParserError(u"MissingCloseBracket", {u")"}, fLexer.Place());
            }
            List(operands);
        }
        return fTree.Call(name, operands, place);
    }

    // CASE [selector] WHEN value THEN result .. [ELSE result] END
    TExprNodeId Case() {
        const TNest nest(*this);
        const TExprPlace place = fLexer.Place();
        TakeOperator();
        std::vector<TExprNodeId> operands;
        const bool selector = fLexer.Token() != tkWhen;
        if (selector) operands.push_back(Expression(TLevel::Or));
        if (fLexer.Token() != tkWhen) fLexer.RaiseInvalid(fLexer.Place());
        while (fLexer.Token() == tkWhen) {
            TakeOperator();
            operands.push_back(Expression(TLevel::Or));
            if (fLexer.Token() != tkThen) fLexer.RaiseInvalid(fLexer.Place());
            TakeOperator();
            operands.push_back(Expression(TLevel::Or));
        }
        const bool orElse = fLexer.Token() == tkElse;
        if (orElse) {
            TakeOperator();
            operands.push_back(Expression(TLevel::Or));
        }
        if (fLexer.Token() != tkEndWord) fLexer.RaiseInvalid(fLexer.Place());
        fLexer.Next();
        return fTree.Case(operands, selector, orElse, place);
    }

    TExprLexer fLexer;
    TExprTree& fTree;
    std::vector<TExprNodeId> fOperands;  // of the chains that are being read
    std::u16string fBefore;
    TExprPlace fBeforePlace;
    int fDepth = 0;
};

class TExpressionParser final : public IExpressionParser {
public:
    explicit TExpressionParser(TExprOptions options) : fOptions(options) {}
    [[nodiscard]] TIntf<IExpressionEvaluator> Parse(
        std::u16string_view text, const TIntf<IExpressionProvider>& provider) override {
        if (text.size() > std::size_t{std::numeric_limits<std::int32_t>::max()} / 16) {
            ParserError(u"InvalidExpression", {text.substr(0, 100)}, {0, 0});
        }
        TExprTree tree(fOptions.Functions != nullptr ? *fOptions.Functions : ExpressionFunctions());
        tree.SetProvider(provider.Get());
        const TExprNodeId root = TParser(text, tree).Parse();
        return MakeExpressionEvaluator(text, tree, root, provider, fOptions.Specialise);
    }

private:
    TExprOptions fOptions;
};

}  // namespace

TIntf<IExpressionParser> MakeExpressionParser(TExprOptions options) {
    return MakeIntf<TExpressionParser>(options);
}

}  // namespace kds
