#include "video/pip_templates.h"

namespace qvn {
namespace {

// The fields a template row varies; the rest keep the layout's defaults (no rotation, full
// opacity, white border at 0.85, no zoom or pan). A square template is a round one.
QvnPiPLayout placed(double x, double y, double width, QvnPiPAspect aspect, double radius,
                    double border, double shadowRadius, double shadowOpacity) {
  QvnPiPLayout l;
  l.x = x;
  l.y = y;
  l.width = width;
  l.aspect = aspect;
  l.cornerRadius = radius;
  l.borderWidth = border;
  l.shadowRadius = shadowRadius;
  l.shadowOpacity = shadowOpacity;
  l.circle = aspect == QvnPiPAspect::square;
  return l;
}

// A style's look. Every style but Circle makes a round inset rectangular again.
void dress(QvnPiPLayout& l, double radius, double border, double shadowRadius,
           double shadowOpacity) {
  l.cornerRadius = radius;
  l.borderWidth = border;
  l.shadowRadius = shadowRadius;
  l.shadowOpacity = shadowOpacity;
  l.circle = false;
}

}  // namespace

const std::vector<QvnPiPTemplate>& QvnPiPTemplate::all() {
  using enum QvnPiPCategory;
  constexpr auto source = QvnPiPAspect::source;
  constexpr auto square = QvnPiPAspect::square;
  constexpr auto wide = QvnPiPAspect::wide;
  static const std::vector<QvnPiPTemplate> templates{
      {"std.br", "Bottom Right", standard, "The default inset",
       placed(0.84, 0.79, 0.28, source, 0, 3, 0, 0)},
      {"std.bl", "Bottom Left", standard, "Clear of a right-side lower third",
       placed(0.16, 0.79, 0.28, source, 0, 3, 0, 0)},
      {"std.tr", "Top Right", standard, "Above the action",
       placed(0.84, 0.21, 0.28, source, 0, 3, 0, 0)},
      {"std.tl", "Top Left", standard, "Opposite a corner logo",
       placed(0.16, 0.21, 0.28, source, 0, 3, 0, 0)},
      {"cast.speaker", "Speaker + Main", broadcast, "Large inset for the person talking",
       placed(0.78, 0.72, 0.38, source, 12, 3, 18, 0.35)},
      {"cast.interview", "Interview", broadcast, "Guest lower-left, clear of a name strip",
       placed(0.21, 0.7, 0.34, source, 12, 3, 16, 0.32)},
      {"cast.presenter", "Presenter", broadcast, "Small circle over a full-frame source",
       placed(0.87, 0.8, 0.17, square, 0, 4, 16, 0.35)},
      {"cast.guest", "Guest Focus", broadcast, "Inset takes most of the frame",
       placed(0.66, 0.6, 0.52, source, 14, 2, 22, 0.4)},
      {"pod.host", "Host + Guest", podcast, "Guest bottom-right at talking-head size",
       placed(0.8, 0.74, 0.32, source, 16, 2, 20, 0.35)},
      {"pod.dual", "Dual Camera", podcast, "Second angle, top-right, unobtrusive",
       placed(0.84, 0.22, 0.26, source, 12, 2, 12, 0.3)},
      {"pod.round", "Round Guest", podcast, "Circular guest over the room shot",
       placed(0.84, 0.76, 0.2, square, 0, 4, 18, 0.38)},
      {"church.preacher", "Preacher + Screen", church, "Speaker inset over the slide feed",
       placed(0.81, 0.74, 0.3, source, 10, 3, 16, 0.34)},
      {"church.worship", "Worship Wide", church, "Wide room shot inset, top-right",
       placed(0.82, 0.22, 0.3, wide, 8, 2, 0, 0)},
      {"church.audience", "Speaker + Audience", church, "Congregation inset, bottom-left",
       placed(0.18, 0.77, 0.28, source, 8, 2, 12, 0.3)},
      {"event.slides", "Speaker + Slides", event, "Speaker inset over the deck",
       placed(0.83, 0.75, 0.28, source, 10, 3, 14, 0.32)},
      {"event.stage", "Stage + Audience", event, "Audience inset, bottom-right",
       placed(0.83, 0.78, 0.26, source, 6, 2, 0, 0)},
      {"event.host", "Host + Guest", event, "Balanced inset for two-camera panels",
       placed(0.76, 0.7, 0.36, source, 14, 2, 18, 0.35)},
  };
  return templates;
}

const std::vector<QvnPiPStyle>& QvnPiPStyle::all() {
  static const std::vector<QvnPiPStyle> styles{
      {"clean", "Clean", [](QvnPiPLayout& l) { dress(l, 0, 0, 0, 0); }},
      {"broadcast", "Broadcast",
       [](QvnPiPLayout& l) {
         dress(l, 0, 4, 14, 0.35);
         l.borderColor = {1, 1, 1, 0.9};
       }},
      {"rounded", "Rounded", [](QvnPiPLayout& l) { dress(l, 18, 0, 10, 0.28); }},
      {"card", "Soft Card",
       [](QvnPiPLayout& l) {
         dress(l, 26, 2, 26, 0.42);
         l.borderColor = {1, 1, 1, 0.35};
       }},
      {"minimal", "Minimal",
       [](QvnPiPLayout& l) {
         dress(l, 8, 1, 0, 0);
         l.borderColor = {1, 1, 1, 0.28};
       }},
      {"accent", "Accent",
       [](QvnPiPLayout& l) {
         dress(l, 10, 5, 12, 0.3);
         l.borderColor = {0, 200.0 / 255, 150.0 / 255, 1};
       }},
      {"shadow", "Shadow", [](QvnPiPLayout& l) { dress(l, 12, 0, 34, 0.55); }},
      {"circle", "Circle",
       [](QvnPiPLayout& l) {
         // The round inset keeps whatever corner radius it had: the circle overrides it.
         l.borderWidth = 4;
         l.borderColor = {1, 1, 1, 0.9};
         l.shadowRadius = 16;
         l.shadowOpacity = 0.35;
         l.circle = true;
         l.aspect = QvnPiPAspect::square;
       }},
  };
  return styles;
}

}  // namespace qvn
