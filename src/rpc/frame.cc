#include "rpc/frame.h"

#include <algorithm>

#include "common/check.h"
#include "common/endian.h"
#include "crypto/crc32c.h"
#include "rpc/socket_io.h"

namespace kandb::kanrpc {

namespace {

constexpr std::string_view kMagic = "KRPC";
constexpr std::size_t kTypeOffset = 4;
constexpr std::size_t kRequestIdOffset = 5;
constexpr std::size_t kMethodLengthOffset = 13;
constexpr std::size_t kMethodOffset = 15;
constexpr std::size_t kPayloadLengthSize = 4;
constexpr std::size_t kCrcSize = 4;
static_assert(kMethodOffset + kPayloadLengthSize == kBeforePayloadSize);

// The buffer of a connection: its least capacity, which most frames fit, and the most that it keeps
// between frames, so that an idle connection does not keep the memory of a large one.
constexpr std::size_t kFirstBufferSize = std::size_t{4} << 10;
constexpr std::size_t kKeptBufferSize = std::size_t{64} << 10;
// While a payload arrives, the buffer becomes so many times as large as what has arrived. Memory
// that is never written to is only address space.
constexpr std::size_t kBufferGrowth = 8;

}  // namespace

Status PayloadTooLarge() { return Status::Corruption("kanrpc: payload too large"); }

void BeginFrame(FrameType type, std::uint64_t request_id, std::string_view method,
                std::string* frame) {
  KANDB_CHECK(method.size() <= kMaxMethodSize, method.size());
  frame->assign(kMagic);
  frame->push_back(static_cast<char>(type));
  AppendU64(request_id, frame);
  AppendU16(static_cast<std::uint16_t>(method.size()), frame);
  frame->append(method);
  AppendU32(0, frame);
}

void FinishFrame(std::string* frame) {
  const std::size_t method_length = LoadU16(frame->data() + kMethodLengthOffset);
  const std::size_t payload_length = frame->size() - kBeforePayloadSize - method_length;
  KANDB_CHECK(payload_length <= kMaxPayloadSize, payload_length);
  StoreLittleEndian(static_cast<std::uint32_t>(payload_length),
                    frame->data() + kMethodOffset + method_length);
  AppendU32(crypto::Crc32c(std::string_view(*frame).substr(kTypeOffset)), frame);
}

std::string BuildFrame(FrameType type, std::uint64_t request_id, std::string_view method,
                       std::string_view payload) {
  std::string frame;
  frame.reserve(PayloadOffset(method) + payload.size() + kCrcSize);
  BeginFrame(type, request_id, method, &frame);
  frame.append(payload);
  FinishFrame(&frame);
  return frame;
}

Status FrameReader::Read(Frame* frame, int timeout_ms) {
  buffer.Consume(frame_size);
  frame_size = 0;
  buffer.Release(kKeptBufferSize);
  if (buffer.unread().empty()) buffer.Reserve(kFirstBufferSize);

  if (Status s = Fill(kMethodOffset, timeout_ms); !s.ok()) return s;
  if (!buffer.unread().starts_with(kMagic)) return Status::Corruption("kanrpc: bad magic");
  const std::size_t method_length = LoadU16(buffer.unread().data() + kMethodLengthOffset);
  if (method_length > kMaxMethodSize) return Status::Corruption("kanrpc: method too long");

  const std::size_t payload_offset = kBeforePayloadSize + method_length;
  if (Status s = Fill(payload_offset, timeout_ms); !s.ok()) return s;
  const std::size_t payload_length =
      LoadU32(buffer.unread().data() + payload_offset - kPayloadLengthSize);
  if (payload_length > kMaxPayloadSize) return PayloadTooLarge();

  const std::size_t crc_offset = payload_offset + payload_length;
  if (Status s = Fill(crc_offset + kCrcSize, timeout_ms); !s.ok()) return s;
  const std::string_view bytes = buffer.unread();
  const std::string_view checked = bytes.substr(kTypeOffset, crc_offset - kTypeOffset);
  if (crypto::Crc32c(checked) != LoadU32(bytes.data() + crc_offset)) {
    return Status::Corruption("kanrpc: frame crc mismatch");
  }

  frame_size = crc_offset + kCrcSize;
  frame->type = static_cast<std::uint8_t>(bytes[kTypeOffset]);
  frame->request_id = LoadU64(bytes.data() + kRequestIdOffset);
  frame->method = bytes.substr(kMethodOffset, method_length);
  frame->payload = bytes.substr(payload_offset, payload_length);
  return {};
}

Status FrameReader::Fill(std::size_t size, int timeout_ms) {
  while (buffer.unread().size() < size) {
    const std::size_t arrived = buffer.unread().size();
    const std::size_t room_size = std::max((kBufferGrowth - 1) * arrived, kFirstBufferSize);
    char* room = buffer.Reserve(std::min(size - arrived, room_size));
    std::size_t count = 0;
    if (Status s = ReadSome(socket, room, buffer.free_size(), timeout_ms, &count); !s.ok()) {
      return s;
    }
    buffer.Commit(count);
  }
  return {};
}

}  // namespace kandb::kanrpc
