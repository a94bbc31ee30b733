// lumo-beautify as a subprocess: the default run, round trips, error cases, the raw stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ImageIO.h"
#include "RawStream.h"
#include "ToolHarness.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::Outcome;

class Tool : public lumo::testing::ToolRun {};

TEST_F(Tool, DefaultRunWritesResultAndComparison) {
  const Outcome r = run("");
  ASSERT_EQ(r.status, 0) << r.err;
  lumo::tools::Image result, compare, sample;
  std::string error;
  ASSERT_TRUE(lumo::tools::readImage((dir_ / "astronaut-beautified.png").string(), &result, &error)) << error;
  ASSERT_TRUE(lumo::tools::readImage((dir_ / "astronaut-beautified-compare.png").string(), &compare, &error));
  ASSERT_TRUE(lumo::tools::readImage(LUMO_SAMPLE_IMAGE, &sample, &error));
  EXPECT_EQ(compare.width, 2 * sample.width);
  EXPECT_NE(result.bgra, sample.bgra);
  EXPECT_NE(r.err.find("wrote astronaut-beautified.png"), std::string::npos);
}

// A cap on the CPU engine's instruction set is named on the engine line and draws the same file.
TEST_F(Tool, SimdCapIsNamedAndDrawsTheSamePicture) {
  ASSERT_EQ(run("'" LUMO_SAMPLE_IMAGE "' -o best.png --engine cpu").status, 0);
  const Outcome scalar = run("'" LUMO_SAMPLE_IMAGE "' -o scalar.png --engine cpu --simd scalar");
  ASSERT_EQ(scalar.status, 0) << scalar.err;
  EXPECT_NE(scalar.err.find("engine cpu (SCALAR;"), std::string::npos) << scalar.err;
  EXPECT_EQ(lumo::testing::readFile(dir_ / "scalar.png"), lumo::testing::readFile(dir_ / "best.png"));
  const Outcome bad = run("--simd neon");
  EXPECT_EQ(bad.status, 2);
  EXPECT_NE(bad.err.find("--simd wants one of best, avx3, avx2, sse4, scalar, got 'neon'"), std::string::npos) << bad.err;
}

TEST_F(Tool, PngAndJpegRoundTrips) {
  EXPECT_EQ(run("'" LUMO_SAMPLE_IMAGE "' -o out.jpg").status, 0);
  EXPECT_EQ(run("out.jpg -o back.png --mask whiten").status, 0);
  lumo::tools::Image image;
  std::string error;
  ASSERT_TRUE(lumo::tools::readImage((dir_ / "back.png").string(), &image, &error)) << error;
  EXPECT_EQ(image.width, 512);
  EXPECT_EQ(run("back.png -o same.png --mask 0").status, 0);
  lumo::tools::Image same;
  ASSERT_TRUE(lumo::tools::readImage((dir_ / "same.png").string(), &same, &error));
  EXPECT_EQ(same.bgra, image.bgra) << "mask 0 is lossless through PNG";
}

// A JPEG as a phone stores it: the picture's rows, and an EXIF APP1 segment (big- or little-endian TIFF)
// saying how to turn them.
std::string jpegWithOrientation(const std::string& jpeg, int orientation, bool bigEndian) {
  const auto b = [](int value) { return static_cast<char>(value); };
  std::string tiff = bigEndian ? std::string("MM\0*\0\0\0\x08", 8) : std::string("II*\0\x08\0\0\0", 8);
  const std::string entry = bigEndian ? std::string{b(0), b(1), b(0x01), b(0x12), b(0), b(3), b(0), b(0), b(0), b(1),
                                                    b(0), b(orientation), b(0), b(0)}
                                      : std::string{b(1), b(0), b(0x12), b(0x01), b(3), b(0), b(1), b(0), b(0), b(0),
                                                    b(orientation), b(0), b(0), b(0)};
  tiff += entry + std::string(4, '\0');  // one entry, then no next IFD
  const std::string payload = std::string("Exif\0\0", 6) + tiff;
  const size_t length = payload.size() + 2;
  const std::string app1 = std::string{b(0xFF), b(0xE1), b(static_cast<int>(length >> 8)), b(static_cast<int>(length & 0xFF))} + payload;
  return jpeg.substr(0, 2) + app1 + jpeg.substr(2);
}

