// Frames: in whatever pieces the stream arrives, a frame that is read has the bytes that the writer
// builds, and the next one is read from its end.

#include <sys/socket.h>

#include "rpc/frame.h"
#include "target.h"

// What the peer has yet to send, and the sizes of the pieces that arrive next.
static std::string_view unsent, piece_sizes;

// Replaces the system's: a real socket would not deliver the same pieces every time.
extern "C" ssize_t recv(int, void* buffer, size_t capacity, int) {
  const std::size_t piece = piece_sizes.empty() ? 0 : static_cast<unsigned char>(piece_sizes[0]);
  piece_sizes = piece_sizes.substr(!piece_sizes.empty());
  const std::size_t size =
      unsent.copy(static_cast<char*>(buffer), piece == 0 ? capacity : std::min(piece, capacity));
  unsent.remove_prefix(size);
  return static_cast<ssize_t>(size);
}

namespace kandb::fuzz {

using namespace kanrpc;

// Returns where the frames of the stream end.
static std::size_t ReadFrames(const std::string& stream, std::string_view sizes) {
  unsent = stream;
  piece_sizes = sizes;
  FrameReader reader(-1);
  std::size_t end = 0;
  for (Frame frame; reader.Read(&frame, -1).ok();) {
    const auto type = static_cast<FrameType>(frame.type);
    const auto built = BuildFrame(type, frame.request_id, frame.method, frame.payload);
    Claim(stream.compare(end, built.size(), built) == 0);
    end += built.size();
  }
  return end;
}

// Also after valid frames, because hardly any mutation keeps a checksum valid. The second one must
// be moved to the front of the reader's first buffer of 4 KiB, the third into a larger one.
void TryInput(std::string_view input) {
  std::string stream;
  for (const std::size_t payload_size : {2048u, 2048u, 8192u}) {
    stream += BuildFrame(static_cast<FrameType>(input.size()), stream.size(),
                         input.substr(0, kMaxMethodSize), std::string(payload_size, 'p'));
  }
  const std::size_t end = stream.size() + ReadFrames(std::string(input), input);
  Claim(ReadFrames(stream.append(input), input) == end);
}

}  // namespace kandb::fuzz
