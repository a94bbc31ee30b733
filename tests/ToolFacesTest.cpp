// lumo-beautify --faces as a subprocess: on the portrait, the skin-gated passes change the face and not one
// pixel well outside it; a photo without a face comes back with the whole-frame passes only; a raw stream
// gets the same on every frame.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "ImageIO.h"
#include "ToolHarness.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::Outcome;
using lumo::tools::Image;

class ToolFaces : public lumo::testing::ToolRun {
 protected:
  Image read(const std::string& name) {
    Image image;
    std::string error;
    EXPECT_TRUE(lumo::tools::readImage((dir_ / name).string(), &image, &error)) << error;
    return image;
  }
};

// Outside this ellipse around the portrait's face (its region with room to spare) nothing may change.
bool wellOutside(int x, int y) { return std::hypot((x - 224.0f) / 90.0f, (y - 120.0f) / 110.0f) > 1.0f; }
bool wellInside(int x, int y) { return std::hypot((x - 224.0f) / 30.0f, (y - 125.0f) / 40.0f) < 1.0f; }

struct Count {
  int outsideChanged = 0;
  int insideChanged = 0;
  int inside = 0;
  int changed = 0;
};

Count count(const std::vector<uint8_t>& before, const std::vector<uint8_t>& after, int width) {
  Count c;
  for (size_t i = 0; i + 4 <= before.size(); i += 4) {
    const int x = static_cast<int>(i / 4) % width;
    const int y = static_cast<int>(i / 4) / width;
    const bool same = std::equal(before.begin() + static_cast<long>(i), before.begin() + static_cast<long>(i) + 4,
                                 after.begin() + static_cast<long>(i));
    c.changed += same ? 0 : 1;
    if (wellOutside(x, y)) c.outsideChanged += same ? 0 : 1;
    if (wellInside(x, y)) {
      ++c.inside;
      c.insideChanged += same ? 0 : 1;
    }
  }
  return c;
}

TEST_F(ToolFaces, PhotoChangesTheFaceOnly) {
  Image sample;
  std::string error;
  ASSERT_TRUE(lumo::tools::readImage(LUMO_SAMPLE_IMAGE, &sample, &error)) << error;
  for (const char* engine : {"cpu", "gl"}) {
    SCOPED_TRACE(engine);
    const Outcome r = run(std::string("'" LUMO_SAMPLE_IMAGE "' -o faces.png --faces --mask polish,skin-whiten --engine ") +
                          engine);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("faces: 1 found"), std::string::npos) << r.err;
    const Count c = count(sample.bgra, read("faces.png").bgra, sample.width);
    EXPECT_EQ(c.outsideChanged, 0);
    EXPECT_GT(c.insideChanged, c.inside * 3 / 4);

    ASSERT_EQ(run(std::string("'" LUMO_SAMPLE_IMAGE "' -o all.png --mask polish,skin-whiten --engine ") + engine).status,
              0);
    EXPECT_GT(count(sample.bgra, read("all.png").bgra, sample.width).changed, 5 * c.changed);
  }
}

TEST_F(ToolFaces, PhotoWithoutAFaceGetsTheWholeFramePassesOnly) {
  Image sample;
  std::string error;
  ASSERT_TRUE(lumo::tools::readImage(LUMO_SAMPLE_IMAGE, &sample, &error)) << error;
  // The portrait's lower part: suit, patches, helmet, flag.
  Image lower{sample.width, 240, {}};
  lower.bgra.assign(sample.bgra.begin() + 272L * sample.width * 4, sample.bgra.begin() + 512L * sample.width * 4);
  std::vector<uint8_t> png;
  ASSERT_TRUE(lumo::tools::encodeImage(lumo::tools::ImageFormat::Png, lower, &png, &error)) << error;
  lumo::testing::writeFile(dir_ / "lower.png", std::string(png.begin(), png.end()));

  Outcome r = run("lower.png -o skin.png --faces --mask polish,skin-whiten --engine cpu");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("faces: 0 found"), std::string::npos) << r.err;
  EXPECT_EQ(read("skin.png").bgra, lower.bgra);

  ASSERT_EQ(run("lower.png -o default.png --faces --engine gl").status, 0);
  ASSERT_EQ(run("lower.png -o whiten.png --mask whiten --engine gl").status, 0);
  EXPECT_EQ(read("default.png").bgra, read("whiten.png").bgra);
  EXPECT_NE(read("default.png").bgra, lower.bgra);
}

TEST_F(ToolFaces, RawStreamChangesTheFaceOnlyOnEveryFrame) {
  Image sample;
  std::string error;
  ASSERT_TRUE(lumo::tools::readImage(LUMO_SAMPLE_IMAGE, &sample, &error)) << error;
  const int frames = 8;
  std::string stream;
  for (int i = 0; i < frames; ++i) stream.append(sample.bgra.begin(), sample.bgra.end());
  lumo::testing::writeFile(dir_ / "in.bgra", stream);
  const Outcome r = run("--raw 512x512 in.bgra -o out.bgra --faces --mask polish,skin-whiten --engine cpu");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("faces: "), std::string::npos) << r.err;
  const std::string out = lumo::testing::readFile(dir_ / "out.bgra");
  ASSERT_EQ(out.size(), stream.size());
  const size_t frameBytes = sample.bgra.size();
  for (int i = 0; i < frames; ++i) {
    const std::vector<uint8_t> frame(out.begin() + static_cast<long>(i * frameBytes),
                                     out.begin() + static_cast<long>((i + 1) * frameBytes));
    const Count c = count(sample.bgra, frame, sample.width);
    EXPECT_EQ(c.outsideChanged, 0) << "frame " << i;
    EXPECT_GT(c.insideChanged, c.inside * 3 / 4) << "frame " << i;
  }
}

TEST_F(ToolFaces, AMissingCascadeIsNamed) {
  const Outcome r = run("'" LUMO_SAMPLE_IMAGE "' -o out.png --face-cascade missing.xml");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("missing.xml"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "out.png"));
}

}  // namespace
