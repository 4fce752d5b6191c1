// The inset's layout value, its built-in templates and styles, and the mask and border art
// the mix asks for.
#include <gmock/gmock.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "video/pip_art.h"
#include "video/pip_layout.h"
#include "video/pip_templates.h"

namespace qvn::test {
namespace {

using ::testing::ElementsAre;

constexpr double kWide = 16.0 / 9.0;

TEST(PiPLayout, ClampedHoldsRangesAndCopiesTheRest) {
  QvnPiPLayout l;
  l.x = 5;
  l.y = -1;
  l.width = 2;
  l.rotation = 270;
  l.opacity = 0;
  l.cornerRadius = -4;
  l.borderWidth = -1;
  l.shadowRadius = -7;  // no range of its own
  l.zoom = 3.5;
  l.panX = -0.7;
  l.panY = 0.4;
  const QvnPiPLayout c = l.clamped();
  EXPECT_EQ(c.x, 1.2);
  EXPECT_EQ(c.y, -0.2);
  EXPECT_EQ(c.width, 1);
  EXPECT_EQ(c.rotation, 180);
  EXPECT_EQ(c.opacity, 0.05);
  EXPECT_EQ(c.cornerRadius, 0);
  EXPECT_EQ(c.borderWidth, 0);
  EXPECT_EQ(c.shadowRadius, -7);
  EXPECT_EQ(c.zoom, 3.5);
  EXPECT_EQ(c.panX, -0.7);
  EXPECT_EQ(c.panY, 0.4);

  l.width = 0.01;
  EXPECT_EQ(l.clamped().width, 0.06);
}

TEST(PiPLayout, RectIsCentredAndTakesItsHeightFromTheShape) {
  QvnPiPLayout l;
  l.x = 0.5;
  l.y = 0.4;
  l.width = 0.2;
  l.aspect = QvnPiPAspect::square;
  const NormRect r = l.rect(1920, 1080, kWide);
  EXPECT_NEAR(r.height, 0.3556, 1e-4);
  EXPECT_DOUBLE_EQ(r.width, 0.2);
  EXPECT_DOUBLE_EQ(r.x, 0.4);
  EXPECT_DOUBLE_EQ(r.y, 0.4 - r.height / 2);

  auto heightFor = [&](QvnPiPAspect aspect, double source) {
    l.aspect = aspect;
    return l.rect(1920, 1080, source).height;
  };
  EXPECT_NEAR(heightFor(QvnPiPAspect::wide, 1), 0.2, 1e-12);
  EXPECT_NEAR(heightFor(QvnPiPAspect::classic, 1), 0.2 * 1920 / 1080 * 3 / 4, 1e-12);
  EXPECT_NEAR(heightFor(QvnPiPAspect::vertical, 1), 0.2 * 1920 / 1080 * 16 / 9, 1e-12);
  EXPECT_NEAR(heightFor(QvnPiPAspect::source, 1), 0.2 * 1920 / 1080, 1e-12);
  // A very thin source is held at 1:20; an unknown one counts as 16:9.
  EXPECT_NEAR(heightFor(QvnPiPAspect::source, 0.02), 0.2 * 1920 / 1080 / 0.05, 1e-12);
  EXPECT_NEAR(heightFor(QvnPiPAspect::source, 0.005), 0.2, 1e-12);
  EXPECT_NEAR(heightFor(QvnPiPAspect::source, 0), 0.2, 1e-12);

  // A canvas without height divides by 1, never by 0.
  l.aspect = QvnPiPAspect::square;
  EXPECT_DOUBLE_EQ(l.rect(100, 0, kWide).height, 0.2 * 100);
}

TEST(PiPLayout, SourceAspectFallsBackTo16By9WithoutAUsableSize) {
  EXPECT_DOUBLE_EQ(sourceAspect(1920, 1080), kWide);
  EXPECT_DOUBLE_EQ(sourceAspect(1080, 1920), 0.5625);
  EXPECT_DOUBLE_EQ(sourceAspect(2, 2), 1);
  EXPECT_DOUBLE_EQ(sourceAspect(1, 1080), kWide);
  EXPECT_DOUBLE_EQ(sourceAspect(1920, 1), kWide);
  EXPECT_DOUBLE_EQ(sourceAspect(0, 0), kWide);
  EXPECT_DOUBLE_EQ(sourceAspect(-1920, -1080), kWide);
}

TEST(PiPLayout, JSONNeedsEveryKey) {
  const QvnPiPLayout l = QvnPiPTemplate::all()[6].layout;  // round, with shadow
  EXPECT_EQ(QvnPiPLayout::fromJSON(l.toJSON()), l);
  auto j = nlohmann::json::parse(l.toJSON());
  j.erase("panY");
  EXPECT_EQ(QvnPiPLayout::fromJSON(j.dump()), std::nullopt);
}

TEST(PiPTemplates, TableRowsInOrder) {
  const auto& all = QvnPiPTemplate::all();
  std::vector<std::string_view> ids;
  for (const auto& t : all) ids.push_back(t.id);
  EXPECT_THAT(ids, ElementsAre("std.br", "std.bl", "std.tr", "std.tl", "cast.speaker",
                               "cast.interview", "cast.presenter", "cast.guest", "pod.host",
                               "pod.dual", "pod.round", "church.preacher", "church.worship",
                               "church.audience", "event.slides", "event.stage", "event.host"));

  for (const auto& t : all) {
    SCOPED_TRACE(t.id);
    EXPECT_EQ(t.layout.circle, t.layout.aspect == QvnPiPAspect::square);
    EXPECT_EQ(t.layout.rotation, 0);
    EXPECT_EQ(t.layout.opacity, 1);
    EXPECT_EQ(t.layout.borderColor, (OverlayRGBA{1, 1, 1, 0.85}));
    EXPECT_EQ(t.layout.zoom, 1);
    EXPECT_EQ(t.layout.panX, 0);
    EXPECT_EQ(t.layout.panY, 0);
    EXPECT_EQ(t.layout.clamped(), t.layout);
  }

  // The first row is the studio's default inset.
  EXPECT_EQ(all[0].layout, QvnPiPLayout{});
  EXPECT_EQ(all[0].name, "Bottom Right");
  EXPECT_EQ(all[0].blurb, "The default inset");

  const QvnPiPTemplate& presenter = all[6];
  EXPECT_EQ(presenter.name, "Presenter");
  EXPECT_EQ(presenter.category, QvnPiPCategory::broadcast);
  EXPECT_EQ(presenter.blurb, "Small circle over a full-frame source");
  EXPECT_EQ(presenter.layout.x, 0.87);
  EXPECT_EQ(presenter.layout.y, 0.8);
  EXPECT_EQ(presenter.layout.width, 0.17);
  EXPECT_EQ(presenter.layout.aspect, QvnPiPAspect::square);
  EXPECT_TRUE(presenter.layout.circle);
  EXPECT_EQ(presenter.layout.borderWidth, 4);
  EXPECT_EQ(presenter.layout.shadowRadius, 16);
  EXPECT_EQ(presenter.layout.shadowOpacity, 0.35);

  const QvnPiPTemplate& worship = all[12];
  EXPECT_EQ(worship.name, "Worship Wide");
  EXPECT_EQ(worship.category, QvnPiPCategory::church);
  EXPECT_EQ(worship.blurb, "Wide room shot inset, top-right");
  EXPECT_EQ(worship.layout.aspect, QvnPiPAspect::wide);
  EXPECT_FALSE(worship.layout.circle);
  EXPECT_EQ(worship.layout.cornerRadius, 8);
  EXPECT_EQ(worship.layout.borderWidth, 2);

  const QvnPiPTemplate& last = all[16];
  EXPECT_EQ(last.name, "Host + Guest");
  EXPECT_EQ(last.category, QvnPiPCategory::event);
  EXPECT_EQ(last.blurb, "Balanced inset for two-camera panels");
  EXPECT_EQ(last.layout.x, 0.76);
  EXPECT_EQ(last.layout.y, 0.7);
  EXPECT_EQ(last.layout.width, 0.36);
  EXPECT_EQ(last.layout.cornerRadius, 14);
  EXPECT_EQ(last.layout.shadowRadius, 18);
  EXPECT_EQ(last.layout.shadowOpacity, 0.35);

  std::vector<std::string_view> categories;
  for (const auto& t : all) categories.push_back(enumText(t.category));
  EXPECT_EQ(std::set<std::string_view>(categories.begin(), categories.end()).size(), 5u);
  EXPECT_EQ(enumFromText<QvnPiPCategory>("podcast"), QvnPiPCategory::podcast);
}

TEST(PiPStyles, TableRowsChangeTheLookButNeverPositionOrSize) {
  const auto& all = QvnPiPStyle::all();
  std::vector<std::string_view> ids, names;
  for (const auto& s : all) {
    ids.push_back(s.id);
    names.push_back(s.name);
  }
  EXPECT_THAT(ids, ElementsAre("clean", "broadcast", "rounded", "card", "minimal", "accent",
                               "shadow", "circle"));
  EXPECT_THAT(names, ElementsAre("Clean", "Broadcast", "Rounded", "Soft Card", "Minimal", "Accent",
                                 "Shadow", "Circle"));

  QvnPiPLayout start;
  start.x = 0.3;
  start.y = 0.6;
  start.width = 0.45;
  start.aspect = QvnPiPAspect::classic;
  start.rotation = 7;
  start.opacity = 0.8;
  start.cornerRadius = 40;
  start.borderColor = {0.1, 0.2, 0.3, 0.4};
  start.circle = true;
  start.zoom = 2;
  start.panX = 0.1;
  std::vector<QvnPiPLayout> styled;
  for (const auto& s : all) {
    SCOPED_TRACE(s.id);
    QvnPiPLayout l = start;
    s.apply(l);
    EXPECT_EQ(l.x, start.x);
    EXPECT_EQ(l.y, start.y);
    EXPECT_EQ(l.width, start.width);
    EXPECT_EQ(l.rotation, start.rotation);
    EXPECT_EQ(l.opacity, start.opacity);
    EXPECT_EQ(l.zoom, start.zoom);
    EXPECT_EQ(l.panX, start.panX);
    EXPECT_EQ(l.circle, s.id == "circle");
    styled.push_back(l);
  }

  // clean: a dash leaves the colour alone.
  EXPECT_EQ(styled[0].cornerRadius, 0);
  EXPECT_EQ(styled[0].borderWidth, 0);
  EXPECT_EQ(styled[0].borderColor, start.borderColor);
  EXPECT_EQ(styled[0].aspect, QvnPiPAspect::classic);
  // card
  EXPECT_EQ(styled[3].cornerRadius, 26);
  EXPECT_EQ(styled[3].borderWidth, 2);
  EXPECT_EQ(styled[3].borderColor, (OverlayRGBA{1, 1, 1, 0.35}));
  EXPECT_EQ(styled[3].shadowRadius, 26);
  EXPECT_EQ(styled[3].shadowOpacity, 0.42);
  // accent
  EXPECT_EQ(styled[5].cornerRadius, 10);
  EXPECT_EQ(styled[5].borderWidth, 5);
  EXPECT_EQ(styled[5].borderColor, (OverlayRGBA{0, 200.0 / 255, 150.0 / 255, 1}));
  EXPECT_EQ(styled[5].shadowRadius, 12);
  EXPECT_EQ(styled[5].shadowOpacity, 0.3);
  // circle: keeps the radius, squares the shape.
  EXPECT_EQ(styled[7].cornerRadius, 40);
  EXPECT_EQ(styled[7].aspect, QvnPiPAspect::square);
  EXPECT_EQ(styled[7].borderWidth, 4);
  EXPECT_EQ(styled[7].borderColor, (OverlayRGBA{1, 1, 1, 0.9}));
  EXPECT_EQ(styled[7].shadowRadius, 16);
  EXPECT_EQ(styled[7].shadowOpacity, 0.35);
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

  // A circle even with no radius asked for.
  auto circle = QvnPiPArt::mask(100, 100, 0, true);
  ASSERT_NE(circle, nullptr);
  EXPECT_EQ(circle->width, 100);
  EXPECT_EQ(circle->height, 100);
  EXPECT_GE(circle->stride, 100);
  EXPECT_EQ(circle->alpha.size(), static_cast<size_t>(circle->stride) * 100);
  for (auto [x, y] : {std::pair{0, 0}, {99, 0}, {0, 99}, {99, 99}, {10, 10}})
    EXPECT_EQ(at(*circle, x, y), 0) << x << "," << y;
  for (auto [x, y] : {std::pair{50, 50}, {20, 20}, {50, 2}, {2, 50}, {97, 50}})
    EXPECT_EQ(at(*circle, x, y), 255) << x << "," << y;
  // The rim is antialiased: the pixel the circle crosses at 45 degrees is partly covered.
  const int rim = at(*circle, 14, 14);
  EXPECT_GT(rim, 0);
  EXPECT_LT(rim, 255);

  // Without the circle, radius 0 covers everything; a radius beyond half the side is a
  // circle again.
  auto square = QvnPiPArt::mask(40, 30, 0, false);
  ASSERT_NE(square, nullptr);
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 40; ++x) ASSERT_EQ(at(*square, x, y), 255) << x << "," << y;
  auto big = QvnPiPArt::mask(100, 100, 500, false);
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(big->alpha, circle->alpha);

