// The pace of a tracker's frames, from the times of their samples: rate, jitter, gaps, missing
// frames, and the device's clock against this computer's.
//
// Terms    Period: the time between frames at the nominal rate if the tracker keeps that within
//          10 %, otherwise as the first 64 frames show it. Gap: two frames at least 1.5 periods
//          apart. Interruption: two frames more than 1 s and more than 10 periods apart, or of
//          two writers; what is missing there is told as time and not as frames.
// Missing  Each frame gets a place in an even series of periods, which follows the frames slowly.
//          Places without a frame are missing frames. A frame that is held up somewhere and comes
//          with the next one is not missing.
// Memory   constant.
#pragma once

#include <cstdint>
#include <vector>

#include "certify/time_histogram.h"

namespace kinetrel::certify {

// A straight line through points, in sections that are not connected with each other.
class LineFit {
 public:
  void Add(double x, double y);
  void EndSection();

  bool Fits() const { return pooled().points > pooled().sections + 1; }
  double Slope() const { return pooled().xy / pooled().xx; }
  double Residual() const;  // standard deviation of y from the line
  double Length() const { return length_ + (count_ > 1 ? lastX_ - firstX_ : 0.0); }  // in x

 private:
  struct Sums {
    double xx = 0, xy = 0, yy = 0;
    double points = 0, sections = 0;
  };
  Sums pooled() const;  // with the section that is not ended

  Sums sums_;
  double length_ = 0;
  // Of this section.
  double count_ = 0, meanX_ = 0, meanY_ = 0, xx_ = 0, xy_ = 0, yy_ = 0;
  double firstX_ = 0, lastX_ = 0;
};

struct ClockFit {
  bool known = false;
  double hertz = 0;            // of the frames, also of the missing ones, on this computer's clock
  double unevenness = 0;       // s, standard deviation of the sample times from an even pace
  double partsPerMillion = 0;  // faster than nominal; 0 unless KeepsNominal
  double uncertainty = 0;      // ppm: twice the unevenness over the time that was measured
};

class FramePace {
 public:
  explicit FramePace(double nominalHertz = 0) : nominal_(nominalHertz) {}

  void SetNominal(double hertz) { nominal_ = hertz; }

  // The next frame's sample time. One before the last frame's begins a new section.
  void Add(std::int64_t sampleNs);
  // The next frame is another writer's: an interruption however short.
  void Interrupt();
  // Decides on the period with fewer than 64 frames. Call it before the figures are asked.
  void Finish();

  std::uint64_t frames() const { return frames_; }
  double nominal() const { return nominal_; }  // Hz; 0: unknown
  bool KeepsNominal() const;                   // within 10 %
  double period() const { return period_; }    // s; 0: fewer than two frames
  double seconds() const { return seconds_; }  // from the first to the last frame
  double interruptedSeconds() const { return interruptedSeconds_; }
  std::uint64_t interruptions() const { return interruptions_; }
  double DeliveredHertz() const;  // of the whole time
  double RunningHertz() const;    // without the interruptions

  const Spread& intervals() const { return intervals_; }  // s, without gaps
  double IntervalQuantile(double share) const;            // s, without gaps
  double IntervalsBelow(double seconds) const;            // how many, without gaps

  std::uint64_t gaps() const { return gaps_; }
  double longestGap() const { return longestGap_; }  // s
  std::uint64_t Missing() const { return missing_ > 0 ? static_cast<std::uint64_t>(missing_) : 0; }
  double MissingShare() const;  // of all frames, the missing ones included
  // Whether the frames come at a steady rate: a period is known and few frames are missing.
  bool HasPace() const { return period_ > 0 && MissingShare() < 0.5; }

  ClockFit Clock() const;

 private:
  void Decide();
  void Take(std::int64_t sampleNs);
  void BeginSection(std::int64_t sampleNs);
  void Place(std::int64_t sampleNs);
  void EndFits();
  void Follow(double off);  // s, of a frame from its place

  double nominal_;
  std::vector<std::int64_t> first_;  // until the period is decided; kBreak where interrupted
  bool decided_ = false;
  double period_ = 0;

  std::uint64_t frames_ = 0;
  bool hasLast_ = false;
  bool broken_ = false;  // before the next frame
  std::int64_t last_ = 0;
  double seconds_ = 0;
  double interruptedSeconds_ = 0;
  std::uint64_t interruptions_ = 0;
  std::uint64_t intervalsInAll_ = 0;

  Spread intervals_;
  TimeHistogram longer_;  // than the period, by that
  TimeHistogram shorter_;
  std::uint64_t gaps_ = 0;
  double longestGap_ = 0;
  std::int64_t missing_ = 0;

  // The even series: its newest place, from the beginning of the section.
  std::int64_t sectionStart_ = 0;
  double expected_ = 0;  // s, time of that place
  double step_ = 0;      // s, to the next place
  double place_ = 0;
  double counted_ = 0;  // frames of the section, past the first
  LineFit fit_;         // of the time past place * period, in s, over the place
  LineFit countFit_;    // the same over the count
};

}  // namespace kinetrel::certify
