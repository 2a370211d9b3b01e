// One HTML page that needs no other file: light and plain, for a screen and for paper.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kinetrel::report {

// As printf; the result has any length.
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

// `text` as text of HTML: any bytes, control characters become blanks.
std::string Escaped(const std::string& text);

// From the doctype to the heading. The page is closed by PageEnd.
std::string PageHead(const std::string& title, const std::string& subtitle);
std::string PageEnd();

// A table of two columns, both plain text.
std::string FigureTable(const std::vector<std::pair<std::string, std::string>>& rows);

}  // namespace kinetrel::report