  auto rounded = QvnPiPArt::mask(100, 60, 10, false);
  ASSERT_NE(rounded, nullptr);
  EXPECT_EQ(at(*rounded, 0, 0), 0);
  EXPECT_EQ(at(*rounded, 99, 59), 0);
  EXPECT_EQ(at(*rounded, 0, 30), 255);
  EXPECT_EQ(at(*rounded, 50, 0), 255);
  EXPECT_EQ(at(*rounded, 10, 10), 255);
}

TEST_F(PiPArt, BorderStrokesJustInsideTheEdge) {
  const OverlayRGBA white{1, 1, 1, 1};
  EXPECT_EQ(QvnPiPArt::border(100, 60, 0, 0.3, white, false), nullptr);
  EXPECT_EQ(QvnPiPArt::border(100, 60, 0, 3, {1, 1, 1, 0}, false), nullptr);
  EXPECT_EQ(QvnPiPArt::border(100, 60, 0, 3, {1, 1, 1, 0.004}, false), nullptr);
  EXPECT_EQ(QvnPiPArt::border(1, 60, 0, 3, white, false), nullptr);

  // Half-transparent teal: stored premultiplied, in B, G, R, A order.
  const OverlayRGBA teal{0, 200.0 / 255, 150.0 / 255, 0.5};
  auto b = QvnPiPArt::border(100, 60, 12, 4, teal, false);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->format(), PixelFormat::bgra);
  EXPECT_EQ(b->width(), 100);
  EXPECT_EQ(b->height(), 60);
  const auto stroke = bgra(*b, 50, 1);
  ASSERT_EQ(stroke.size(), 4u);
  EXPECT_NEAR(stroke[0], 75, 1);
  EXPECT_NEAR(stroke[1], 100, 1);
  EXPECT_EQ(stroke[2], 0);
  EXPECT_NEAR(stroke[3], 128, 1);
  EXPECT_EQ(bgra(*b, 1, 30), stroke);
  EXPECT_EQ(bgra(*b, 98, 30), stroke);
  EXPECT_EQ(bgra(*b, 50, 58), stroke);
  EXPECT_THAT(bgra(*b, 50, 30), ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(bgra(*b, 50, 5), ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(bgra(*b, 0, 0), ElementsAre(0, 0, 0, 0));  // outside the rounded corner

  // The stroke's outer edge follows the mask of the same radius, so the frame hugs the
  // masked picture.
  auto opaque = QvnPiPArt::border(100, 60, 12, 4, white, false);
  auto shape = QvnPiPArt::mask(100, 60, 12, false);
  ASSERT_NE(opaque, nullptr);
  ASSERT_NE(shape, nullptr);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x + y < 8; ++x)
      EXPECT_NEAR(bgra(*opaque, x, y)[3], at(*shape, x, y), 3) << x << "," << y;

  // Square corners reach the picture's corner; a circle leaves it clear.
  auto square = QvnPiPArt::border(40, 40, 0, 4, white, false);
  ASSERT_NE(square, nullptr);
  EXPECT_THAT(bgra(*square, 0, 0), ElementsAre(255, 255, 255, 255));
  auto circle = QvnPiPArt::border(40, 40, 0, 4, white, true);
  ASSERT_NE(circle, nullptr);
  EXPECT_THAT(bgra(*circle, 0, 0), ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(bgra(*circle, 20, 2), ElementsAre(255, 255, 255, 255));
  EXPECT_THAT(bgra(*circle, 20, 20), ElementsAre(0, 0, 0, 0));
}

TEST_F(PiPArt, CacheHitsByKeyAndEmptiesPast24Entries) {
  const OverlayRGBA white{1, 1, 1, 0.85};
  auto mask = QvnPiPArt::mask(64, 36, 10.2, false);
  ASSERT_NE(mask, nullptr);
  // The key holds the radius as a whole number.
  EXPECT_EQ(QvnPiPArt::mask(64, 36, 10.9, false), mask);
  EXPECT_NE(QvnPiPArt::mask(64, 36, 10.9, true), mask);
  EXPECT_NE(QvnPiPArt::mask(64, 36, 11, false), mask);
  auto border = QvnPiPArt::border(64, 36, 10.2, 3.04, white, false);
  ASSERT_NE(border, nullptr);
  EXPECT_EQ(QvnPiPArt::border(64, 36, 10.7, 3.06, white, false), border);
  EXPECT_NE(QvnPiPArt::border(64, 36, 10, 3.1, white, false), border);
  EXPECT_NE(QvnPiPArt::border(64, 36, 10, 3, {1, 1, 1, 0.8501}, false), border);

  QvnPiPArt::emptyCaches();
  auto first = QvnPiPArt::mask(2, 2, 0, false);
  auto firstBorder = QvnPiPArt::border(2, 2, 0, 1, white, false);
  for (int i = 1; i < 25; ++i) {
    ASSERT_NE(QvnPiPArt::mask(2 + i, 2, 0, false), nullptr);
    ASSERT_NE(QvnPiPArt::border(2 + i, 2, 0, 1, white, false), nullptr);
  }
  // 25 entries each: all still there.
  EXPECT_EQ(QvnPiPArt::mask(2, 2, 0, false), first);
  EXPECT_EQ(QvnPiPArt::border(2, 2, 0, 1, white, false), firstBorder);

  // One more key empties the cache and leaves only itself.
  auto extra = QvnPiPArt::mask(100, 2, 0, false);
  auto extraBorder = QvnPiPArt::border(100, 2, 0, 1, white, false);
  EXPECT_EQ(QvnPiPArt::mask(100, 2, 0, false), extra);
  EXPECT_EQ(QvnPiPArt::border(100, 2, 0, 1, white, false), extraBorder);
  auto redrawn = QvnPiPArt::mask(2, 2, 0, false);
  auto redrawnBorder = QvnPiPArt::border(2, 2, 0, 1, white, false);
  EXPECT_NE(redrawn, first);
  EXPECT_NE(redrawnBorder, firstBorder);
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
