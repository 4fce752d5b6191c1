#include "golive/flv_messages.h"

namespace qvn::FLVMessage {

namespace {

std::vector<std::uint8_t> behind(std::initializer_list<std::uint8_t> head,
                                 std::span<const std::uint8_t> rest) {
  std::vector<std::uint8_t> body(head);
  body.insert(body.end(), rest.begin(), rest.end());
  return body;
}

}  // namespace

std::vector<std::uint8_t> avcSequenceHeader(std::span<const std::uint8_t> configuration) {
  return behind({0x17, 0x00, 0x00, 0x00, 0x00}, configuration);
}

std::vector<std::uint8_t> avcFrame(bool keyframe, std::span<const std::uint8_t> nals) {
  return behind({std::uint8_t(keyframe ? 0x17 : 0x27), 0x01, 0x00, 0x00, 0x00}, nals);
}

std::vector<std::uint8_t> aacSequenceHeader(std::array<std::uint8_t, 2> configuration) {
  return behind({0xAF, 0x00}, configuration);
}

std::vector<std::uint8_t> aacFrame(std::span<const std::uint8_t> packet) {
  return behind({0xAF, 0x01}, packet);
}

}  // namespace qvn::FLVMessage
