// All options in one table: letters, long names and keys of a configuration file.
//
// The letters came first, and programs rely on how they read their values: a letter stops at the
// first character that does not belong to the number, and ignores some values that it cannot use. A
// long name takes the whole value or refuses it. So a row has a reader of each kind; both store and
// print in the same words.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "app/settings.h"

namespace kinetrel {

// The result of one option.
enum class Outcome {
  Applied,
  Ignored,  // reported, without effect
  Rejected  // ends the parsing
};

struct OptionRow {
  char letter;             // 0: none
  std::string_view name;   // without "--"; empty: only a letter
  std::string_view value;  // its name in the help; empty: a switch, --name or --no-name
  std::string_view help;
  std::string_view expects;        // what a value must be
  std::string_view letterExpects;  // the same of the letter
  std::string_view choices;        // what completion offers, with ' ' between; "FILE": files

  Outcome (*readLetter)(Settings& settings, const std::string& value);  // null: no letter

  // Gets "true" or "false" for a switch. False: ill-formed, and nothing changes; `why` may receive
  // a sentence that says more than `expects`. Null: it asks for something else than a run.
  bool (*read)(Settings& settings, const std::string& value, std::string& why);

  // The value in force as a configuration file has it; empty: it need not stand there. Null: only
  // the command line has the option.
  std::string (*show)(const Settings& settings);

  unsigned audience = ~0U;  // bits of Audience
  bool isList = false;      // may be repeated, and adds; a file has a list

  // Forgets what a file has set and the command line's value is to replace, beside that value.
  void (*forget)(Settings& settings) = nullptr;
};

std::span<const OptionRow> OptionTable();
bool IsFor(const OptionRow& row, Audience audience);

const OptionRow* FindOption(char letter);                               // any case; null: none
const OptionRow* FindOption(std::string_view name, Audience audience);  // without "--"; null: none

// The name among those of the audience that is nearest to `name`, for a person who mistyped it.
// Empty: none is near.
//
// inFile  only the keys of a configuration file.
std::string NearestOption(std::string_view name, Audience audience, bool inFile = false);

// The one of `names` that is nearest to `name`; empty: none is near.
std::string NearestName(std::string_view name, std::span<const std::string_view> names);

}  // namespace kinetrel
