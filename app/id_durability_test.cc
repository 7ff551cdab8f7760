// Identifiers survive crashes: several clients allocate while the server is
// killed with SIGKILL at random moments, over several restarts. No
// identifier may ever be handed out twice, every one handed out lies below
// the mark persisted in the state directory, and after each restart the
// numbering resumes exactly at that mark.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "common/coding.h"
#include "common/test_util.h"
#include "meta/keys.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"

namespace kandb {
namespace {

struct Batch {
  uint64_t first;
  uint32_t count;
};

// The persisted high-water mark, read the way the server reads it, after
// the server is gone.
uint64_t ReadMark(const std::string& state_dir) {
  std::unique_ptr<store::MetaStore> state;
  Status s = store::MetaStore::Open(state_dir, "", 1, &state);
  EXPECT_TRUE(s.ok()) << s.ToString();
  if (!s.ok()) return 0;
  std::string value;
  bool found = false;
  s = state->Get(meta::kIdAllocKey, &value, &found);
  EXPECT_TRUE(s.ok() && found && value.size() == 8) << s.ToString();
  return value.size() == 8 ? DecodeFixed64(value.data()) : 0;
}

Status Alloc(kanrpc::RpcClient* client, uint32_t count, Batch* batch) {
  pdpb::AllocIdRequest req;
  req.count = count;
  pdpb::AllocIdResponse resp;
  Status s = client->Call("Pd.AllocId", req, &resp);
  if (s.ok()) *batch = Batch{resp.first_id, resp.count};
  return s;
}

TEST(IdDurabilityTest, NoIdentifierTwiceAcrossKillsAndNumberingResumesAtTheMark) {
  const std::string dir = testing::MakeTempDir("kandb-ids");
  const std::string state = dir + "/state";
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);

  // A fresh directory starts at 1024 and persists 1025 + 1000 before answering.
  {
    testing::MetaServer server;
    ASSERT_TRUE(server.Start(state));
    Batch b{};
    ASSERT_TRUE(Alloc(server.NewClient().get(), 1, &b).ok());
    EXPECT_EQ(b.first, 1024u);
    server.Kill();
  }
  uint64_t mark = ReadMark(state);
  EXPECT_EQ(mark, 2025u);

  std::set<uint64_t> handed_out = {1024};
  constexpr int kRestarts = 4;
  constexpr int kClients = 4;
  for (int round = 0; round < kRestarts; round++) {
    SCOPED_TRACE("round " + std::to_string(round));
    testing::MetaServer server;
    ASSERT_TRUE(server.Start(state));
    std::vector<std::vector<Batch>> got(kClients + 1);
    {
      Batch b{};
      ASSERT_TRUE(Alloc(server.NewClient().get(), 1, &b).ok());
      EXPECT_EQ(b.first, mark);  // resumes at the persisted mark
      got[kClients].push_back(b);
    }

    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; c++) {
      const unsigned client_seed = static_cast<unsigned>(rng());
      clients.emplace_back([&, c, client_seed] {
        std::mt19937 local(client_seed);
        auto client = server.NewClient();
        // Until the server dies under us: any failure ends this client.
        for (;;) {
          Batch b{};
          if (!Alloc(client.get(), static_cast<uint32_t>(1 + local() % 60), &b).ok()) return;
          got[c].push_back(b);
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 180));
    server.Kill();
    for (std::thread& t : clients) t.join();

    const uint64_t new_mark = ReadMark(state);
    EXPECT_GT(new_mark, mark);
    size_t answered = 0;
    for (const auto& list : got) {
      for (const Batch& b : list) {
        for (uint64_t id = b.first; id < b.first + b.count; id++) {
          EXPECT_LT(id, new_mark);
          EXPECT_TRUE(handed_out.insert(id).second) << "identifier " << id << " handed out twice";
          answered++;
        }
      }
    }
    EXPECT_GT(answered, 1u);
    mark = new_mark;
  }
  testing::RemoveTree(dir);
}

}  // namespace
}  // namespace kandb
