// Text for a terminal: lines of at most 80 columns, and headings.
#ifndef CORVANE_HOST_CATALOGUE_LAYOUT_H
#define CORVANE_HOST_CATALOGUE_LAYOUT_H

#include <cstddef>
#include <string>

constexpr size_t mostColumns = 80;

// The text's words, in lines. The first begins in the column `indent`, and so do all others, by
// blanks. There is no line end behind the last. A word that is longer than a line is not cut.
std::string wrapped(const std::string& text, size_t indent);

// "label      text", with the text in the column `indent`; on the next line if the label reaches
// there. Ends in a line end.
std::string labelled(const std::string& label, size_t indent, const std::string& text);

// How a reader's terminal shows headings.
struct Style {
    bool isColoured = false;

    std::string heading(const std::string& text) const;
};

#endif
