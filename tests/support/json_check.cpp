#include "tests/support/json_check.h"

#include <cctype>
#include <cstddef>

namespace kinetrel::test {
namespace {

class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : rest_(text) {}
  bool AtEnd() const { return rest_.empty(); }

  bool Value() {
    switch (Peek()) {
      case '{':
        return List('{', '}', [this] { return Text() && Take(':') && Value(); });
      case '[':
        return List('[', ']', [this] { return Value(); });
      case '"':
        return Text();
      default:
        return Word("null") || Word("true") || Word("false") || Number();
    }
  }

 private:
  char Peek() const { return rest_.empty() ? '\0' : rest_.front(); }

  bool Take(char wanted) {
    if (Peek() != wanted || rest_.empty()) return false;
    rest_.remove_prefix(1);
    return true;
  }

  bool Word(std::string_view word) {
    if (!rest_.starts_with(word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }

  template <typename Item>
  bool List(char open, char close, const Item& item) {
    if (!Take(open)) return false;
    if (Take(close)) return true;
    do {
      if (!item()) return false;
    } while (Take(','));
    return Take(close);
  }

  bool Text() {
    if (!Take('"')) return false;
    while (!rest_.empty() && Peek() != '"') {
      const bool escape = Take('\\');
      const char byte = Peek();
      if (byte < 0x20 || byte > 0x7E || (escape && byte != '"' && byte != '\\')) return false;
      rest_.remove_prefix(1);
    }
    return Take('"');
  }

  bool Digits() {
    std::size_t count = 0;
    while (std::isdigit(static_cast<unsigned char>(Peek())) != 0) {
      rest_.remove_prefix(1);
      ++count;
    }
    return count > 0;
  }

  bool Number() {
    Take('-');
    if (!Take('0') && !Digits()) return false;
    if (Take('.') && !Digits()) return false;
    if (!Take('e') && !Take('E')) return true;
    if (!Take('+')) Take('-');
    return Digits();
  }

  std::string_view rest_;
};

}  // namespace

bool IsJson(std::string_view text) {
  JsonReader reader(text);
  return reader.Value() && reader.AtEnd();
}

}  // namespace kinetrel::test
