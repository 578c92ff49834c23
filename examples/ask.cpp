// Asks the demo's tables: a person types an expression and sees the rows for which it is true, or
// what is wrong with it and where.
//   ask [<folder of the data>] [< <file of questions>]
// Lines that come from a pipe or a file are printed before their answers.
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "examples/world/Data.h"
#include "examples/world/Rows.h"
#include "examples/world/Terminal.h"
#include "kds/kds.h"

namespace world {
namespace {

constexpr std::int32_t MostRows = 10;
constexpr std::string_view Prompt = "> ";

constexpr std::string_view Help =
    "   an expression             the rows for which it is true: Latitude > 65 AND Comments IS "
    "NULL\n"
    "   = <expression>            its value in the first rows: = UPPER(Country) || '/' || Zone\n"
    "   .use <table>              asks another table; .tables names them, .columns its columns\n"
    "   .order <columns>          .order Latitude desc, Zone; without columns by the key\n"
    "   .help                     .quit, or the end of the input, ends\n"
    "   docs/expressions.md has the language.\n";

class TSession {
public:
    explicit TSession(const TWorld& world) : fTables(world.Store->Tables()), fTable(world.Zones) {}
    // False: it was the last one.
    bool Answer(std::string_view line);

private:
    void Command(std::string_view name, std::string_view rest);
    void ShowTables() const;
    void ShowColumns() const;
    void ShowRows(std::string_view filter) const;
    void ShowValues(std::string_view expression) const;
    static void ShowFault(const kds::EKdsParseError& error, std::string_view before,
                          std::string_view text);

