// Text files of fields between separators.
#pragma once

#include <charconv>
#include <fstream>
#include <iterator>
#include <ranges>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace world {

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("Cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The parts lie in the text: they are good as long as it is.
inline std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (const auto part : std::views::split(text, separator)) {
        parts.emplace_back(part.begin(), part.end());
    }
    return parts;
}

// The fields of each line that is neither empty nor a comment.
inline std::vector<std::vector<std::string_view>> SplitLines(std::string_view text,
                                                             char separator) {
    std::vector<std::vector<std::string_view>> lines;
    for (const std::string_view line : Split(text, '\n')) {
        if (!line.empty() && line.front() != '#') lines.push_back(Split(line, separator));
    }
    return lines;
}

template <typename T>
T ToNumber(std::string_view digits, int base = 10) {
    T value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    return value;
}

}  // namespace world
