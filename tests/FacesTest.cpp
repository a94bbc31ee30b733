// lumo_faces on real faces: the portrait, its mirror image and a scaled-down copy are found where the face
// is; a frame without a face gives none; a moving face is followed without its region flickering; and
// through either engine, the skin-gated passes change the face and nothing outside it.
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FaceRegions.h"
#include "FaceTracker.h"
#include "FaceSource.h"
#include "support/GlHarness.h"

namespace lumo::test {
namespace {

using faces::FaceBox;
using reference::Frame;

faces::FrameView viewOf(const Frame& frame) {
  return {frame.bgra.data(), static_cast<size_t>(frame.width) * 4, frame.width, frame.height, faces::FrameLayout::Bgra};
}

// `from` scaled by `scale` (box filter) and pasted at (left, top) on a flat grey canvas.
Frame placed(const Frame& from, float scale, int width, int height, int left, int top) {
  Frame canvas = pattern(width, height, [](int x, int y) {
    const float shade = 0.35f + 0.1f * static_cast<float>((x / 40 + y / 40) % 2);
    return reference::Rgba{shade, shade, shade, 1.0f};
  });
  const int w = static_cast<int>(std::lround(from.width * scale));
  const int h = static_cast<int>(std::lround(from.height * scale));
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (left + x < 0 || left + x >= width || top + y < 0 || top + y >= height) continue;
      const int x0 = static_cast<int>(x / scale);
      const int y0 = static_cast<int>(y / scale);
      const int x1 = std::max(x0 + 1, static_cast<int>((x + 1) / scale));
      const int y1 = std::max(y0 + 1, static_cast<int>((y + 1) / scale));
      int sum[4] = {0, 0, 0, 0};
      for (int sy = y0; sy < y1 && sy < from.height; ++sy) {
        for (int sx = x0; sx < x1 && sx < from.width; ++sx) {
          for (int c = 0; c < 4; ++c) sum[c] += from.at(sx, sy)[c];
        }
      }
      const int n = (std::min(y1, from.height) - y0) * (std::min(x1, from.width) - x0);
      for (int c = 0; c < 4; ++c) canvas.at(left + x, top + y)[c] = static_cast<uint8_t>(sum[c] / n);
    }
  }
  return canvas;
}

Frame mirrored(const Frame& from) {
  Frame out(from.width, from.height);
  for (int y = 0; y < from.height; ++y) {
    for (int x = 0; x < from.width; ++x) {
      for (int c = 0; c < 4; ++c) out.at(x, y)[c] = from.at(from.width - 1 - x, y)[c];
    }
  }
  return out;
}

// Where the portrait's face is (brows to mouth, cheek to cheek), by eye.
constexpr float kFaceX = 224.0f;
constexpr float kFaceY = 120.0f;

float centreX(const FaceBox& b) { return b.x + b.width / 2; }
float centreY(const FaceBox& b) { return b.y + b.height / 2; }

std::unique_ptr<faces::FaceDetector> detector() {
  std::string why;
  std::unique_ptr<faces::FaceDetector> made = faces::FaceDetector::load({}, &why);
  EXPECT_NE(made, nullptr) << why;
  return made;
}

TEST(FaceDetector, FindsTheCascadeDebianInstalls) {
  const std::string path = faces::defaultCascadePath();
  EXPECT_NE(path.find("/usr/share/opencv4/haarcascades/haarcascade_frontalface"), std::string::npos) << path;
  std::string why;
  EXPECT_EQ(faces::FaceDetector::load({"/nonexistent/cascade.xml"}, &why), nullptr);
  EXPECT_NE(why.find("/nonexistent/cascade.xml"), std::string::npos) << why;
  // A host-given file is used as given.
  faces::DetectorSettings given;
  given.cascade = "/usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml";
  const std::unique_ptr<faces::FaceDetector> d = faces::FaceDetector::load(given, &why);
  ASSERT_NE(d, nullptr) << why;
  EXPECT_EQ(d->cascadePath(), given.cascade);
}

