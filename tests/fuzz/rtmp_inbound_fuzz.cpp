// Whatever an ingest sends back: chunked in pieces of any size, then read as commands.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "golive/amf0.h"
#include "golive/rtmp_chunks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  if (size < 1) return 0;
  // The first byte picks how the bytes arrive: in reads of 1 to 256 bytes.
  const size_t step = size_t(data[0]) + 1;
  qvn::ChunkParser parser;
  std::vector<std::uint8_t> inbound;
  for (size_t at = 1; at < size; at += step) {
    inbound.insert(inbound.end(), data + at, data + std::min(size, at + step));
    parser.parse(inbound, [&](const qvn::RTMPMessage& m) {
      if (m.type == 1 && m.body.size() >= 4)
        parser.setChunkSize(std::uint32_t(m.body[0]) << 24 | std::uint32_t(m.body[1]) << 16 |
                            std::uint32_t(m.body[2]) << 8 | m.body[3]);
      qvn::amf0::Reader in(m.body);
      in.string();
      in.number();
      in.skip();
      in.object();
    });
  }
  return 0;
}
