#include "kds/platform/Format.h"

#include <algorithm>
#include <charconv>

#include "kds/platform/Floats.h"

namespace kds {
namespace {

// A directive as it stands in the pattern: what follows the percent sign.
struct TDirective {
    char16_t Kind = 0;  // s, d, g or %; 0 when it is none of ours
    std::size_t Digits = 0;
    std::size_t Length = 0;  // code units, the percent sign included
};

// `text` begins with the percent sign. At most two digits of width: a pattern from a translation
// file must not make one number print gigabytes of zeros.
TDirective ParseDirective(std::u16string_view text) noexcept {
    TDirective directive;
    std::size_t at = 1;
    if (at < text.size() && text[at] == u'.') {
        const std::size_t first = ++at;
        while (at < text.size() && at < first + 2 && text[at] >= u'0' && text[at] <= u'9') {
            directive.Digits = directive.Digits * 10 + (text[at++] - u'0');
        }
        if (at == first || at == text.size() || text[at] != u'd') return {};
    }
    if (at == text.size()) return {};
    const char16_t kind = text[at];
    if (kind != u's' && kind != u'd' && kind != u'g' && kind != u'%') return {};
    directive.Kind = kind;
    directive.Length = at + 1;
    return directive;
}

void AppendInteger(std::u16string& target, std::int64_t value, std::size_t minDigits) {
    char digits[24];
    const char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    const char* first = digits;
    if (*first == '-') {
        target += u'-';
        ++first;
    }
    const auto count = static_cast<std::size_t>(end - first);
    if (count < minDigits) target.append(minDigits - count, u'0');
    target.append(first, end);
}

// The argument's own kind decides: a directive that asks for another one must not fail.
struct TArgumentPrinter {
    std::u16string& Target;
    std::size_t MinDigits;

    void operator()(std::int64_t value) const { AppendInteger(Target, value, MinDigits); }
    void operator()(double value) const { Target += FloatText(value, 17); }
    void operator()(char16_t value) const { Target += value; }
    void operator()(std::u16string_view value) const { Target += value; }
};

}  // namespace

std::size_t DirectiveLength(std::u16string_view text) noexcept {
    return text.starts_with(u'%') ? ParseDirective(text).Length : 0;
}

std::u16string Format(std::u16string_view pattern, std::span<const TFormatArg> arguments) {
    std::u16string result;
    result.reserve(pattern.size() + 16);
    std::size_t next = 0;
    for (std::size_t at = 0; at < pattern.size();) {
        const std::size_t percent = std::min(pattern.find(u'%', at), pattern.size());
        result += pattern.substr(at, percent - at);
        at = percent;
        if (at == pattern.size()) break;
        const TDirective directive = ParseDirective(pattern.substr(at));
        if (directive.Kind == 0 || directive.Kind == u'%') {
            result += u'%';
            at += directive.Kind == 0 ? 1 : directive.Length;
            continue;
        }
        if (next < arguments.size()) {
            std::visit(TArgumentPrinter{result, directive.Digits}, arguments[next].Value());
            ++next;
        }
        at += directive.Length;
    }
    return result;
}

}  // namespace kds
