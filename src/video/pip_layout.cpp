#include "video/pip_layout.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace qvn {

using nlohmann::json;

QvnPiPLayout QvnPiPLayout::clamped() const {
  QvnPiPLayout out = *this;
  out.x = std::clamp(x, -0.2, 1.2);
  out.y = std::clamp(y, -0.2, 1.2);
  out.width = std::clamp(width, 0.06, 1.0);
  out.rotation = std::clamp(rotation, -180.0, 180.0);
  out.opacity = std::clamp(opacity, 0.05, 1.0);
  out.cornerRadius = std::max(cornerRadius, 0.0);
  out.borderWidth = std::max(borderWidth, 0.0);
  return out;
}

double sourceAspect(int width, int height) {
  if (width > 1 && height > 1) return static_cast<double>(width) / height;
  return 16.0 / 9.0;
}

NormRect QvnPiPLayout::rect(int canvasWidth, int canvasHeight, double sourceAspect) const {
  double shape = 16.0 / 9.0;
  switch (aspect) {
    case QvnPiPAspect::source:
      // A degenerate source shape would make the inset absurdly tall; very thin ones are
      // held at 1:20.
      if (sourceAspect > 0.01) shape = std::max(sourceAspect, 0.05);
      break;
    case QvnPiPAspect::wide:
      break;
    case QvnPiPAspect::classic:
      shape = 4.0 / 3.0;
      break;
    case QvnPiPAspect::square:
      shape = 1.0;
      break;
    case QvnPiPAspect::vertical:
      shape = 9.0 / 16.0;
      break;
  }
  const double w = width;
  const double h = static_cast<double>(canvasWidth) * w / shape / std::max(canvasHeight, 1);
  return {x - w / 2, y - h / 2, w, h};
}

QvnPiPLayout QvnPiPLayout::inCorner(PiPCorner corner) {
  QvnPiPLayout layout;
  const bool left = corner == PiPCorner::topLeft || corner == PiPCorner::bottomLeft;
  const bool top = corner == PiPCorner::topLeft || corner == PiPCorner::topRight;
  layout.x = left ? 0.16 : 0.84;
  layout.y = top ? 0.21 : 0.79;
  return layout.clamped();
}

std::string QvnPiPLayout::toJSON() const {
  const json color = {
      {"r", borderColor.r}, {"g", borderColor.g}, {"b", borderColor.b}, {"a", borderColor.a}};
  const json j = {{"x", x},
                  {"y", y},
                  {"width", width},
                  {"aspect", std::string(enumText(aspect))},
                  {"rotation", rotation},
                  {"opacity", opacity},
                  {"cornerRadius", cornerRadius},
                  {"borderWidth", borderWidth},
                  {"borderColor", color},
                  {"shadowRadius", shadowRadius},
                  {"shadowOpacity", shadowOpacity},
                  {"circle", circle},
                  {"zoom", zoom},
                  {"panX", panX},
                  {"panY", panY}};
  return j.dump();
}

std::optional<QvnPiPLayout> QvnPiPLayout::fromJSON(std::string_view text) {
  const json j = json::parse(text, nullptr, false);
  if (!j.is_object()) return std::nullopt;
  // Every key is required: a missing or mistyped one rejects the layout whole.
  auto number = [](const json& obj, const char* key, double& out) {
    auto it = obj.find(key);
    if (it == obj.end() || !it->is_number()) return false;
    out = it->get<double>();
    return true;
  };
  QvnPiPLayout l;
  auto color = j.find("borderColor");
  auto aspectText = j.find("aspect");
  auto circle = j.find("circle");
  if (color == j.end() || !color->is_object() || aspectText == j.end() ||
      !aspectText->is_string() || circle == j.end() || !circle->is_boolean())
    return std::nullopt;
  auto aspect = enumFromText<QvnPiPAspect>(aspectText->get<std::string>());
  if (!aspect) return std::nullopt;
  l.aspect = *aspect;
  l.circle = circle->get<bool>();
  const bool ok =
      number(j, "x", l.x) && number(j, "y", l.y) && number(j, "width", l.width) &&
      number(j, "rotation", l.rotation) && number(j, "opacity", l.opacity) &&
      number(j, "cornerRadius", l.cornerRadius) && number(j, "borderWidth", l.borderWidth) &&
      number(j, "shadowRadius", l.shadowRadius) && number(j, "shadowOpacity", l.shadowOpacity) &&
      number(j, "zoom", l.zoom) && number(j, "panX", l.panX) && number(j, "panY", l.panY) &&
      number(*color, "r", l.borderColor.r) && number(*color, "g", l.borderColor.g) &&
      number(*color, "b", l.borderColor.b) && number(*color, "a", l.borderColor.a);
  if (!ok) return std::nullopt;
  return l;
}

}  // namespace qvn
