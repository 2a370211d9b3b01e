#include "bridge/output.h"

#include <algorithm>

namespace kinetrel::bridge {

const Protocol* FindProtocol(std::string_view scheme, std::string_view path) {
  const auto rows = Protocols();
  const auto found = std::find_if(rows.begin(), rows.end(), [&](const Protocol& row) {
    return row.scheme == scheme && row.path == path;
  });
  return found == rows.end() ? nullptr : &*found;
}

std::string TitleOf(const Protocol& protocol) {
  std::string title(protocol.scheme);
  if (!protocol.path.empty()) title.append("://HOST/").append(protocol.path);
  return title;
}

std::string HostOf(const Feed& feed) {
  const std::string& host = feed.options.address().host;
  return host.empty() ? std::string(feed.protocol->host) : host;
}

std::uint16_t PortOf(const Feed& feed) {
  const std::uint16_t port = feed.options.address().port;
  return port == 0 ? feed.protocol->port : port;
}

void RefuseNumbersPast(Feed& feed, std::string_view key, int first, int limit) {
  const auto count = static_cast<int>(feed.selector.sensors().size());
  if (!feed.selector.ChosenByOperator() || first + count - 1 <= limit) return;
  feed.options.Complain("option " + std::string(key) + " leaves no number for the last sensor; " +
                        "the highest is " + std::to_string(limit));
}

bool OutputCounts::Report(const std::string& trouble) {
  const std::lock_guard lock(mutex_);
  if (trouble_ == trouble) return false;
  trouble_ = trouble;
  return true;
}

bool OutputCounts::Clear() {
  const std::lock_guard lock(mutex_);
  const bool had = !trouble_.empty();
  trouble_.clear();
  return had;
}

std::string OutputCounts::Trouble() const {
  const std::lock_guard lock(mutex_);
  return trouble_;
}

}  // namespace kinetrel::bridge