TEST(FaceDetector, FindsThePortraitItsMirrorAndASmallCopy) {
  const std::unique_ptr<faces::FaceDetector> d = detector();
  ASSERT_NE(d, nullptr);
  const Frame portrait = loadSample();

  const std::vector<FaceBox> found = d->detect(viewOf(portrait));
  ASSERT_EQ(found.size(), 1u);
  EXPECT_NEAR(centreX(found[0]), kFaceX, 20.0f);
  EXPECT_NEAR(centreY(found[0]), kFaceY, 25.0f);
  EXPECT_GT(found[0].width, 70.0f);
  EXPECT_LT(found[0].width, 170.0f);

  const std::vector<FaceBox> mirror = d->detect(viewOf(mirrored(portrait)));
  ASSERT_EQ(mirror.size(), 1u);
  EXPECT_NEAR(centreX(mirror[0]), 512.0f - kFaceX, 20.0f);
  EXPECT_NEAR(centreY(mirror[0]), kFaceY, 25.0f);

  // At half size on a larger frame: a face some 48 pixels across.
  const Frame small = placed(portrait, 0.5f, 640, 360, 300, 80);
  const std::vector<FaceBox> smallFound = d->detect(viewOf(small));
  ASSERT_EQ(smallFound.size(), 1u);
  EXPECT_NEAR(centreX(smallFound[0]), 300 + 0.5f * kFaceX, 10.0f);
  EXPECT_NEAR(centreY(smallFound[0]), 80 + 0.5f * kFaceY, 12.0f);
}

TEST(FaceDetector, FindsNoneWithoutAFace) {
  const std::unique_ptr<faces::FaceDetector> d = detector();
  ASSERT_NE(d, nullptr);
  const Frame portrait = loadSample();
  // The portrait's lower part: suit, patches, helmet, flag; no face.
  Frame lower(512, 240);
  for (int y = 0; y < 240; ++y) {
    for (int x = 0; x < 512; ++x) {
      for (int c = 0; c < 4; ++c) lower.at(x, y)[c] = portrait.at(x, 272 + y)[c];
    }
  }
  EXPECT_TRUE(d->detect(viewOf(lower)).empty());
  EXPECT_TRUE(d->detect(viewOf(placed(lower, 1.0f, 800, 450, 100, 100))).empty());
}

// The face moves 6 pixels a frame; a detection every second frame. Every frame has exactly one region, it
// is never more than two frames' movement behind, and it does not shake while the face holds still.
// The tracker driven by detections made up here, so that each rule shows on its own: the first detection's
// faces count at once, a later new face only when seen twice; a face missed keepMisses detections in a row
// stays, one more and it goes; jitter is damped, a real move followed; motion carries a face on between
// detections, for predictFrames frames at most.
TEST(FaceTracker, SyntheticDetectionsConfirmKeepFollowAndDrop) {
  const faces::TrackerSettings settings;  // keepMisses 2, confirmHits 2, predictFrames 6
  faces::FaceTracker tracker(settings);
  const FaceBox face{100.0f, 100.0f, 100.0f, 100.0f};
  tracker.update({face}, 0);
  ASSERT_EQ(tracker.faces().size(), 1u) << "the first detection's faces count at once";

  const FaceBox stranger{400.0f, 100.0f, 80.0f, 80.0f};
  tracker.update({face, stranger}, 3);
  EXPECT_EQ(tracker.faces().size(), 1u) << "a new face seen once does not count yet";
  EXPECT_EQ(tracker.candidates(3).size(), 2u) << "but it is searched for";
  tracker.update({face, stranger}, 6);
  EXPECT_EQ(tracker.faces().size(), 2u) << "seen twice, it counts";

  // Missed: kept for keepMisses detections, dropped at the next.
  for (int miss = 1; miss <= settings.keepMisses; ++miss) {
    tracker.update({stranger}, 6 + 3 * miss);
    EXPECT_EQ(tracker.faces().size(), 2u) << "after " << miss << " misses";
    EXPECT_TRUE(tracker.missedAny());
  }
  tracker.update({stranger}, 6 + 3 * (settings.keepMisses + 1));
  ASSERT_EQ(tracker.faces().size(), 1u) << "after " << settings.keepMisses + 1 << " misses";
  EXPECT_FALSE(tracker.missedAny());
  EXPECT_FLOAT_EQ(tracker.faces()[0].x, stranger.x);

  // A detection 1 px off moves the box by the jitter weight; one a fifth of the face away, all the way.
  faces::FaceTracker still(settings);
  still.update({face}, 0);
  still.update({FaceBox{101.0f, 100.0f, 100.0f, 100.0f}}, 10);
  EXPECT_NEAR(still.faces(10)[0].x, 100.0f + settings.jitterWeight, 1e-4f);
  EXPECT_FLOAT_EQ(still.faces(20)[0].x, still.faces(10)[0].x) << "a still face is not carried on";
  still.update({FaceBox{121.3f, 100.0f, 100.0f, 100.0f}}, 20);
  EXPECT_NEAR(still.faces(20)[0].x, 121.3f, 1e-4f);

  // Moving 2 px a frame: carried on at that speed, then held after predictFrames.
  faces::FaceTracker moving(settings);
  moving.update({face}, 0);
  moving.update({FaceBox{140.0f, 100.0f, 100.0f, 100.0f}}, 20);
  EXPECT_NEAR(moving.faces(23)[0].x, 146.0f, 1e-3f);
  EXPECT_NEAR(moving.faces(20 + settings.predictFrames + 10)[0].x, 140.0f + 2.0f * settings.predictFrames, 1e-3f);
}

