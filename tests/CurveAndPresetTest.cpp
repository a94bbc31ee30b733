// Pink-whiten curve, CheckValue, the preset table and its error line, without GL.
#include <lumo/lumo.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace lumo {
namespace {

class LogCapture {
 public:
  LogCapture() {
    setLogHandler([this](const char* line) { lines.emplace_back(line); });
  }
  ~LogCapture() { setLogHandler(nullptr); }
  std::vector<std::string> lines;
};

TEST(CheckValue, ClampsToByteRange) {
  EXPECT_EQ(CheckValue(-1), 0);
  EXPECT_EQ(CheckValue(0), 0);
  EXPECT_EQ(CheckValue(128), 128);
  EXPECT_EQ(CheckValue(255), 255);
  EXPECT_EQ(CheckValue(256), 255);
}

TEST(PinkWhitenCurve, ListedRows) {
  VideoProcessPinkWhitenFilter filter;
  EXPECT_EQ(filter.factor(), 0.5f);
  const std::pair<int, int> rows[] = {{0, 0},     {1, 1},     {3, 4},     {9, 11},    {64, 76},   {100, 119},
                                      {128, 152}, {192, 228}, {213, 253}, {214, 254}, {215, 255}, {255, 255}};
  for (auto [level, value] : rows) {
    EXPECT_EQ(filter.curveMap()[level], value / 255.0f) << level;
  }
  filter.setWhitenFactor(3.0f);  // stored as is; the table does not depend on it
  EXPECT_EQ(filter.factor(), 3.0f);
  EXPECT_EQ(filter.curveMap()[128], 152 / 255.0f);
}

TEST(Presets, RowsAndTheErrorLine) {
  LogCapture capture;
  VideoProcessCustomizedFilter filter;
  ASSERT_EQ(capture.lines.size(), 1u) << "construction tries index 0";
  EXPECT_EQ(capture.lines[0], "LUMO Video Filter - Custumized Filter set color matrix index error: -1");
  EXPECT_EQ(filter.colorMatrix().one.one, 0.0f);

  EXPECT_EQ(filter.setColorMatrix(1), 0);
  EXPECT_EQ(filter.colorMatrix().one.one, 1.7f);
  EXPECT_EQ(filter.colorOffset().one, -73.1f);
  EXPECT_EQ(filter.setColorMatrix(13), 12);
  EXPECT_EQ(filter.colorMatrix().two.two, 1.1f);
  EXPECT_EQ(filter.colorOffset().three, -66.6f);
  EXPECT_EQ(filter.colorOffset().four, 0.0f);
  EXPECT_EQ(filter.setColorMatrix(10), 9);
  EXPECT_EQ(filter.colorOffset().one, 64.9f);

  capture.lines.clear();
  for (int index : {0, -5, 14}) EXPECT_EQ(filter.setColorMatrix(index), -1);
  EXPECT_EQ(capture.lines,
            (std::vector<std::string>{"LUMO Video Filter - Custumized Filter set color matrix index error: -1",
                                      "LUMO Video Filter - Custumized Filter set color matrix index error: -6",
                                      "LUMO Video Filter - Custumized Filter set color matrix index error: 13"}));
  EXPECT_EQ(filter.colorOffset().one, 64.9f) << "a rejected index keeps the preset in force";
}

}  // namespace
}  // namespace lumo
