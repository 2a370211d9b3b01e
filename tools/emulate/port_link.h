// A fixed name for a port whose own name changes: a symbolic link.
#pragma once

#include <string>

#include "platform/status.h"

namespace kinetrel {

class PortLink {
 public:
  PortLink() = default;  // of no name: does nothing
  explicit PortLink(std::string path) : path_(std::move(path)) {}
  PortLink(PortLink&& other) noexcept;
  PortLink& operator=(PortLink&&) = delete;
  ~PortLink() { Remove(); }

  // Replaces the link at once: who opens it finds the old port or the new one. An empty target
  // removes it. Invalid: something that is no symbolic link has the name, and keeps it.
  Status Point(const std::string& target);

  const std::string& path() const { return path_; }

 private:
  void Remove();  // unless somebody else has replaced it

  std::string path_;
  std::string target_;
};

}  // namespace kinetrel
