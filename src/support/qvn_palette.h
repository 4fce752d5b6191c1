// The studio's colours, 8-bit sRGB. `voidBlack` is also the mix's background and `green`
// the accent of its standby picture.
#pragma once

#include <cstdint>

namespace qvn {

struct QvnColor {
  std::uint8_t red = 0, green = 0, blue = 0;
  bool operator==(const QvnColor&) const = default;
};

namespace Qvn {
inline constexpr QvnColor voidBlack{15, 17, 23};
inline constexpr QvnColor deepNavy{26, 29, 38};
inline constexpr QvnColor panel{34, 38, 58};
inline constexpr QvnColor green{0, 200, 150};
inline constexpr QvnColor cloud{240, 240, 245};
inline constexpr QvnColor slate{136, 138, 158};
inline constexpr QvnColor muted{106, 110, 130};
inline constexpr QvnColor border{50, 56, 79};
inline constexpr QvnColor borderSubtle{38, 43, 60};
inline constexpr QvnColor onAccent{10, 15, 13};
inline constexpr QvnColor live{255, 71, 87};
inline constexpr QvnColor warning{255, 165, 2};
inline constexpr QvnColor info{0, 98, 255};
}  // namespace Qvn

}  // namespace qvn
