// What a bus looks like, drawn by the composer straight from the frame hub: inset, overlay
// layers, their motions and holes, crops; and the plain pieces they are built from.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numeric>
#include <vector>

#include "test_pictures.h"
#include "video/alpha_mask.h"
#include "video/bus_composer.h"
#include "video/bus_look.h"
#include "video/crop_easing.h"
#include "video/overlay_geometry.h"

// The art cache draws through cairo, whose font and cache globals live for the process.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n";
}

namespace qvn {
namespace {

constexpr double kNow = 100;

class Compose : public testing::Test {
 protected:
  Compose() {
    hub->store(1, solid(160, 90, kRed));
    hub->store(2, solid(160, 90, kBlue));
  }
  // Bus `slot` with `look` on a width×height target for a 1920×1080 canvas.
  const PixelBuffer& draw(int slot, BusLook& look, double now = kNow,
                          BusComposer::Motion motion = BusComposer::Motion::live, int width = 1920,
                          int height = 1080) {
    if (!target || target->canvas()->width() != width)
      target = std::make_unique<CanvasPainter>(PixelBuffer::make(PixelFormat::bgra, width, height));
    composer.compose(*target, slot, look, now, motion);
    return *target->canvas();
  }
  Px at(int x, int y) { return pixelAt(*target->canvas(), x, y); }

