// Texts of what is published. The block comes from another process: nothing of it reaches a
// terminal or a parser unchecked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kinetrel {

// `text` with a '?' for each byte that is no printable ASCII: no control sequence gets through,
// and what remains is valid in any encoding.
std::string Printable(std::string_view text);

std::string SensorWords(std::uint32_t mask);  // "1-3, 7", as the operator counts; "none"
std::string ButtonWords(std::uint32_t bits);  // "1, 4"; "none pressed"
std::string UnitWord(int code);               // "inch"

// `decimals` behind the point; "nan", "inf".
std::string Fixed(double value, int decimals);

// At most `width` wide, right-justified; a value that is too long for it goes by its exponent.
std::string Cell(double value, std::size_t width, int decimals);

// The shortest text that reads back as the same value; null for what is no number in JSON.
std::string JsonNumber(float value);
std::string JsonNumber(double value);
std::string JsonText(std::string_view text);  // quoted and escaped, after Printable

}  // namespace kinetrel
