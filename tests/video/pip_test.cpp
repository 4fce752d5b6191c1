// The inset's layout value, its built-in templates and styles, and the mask and border art
// the mix asks for.
#include <gmock/gmock.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "video/pip_art.h"
#include "video/pip_layout.h"
#include "video/pip_templates.h"

namespace qvn::test {
namespace {

using ::testing::ElementsAre;

constexpr double kWide = 16.0 / 9.0;

// The look a style or template row sets, and the layout with it set aside.
auto look(const QvnPiPLayout& l) {
  return std::tuple(l.aspect, l.cornerRadius, l.borderWidth, l.borderColor, l.shadowRadius,
                    l.shadowOpacity, l.circle);
}
QvnPiPLayout withoutLook(QvnPiPLayout l) {
  l.aspect = QvnPiPAspect::source;
  l.cornerRadius = l.borderWidth = l.shadowRadius = l.shadowOpacity = 0;
  l.circle = false;
  return l;
}

TEST(PiPLayout, ClampedHoldsRangesAndCopiesTheRest) {
  QvnPiPLayout l;
  l.x = 5;
  l.y = -1;
  l.width = 0.01;
  l.rotation = 270;
  l.opacity = l.shadowOpacity = 0;
  l.cornerRadius = l.borderWidth = -1;
  l.shadowRadius = -7;  // no range of its own
  l.zoom = 3.5;
  l.panX = -0.7;
  QvnPiPLayout expected = l;
  expected.x = 1.2;
  expected.y = -0.2;
  expected.width = 0.06;
  expected.rotation = 180;
  expected.opacity = 0.05;
  expected.cornerRadius = expected.borderWidth = 0;
  EXPECT_EQ(l.clamped(), expected);
  l.width = 2;
  EXPECT_EQ(l.clamped().width, 1);
}

TEST(PiPLayout, RectIsCentredAndTakesItsHeightFromTheShape) {
  QvnPiPLayout l{.x = 0.5, .y = 0.4, .width = 0.2, .aspect = QvnPiPAspect::square};
  const NormRect r = l.rect(1920, 1080, kWide);
  EXPECT_DOUBLE_EQ(r.width, 0.2);
  EXPECT_NEAR(r.height, 0.3556, 1e-4);
  EXPECT_DOUBLE_EQ(r.x, 0.4);
  EXPECT_DOUBLE_EQ(r.y, 0.4 - r.height / 2);
  // A canvas without height divides by 1, never by 0.
  EXPECT_DOUBLE_EQ(l.rect(100, 0, kWide).height, 0.2 * 100);

  // Heights on a 1920x1080 canvas as multiples of the square one (0.2 * 1920 / 1080). A very
  // thin source is held at 1:20; an unknown one counts as 16:9.
  struct Case {
    QvnPiPAspect aspect;
    double source, factor;
  };
  for (const Case c : {Case{QvnPiPAspect::wide, 1, 9.0 / 16},
                       {QvnPiPAspect::classic, 1, 0.75},
                       {QvnPiPAspect::vertical, 1, 16.0 / 9},
                       {QvnPiPAspect::source, 1, 1},
                       {QvnPiPAspect::source, 0.02, 20},
                       {QvnPiPAspect::source, 0.005, 9.0 / 16},
                       {QvnPiPAspect::source, 0, 9.0 / 16}}) {
    l.aspect = c.aspect;
    EXPECT_NEAR(l.rect(1920, 1080, c.source).height, 0.2 * 1920 / 1080 * c.factor, 1e-12)
        << enumText(c.aspect) << " " << c.source;
  }
}

TEST(PiPLayout, SourceAspectFallsBackTo16By9WithoutAUsableSize) {
  EXPECT_DOUBLE_EQ(sourceAspect(1080, 1920), 0.5625);
  EXPECT_DOUBLE_EQ(sourceAspect(2, 2), 1);
  for (auto [w, h] : {std::pair{1, 1080}, {1920, 1}, {0, 0}, {-1920, -1080}})
    EXPECT_DOUBLE_EQ(sourceAspect(w, h), kWide) << w << "x" << h;
}

TEST(PiPLayout, JSONNeedsEveryKey) {
  const QvnPiPLayout l = QvnPiPTemplate::all()[6].layout;  // round, with shadow
  EXPECT_EQ(QvnPiPLayout::fromJSON(l.toJSON()), l);
  auto j = nlohmann::json::parse(l.toJSON());
  j.erase("panY");
  EXPECT_EQ(QvnPiPLayout::fromJSON(j.dump()), std::nullopt);
}

TEST(PiPTemplates, TableRowsInOrderAndRoundExactlyWhenSquare) {
  const auto& all = QvnPiPTemplate::all();
  std::vector<std::string_view> ids;
  std::set<QvnPiPCategory> categories;
  for (const auto& t : all) {
    ids.push_back(t.id);
    categories.insert(t.category);
    // Rows only place and dress the inset, within range; a square row is a round one.
    const QvnPiPLayout& l = t.layout;
    EXPECT_EQ(l.circle, l.aspect == QvnPiPAspect::square) << t.id;
    EXPECT_EQ(l.clamped(), l) << t.id;
    EXPECT_EQ(withoutLook(l), withoutLook({.x = l.x, .y = l.y, .width = l.width})) << t.id;
  }
  EXPECT_THAT(ids, ElementsAre("std.br", "std.bl", "std.tr", "std.tl", "cast.speaker",
                               "cast.interview", "cast.presenter", "cast.guest", "pod.host",
                               "pod.dual", "pod.round", "church.preacher", "church.worship",
                               "church.audience", "event.slides", "event.stage", "event.host"));
  EXPECT_EQ(categories.size(), 5u);
  EXPECT_EQ(all[16].category, QvnPiPCategory::event);
  // The first row is the studio's default inset.
  EXPECT_EQ(all[0].layout, QvnPiPLayout{});
  EXPECT_EQ(all[0].name, "Bottom Right");

  const QvnPiPTemplate& presenter = all[6];
  EXPECT_EQ(presenter.name, "Presenter");
  EXPECT_EQ(presenter.category, QvnPiPCategory::broadcast);
  EXPECT_EQ(presenter.blurb, "Small circle over a full-frame source");
  const QvnPiPLayout& l = presenter.layout;
  EXPECT_EQ(std::tuple(l.x, l.y, l.width), std::tuple(0.87, 0.8, 0.17));
  EXPECT_EQ(look(l), std::tuple(QvnPiPAspect::square, 0.0, 4.0, OverlayRGBA{1, 1, 1, 0.85}, 16.0,
                                0.35, true));
}

TEST(PiPStyles, TableRowsChangeTheLookButNeverPositionOrSize) {
  QvnPiPLayout start{.x = 0.3, .y = 0.6, .width = 0.45, .rotation = 7, .opacity = 0.8};
  start.aspect = QvnPiPAspect::classic;
  start.cornerRadius = 40;
  start.borderColor = {0.1, 0.2, 0.3, 0.4};
  start.circle = true;
  start.zoom = 2;
  start.panX = 0.1;
  std::vector<std::string_view> ids, names;
  std::vector<QvnPiPLayout> styled;
  for (const auto& s : QvnPiPStyle::all()) {
    ids.push_back(s.id);
    names.push_back(s.name);
    QvnPiPLayout l = start;
    s.apply(l);
    QvnPiPLayout unstyled = withoutLook(start);
    unstyled.borderColor = l.borderColor;
    EXPECT_EQ(withoutLook(l), unstyled) << s.id;
    EXPECT_EQ(l.circle, s.id == "circle") << s.id;
    styled.push_back(l);
  }
  EXPECT_THAT(ids, ElementsAre("clean", "broadcast", "rounded", "card", "minimal", "accent",
                               "shadow", "circle"));
  EXPECT_THAT(names, ElementsAre("Clean", "Broadcast", "Rounded", "Soft Card", "Minimal", "Accent",
                                 "Shadow", "Circle"));
  // Clean leaves the colour alone; Circle keeps the radius and squares the shape.
  EXPECT_EQ(look(styled[0]),
            std::tuple(QvnPiPAspect::classic, 0.0, 0.0, start.borderColor, 0.0, 0.0, false));
  EXPECT_EQ(look(styled[5]),
            std::tuple(QvnPiPAspect::classic, 10.0, 5.0,
                       OverlayRGBA{0, 200.0 / 255, 150.0 / 255, 1}, 12.0, 0.3, false));
  EXPECT_EQ(look(styled[7]), std::tuple(QvnPiPAspect::square, 40.0, 4.0, OverlayRGBA{1, 1, 1, 0.9},
                                        16.0, 0.35, true));
}

// Every art test starts from empty caches, so pointer identity tells a hit from a redraw.
class PiPArt : public ::testing::Test {
 protected:
  void SetUp() override { QvnPiPArt::emptyCaches(); }
  void TearDown() override { QvnPiPArt::emptyCaches(); }

