// kandb-meta: the metadata and placement server of the cluster.

#include <cstdint>
#include <string>

#include "common/flags.h"

namespace {

int64_t* const FLAGS_port = kandb::DefineInt64Flag("port", 2379, "pd service listen port");
std::string* const FLAGS_bind_addr =
    kandb::DefineStringFlag("bind_addr", "0.0.0.0", "pd service IPv4 listen address");
std::string* const FLAGS_data_dir =
    kandb::DefineStringFlag("data_dir", "./pd-data", "pd state directory");
int64_t* const FLAGS_target_replicas = kandb::DefineInt64Flag(
    "target_replicas", 0,
    "auto-heal: schedule adding replicas until each region reaches this member count "
    "(0 = off; promotion of caught-up learners is always on)");

}  // namespace

int main(int argc, char** argv) {
  kandb::ParseFlags(argc, argv);
  (void)FLAGS_port;
  (void)FLAGS_bind_addr;
  (void)FLAGS_data_dir;
  (void)FLAGS_target_replicas;
  return 0;
}
