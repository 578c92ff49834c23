#include "kds/expr/Exprevaluator.h"

#include <cmath>
#include <type_traits>

#include "kds/expr/Exprcompiler.h"
#include "kds/fixed/Powers.h"
#include "kds/platform/Clock.h"

namespace kds {
namespace {

// Deeper than any sensible chain of records, far from the end of the stack.
constexpr int DeepestNesting = 32;
thread_local int nesting = 0;

struct TScopeClock {
    int Depth = 0;
    bool Has = false;
    TDateTime Time;
};
thread_local TScopeClock scopeClock;

class TRunner {
public:
    TRunner(const TExprProgram& program, TExprFrame& frame, IExpressionProvider* provider,
            ITypedExpressionProvider* typed, bool specialise) noexcept
        : fProgram(program),
          fFrame(frame),
          fProvider(provider),
          fTyped(typed),
          fSlots(frame.Slots.data()),
          fSpecialise(specialise) {}

    TExprSlot Run() {
        const TExprInstruction* const code = fProgram.Code.data();
        const std::size_t count = fProgram.Code.size();
        for (std::size_t at = 0; at < count;) {
            const TExprInstruction& step = code[at];
            ++at;
            switch (step.Code) {
                case cdLoad:
                    if (fFrame.Loaded[step.A] != fFrame.Row) Load(step.A);
                    break;
                case cdMove: fSlots[step.Dst] = fSlots[step.A]; break;
                case cdUnary: fSlots[step.Dst] = ApplyUnary(step.Op, fSlots[step.A]); break;
                case cdBinary: Binary(step); break;
                case cdCompare: Compare(step); break;
                case cdRaw:
                    if (fFrame.Buffer == nullptr) break;
                    Raw(step);
                    at = step.Extra;
                    break;
                case cdMatch: Match(step); break;
                case cdFirst:
                    fSlots[step.Dst] = TruthOf(fSlots[step.A]);
                    if (Decided(step)) at = step.Extra;
                    break;
                case cdNext:
                    Next(step);
                    if (Decided(step)) at = step.Extra;
                    break;
                case cdInStep:
                    if (InStep(step)) at = step.Extra;
                    break;
                case cdSet:
                    fSlots[step.Dst] = fProgram.Sets[step.Extra].Contains(fSlots[step.A]);
                    break;
                case cdLike: Like(step, fProgram.Patterns[step.Extra]); break;
                case cdLikeText: LikeText(step); break;
                case cdCall: Call(step); break;
                case cdJump: at = step.Extra; break;
                case cdJumpUnless:
                    if (!IsTrue(LogicOf(fSlots[step.A]))) at = step.Extra;
                    break;
                case cdJumpUnlessNull:
                    if (!fSlots[step.A].IsNull()) at = step.Extra;
                    break;
                case cdJumpUnlessIndex:
                    if (!IsIndex(fSlots[step.A], step.B)) at = step.Extra;
                    break;
            }
        }
        return fSlots[fProgram.Result];
    }

private:
    [[nodiscard]] static bool IsTrue(const TExprSlot& slot) noexcept {
        return slot.Kind == ekBoolean && slot.Integer != 0;
    }
    [[nodiscard]] static TExprSlot TruthOf(const TExprSlot& slot) {
        return slot.Kind == ekBoolean ? slot : LogicOf(slot);
    }
    // A chain of AND ends at false, one of OR at true.
    [[nodiscard]] bool Decided(const TExprInstruction& step) const noexcept {
        const TExprSlot& value = fSlots[step.Dst];
        return !value.IsNull() && (value.Integer != 0) == ((step.Flags & xfOr) != 0);
    }
    [[nodiscard]] static bool IsIndex(const TExprSlot& slot, std::uint32_t index) {
        if (slot.IsNull()) return false;
        if (!slot.IsNumber()) ParserError(u"InvalidFunctionArguments", {u"CHOOSE"});
        std::int64_t whole = 0;
        return ToWhole(slot, whole) && whole == std::int64_t{index};
    }

    void Load(std::uint32_t column) {
        const TExprTree::TColumn& known = fProgram.Columns[column];
        TExprSlot value;
        if (fFrame.Buffer != nullptr && known.Known.Place.Kind != rwNone) {
            value = ReadRaw(known.Known.Place, fFrame.Buffer, fFrame.Fetched);
        } else if (fTyped != nullptr) {
            TExprTarget target(value, fFrame.Fetched);
            fTyped->Fetch(fFrame.Position, known.Index, target);
        } else {
            fProvider->SetPosition(fFrame.Position);
            value = SlotOfVariant(fProvider->Evaluate(known.Index), fFrame.Fetched);
        }
        fSlots[column] = value;
        fFrame.Loaded[column] = fFrame.Row;
    }

