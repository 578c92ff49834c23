// The text functions. Positions and lengths are characters, counted from 1.
#include <algorithm>
#include <cstring>
#include <vector>

#include "kds/expr/Exprerrors.h"
#include "kds/expr/Exprfunctions.h"
#include "kds/platform/Text.h"

namespace kds {

void AddTextFunctions(TExprFunctions& functions);

namespace {

[[nodiscard]] std::size_t AtLeast0(std::int64_t count) noexcept {
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

// Where `part` lies in `text` from `from` on, npos when nowhere. Long parts are searched with a
// table of how far they repeat themselves, so that no text makes the search slow.
class TFinder {
public:
    explicit TFinder(std::string_view part) : fPart(part) {
        if (part.size() < 32) return;
        fRepeats.assign(part.size(), 0);
        for (std::size_t i = 1, length = 0; i < part.size(); ++i) {
            while (length > 0 && part[i] != part[length]) length = fRepeats[length - 1];
            if (part[i] == part[length]) ++length;
            fRepeats[i] = static_cast<std::uint32_t>(length);
        }
    }
    [[nodiscard]] std::size_t Find(std::string_view text, std::size_t from = 0) const noexcept {
        if (fRepeats.empty()) return text.find(fPart, from);
        std::size_t length = 0;
        for (std::size_t at = from; at < text.size(); ++at) {
            while (length > 0 && text[at] != fPart[length]) length = fRepeats[length - 1];
            if (text[at] == fPart[length]) ++length;
            if (length == fPart.size()) return at + 1 - length;
        }
        return std::string_view::npos;
    }

private:
    std::string_view fPart;
    std::vector<std::uint32_t> fRepeats;
};

void AnswerLimited(TExprCall& call, const char* text, std::size_t size) {
    if (size > MaxExprTextLength && CharCount({text, size}) > MaxExprTextLength) call.Refuse();
    call.BorrowText({text, size});
}

void Length(TExprCall& call) {
    call.AnswerInteger(static_cast<std::int64_t>(CharCount(call.Text(0))));
}

// Small letters by the inverse of the capitals' table: what folds to a capital and is not one.
[[nodiscard]] char32_t Lowered(char32_t c) noexcept {
    if (c < 0x80) return c >= U'A' && c <= U'Z' ? c + 32 : c;
    // In the scripts that have capitals the small letter lies at one of these distances.
    for (const char32_t distance : {1U, 32U, 80U, 48U, 37U, 38U, 63U, 64U, 8U, 26U, 16U, 40U}) {
        const char32_t small = c + distance;
        if (FoldCase(small) == c) return small;
    }
    return c;
}

template <char32_t (*Change)(char32_t) noexcept>
void ChangeCase(TExprCall& call) {
    const std::string_view text = call.Text(0);
    char* const changed = call.Room(text.size() + 4);
    std::size_t size = 0;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t length = 0;
        const char32_t before = CharAt(text, at, length);
        const char32_t after = Change(before);
        char bytes[4];
        const std::size_t taken = PutChar(bytes, after);
        // No letter changes its size; were there one, it would stay as it is.
        std::memcpy(changed + size, taken == length ? bytes : text.data() + at, length);
        size += length;
        at += length;
    }
    call.BorrowText({changed, size});
}

template <bool Left, bool Right>
void TrimText(TExprCall& call) {
    std::string_view text = call.Text(0);
    const auto blank = [](char c) { return static_cast<unsigned char>(c) <= 0x20; };
    while (Left && !text.empty() && blank(text.front())) text.remove_prefix(1);
    while (Right && !text.empty() && blank(text.back())) text.remove_suffix(1);
    call.BorrowText(text);
}

void SubStr(TExprCall& call) {
    std::string_view text = call.Text(0);
    const std::int64_t from = std::max<std::int64_t>(call.Whole(1), 1);
    text.remove_prefix(CharBytes(text, static_cast<std::size_t>(from - 1)));
    if (call.Count() > 2) text = text.substr(0, CharBytes(text, AtLeast0(call.Whole(2))));
    call.BorrowText(text);
}
void LeftText(TExprCall& call) {
    const std::string_view text = call.Text(0);
    call.BorrowText(text.substr(0, CharBytes(text, AtLeast0(call.Whole(1)))));
}
void RightText(TExprCall& call) {
    const std::string_view text = call.Text(0);
    const std::size_t count = CharCount(text);
    const std::size_t wanted = std::min(AtLeast0(call.Whole(1)), count);
    call.BorrowText(text.substr(CharBytes(text, count - wanted)));
}

[[nodiscard]] std::int64_t PositionOf(std::string_view part, std::string_view text) {
    const std::size_t found = TFinder(part).Find(text);
    if (found == std::string_view::npos) return 0;
    return static_cast<std::int64_t>(CharCount(text.substr(0, found))) + 1;
}
void Pos(TExprCall& call) { call.AnswerInteger(PositionOf(call.Text(0), call.Text(1))); }
void InStr(TExprCall& call) { call.AnswerInteger(PositionOf(call.Text(1), call.Text(0))); }
void Starts(TExprCall& call) { call.AnswerBoolean(call.Text(0).starts_with(call.Text(1))); }
void Ends(TExprCall& call) { call.AnswerBoolean(call.Text(0).ends_with(call.Text(1))); }
void Contains(TExprCall& call) {
    call.AnswerBoolean(TFinder(call.Text(1)).Find(call.Text(0)) != std::string_view::npos);
}

void Replace(TExprCall& call) {
    const std::string_view text = call.Text(0);
    const std::string_view part = call.Text(1);
    const std::string_view by = call.Text(2);
    if (part.empty()) return call.BorrowText(text);
    const TFinder finder(part);
    std::size_t count = 0;
    for (std::size_t at = finder.Find(text); at != std::string_view::npos;
         at = finder.Find(text, at + part.size())) {
        ++count;
    }
    const std::size_t size = text.size() - count * part.size() + count * by.size();
    char* const replaced = call.Room(size);
    char* target = replaced;
    std::size_t from = 0;
    for (; count > 0; --count) {
        const std::size_t found = finder.Find(text, from);
        target = std::copy(text.begin() + static_cast<std::ptrdiff_t>(from),
                           text.begin() + static_cast<std::ptrdiff_t>(found), target);
        target = std::copy(by.begin(), by.end(), target);
        from = found + part.size();
    }
    std::copy(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), target);
    AnswerLimited(call, replaced, size);
}

void Concat(TExprCall& call) {
    std::size_t size = 0;
    std::vector<std::string_view> parts;
    for (std::size_t i = 0; i < call.Count(); ++i) {
        if (call.IsNull(i)) continue;
        parts.push_back(CanonicalText(call.Arg(i), call.Arena()).View());
        size += parts.back().size();
    }
    char* const joined = call.Room(size);
    char* target = joined;
    for (const std::string_view part : parts) target = std::copy(part.begin(), part.end(), target);
    AnswerLimited(call, joined, size);
}

// `text` as often as it takes to fill `size` characters.
char* Fill(char* target, std::string_view text, std::size_t count) {
    std::size_t at = 0;
    for (; count > 0; --count) {
        const std::size_t length = CharLength(text, at);
        target = std::copy_n(text.data() + at, length, target);
        at += length;
        if (at >= text.size()) at = 0;
    }
    return target;
}

template <bool Left>
void Pad(TExprCall& call) {
    const std::string_view text = call.Text(0);
    const std::string_view fill = call.Count() > 2 ? call.Text(2) : std::string_view(" ");
    const std::size_t wanted = AtLeast0(call.Whole(1));
    const std::size_t count = CharCount(text);
    if (wanted <= count || fill.empty()) return call.BorrowText(text);
    if (wanted > MaxExprTextLength) call.Refuse();
    char* const padded = call.Room(text.size() + (wanted - count) * 4);
    char* target = Left ? Fill(padded, fill, wanted - count) : padded;
    target = std::copy(text.begin(), text.end(), target);
    if (!Left) target = Fill(target, fill, wanted - count);
    call.BorrowText({padded, static_cast<std::size_t>(target - padded)});
}

void Repeat(TExprCall& call) {
    const std::string_view text = call.Text(0);
    const std::size_t times = AtLeast0(call.Whole(1));
    if (text.empty() || times == 0) return call.BorrowText("");
    if (times > MaxExprTextLength || CharCount(text) * times > MaxExprTextLength) call.Refuse();
    char* const repeated = call.Room(text.size() * times);
    char* target = repeated;
    for (std::size_t i = 0; i < times; ++i) target = std::copy(text.begin(), text.end(), target);
    call.BorrowText({repeated, text.size() * times});
}

void Chr(TExprCall& call) {
    const std::int64_t code = call.Whole(0);
    if (code < 0 || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return;
    char bytes[4];
    call.AnswerText({bytes, PutChar(bytes, static_cast<char32_t>(code))});
}
void Asc(TExprCall& call) {
    if (call.Text(0).empty()) return;
    std::size_t length = 0;
    call.AnswerInteger(static_cast<std::int64_t>(CharAt(call.Text(0), 0, length)));
}
void Str(TExprCall& call) { call.Answer(CanonicalText(call.Arg(0), call.Arena())); }
void Val(TExprCall& call) { call.Answer(ReadNumber(call.Text(0))); }

[[nodiscard]] char32_t Raised(char32_t c) noexcept { return FoldCase(c); }

struct TEntry {
    const char16_t* Name;
    std::int32_t Least, Most;
    const char* Accepts;
    TExprKind Result;
    TExprRoutine Routine;
    std::uint8_t Flags = 0;
};

}  // namespace

void AddTextFunctions(TExprFunctions& functions) {
    const TEntry entries[] = {
        {u"LENGTH", 1, 1, "t", ekInteger, TExprRoutine::Bind<Length>()},
        {u"LEN", 1, 1, "t", ekInteger, TExprRoutine::Bind<Length>()},
        {u"UPPER", 1, 1, "t", ekText, TExprRoutine::Bind<ChangeCase<Raised>>()},
        {u"LOWER", 1, 1, "t", ekText, TExprRoutine::Bind<ChangeCase<Lowered>>()},
        {u"TRIM", 1, 1, "t", ekText, TExprRoutine::Bind<TrimText<true, true>>()},
        {u"LTRIM", 1, 1, "t", ekText, TExprRoutine::Bind<TrimText<true, false>>()},
        {u"RTRIM", 1, 1, "t", ekText, TExprRoutine::Bind<TrimText<false, true>>()},
        {u"SUBSTR", 2, 3, "tn", ekText, TExprRoutine::Bind<SubStr>()},
        {u"SUBSTRING", 2, 3, "tn", ekText, TExprRoutine::Bind<SubStr>()},
        {u"LEFT", 2, 2, "tn", ekText, TExprRoutine::Bind<LeftText>()},
        {u"RIGHT", 2, 2, "tn", ekText, TExprRoutine::Bind<RightText>()},
        {u"POS", 2, 2, "t", ekInteger, TExprRoutine::Bind<Pos>()},
        {u"INSTR", 2, 2, "t", ekInteger, TExprRoutine::Bind<InStr>()},
        {u"STARTS", 2, 2, "t", ekBoolean, TExprRoutine::Bind<Starts>()},
        {u"ENDS", 2, 2, "t", ekBoolean, TExprRoutine::Bind<Ends>()},
        {u"CONTAINS", 2, 2, "t", ekBoolean, TExprRoutine::Bind<Contains>()},
        {u"REPLACE", 3, 3, "t", ekText, TExprRoutine::Bind<Replace>()},
        {u"CONCAT", 1, AnyCount, "v", ekText, TExprRoutine::Bind<Concat>(), ffTakesNulls},
        {u"PADL", 2, 3, "tnt", ekText, TExprRoutine::Bind<Pad<true>>()},
        {u"PADR", 2, 3, "tnt", ekText, TExprRoutine::Bind<Pad<false>>()},
        {u"REPEAT", 2, 2, "tn", ekText, TExprRoutine::Bind<Repeat>()},
        {u"CHR", 1, 1, "n", ekText, TExprRoutine::Bind<Chr>()},
        {u"ASC", 1, 1, "t", ekInteger, TExprRoutine::Bind<Asc>()},
        {u"STR", 1, 1, "v", ekText, TExprRoutine::Bind<Str>()},
        {u"VAL", 1, 1, "t", ekAny, TExprRoutine::Bind<Val>()},
    };
    for (const TEntry& entry : entries) {
        functions.Put({entry.Name, entry.Least, entry.Most, entry.Accepts, entry.Result,
                       entry.Flags, entry.Routine, fmCall});
    }
}

}  // namespace kds
