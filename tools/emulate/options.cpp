#include "emulate/options.h"

namespace kinetrel::emulate {
namespace {

const OptionRow* Find(std::string_view name, std::initializer_list<OptionTable> tables) {
  for (const OptionTable table : tables) {
    for (const OptionRow& row : table) {
      if (row.name == name) return &row;
    }
  }
  return nullptr;
}

}  // namespace

std::string DescribeOptions(OptionTable table) {
  constexpr std::size_t kWidth = 26;
  std::string text;
  for (const OptionRow& row : table) {
    std::string left = "  " + std::string(row.name) + " " + std::string(row.value);
    left.resize(std::max(left.size() + 1, kWidth), ' ');
    text += left;
    for (const char letter : row.help) {
      text += letter;
      if (letter == '\n') text += std::string(kWidth, ' ');
    }
    text += '\n';
  }
  return text;
}

OptionValues OptionValues::Parse(std::span<const char* const> arguments,
                                 std::initializer_list<OptionTable> tables) {
  OptionValues values;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    const std::size_t equals = argument.find('=');
    const std::string name(argument.substr(0, equals));
    const OptionRow* const row = Find(name, tables);
    const bool joined = equals != std::string_view::npos;
    if (row == nullptr) {
      values.Refuse("unknown argument '" + std::string(argument) + "'");
    } else if (row->value.empty() && joined) {
      values.Refuse(name + " takes no value");
    } else if (row->value.empty() || joined) {
      values.given_.emplace_back(name, joined ? argument.substr(equals + 1) : "");
    } else if (i + 1 == arguments.size()) {
      values.Refuse(name + " wants a value: " + std::string(row->value));
    } else {
      values.given_.emplace_back(name, arguments[++i]);
    }
  }
  return values;
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
