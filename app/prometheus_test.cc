// The status port of the real server as Prometheus meets it: scraped every
// second while clients call Pd.Tso a known number of times, what Prometheus
// stores is exactly what the clients did (the status port's own in-process
// reads are not counted), every scrape is taken whole (a line Prometheus
// cannot parse fails the scrape and turns `up` to 0), and the series carry
// the job and instance labels a dashboard selects on.

#include <unistd.h>

#include <httplib.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "rpc/client.h"

namespace kandb {
namespace {

using nlohmann::json;
using testing::ChildProcess;
using testing::MetaServer;

// Debian's prometheus package; CI installs it with the test dependencies.
constexpr char kPrometheusBinary[] = "/usr/bin/prometheus";
constexpr char kJob[] = "kandb-meta";
// Every wait on Prometheus (its start, a scrape showing a value). A run on
// a quiet machine needs a few seconds of it; the rest is for a loaded one.
constexpr int64_t kDeadlineMs = 90000;
// Between two queries of a poll: a tenth of the scrape interval.
constexpr int kPollPauseMs = 100;

// ---- Prometheus's query API

struct Sample {
  std::map<std::string, std::string> labels;  // __name__ included, when the result has one
  double value = 0;
};

// The samples of an instant-vector answer of /api/v1/query, or why the
// answer is not one. The values come as text: [<time>, "<value>"].
Status ParseVector(const std::string& body, std::vector<Sample>* out) {
  out->clear();
  // Not const: a missing member reads as null instead of undefined.
  json doc = json::parse(body, nullptr, false);
  json* result = doc.is_object() && doc.value("status", "") == "success" && doc["data"].is_object() &&
                         doc["data"].value("resultType", "") == "vector" && doc["data"]["result"].is_array()
                     ? &doc["data"]["result"]
                     : nullptr;
  if (result == nullptr) return Status::Corruption("not an instant vector: " + body);
  for (json& item : *result) {
    if (!item.is_object() || !item["metric"].is_object() || !item["value"].is_array() || item["value"].size() != 2 ||
        !item["value"][1].is_string()) {
      return Status::Corruption("a sample without labels or value: " + item.dump());
    }
    Sample sample;
    for (const auto& [name, label] : item["metric"].items()) {
      sample.labels[name] = label.is_string() ? label.get<std::string>() : label.dump();
    }
    sample.value = std::strtod(item["value"][1].get<std::string>().c_str(), nullptr);
    out->push_back(std::move(sample));
  }
  return Status::OK();
}

// The value of an answer holding exactly one sample.
std::optional<double> OnlyValue(const std::vector<Sample>& samples) {
  if (samples.size() != 1) return std::nullopt;
  return samples[0].value;
}

std::string Describe(const std::vector<Sample>& samples) {
  std::string out;
  for (const Sample& s : samples) out += std::to_string(s.value) + " ";
  return "[" + out + "]";
}

// A Prometheus server on 127.0.0.1, a free port and a scratch directory of
// its own, scraping one target every second. Killed with the object.
class Prometheus {
 public:
  // Starts scraping `target` (HOST:PORT, path /metrics) as job kJob, and
  // waits until the server says it is ready. On failure the reason has been
  // added as a test failure.
  bool Start(const std::string& target) {
    if (access(kPrometheusBinary, X_OK) != 0) {
      ADD_FAILURE() << "no Prometheus at " << kPrometheusBinary
                    << ": install Debian's prometheus package (scripts/deps.sh test does)";
      return false;
    }
    // The scrape time-out must not exceed the interval.
    testing::WriteFileOrDie(dir_.File("prometheus.yml"),
                            "global:\n"
                            "  scrape_interval: 1s\n"
                            "  scrape_timeout: 1s\n"
                            "scrape_configs:\n"
                            "  - job_name: " + std::string(kJob) + "\n"
                            "    static_configs:\n"
                            "      - targets: ['" + target + "']\n");
    port_ = testing::PickFreePort();
    if (!child_.Start({kPrometheusBinary, "--config.file=" + dir_.File("prometheus.yml"),
                       "--storage.tsdb.path=" + dir_.File("data"),
                       "--web.listen-address=127.0.0.1:" + std::to_string(port_)}) ||
        !WaitReady()) {
      ADD_FAILURE() << "Prometheus did not become ready: " << child_.Stderr();
      return false;
    }
    return true;
  }

