#include "bridge/line_writer.h"

#include <chrono>
#include <thread>
#include <utility>

namespace kinetrel::bridge {
namespace {

constexpr std::size_t kMostLines = 1000;
constexpr auto kPatience = std::chrono::seconds(1);

}  // namespace

LineWriter::LineWriter(std::FILE* stream) { shared_->stream = stream; }

void LineWriter::Write(const std::string& line) {
  const std::lock_guard held(shared_->mutex);
  if (shared_->finishing || shared_->lines.size() >= kMostLines) {
    ++shared_->leftOut;
    return;
  }
  if (shared_->leftOut > 0) {
    shared_->lines.push_back(std::to_string(std::exchange(shared_->leftOut, 0)) +
                             " lines were left out here\n");
  }
  shared_->lines.push_back(line + "\n");
  if (!shared_->running) {
    shared_->running = true;
    std::thread(&LineWriter::WriteLines, shared_).detach();
  }
  shared_->changed.notify_all();
}

bool LineWriter::Finish() {
  std::unique_lock held(shared_->mutex);
  shared_->finishing = true;
  shared_->changed.notify_all();
  return shared_->changed.wait_for(held, kPatience, [this] { return !shared_->running; });
}

void LineWriter::WriteLines(const std::shared_ptr<Shared>& shared) {
  std::unique_lock held(shared->mutex);
  for (;;) {
    shared->changed.wait(held, [&] { return shared->finishing || !shared->lines.empty(); });
    if (shared->lines.empty()) break;
    const std::string line = std::move(shared->lines.front());
    shared->lines.pop_front();
    held.unlock();
    std::fwrite(line.data(), 1, line.size(), shared->stream);
    std::fflush(shared->stream);
    held.lock();
  }
  shared->running = false;
  shared->changed.notify_all();
}

}  // namespace kinetrel::bridge
