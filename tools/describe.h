#ifndef KANDB_TOOLS_DESCRIBE_H_
#define KANDB_TOOLS_DESCRIBE_H_

// One-line readable forms of the cluster records, shared by the client's
// readable output and the inspector. Keys and addresses are quoted and
// escaped (EscapeBytes); an empty range bound shows as -inf or +inf.

#include <string>

#include "pdpb/messages.h"

namespace kandb::tools {

// "\"abc\"", with the bytes escaped.
std::string Quote(const std::string& bytes);
// "[\"a\", \"c\")", "[-inf, \"c\")", "[\"a\", +inf)".
std::string DescribeRange(const std::string& start_key, const std::string& end_key);
// "peer 3 store 1 role 0"
std::string DescribePeer(const pdpb::Peer& peer);
// "store 1 address \"127.0.0.1:20160\" state 0"
std::string DescribeStore(const pdpb::Store& store);
// "region 2 [-inf, +inf) conf_version 1 version 1 peers 1", then one
// indented line per peer when `with_peers`.
std::string DescribeRegion(const pdpb::Region& region, bool with_peers);

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_DESCRIBE_H_
