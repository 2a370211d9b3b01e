// kinetrel-watch: shows what a running tracker publishes.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "platform/console.h"
#include "platform/signals.h"
#include "program/program.h"
#include "watch/frame_follower.h"
#include "watch/stream_watcher.h"
#include "watch/watch_face.h"
#include "watch/watch_options.h"
#include "watch/watch_view.h"

namespace kinetrel::watch {
namespace {

// One run: from the bin to the face, until there is a reason to end.
class Watcher {
 public:
  // stop  nonzero once the program is to end; must outlive the object.
  Watcher(const WatchOptions& options, const std::atomic<int>& stop);

  // If the result is not Done, standard error says why.
  ExitCode Run();

 private:
  ExitCode Follow();
  std::optional<ExitCode> EndReason(WriteResult written, const Deadline& frameDeadline) const;
  Milliseconds Timeout() const { return options_.timeout.value_or(kForever); }

  const WatchOptions options_;
  const std::atomic<int>& stop_;
  FrameFollower follower_;
  std::unique_ptr<WatchFace> face_;
  std::uint64_t frames_ = 0;
};

// Without frames the program wakes four times a second, to notice a stop request, a key, or a
// writer that has closed.
constexpr Milliseconds kIdleWait{250};

// Of the buffer of the output, which is flushed by hand, one whole frame at a time.
constexpr std::size_t kLargestFrame = 1 << 16;

std::unique_ptr<WatchFace> MakeFace(const WatchOptions& options) {
  std::setvbuf(stdout, nullptr, _IOFBF, kLargestFrame);
  if (options.form == OutputForm::Automatic && EnableTerminalSequences()) {
    return std::make_unique<TableFace>(options);
  }
  return std::make_unique<LineFace>(options);
}

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
  face_.reset();  // restores the terminal before the message
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

// ---- The program --------------------------------------------------------------------------------

ExitCode Serve(const WatchOptions& options) {
  // Never deleted: a late signal may still store into it.
  std::atomic<int>& stop = *new std::atomic<int>(0);
  CatchStopSignals(stop);
  if (options.block) return Watcher(options, stop).Run();
  std::setvbuf(stdout, nullptr, _IOFBF, kLargestFrame);
  const bool table =
      options.form == OutputForm::Automatic && !options.log && EnableTerminalSequences();
  return StreamWatcher(options, stop, table).Run();
}

}  // namespace
}  // namespace kinetrel::watch

int main(int count, char** arguments) {
  using namespace kinetrel::watch;
  return kinetrel::RunProgram("kinetrel-watch", [&] {
    const WatchCommand command = ParseWatchCommand(count, arguments);
    if (!command.ending) return static_cast<int>(Serve(command.options));
    return Print(*command.ending, "kinetrel-watch", static_cast<int>(ExitCode::CannotWrite));
  });
}
