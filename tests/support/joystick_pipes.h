// A directory of joysticks that the code under test looks into: pipes that carry the records of a
// joystick device.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kinetrel::test {

struct JoystickRecord {
  enum Kind : std::uint8_t {
    Button = 1,
    Axis = 2,
    First = 0x80
  };  // First: how it stood when opened

  std::uint8_t kind = 0;
  std::uint8_t number = 0;
  std::int16_t value = 0;
};

// The bytes that a device sends for these.
std::string BytesOf(const std::vector<JoystickRecord>& records);

// What a device sends first: every button up, every axis in the middle.
std::string AtRest(int buttons, int axes);

class JoystickDirectory {
 public:
  JoystickDirectory();
  ~JoystickDirectory();
  JoystickDirectory(const JoystickDirectory&) = delete;
  JoystickDirectory& operator=(const JoystickDirectory&) = delete;

  std::string Path(const std::string& name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

// A stick that is plugged in as long as the object lives.
class JoystickPipe {
 public:
  JoystickPipe(std::string path, const std::string& firstBytes);
  ~JoystickPipe();
  JoystickPipe(const JoystickPipe&) = delete;
  JoystickPipe& operator=(const JoystickPipe&) = delete;

  void SendBytes(const std::string& bytes) const;
  void Send(const JoystickRecord& record) const { SendBytes(BytesOf({record})); }

 private:
  std::string path_;
  int fd_;
};

}  // namespace kinetrel::test
