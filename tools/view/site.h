// The pages that kinetrel-view has: from a path to an answer. Reads the streams anew for every
// answer, and never waits.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "view/metrics.h"

namespace kinetrel::view {

struct Answer {
  unsigned status = 200;
  std::string type;  // media type
  std::string body;
};

Answer ErrorAnswer(unsigned status, const std::string& sentence);

// path  without the query.
Answer AnswerTo(std::string_view path, const ServerFigures& server);

// The slot of "/api/trackers/3/frames"; none: the path names no stream.
std::optional<int> SlotOfStream(std::string_view path);

}  // namespace kinetrel::view
