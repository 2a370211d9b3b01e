#include "app/engine_procedures.h"

#include <algorithm>

#include "engine/tracker_engine.h"

namespace kinetrel {
namespace {

constexpr int kThisEngine = 1;  // the service has one, and this is its handle

}  // namespace

bool EngineProcedures::HasMapping(const rpc::TrackKey& key) {
  int count = 0;
  if (!engine_.IsOpen() || !engine_.GetMappingSize(&count)) return false;
  keys_.resize(static_cast<std::size_t>(count) * key.size());
  if (!engine_.GetMappingList(count, keys_.data())) return false;
  for (auto at = keys_.begin(); at != keys_.end(); at += static_cast<std::ptrdiff_t>(key.size())) {
    if (std::equal(key.begin(), key.end(), at)) return true;
  }
  return false;
}

rpc::MappingReply EngineProcedures::GetMapping(const rpc::TrackKey& key) {
  rpc::MappingReply reply;
  reply.found = HasMapping(key) && engine_.GetMapping(key.data(), &reply.sensor);
  if (reply.found) reply.engine = kThisEngine;
  return reply;
}

rpc::AttributeReply EngineProcedures::GetAttribute(const rpc::AttributeArguments& arguments) {
  rpc::AttributeReply reply;
  reply.known = arguments.engine == kThisEngine && engine_.IsOpen() &&
                engine_.GetAttributeInt(arguments.id, &reply.value);
  return reply;
}

bool EngineProcedures::GetFloats(const rpc::FloatsArguments& arguments, std::span<float> values) {
  return HasMapping(arguments.key) &&
         engine_.GetFilterAttributeFloatArray(arguments.key.data(), arguments.filter, arguments.id,
                                              static_cast<int>(values.size()), values.data());
}

}  // namespace kinetrel
