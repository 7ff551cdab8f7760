// The packaged monitoring against the real servers: kandb-meta started with
// the flags of its systemd unit, kandb-meta-ha with those of its defaults
// file (on a real etcd member), both serving /metrics on their status
// ports; every metric name that the Grafana dashboard's queries and the
// Prometheus alert rules use must be among what they export, and every
// panel query must parse (packaging/check_metric_names.py, with promtool).
//
// The shipped command lines name fixed ports, /var/lib and the machine's
// own etcd: the test puts free ports, a scratch directory and its etcd
// member in their place and keeps every other flag as shipped, so a flag
// the servers do not know fails here rather than in systemd.

#include <httplib.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/etcd_test_util.h"
#include "app/meta_server_test_util.h"
#include "common/test_util.h"

namespace kandb::testing {
namespace {

const std::string kPackaging = KANDB_PACKAGING_DIR;

// The words after `prefix` on the line of `text` that starts with it, up to
// `end` (or the line's end): a command line as systemd splits it.
std::vector<std::string> CommandLine(const std::string& text, const std::string& prefix, const std::string& end) {
  const size_t at = text.find("\n" + prefix);
  if (at == std::string::npos) return {};
  const size_t from = at + 1 + prefix.size();
  std::istringstream words(text.substr(from, text.find(end.empty() ? "\n" : end, from) - from));
  std::vector<std::string> out;
  for (std::string word; words >> word;) out.push_back(word);
  return out;
}

// Gives --name=VALUE a new value; false when the command line lacks it.
bool SetFlag(std::vector<std::string>* args, const std::string& name, const std::string& value) {
  const std::string key = "--" + name + "=";
  for (std::string& arg : *args) {
    if (arg.compare(0, key.size(), key) == 0) {
      arg = key + value;
      return true;
    }
  }
  return false;
}

// GET of a status page: the status (0: no answer) and the body.
std::pair<int, std::string> Get(int port, const std::string& path) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(10);
  httplib::Result result = client.Get(path);
  return result ? std::pair(result->status, result->body) : std::pair(0, std::string());
}

TEST(MetricNamesTest, DashboardAndRulesUseOnlyWhatTheServersExport) {
  const ScratchDir dir("kandb-metric-names");

  // kandb-meta, with the unit's flags.
  std::vector<std::string> meta_flags =
      CommandLine(ReadFileOrEmpty(kPackaging + "/kandb-meta.service.in"), "ExecStart=@KANDB_UNIT_BINDIR@/kandb-meta ", "");
  ASSERT_FALSE(meta_flags.empty()) << "no ExecStart line in kandb-meta.service.in";
  const int meta_status_port = PickFreePort();
  ASSERT_TRUE(SetFlag(&meta_flags, "data_dir", dir.File("meta")));
  ASSERT_TRUE(SetFlag(&meta_flags, "status_addr", "127.0.0.1:" + std::to_string(meta_status_port)));
  MetaServer meta;
  ASSERT_TRUE(meta.Start(dir.File("meta"), meta_flags));

  // kandb-meta-ha, with the defaults file's flags, leading on one etcd member.
  EtcdCluster etcd(dir.File("etcd"));
  ASSERT_TRUE(etcd.Start(1));
  std::vector<std::string> ha_flags =
      CommandLine(ReadFileOrEmpty(kPackaging + "/kandb-meta-ha.default"), "KANDB_META_HA_OPTS=\"", "\"");
  ASSERT_FALSE(ha_flags.empty()) << "no KANDB_META_HA_OPTS=\"...\" in kandb-meta-ha.default";
  const int ha_port = PickFreePort();
  const int ha_status_port = PickFreePort();
  ASSERT_TRUE(SetFlag(&ha_flags, "port", std::to_string(ha_port)));
  ASSERT_TRUE(SetFlag(&ha_flags, "etcd", etcd.UrlList()));
  ASSERT_TRUE(SetFlag(&ha_flags, "status_addr", "127.0.0.1:" + std::to_string(ha_status_port)));
  std::vector<std::string> argv = {KANDB_META_HA_BINARY};
  argv.insert(argv.end(), ha_flags.begin(), ha_flags.end());
  ChildProcess ha;
  ASSERT_TRUE(ha.Start(argv));
  ASSERT_TRUE(ha.WaitForOutput("kandb-meta-ha listening on 127.0.0.1:" + std::to_string(ha_port), 30000))
      << ha.Stderr();
  // Healthy once it leads (the only server of its cluster).
  std::pair<int, std::string> health;
  WaitFor(30000, [&] { return (health = Get(ha_status_port, "/health")).first == 200; }, 100);
  ASSERT_EQ(health.first, 200) << health.second << ha.Stderr();

  const auto [meta_status, meta_metrics] = Get(meta_status_port, "/metrics");
  const auto [ha_status, ha_metrics] = Get(ha_status_port, "/metrics");
  ASSERT_EQ(meta_status, 200) << meta.child()->Stderr();
  ASSERT_EQ(ha_status, 200) << ha.Stderr();
  EXPECT_NE(ha_metrics.find("\nkandb_meta_leader 1\n"), std::string::npos) << ha_metrics;
  EXPECT_NE(ha_metrics.find("\nkandb_meta_engine_present 0\n"), std::string::npos) << ha_metrics;
  WriteFileOrDie(dir.File("meta.prom"), meta_metrics);
  WriteFileOrDie(dir.File("ha.prom"), ha_metrics);

  const ProgramResult check = RunProgram(
      {KANDB_PYTHON3, kPackaging + "/check_metric_names.py", "--metrics", dir.File("meta.prom"), "--metrics",
       dir.File("ha.prom"), "--dashboard", kPackaging + "/kandb-meta-dashboard.json", "--rules",
       kPackaging + "/kandb-meta-alerts.yml", "--promtool", KANDB_PROMTOOL},
      60000);
  std::printf("%s", check.out.c_str());
  EXPECT_EQ(ExitCode(check), 0) << check.err;
  ha.Kill(SIGKILL);
  ha.Wait();
  meta.Kill();
}

}  // namespace
}  // namespace kandb::testing
