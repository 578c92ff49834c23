#include "kds/expr/Exprcompiler.h"

#include <algorithm>
#include <unordered_map>

#include "kds/expr/Exprevaluator.h"

namespace kds {
namespace {

// Operands that are constants while the number of temporary values is not known yet.
constexpr std::uint32_t ConstantTag = 0x8000'0000;
// Fewer terms of an OR than this are compared one by one.
constexpr std::size_t SmallestSet = 3;

class TCompiler {
public:
    TCompiler(TExprTree& tree, bool specialise, bool folding)
        : fTree(tree), fSpecialise(specialise), fFolding(folding) {}

    TExprProgram Compile(TExprNodeId root) {
        if (!fFolding) fProgram.Columns = fTree.Columns();
        fFirstTemp = fTop = static_cast<std::uint32_t>(fProgram.Columns.size());
        fRoot = root;
        fProgram.Result = Emit(root);
        fProgram.TempCount = fMost - std::min(fMost, fFirstTemp);
        for (TExprInstruction& step : fProgram.Code) {
            Settle(step.A);
            Settle(step.B);
            if (step.Code == cdLikeText) Settle(step.Extra);
        }
        for (std::uint32_t& argument : fProgram.Arguments) Settle(argument);
        Settle(fProgram.Result);
        return std::move(fProgram);
    }

private:
    // An operand of an OR: a node, or a set of constants for one column.
    struct TTerm {
        TExprNodeId Node = 0;
        std::int32_t Set = -1;
        int Cost = -1;  // of one that may change places
    };

    void Settle(std::uint32_t& operand) const noexcept {
        if (operand == NoSlot || (operand & ConstantTag) == 0) return;
        operand = fProgram.FirstConstant() + (operand & ~ConstantTag);
    }
    [[nodiscard]] const TExprNode& Node(TExprNodeId id) const noexcept { return fTree.Node(id); }
    [[nodiscard]] TExprNodeId Link(const TExprNode& node, std::size_t i) const noexcept {
        return fTree.Links(node)[i];
    }

    std::uint32_t AddConstant(const TExprSlot& value) {
        fProgram.Constants.push_back(value);
        return ConstantTag | static_cast<std::uint32_t>(fProgram.Constants.size() - 1);
    }
    // Reserves the temporary value at `top` and frees those above it.
    std::uint32_t Reserve(std::uint32_t top) noexcept {
        fTop = top + 1;
        fMost = std::max(fMost, fTop);
        return top;
    }
    std::uint32_t Step(TExprInstruction step) {
        fProgram.Code.push_back(step);
        return static_cast<std::uint32_t>(fProgram.Code.size() - 1);
    }
    [[nodiscard]] std::uint32_t Here() const noexcept {
        return static_cast<std::uint32_t>(fProgram.Code.size());
    }
    void PatchTo(std::uint32_t from, std::uint32_t to) { fProgram.Code[from].Extra = to; }
    void PatchAll(const std::vector<std::uint32_t>& jumps) {
        for (const std::uint32_t jump : jumps) PatchTo(jump, Here());
    }
    std::uint32_t Jump(TExprCode code, std::uint32_t a = 0, std::uint32_t b = 0) {
        return Step({.Code = code, .A = a, .B = b});
    }
    [[nodiscard]] static std::uint8_t FlagsOf(TExprCompare how) noexcept {
        return static_cast<std::uint8_t>(
            (how.Collation.Caseless ? xfCaseless : 0) | (how.Collation.Wide ? xfWide : 0) |
            (how.LeftDecimal ? xfLeftDecimal : 0) | (how.RightDecimal ? xfRightDecimal : 0));
    }

    // ---- any node ----

    // Answers the slot of the value: `top` of the moment of the call, a column or a constant.
    std::uint32_t Emit(TExprNodeId id) {
        const std::uint32_t top = fTop;
        const std::size_t base = fSpine.size();
        while (Descends(id)) {
            fSpine.push_back(id);
            id = Link(Node(id), 0);
        }
        std::uint32_t value = EmitLeaf(id);
        while (fSpine.size() > base) {
            const TExprNodeId next = fSpine.back();
            fSpine.pop_back();
            value = Complete(Node(next), value, top);
        }
        fTop = value == top ? top + 1 : top;
        return value;
    }
    // Emits into the slot `top`, whatever the value is.
    void EmitTo(TExprNodeId id, std::uint32_t target) {
        const std::uint32_t top = fTop;
        const std::uint32_t value = Emit(id);
        if (value != target) Step({.Code = cdMove, .Dst = target, .A = value});
        fTop = top;
    }

