// What the substitute is told by environment variables, read anew at each call:
//   KINETREL_ISENSE_MODEL      1 IS-300, 2 IS-600, 3 IS-900, 4 to 7 InterTrax, 8 and 9
//                              InertiaCube2, 10 IS-1200, 11 InertiaCube3 (as without)
//   KINETREL_ISENSE_RATE       records a second; without: what the model is known for
//   KINETREL_ISENSE_KBITS      what it says of its line, in 1000 bits a second; without: 115.2
//   KINETREL_ISENSE_FAIL       calls that fail: "GetData", "GetData@100" from the 100th on,
//                              "GetData@100+5" five of them; several with commas
//   KINETREL_ISENSE_FRAMES     "stall@500+50": nothing new for 50 periods before frame 500,
//                              "jump@500+7": 7 frames missing there, "lost@500+50": the tracker
//                              does not answer for 50 periods; several with commas
//   KINETREL_ISENSE_BROADCAST  the address that records are passed on to; without: 127.255.255.255,
//                              everybody on this machine
//   KINETREL_ISENSE_CALLS      a file that gets a line for each call
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kinetrel::substitute {

// Empty: not set.
std::string_view Setting(const char* variable);
double NumberSetting(const char* variable, double without);

// One "<name>[@<first>[+<count>]]" of a list with commas.
struct Mishap {
  static constexpr std::uint64_t kAll = ~std::uint64_t{0};

  std::string_view name;
  std::uint64_t first = 0;
  std::uint64_t count = kAll;

  bool Covers(std::uint64_t number) const { return number >= first && number - first < count; }
};

// Takes the first item off `list`; nothing at its end.
std::optional<Mishap> NextMishap(std::string_view& list);

}  // namespace kinetrel::substitute