TEST_F(Tool, JpegExifOrientationIsAppliedAndTheUprightPictureWritten) {
  // 64 x 48 in four flat quadrants: red, green over blue, white.
  lumo::tools::Image source{64, 48, std::vector<uint8_t>(64 * 48 * 4)};
  for (int y = 0; y < 48; ++y) {
    for (int x = 0; x < 64; ++x) {
      const bool right = x >= 32, bottom = y >= 24;
      const uint8_t bgr[4][3] = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}, {255, 255, 255}};
      const uint8_t* colour = bgr[(bottom ? 2 : 0) + (right ? 1 : 0)];
      uint8_t* pixel = &source.bgra[(static_cast<size_t>(y) * 64 + x) * 4];
      pixel[0] = colour[0], pixel[1] = colour[1], pixel[2] = colour[2], pixel[3] = 255;
    }
  }
  std::vector<uint8_t> encoded;
  std::string error;
  ASSERT_TRUE(lumo::tools::encodeImage(lumo::tools::ImageFormat::Jpeg, source, &encoded, &error)) << error;
  const std::string jpeg(encoded.begin(), encoded.end());
  // The quadrant seen at the upright picture's top-left and top-right corners, from EXIF's definitions:
  // e.g. 6 stores the picture turned a quarter anticlockwise, so its bottom-left comes to the top-left.
  const char* kRed = "red", *kGreen = "green", *kBlue = "blue", *kWhite = "white";
  const struct {
    int orientation;
    const char* topLeft;
    const char* topRight;
  } cases[] = {{1, kRed, kGreen},  {2, kGreen, kRed},  {3, kWhite, kBlue}, {4, kBlue, kWhite},
               {5, kRed, kBlue},   {6, kBlue, kRed},   {7, kWhite, kGreen}, {8, kGreen, kWhite}};
  auto colourAt = [](const lumo::tools::Image& image, int x, int y) -> std::string {
    const uint8_t* p = &image.bgra[(static_cast<size_t>(y) * image.width + x) * 4];
    const bool b = p[0] > 128, g = p[1] > 128, r = p[2] > 128;
    return r && g && b ? "white" : r ? "red" : g ? "green" : b ? "blue" : "black";
  };
  for (const auto& c : cases) {
    const std::string name = "photo" + std::to_string(c.orientation) + ".jpg";
    lumo::testing::writeFile(dir_ / name, jpegWithOrientation(jpeg, c.orientation, c.orientation % 2 == 0));
    ASSERT_EQ(run(name + " -o upright.png --mask 0").status, 0) << err();
    lumo::tools::Image upright;
    ASSERT_TRUE(lumo::tools::readImage((dir_ / "upright.png").string(), &upright, &error)) << error;
    const bool quarter = c.orientation >= 5;
    EXPECT_EQ(upright.width, quarter ? 48 : 64) << "orientation " << c.orientation;
    EXPECT_EQ(upright.height, quarter ? 64 : 48) << "orientation " << c.orientation;
    EXPECT_EQ(colourAt(upright, 4, 4), c.topLeft) << "orientation " << c.orientation;
    EXPECT_EQ(colourAt(upright, upright.width - 5, 4), c.topRight) << "orientation " << c.orientation;
  }
}

TEST_F(Tool, ErrorsNameTheirCauseAndLeaveNothing) {
  EXPECT_EQ(run("--mask shine").status, 2);
  EXPECT_EQ(run("--preset 14").status, 2);
  EXPECT_EQ(run("--whiten abc").status, 2);
  EXPECT_EQ(run("--frobnicate").status, 2);
  Outcome r = run("missing.png -o out.png");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("missing.png"), std::string::npos);
  std::ofstream(dir_ / "corrupt.png") << "\x89PNG\r\n\x1a\n not really";
  EXPECT_EQ(run("corrupt.png -o out.png").status, 1);
  std::ofstream(dir_ / "text.png") << "hello";
  r = run("text.png -o out.png");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("unsupported"), std::string::npos);
  // A truncated PNG: the first half of the sample.
  std::ifstream sample(LUMO_SAMPLE_IMAGE, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(sample)), std::istreambuf_iterator<char>());
  std::ofstream(dir_ / "half.png", std::ios::binary) << bytes.substr(0, bytes.size() / 2);
  EXPECT_EQ(run("half.png -o out.png").status, 1);
  EXPECT_EQ(run("'" LUMO_SAMPLE_IMAGE "' -o out.gif").status, 2);
  fs::copy_file(LUMO_SAMPLE_IMAGE, dir_ / "in.png");
  EXPECT_EQ(run("in.png -o in.png").status, 2) << "never overwrites the input";
  EXPECT_EQ(fileCount(), 5u) << "corrupt, text, half, in and stderr: no output, no temporary";
}

