// How a run went, in at most 240 pieces of equal length: when the last is full, each two become
// one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kinetrel::certify {

struct Piece {
  std::uint64_t frames = 0;
  double worstAge = 0;  // s, of a record at this program
};

class TimeLine {
 public:
  static constexpr std::size_t kMostPieces = 240;

  double pieceSeconds() const { return length_; }
  const std::vector<Piece>& pieces() const { return pieces_; }

  // The piece of a moment, in s since the beginning. Valid until the next call.
  Piece& At(double seconds) {
    while (seconds >= length_ * static_cast<double>(kMostPieces)) Halve();
    const auto index = static_cast<std::size_t>(std::max(seconds, 0.0) / length_);
    if (index >= pieces_.size()) pieces_.resize(index + 1);
    return pieces_[index];
  }

 private:
  void Halve() {
    std::vector<Piece> halved((pieces_.size() + 1) / 2);
    for (std::size_t i = 0; i < pieces_.size(); ++i) {
      halved[i / 2].frames += pieces_[i].frames;
      halved[i / 2].worstAge = std::max(halved[i / 2].worstAge, pieces_[i].worstAge);
    }
    pieces_ = std::move(halved);
    length_ *= 2;
  }

  double length_ = 1;  // s
  std::vector<Piece> pieces_;
};

}  // namespace kinetrel::certify
