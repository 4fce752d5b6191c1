#include "golive/flv_tags.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace qvn::test {
namespace {

std::uint32_t be24(const std::uint8_t* p) {
  return (p[0] << 16) | (p[1] << 8) | p[2];
}

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
}

void put24(std::vector<std::uint8_t>& out, std::uint32_t v) {
  out.push_back(std::uint8_t(v >> 16));
  out.push_back(std::uint8_t(v >> 8));
  out.push_back(std::uint8_t(v));
}

void put32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  out.push_back(std::uint8_t(v >> 24));
  put24(out, v);
}

constexpr std::size_t kHeaderSize = 9;
constexpr std::size_t kTagHeaderSize = 11;
constexpr std::size_t kPreviousSize = 4;
constexpr std::uint8_t kFillerNal = 12;

}  // namespace

bool FlvTag::isSequenceHeader() const {
  if (body.size() < 2) return false;
  if (type == kVideo) return (body[0] & 0x0f) == 7 && body[1] == 0;
  if (type == kAudio) return (body[0] >> 4) == 10 && body[1] == 0;
  return false;
}

std::vector<FlvTag> parseFlv(std::span<const std::uint8_t> file) {
  if (file.size() < kHeaderSize + kPreviousSize || file[0] != 'F' || file[1] != 'L' ||
      file[2] != 'V')
    throw std::runtime_error("not an FLV file");
  const std::size_t dataOffset = be32(&file[5]);
  if (dataOffset < kHeaderSize || dataOffset + kPreviousSize > file.size())
    throw std::runtime_error("FLV header names a bad data offset");
  std::vector<FlvTag> tags;
  std::size_t at = dataOffset + kPreviousSize;
  while (at < file.size()) {
    if (file.size() - at < kTagHeaderSize) throw std::runtime_error("FLV tag header cut off");
    const std::uint8_t* h = &file[at];
    const std::size_t size = be24(h + 1);
    if (file.size() - at - kTagHeaderSize < size + kPreviousSize)
      throw std::runtime_error("FLV tag at " + std::to_string(at) + " is cut off");
    FlvTag tag;
    tag.type = h[0] & 0x1f;
    // 24 bits of milliseconds and an 8-bit extension above them.
    tag.timestamp = be24(h + 4) | (std::uint32_t(h[7]) << 24);
    tag.body.assign(h + kTagHeaderSize, h + kTagHeaderSize + size);
    if (be32(h + kTagHeaderSize + size) != kTagHeaderSize + size)
      throw std::runtime_error("FLV previous-tag size at " + std::to_string(at) + " disagrees");
    tags.push_back(std::move(tag));
    at += kTagHeaderSize + size + kPreviousSize;
  }
  return tags;
}

std::vector<FlvTag> readFlvFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::runtime_error("can't read " + file.string());
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                        std::istreambuf_iterator<char>()};
  return parseFlv(bytes);
}

void writeFlvFile(const std::filesystem::path& file, const std::vector<FlvTag>& tags) {
  std::vector<std::uint8_t> out = {'F', 'L', 'V', 1, 0x05};
  put32(out, kHeaderSize);
  put32(out, 0);
  for (const FlvTag& tag : tags) {
    out.push_back(tag.type);
    put24(out, std::uint32_t(tag.body.size()));
    put24(out, tag.timestamp & 0xffffff);
    out.push_back(std::uint8_t(tag.timestamp >> 24));
    put24(out, 0);
    out.insert(out.end(), tag.body.begin(), tag.body.end());
    put32(out, std::uint32_t(kTagHeaderSize + tag.body.size()));
  }
  std::ofstream f(file, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(out.data()), std::streamsize(out.size()));
  if (!f.flush()) throw std::runtime_error("can't write " + file.string());
}

double FlvClip::bitsPerSecond() const {
  double bytes = 0;
  for (const FlvTag& tag : media) bytes += double(tag.body.size());
  return loopMs > 0 ? bytes * 8 * 1000 / loopMs : 0;
}

FlvClip clipOf(const std::vector<FlvTag>& tags) {
  FlvClip clip;
  bool video = false, audio = false;
  for (const FlvTag& tag : tags) {
    if (tag.type != FlvTag::kVideo && tag.type != FlvTag::kAudio) continue;
    if (tag.isSequenceHeader()) {
      (tag.type == FlvTag::kVideo ? clip.videoConfig : clip.audioConfig) = tag;
      (tag.type == FlvTag::kVideo ? video : audio) = true;
    } else {
      clip.media.push_back(tag);
    }
  }
  if (!video || !audio || clip.media.empty())
    throw std::runtime_error("the FLV lacks an AVC or AAC sequence header, or media");
  // A pass lasts until each track's next frame would be due.
  std::uint32_t end = 0;
  for (std::uint8_t type : {FlvTag::kVideo, FlvTag::kAudio}) {
    std::vector<std::uint32_t> times;
    for (const FlvTag& tag : clip.media)
      if (tag.type == type) times.push_back(tag.timestamp);
    if (times.empty()) continue;
    const std::uint32_t step = times.size() > 1 ? times[1] - times[0] : 33;
    end = std::max(end, times.back() + step);
  }
  clip.loopMs = end;
  return clip;
}

std::vector<FlvTag> tagsOf(const FlvClip& clip) {
  std::vector<FlvTag> tags = {clip.videoConfig, clip.audioConfig};
  tags.insert(tags.end(), clip.media.begin(), clip.media.end());
  return tags;
}

void padVideoBody(std::vector<std::uint8_t>& body, std::size_t size, int lengthSize) {
  const std::size_t field = std::size_t(lengthSize);
  // A short length field limits one NAL unit; then several follow one another.
  const std::size_t largest = field >= 4 ? SIZE_MAX : (std::size_t(1) << (8 * field)) - 1;
  while (body.size() < size) {
    // The length field, the NAL header byte and the rbsp trailing byte at the least.
    const std::size_t want = std::max(size - body.size(), field + 2);
    const std::size_t nal = std::min(want - field, largest);
    for (int i = lengthSize - 1; i >= 0; --i) body.push_back(std::uint8_t(nal >> (8 * i)));
    body.push_back(kFillerNal);
    body.insert(body.end(), nal - 2, 0xff);
    body.push_back(0x80);
  }
}

int nalLengthSize(const FlvTag& videoConfig) {
  // Tag prefix of 5 bytes, then the record: lengthSizeMinusOne is the low bits of byte 4.
  if (videoConfig.body.size() < 5 + 5) return 4;
  return (videoConfig.body[5 + 4] & 0x03) + 1;
}

FlvClip paddedClip(const FlvClip& clip, std::size_t size) {
  FlvClip padded = clip;
  const int lengthSize = nalLengthSize(clip.videoConfig);
  for (FlvTag& tag : padded.media)
    if (tag.type == FlvTag::kVideo) padVideoBody(tag.body, size, lengthSize);
  return padded;
}

}  // namespace qvn::test