  static int at(const AlphaMask& m, int x, int y) { return m.alpha[y * m.stride + x]; }
  static std::vector<int> bgra(const PixelBuffer& b, int x, int y) {
    const std::uint8_t* p = b.bgraAt(x, y);
    return {p[0], p[1], p[2], p[3]};
  }
};

TEST_F(PiPArt, MaskCoversTheRoundedShape) {
  EXPECT_EQ(QvnPiPArt::mask(1, 100, 0, false), nullptr);
  EXPECT_EQ(QvnPiPArt::mask(100, 0, 0, false), nullptr);

  // A circle even with no radius asked for, its rim antialiased.
  auto circle = QvnPiPArt::mask(100, 100, 0, true);
  ASSERT_NE(circle, nullptr);
  EXPECT_EQ(circle->alpha.size(), static_cast<size_t>(circle->stride) * 100);
  for (auto [x, y] : {std::pair{0, 0}, {99, 99}, {10, 10}}) EXPECT_EQ(at(*circle, x, y), 0);
  for (auto [x, y] : {std::pair{50, 50}, {20, 20}, {50, 2}, {97, 50}})
    EXPECT_EQ(at(*circle, x, y), 255);
  EXPECT_GT(at(*circle, 14, 14), 0);
  EXPECT_LT(at(*circle, 14, 14), 255);

  // Radius 0 covers everything; one beyond half the side is a circle again.
  auto square = QvnPiPArt::mask(40, 30, 0, false);
  ASSERT_NE(square, nullptr);
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 40; ++x) ASSERT_EQ(at(*square, x, y), 255) << x << "," << y;
  EXPECT_EQ(QvnPiPArt::mask(100, 100, 500, false)->alpha, circle->alpha);

