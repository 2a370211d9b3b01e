// An engine, as the tracking service's clients on other machines have it.
#pragma once

#include <vector>

#include "rpc/server_session.h"

namespace kinetrel {

class TrackerEngine;

// Each procedure is the engine's operation of the same name. Nothing that a client asks for changes
// the engine, and a mapping that is not there is no entry in the status log: clients ask for one
// they wait for again and again.
//
// Threads  one at a time, beside any that use the engine.
class EngineProcedures final : public rpc::TrackProcedures {
 public:
  explicit EngineProcedures(TrackerEngine& engine) : engine_(engine) {}

  rpc::MappingReply GetMapping(const rpc::TrackKey& key) override;
  rpc::AttributeReply GetAttribute(const rpc::AttributeArguments& arguments) override;
  bool GetFloats(const rpc::FloatsArguments& arguments, std::span<float> values) override;

 private:
  bool HasMapping(const rpc::TrackKey& key);

  TrackerEngine& engine_;
  std::vector<int> keys_;  // room for the mapping list
};

}  // namespace kinetrel
