#include "program/command_line.h"

#include <charconv>
#include <memory>

#include "platform/version.h"

namespace kinetrel {
namespace {

constexpr int kBadArguments = 2;
constexpr std::size_t kHelpColumn = 26;

// An option's line has its names and the name of its value. The rest is for its help to say.
class Layout final : public CLI::Formatter {
 public:
  Layout() {
    column_width(kHelpColumn);
    label("Positionals", "Arguments");
  }

  std::string make_option_opts(const CLI::Option* option) const override {
    if (!option->get_option_text().empty()) return " " + option->get_option_text();
    if (option->get_positional() || option->get_type_size() == 0) return "";
    return option->get_type_name().empty() ? "" : " " + option->get_type_name();
  }
};

std::string Shown(double number) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, number, std::chars_format::fixed).ptr;
  return {text, end};
}

template <typename Number>
CLI::Validator Between(Number least, Number most, const std::string& words) {
  return {[=](const std::string& text) {
            Number value{};
            const auto [end, error] =
                std::from_chars(text.data(), text.data() + text.size(), value);
            const bool whole = error == std::errc() && end == text.data() + text.size();
            if (whole && value >= least && value <= most) return std::string();
            return "wants a number " + words + ", not '" + text + "'";
          },
          ""};
}

}  // namespace

ToolCommandLine::ToolCommandLine(const std::string& program, const std::string& about,
                                 const std::string& foot)
    : CLI::App(about + "\n", program) {
  footer(foot);
  formatter(std::make_shared<Layout>());
  option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  set_help_flag("--help", "print this and end");
  set_version_flag("--version", VersionText(program.c_str()), "print the version and end");
}

std::optional<Ending> ToolCommandLine::Read(int count, const char* const* arguments) {
  try {
    parse(count, arguments);
  } catch (const CLI::CallForHelp&) {
    return Ending{0, help()};
  } catch (const CLI::CallForVersion&) {
    return Ending{0, version()};
  } catch (const CLI::ExtrasError&) {
    return Mistake("unknown argument '" + remaining(true).front() + "'");
  } catch (const CLI::ParseError& error) {
    return Mistake(error.what());
  }
  return std::nullopt;
}

Ending ToolCommandLine::Mistake(const std::string& complaint) const {
  return {kBadArguments,
          get_name() + ": " + Printable(complaint) + " (see " + get_name() + " --help)\n"};
}

CLI::Validator NumberFrom(int least, int most) {
  return Between(least, most, "from " + std::to_string(least) + " to " + std::to_string(most));
}

CLI::Validator NumberFrom(double least, double most) {
  return Between(least, most, "from " + Shown(least) + " to " + Shown(most));
}

}  // namespace kinetrel
