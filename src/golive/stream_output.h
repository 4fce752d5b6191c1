// The picture size sent to the ingest: the canvas as it is, or a fixed size.
#pragma once

#include <array>
#include <string_view>
#include <utility>

#include "support/enum_text.h"

namespace qvn {

enum class StreamOutputChoice { canvas, uhd2160, qhd1440, fhd1080, hd720 };

template <>
struct EnumTexts<StreamOutputChoice> {
  static constexpr std::array<std::pair<StreamOutputChoice, std::string_view>, 5> table{{
      {StreamOutputChoice::canvas, "canvas"},
      {StreamOutputChoice::uhd2160, "uhd2160"},
      {StreamOutputChoice::qhd1440, "qhd1440"},
      {StreamOutputChoice::fhd1080, "fhd1080"},
      {StreamOutputChoice::hd720, "hd720"},
  }};
};

}  // namespace qvn
