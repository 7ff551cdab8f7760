#include "rpc/frame.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/coding.h"
#include "crypto/crc32c.h"
#include "rpc/sys_error.h"

namespace kandb::kanrpc {

namespace {

// A reader starts with this much buffer: room for many small frames, so one
// receive usually takes in everything a client has sent.
constexpr size_t kInitialCapacity = 8 * 1024;
// A buffer grown past this by one large frame is released once it is drained,
// so an idle connection does not keep a large frame's memory.
constexpr size_t kKeepCapacity = 1024 * 1024;

Status Timeout() { return Status::Corruption("kanrpc: io timeout"); }
Status Closed() { return ConnectionClosed(); }
Status PollError(int err) { return Status::Corruption("kanrpc poll: " + ErrnoText(err)); }
Status IoError(int err) { return TransferError(err); }

// Waits until the socket is ready for `events` (timeout_ms >= 0).
Status WaitReady(int fd, short events, int timeout_ms) {
  struct pollfd p;
  p.fd = fd;
  p.events = events;
  p.revents = 0;
  for (;;) {
    const int r = poll(&p, 1, timeout_ms);
    if (r > 0) return Status::OK();
    if (r == 0) return Timeout();
    if (errno != EINTR) return PollError(errno);
  }
}

// Receives between 1 and `max` bytes (max > 0) into buf; *got is the count.
// With a time-out, every receive is preceded by a bounded wait.
Status RecvSome(int fd, char* buf, size_t max, int timeout_ms, size_t* got) {
  for (;;) {
    if (timeout_ms >= 0) {
      Status s = WaitReady(fd, POLLIN, timeout_ms);
      if (!s.ok()) return s;
    }
    const ssize_t r = recv(fd, buf, max, 0);
    if (r > 0) {
      *got = static_cast<size_t>(r);
      return Status::OK();
    }
    if (r == 0) return Closed();
    if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return IoError(errno);
  }
}

}  // namespace

void AppendFrame(std::string* dst, FrameType type, uint64_t request_id, const std::string& method,
                 const std::string& payload) {
  const size_t base = dst->size();
  dst->reserve(base + kFrameHeaderSize + method.size() + 4 + payload.size() + kFrameCrcSize);
  dst->append(kFrameMagic, sizeof(kFrameMagic));
  dst->push_back(static_cast<char>(type));
  PutFixed64(dst, request_id);
  PutFixed16(dst, static_cast<uint16_t>(method.size()));
  dst->append(method);
  PutFixed32(dst, static_cast<uint32_t>(payload.size()));
  dst->append(payload);
  // The checksum covers type through payload: everything after the magic.
  const size_t covered = dst->size() - base - sizeof(kFrameMagic);
  PutFixed32(dst, crypto::Crc32c(dst->data() + base + sizeof(kFrameMagic), covered));
}

std::string BuildFrame(FrameType type, uint64_t request_id, const std::string& method,
                       const std::string& payload) {
  std::string frame;
  AppendFrame(&frame, type, request_id, method, payload);
  return frame;
}

Status WriteAll(int fd, const char* data, size_t n, int timeout_ms) {
  // With a time-out the send itself must never block: it is tried first
  // (a socket with room takes the frame at once, without a poll) and only
  // when it would block does a bounded wait follow.
  const int flags = MSG_NOSIGNAL | (timeout_ms >= 0 ? MSG_DONTWAIT : 0);
  while (n > 0) {
    const ssize_t r = send(fd, data, n, flags);
    if (r > 0) {
      data += r;
      n -= static_cast<size_t>(r);
      continue;
    }
    if (r == 0) return Closed();
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return IoError(errno);
    if (timeout_ms >= 0) {
      Status s = WaitReady(fd, POLLOUT, timeout_ms);
      if (!s.ok()) return s;
    }
  }
  return Status::OK();
}

Status ReadExact(int fd, char* buf, size_t n, int timeout_ms) {
  while (n > 0) {
    size_t got = 0;
    Status s = RecvSome(fd, buf, n, timeout_ms, &got);
    if (!s.ok()) return s;
    buf += got;
    n -= got;
  }
  return Status::OK();
}

FrameReader::FrameReader(int fd, bool read_ahead)
    : own_transport_(std::make_unique<SocketTransport>(fd)), transport_(own_transport_.get()), read_ahead_(read_ahead) {}

FrameReader::FrameReader(Transport* transport, bool read_ahead) : transport_(transport), read_ahead_(read_ahead) {}

void FrameReader::Reset(int fd) {
  own_transport_ = std::make_unique<SocketTransport>(fd);
  Reset(own_transport_.get());
}

void FrameReader::Reset(Transport* transport) {
  if (transport != own_transport_.get()) own_transport_.reset();
  transport_ = transport;
  StartOver();
}

void FrameReader::StartOver() {
  start_ = end_ = 0;
  if (own_capacity_ > kKeepCapacity) {
    own_.reset();
    own_capacity_ = 0;
  }
  if (scratch_ != nullptr) {
    buf_ = scratch_;
    capacity_ = scratch_size_;
  } else {
    buf_ = own_.get();
    capacity_ = own_capacity_;
  }
}

void FrameReader::ShareScratch(char* scratch, size_t size) {
  scratch_ = scratch;
  scratch_size_ = size;
  if (start_ == end_) StartOver();
}

void FrameReader::Park() {
  if (scratch_ == nullptr) return;
  const size_t have = end_ - start_;
  if (have == 0) {
    // Between requests a connection keeps no receive buffer.
    own_.reset();
    own_capacity_ = 0;
    StartOver();
    return;
  }
  if (buf_ != scratch_) return;
  // A partial frame, or frames left for the connection's next turn: room
  // for the rest of a small frame, so that it does not grow at once.
  if (own_capacity_ < have) {
    own_capacity_ = std::max(have, kInitialCapacity);
    own_ = std::make_unique_for_overwrite<char[]>(own_capacity_);
  }
  std::memcpy(own_.get(), buf_ + start_, have);
  buf_ = own_.get();
  capacity_ = own_capacity_;
  start_ = 0;
  end_ = have;
}

void FrameReader::MakeRoom(size_t need) {
  if (end_ < capacity_) return;
  const size_t have = end_ - start_;
  if (start_ > 0) {
    // The unread tail of the buffer slides to the front.
    std::memmove(buf_, buf_ + start_, have);
    start_ = 0;
    end_ = have;
    if (end_ < capacity_) return;
  }
  // Full of unread bytes: grow, at most doubling, so that memory follows what
  // the peer actually sent rather than what it announced. A full scratch
  // moves into a buffer of the reader's own.
  const size_t new_capacity = std::max(kInitialCapacity, std::min(need, capacity_ * 2));
  auto grown = std::make_unique_for_overwrite<char[]>(new_capacity);
  if (have > 0) std::memcpy(grown.get(), buf_, have);
  own_ = std::move(grown);
  own_capacity_ = new_capacity;
  buf_ = own_.get();
  capacity_ = new_capacity;
}

Status FrameReader::Fill(size_t need, int timeout_ms) {
  while (end_ - start_ < need) {
    MakeRoom(need);
    size_t room = capacity_ - end_;
    if (!read_ahead_) room = std::min(room, need - (end_ - start_));
    size_t got = 0;
    Status s = transport_->Recv(buf_ + end_, room, &got);
    if (s.ok() && got == 0) s = WaitTransport(*transport_, timeout_ms);
    if (!s.ok()) return s;
    end_ += got;
  }
  return Status::OK();
}

Status ParseFrame(const char* p, size_t n, Frame* frame, size_t* size, size_t* need) {
  *size = 0;
  *need = kFrameHeaderSize;
  if (n < kFrameHeaderSize) return Status::OK();
  if (std::memcmp(p, kFrameMagic, sizeof(kFrameMagic)) != 0) {
    return Status::Corruption("kanrpc: bad magic");
  }
  const size_t method_length = DecodeFixed16(p + 13);
  if (method_length > kMaxMethodLength) return Status::Corruption("kanrpc: method too long");

  const size_t payload_offset = kFrameHeaderSize + method_length + 4;
  *need = payload_offset;
  if (n < payload_offset) return Status::OK();
  const size_t payload_length = DecodeFixed32(p + payload_offset - 4);
  if (payload_length > kMaxPayloadLength) return Status::Corruption("kanrpc: payload too large");

  const size_t total = payload_offset + payload_length + kFrameCrcSize;
  *need = total;
  if (n < total) return Status::OK();
  // The received bytes are exactly the wire encoding of the fields, so the
  // checksum is computed over them in place.
  const uint32_t expected = DecodeFixed32(p + total - kFrameCrcSize);
  const uint32_t actual =
      crypto::Crc32c(p + sizeof(kFrameMagic), total - sizeof(kFrameMagic) - kFrameCrcSize);
  if (actual != expected) return Status::Corruption("kanrpc: frame crc mismatch");

  frame->type = static_cast<FrameType>(static_cast<uint8_t>(p[4]));
  frame->request_id = DecodeFixed64(p + 5);
  frame->method.assign(p + kFrameHeaderSize, method_length);
  frame->payload.assign(p + payload_offset, payload_length);
  *size = total;
  return Status::OK();
}

void FrameReader::ReleaseIfDrained() {
  if (start_ == end_) StartOver();
}

Status FrameReader::TakeBuffered(Frame* frame, bool* got, size_t* need) {
  size_t size = 0;
  Status s = ParseFrame(buf_ + start_, end_ - start_, frame, &size, need);
  *got = s.ok() && size > 0;
  if (*got) start_ += size;
  return s;
}

Status FrameReader::Read(Frame* frame, int timeout_ms) {
  ReleaseIfDrained();
  // Each length is checked as soon as it is buffered, before waiting for the
  // bytes it announces.
  for (;;) {
    bool got = false;
    size_t need = 0;
    Status s = TakeBuffered(frame, &got, &need);
    if (!s.ok() || got) return s;
    s = Fill(need, timeout_ms);
    if (!s.ok()) return s;
  }
}

Status FrameReader::ReadAvailable(Frame* frame, bool* got) {
  ReleaseIfDrained();
  for (;;) {
    size_t need = 0;
    Status s = TakeBuffered(frame, got, &need);
    if (!s.ok() || *got) return s;
    if (drained_) return Status::OK();
    MakeRoom(need);
    const size_t room = capacity_ - end_;
    size_t got = 0;
    s = transport_->Recv(buf_ + end_, room, &got);
    if (!s.ok() || got == 0) return s;
    end_ += got;
    if (track_readiness_ && got < room && transport_->short_recv_drains()) drained_ = true;
  }
}

Status ReadFrame(int fd, Frame* frame, int timeout_ms) {
  FrameReader reader(fd, /*read_ahead=*/false);
  return reader.Read(frame, timeout_ms);
}

}  // namespace kandb::kanrpc