    void Binary(const TExprInstruction& step) {
        const TExprSlot& a = fSlots[step.A];
        const TExprSlot& b = fSlots[step.B];
        if (fSpecialise && a.Kind == ekFloat && b.Kind == ekFloat && step.Op <= opMultiply) {
            const double value = step.Op == opAdd        ? a.Float + b.Float
                                 : step.Op == opSubtract ? a.Float - b.Float
                                                         : a.Float * b.Float;
            fSlots[step.Dst] = std::isfinite(value) ? TExprSlot::OfFloat(value) : TExprSlot{};
            return;
        }
        if (fSpecialise && a.Kind == ekFloat && b.Kind == ekInteger && step.Op <= opMultiply) {
            const auto other = static_cast<double>(b.Integer);
            const double value = step.Op == opAdd        ? a.Float + other
                                 : step.Op == opSubtract ? a.Float - other
                                                         : a.Float * other;
            fSlots[step.Dst] = std::isfinite(value) ? TExprSlot::OfFloat(value) : TExprSlot{};
            return;
        }
        fSlots[step.Dst] = ApplyBinary(step.Op, a, b, fFrame.Temporary);
    }
    void Compare(const TExprInstruction& step) {
        const TExprSlot& a = fSlots[step.A];
        const TExprSlot& b = fSlots[step.B];
        if (fSpecialise && a.Kind == b.Kind && (a.Kind == ekInteger || a.Kind == ekFloat)) {
            const int order = a.Kind == ekInteger
                                  ? (a.Integer > b.Integer) - (a.Integer < b.Integer)
                                  : (a.Float > b.Float) - (a.Float < b.Float);
            fSlots[step.Dst] = TExprSlot::OfBoolean(Holds(step.Op, order));
            return;
        }
        // Integers of up to 53 bits are floats without loss.
        constexpr std::uint64_t exact = std::uint64_t{1} << 53;
        if (fSpecialise && a.Kind == ekInteger && b.Kind == ekFloat &&
            Magnitude(a.Integer) <= exact) {
            const auto value = static_cast<double>(a.Integer);
            const int order = (value > b.Float) - (value < b.Float);
            fSlots[step.Dst] = TExprSlot::OfBoolean(Holds(step.Op, order));
            return;
        }
        fSlots[step.Dst] = ApplyCompare(step.Op, a, b, step.How());
    }
    void Raw(const TExprInstruction& step) {
        const int holds = fProgram.RawCompares[step.A].Test(fFrame.Buffer, fFrame.Temporary);
        fSlots[step.Dst] = holds < 0 ? TExprSlot{} : TExprSlot::OfBoolean(holds > 0);
    }
    void Match(const TExprInstruction& step) {
        const TExprSlot& a = fSlots[step.A];
        const TExprSlot& b = fSlots[step.B];
        const bool nulls = a.IsNull() && b.IsNull();
        fSlots[step.Dst] =
            nulls ? TExprSlot::OfBoolean(true) : ApplyCompare(opEqual, a, b, step.How());
    }
    void Next(const TExprInstruction& step) {
        const TExprSlot other = TruthOf(fSlots[step.B]);
        TExprSlot& target = fSlots[step.Dst];
        target = (step.Flags & xfOr) != 0 ? LogicOr(target, other) : LogicAnd(target, other);
    }
    [[nodiscard]] bool InStep(const TExprInstruction& step) {
        const TExprSlot same = ApplyCompare(opEqual, fSlots[step.A], fSlots[step.B], step.How());
        TExprSlot& target = fSlots[step.Dst];
        target = LogicOr(target, same);
        return IsTrue(target);
    }
    void Like(const TExprInstruction& step, const TExprPattern& pattern) {
        const TExprSlot& text = fSlots[step.A];
        if (!text.IsNull() && text.Kind != ekText) {
            ParserError(u"InvalidFunctionArguments", {u"LIKE"});
        }
        fSlots[step.Dst] =
            text.IsNull() ? TExprSlot{} : TExprSlot::OfBoolean(pattern.Matches(text.View()));
    }
    void LikeText(const TExprInstruction& step) {
        const TExprSlot& pattern = fSlots[step.B];
        const TExprSlot* const escape = step.Extra == NoSlot ? nullptr : &fSlots[step.Extra];
        if (pattern.IsNull() || (escape != nullptr && escape->IsNull())) {
            fSlots[step.Dst] = {};
            return;
        }
        if (pattern.Kind != ekText || (escape != nullptr && escape->Kind != ekText)) {
            ParserError(u"InvalidFunctionArguments", {u"LIKE"});
        }
        const std::string_view escapes = escape != nullptr ? escape->View() : std::string_view();
        fFrame.Pattern.Compile(pattern.View(), escape != nullptr ? &escapes : nullptr,
                               (step.Flags & xfCaseless) != 0);
        Like(step, fFrame.Pattern);
    }

