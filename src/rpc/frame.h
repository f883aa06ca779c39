// One RPC frame: layout, limits, the only writer and the only reader; client and server share them.
// Numbers are little-endian.
//
//   offset   size  field
//   0        4     magic "KRPC"
//   4        1     type: 0 request, 1 response, 2 error
//   5        8     request_id, chosen by the client, echoed by the server
//   13       2     M = method length, at most 256
//   15       M     method
//   15+M     4     P = payload length, at most 64 MiB
//   19+M     P     payload: an encoded message, or the text of an error
//   19+M+P   4     CRC-32C of bytes 4 .. 18+M+P
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "common/input_buffer.h"
#include "common/status.h"

namespace kandb::kanrpc {

inline constexpr std::size_t kMaxMethodSize = 256;                     // bytes
inline constexpr std::size_t kMaxPayloadSize = std::size_t{64} << 20;  // bytes

static_assert(kMaxMethodSize <= std::numeric_limits<std::uint16_t>::max() &&
                  kMaxPayloadSize <= std::numeric_limits<std::uint32_t>::max(),
              "the lengths of a frame are fields of 16 and 32 bits");

// Corruption "kanrpc: payload too large": for a received frame, and for a response above the limit,
// which its builder gives up there.
Status PayloadTooLarge();

enum FrameType : std::uint8_t { kRequest = 0, kResponse = 1, kError = 2 };

// A received frame. The views point into the reader that filled it and live until its next Read.
struct Frame {
  std::uint8_t type = kRequest;  // as received: not necessarily a FrameType
  std::uint64_t request_id = 0;
  std::string_view method;
  std::string_view payload;
};

// Builds one frame in `*frame`: BeginFrame replaces the contents by everything before the payload,
// the caller appends the payload, FinishFrame fills in its length and appends the checksum. A
// method or payload above its limit ends the process: no peer would accept the frame.
void BeginFrame(FrameType type, std::uint64_t request_id, std::string_view method,
                std::string* frame);
void FinishFrame(std::string* frame);

// Where the payload of a frame with this method begins.
inline constexpr std::size_t kBeforePayloadSize = 4 + 1 + 8 + 2 + 4;  // bytes, without the method
inline std::size_t PayloadOffset(std::string_view method) {
  return kBeforePayloadSize + method.size();
}

std::string BuildFrame(FrameType type, std::uint64_t request_id, std::string_view method,
                       std::string_view payload);

// Reads the frames of one connection through a buffer: a small frame costs one recv, and frames
// that arrived together cost no further one. The buffer grows with the bytes that have arrived,
// never with the length in a header. Used by one thread at a time.
class FrameReader {
 public:
  // `connection` is borrowed and must outlive the reader.
  explicit FrameReader(int connection) : socket(connection) {}

  // Reads and checks one frame; each wait lasts at most `timeout_ms`, negative waits forever.
  // Fails as ReadSome does, or with Corruption "kanrpc: bad magic", "kanrpc: method too long",
  // "kanrpc: payload too large" or "kanrpc: frame crc mismatch". After a failure the position in
  // the stream is unknown, so the caller closes. `*frame` is written only on success.
  Status Read(Frame* frame, int timeout_ms);

 private:
  // Receives until `size` bytes are unread.
  Status Fill(std::size_t size, int timeout_ms);

  const int socket;
  InputBuffer buffer;
  std::size_t frame_size = 0;  // of the frame handed out last, still in the buffer
};

}  // namespace kandb::kanrpc