TEST_F(Tool, RawStreamWritesCompleteFramesThenReportsATruncatedOne) {
  const size_t frame = 16 * 8 * 4;
  std::string data(frame * 3 + frame / 2, '\x90');
  std::ofstream(dir_ / "in.raw", std::ios::binary) << data;
  const Outcome r = run("--raw 16x8 in.raw -o out.raw");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("stream ended inside frame 4"), std::string::npos) << r.err;
  const Outcome full = run("--raw 16x8 - -o - < in.raw > piped.raw");
  EXPECT_EQ(full.status, 1);
  EXPECT_EQ(fs::file_size(dir_ / "piped.raw"), frame * 3) << "the complete frames are written";
  EXPECT_NE(full.err.find("3 complete frames written before the error"), std::string::npos) << full.err;
  EXPECT_FALSE(fs::exists(dir_ / "out.raw")) << "a failed stream into a file leaves nothing";
}

// YUV streams: frames of the format's size (chroma rounded up at odd sizes) come out in the same format, the
// matrix and range given travel with them, and options that do not fit are usage errors.
TEST_F(Tool, RawYuvStreamsKeepTheirFormatAndColorimetry) {
  const size_t frame = 33 * 17 + 2 * (17 * 9);  // NV12 or I420 at 33 x 17
  std::string data;
  for (size_t i = 0; i < 3 * frame; ++i) data += static_cast<char>(40 + (i * 37) % 180);
  std::ofstream(dir_ / "in.yuv", std::ios::binary) << data;
  auto output = [&](const std::string& options, const std::string& name) {
    const Outcome r = run("--raw 33x17 " + options + " in.yuv -o " + name);
    EXPECT_EQ(r.status, 0) << options << ": " << r.err;
    std::ifstream file(dir_ / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::string nv12 = output("--format nv12", "nv12.yuv");
  EXPECT_EQ(nv12.size(), data.size());
  EXPECT_NE(nv12, data);
  EXPECT_NE(output("--format nv12 --matrix bt709 --range full", "709.yuv"), nv12);
  EXPECT_EQ(output("--format nv12 --matrix bt601 --range limited", "601.yuv"), nv12) << "the default for 17 rows";
  EXPECT_EQ(output("--format I420", "i420.yuv").size(), data.size());

  for (const char* bad : {"--raw 33x17 --format ayuv in.yuv -o x", "--format nv12 in.yuv -o x.png",
                          "--raw 33x17 --matrix bt709 in.yuv -o x", "--raw 33x17 --format nv12 --range tvv in.yuv -o x",
                          "--raw 33x17 --format nv12 --matrix bt2020 in.yuv -o x"}) {
    const Outcome r = run(bad);
    EXPECT_EQ(r.status, 2) << bad << ": " << r.err;
    EXPECT_FALSE(fs::exists(dir_ / "x")) << bad;
  }
}

TEST_F(Tool, ClosedOutputPipeEndsQuietly) {
  // The tool's own status, through bash's PIPESTATUS.
  const std::string command = "bash -c \"'" LUMO_TOOL
                              "' --raw 64x64 /dev/zero -o - 2>/dev/null | head -c 100 "
                              ">/dev/null; exit \\${PIPESTATUS[0]}\"";
  const int raw = std::system(command.c_str());
  EXPECT_TRUE(WIFEXITED(raw));
  EXPECT_EQ(WEXITSTATUS(raw), 0);
}

TEST_F(Tool, EitherEngineRunsAndSaysSo) {
  const Outcome cpu = run("'" LUMO_SAMPLE_IMAGE "' --engine cpu -o cpu.png");
  ASSERT_EQ(cpu.status, 0) << cpu.err;
  EXPECT_NE(cpu.err.find("engine cpu ("), std::string::npos) << cpu.err;
  const Outcome gl = run("'" LUMO_SAMPLE_IMAGE "' --engine gl -o gl.png");
  ASSERT_EQ(gl.status, 0) << gl.err;
  EXPECT_NE(gl.err.find("engine gl ("), std::string::npos) << gl.err;
  const Outcome automatic = run("'" LUMO_SAMPLE_IMAGE "' -o auto.png");
  EXPECT_EQ(automatic.status, 0) << automatic.err;
  EXPECT_NE(automatic.err.find("GL renderer is"), std::string::npos) << "auto says what decided: " << automatic.err;
  lumo::tools::Image a, b;
  std::string error;
  ASSERT_TRUE(lumo::tools::readImage((dir_ / "cpu.png").string(), &a, &error)) << error;
  ASSERT_TRUE(lumo::tools::readImage((dir_ / "gl.png").string(), &b, &error)) << error;
  ASSERT_EQ(a.bgra.size(), b.bgra.size());
  int worst = 0;
  for (size_t i = 0; i < a.bgra.size(); ++i) worst = std::max(worst, std::abs(a.bgra[i] - b.bgra[i]));
  EXPECT_LE(worst, 4) << "the two engines draw the same picture";
  const Outcome bad = run("--engine vulkan");
  EXPECT_EQ(bad.status, 2);
  EXPECT_NE(bad.err.find("--engine wants one of auto, gl, cpu"), std::string::npos) << bad.err;
}

TEST_F(Tool, AFullDeviceIsAnErrorAndIsLeftAlone) {
  const size_t frame = 16 * 8 * 4;
  std::ofstream(dir_ / "in.raw", std::ios::binary) << std::string(frame * 4, '\x60');
  const Outcome stream = run("--raw 16x8 in.raw -o /dev/full");
  EXPECT_EQ(stream.status, 1);
  EXPECT_NE(stream.err.find("/dev/full: No space left on device"), std::string::npos) << stream.err;
  const Outcome piped = run("--raw 16x8 in.raw -o - > /dev/full");
  EXPECT_EQ(piped.status, 1);
  EXPECT_NE(piped.err.find("No space left on device"), std::string::npos) << piped.err;
  // Written in place, never renamed over: the device is still a device.
  EXPECT_TRUE(fs::is_character_file("/dev/full"));
  EXPECT_EQ(fileCount(), 2u) << "only in.raw and stderr.txt";
}

TEST_F(Tool, AFullFilesystemIsAnErrorAndLeavesNoFileBehind) {
  const fs::path full = dir_ / "full";
  fs::create_directories(full);
  const std::string mount = "mount -t tmpfs -o size=64k lumo-full '" + full.string() + "' 2>/dev/null";
  if (::geteuid() != 0 || std::system(mount.c_str()) != 0) GTEST_SKIP() << "needs root to mount a small tmpfs";
  const Outcome photo = run("'" LUMO_SAMPLE_IMAGE "' -o full/out.png");
  EXPECT_EQ(photo.status, 1);
  EXPECT_NE(photo.err.find("full/out.png: No space left on device"), std::string::npos) << photo.err;
  std::ofstream(dir_ / "in.raw", std::ios::binary) << std::string(16 * 8 * 4 * 300, '\x60');  // 150 KiB
  const Outcome stream = run("--raw 16x8 in.raw -o full/out.raw");
  EXPECT_EQ(stream.status, 1);
  EXPECT_NE(stream.err.find("full/out.raw: No space left on device"), std::string::npos) << stream.err;
  const bool empty = fs::is_empty(full);
  std::system(("umount '" + full.string() + "'").c_str());
  EXPECT_TRUE(empty) << "a half-written file was left on the full filesystem";
}

TEST_F(Tool, AClosedStdoutIsAnError) {
  std::ofstream(dir_ / "in.raw", std::ios::binary) << std::string(16 * 8 * 4 * 2, '\x60');
  const Outcome r = run("--raw 16x8 in.raw -o - >&-");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Bad file descriptor"), std::string::npos) << r.err;
}

TEST(RawReader, FramesSplitAcrossShortReads) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::thread writer([fd = fds[1]] {
    std::string data(1000, 'a');
    for (size_t at = 0; at < data.size(); at += 37) {
      lumo::tools::writeAll(fd, reinterpret_cast<const uint8_t*>(data.data()) + at,
                            std::min<size_t>(37, data.size() - at));
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    ::close(fd);
  });
  std::vector<uint8_t> frame(400);
  size_t got = 0;
  EXPECT_EQ(lumo::tools::readFrame(fds[0], frame.data(), frame.size(), &got), lumo::tools::ReadResult::Frame);
  EXPECT_EQ(lumo::tools::readFrame(fds[0], frame.data(), frame.size(), &got), lumo::tools::ReadResult::Frame);
  EXPECT_EQ(lumo::tools::readFrame(fds[0], frame.data(), frame.size(), &got), lumo::tools::ReadResult::Truncated);
  EXPECT_EQ(got, 200u);
  EXPECT_EQ(lumo::tools::readFrame(fds[0], frame.data(), frame.size(), &got), lumo::tools::ReadResult::End);
  writer.join();
  ::close(fds[0]);
}

}  // namespace