    [[nodiscard]] bool IsKnown(TExprNodeId id) const noexcept {
        const TExprNode& node = Node(id);
        if (node.Constant < 0) return false;
        return node.Kind == nkConstant || ((fSpecialise || fFolding) && !(fFolding && id == fRoot));
    }
    [[nodiscard]] bool Descends(TExprNodeId id) const {
        if (IsKnown(id)) return false;
        const TExprNode& node = Node(id);
        if (node.Kind == nkCompare) return !IsRaw(node);
        if (node.Kind == nkOr && fSpecialise && IsSetTerm(Link(node, 0))) return false;
        if (node.Kind == nkAnd || node.Kind == nkOr) return IsFirstOf(node);
        return node.Kind == nkBinary;
    }

    std::uint32_t EmitLeaf(TExprNodeId id) {
        const TExprNode& node = Node(id);
        if (IsKnown(id)) return AddConstant(fTree.Value(node));
        switch (node.Kind) {
            case nkColumn:
                Step({.Code = cdLoad, .A = static_cast<std::uint32_t>(node.Index)});
                return static_cast<std::uint32_t>(node.Index);
            case nkUnary: {
                const std::uint32_t top = fTop;
                const std::uint32_t operand = Emit(Link(node, 0));
                const std::uint32_t target = Reserve(top);
                Step({.Code = cdUnary, .Op = node.Op, .Dst = target, .A = operand});
                return target;
            }
            case nkCompare: return EmitRaw(node);
            case nkAnd:
            case nkOr: return EmitChain(node, NoSlot, fTop);
            case nkIn: return EmitIn(node);
            case nkBetween: return EmitBetween(node);
            case nkLike: return EmitLike(node);
            case nkCase: return EmitCase(node);
            default: return EmitCall(node);
        }
    }
    // The rest of a node whose first operand is in `value`.
    std::uint32_t Complete(const TExprNode& node, std::uint32_t value, std::uint32_t top) {
        if (node.Kind == nkAnd || node.Kind == nkOr) return EmitChain(node, value, top);
        fTop = value == top ? top + 1 : top;
        const TExprNodeId right = Link(node, 1);
        const std::uint32_t other = Emit(right);
        const std::uint32_t target = Reserve(top);
        TExprInstruction step{
            .Code = cdBinary, .Op = node.Op, .Dst = target, .A = value, .B = other};
        if (node.Kind == nkCompare) {
            step.Code = cdCompare;
            step.Flags = FlagsOf(fTree.CompareOf(Link(node, 0), right));
        }
        Step(step);
        return target;
    }

    // A comparison with the constant, if there is one, on the right.
    struct TSides {
        TExprNodeId Column, Value;
        TExprOp Op;
    };
    [[nodiscard]] TSides SidesOf(const TExprNode& node) const noexcept {
        const TExprNodeId left = Link(node, 0);
        const TExprNodeId right = Link(node, 1);
        if (IsKnown(left)) return {right, left, Mirrored(node.Op)};
        return {left, right, node.Op};
    }
    [[nodiscard]] const TExprSlot& ValueOf(const TSides& sides) const noexcept {
        return fTree.Value(Node(sides.Value));
    }

    // ---- AND, OR ----

    // A column compared with a constant for equality, such that a set can hold the constant.
    [[nodiscard]] bool IsSetTerm(TExprNodeId id) const noexcept {
        const TExprNode& node = Node(id);
        if (node.Kind != nkCompare || node.Op != opEqual) return false;
        const TSides sides = SidesOf(node);
        return Node(sides.Column).Kind == nkColumn && IsKnown(sides.Value) &&
               !ValueOf(sides).IsNull() && TExprSet::Takes(Node(sides.Column).Type, ValueOf(sides));
    }

