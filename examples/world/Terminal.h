// Tables on a terminal: a title, headings, aligned rows.
#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace world {

struct THeading {
    THeading(const char* text) : Text(text) {}
    std::string Text;
    bool IsRight = false;  // where the cells below it stand
};
// The heading of a column of numbers.
inline THeading Right(const char* text) {
    THeading heading(text);
    heading.IsRight = true;
    return heading;
}

// Characters of a UTF-8 text; each takes one column on the terminal here.
inline std::size_t Width(std::string_view text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char byte) { return (byte & 0xC0) != 0x80; }));
}

// Text of a number with this many decimals.
inline std::string Number(double value, int decimals = 0) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

inline void Title(std::string_view text) { std::cout << "\n== " << text << "\n"; }
inline void Say(std::string_view text) { std::cout << "   " << text << "\n"; }

// Rows are collected first, because the longest cell of a column decides its width.
class TSheet {
public:
    TSheet(std::initializer_list<THeading> headings) : TSheet(std::vector<THeading>(headings)) {}
    explicit TSheet(std::vector<THeading> headings) : fHeadings(std::move(headings)) {
        for (const THeading& heading : fHeadings) fWidths.push_back(Width(heading.Text));
    }
    void Row(std::vector<std::string> cells) {
        cells.resize(fHeadings.size());
        for (std::size_t i = 0; i < cells.size(); ++i) {
            fWidths[i] = std::max(fWidths[i], Width(cells[i]));
        }
        fRows.push_back(std::move(cells));
    }
    void Print() const {
        std::vector<std::string> texts;
        std::vector<std::string> rules;
        for (std::size_t i = 0; i < fHeadings.size(); ++i) {
            texts.push_back(fHeadings[i].Text);
            rules.emplace_back(fWidths[i], '-');
        }
        PrintRow(texts);
        PrintRow(rules);
        for (const std::vector<std::string>& row : fRows) PrintRow(row);
    }

private:
    void PrintRow(const std::vector<std::string>& cells) const {
        std::string line = "  ";
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const std::string blanks(fWidths[i] - Width(cells[i]), ' ');
            line += (fHeadings[i].IsRight ? blanks + cells[i] : cells[i] + blanks) + "  ";
        }
        std::cout << line.substr(0, line.find_last_not_of(' ') + 1) << "\n";
    }

    std::vector<THeading> fHeadings;
    std::vector<std::size_t> fWidths;
    std::vector<std::vector<std::string>> fRows;
};

}  // namespace world
