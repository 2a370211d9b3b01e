// Messages as hexadecimal text.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace kinetrel::test {

using Octets = std::vector<std::byte>;

// Reads "0b 00 16"; spaces are ignored.
inline Octets Hex(const std::string& text) {
  Octets bytes;
  std::string digits;
  for (const char c : text) {
    if (c != ' ') digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<std::byte>(std::stoi(digits, nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

inline std::string ToHex(std::span<const std::byte> bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    if (!text.empty()) text += ' ';
    text += kDigits[std::to_integer<int>(byte) >> 4];
    text += kDigits[std::to_integer<int>(byte) & 15];
  }
  return text;
}

inline Octets operator+(Octets first, const Octets& then) {
  first.insert(first.end(), then.begin(), then.end());
  return first;
}

inline Octets Repeated(Octets first, const Octets& next, int times) {
  for (int i = 0; i < times; ++i) first = first + next;
  return first;
}

// A copy with one byte changed.
inline Octets With(Octets bytes, std::size_t at, int value) {
  bytes.at(at) = static_cast<std::byte>(value);
  return bytes;
}

// One session byte for byte, with the key 11, 22, 33.
namespace wire {
inline const Octets kBind =
    Hex("05 00 0b 03 10 00 00 00 48 00 00 00 01 00 00 00 d0 16 d0 16 00 00 00 00 01 00 00 00 00 00 "
        "01 00"
        "f1 7e 52 fa ac b1 eb 48 b7 e3 d2 89 37 84 fa 6f 01 00 01 00 04 5d 88 8a eb 1c c9 11 9f e8 "
        "08 00"
        "2b 10 48 60 02 00 00 00");
inline const Octets kBindAck =
    Hex("05 00 0c 03 10 00 00 00 3c 00 00 00 01 00 00 00 d0 16 d0 16 01 00 00 00 05 00 35 34 33 37 "
        "00 00"
        "01 00 00 00 00 00 00 00 04 5d 88 8a eb 1c c9 11 9f e8 08 00 2b 10 48 60 02 00 00 00");
inline const Octets kBindRefused =
    Hex("05 00 0c 03 10 00 00 00 3c 00 00 00 01 00 00 00 d0 16 d0 16 01 00 00 00 05 00 35 34 33 37 "
        "00 00"
        "01 00 00 00 02 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
inline const Octets kBindNak =
    Hex("05 00 0d 03 10 00 00 00 15 00 00 00 01 00 00 00 04 00 01 05 00");
inline const Octets kRequest20 =
    Hex("05 00 00 03 10 00 00 00 24 00 00 00 02 00 00 00 0c 00 00 00 00 00 14 00"
        "0b 00 00 00 16 00 00 00 21 00 00 00");
inline const Octets kResponse20 =
    Hex("05 00 02 03 10 00 00 00 21 00 00 00 02 00 00 00 09 00 00 00 00 00 00 00"
        "6f 00 00 00 de 00 00 00 01");
inline const Octets kResponse20Wide =
    Hex("05 00 02 03 10 00 00 00 24 00 00 00 02 00 00 00 0c 00 00 00 00 00 00 00"
        "6f 00 00 00 de 00 00 00 01 00 00 00");
inline const Octets kRequest14 =
    Hex("05 00 00 03 10 00 00 00 20 00 00 00 03 00 00 00 08 00 00 00 00 00 0e 00 6f 00 00 00 05 00 "
        "00 00");
inline const Octets kResponse14 =
    Hex("05 00 02 03 10 00 00 00 1d 00 00 00 03 00 00 00 05 00 00 00 00 00 00 00 5b 04 00 00 01");
inline const Octets kRequest37 =
    Hex("05 00 00 03 10 00 00 00 30 00 00 00 04 00 00 00 18 00 00 00 00 00 25 00"
        "0b 00 00 00 16 00 00 00 21 00 00 00 ff ff ff ff 02 00 00 00 03 00 00 00");
inline const Octets kResponse37 =
    Hex("05 00 02 03 10 00 00 00 29 00 00 00 04 00 00 00 11 00 00 00 00 00 00 00"
        "03 00 00 00 00 00 34 41 00 00 00 bf 00 00 30 40 01");
inline const Octets kResponse37Fixed =
    Hex("05 00 02 03 10 00 00 00 25 00 00 00 04 00 00 00 0d 00 00 00 00 00 00 00"
        "00 00 34 41 00 00 00 bf 00 00 30 40 01");
inline const Octets kFault =
    Hex("05 00 03 23 10 00 00 00 20 00 00 00 05 00 00 00 00 00 00 00 00 00 00 00 02 00 01 1c 00 00 "
        "00 00");
}  // namespace wire

}  // namespace kinetrel::test