    kds::TKdsTableList* fTables;
    kds::TKdsTable* fTable;
    std::u16string fOrder;
};

std::string_view Trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool TSession::Answer(std::string_view line) {
    const std::string_view text = Trim(line);
    if (text.empty()) return true;
    if (text == ".quit") return false;
    const bool isValue = text.front() == '=';
    const std::string_view expression = isValue ? Trim(text.substr(1)) : text;
    try {
        if (text.front() == '.') {
            const std::size_t end = text.find(' ');
            Command(text.substr(0, end), Trim(end > text.size() ? "" : text.substr(end)));
        } else if (isValue) {
            ShowValues(expression);
        } else {
            ShowRows(expression);
        }
    } catch (const kds::EKdsParseError& error) {
        const auto start = static_cast<std::size_t>(expression.data() - line.data());
        ShowFault(error, line.substr(0, start), expression);
    } catch (const kds::Exception& error) {
        Say(error.what());
    }
    return true;
}

void TSession::Command(std::string_view name, std::string_view rest) {
    if (name == ".use") {
        fTable = fTables->Tables(kds::ToUtf16(rest));
        fOrder.clear();
    } else if (name == ".order") {
        const std::u16string order = kds::ToUtf16(rest);
        fTable->Select(order)->Free();  // refuses what is no order
        fOrder = order;
    } else if (name == ".tables") {
        ShowTables();
    } else if (name == ".columns") {
        ShowColumns();
    } else {
        if (name != ".help") Say("There is no " + std::string(name) + ". What there is:");
        std::cout << Help;
    }
}

void TSession::ShowTables() const {
    TSheet sheet({"Table", Right("Rows")});
    for (kds::TKdsTable* const table : *fTables) {
        sheet.Row({kds::ToUtf8(table->Name()), std::to_string(table->Records()->Count())});
    }
    sheet.Print();
}

void TSession::ShowColumns() const {
    TSheet sheet({"Column", "Type", "Calculated by"});
    for (kds::TKdsColumn* const column : *fTable->Columns()) {
        sheet.Row({kds::ToUtf8(column->Name()), kds::ToUtf8(kds::KdsTypeName(column->DataType())),
                   kds::ToUtf8(column->Expression())});
    }
    sheet.Print();
}

void TSession::ShowRows(std::string_view filter) const {
    kds::TKdsView* const view = fTable->Select(fOrder, kds::ToUtf16(filter));
    std::vector<THeading> headings;
    for (kds::TKdsColumn* const column : *fTable->Columns()) {
        headings.emplace_back(kds::ToUtf8(column->Name()).c_str());
    }
    TSheet sheet(std::move(headings));
    for (std::int32_t i = 0; i < std::min(view->Count(), MostRows); ++i) {
        std::vector<std::string> cells;
        for (kds::TKdsColumn* const column : *fTable->Columns()) {
            cells.push_back(Cell(view->Items(i), column->Name()));
        }
        sheet.Row(std::move(cells));
    }
    if (view->Count() > 0) sheet.Print();
    Say(std::to_string(view->Count()) + " of " + std::to_string(fTable->Records()->Count()) +
        " rows");
    if (view->FilterErrors() > 0) {
        try {
            std::rethrow_exception(view->FilterError());
        } catch (const std::exception& error) {
            Say("not judged: " + std::to_string(view->FilterErrors()) +
                " rows; the first: " + error.what());
        }
    }
    view->Free();
}

void TSession::ShowValues(std::string_view expression) const {
    const auto evaluator = kds::CompileExpression(fTable->Columns(), kds::ToUtf16(expression));
    kds::TKdsView* const view = fTable->Select(fOrder);
    for (std::int32_t i = 0; i < std::min(view->Count(), MostRows / 2); ++i) {
        evaluator->SetPosition({view->Items(i), kds::erCurrent});
        const kds::TVariant value = evaluator->Evaluate();
        Say(value.IsNull() ? "null" : kds::ToUtf8(kds::VarToStr(value)));
        // An expression without columns has one value.
        if (evaluator->Columns().empty()) break;
    }
    evaluator->SetPosition({});
    view->Free();
}

// As wide as the text: tabs stay tabs.
std::string Blanks(std::string_view text) {
    std::string blanks;
    for (const char byte : text) {
        if ((byte & 0xC0) != 0x80) blanks += byte == '\t' ? '\t' : ' ';
    }
    return blanks;
}

// With a caret under the place in the line as it was typed: `before` stands there, then `text`.
void TSession::ShowFault(const kds::EKdsParseError& error, std::string_view before,
                         std::string_view text) {
    if (error.Position() >= 0) {
        const std::u16string units = kds::ToUtf16(text);
        const auto position = std::min(static_cast<std::size_t>(error.Position()), units.size());
        const auto length = static_cast<std::size_t>(std::max(error.Length(), 1));
        const std::size_t width = Width(kds::ToUtf8(units.substr(position, length)));
        std::cout << Blanks(Prompt) << Blanks(before)
                  << Blanks(kds::ToUtf8(units.substr(0, position))) << '^'
                  << std::string(std::max<std::size_t>(width, 1) - 1, '~') << "\n";
    }
    Say(error.what());
}

void Ask(const TWorld& world) {
    TSession session(world);
    const bool isTyped = isatty(STDIN_FILENO) != 0;
    if (isTyped) std::cout << Help;
    std::string line;
    for (bool goesOn = true; goesOn;) {
        if (isTyped) std::cout << Prompt << std::flush;
        if (!std::getline(std::cin, line)) break;
        if (!isTyped) std::cout << Prompt << line << "\n";
        goesOn = session.Answer(line);
    }
    if (isTyped) std::cout << "\n";
}

}  // namespace
}  // namespace world

int main(int argumentCount, char** arguments) {
    std::string folder = KDS_EXAMPLE_DATA;
    for (int i = 1; i < argumentCount; ++i) {
        if (std::string_view(arguments[i]) != "--plain") folder = arguments[i];
    }
    try {
        const world::TWorld world = world::CreateWorld();
        world::LoadWorld(world, folder);
        world::Ask(world);
        world.Store->Free();
    } catch (const std::exception& error) {
        std::cerr << "ask: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