  std::shared_ptr<FrameHub> hub = std::make_shared<FrameHub>();
  BusComposer composer{hub};
  std::unique_ptr<CanvasPainter> target;
};

BusLook insetOf(int slot, QvnPiPLayout layout) {
  BusLook look;
  look.pipOn = true;
  look.pipSlot = slot;
  look.pipLayout = layout;
  return look;
}

TEST_F(Compose, ATranslucentSourceLiesOverTheBackgroundNotOverTheLastPicture) {
  BusLook look;
  draw(1, look);  // the target now holds red
  hub->store(4, solid(160, 90, kBlue, 0.5));
  draw(4, look);
  EXPECT_TRUE(near(at(960, 540), {8, 9, 139}));  // half blue over the background
  hub->store(5, solid(90, 160, kBlue));          // portrait: bars of background beside it
  draw(5, look);
  EXPECT_TRUE(near(at(10, 540), kBackground, 0));
  EXPECT_TRUE(near(at(960, 540), kBlue));
}

// ---- Inset ------------------------------------------------------------------------------

TEST_F(Compose, TheInsetLandsInEachCornerAndNeverShowsTheFullFrameInput) {
  for (PiPCorner corner :
       {PiPCorner::topLeft, PiPCorner::topRight, PiPCorner::bottomLeft, PiPCorner::bottomRight}) {
    QvnPiPLayout layout = QvnPiPLayout::inCorner(corner);
    layout.borderWidth = 0;
    BusLook look = insetOf(2, layout);
    draw(1, look);
    const NormRect r = layout.rect(1920, 1080, 16.0 / 9);
    const int left = int(r.x * 1920), top = int(r.y * 1080);
    const int right = int((r.x + r.width) * 1920), bottom = int((r.y + r.height) * 1080);
    EXPECT_TRUE(near(at(left + 2, top + 2), kBlue)) << enumText(corner);
    EXPECT_TRUE(near(at(right - 3, bottom - 3), kBlue)) << enumText(corner);
    EXPECT_TRUE(near(at(left - 3, top - 3), kRed)) << enumText(corner);
    EXPECT_TRUE(near(at(right + 2, bottom + 2), kRed)) << enumText(corner);
  }
  BusLook same = insetOf(1, QvnPiPLayout{});
  same.pipLayout.shadowRadius = 20, same.pipLayout.shadowOpacity = 1;
  draw(1, same);
  EXPECT_TRUE(near(at(int(0.84 * 1920), int(0.79 * 1080)), kRed));  // nor its shadow
  EXPECT_TRUE(near(at(int(0.84 * 1920), int(0.95 * 1080)), kRed));
}

TEST_F(Compose, TheInsetIsFramedShapedFadedAndTurned) {
  const QvnPiPLayout plain;  // bottom right, white frame 3 px at 0.85
  const NormRect r = plain.rect(1920, 1080, 16.0 / 9);
  const int cx = int((r.x + r.width / 2) * 1920), cy = int((r.y + r.height / 2) * 1080);
  const int left = int(std::round(r.x * 1920)), top = int(std::round(r.y * 1080));
  const int halfW = int(r.width * 1920 / 2), halfH = int(r.height * 1080 / 2);

  BusLook look = insetOf(2, plain);
  draw(1, look);
  EXPECT_TRUE(near(at(left + 1, cy), {217, 217, 255}, 3));  // 0.85 white over blue

  QvnPiPLayout faded = plain;
  faded.opacity = 0.5, faded.borderWidth = 0;
  look = insetOf(2, faded);
  draw(1, look);
  EXPECT_TRUE(near(at(cx, cy), {128, 0, 128}));

  QvnPiPLayout round = plain;
  round.cornerRadius = 60, round.borderWidth = 0;
  look = insetOf(2, round);
  draw(1, look);
  EXPECT_TRUE(near(at(left + 3, top + 3), kRed));  // cut off at the corner
  EXPECT_TRUE(near(at(left + 3, cy), kBlue));

  QvnPiPLayout turned = plain;
  turned.rotation = 90, turned.borderWidth = 0;
  look = insetOf(2, turned);
  draw(1, look);
  EXPECT_TRUE(near(at(cx + halfW - 20, cy), kRed));  // the long side now stands upright
  EXPECT_TRUE(near(at(cx, cy - halfH - 20), kBlue));
}

TEST_F(Compose, TheShadowFallsBelowTheInsetAndStaysOutsideIt) {
  QvnPiPLayout layout;
  layout.x = 0.5, layout.y = 0.5, layout.borderWidth = 0;
  layout.shadowRadius = 14, layout.shadowOpacity = 0.8;
  BusLook look = insetOf(2, layout);
  draw(1, look);
  const NormRect r = layout.rect(1920, 1080, 16.0 / 9);
  const int cx = 960, top = int(r.y * 1080), bottom = int((r.y + r.height) * 1080);
  const Px below = at(cx, bottom + 10), above = at(cx, top - 10);
  EXPECT_LT(below.r, above.r);
  EXPECT_LT(above.r, 250);
  EXPECT_TRUE(near(at(cx, 540), kBlue));
  EXPECT_TRUE(near(at(cx, bottom + 80), kRed));  // beyond three spreads: untouched
}

// ---- Overlay layers -----------------------------------------------------------------------

OverlayLayer layerOf(std::string id, int width, int height, Px colour) {
  OverlayLayer layer;
  layer.id = std::move(id);
  layer.image = solid(width, height, colour);
  return layer;
}

BusLook overlaid(std::vector<OverlayLayer> layers) {
  BusLook look;
  look.overlaysOn = true;
  look.layers = std::move(layers);
  return look;
}

TEST_F(Compose, LayersLandAtTheirCentreTurnedAndFaded) {
  BusLook look = overlaid({layerOf("a", 200, 100, kGreen)});  // 860..1060 × 490..590
  draw(1, look);
  EXPECT_TRUE(near(at(865, 495), kGreen));
  EXPECT_TRUE(near(at(850, 540), kRed));

  look.layers[0].rotation = 90;  // now 910..1010 × 440..640
  draw(1, look);
  EXPECT_TRUE(near(at(960, 450), kGreen));
  EXPECT_TRUE(near(at(880, 540), kRed));

  look.layers[0].rotation = 0;
  look.layers[0].opacity = 0.5;
  draw(1, look);
  EXPECT_TRUE(near(at(960, 540), {128, 128, 0}));

  look.overlaysOn = false;
  draw(1, look);
  EXPECT_TRUE(near(at(960, 540), kRed));
}

TEST_F(Compose, HolesShowTheirInputAndFollowTheCentreOnly) {
  OverlayLayer frame = layerOf("f", 400, 200, kGreen);  // 760..1160 × 440..640
  frame.holes.push_back({2, {0.25, 0.25, 0.5, 0.5}, 10});
  frame.motion = OverlayMotion{QvnOverlayMotion::slideLeft, 1, kNow - 0.5, false};
  BusLook look = overlaid({frame});
  draw(1, look);
  // Half way in: the frame is 200 px left, the hole stays where the centre puts it.
  EXPECT_TRUE(near(at(600, 460), kGreen));
  EXPECT_TRUE(near(at(1100, 460), kRed));
  EXPECT_TRUE(near(at(960, 540), kBlue));
  EXPECT_TRUE(near(at(1000, 495), kRed));  // 5 px into the hole's border: not the input

  look.layers[0].opacity = 0.004;  // neither the layer nor its holes
  draw(1, look);
  EXPECT_TRUE(near(at(960, 540), kRed));
  EXPECT_TRUE(near(at(600, 460), kRed));
}

TEST_F(Compose, MotionsSlideFadeAndWipeOnTheMediaClock) {
  auto drawnWith = [&](QvnOverlayMotion kind, double now) {
    OverlayLayer layer = layerOf("m", 200, 100, kGreen);
    layer.motion = OverlayMotion{kind, 1, kNow, false};
    BusLook look = overlaid({layer});
    draw(1, look, now);
  };
  drawnWith(QvnOverlayMotion::fade, kNow + 0.5);
  EXPECT_TRUE(near(at(960, 540), {128, 128, 0}));
  drawnWith(QvnOverlayMotion::wipe, kNow + 0.5);  // the left half
  EXPECT_TRUE(near(at(900, 540), kGreen));
  EXPECT_TRUE(near(at(1020, 540), kRed));
  drawnWith(QvnOverlayMotion::slideUp, kNow + 0.5);  // 100 px below its place
  EXPECT_TRUE(near(at(960, 660), kGreen));
  EXPECT_TRUE(near(at(960, 500), kRed));
  drawnWith(QvnOverlayMotion::scale, kNow);  // at its start: nothing
  EXPECT_TRUE(near(at(960, 540), kRed));
  drawnWith(QvnOverlayMotion::slideRight, kNow + 2);  // over: in place
  EXPECT_TRUE(near(at(960, 540), kGreen));
}

TEST_F(Compose, ALeavingLayerIsDroppedWhenGoneAndNeverShownSettled) {
  OverlayLayer leaving = layerOf("out", 200, 100, kGreen);
  leaving.motion = OverlayMotion{QvnOverlayMotion::fade, 0.5, kNow, true};
  OverlayLayer arriving = layerOf("in", 100, 50, kBlue);
  arriving.center = {0.25, 0.25};
  arriving.motion = OverlayMotion{QvnOverlayMotion::fade, 0.5, kNow, false};
  BusLook look = overlaid({leaving, arriving});

  draw(1, look, kNow, BusComposer::Motion::settled);  // as it will stand: in at rest, out gone
  EXPECT_TRUE(near(at(960, 540), kRed));
  EXPECT_TRUE(near(at(480, 270), kBlue));
  EXPECT_EQ(look.layers.size(), 2u);

  draw(1, look, kNow + 0.1);
  EXPECT_EQ(look.layers.size(), 2u);
  draw(1, look, kNow + 0.5);  // the exit has ended
  ASSERT_EQ(look.layers.size(), 1u);
  EXPECT_EQ(look.layers[0].id, "in");
}

TEST_F(Compose, AScaledDownTargetDrawsEverythingAtItsScale) {
  OverlayLayer layer = layerOf("a", 200, 100, kGreen);  // 100×50 on a half-size target
  BusLook look = overlaid({layer});
  look.pipOn = true, look.pipSlot = 2, look.pipLayout.borderWidth = 0;
  draw(1, look, kNow, BusComposer::Motion::live, 960, 540);
  EXPECT_TRUE(near(at(480 - 45, 270), kGreen));
  EXPECT_TRUE(near(at(480 - 55, 270), kRed));
  EXPECT_TRUE(near(at(int(0.84 * 960), int(0.79 * 540)), kBlue));
}

TEST_F(Compose, ACropZoomsTheSourceAndEasesBackWhenCleared) {
  auto quarters = PixelBuffer::make(PixelFormat::bgra, 160, 90);  // left red, right blue
  for (int y = 0; y < 90; ++y)
    for (int x = 0; x < 160; ++x) {
      std::uint8_t* p = quarters->bgraAt(x, y);
      p[0] = x < 80 ? 0 : 255, p[1] = 0, p[2] = x < 80 ? 255 : 0, p[3] = 255;
    }
  hub->store(3, quarters);
  BusLook look;
  composer.crops().setTarget(3, {2, 1, 0}, true);  // zoom 2 panned fully right: all red
  draw(3, look);
  EXPECT_TRUE(near(at(100, 540), kRed));
  EXPECT_TRUE(near(at(1800, 540), kRed));
  composer.crops().setTarget(3, {0.5, 0, 0}, false);  // below 1: the identity, eased
  composer.crops().step();
  draw(3, look);
  EXPECT_TRUE(near(at(1300, 540), kRed));  // a quarter of the way back
  EXPECT_TRUE(near(at(1800, 540), kBlue));
  for (int i = 0; i < 60; ++i) composer.crops().step();
  draw(3, look);
  EXPECT_TRUE(near(at(1800, 540), kBlue));
}

// ---- Pieces -------------------------------------------------------------------------------

TEST(BusLookMerge, LayersLeaveBelowTheNewOnesAndKeepOrRestartTheirMotion) {
  OverlayLayer a, b;
  a.id = "a", a.motionIn = QvnOverlayMotion::fade, a.motionOut = QvnOverlayMotion::wipe;
  a.motionDuration = 0.5;
  b.id = "b", b.motionIn = QvnOverlayMotion::slideUp;
  BusLook look;
  look.mergeLayers(true, {a}, 10);
  ASSERT_EQ(look.layers.size(), 1u);
  EXPECT_EQ(look.layers[0].motion->kind, QvnOverlayMotion::fade);

  look.mergeLayers(true, {b}, 10.2);  // a leaves mid-entrance, from its exit's beginning
  ASSERT_EQ(look.layers.size(), 2u);
  EXPECT_EQ(look.layers[0].id, "a");
  EXPECT_EQ(look.layers[0].motion->kind, QvnOverlayMotion::wipe);
  EXPECT_DOUBLE_EQ(look.layers[0].progress(10.2), 1.0);

  look.mergeLayers(true, {a, b}, 10.3);  // put back, same generation: still leaving
  EXPECT_EQ(look.layers[0].id, "a");
  EXPECT_TRUE(look.layers[0].leaving());
  EXPECT_EQ(look.layers[1].motion->started, 10.2);  // b kept its own entrance
  look.dropLeftLayers(10.7);
  ASSERT_EQ(look.layers.size(), 1u);

  a.generation = 1;  // new content plays the entrance again
  look.mergeLayers(false, {a, b}, 11);
  EXPECT_FALSE(look.overlaysOn);
  EXPECT_EQ(look.layers[0].motion->started, 11);
  EXPECT_FALSE(look.layers[0].leaving());

  const BusLook still = look.settled();
  for (auto& layer : still.layers) EXPECT_FALSE(layer.motion);
}

TEST(BusLookMerge, PlacementsMoveOnlyNamedLayers) {
  OverlayLayer a, b;
  a.id = "a", b.id = "b";
  BusLook look;
  look.layers = {a, b};
  look.place(true, {{"b", {0.1, 0.2}, 30, 0.5}, {"zz", {0, 0}, 0, 0}});
  EXPECT_TRUE(look.overlaysOn);
  EXPECT_EQ(look.layers[0].center, (NormPoint{}));
  EXPECT_EQ(look.layers[1].center, (NormPoint{0.1, 0.2}));
  EXPECT_EQ(look.layers[1].rotation, 30);
}

TEST(OverlayMotionProgress, DurationsAreHeldToAQuarterSecondAndASecond) {
  OverlayMotion quick{QvnOverlayMotion::fade, 0, 0, false};
  EXPECT_DOUBLE_EQ(quick.progress(0.15), 1.0);
  EXPECT_DOUBLE_EQ(quick.progress(0.075), 0.5);
  OverlayMotion slow{QvnOverlayMotion::fade, 3, 0, true};
  EXPECT_DOUBLE_EQ(slow.progress(0.5), 0.5);
  EXPECT_FALSE(slow.hasLeft(0.9));
  EXPECT_TRUE(slow.hasLeft(1.0));
  EXPECT_TRUE((OverlayMotion{QvnOverlayMotion::none, 1, 0, true}).hasLeft(0));
}

TEST(CropEasingSteps, ApproachByAQuarterAndLandWithinTwoThousandths) {
  CropEasing crops;
  crops.setTarget(1, {3, 0, 0}, false);
  crops.step();
  EXPECT_NEAR(crops.shown(1).zoom, 1.48, 1e-12);
  crops.setTarget(1, {9, -4, 0}, true);  // clamped, shown at once
  EXPECT_EQ(crops.shown(1), (ImageCrop{8, -1, 0}));
  crops.setTarget(1, {1, 0, 0}, false);
  int ticks = 0;
  while (crops.shown(1) != ImageCrop{} && ticks < 100) ++ticks, crops.step();
  EXPECT_GT(ticks, 10);
  EXPECT_LT(ticks, 40);
}

TEST(BlurredMask, SpreadsLikeAGaussianAndKeepsItsWeight) {
  AlphaMask square = AlphaMask::blank(40, 40);
  for (int y = 10; y < 30; ++y)
    for (int x = 10; x < 30; ++x) square.alpha[size_t(y * square.stride + x)] = 255;
  const double sigma = 4;
  const AlphaMask soft = blurred(square, sigma);
  const int m = blurMargin(sigma);
  ASSERT_EQ(soft.width, 40 + 2 * m);

  // The true curve, one direction at a time, for comparison.
  const int reach = 4 * int(sigma);
  std::vector<double> kernel(size_t(2 * reach + 1));
  for (int i = -reach; i <= reach; ++i)
    kernel[size_t(i + reach)] = std::exp(-i * i / (2 * sigma * sigma));
  const double total = std::accumulate(kernel.begin(), kernel.end(), 0.0);
  auto along = [&](int at) {  // a 20-pixel run from 10 to 29, blurred, at `at`
    double sum = 0;
    for (int i = -reach; i <= reach; ++i)
      if (at + i >= 10 && at + i < 30) sum += kernel[size_t(i + reach)];
    return sum / total;
  };
  int worst = 0;
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 40; ++x) {
      const int want = int(std::lround(255 * along(x) * along(y)));
      worst = std::max(worst, std::abs(want - int(soft.at(x + m, y + m))));
    }
  EXPECT_LE(worst, 6);
  long weight = 0;
  for (uint8_t v : soft.alpha) weight += v;
  EXPECT_NEAR(double(weight), 400.0 * 255, 400.0 * 255 * 0.01);
}

TEST(AffineMaps, TurnsClockwiseOnScreenAndUndoes) {
  const Affine turn = Affine::rotated(90, 10, 20);
  double x, y;
  turn.apply(1, 0, x, y);  // right turns to down
  EXPECT_NEAR(x, 10, 1e-12);
  EXPECT_NEAR(y, 21, 1e-12);
  turn.then(turn.inverted()).apply(3, 4, x, y);
  EXPECT_NEAR(x, 3, 1e-9);
  EXPECT_NEAR(y, 4, 1e-9);
}

}  // namespace
}  // namespace qvn