TEST(FaceRegions, FollowsAMovingFaceWithoutFlicker) {
  const Frame portrait = loadSample();
  faces::FaceRegionsSettings settings;
  settings.every = 2;
  settings.background = false;
  std::string why;
  std::unique_ptr<faces::FaceRegions> regions = faces::FaceRegions::create(settings, &why);
  ASSERT_NE(regions, nullptr) << why;
  const float scale = 0.6f;
  std::vector<RegionEllipse> seen;
  for (int frame = 0; frame < 40; ++frame) {
    const int left = 40 + 6 * std::min(frame, 30);  // moves, then holds still for ten frames
    const RegionMask mask = regions->regionsFor(viewOf(placed(portrait, scale, 640, 400, left, 40)));
    ASSERT_FALSE(mask.wholeFrame);
    ASSERT_EQ(mask.ellipses.size(), 1u) << "frame " << frame;
    const RegionEllipse& e = mask.ellipses[0];
    const float faceX = left + scale * kFaceX;
    EXPECT_LE(std::fabs(e.centerX - faceX), 2 * 6 + 8) << "frame " << frame;
    EXPECT_NEAR(e.centerY, 40 + scale * kFaceY, 15.0f) << "frame " << frame;
    seen.push_back(e);
  }
  for (int frame = 33; frame < 40; ++frame) {
    EXPECT_LE(std::fabs(seen[frame].centerX - seen[frame - 1].centerX), 1.5f) << "frame " << frame;
    EXPECT_LE(std::fabs(seen[frame].radiusX - seen[frame - 1].radiusX), 1.5f) << "frame " << frame;
  }
}

// On a worker thread, frames arriving at 30 per second: the first frame waits for its own detection; later
// frames never lose the face while detections run behind them; once they catch up, the region is on the
// face where it stopped.
TEST(FaceRegions, BackgroundDetectionCarriesTheRegion) {
  const Frame portrait = loadSample();
  faces::FaceRegionsSettings settings;
  settings.every = 1;
  std::string why;
  std::unique_ptr<faces::FaceRegions> regions = faces::FaceRegions::create(settings, &why);
  ASSERT_NE(regions, nullptr) << why;
  int left = 0;
  for (int frame = 0; frame < 25; ++frame) {
    left = 20 + 5 * frame;
    const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(33);
    const RegionMask mask = regions->regionsFor(viewOf(placed(portrait, 0.6f, 640, 400, left, 40)));
    ASSERT_EQ(mask.ellipses.size(), 1u) << "frame " << frame;
    std::this_thread::sleep_until(due);
  }
  regions->settle();
  regions->regionsFor(viewOf(placed(portrait, 0.6f, 640, 400, left, 40)));
  regions->settle();
  const std::vector<FaceBox> now = regions->faces();
  ASSERT_EQ(now.size(), 1u);
  EXPECT_NEAR(centreX(now[0]), left + 0.6f * kFaceX, 10.0f);
  EXPECT_GE(regions->statistics().detections, 2);
  EXPECT_GT(regions->statistics().meanMilliseconds, 0.0);
}

