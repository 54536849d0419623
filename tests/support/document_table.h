// Tables of the documents, which tests hold against the product.
#ifndef CORVANE_TESTS_DOCUMENT_TABLE_H
#define CORVANE_TESTS_DOCUMENT_TABLE_H

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace support {

// A row's cells by the names of their columns.
using TableRow = std::map<std::string, std::string>;

inline std::vector<std::string> cellsOf(const std::string& line)
{
    static const std::regex blanks("^\\s+|\\s+$");
    std::vector<std::string> cells;
    std::istringstream stream(line.substr(1));
    for (std::string cell; std::getline(stream, cell, '|');)
        cells.push_back(std::regex_replace(cell, blanks, ""));
    return cells;
}

// The rows below "| first | second | ...", of a file that is named from the checkout's root; none
// if it has no such heading. `heading` is the names of the columns.
inline std::vector<TableRow> tableOf(const std::string& file,
                                     const std::vector<std::string>& heading)
{
    std::ifstream text(std::string(CORVANE_SOURCE_DIR "/") + file);
    std::vector<TableRow> rows;
    bool isThere = false;
    for (std::string line; std::getline(text, line);) {
        if (line.empty() || line[0] != '|') {
            isThere = false;
            continue;
        }
        const std::vector<std::string> cells = cellsOf(line);
        if (isThere && cells[0].rfind("---", 0) != 0) {
            rows.emplace_back();
            for (size_t i = 0; i < heading.size() && i < cells.size(); ++i)
                rows.back()[heading[i]] = cells[i];
        }
        isThere = isThere || cells == heading;
    }
    return rows;
}

// The names in a cell, which stand in backquotes.
inline std::vector<std::string> namesIn(const std::string& cell)
{
    static const std::regex name("`([^`]+)`");
    std::vector<std::string> names;
    for (std::sregex_iterator hit(cell.begin(), cell.end(), name), end; hit != end; ++hit)
        names.push_back((*hit)[1]);
    return names;
}

}  // namespace support

#endif
