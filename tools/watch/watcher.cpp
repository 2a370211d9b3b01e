#include "watch/watcher.h"

#include <algorithm>
#include <cstdio>

#include "watch/watch_text.h"

namespace kinetrel {
namespace {

// Without frames the program wakes four times a second: for a stop request, a key, a writer that
// has closed.
constexpr Milliseconds kIdleWait{250};

std::unique_ptr<WatchFace> MakeFace(const WatchOptions& options) {
  // Everything is flushed by hand, a whole frame at a time.
  constexpr std::size_t kLargestFrame = 1 << 16;
  std::setvbuf(stdout, nullptr, _IOFBF, kLargestFrame);
  if (options.form == OutputForm::Automatic && EnableTerminalSequences()) {
    return std::make_unique<TableFace>(options);
  }
  return std::make_unique<LineFace>(options);
}

}  // namespace

Watcher::Watcher(const WatchOptions& options, const std::atomic<int>& stop)
    : options_(options), stop_(stop), follower_(options.slot, options.bin) {}

ExitCode Watcher::Run() {
  const Status opened = follower_.Open();
  if (!opened.Ok()) {
    std::fprintf(stderr, "kinetrel-watch: slot %d, bin %d cannot be opened: %s\n", options_.slot,
                 options_.bin, Describe(opened).c_str());
    return ExitCode::CannotOpen;
  }
  face_ = MakeFace(options_);
  const ExitCode code = Follow();
  if (code == ExitCode::CannotWrite) {
    std::perror("kinetrel-watch: the output cannot be written");
    return code;
  }
  face_->Finish(follower_.snapshot());
  face_.reset();  // the terminal is as it was before anything is said
  if (code == ExitCode::TimedOut) {
    const double seconds = static_cast<double>(Timeout().count()) / 1000;
    std::fprintf(stderr, "kinetrel-watch: no frame for %s s\n", JsonNumber(seconds).c_str());
  }
  return code;
}

ExitCode Watcher::Follow() {
  Deadline frameDeadline(Timeout());
  WriteResult written = face_->Show(follower_.snapshot(), false);
  for (;;) {
    const std::optional<ExitCode> end = EndReason(written, frameDeadline);
    if (end.has_value()) return *end;
    if (face_->WantsEnd()) return ExitCode::Done;
    SleepFor(face_->Rest());
    const bool frame = follower_.Next(std::min(kIdleWait, frameDeadline.Remaining()));
    if (frame) {
      ++frames_;
      frameDeadline = Deadline(Timeout());
    }
    written = face_->Show(follower_.snapshot(), frame);
  }
}

std::optional<ExitCode> Watcher::EndReason(WriteResult written,
                                           const Deadline& frameDeadline) const {
  if (stop_.load() != 0 || written == WriteResult::ReaderGone) return ExitCode::Done;
  if (written == WriteResult::Failed) return ExitCode::CannotWrite;
  if (options_.frames != 0 && frames_ >= options_.frames) return ExitCode::Done;
  if (frameDeadline.Passed()) return ExitCode::TimedOut;
  return {};
}

}  // namespace kinetrel
