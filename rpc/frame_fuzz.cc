// Fuzz target: the frame reader fed an arbitrary byte stream, as a
// server's event loop reads what a peer sends.
//
// The input is the whole stream; the peer then closes its side. Frames are
// read until the first failure, twice: by a read-ahead FrameReader (what the
// server and the client use) and by ReadFrame, which never reads past a
// frame. Both must see the same frames and end with the same failure, and
// the frames rebuilt by AppendFrame must be exactly the bytes consumed.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "common/fuzz_util.h"
#include "pdpb/messages.h"
#include "rpc/frame.h"

namespace {

using kandb::Status;
using kandb::kanrpc::Frame;
using kandb::kanrpc::FrameType;

// One end of a socket pair that yields `input` and then end of stream. What
// fits into the socket buffer is written at once; the rest is written by a
// thread, so inputs of any size reach the reader.
class StreamFeed {
 public:
  StreamFeed(const uint8_t* data, size_t size) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
    read_fd_ = fds[0];
    write_fd_ = fds[1];
    const char* p = reinterpret_cast<const char*>(data);
    size_t left = size;
    while (left > 0) {
      const ssize_t n = send(write_fd_, p, left, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n <= 0) break;
      p += n;
      left -= static_cast<size_t>(n);
    }
    if (left == 0) {
      shutdown(write_fd_, SHUT_WR);
      return;
    }
    writer_ = std::thread([this, p, left]() mutable {
      while (left > 0) {
        const ssize_t n = send(write_fd_, p, left, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // the reader gave up and closed its end
        p += n;
        left -= static_cast<size_t>(n);
      }
      shutdown(write_fd_, SHUT_WR);
    });
  }

  ~StreamFeed() {
    // Closing the reading end first unblocks a writer still sending.
    close(read_fd_);
    if (writer_.joinable()) writer_.join();
    close(write_fd_);
  }

  int fd() const { return read_fd_; }

 private:
  int read_fd_ = -1;
  int write_fd_ = -1;
  std::thread writer_;
};

struct Reading {
  std::vector<Frame> frames;
  Status end;
};

// Reads frames until the first failure. Every frame takes at least
// kMinFrameSize bytes, so the loop ends within size / 23 frames.
Reading ReadStream(const uint8_t* data, size_t size, bool read_ahead) {
  StreamFeed feed(data, size);
  Reading reading;
  kandb::kanrpc::FrameReader reader(feed.fd(), read_ahead);
  for (;;) {
    Frame frame;
    Status s = read_ahead ? reader.Read(&frame, -1) : kandb::kanrpc::ReadFrame(feed.fd(), &frame, -1);
    if (!s.ok()) {
      reading.end = s;
      return reading;
    }
    KANDB_FUZZ_CHECK(reading.frames.size() < size / kandb::kanrpc::kMinFrameSize + 1);
    reading.frames.push_back(std::move(frame));
  }
}

bool SameFrame(const Frame& a, const Frame& b) {
  return a.type == b.type && a.request_id == b.request_id && a.method == b.method &&
         a.payload == b.payload;
}

std::vector<std::string> MakeSeeds() {
  using namespace kandb;
  using kanrpc::BuildFrame;
  pdpb::Region region;
  region.id = 2;
  region.start_key = "a";
  region.end_key = "m";
  region.epoch = {1, 3};
  region.peers = {{3, 1, 0}, {4, 2, 1}};
  pdpb::BootstrapRequest bootstrap;
  bootstrap.store = {1, "127.0.0.1:20160", 0};
  bootstrap.region = region;
  pdpb::RegionHeartbeatRequest heartbeat;
  heartbeat.store_id = 1;
  heartbeat.regions.push_back({2, {1, 2}, {2}, {2}});
  heartbeat.region_ids = {7, 9};
  pdpb::GetRegionResponse routed;
  routed.region = region;
  routed.leader = region.peers[0];
  routed.leader_store = bootstrap.store;
  routed.stores = {bootstrap.store};

  std::vector<std::string> seeds = {
      BuildFrame(FrameType::kRequest, 1, "Pd.Tso", pdpb::Encode(pdpb::TsoRequest{10})),
      BuildFrame(FrameType::kRequest, 2, "Pd.AllocId", pdpb::Encode(pdpb::AllocIdRequest{5})),
      BuildFrame(FrameType::kRequest, 3, "Pd.Bootstrap", pdpb::Encode(bootstrap)),
      BuildFrame(FrameType::kRequest, 4, "Pd.GetRegion", pdpb::Encode(pdpb::GetRegionRequest{"b"})),
      BuildFrame(FrameType::kRequest, 5, "Pd.RegionHeartbeat", pdpb::Encode(heartbeat)),
      BuildFrame(FrameType::kResponse, 4, "Pd.GetRegion", pdpb::Encode(routed)),
      BuildFrame(FrameType::kError, 6, "Pd.GetRegion", "NotFound: cluster not bootstrapped"),
      // The smallest frame, and the longest method name accepted.
      BuildFrame(FrameType::kRequest, 0, "", ""),
      BuildFrame(FrameType::kRequest, 7, std::string(kanrpc::kMaxMethodLength, 'm'), "x"),
  };
  // Frames back to back, as a client that pipelines would send them, with a
  // torn frame at the end.
  std::string stream = seeds[0] + seeds[1] + seeds[3];
  stream += seeds[4].substr(0, seeds[4].size() / 2);
  seeds.push_back(stream);
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  kandb::fuzzing::MaybeWriteSeeds(*argc, *argv, MakeSeeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Reading ahead = ReadStream(data, size, /*read_ahead=*/true);
  const Reading exact = ReadStream(data, size, /*read_ahead=*/false);

  KANDB_FUZZ_CHECK(ahead.frames.size() == exact.frames.size());
  for (size_t i = 0; i < ahead.frames.size(); i++) {
    KANDB_FUZZ_CHECK(SameFrame(ahead.frames[i], exact.frames[i]));
  }
  // The stream always ends: in a checked failure or at the peer's close.
  KANDB_FUZZ_CHECK(!ahead.end.ok());
  KANDB_FUZZ_CHECK(ahead.end.ToString() == exact.end.ToString());

  std::string rebuilt;
  for (const Frame& f : ahead.frames) {
    KANDB_FUZZ_CHECK(f.method.size() <= kandb::kanrpc::kMaxMethodLength);
    KANDB_FUZZ_CHECK(f.payload.size() <= kandb::kanrpc::kMaxPayloadLength);
    kandb::kanrpc::AppendFrame(&rebuilt, f.type, f.request_id, f.method, f.payload);
  }
  KANDB_FUZZ_CHECK(rebuilt.size() <= size);
  KANDB_FUZZ_CHECK(rebuilt.empty() || rebuilt.compare(0, rebuilt.size(),
                                                      reinterpret_cast<const char*>(data),
                                                      rebuilt.size()) == 0);
  return 0;
}
