#include "kds/expr/Exprfunctions.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kds/expr/Exprerrors.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Text.h"

namespace kds {

// ---- calls ----

std::int64_t TExprCall::Whole(std::size_t i) const noexcept {
    std::int64_t whole = 0;
    if (ToWhole(Arg(i), whole)) return whole;
    return Float(i) < 0 ? INT64_MIN : INT64_MAX;
}

void TExprCall::AnswerFloat(double value) noexcept {
    Result = std::isfinite(value) ? TExprSlot::OfFloat(value) : TExprSlot{};
}

void TExprCall::AnswerWhole(double value) noexcept {
    std::int64_t whole = 0;
    if (ToWhole(TExprSlot::OfFloat(value), whole)) return AnswerInteger(whole);
    AnswerFloat(value);
}

char* TExprCall::Room(std::size_t bytes) {
    if (bytes > 4 * MaxExprTextLength) Refuse();
    return fArena.Allocate(bytes);
}

void TExprCall::Refuse() const {
    ParserError(u"InvalidFunctionArguments", {std::u16string_view(fName)});
}

// ---- kinds ----

std::uint8_t AcceptsOf(TExprKind kind) noexcept {
    switch (kind) {
        case ekBoolean:
        case ekInteger:
        case ekFixed:
        case ekFloat: return acNumber;
        case ekText: return acText;
        case ekDate: return acDate;
        case ekOther: return acOther;
        default: return 0;
    }
}

std::uint8_t TExprFunction::AcceptedBy(std::size_t argument) const noexcept {
    if (Accepts.empty()) return acAny;
    switch (Accepts[std::min(argument, Accepts.size() - 1)]) {
        case 'n': return acNumber;
        case 't': return acText;
        case 'd': return acDate;
        case 'o': return acOther;
        case 'v': return acNumber | acText | acDate;
        case 'b': return acNumber | acText;
        default: return acAny;
    }
}

// ---- the registry ----

void AddMathFunctions(TExprFunctions& functions);
void AddTextFunctions(TExprFunctions& functions);
void AddDateFunctions(TExprFunctions& functions);
void AddLogicFunctions(TExprFunctions& functions);

TExprFunctions::TExprFunctions() {
    AddMathFunctions(*this);
    AddTextFunctions(*this);
    AddDateFunctions(*this);
    AddLogicFunctions(*this);
}

void TExprFunctions::Put(TExprFunction function) {
    std::u16string key = ToUpper(function.Name);
    fFunctions[std::move(key)] = std::make_shared<const TExprFunction>(std::move(function));
}

void TExprFunctions::Add(TExprFunction function) {
    const bool counts =
        function.MinArguments >= 0 && function.MinArguments <= function.MaxArguments;
    if (function.Name.empty() || !function.Routine || function.Form != fmCall || !counts ||
        (function.MaxArguments > 0 && function.Accepts.empty()) ||
        function.Accepts.find_first_not_of("ntdov*b") != std::string::npos) {
        throw EInvalidArgument(u"A function needs a name, a routine and the kinds it accepts");
    }
    Put(std::move(function));
}

std::shared_ptr<const TExprFunction> TExprFunctions::Find(std::u16string_view name) const {
    const auto found = fFunctions.find(ToUpper(name));
    return found == fFunctions.end() ? nullptr : found->second;
}

std::vector<std::u16string> TExprFunctions::Names() const {
    std::vector<std::u16string> names;
    for (const auto& [name, function] : fFunctions) names.push_back(name);
    std::ranges::sort(names);
    return names;
}

TExprFunctions& ExpressionFunctions() {
    static TExprFunctions functions;
    return functions;
}

}  // namespace kds