    // Neighbours that raise nothing may be asked in any order: what is decided cheaply comes first.
    // What is moved is emitted by recursion, which the depth of brackets bounds: a chain of OR and
    // XOR in turn nests as deep as it is long, and no XOR counts as calm.
    [[nodiscard]] bool IsMovable(TExprNodeId id) const noexcept {
        return fSpecialise && Node(id).Calm && !IsKnown(id);
    }
    [[nodiscard]] int CostOf(TExprNodeId id) const {
        return Node(id).Kind == nkCompare && IsRaw(Node(id)) ? 0 : Node(id).Cost;
    }
    // Whether the first operand is asked first, so that its value can be at hand before the chain.
    [[nodiscard]] bool IsFirstOf(const TExprNode& chain) const {
        const auto links = fTree.Links(chain);
        if (!IsMovable(links[0])) return true;
        const int cost = CostOf(links[0]);
        for (const TExprNodeId link : links.subspan(1)) {
            if (!IsMovable(link)) break;
            if (CostOf(link) < cost) return false;
        }
        return true;
    }
    void PutCheapFirst(std::vector<TTerm>& terms) const {
        for (TTerm& term : terms) {
            if (term.Set < 0 && IsMovable(term.Node)) term.Cost = CostOf(term.Node);
        }
        for (auto run = terms.begin(); run != terms.end();) {
            const auto end = std::ranges::find(run, terms.end(), -1, &TTerm::Cost);
            std::ranges::stable_sort(run, end, {}, &TTerm::Cost);
            run = end == terms.end() ? end : end + 1;
        }
    }

    [[nodiscard]] std::vector<TTerm> TermsOf(const TExprNode& node, std::size_t from) {
        const auto links = fTree.Links(node).subspan(from);
        std::vector<TTerm> terms;
        if (node.Kind != nkOr || !fSpecialise || links.size() < SmallestSet) {
            for (const TExprNodeId link : links) terms.push_back({link});
            return terms;
        }
        std::unordered_map<std::int32_t, std::vector<TExprNodeId>> byColumn;
        for (const TExprNodeId link : links) {
            if (IsSetTerm(link)) byColumn[ColumnOf(link)].push_back(link);
        }
        for (const TExprNodeId link : links) {
            const auto group = IsSetTerm(link) ? byColumn.find(ColumnOf(link)) : byColumn.end();
            if (group == byColumn.end() || group->second.size() < SmallestSet) {
                terms.push_back({link});
            } else if (group->second.front() == link) {
                terms.push_back({link, MakeSet(group->second)});
            }
        }
        return terms;
    }
    [[nodiscard]] TExprNodeId ColumnNode(TExprNodeId term) const noexcept {
        return SidesOf(Node(term)).Column;
    }
    [[nodiscard]] std::int32_t ColumnOf(TExprNodeId term) const noexcept {
        return Node(ColumnNode(term)).Index;
    }
    std::int32_t MakeSet(const std::vector<TExprNodeId>& terms) {
        const TExprNode& column = Node(ColumnNode(terms.front()));
        TExprSet set(column.Type, {column.Caseless, column.Wide});
        for (const TExprNodeId term : terms) set.Add(ValueOf(SidesOf(Node(term))));
        set.Build();
        fProgram.Sets.push_back(std::move(set));
        return static_cast<std::int32_t>(fProgram.Sets.size() - 1);
    }

    std::uint32_t EmitTerm(const TTerm& term) {
        if (term.Set < 0) return Emit(term.Node);
        const std::uint32_t top = fTop;
        const std::uint32_t column = Emit(ColumnNode(term.Node));
        const std::uint32_t target = Reserve(top);
        Step({.Code = cdSet,
              .Dst = target,
              .A = column,
              .Extra = static_cast<std::uint32_t>(term.Set)});
        return target;
    }

    // `value` is the first term's, or NoSlot when that is still to be emitted.
    std::uint32_t EmitChain(const TExprNode& node, std::uint32_t value, std::uint32_t top) {
        std::vector<TTerm> terms = TermsOf(node, value == NoSlot ? 0 : 1);
        PutCheapFirst(terms);
        const auto flags = static_cast<std::uint8_t>(node.Kind == nkOr ? xfOr : 0);
        std::size_t next = 0;
        fTop = top;
        if (value == NoSlot) {
            value = EmitTerm(terms[next++]);
            if (terms.size() == 1) return value;  // one set holds the whole chain
        }
        const std::uint32_t target = Reserve(top);
        std::vector<std::uint32_t> jumps{
            Step({.Code = cdFirst, .Flags = flags, .Dst = target, .A = value})};
        for (; next < terms.size(); ++next) {
            const std::uint32_t other = EmitTerm(terms[next]);
            jumps.push_back(Step({.Code = cdNext, .Flags = flags, .Dst = target, .B = other}));
            fTop = top + 1;
        }
        PatchAll(jumps);
        return target;
    }