// Frames as fast as a file gives them, detections on the worker thread: once the face's speed is known
// (two detections), its region keeps within two frames' movement of it, one region a frame.
TEST(FaceRegions, KeepsUpWithAFileAtFullSpeed) {
  const Frame portrait = loadSample();
  std::string why;
  std::unique_ptr<faces::FaceRegions> regions = faces::FaceRegions::create(faces::FaceRegionsSettings::video(), &why);
  ASSERT_NE(regions, nullptr) << why;
  std::vector<Frame> frames;
  for (int frame = 0; frame < 40; ++frame) frames.push_back(placed(portrait, 0.6f, 640, 400, 20 + 6 * frame, 40));
  for (int frame = 0; frame < 40; ++frame) {
    const RegionMask mask = regions->regionsFor(viewOf(frames[static_cast<size_t>(frame)]));
    ASSERT_EQ(mask.ellipses.size(), 1u) << "frame " << frame;
    if (frame < 6) continue;
    EXPECT_LE(std::fabs(mask.ellipses[0].centerX - (20 + 6 * frame + 0.6f * kFaceX)), 2 * 6 + 8) << "frame " << frame;
  }
}

// The detector's regions through both engines, with the skin-gated passes only.
class FacesThroughEngines : public ::testing::TestWithParam<EngineKind> {};

TEST_P(FacesThroughEngines, OnlyTheFaceChanges) {
  std::string why;
  faces::FaceRegionsSettings settings;
  settings.background = false;
  std::unique_ptr<faces::FaceRegions> regions = faces::FaceRegions::create(settings, &why);
  ASSERT_NE(regions, nullptr) << why;
  std::unique_ptr<BeautifyEngine> engine = makeEngine(GetParam(), &why);
  ASSERT_NE(engine, nullptr) << why;
  engine->enableBeautifying(BeautifyPolish | BeautifySkinWhiten);

  const Frame portrait = loadSample();
  const RegionMask mask = regions->regionsFor(viewOf(portrait));
  ASSERT_EQ(mask.ellipses.size(), 1u);
  const RegionEllipse& e = mask.ellipses[0];
  engine->setRegionMask(mask);
  const Frame out = fromBuffer(engine->render(toBuffer(portrait)));
  int outside = 0, outsideChanged = 0, inside = 0, insideChanged = 0, changed = 0;
  for (int y = 0; y < out.height; ++y) {
    for (int x = 0; x < out.width; ++x) {
      const float d = std::hypot((x + 0.5f - e.centerX) / e.radiusX, (y + 0.5f - e.centerY) / e.radiusY);
      bool same = true;
      for (int c = 0; c < 4; ++c) same = same && out.at(x, y)[c] == portrait.at(x, y)[c];
      changed += same ? 0 : 1;
      if (d >= 1.0f) {
        ++outside;
        outsideChanged += same ? 0 : 1;
      } else if (d < 0.6f) {
        ++inside;
        insideChanged += same ? 0 : 1;
      }
    }
  }
  EXPECT_EQ(outsideChanged, 0);
  EXPECT_GT(insideChanged, inside / 2);
  // Without the region the colour rule takes in the suit, the flag and the wall too.
  engine->setRegionMask(RegionMask::whole());
  const Frame everywhere = fromBuffer(engine->render(toBuffer(portrait)));
  int changedEverywhere = 0;
  for (size_t i = 0; i < everywhere.bgra.size(); i += 4) {
    changedEverywhere += std::equal(everywhere.bgra.begin() + static_cast<long>(i),
                                    everywhere.bgra.begin() + static_cast<long>(i) + 4,
                                    portrait.bgra.begin() + static_cast<long>(i))
                             ? 0
                             : 1;
  }
  EXPECT_GT(changedEverywhere, 4 * changed);
  std::printf("changed pixels: %d with the face region, %d without (of %d)\n", changed, changedEverywhere,
              out.width * out.height);

  // A frame with no face (a new photo: nothing carried over): an empty region, and the frame comes back
  // untouched.
  const Frame noFace = placed(portrait, 0.0f, 320, 240, 0, 0);
  regions = faces::FaceRegions::create(settings, &why);
  ASSERT_NE(regions, nullptr) << why;
  engine->setRegionMask(regions->regionsFor(viewOf(noFace)));
  const PixelBufferRef in = toBuffer(noFace);
  EXPECT_EQ(engine->render(in), in);
}

