// Recognises a tracker by the bytes that it sends without being asked: pure functions over bytes.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "probe/finding.h"

namespace kinetrel {

// The family whose records `heard` consists of. It may begin and end in the middle of a record, but
// must hold several whole ones in a row; noise has none. The result has no rate.
std::optional<Finding> RecogniseStream(std::span<const std::byte> heard);

// Whether `bytes` were received at a rate that is not the sender's: more of them have a wrong stop
// bit than a bad cable brings about.
//
// framingErrors  that the port's driver counted meanwhile.
bool IsWrongRate(std::size_t bytes, unsigned framingErrors);

}  // namespace kinetrel
