// The bodies of the media messages a publish carries, as FLV tags hold them: the AVC and AAC
// sequence headers, then frames. The socket chunks them and never looks inside.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace qvn::FLVMessage {

constexpr std::uint8_t kAudioType = 8;
constexpr std::uint8_t kVideoType = 9;
constexpr std::uint8_t kAudioChunkStream = 4;
constexpr std::uint8_t kVideoChunkStream = 6;

// 0x17 0x00 0 0 0, then the AVCDecoderConfigurationRecord.
std::vector<std::uint8_t> avcSequenceHeader(std::span<const std::uint8_t> configuration);
// 0x17 (key) or 0x27 (inter), 0x01, a composition offset of 0, then length-prefixed NALs.
std::vector<std::uint8_t> avcFrame(bool keyframe, std::span<const std::uint8_t> nals);
// 0xAF 0x00, then the AudioSpecificConfig.
std::vector<std::uint8_t> aacSequenceHeader(std::array<std::uint8_t, 2> configuration);
// 0xAF 0x01, then one raw AAC packet.
std::vector<std::uint8_t> aacFrame(std::span<const std::uint8_t> packet);

}  // namespace qvn::FLVMessage