    // ---- comparisons ----

    // A stored column beside a constant, either way round.
    [[nodiscard]] bool IsRaw(const TExprNode& node) const {
        if (!fSpecialise) return false;
        const TSides sides = SidesOf(node);
        if (Node(sides.Column).Kind != nkColumn || !IsKnown(sides.Value)) return false;
        return Prepared(sides).has_value();
    }
    [[nodiscard]] std::optional<TExprRawCompare> Prepared(const TSides& sides) const {
        const auto column = static_cast<std::size_t>(Node(sides.Column).Index);
        const auto& known = fTree.Columns()[column].Known;
        if (known.Place.Kind == rwNone) return std::nullopt;
        return TExprRawCompare::Prepare(known, sides.Op, ValueOf(sides),
                                        fTree.CompareOf(sides.Column, sides.Value));
    }
    // Where the buffer is not at hand the general comparison that follows is taken instead.
    std::uint32_t EmitRaw(const TExprNode& node) {
        const std::uint32_t target = Reserve(fTop);
        const TSides sides = SidesOf(node);
        const auto column = static_cast<std::uint32_t>(Node(sides.Column).Index);
        fProgram.RawCompares.push_back(*Prepared(sides));
        fProgram.UsesBuffer = true;
        const auto place = static_cast<std::uint32_t>(fProgram.RawCompares.size() - 1);
        const std::uint32_t raw = Step({.Code = cdRaw, .Dst = target, .A = place});
        Step({.Code = cdLoad, .A = column});
        const std::uint32_t constant = AddConstant(ValueOf(sides));
        Step({.Code = cdCompare,
              .Op = sides.Op,
              .Flags = FlagsOf(fTree.CompareOf(sides.Column, sides.Value)),
              .Dst = target,
              .A = column,
              .B = constant});
        PatchTo(raw, Here());
        return target;
    }

    std::uint32_t EmitIn(const TExprNode& node) {
        const auto links = fTree.Links(node);
        const std::uint32_t target = Reserve(fTop);
        const TExprNode& left = Node(links[0]);
        const bool set =
            fSpecialise && links.size() > SmallestSet &&
            std::ranges::all_of(links.subspan(1), [&](TExprNodeId id) {
                return IsKnown(id) && TExprSet::Takes(left.Type, fTree.Value(Node(id)));
            });
        const std::uint32_t operand = Emit(links[0]);
        if (set) {
            TExprSet values(left.Type, {left.Caseless, left.Wide});
            for (const TExprNodeId id : links.subspan(1)) values.Add(fTree.Value(Node(id)));
            values.Build();
            fProgram.Sets.push_back(std::move(values));
            const auto index = static_cast<std::uint32_t>(fProgram.Sets.size() - 1);
            Step({.Code = cdSet, .Dst = target, .A = operand, .Extra = index});
            return target;
        }
        Step({.Code = cdMove, .Dst = target, .A = AddConstant(TExprSlot::OfBoolean(false))});
        std::vector<std::uint32_t> jumps;
        const std::uint32_t top = fTop;
        for (const TExprNodeId id : links.subspan(1)) {
            const std::uint32_t element = Emit(id);
            jumps.push_back(Step({.Code = cdInStep,
                                  .Flags = FlagsOf(fTree.CompareOf(links[0], id)),
                                  .Dst = target,
                                  .A = operand,
                                  .B = element}));
            fTop = top;
        }
        PatchAll(jumps);
        return target;
    }

    std::uint32_t EmitBetween(const TExprNode& node) {
        const auto links = fTree.Links(node);
        const std::uint32_t target = Reserve(fTop);
        const std::uint32_t operand = Emit(links[0]);
        const std::uint32_t top = fTop;
        std::vector<std::uint32_t> jumps;
        for (const std::size_t side : {std::size_t{1}, std::size_t{2}}) {
            const std::uint32_t bound = Emit(links[side]);
            const std::uint32_t holds = Reserve(std::max(fTop, top));
            Step({.Code = cdCompare,
                  .Op = side == 1 ? opGreaterEqual : opLessEqual,
                  .Flags = FlagsOf(fTree.CompareOf(links[0], links[side])),
                  .Dst = holds,
                  .A = operand,
                  .B = bound});
            jumps.push_back(side == 1 ? Step({.Code = cdFirst, .Dst = target, .A = holds})
                                      : Step({.Code = cdNext, .Dst = target, .B = holds}));
            fTop = top;
        }
        PatchAll(jumps);
        return target;
    }

