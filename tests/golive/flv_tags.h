// FLV files as lists of tags: read from what ffmpeg writes, padded to a chosen size, and
// written back, so tests and the bench publish real H.264 and AAC at any bitrate.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

namespace qvn::test {

struct FlvTag {
  static constexpr std::uint8_t kAudio = 8;
  static constexpr std::uint8_t kVideo = 9;
  static constexpr std::uint8_t kScript = 18;

  std::uint8_t type = 0;
  std::uint32_t timestamp = 0;  // ms
  std::vector<std::uint8_t> body;

  // AVC or AAC sequence header: packet type 0 in the second byte of the body.
  bool isSequenceHeader() const;
  bool isKeyframe() const { return type == kVideo && !body.empty() && (body[0] >> 4) == 1; }
};

// Every tag of an FLV file. Throws std::runtime_error on a malformed one.
std::vector<FlvTag> parseFlv(std::span<const std::uint8_t> file);
std::vector<FlvTag> readFlvFile(const std::filesystem::path& file);
// An FLV with audio and video flags and `tags` as they are.
void writeFlvFile(const std::filesystem::path& file, const std::vector<FlvTag>& tags);

// What a publisher sends: the two sequence headers first, then the media in file order.
struct FlvClip {
  FlvTag videoConfig;  // 0x17 0x00 + AVCDecoderConfigurationRecord
  FlvTag audioConfig;  // 0xAF 0x00 + AudioSpecificConfig
  std::vector<FlvTag> media;
  // One pass's length: where a looped pass starts so both tracks stay monotonic.
  std::uint32_t loopMs = 0;
  // The media bodies' bitrate over one pass.
  double bitsPerSecond() const;
};

// Throws std::runtime_error when the file lacks either sequence header or any media.
FlvClip clipOf(const std::vector<FlvTag>& tags);
// The tags of a clip as an FLV file would hold them.
std::vector<FlvTag> tagsOf(const FlvClip& clip);

// Grows an AVC video body to at least `size` bytes with a filler-data NAL unit at the end of
// the access unit, which decoders skip. `lengthSize` is the NAL length field's size from the
// decoder configuration.
void padVideoBody(std::vector<std::uint8_t>& body, std::size_t size, int lengthSize = 4);
// A clip whose every video frame is padded to `size` bytes.
FlvClip paddedClip(const FlvClip& clip, std::size_t size);
// The NAL length field's size named by an AVC sequence header body.
int nalLengthSize(const FlvTag& videoConfig);

}  // namespace qvn::test