  // Evaluates `promql` now, through the HTTP API as a dashboard would.
  Status Query(const std::string& promql, std::vector<Sample>* out) const {
    httplib::Client client("127.0.0.1", port_);
    client.set_connection_timeout(10);
    client.set_read_timeout(30);
    const httplib::Result res = client.Post("/api/v1/query", httplib::Params{{"query", promql}});
    if (!res) return Status::Unavailable("prometheus: " + httplib::to_string(res.error()));
    if (res->status != 200) {
      return Status::Corruption("prometheus answered " + std::to_string(res->status) + ": " + res->body);
    }
    return ParseVector(res->body, out);
  }

  // Queries until `done` holds for the answer; false at kDeadline. *last is
  // the last answer, *why the last failure to get one.
  bool PollUntil(const std::string& promql, const std::function<bool(const std::vector<Sample>&)>& done,
                 std::vector<Sample>* last, std::string* why) const {
    return testing::WaitFor(kDeadlineMs, [&] {
      const Status s = Query(promql, last);
      if (!s.ok()) *why = s.ToString();
      return s.ok() && done(*last);
    }, kPollPauseMs);
  }

  // Polls until `promql` has exactly one sample, with the value `want`.
  bool PollForValue(const std::string& promql, double want, std::string* why) const {
    std::vector<Sample> last;
    const bool found = PollUntil(
        promql, [want](const std::vector<Sample>& s) { return OnlyValue(s) == want; }, &last, why);
    if (!found) *why = "last answer " + Describe(last) + (why->empty() ? "" : "; " + *why);
    return found;
  }

  std::string Stderr() const { return child_.Stderr(); }

 private:
  bool WaitReady() {
    bool ended = false;
    return testing::WaitFor(kDeadlineMs, [&] {
      if ((ended = child_.Wait(0) != -1)) return true;
      httplib::Client client("127.0.0.1", port_);
      client.set_connection_timeout(2);
      client.set_read_timeout(5);
      const httplib::Result res = client.Get("/-/ready");
      return res && res->status == 200;
    }, kPollPauseMs) && !ended;
  }

  int port_ = 0;
  const testing::ScratchDir dir_{"kandb-prometheus"};
  ChildProcess child_;  // killed (SIGKILL) and reaped before dir_ goes
};

std::string Series(const std::string& name, const std::string& more_labels = "") {
  return name + "{job=\"" + kJob + "\"" + (more_labels.empty() ? "" : "," + more_labels) + "}";
}

// ---- The load: a known number of timestamp calls

constexpr int kLoadThreads = 4;
constexpr int kCallsPerThread = 2000;
constexpr int kHalfCalls = kLoadThreads * kCallsPerThread / 2;
constexpr int kAllCalls = kLoadThreads * kCallsPerThread;
constexpr int kCallTimeoutMs = 60000;

// kLoadThreads clients, each calling Pd.Tso kCallsPerThread times with one
// attempt per call (a retry would be a call the server counts and the test
// does not). All of them stop half-way until `go`, so that a scrape is sure
// to fall in the middle of the load. Released and joined with the object.
struct TsoLoad {
  explicit TsoLoad(const std::string& target) {
    for (int t = 0; t < kLoadThreads; t++) {
      threads.emplace_back([this, target] {
        kanrpc::RpcClient client(target, kanrpc::RpcClientOptions{kCallTimeoutMs, 1});
        for (int i = 0; i < kCallsPerThread; i++) {
          if (i == kCallsPerThread / 2) {
            halfway++;
            go.wait(false);
          }
          pdpb::TsoResponse tso;
          const Status s = client.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
          if (!s.ok()) failures++;
        }
        finished++;
      });
    }
  }
  ~TsoLoad() {
    Release();
    for (std::thread& t : threads) t.join();
  }
  void Release() {
    go = true;
    go.notify_all();
  }

