// The writer of a device number's bins, for the sampling thread. It never depends on a client:
// every wait for a bin's mutex has a bound.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "publish/shared_track_memory.h"

namespace kinetrel {

// What the writer found out about the mutex of a bin.
struct BinNews {
  enum class Kind {
    Held,         // another program holds it; the bin is skipped
    Free,         // and is over
    TakenBack,    // its owner was not found; the writer took it
    Repaired,     // other programs could not lock it; the writer repaired it
    Overwritten,  // another program wrote into it while the writer held it
  };
  Kind kind;
  int bin;
  int process = 0;       // Held: the other program's; 0: not known
  double seconds = 0.0;  // Free, TakenBack: how long the bin was skipped
};

class SharedTrackWriter final : public SharedTrackMemory {
 public:
  // How long a bin's mutex is waited for. While the same program keeps it, later calls only try.
  static constexpr Milliseconds kPatience{100};
  // A mutex that names an owner which is not found is taken back after this time.
  static constexpr Milliseconds kMissingOwnerPatience{5000};

  SharedTrackWriter(int device, int bins) : SharedTrackMemory(device, bins) {}
  ~SharedTrackWriter() override;  // as CloseAll

  // Also stamps the block's sampleTime with this writer's time.
  bool Lock(Milliseconds timeout) override;

  // Locks the current bin for the sampling thread. False: another program holds it, and the caller
  // skips the bin this time. See TakeNews.
  bool Enter();

  // Unlocks what Enter locked.
  void Leave();

  // What Enter and Leave found out, each thing once. At most one entry a bin and second.
  std::optional<BinNews> TakeNews();

  // Opens the bin and initialises its block, whatever it held, with the writer present. If another
  // program holds the mutex, the block is initialised when the bin is locked for the first time.
  bool OpenBin(int bin) override;

  // Tells the readers of every bin that the writer has gone, then closes. Takes at most 2 s.
  bool CloseAll() override;

  // Closes the bins and leaves their blocks as they are: a newer writer of this process has them.
  void CloseForSuccessor();

  // Another live process writes a bin of this device number too; known once bins are opened.
  bool rivalPresent() const { return rivalPresent_; }

 private:
  // How a bin's mutex stands with the other programs. Times are readings of ClockTicks().
  struct Standing {
    bool held = false;
    bool told = false;           // that it is held
    bool initialiseDue = false;  // the block was not initialised when the bin was opened
    std::uint32_t owner = 0;     // as the mutex named it at the last try
    std::int64_t heldSince = 0;
    std::int64_t ownerSince = 0;
    std::int64_t nextSearch = 0;  // for the owner
    std::int64_t nextNews = 0;
  };

  bool LockInitialised(Milliseconds timeout);
  bool NoteFailure(Standing& standing);
  bool TakeFromMissingOwner(Standing& standing, MutexOwner::Evidence evidence, std::int64_t now);
  void NoteSuccess(Standing& standing);
  bool AddNews(Standing& standing, BinNews news);
  Standing& standing() { return standings_[static_cast<std::size_t>(currentBin())]; }

  std::array<Standing, kSharedBins> standings_;
  std::optional<BinNews> news_;
  bool rivalPresent_ = false;
};

}  // namespace kinetrel