    std::uint32_t EmitLike(const TExprNode& node) {
        const auto links = fTree.Links(node);
        const std::uint32_t target = Reserve(fTop);
        const std::uint32_t text = Emit(links[0]);
        const bool caseless = Node(links[0]).Caseless;
        bool known = true;
        for (const TExprNodeId id : links.subspan(1)) {
            known = known && IsKnown(id) && fTree.Value(Node(id)).Kind == ekText;
        }
        if (known && fSpecialise) {
            const std::string_view escape =
                links.size() > 2 ? fTree.Value(Node(links[2])).View() : std::string_view();
            TExprPattern pattern;
            pattern.Compile(fTree.Value(Node(links[1])).View(),
                            links.size() > 2 ? &escape : nullptr, caseless, node.Place);
            fProgram.Patterns.push_back(std::move(pattern));
            const auto index = static_cast<std::uint32_t>(fProgram.Patterns.size() - 1);
            Step({.Code = cdLike, .Dst = target, .A = text, .Extra = index});
            return target;
        }
        const std::uint32_t pattern = Emit(links[1]);
        const std::uint32_t escape = links.size() > 2 ? Emit(links[2]) : NoSlot;
        Step({.Code = cdLikeText,
              .Flags = static_cast<std::uint8_t>(caseless ? xfCaseless : 0),
              .Dst = target,
              .A = text,
              .B = pattern,
              .Extra = escape});
        return target;
    }

    // ---- choices and calls ----

    std::uint32_t EmitCase(const TExprNode& node) {
        const auto links = fTree.Links(node);
        const std::uint32_t target = Reserve(fTop);
        const std::uint32_t selector = node.Selector ? Emit(links[0]) : NoSlot;
        const std::uint32_t top = fTop;
        const std::size_t end = links.size() - (node.Else ? 1 : 0);
        std::vector<std::uint32_t> ends;
        for (std::size_t i = node.Selector ? 1 : 0; i < end; i += 2) {
            std::uint32_t condition = Emit(links[i]);
            if (node.Selector) {
                const std::uint32_t holds = Reserve(std::max(fTop, top));
                Step({.Code = cdCompare,
                      .Op = opEqual,
                      .Flags = FlagsOf(fTree.CompareOf(links[0], links[i])),
                      .Dst = holds,
                      .A = selector,
                      .B = condition});
                condition = holds;
            }
            const std::uint32_t unless = Jump(cdJumpUnless, condition);
            fTop = top;
            EmitTo(links[i + 1], target);
            ends.push_back(Jump(cdJump));
            PatchTo(unless, Here());
        }
        EmitElse(node.Else ? &links.back() : nullptr, target);
        PatchAll(ends);
        return target;
    }
    void EmitElse(const TExprNodeId* id, std::uint32_t target) {
        if (id != nullptr) return EmitTo(*id, target);
        Step({.Code = cdMove, .Dst = target, .A = AddConstant({})});
    }

    std::uint32_t EmitCall(const TExprNode& node) {
        const auto& function = fTree.Functions()[static_cast<std::size_t>(node.Index)];
        const auto links = fTree.Links(node);
        const std::uint32_t target = Reserve(fTop);
        switch (function->Form) {
            case fmCall: EmitArguments(function, links, target); break;
            case fmIif: EmitIif(links, target); break;
            case fmFirst: EmitFirst(links, target); break;
            case fmIsNull:
                Step({.Code = cdUnary, .Op = opIsNull, .Dst = target, .A = Emit(links[0])});
                break;
            case fmNullIf: EmitNullIf(links, target); break;
            case fmDecode: EmitDecode(links, target); break;
            case fmChoose: EmitChoose(links, target); break;
        }
        return target;
    }