  std::atomic<int> halfway{0}, finished{0}, failures{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
};

TEST(PrometheusTest, ScrapesShowExactlyTheCallsClientsMade) {
  const testing::ScratchDir dir("kandb-prom-meta");
  MetaServer server;
  server.set_status_port(true);
  ASSERT_TRUE(server.Start(dir.File("state")));
  const std::string instance = "127.0.0.1:" + std::to_string(server.status_port());
  Prometheus prometheus;
  ASSERT_TRUE(prometheus.Start(instance));
  const int64_t started = testing::SteadyMs();

  const std::string tso = Series("kandb_meta_requests_total", "method=\"Pd.Tso\"");
  std::string why;
  // Scraped, and the counter is there before the first call.
  ASSERT_TRUE(prometheus.PollForValue(Series("up"), 1, &why))
      << why << "\nPrometheus said: " << prometheus.Stderr();
  ASSERT_TRUE(prometheus.PollForValue(tso, 0, &why)) << why;

  TsoLoad load(server.target());
  // While calls run, every value scraped lies between the last one seen
  // and what the clients have sent by then: never lower, never ahead.
  double previous = 0;
  int mid_load_values = 0;
  std::vector<Sample> samples;
  auto watch_until = [&](const std::atomic<int>& threads_done, double most) {
    for (; threads_done < kLoadThreads; testing::SleepMs(kPollPauseMs)) {
      if (!prometheus.Query(tso, &samples).ok() || !OnlyValue(samples)) continue;
      EXPECT_GE(*OnlyValue(samples), previous);
      EXPECT_LE(*OnlyValue(samples), most);
      previous = *OnlyValue(samples);
      mid_load_values++;
    }
  };
  watch_until(load.halfway, kHalfCalls);
  // Once all stand half-way, a scrape shows exactly that.
  ASSERT_TRUE(prometheus.PollUntil(
      tso, [](const std::vector<Sample>& s) { return OnlyValue(s) == kHalfCalls; }, &samples, &why))
      << "the scrapes never showed the half-way count " << kHalfCalls << ": " << Describe(samples) << " " << why;
  mid_load_values++;
  // The labels a dashboard selects on: the scrape's job and instance, and
  // the server's own method label.
  const std::map<std::string, std::string> want_labels = {
      {"__name__", "kandb_meta_requests_total"}, {"job", kJob}, {"instance", instance}, {"method", "Pd.Tso"}};
  EXPECT_EQ(samples[0].labels, want_labels);

  // The second halves.
  previous = kHalfCalls;
  load.Release();
  watch_until(load.finished, kAllCalls);
  ASSERT_EQ(load.failures, 0);

  // After the load: exactly the calls made. The scrapes themselves call
  // Pd.Stats in process, uncounted.
  ASSERT_TRUE(prometheus.PollForValue(tso, kAllCalls, &why)) << why;
  ASSERT_TRUE(prometheus.Query(Series("kandb_meta_requests_total", "method=\"Pd.Stats\""), &samples).ok());
  EXPECT_EQ(OnlyValue(samples), 0) << Describe(samples);
  // The latency histogram counts the same calls.
  ASSERT_TRUE(
      prometheus.Query(Series("kandb_meta_request_duration_seconds_count", "method=\"Pd.Tso\""), &samples).ok());
  EXPECT_EQ(OnlyValue(samples), kAllCalls) << Describe(samples);
  // Every scrape so far succeeded.
  ASSERT_TRUE(prometheus.Query("min_over_time(" + Series("up") + "[10m])", &samples).ok());
  EXPECT_EQ(OnlyValue(samples), 1) << "a scrape failed: " << Describe(samples);
  ASSERT_TRUE(prometheus.Query("count_over_time(" + Series("up") + "[10m])", &samples).ok());
  std::printf("prometheus: %d calls seen exactly after %.1f s, %d values read during the load, %.0f scrapes\n",
              kAllCalls, (testing::SteadyMs() - started) / 1000.0, mid_load_values,
              OnlyValue(samples).value_or(0));

  EXPECT_EQ(server.child()->Stderr(), "");
  server.Kill();
}

}  // namespace
}  // namespace kandb
