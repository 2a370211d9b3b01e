#include "report/html_page.h"

#include <cstdarg>
#include <cstdio>

namespace kinetrel::report {
namespace {

constexpr const char* kStyle = R"(<style>
:root { color-scheme: light; }
body { font: 16px/1.5 system-ui, sans-serif; color: #111; background: #fff;
  max-width: 760px; margin: 2em auto; padding: 0 1em; }
h1 { font-size: 1.6em; } h2 { font-size: 1.2em; margin: 1.6em 0 .4em; }
.good { border-left: 8px solid #2a7d3f; } .usable { border-left: 8px solid #b07a00; }
.bad { border-left: 8px solid #b3261e; } .verdict { padding: .5em 1em; background: #f2f2f2; }
table { border-collapse: collapse; } td, th { padding: .15em 1.5em .15em 0; vertical-align: top;
  text-align: left; } tr + tr > td { border-top: 1px solid #e4e4e4; }
td:first-child { white-space: nowrap; } td.number, th.number { text-align: right;
  font-variant-numeric: tabular-nums; } code { overflow-wrap: anywhere; }
svg { width: 100%; height: auto; } svg text { font-size: 12px; fill: #333; }
.axis { stroke: #555; } .grid { stroke: #e4e4e4; } .after { fill: #2465a8; stroke: #2465a8; }
.before { fill: #c9a24a; } .curve { fill: none; stroke: #2465a8; stroke-width: 1.5; }
figure { margin: 1.5em 0; break-inside: avoid; } figcaption { font-size: .9em; color: #333; }
blockquote { margin: .5em 0; padding: .5em 1em; border-left: 4px solid #999; }
@media (max-width: 600px) { td:first-child { white-space: normal; }
  td, th { padding-right: .6em; } td.number { font-size: .9em; }
  figure { overflow-x: auto; } svg { min-width: 560px; } }
@media print { body { margin: 0 auto; font-size: 11pt; } }
</style>)";

}  // namespace

std::string Format(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char each : text) {
    switch (each) {
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '&':
        escaped += "&amp;";
        break;
      default:
        escaped += static_cast<unsigned char>(each) < ' ' ? ' ' : each;
    }
  }
  return escaped;
}

std::string PageHead(const std::string& title, const std::string& subtitle) {
  const std::string name = Escaped(title);
  return "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width\"><title>" +
         name + "</title>" + kStyle + "</head><body>\n<h1>" + name + "</h1>\n<p>" +
         Escaped(subtitle) + "</p>\n";
}

std::string PageEnd() { return "</body></html>\n"; }

std::string FigureTable(const std::vector<std::pair<std::string, std::string>>& rows) {
  std::string table = "<table>\n";
  for (const auto& [what, value] : rows) {
    table += "<tr><td>" + Escaped(what) + "</td><td>" + Escaped(value) + "</td></tr>\n";
  }
  return table + "</table>\n";
}

}  // namespace kinetrel::report
