// What a measurement found, as JSON, as a page and as text.
#pragma once

#include <cstdint>
#include <string>

#include "certify/measurement.h"
#include "platform/system_facts.h"

namespace kinetrel::certify {

// What the measurement does not know itself.
struct Circumstances {
  int slot = 1;
  std::string began;         // UTC, of the first pose, or of the start if none came
  double asked = 0;          // s
  double watched = 0;        // s, from the first pose
  std::string ending;        // why it ended, as a sentence
  std::string trackerState;  // at the end, in words
  std::string priority;      // of the sampling thread, in words
  std::string version;       // of this program
  SystemFacts machine;
};

std::string CertificateJson(const Measurement& measured, const Circumstances& about);
std::string CertificatePage(const Measurement& measured, const Circumstances& about);

// A paragraph for the methods section of a paper.
std::string MethodsText(const Measurement& measured, const Circumstances& about);

// How long no pose had come when the watching ended, in s; 0: less than a second.
double SilenceAtTheEnd(const Measurement& measured, const Circumstances& about);

// Some lines for the console.
std::string Summary(const Measurement& measured);

}  // namespace kinetrel::certify
