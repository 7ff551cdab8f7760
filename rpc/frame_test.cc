#include "rpc/frame.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "common/coding.h"
#include "crypto/crc32c.h"
#include "rpc/rpc_test_util.h"

namespace kandb::kanrpc {
namespace {

using testing::ExpectStatus;
using testing::MakeSocketPair;
using testing::SendAllOrDie;
using testing::SocketPair;

std::string Fixed32(uint32_t v) {
  std::string s;
  PutFixed32(&s, v);
  return s;
}

// Magic, request type, request id 9 and the method length.
std::string Header(uint16_t method_length) {
  return std::string("KRPC\0\x09\0\0\0\0\0\0\0", 13) + Fixed32(method_length).substr(0, 2);
}

// Writes `bytes`, closes the writing side and reads one frame.
Status ReadFromBytes(const std::string& bytes, bool read_ahead = true) {
  SocketPair pair = MakeSocketPair();
  SendAllOrDie(pair.a.fd(), bytes);
  pair.a.Close();
  Frame f;
  return FrameReader(pair.b.fd(), read_ahead).Read(&f, 5000);
}

TEST(FrameTest, LayoutIsByteExact) {
  const std::string body = std::string("\x01\x01\x02\x03\x04\x05\x06\x07\x08\x06\x00", 11) +
                           "Pd.Tso" + std::string("\x03\0\0\0", 4) + "xyz";
  const std::string expected = "KRPC" + body + Fixed32(crypto::Crc32c(body.data(), body.size()));
  EXPECT_EQ(BuildFrame(FrameType::kResponse, 0x0807060504030201ull, "Pd.Tso", "xyz"), expected);
  std::string out = "prefix";
  AppendFrame(&out, FrameType::kResponse, 0x0807060504030201ull, "Pd.Tso", "xyz");
  EXPECT_EQ(out, "prefix" + expected);

  const std::string empty(std::string("\x02", 1) + std::string(14, '\0'));
  EXPECT_EQ(BuildFrame(FrameType::kError, 0, "", ""),
            "KRPC" + empty + Fixed32(crypto::Crc32c(empty.data(), 15)));
}

// A length over its limit is refused before the announced bytes are waited
// for (the writer stays open, so waiting would end in a time-out), and the
// exact reader leaves the byte after the length unread.
TEST(FrameTest, LengthLimitsRefuseBeforeReadingFurther) {
  const std::pair<std::string, const char*> cases[] = {
      {Header(257) + "X", "kanrpc: method too long"},
      {Header(0) + Fixed32(67108865) + "X", "kanrpc: payload too large"},
  };
  for (bool read_ahead : {false, true}) {
    for (const auto& [bytes, message] : cases) {
      SocketPair pair = MakeSocketPair();
      SendAllOrDie(pair.a.fd(), bytes);
      Frame f;
      ExpectStatus(FrameReader(pair.b.fd(), read_ahead).Read(&f, 5000), 2, message);
      char c = 0;
      if (!read_ahead) {
        EXPECT_EQ(recv(pair.b.fd(), &c, 1, MSG_DONTWAIT), 1);
        EXPECT_EQ(c, 'X');
      }
    }
  }
}

TEST(FrameTest, DamagedAndTornFramesFail) {
  const std::string frame = BuildFrame(FrameType::kRequest, 42, "Pd.Tso", std::string(40, 'p'));
  for (size_t offset = 0; offset < frame.size(); ++offset) {
    // Flipped length bits may instead trip a limit or run out of bytes.
    const bool in_length = (offset >= 13 && offset < 15) || (offset >= 21 && offset < 25);
    for (int bit = 0; bit < 8; ++bit) {
      std::string bad = frame + std::string(4096, '\0');
      bad[offset] ^= static_cast<char>(1 << bit);
      const Status s = ReadFromBytes(bad);
      SCOPED_TRACE(std::to_string(offset) + "/" + std::to_string(bit));
      if (offset < 4) {
        ExpectStatus(s, 2, "kanrpc: bad magic");
      } else if (!in_length) {
        ExpectStatus(s, 2, "kanrpc: frame crc mismatch");
      } else {
        EXPECT_FALSE(s.ok());
      }
    }
  }
  // Before any byte, inside the header, method, payload and crc.
  for (size_t cut : {size_t{0}, size_t{7}, size_t{17}, size_t{40}, frame.size() - 1}) {
    for (bool read_ahead : {false, true}) {
      ExpectStatus(ReadFromBytes(frame.substr(0, cut), read_ahead), 3, "kanrpc: connection closed");
    }
  }
}

TEST(FrameTest, ZeroTimeoutOnIdleSocket) {
  SocketPair pair = MakeSocketPair();
  Frame f;
  ExpectStatus(ReadFrame(pair.b.fd(), &f, 0), 2, "kanrpc: io timeout");
  char c;
  ExpectStatus(ReadExact(pair.b.fd(), &c, 1, 0), 2, "kanrpc: io timeout");
  // A peer announcing the largest payload and stalling costs little memory.
  SendAllOrDie(pair.a.fd(), Header(0) + Fixed32(67108864) + std::string(1000, 'p'));
  FrameReader reader(pair.b.fd());
  ExpectStatus(reader.Read(&f, 100), 2, "kanrpc: io timeout");
  EXPECT_LE(reader.capacity(), 16u * 1024);
}

// A reader lent a shared scratch owns no buffer between frames: only the
// bytes of a partial frame, or of frames not yet taken, are parked in one
// of its own, and the frames come out whole whichever buffer held them.
TEST(FrameTest, SharedScratchLeavesAnIdleReaderWithoutBuffer) {
  SocketPair pair = MakeSocketPair();
  std::vector<char> scratch(64);
  FrameReader reader(pair.b.fd());
  reader.ShareScratch(scratch.data(), scratch.size());
  const std::string small = BuildFrame(FrameType::kRequest, 1, "M", "a");
  const std::string large = BuildFrame(FrameType::kRequest, 2, "M", std::string(200, 'b'));
  auto read = [&reader](uint64_t id) {
    Frame f;
    bool got = false;
    ASSERT_TRUE(reader.ReadAvailable(&f, &got).ok());
    ASSERT_TRUE(got);
    EXPECT_EQ(f.request_id, id);
  };
  SendAllOrDie(pair.a.fd(), small + small.substr(0, 10));
  read(1);
  reader.Park();  // the partial second frame moves out of the scratch
  EXPECT_EQ(reader.buffered(), 10u);
  EXPECT_GT(reader.capacity(), 0u);
  std::fill(scratch.begin(), scratch.end(), 'x');  // another reader's turn
  SendAllOrDie(pair.a.fd(), small.substr(10) + small);
  read(1);
  read(1);
  reader.Park();
  EXPECT_EQ(reader.capacity(), 0u);
  SendAllOrDie(pair.a.fd(), large);
  read(2);  // larger than the scratch
  reader.Park();
  EXPECT_EQ(reader.buffered(), 0u);
  EXPECT_EQ(reader.capacity(), 0u);
  Frame f;
  bool got = true;
  ASSERT_TRUE(reader.ReadAvailable(&f, &got).ok());
  EXPECT_FALSE(got);
}

std::atomic<int> g_sigpipes{0};

// SIGPIPE is counted, not ignored; a plain send afterwards shows the count moves.
TEST(FrameTest, WritingToClosedPeerRaisesNoSigpipe) {
  struct sigaction counting = {}, previous = {};
  counting.sa_handler = [](int) { g_sigpipes.fetch_add(1); };
  ASSERT_EQ(sigaction(SIGPIPE, &counting, &previous), 0);
  SocketPair pair = MakeSocketPair();
  pair.b.Close();
  Status s;
  for (int i = 0; i < 200 && s.ok(); ++i) {  // the first writes may precede the reset
    s = WriteAll(pair.a.fd(), "frame", 5, 1000);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ExpectStatus(WriteAll(pair.a.fd(), "frame", 5, -1), 2, "kanrpc io: Broken pipe");
  EXPECT_EQ(g_sigpipes.load(), 0);
  ASSERT_EQ(send(pair.a.fd(), "x", 1, 0), -1);
  for (int i = 0; i < 1000 && g_sigpipes.load() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(g_sigpipes.load(), 1);
  sigaction(SIGPIPE, &previous, nullptr);
}

// The largest method and payload among mixed sizes, written in odd pieces:
// frames split across receives, buffer compaction and growth.
TEST(FrameTest, LargestAndMixedFramesArriveIntact) {
  uint32_t seed = 12345;
  auto next = [&seed] { return seed = seed * 1103515245u + 12345u; };
  std::vector<std::string> payloads;
  for (int i = 0; i < 200; ++i) {
    payloads.emplace_back(i % 10 == 9 ? next() % (300 * 1024) : next() % 200, '\0');
    for (char& c : payloads.back()) c = static_cast<char>(next() >> 24);
  }
  payloads.emplace_back(67108864, 'L');
  std::string stream;
  for (size_t i = 0; i < payloads.size(); ++i) {
    AppendFrame(&stream, FrameType::kRequest, i, std::string(i == 0 ? 256 : 3, 'm'), payloads[i]);
  }
  SocketPair pair = MakeSocketPair();
  std::thread writer([&] {
    for (size_t done = 0, piece; done < stream.size(); done += piece) {
      piece = std::min<size_t>(stream.size() - done, 1 + (next() >> 8) % 100000);
      if (!WriteAll(pair.a.fd(), stream.data() + done, piece, 10000).ok()) return;
    }
  });
  FrameReader reader(pair.b.fd());
  Frame f;
  for (size_t i = 0; i < payloads.size(); ++i) {
    const Status s = reader.Read(&f, 10000);
    const bool intact = s.ok() && f.request_id == i && f.payload == payloads[i];
    EXPECT_TRUE(intact) << i << ": " << s.ToString();
    if (!intact) break;
  }
  pair.b.Close();
  writer.join();
}

}  // namespace
}  // namespace kandb::kanrpc
