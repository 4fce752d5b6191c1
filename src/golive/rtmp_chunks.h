// The RTMP chunk stream: whole messages cut into chunks on the way out, and chunks put back
// together into messages on the way in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <vector>

namespace qvn {

// One message as one block: a fmt 0 chunk, then fmt 3 chunks of `chunkSize` bytes, with
// the extended timestamp repeated behind each when the timestamp needs it.
std::vector<std::uint8_t> chunkMessage(std::uint8_t type, std::uint32_t streamId,
                                       std::uint32_t timestamp, std::span<const std::uint8_t> body,
                                       std::uint8_t csid, int chunkSize);

struct RTMPMessage {
  std::uint32_t csid = 0;
  std::uint8_t type = 0;
  std::uint32_t streamId = 0;
  std::uint32_t timestamp = 0;
  std::vector<std::uint8_t> body;
};

// Reassembles messages from received bytes. Owned by the receive path of one connection.
class ChunkParser {
 public:
  // Takes every whole chunk from the front of `inbound` and hands each finished message to
  // `onMessage`, which may change the chunk size for the chunks after it. A chunk cut off
  // at the end stays in `inbound`, untouched, until more bytes arrive.
  void parse(std::vector<std::uint8_t>& inbound,
             const std::function<void(const RTMPMessage&)>& onMessage);
  // The peer's Set Chunk Size; 0 means the protocol's 128.
  void setChunkSize(std::uint32_t size) { chunkSize_ = size == 0 ? 128 : size; }
  std::uint32_t chunkSize() const { return chunkSize_; }

 private:
  struct InChunk {
    struct Header {
      std::uint32_t timestamp = 0;
      std::uint32_t msgLen = 0;
      std::uint8_t msgType = 0;
      std::uint32_t msgStreamId = 0;
      bool hasHeader = false;
    } header;
    std::vector<std::uint8_t> payload;  // the message so far
  };
  std::map<std::uint32_t, InChunk> chunks_;
  std::uint32_t chunkSize_ = 128;
};

}  // namespace qvn
