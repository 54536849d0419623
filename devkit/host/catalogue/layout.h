// Text for a terminal: lines that fit it, and headings.
#ifndef CORVANE_HOST_CATALOGUE_LAYOUT_H
#define CORVANE_HOST_CATALOGUE_LAYOUT_H

#include <cstddef>
#include <string>

// How many columns the lines of standard output may have; 80 unless it is chosen.
void chooseColumns(size_t columns);

// The text's words, in lines. The first begins in the column `indent`, and so do all others, by
// blanks; `columns` is as chosen if it is 0. There is no line end behind the last. A word that is
// longer than a line is not cut.
std::string wrapped(const std::string& text, size_t indent, size_t columns = 0);

// "label      text", with the text in the column `indent`; on the next line if the label reaches
// there. Ends in a line end.
std::string labelled(const std::string& label, size_t indent, const std::string& text);

// How a reader's terminal shows headings.
struct Style {
    bool isColoured = false;

    std::string heading(const std::string& text) const;
};

#endif
