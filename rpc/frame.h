#ifndef KANDB_RPC_FRAME_H_
#define KANDB_RPC_FRAME_H_

// Frames: the unit of traffic on a kanrpc connection, and the blocking socket
// I/O with per-wait time-outs that both the server and the client use.
//
// Layout (little-endian; M = method length, P = payload length):
//   0       4  magic "KRPC"
//   4       1  type (FrameType)
//   5       8  request id
//   13      2  method length, at most kMaxMethodLength
//   15      M  method name
//   15+M    4  payload length, at most kMaxPayloadLength
//   19+M    P  payload
//   19+M+P  4  CRC-32C of bytes [4, 19+M+P): type through payload
//
// Failures and their codes: "kanrpc: connection closed" is code 3 (NotFound);
// every other transport failure is code 2 (Corruption). A failed read leaves
// the connection at an unknown position; callers close it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "common/status.h"
#include "rpc/transport.h"

namespace kandb::kanrpc {

enum class FrameType : uint8_t {
  kRequest = 0,
  kResponse = 1,  // a successful answer; the payload is the encoded response
  kError = 2,     // a failed call; the payload is the failure's text
};

inline constexpr char kFrameMagic[4] = {'K', 'R', 'P', 'C'};
// Magic, type, request id and method length: what precedes the method name.
inline constexpr size_t kFrameHeaderSize = 15;
inline constexpr size_t kFrameCrcSize = 4;
// Empty method and empty payload: header, payload length and crc.
inline constexpr size_t kMinFrameSize = kFrameHeaderSize + 4 + kFrameCrcSize;
// The two limits bound what a peer can make a reader buffer before the
// checksum is verified.
inline constexpr size_t kMaxMethodLength = 256;
inline constexpr size_t kMaxPayloadLength = size_t{64} << 20;

// A decoded frame. The type byte is kept as read; it may hold a value that
// names no FrameType (the client rejects those).
struct Frame {
  FrameType type = FrameType::kRequest;
  uint64_t request_id = 0;
  std::string method;
  std::string payload;
};

// Appends one complete frame to *dst, so that it can be written with a single
// WriteAll. Requires method.size() <= kMaxMethodLength and payload.size() <=
// kMaxPayloadLength (a longer frame would be refused by every reader).
void AppendFrame(std::string* dst, FrameType type, uint64_t request_id, const std::string& method,
                 const std::string& payload);
// The frame as one new buffer; see AppendFrame.
std::string BuildFrame(FrameType type, uint64_t request_id, const std::string& method,
                       const std::string& payload);

// Time-outs: a negative timeout_ms blocks without limit; otherwise it bounds
// each single wait for the socket to become ready, not the whole transfer.

// Sends data[0, n) completely. Never raises SIGPIPE on a closed peer.
Status WriteAll(int fd, const char* data, size_t n, int timeout_ms);
// Receives exactly n bytes into buf, never more.
Status ReadExact(int fd, char* buf, size_t n, int timeout_ms);

// Checks and decodes the frame at the start of p[0, n), in wire order as far
// as the bytes go: magic, method length, payload length, crc. When the frame
// is whole, fills *frame and sets *size to its length; when it is not, sets
// *size to 0 and *need to the byte count that the next check needs. Fails
// (Corruption) only on bytes that can never become a valid frame.
Status ParseFrame(const char* p, size_t n, Frame* frame, size_t* size, size_t* need);

// Reads frames from one connection. In read-ahead mode each receive takes as
// many bytes as the socket holds (up to the buffer's free space), so a request
// that arrived whole costs one receive, and frames sent back to back are
// parsed out of the buffer without further system calls. Without read-ahead
// it never consumes a byte past the frame it returns.
//
// The checks run in wire order as soon as their bytes are present: magic,
// method length, payload length, crc. A length over its limit is refused
// before any byte it announces is waited for. The buffer grows with the bytes
// that actually arrived, so a peer that announces 64 MiB and stalls costs
// little memory.
//
// Not thread-safe; one reader per connection, used by one thread at a time.
class FrameReader {
 public:
  // Reads a plain socket.
  explicit FrameReader(int fd, bool read_ahead = true);
  // Reads through `transport`, which outlives the reader or its next Reset.
  explicit FrameReader(Transport* transport, bool read_ahead = true);
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // Reads and checks the next frame into *frame, which is left untouched on
  // failure. After a failure the connection's position is unknown: close it,
  // or Reset the reader onto a new connection.
  Status Read(Frame* frame, int timeout_ms);

