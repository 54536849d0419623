#include "layout.h"

#include <sstream>

namespace {

size_t chosenColumns = 80;

}  // namespace

void chooseColumns(size_t columns)
{
    chosenColumns = columns;
}

std::string wrapped(const std::string& text, size_t indent, size_t columns)
{
    const size_t most = columns == 0 ? chosenColumns : columns;
    std::string lines;
    size_t column = indent;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (!lines.empty() && column + 1 + word.size() > most) {
            lines += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (!lines.empty()) {
            lines += ' ';
            ++column;
        }
        lines += word;
        column += word.size();
    }
    return lines;
}

std::string labelled(const std::string& label, size_t indent, const std::string& text)
{
    if (text.empty())
        return label + "\n";
    const bool isNarrow = label.size() < indent;
    const std::string gap =
        isNarrow ? std::string(indent - label.size(), ' ') : "\n" + std::string(indent, ' ');
    return label + gap + wrapped(text, indent) + "\n";
}

std::string Style::heading(const std::string& text) const
{
    return isColoured ? "\033[1m" + text + "\033[0m" : text;
}
