// A file that the kernel takes for a joystick device, as far as one can without hardware: it is
// read record by record, answers the questions about name and counts, and fails when unplugged. A
// file system of one file (FUSE); it needs the right to mount.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

namespace kinetrel::test {

class JoystickFile {
 public:
  struct Stick {
    std::string name;
    int buttons = 0;
    int axes = 0;
    bool plugged = true;
  };

  JoystickFile(const std::string& path, Stick stick);
  ~JoystickFile();
  JoystickFile(const JoystickFile&) = delete;
  JoystickFile& operator=(const JoystickFile&) = delete;

  bool mounted() const { return mounted_; }  // false: not permitted here
  void Become(const Stick& stick);
  void Send(const std::string& bytes);  // to the next read
  int openings() const { return openings_; }

 private:
  struct Reply;
  void Serve();
  void Answer(const char* request);
  Reply Open();
  Reply Read(const char* request);
  Reply Ask(const char* request);

  std::string path_;
  int fd_ = -1;
  bool mounted_ = false;
  std::mutex lock_;
  Stick stick_;
  std::string pending_;
  std::atomic<int> openings_{0};
  std::atomic<bool> stop_{false};
  std::thread server_;
};

}  // namespace kinetrel::test
