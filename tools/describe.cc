#include "tools/describe.h"

#include "tools/text.h"

namespace kandb::tools {

// Built by appending: GCC 12 at -O3 warns (-Wrestrict) about a literal
// prepended to a temporary string.
std::string Quote(const std::string& bytes) {
  std::string text(1, '"');
  text += EscapeBytes(bytes);
  text += '"';
  return text;
}

std::string DescribeRange(const std::string& start_key, const std::string& end_key) {
  std::string text(1, '[');
  text += start_key.empty() ? std::string("-inf") : Quote(start_key);
  text += ", ";
  text += end_key.empty() ? std::string("+inf") : Quote(end_key);
  text += ')';
  return text;
}

std::string DescribePeer(const pdpb::Peer& peer) {
  return "peer " + std::to_string(peer.id) + " store " + std::to_string(peer.store_id) + " role " +
         std::to_string(peer.role);
}

std::string DescribeStore(const pdpb::Store& store) {
  return "store " + std::to_string(store.id) + " address " + Quote(store.address) + " state " +
         std::to_string(store.state);
}

std::string DescribeRegion(const pdpb::Region& region, bool with_peers) {
  std::string text = "region " + std::to_string(region.id) + " " +
                     DescribeRange(region.start_key, region.end_key) + " conf_version " +
                     std::to_string(region.epoch.conf_version) + " version " +
                     std::to_string(region.epoch.version) + " peers " +
                     std::to_string(region.peers.size());
  if (with_peers) {
    for (const pdpb::Peer& peer : region.peers) text += "\n  " + DescribePeer(peer);
  }
  return text;
}

}  // namespace kandb::tools
