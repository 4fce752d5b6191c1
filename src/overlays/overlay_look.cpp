#include "overlays/overlay_look.h"

#include <nlohmann/json.hpp>

namespace qvn {

using nlohmann::json;

namespace {

json colorJSON(const OverlayRGBA& c) {
  return {{"r", c.r}, {"g", c.g}, {"b", c.b}, {"a", c.a}};
}

void readNumber(const json& j, const char* key, double& out) {
  if (auto it = j.find(key); it != j.end() && it->is_number()) out = it->get<double>();
}

void readText(const json& j, const char* key, std::string& out) {
  if (auto it = j.find(key); it != j.end() && it->is_string()) out = it->get<std::string>();
}

// A colour counts only when all four components are there.
void readColor(const json& j, const char* key, OverlayRGBA& out) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_object()) return;
  OverlayRGBA c;
  for (auto [name, field] : {std::pair{"r", &c.r}, {"g", &c.g}, {"b", &c.b}, {"a", &c.a}}) {
    auto v = it->find(name);
    if (v == it->end() || !v->is_number()) return;
    *field = v->get<double>();
  }
  out = c;
}

bool hasNumbers(const json& j, const char* a, const char* b) {
  auto x = j.find(a), y = j.find(b);
  return x != j.end() && x->is_number() && y != j.end() && y->is_number();
}

}  // namespace

std::string OverlayLook::toJSON() const {
  return json{{"lowerWidth", lowerWidth},
              {"lowerScale", lowerScale},
              {"lowerX", lowerX},
              {"lowerY", lowerY},
              {"barColor", colorJSON(barColor)},
              {"accentColor", colorJSON(accentColor)},
              {"nameColor", colorJSON(nameColor)},
              {"titleColor", colorJSON(titleColor)},
              {"nameFont", nameFont},
              {"titleFont", titleFont},
              {"nameSize", nameSize},
              {"titleSize", titleSize},
              {"logoScale", logoScale},
              {"logoOpacity", logoOpacity},
              {"logoX", logoX},
              {"logoY", logoY}}
      .dump();
}

std::optional<OverlayLook> OverlayLook::fromJSON(std::string_view text, bool* hadLogoPosition) {
  const json j = json::parse(text, nullptr, false);
  if (!j.is_object()) return std::nullopt;
  OverlayLook look;
  readNumber(j, "lowerWidth", look.lowerWidth);
  readNumber(j, "lowerScale", look.lowerScale);
  readColor(j, "barColor", look.barColor);
  readColor(j, "accentColor", look.accentColor);
  readColor(j, "nameColor", look.nameColor);
  readColor(j, "titleColor", look.titleColor);
  readText(j, "nameFont", look.nameFont);
  readText(j, "titleFont", look.titleFont);
  readNumber(j, "nameSize", look.nameSize);
  readNumber(j, "titleSize", look.titleSize);
  readNumber(j, "logoScale", look.logoScale);
  readNumber(j, "logoOpacity", look.logoOpacity);

  const bool logoPosition = hasNumbers(j, "logoX", "logoY");
  if (logoPosition) {
    readNumber(j, "logoX", look.logoX);
    readNumber(j, "logoY", look.logoY);
  }
  if (hadLogoPosition) *hadLogoPosition = j.contains("logoX");

  if (hasNumbers(j, "lowerX", "lowerY")) {
    readNumber(j, "lowerX", look.lowerX);
    readNumber(j, "lowerY", look.lowerY);
  } else if (auto corner = j.find("lowerCorner"); corner != j.end() && corner->is_string()) {
    // Older looks placed the lower third by corner; read, never written.
    const std::string c = corner->get<std::string>();
    if (c == "topLeft" || c == "topRight" || c == "bottomLeft" || c == "bottomRight") {
      look.lowerX = c.ends_with("Left") ? 0.22 : 0.78;
      look.lowerY = c.starts_with("top") ? 0.1 : 0.9;
    }
  }
  return look;
}

}  // namespace qvn