  // For a socket polled for readiness: returns the next frame in *frame with
  // *got true when the buffer holds one or the bytes the socket has ready
  // complete one; *got false when it needs more than has arrived. Never
  // blocks, whatever the socket's mode. Failures as Read.
  Status ReadAvailable(Frame* frame, bool* got);

  // Starts over on another (or the same, reconnected) socket or transport,
  // dropping every buffered byte.
  void Reset(int fd);
  void Reset(Transport* transport);

  // For a server whose one thread serves many connections: from now on
  // ReadAvailable receives into `scratch` (`size` bytes, shared by every
  // reader that thread serves, and outliving this reader) whenever the
  // reader holds no unread byte, so that a connection between requests
  // holds no receive buffer at all. The thread must Park this reader before
  // another reader uses the scratch.
  void ShareScratch(char* scratch, size_t size);
  // Moves the unread bytes left in the scratch into a buffer of the
  // reader's own, and releases that buffer once nothing in it is unread.
  void Park();

  // For a socket watched by edge-triggered readiness: once a receive took
  // less than it asked of a transport whose short receives drain it,
  // ReadAvailable returns no further frame without a receive (which would
  // only find the socket empty) until MarkReadable, which the watcher
  // calls on every readiness event of the socket. A frame that is then
  // incomplete waits for the event that its next bytes bring. A short
  // receive says nothing of a close already queued behind the bytes: once
  // an event tells the peer closed or failed (`peer_closed`), every read
  // goes on until the socket says so.
  void TrackReadiness() { track_readiness_ = true; }
  void MarkReadable(bool peer_closed) {
    drained_ = false;
    if (peer_closed) track_readiness_ = false;
  }

  // Bytes received but not yet returned as part of a frame.
  size_t buffered() const { return end_ - start_; }
  // Size of the receive buffer the reader owns (a shared scratch is not
  // counted), for tests of the growth and release policy.
  size_t capacity() const { return own_capacity_; }

 private:
  // Receives until at least `need` unread bytes are buffered.
  Status Fill(size_t need, int timeout_ms);
  // Parses the buffered bytes: *got true (and the frame consumed) when they
  // hold a whole frame, else *need is what the next check needs.
  Status TakeBuffered(Frame* frame, bool* got, size_t* need);
  // Drops a drained buffer's read position, and the buffer itself when a
  // large frame grew it.
  void ReleaseIfDrained();
  // Makes free space after end_, compacting or growing towards `need`.
  void MakeRoom(size_t need);
  // With nothing unread: receives next into the scratch, if shared, else
  // into the reader's own buffer.
  void StartOver();

  // The plain socket's, when the reader was given one.
  std::unique_ptr<Transport> own_transport_;
  Transport* transport_;
  const bool read_ahead_;
  // The buffer bytes are received into: the reader's own, or the shared
  // scratch (only between a ShareScratch and the next Park).
  char* buf_ = nullptr;
  size_t capacity_ = 0;
  size_t start_ = 0;  // first unread byte
  size_t end_ = 0;    // one past the last received byte
  std::unique_ptr<char[]> own_;
  size_t own_capacity_ = 0;
  char* scratch_ = nullptr;
  size_t scratch_size_ = 0;
  bool track_readiness_ = false;
  bool drained_ = false;  // see TrackReadiness
};

// Reads one frame without reading ahead (see FrameReader).
Status ReadFrame(int fd, Frame* frame, int timeout_ms);

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_FRAME_H_