    void EmitArguments(const std::shared_ptr<const TExprFunction>& function,
                       std::span<const TExprNodeId> links, std::uint32_t target) {
        // Nested calls add theirs in between, so these are gathered first.
        std::vector<std::uint32_t> arguments;
        arguments.reserve(links.size());
        for (const TExprNodeId id : links) arguments.push_back(Emit(id));
        const auto first = static_cast<std::uint32_t>(fProgram.Arguments.size());
        fProgram.Arguments.insert(fProgram.Arguments.end(), arguments.begin(), arguments.end());
        fProgram.Calls.push_back({function, first, static_cast<std::uint32_t>(links.size())});
        Step({.Code = cdCall,
              .Dst = target,
              .Extra = static_cast<std::uint32_t>(fProgram.Calls.size() - 1)});
    }
    void EmitIif(std::span<const TExprNodeId> links, std::uint32_t target) {
        const std::uint32_t top = fTop;
        const std::uint32_t unless = Jump(cdJumpUnless, Emit(links[0]));
        fTop = top;
        EmitTo(links[1], target);
        const std::uint32_t end = Jump(cdJump);
        PatchTo(unless, Here());
        EmitElse(links.size() > 2 ? &links[2] : nullptr, target);
        PatchTo(end, Here());
    }
    void EmitFirst(std::span<const TExprNodeId> links, std::uint32_t target) {
        std::vector<std::uint32_t> ends;
        for (const TExprNodeId id : links) {
            EmitTo(id, target);
            if (id != links.back()) ends.push_back(Jump(cdJumpUnlessNull, target));
        }
        PatchAll(ends);
    }
    void EmitNullIf(std::span<const TExprNodeId> links, std::uint32_t target) {
        EmitTo(links[0], target);
        const std::uint32_t other = Emit(links[1]);
        const std::uint32_t same = Reserve(fTop);
        Step({.Code = cdCompare,
              .Op = opEqual,
              .Flags = FlagsOf(fTree.CompareOf(links[0], links[1])),
              .Dst = same,
              .A = target,
              .B = other});
        const std::uint32_t unless = Jump(cdJumpUnless, same);
        Step({.Code = cdMove, .Dst = target, .A = AddConstant({})});
        PatchTo(unless, Here());
    }
    void EmitDecode(std::span<const TExprNodeId> links, std::uint32_t target) {
        const std::uint32_t selector = Emit(links[0]);
        const std::uint32_t top = fTop;
        std::vector<std::uint32_t> ends;
        std::size_t i = 1;
        for (; i + 1 < links.size(); i += 2) {
            const std::uint32_t value = Emit(links[i]);
            const std::uint32_t same = Reserve(std::max(fTop, top));
            Step({.Code = cdMatch,
                  .Flags = FlagsOf(fTree.CompareOf(links[0], links[i])),
                  .Dst = same,
                  .A = selector,
                  .B = value});
            const std::uint32_t unless = Jump(cdJumpUnless, same);
            fTop = top;
            EmitTo(links[i + 1], target);
            ends.push_back(Jump(cdJump));
            PatchTo(unless, Here());
        }
        EmitElse(i < links.size() ? &links[i] : nullptr, target);
        PatchAll(ends);
    }
    void EmitChoose(std::span<const TExprNodeId> links, std::uint32_t target) {
        const std::uint32_t index = Emit(links[0]);
        std::vector<std::uint32_t> ends;
        for (std::size_t i = 1; i < links.size(); ++i) {
            const std::uint32_t unless =
                Jump(cdJumpUnlessIndex, index, static_cast<std::uint32_t>(i));
            EmitTo(links[i], target);
            ends.push_back(Jump(cdJump));
            PatchTo(unless, Here());
        }
        EmitElse(nullptr, target);
        PatchAll(ends);
    }

    TExprTree& fTree;
    bool fSpecialise;
    bool fFolding;
    TExprProgram fProgram;
    TExprNodeId fRoot = 0;
    std::uint32_t fFirstTemp = 0;
    std::uint32_t fTop = 0;   // the next free temporary value
    std::uint32_t fMost = 0;  // how many were in use at once
    std::vector<TExprNodeId> fSpine;
};

}  // namespace

TExprProgram CompileProgram(TExprTree& tree, TExprNodeId root, bool specialise) {
    TExprProgram program = TCompiler(tree, specialise, false).Compile(root);
    for (const TExprTree::TColumn& column : program.Columns) {
        program.UsesBuffer =
            program.UsesBuffer || (specialise && column.Known.Place.Kind != rwNone);
    }
    program.Texts = tree.TakeTexts();
    return program;
}

TExprSlot ComputeConstant(TExprTree& tree, TExprNodeId id, TExprArena& arena) {
    const TExprProgram program = TCompiler(tree, false, true).Compile(id);
    TExprFrame frame;
    frame.Prepare(program);
    const TExprSlot value = RunExpression(program, frame, nullptr, nullptr, false);
    return value.Kind == ekText ? TExprSlot::OfText(arena.Keep(value.View())) : value;
}

}  // namespace kds
