// The typed tree of an expression. Nodes are made from the leaves up, and each is checked, typed
// and, where it is constant, computed when it is made: no pass ever walks the whole tree.
//
// Shape      Nodes are numbers into one array; a node's operands lie in one array of links. AND and
//            OR are flat nodes, so that a chain is no deeper than its operands.
// Errors     EKdsParseError for kinds that an operator or a function does not take, with the place
//            of the operator or of the operand at fault.
// Cost       O(operands) a node; computing a constant runs a program of one instruction or a few.
#pragma once

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kds/expr/Expressions.h"
#include "kds/expr/Exprfunctions.h"
#include "kds/expr/Exprops.h"

namespace kds {

enum class TExprNodeKind : std::uint8_t {
    nkConstant,
    nkColumn,
    nkUnary,
    nkBinary,
    nkCompare,
    nkAnd,
    nkOr,
    nkIn,       // operand, elements
    nkBetween,  // operand, low, high
    nkLike,     // text, pattern, [escape]
    nkCall,
    nkCase  // [selector,] when, then, .., [else]: see the flags
};
using enum TExprNodeKind;

struct TExprNode {
    TExprNodeKind Kind = nkConstant;
    TExprOp Op = opAdd;
    TExprKind Type = ekNull;
    bool Caseless : 1 = false;
    bool Wide : 1 = false;
    bool Decimal : 1 = false;    // a decimal literal
    bool Impure : 1 = false;     // computed again each time
    bool Calm : 1 = false;       // reads stored values and raises nothing, whatever they are
    bool Selector : 1 = false;   // nkCase begins with one
    bool Else : 1 = false;       // nkCase ends with one
    std::uint8_t Cost = 0;       // about the number of steps, up to 255
    std::int32_t Constant = -1;  // its value, when that is known
    std::uint32_t FirstLink = 0;
    std::uint32_t LinkCount = 0;
    std::int32_t Index = -1;  // of the column or of the function
    TExprPlace Place;
};

using TExprNodeId = std::uint32_t;

class TExprTree {
public:
    explicit TExprTree(const TExprFunctions& functions) : fFunctionsKnown(functions) {}
    void SetProvider(IExpressionProvider* provider);

    [[nodiscard]] TExprNodeId Constant(const TExprSlot& value, TExprPlace place,
                                       bool decimal = false);
    // CannotResolveEntry when the provider does not know the name.
    [[nodiscard]] TExprNodeId Column(std::u16string_view name, TExprPlace place);
    [[nodiscard]] TExprNodeId Unary(TExprOp op, TExprNodeId operand, TExprPlace place);
    [[nodiscard]] TExprNodeId Binary(TExprOp op, TExprNodeId left, TExprNodeId right,
                                     TExprPlace place);
    [[nodiscard]] TExprNodeId Logic(TExprNodeKind kind, std::span<const TExprNodeId> operands,
                                    TExprPlace place);
    [[nodiscard]] TExprNodeId In(std::vector<TExprNodeId>& operands, TExprPlace place);
    [[nodiscard]] TExprNodeId Between(TExprNodeId operand, TExprNodeId low, TExprNodeId high,
                                      TExprPlace place);
    [[nodiscard]] TExprNodeId Like(std::span<const TExprNodeId> operands, TExprPlace place);
    [[nodiscard]] TExprNodeId Case(std::vector<TExprNodeId>& operands, bool selector, bool orElse,
                                   TExprPlace place);
    [[nodiscard]] TExprNodeId Call(std::u16string_view name, std::vector<TExprNodeId>& operands,
                                   TExprPlace place);
    // The literal with its sign turned; false when the node is no number.
    [[nodiscard]] bool NegateLiteral(TExprNodeId node) noexcept;

    [[nodiscard]] const TExprNode& Node(TExprNodeId id) const noexcept { return fNodes[id]; }
    [[nodiscard]] std::span<const TExprNodeId> Links(const TExprNode& node) const noexcept {
        return {fLinks.data() + node.FirstLink, node.LinkCount};
    }
    [[nodiscard]] const TExprSlot& Value(const TExprNode& node) const noexcept {
        return fConstants[static_cast<std::size_t>(node.Constant)];
    }
    [[nodiscard]] bool IsConstant(TExprNodeId id) const noexcept {
        return fNodes[id].Constant >= 0;
    }

    struct TColumn {
        std::int32_t Index = -1;  // the provider's
        TExprColumn Known;
    };
    // Each name once, in the order of first use.
    [[nodiscard]] const std::vector<TColumn>& Columns() const noexcept { return fColumns; }
    [[nodiscard]] const std::vector<std::shared_ptr<const TExprFunction>>& Functions()
        const noexcept {
        return fFunctions;
    }
    [[nodiscard]] bool IsPure() const noexcept { return !fImpure; }
    [[nodiscard]] bool ReadsClock() const noexcept { return fReadsClock; }
    // Keeps a text that constants of the program borrow; the program takes them all over.
    [[nodiscard]] std::string_view KeepText(std::string_view text);
    [[nodiscard]] std::deque<std::string> TakeTexts() { return std::move(fTexts); }
    // How two operands are compared.
    [[nodiscard]] TExprCompare CompareOf(TExprNodeId left, TExprNodeId right) const noexcept;

private:
    [[nodiscard]] TExprNodeId Add(const TExprNode& node, std::span<const TExprNodeId> links);
    [[nodiscard]] bool IsCalm(const TExprNode& node) const noexcept;
    void SetValue(TExprNode& node, const TExprSlot& value);
    // Computes a node whose operands are all known, and gives it its value.
    void Fold(TExprNodeId id);
    [[nodiscard]] TExprNodeId Replaced(TExprNodeId id, const TExprSlot& value, bool decimal);
    [[nodiscard]] std::u16string TextOf(TExprNodeId id) const;
    [[nodiscard]] TExprKind TypeOf(TExprNodeId id) const noexcept { return fNodes[id].Type; }

    // A text constant beside a number becomes that number; InvalidNumberFormat when it is none.
    void ReadBesideNumber(TExprNodeId& text, TExprKind other);
    // The same for comparisons, where dates and booleans have their own forms.
    void MatchConstant(TExprNodeId& id, TExprNodeId other);
    void CheckCompared(TExprNodeId& left, TExprNodeId& right, TExprPlace place);
    void CheckLogic(TExprNodeId id) const;
    [[nodiscard]] TExprKind ArithmeticKind(TExprOp op, TExprNodeId& left, TExprNodeId& right,
                                           TExprPlace place);
    [[nodiscard]] TExprKind DateKind(TExprOp op, TExprKind left, TExprKind right,
                                     TExprPlace place) const;
    [[nodiscard]] TExprKind CommonKind(std::span<const TExprNodeId> ids) const noexcept;
    [[nodiscard]] TExprKind CallKind(const TExprFunction& function,
                                     std::vector<TExprNodeId>& operands, TExprPlace place);

    const TExprFunctions& fFunctionsKnown;
    IExpressionProvider* fProvider = nullptr;
    ITypedExpressionProvider* fTyped = nullptr;
    std::vector<TExprNode> fNodes;
    std::vector<TExprNodeId> fLinks;
    std::vector<TExprSlot> fConstants;
    std::deque<std::string> fTexts;
    std::vector<TColumn> fColumns;
    std::vector<std::pair<std::u16string, std::int32_t>> fRecentNames;
    std::unordered_map<std::int32_t, std::int32_t> fColumnOfIndex;
    std::vector<std::shared_ptr<const TExprFunction>> fFunctions;
    bool fImpure = false;
    bool fReadsClock = false;
};

}  // namespace kds