  auto rounded = QvnPiPArt::mask(100, 60, 10, false);
  ASSERT_NE(rounded, nullptr);
  EXPECT_EQ(at(*rounded, 99, 59), 0);
  EXPECT_EQ(at(*rounded, 0, 30), 255);
  EXPECT_EQ(at(*rounded, 10, 10), 255);
}

TEST_F(PiPArt, BorderStrokesJustInsideTheEdge) {
  const OverlayRGBA white{1, 1, 1, 1};
  EXPECT_EQ(QvnPiPArt::border(100, 60, 0, 0.3, white, false), nullptr);
  EXPECT_EQ(QvnPiPArt::border(100, 60, 0, 3, {1, 1, 1, 0.004}, false), nullptr);
  EXPECT_EQ(QvnPiPArt::border(1, 60, 0, 3, white, false), nullptr);

  // Half-transparent teal: stored premultiplied, in B, G, R, A order.
  auto b = QvnPiPArt::border(100, 60, 12, 4, {0, 200.0 / 255, 150.0 / 255, 0.5}, false);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->format(), PixelFormat::bgra);
  const auto stroke = bgra(*b, 50, 1);
  EXPECT_NEAR(stroke[0], 75, 1);
  EXPECT_NEAR(stroke[1], 100, 1);
  EXPECT_EQ(stroke[2], 0);
  EXPECT_NEAR(stroke[3], 128, 1);
  for (auto [x, y] : {std::pair{1, 30}, {98, 30}, {50, 58}}) EXPECT_EQ(bgra(*b, x, y), stroke);
  for (auto [x, y] : {std::pair{50, 30}, {50, 5}, {0, 0}})
    EXPECT_THAT(bgra(*b, x, y), ElementsAre(0, 0, 0, 0));

