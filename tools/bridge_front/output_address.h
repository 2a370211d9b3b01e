// What the operator writes for one output, and the options in it:
//
//     scheme                              vrpn
//     scheme://host:port/path?key=value&key=value
//                                         osc://192.168.1.20:9000/vmc?sensors=1,3&axes=unity
//
// Every part but the scheme may be missing. An IPv6 address stands in brackets. %41 is the byte 41.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kinetrel::bridge {

struct OutputAddress {
  std::string text;    // as the operator wrote it
  std::string scheme;  // in lower case
  std::string host;    // empty: not given
  std::uint16_t port = 0;
  std::string path;  // without the first slash
  std::vector<std::pair<std::string, std::string>> options;
};

// Fills `address`. Returns what is wrong with the text, empty if nothing is. The text may hold
// anything.
std::string ParseOutputAddress(std::string_view text, OutputAddress& address);

// Reads the options of an address. It keeps the first complaint: a value that does not fit, or at
// the end an option that was never asked for.
class OutputOptions {
 public:
  OutputOptions() = default;
  explicit OutputOptions(OutputAddress address) : address_(std::move(address)) {}

  const OutputAddress& address() const { return address_; }

  // The value of the option; the last one if it was given more than once.
  std::optional<std::string> Find(std::string_view key);

  std::string Text(std::string_view key, std::string_view fallback);
  double Number(std::string_view key, double fallback, double lowest, double highest);
  int Integer(std::string_view key, int fallback, int lowest, int highest);
  bool Flag(std::string_view key, bool fallback);  // yes, no, true, false, on, off, 1, 0
  // The value must be one of the choices. Returns its place.
  std::size_t Choice(std::string_view key, std::size_t fallback,
                     const std::vector<std::string_view>& choices);
  // `count` numbers separated by commas; empty if the option is not there or is wrong.
  std::vector<double> Numbers(std::string_view key, std::size_t count);

  void Complain(const std::string& complaint);

  // The first complaint, or the option that nothing asked for; empty if all is well.
  std::string Complaint() const;

 private:
  void ComplainOf(std::string_view key, const std::string& expected);

  OutputAddress address_;
  std::vector<std::string> asked_;
  std::string complaint_;
};

// The one of `choices` that is spelled most like `word`; empty if none is near.
std::string_view Nearest(std::string_view word, const std::vector<std::string_view>& choices);

}  // namespace kinetrel::bridge
