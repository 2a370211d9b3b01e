#include "emulate/options.h"

#include <CLI/CLI.hpp>

namespace kinetrel::emulate {

void AddOptions(CLI::App& app, OptionTable table, const std::string& group) {
  for (const OptionRow& row : table) {
    const std::string name(row.name);
    const std::string help(row.help);
    CLI::Option* const option = row.value.empty()
                                    ? app.add_flag(name)->description(help)->disable_flag_override()
                                    : app.add_option(name, help)
                                          ->type_name(std::string(row.value))
                                          ->type_size(1)
                                          ->expected(1)
                                          ->allow_extra_args(false)
                                          ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    option->group(group);
  }
}

OptionValues OptionValues::Parse(std::span<const char* const> arguments, OptionTable table) {
  CLI::App app;
  AddOptions(app, table, "Options");
  OptionValues values;
  try {
    app.parse(
        std::vector<std::string>(arguments.rbegin(), arguments.rend()));  // the last one first
    values.Take(app);
  } catch (const CLI::ParseError& error) {
    values.Refuse(error.what());
  }
  return values;
}

void OptionValues::Take(const CLI::App& app) {
  for (const CLI::Option* const option : app.get_options()) {
    for (const std::string& value : option->results())
      given_.emplace_back(option->get_name(), value);
  }
}

std::vector<std::string> OptionValues::All(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [given, value] : given_) {
    if (given == name) values.push_back(value);
  }
  return values;
}

std::string OptionValues::Text(std::string_view name, std::string_view byItself) const {
  const auto values = All(name);
  return values.empty() ? std::string(byItself) : values.back();
}

}  // namespace kinetrel::emulate