    void Call(const TExprInstruction& step) {
        const TExprProgram::TCall& known = fProgram.Calls[step.Extra];
        const TExprFunction& function = *known.Function;
        const std::span<const std::uint32_t> arguments(fProgram.Arguments.data() + known.First,
                                                       known.Count);
        bool anyNull = false;
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            const TExprSlot& argument = fSlots[arguments[i]];
            anyNull = anyNull || argument.IsNull();
            if (!argument.IsNull() && (AcceptsOf(argument.Kind) & function.AcceptedBy(i)) == 0) {
                ParserError(u"InvalidFunctionArguments", {function.Name});
            }
        }
        if (anyNull && (function.Flags & ffTakesNulls) == 0) {
            fSlots[step.Dst] = {};
            return;
        }
        TExprCall call(
            fSlots, arguments, fFrame.Temporary, function.Name,
            [](void* frame) { return static_cast<TExprFrame*>(frame)->Now(); }, &fFrame);
        function.Routine(call);
        fSlots[step.Dst] = call.Result;
    }

    const TExprProgram& fProgram;
    TExprFrame& fFrame;
    IExpressionProvider* fProvider;
    ITypedExpressionProvider* fTyped;
    TExprSlot* fSlots;
    bool fSpecialise;
};

class TEvaluator final : public IExpressionEvaluator {
public:
    TEvaluator(std::u16string_view text, TExprTree& tree, TExprNodeId root,
               const TIntf<IExpressionProvider>& provider, bool specialise)
        : fText(text),
          fName(text),
          fProvider(provider),
          fTyped(specialise ? dynamic_cast<ITypedExpressionProvider*>(provider.Get()) : nullptr),
          fProgram(CompileProgram(tree, root, specialise)),
          fKind(tree.Node(root).Type),
          fPure(tree.IsPure()),
          fReadsClock(tree.ReadsClock()),
          fSpecialise(specialise) {
        fIsClosed = fTyped != nullptr && fProgram.Calls.empty() && !fProgram.Code.empty();
        for (const TExprTree::TColumn& column : fProgram.Columns) {
            fColumns.push_back(column.Index);
            fIsClosed = fIsClosed && column.Known.Place.Kind != rwNone;
        }
        fIsComparison = fIsClosed && fProgram.Code.front().Code == cdRaw &&
                        fProgram.Code.front().Extra == fProgram.Code.size();
        fIsMembership = fIsClosed && fProgram.Code.size() == 2 &&
                        fProgram.Code.front().Code == cdLoad && fProgram.Code.back().Code == cdSet;
        AddFrame();  // now, while a lack of memory refuses the expression and not its first row
    }

    void SetPosition(TExprPosition position) override {
        TExprFrame& frame = Frame();
        frame.Begin(position);
        if (fProgram.UsesBuffer && fTyped != nullptr) frame.Buffer = fTyped->Buffer(position);
    }
    [[nodiscard]] TVariant Evaluate() override {
        return Run([](const TExprSlot& result) { return VariantOfSlot(result); });
    }
    [[nodiscard]] int Test() override {
        return Run([](const TExprSlot& result) { return Truth(result); });
    }

    [[nodiscard]] int TestAt(TExprPosition position) override {
        if (fIsComparison || fIsMembership) {
            const std::byte* const buffer = fTyped->Buffer(position);
            if (buffer != nullptr) {
                TExprArena& scratch = Frame().Temporary;
                scratch.Reset();
                if (fIsComparison) return fProgram.RawCompares.front().Test(buffer, scratch);
                const TExprRawPlace& place = fProgram.Columns[fProgram.Code[0].A].Known.Place;
                const TExprSet& set = fProgram.Sets[fProgram.Code[1].Extra];
                return Truth(set.Contains(ReadRaw(place, buffer, scratch)));
            }
        }
        SetPosition(position);
        return Test();
    }
    [[nodiscard]] TExprSlot ComputeAt(TExprPosition position) override {
        SetPosition(position);
        return Run([](const TExprSlot& result) { return result; });
    }
    void SetName(std::u16string_view name) override { fName = name; }
    [[nodiscard]] const std::u16string& Text() const noexcept override { return fText; }
    [[nodiscard]] std::span<const std::int32_t> Columns() const noexcept override {
        return fColumns;
    }
    [[nodiscard]] TExprKind Kind() const noexcept override { return fKind; }
    [[nodiscard]] bool IsPure() const noexcept override { return fPure; }
    [[nodiscard]] bool ReadsClock() const noexcept override { return fReadsClock; }

private:
    struct TBusy {
        TBusy(std::size_t& busy, int& depth) noexcept : Busy(busy), Depth(depth) {
            ++Busy;
            ++Depth;
        }
        ~TBusy() {
            --Busy;
            --Depth;
        }
        TBusy(const TBusy&) = delete;
        TBusy& operator=(const TBusy&) = delete;
        std::size_t& Busy;
        int& Depth;
    };

