#include "golive/rtmp_chunks.h"

#include <algorithm>

namespace qvn {

namespace {

constexpr std::uint32_t kExtended = 0xFFFFFF;

void put24(std::vector<std::uint8_t>& out, std::uint32_t v) {
  out.insert(out.end(), {std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)});
}

void put32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  out.insert(out.end(),
             {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)});
}

std::uint32_t get24(const std::uint8_t* p) {
  return std::uint32_t(p[0]) << 16 | std::uint32_t(p[1]) << 8 | p[2];
}

std::uint32_t get32(const std::uint8_t* p) {
  return std::uint32_t(p[0]) << 24 | get24(p + 1);
}

}  // namespace

std::vector<std::uint8_t> chunkMessage(std::uint8_t type, std::uint32_t streamId,
                                       std::uint32_t timestamp, std::span<const std::uint8_t> body,
                                       std::uint8_t csid, int chunkSize) {
  const size_t piece = size_t(std::max(chunkSize, 1));
  const bool extended = timestamp >= kExtended;
  const size_t pieces = std::max<size_t>(1, (body.size() + piece - 1) / piece);
  std::vector<std::uint8_t> out;
  out.reserve(body.size() + 12 + (extended ? 4 : 0) + (pieces - 1) * (extended ? 5 : 1));
  out.push_back(csid & 63);  // fmt 0
  put24(out, extended ? kExtended : timestamp);
  put24(out, std::uint32_t(body.size()));
  out.push_back(type);
  for (int shift = 0; shift < 32; shift += 8) out.push_back(std::uint8_t(streamId >> shift));
  if (extended) put32(out, timestamp);
  for (size_t at = 0; at < body.size(); at += piece) {
    if (at > 0) {
      out.push_back(0xC0 | (csid & 63));  // fmt 3
      if (extended) put32(out, timestamp);
    }
    const size_t n = std::min(piece, body.size() - at);
    out.insert(out.end(), body.begin() + long(at), body.begin() + long(at + n));
  }
  return out;
}

void ChunkParser::parse(std::vector<std::uint8_t>& inbound,
                        const std::function<void(const RTMPMessage&)>& onMessage) {
  size_t at = 0;  // bytes of `inbound` consumed so far
  while (at < inbound.size()) {
    const size_t startAt = at;
    const std::uint8_t* p = inbound.data() + at;
    const size_t available = inbound.size() - at;

    // Basic header.
    const int fmt = p[0] >> 6;
    std::uint32_t csid = p[0] & 63;
    size_t header = 1;
    if (csid == 0) {
      if (available < 2) break;
      csid = p[1] + 64u;
      header = 2;
    } else if (csid == 1) {
      if (available < 3) break;
      csid = p[1] + p[2] * 256u + 64u;
      header = 3;
    }

    // The header is worked on in a copy and stored only once the chunk is whole; the payload
    // stays where it is, so a long message costs its bytes once, not once per chunk.
    InChunk& stream = chunks_[csid];
    InChunk::Header chunk = stream.header;
    auto withExtension = [&](std::uint32_t value, bool& ok) {
      if (value <= 0xFFFFFE) return value;
      if (available < header + 4) {
        ok = false;
        return value;
      }
      const std::uint32_t full = get32(p + header);
      header += 4;
      return full;
    };
    bool ok = true;
    if (fmt == 0) {
      if (available < header + 11) break;
      const std::uint8_t* h = p + header;
      const std::uint32_t stamp = get24(h);
      chunk.msgLen = get24(h + 3);
      chunk.msgType = h[6];
      chunk.msgStreamId = std::uint32_t(h[7]) | std::uint32_t(h[8]) << 8 |
                          std::uint32_t(h[9]) << 16 | std::uint32_t(h[10]) << 24;
      header += 11;
      chunk.timestamp = withExtension(stamp, ok);
      chunk.hasHeader = true;
    } else if (fmt == 1) {
      if (available < header + 7) break;
      const std::uint8_t* h = p + header;
      const std::uint32_t delta = get24(h);
      chunk.msgLen = get24(h + 3);
      chunk.msgType = h[6];
      header += 7;
      chunk.timestamp += withExtension(delta, ok);
      chunk.hasHeader = true;
    } else if (fmt == 2) {
      if (available < header + 3) break;
      const std::uint32_t delta = get24(p + header);
      header += 3;
      chunk.timestamp += withExtension(delta, ok);
    } else if (!chunk.hasHeader) {
      ++at;  // a continuation of nothing: skip the byte
      continue;
    }
    if (!ok) break;

    if (stream.payload.size() > chunk.msgLen) {
      // A new header shrank the message under what was already held.
      ++at;
      stream = InChunk{};
      continue;
    }
    const size_t take = std::min<size_t>(chunk.msgLen - stream.payload.size(), chunkSize_);
    if (available < header + take) break;
    stream.header = chunk;
    stream.payload.insert(stream.payload.end(), p + header, p + header + take);
    at += header + take;
    if (stream.payload.size() >= chunk.msgLen) {
      RTMPMessage message{csid, chunk.msgType, chunk.msgStreamId, chunk.timestamp,
                          std::move(stream.payload)};
      stream.payload.clear();
      onMessage(message);  // may change the chunk size, never the map
    }
    if (at <= startAt) break;
  }
  inbound.erase(inbound.begin(), inbound.begin() + long(at));
}

}  // namespace qvn
