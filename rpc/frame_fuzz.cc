// Fuzzes the frame reader with arbitrary bytes from a peer: every frame it
// accepts must re-encode to exactly the bytes it consumed, and every refusal
// must be one of the reader's own failures.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "rpc/frame.h"

namespace {

bool KnownFailure(const kandb::Status& s) {
  const std::string& m = s.message();
  return (s.code() == 3 && m == "kanrpc: connection closed") ||
         (s.code() == 2 && (m == "kanrpc: bad magic" || m == "kanrpc: method too long" ||
                            m == "kanrpc: payload too large" || m == "kanrpc: frame crc mismatch"));
}

void Check(const std::string& input, bool read_ahead) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) std::abort();
  // Inputs are kept below the socket buffer, so one write takes them whole.
  if (!input.empty() && write(sv[0], input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
    std::abort();
  }
  shutdown(sv[0], SHUT_WR);
  kandb::kanrpc::FrameReader reader(sv[1], read_ahead);
  kandb::kanrpc::Frame frame;
  size_t offset = 0;
  for (;;) {
    kandb::Status s = reader.Read(&frame, 1000);
    if (!s.ok()) {
      if (!KnownFailure(s)) std::abort();
      break;
    }
    const std::string again =
        kandb::kanrpc::BuildFrame(frame.type, frame.request_id, frame.method, frame.payload);
    if (input.compare(offset, again.size(), again) != 0) std::abort();
    offset += again.size();
  }
  close(sv[0]);
  close(sv[1]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  Check(input, /*read_ahead=*/true);
  Check(input, /*read_ahead=*/false);
  return 0;
}