INSTANTIATE_TEST_SUITE_P(Engines, FacesThroughEngines, ::testing::Values(EngineKind::Cpu, EngineKind::Gl),
                         [](const ::testing::TestParamInfo<EngineKind>& info) {
                           return std::string(engineKindName(info.param));
                         });

}  // namespace
}  // namespace lumo::test

namespace lumo::test {
namespace {

// Any frame size the engines take works with faces on: a very wide or tall frame finds none and is drawn.
TEST(FaceSource, EveryFrameSizeIsSearchedWithoutFailing) {
  for (const faces::FaceMode mode : {faces::FaceMode::Photos, faces::FaceMode::Video}) {
    std::string why;
    const std::shared_ptr<faces::FaceSource> source = faces::FaceSource::create(mode, "", &why);
    ASSERT_NE(source, nullptr) << why;
    for (const auto& [width, height] : {std::pair{800, 1}, std::pair{1, 800}, std::pair{3000, 2}, std::pair{1, 1},
                                        std::pair{641, 3}}) {
      const Frame flat = pattern(width, height, [](int, int) { return reference::Rgba{0.7f, 0.5f, 0.4f, 1.0f}; });
      const PixelBufferRef buffer = toBuffer(flat);
      RegionMask regions;
      EXPECT_NO_THROW(regions = source->regionsFor(*buffer)) << width << "x" << height;
      EXPECT_TRUE(regions.ellipses.empty());
    }
  }
}

// After a face was seen, a frame of another size is searched afresh: its regions are its own, and the
// frame is drawn.
TEST(FaceSource, RegionsFollowTheFrameSize) {
  std::string why;
  std::unique_ptr<BeautifyHost> host = BeautifyHost::create(EngineKind::Cpu, &why);
  ASSERT_NE(host, nullptr) << why;
  host->setRegionSource(faces::FaceSource::create(faces::FaceMode::Video, "", &why));
  Frame big = loadSample();
  FrameResult result = host->process(HostFrame::packed(kPixelFormat32BGRA, big.width, big.height, big.bgra.data(),
                                                       static_cast<size_t>(big.width) * 4));
  ASSERT_EQ(result.status, FrameStatus::Drawn) << result.why;
  ASSERT_EQ(host->lastRegions().ellipses.size(), 1u) << "the portrait's face";
  Frame small = placed(loadSample(), 0.25f, 128, 128, 0, 0);
  result = host->process(HostFrame::packed(kPixelFormat32BGRA, small.width, small.height, small.bgra.data(),
                                           static_cast<size_t>(small.width) * 4));
  ASSERT_EQ(result.status, FrameStatus::Drawn) << result.why;
  for (const RegionEllipse& e : host->lastRegions().ellipses) {
    EXPECT_LT(e.centerX, 128.0f);
    EXPECT_LT(e.centerY, 128.0f);
  }
}

}  // namespace
}  // namespace lumo::test