  // The stroke's outer edge follows the mask of the same radius, so the frame hugs the
  // masked picture.
  auto opaque = QvnPiPArt::border(100, 60, 12, 4, white, false);
  auto shape = QvnPiPArt::mask(100, 60, 12, false);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x + y < 8; ++x)
      EXPECT_NEAR(bgra(*opaque, x, y)[3], at(*shape, x, y), 3) << x << "," << y;

  // Square corners reach the picture's corner; a circle leaves it clear.
  EXPECT_THAT(bgra(*QvnPiPArt::border(40, 40, 0, 4, white, false), 0, 0),
              ElementsAre(255, 255, 255, 255));
  auto circle = QvnPiPArt::border(40, 40, 0, 4, white, true);
  EXPECT_THAT(bgra(*circle, 0, 0), ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(bgra(*circle, 20, 2), ElementsAre(255, 255, 255, 255));
}

TEST_F(PiPArt, CacheHitsByKeyAndEmptiesPast24Entries) {
  const OverlayRGBA white{1, 1, 1, 0.85};
  auto mask = QvnPiPArt::mask(64, 36, 10.2, false);
  // The key holds the radius as a whole number, the stroke to a tenth.
  EXPECT_EQ(QvnPiPArt::mask(64, 36, 10.9, false), mask);
  EXPECT_NE(QvnPiPArt::mask(64, 36, 10.9, true), mask);
  EXPECT_NE(QvnPiPArt::mask(64, 36, 11, false), mask);
  auto border = QvnPiPArt::border(64, 36, 10.2, 3.04, white, false);
  EXPECT_EQ(QvnPiPArt::border(64, 36, 10.7, 3.06, white, false), border);
  EXPECT_NE(QvnPiPArt::border(64, 36, 10, 3.1, white, false), border);
  EXPECT_NE(QvnPiPArt::border(64, 36, 10, 3, {1, 1, 1, 0.8501}, false), border);

  QvnPiPArt::emptyCaches();
  auto first = QvnPiPArt::mask(2, 2, 0, false);
  auto firstBorder = QvnPiPArt::border(2, 2, 0, 1, white, false);
  for (int i = 1; i < 25; ++i) {
    QvnPiPArt::mask(2 + i, 2, 0, false);
    QvnPiPArt::border(2 + i, 2, 0, 1, white, false);
  }
  // 25 entries each: all still there. One more key empties the cache and leaves only itself.
  EXPECT_EQ(QvnPiPArt::mask(2, 2, 0, false), first);
  EXPECT_EQ(QvnPiPArt::border(2, 2, 0, 1, white, false), firstBorder);
  auto extra = QvnPiPArt::mask(100, 2, 0, false);
  QvnPiPArt::border(100, 2, 0, 1, white, false);
  EXPECT_EQ(QvnPiPArt::mask(100, 2, 0, false), extra);
  auto redrawn = QvnPiPArt::mask(2, 2, 0, false);
  EXPECT_NE(redrawn, first);
  EXPECT_NE(QvnPiPArt::border(2, 2, 0, 1, white, false), firstBorder);
  EXPECT_EQ(redrawn->alpha, first->alpha);
}

TEST_F(PiPArt, ThreadsMissingTogetherEachGetAPicture) {
  std::vector<std::thread> threads;
  std::atomic<int> missing{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 60; ++i) {
        if (!QvnPiPArt::mask(8 + i % 30, 8, i % 5, i % 2 == 0)) ++missing;
        if (!QvnPiPArt::border(8 + i % 30, 8, i % 5, 2, {1, 1, 1, 1}, false)) ++missing;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(missing.load(), 0);
}

}  // namespace
}  // namespace qvn::test