    [[nodiscard]] TExprSlot RunClosed(TExprFrame& frame) {
        return TRunner(fProgram, frame, fProvider.Get(), fTyped, fSpecialise).Run();
    }

    // The first frame that is not busy.
    TExprFrame& Frame() {
        if (fBusy == fFrames.size()) {
            if (nesting >= DeepestNesting) RaiseCircular();
            AddFrame();
        }
        return *fFrames[fBusy];
    }
    void AddFrame() {
        auto frame = std::make_unique<TExprFrame>();
        frame->Prepare(fProgram);
        fFrames.push_back(std::move(frame));
    }
    template <typename F>
    std::invoke_result_t<F&, const TExprSlot&> Run(F&& answer) {
        TExprFrame& frame = Frame();
        frame.Temporary.Reset();
        // Nothing that such a program reads can lead back here.
        if (fIsClosed && frame.Buffer != nullptr) return answer(RunClosed(frame));
        int& depth = nesting;
        if (depth >= DeepestNesting) RaiseCircular();
        for (std::size_t i = 0; i < fBusy; ++i) {
            if (fFrames[i]->Position == frame.Position) RaiseCircular();
        }
        const TBusy busy(fBusy, depth);
        frame.HasClock = false;
        return answer(RunExpression(fProgram, frame, fProvider.Get(), fTyped, fSpecialise));
    }
    [[noreturn, gnu::cold]] void RaiseCircular() const {
        ParserError(u"CircularReference", {std::u16string_view(fName)});
    }

    std::u16string fText;
    std::u16string fName;
    TIntf<IExpressionProvider> fProvider;
    ITypedExpressionProvider* fTyped;
    TExprProgram fProgram;
    std::vector<std::int32_t> fColumns;
    TExprKind fKind;
    bool fPure;
    bool fReadsClock;
    bool fSpecialise;
    bool fIsClosed = false;      // reads stored columns and calls nothing
    bool fIsComparison = false;  // one comparison on the buffer, which needs no slots at all
    bool fIsMembership = false;  // one search of a column's value in a set, likewise
    std::vector<std::unique_ptr<TExprFrame>> fFrames;
    std::size_t fBusy = 0;
};

}  // namespace

// ---- frames ----

void TExprFrame::Prepare(const TExprProgram& program) {
    Slots.assign(program.FirstConstant(), {});
    Slots.insert(Slots.end(), program.Constants.begin(), program.Constants.end());
    Loaded.assign(program.Columns.size(), 0);
}

void TExprFrame::Begin(TExprPosition position) {
    Position = position;
    Buffer = nullptr;
    Fetched.Reset();
    if (++Row == 0) {  // after 2^32 rows every mark is old again
        Loaded.assign(Loaded.size(), 0);
        Row = 1;
    }
}

TDateTime TExprFrame::Now() {
    if (!HasClock) {
        if (!TExpressionScope::Now(Clock)) Clock = kds::Now();
        HasClock = true;
    }
    return Clock;
}

TExprSlot RunExpression(const TExprProgram& program, TExprFrame& frame,
                        IExpressionProvider* provider, ITypedExpressionProvider* typed,
                        bool specialise) {
    return TRunner(program, frame, provider, typed, specialise).Run();
}

TIntf<IExpressionEvaluator> MakeExpressionEvaluator(std::u16string_view text, TExprTree& tree,
                                                    TExprNodeId root,
                                                    const TIntf<IExpressionProvider>& provider,
                                                    bool specialise) {
    return MakeIntf<TEvaluator>(text, tree, root, provider, specialise);
}

// ---- one clock an operation ----

TExpressionScope::TExpressionScope() noexcept : fOutermost(scopeClock.Depth++ == 0) {
    if (fOutermost) scopeClock.Has = false;
}

TExpressionScope::~TExpressionScope() { --scopeClock.Depth; }

bool TExpressionScope::Now(TDateTime& now) {
    if (scopeClock.Depth == 0) return false;
    if (!scopeClock.Has) {
        scopeClock.Time = kds::Now();
        scopeClock.Has = true;
    }
    now = scopeClock.Time;
    return true;
}

}  // namespace kds
