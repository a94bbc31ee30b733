// lumo-beautify never loses or clobbers a user's data: outputs through links, devices and descriptors,
// outputs that would overwrite an input, hostile inputs, signals, permissions, strict numbers. Each test runs
// the real tool on real files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <jpeglib.h>  // after <cstdio>: it uses FILE and size_t without including them

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ImageIO.h"
#include "ToolHarness.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::Outcome;
using lumo::testing::readFile;
using lumo::testing::writeFile;
using lumo::tools::Image;

class ToolSafety : public lumo::testing::ToolRun {
 protected:
  // The sample as in.png and three 16 x 8 frames as in.raw.
  void makeInputs() {
    fs::copy_file(LUMO_SAMPLE_IMAGE, dir_ / "in.png");
    writeFile(dir_ / "in.raw", std::string(kFrame * 3, '\x50'));
  }
  static Image decoded(const fs::path& path) {
    Image image;
    std::string error;
    EXPECT_TRUE(lumo::tools::readImage(path.string(), &image, &error)) << path << ": " << error;
    return image;
  }
  static mode_t modeOf(const fs::path& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }
  // What the folder holds: each regular file's bytes, each link's target.
  std::map<std::string, std::string> snapshot() {
    std::map<std::string, std::string> state;
    for (const auto& entry : fs::directory_iterator(dir_)) {
      const std::string name = entry.path().filename().string();
      if (name == "stderr.txt") continue;
      state[name] = entry.is_symlink()     ? "-> " + fs::read_symlink(entry.path()).string()
                    : entry.is_directory() ? "a folder"
                                           : readFile(entry.path());
    }
    return state;
  }
  static constexpr size_t kFrame = 16 * 8 * 4;
};

bool exitedWith(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

std::string bigEndian(uint32_t value) {
  return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
          static_cast<char>(value)};
}

uint32_t crc32(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

std::string pngChunk(const std::string& type, const std::string& data) {
  return bigEndian(static_cast<uint32_t>(data.size())) + type + data + bigEndian(crc32(type + data));
}

// A valid PNG header declaring width x height RGBA, an empty IDAT and IEND: 57 bytes.
std::string forgedPng(uint32_t width, uint32_t height) {
  return std::string("\x89PNG\r\n\x1a\n", 8) +
         pngChunk("IHDR", bigEndian(width) + bigEndian(height) + std::string("\x08\x06\x00\x00\x00", 5)) +
         pngChunk("IDAT", "") + pngChunk("IEND", "");
}

std::string encodeJpeg(int width, int height, int components, J_COLOR_SPACE given, J_COLOR_SPACE stored,
                       bool adobeMarker, const std::vector<uint8_t>& samples,
                       const std::vector<jpeg_scan_info>& scans = {}) {
  jpeg_compress_struct info;
  jpeg_error_mgr error;
  info.err = jpeg_std_error(&error);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = components;
  info.in_color_space = given;
  jpeg_set_defaults(&info);
  jpeg_set_colorspace(&info, stored);
  info.write_Adobe_marker = adobeMarker ? TRUE : FALSE;
  jpeg_set_quality(&info, 95, TRUE);
  if (!scans.empty()) {
    info.scan_info = scans.data();
    info.num_scans = static_cast<int>(scans.size());
  }
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    auto* row = const_cast<JSAMPROW>(samples.data() + static_cast<size_t>(width) * components * info.next_scanline);
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  std::string bytes(reinterpret_cast<char*>(buffer), size);
  jpeg_destroy_compress(&info);
  std::free(buffer);
  return bytes;
}

// An 8 x 8 grey baseline JPEG whose frame header is rewritten to declare width x height.
std::string forgedJpeg(uint16_t width, uint16_t height) {
  std::string bytes = encodeJpeg(8, 8, 1, JCS_GRAYSCALE, JCS_GRAYSCALE, false, std::vector<uint8_t>(64, 128));
  const size_t sof = bytes.find("\xFF\xC0");
  if (sof == std::string::npos) return {};
  bytes[sof + 5] = static_cast<char>(height >> 8);
  bytes[sof + 6] = static_cast<char>(height);
  bytes[sof + 7] = static_cast<char>(width >> 8);
  bytes[sof + 8] = static_cast<char>(width);
  return bytes;
}

// A valid progressive grey JPEG of 694 scans: each AC coefficient in its own band, refined bit by bit.
std::string manyScanJpeg() {
  std::vector<jpeg_scan_info> scans{{1, {0}, 0, 0, 0, 0}};
  for (int k = 1; k < 64; ++k) {
    scans.push_back({1, {0}, k, k, 0, 10});
    for (int bit = 9; bit >= 0; --bit) scans.push_back({1, {0}, k, k, bit + 1, bit});
  }
  std::vector<uint8_t> samples(64 * 64);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<uint8_t>(i * 37 % 251);
  return encodeJpeg(64, 64, 1, JCS_GRAYSCALE, JCS_GRAYSCALE, false, samples, scans);
}

TEST_F(ToolSafety, ForgedDimensionsAreRefusedBeforeAllocating) {
  // 16384 x 8192 is within the pixel limit: only the data actually present refuses it.
  writeFile(dir_ / "wide.png", forgedPng(16384, 8192));
  writeFile(dir_ / "huge.png", forgedPng(16384, 16384));
  writeFile(dir_ / "wide.jpg", forgedJpeg(16384, 8192));
  writeFile(dir_ / "huge.jpg", forgedJpeg(16384, 16384));
  ASSERT_EQ(fs::file_size(dir_ / "wide.png"), 57u);
  ASSERT_LT(fs::file_size(dir_ / "wide.jpg"), 1000u);
  for (const char* name : {"wide.png", "huge.png", "wide.jpg", "huge.jpg"}) {
    struct rusage usage {};
    int status = 0;
    const pid_t child = spawn({name, "-o", "out.png"});
    ASSERT_TRUE(waitFor(child, &status, &usage));
    EXPECT_TRUE(exitedWith(status, 1)) << name << ": " << err();
    const std::string message = err();
    EXPECT_TRUE(message.find(" declares 16384x8192 pixels, more than its") != std::string::npos ||
                message.find(" of 16384x16384 is above the limit") != std::string::npos)
        << name << ": " << message;
    EXPECT_LT(usage.ru_maxrss, 256 * 1024) << name << ": peak memory in KiB; the pixels were allocated";
  }
  // Thousands of scans would each sweep the whole image: the decoder stops at 500.
  writeFile(dir_ / "scans.jpg", manyScanJpeg());
  const Outcome r = run("scans.jpg -o out.png");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("more than 500 scans"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "out.png"));
}

TEST_F(ToolSafety, CmykJpegsDecodeToTheirColours) {
  // Four 16 x 16 patches: red, green and blue from inks at K 0, and a grey from K alone (half ink: 127).
  struct Patch {
    uint8_t ink[4];  // C, M, Y, K with 255 = full ink
    uint8_t bgr[3];
  };
  const Patch patches[] = {{{0, 255, 255, 0}, {0, 0, 255}},
                           {{255, 0, 255, 0}, {0, 255, 0}},
                           {{255, 255, 0, 0}, {255, 0, 0}},
                           {{0, 0, 0, 128}, {127, 127, 127}}};
  struct Variant {
    const char* name;
    J_COLOR_SPACE stored;
    bool adobe;  // Adobe's files store the inks inverted
  };
  for (const Variant& variant : {Variant{"adobe-cmyk", JCS_CMYK, true}, Variant{"adobe-ycck", JCS_YCCK, true},
                                 Variant{"plain-cmyk", JCS_CMYK, false}}) {
    std::vector<uint8_t> samples(64 * 16 * 4);
    for (int y = 0; y < 16; ++y) {
      for (int x = 0; x < 64; ++x) {
        for (int c = 0; c < 4; ++c) {
          const uint8_t ink = patches[x / 16].ink[c];
          samples[(y * 64 + x) * 4 + c] = variant.adobe ? static_cast<uint8_t>(255 - ink) : ink;
        }
      }
    }
    const std::string name = variant.name;
    writeFile(dir_ / (name + ".jpg"), encodeJpeg(64, 16, 4, JCS_CMYK, variant.stored, variant.adobe, samples));
    const Outcome r = run(name + ".jpg --engine cpu --mask 0 -o " + name + ".png");
    ASSERT_EQ(r.status, 0) << name << ": " << r.err;
    const Image image = decoded(dir_ / (name + ".png"));
    ASSERT_EQ(image.width, 64);
    for (int p = 0; p < 4; ++p) {
      const uint8_t* pixel = &image.bgra[(8 * 64 + p * 16 + 8) * 4];
      for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(pixel[c], patches[p].bgr[c], 6) << name << " patch " << p << " channel " << c;
      }
      EXPECT_EQ(pixel[3], 255);
    }
  }
}

TEST_F(ToolSafety, NumbersAreParsedStrictly) {
  makeInputs();
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"--raw 4294967306x10 in.raw -o out.raw", "1..16384"}, {"--raw 10x4294967306 in.raw -o out.raw", "1..16384"},
      {"--raw 0x8 in.raw -o out.raw", "1..16384"},           {"--raw 16x8x in.raw -o out.raw", "1..16384"},
      {"--raw ' 16x8' in.raw -o out.raw", "1..16384"},       {"--raw 16x+8 in.raw -o out.raw", "1..16384"},
      {"--raw 16385x8 in.raw -o out.raw", "1..16384"},       {"--preset 2.5", "0..13"},
      {"--preset 14", "0..13"},                              {"--preset -1", "0..13"},
      {"--preset 0x3", "0..13"},                             {"--preset ''", "0..13"},
      {"--mask 16", "0..15"},                                {"--mask 7abc", "0..15"},
      {"--mask 99999999999999999999", "0..15"},              {"--mask -1", "0..15"},
      {"--mask 0x7", "0..15"},                               {"--whiten nan", "0..1"},
      {"--whiten 1e400", "0..1"},                            {"--whiten 0x1p-1", "0..1"},
      {"--whiten ' 0.5'", "0..1"},                           {"--sharpen inf", "-1..4"},
      {"--polish-step 16.5", "0..16"},                       {"--polish-factor 1,5", "0..64"},
      {"--skin-whiten .", "0..1"},                           {"--skin-whiten 0.5.", "0..1"},
  };
  for (const auto& [arguments, range] : bad) {
    const bool raw = arguments.find("--raw") == 0;
    const Outcome r = run(arguments + (raw ? "" : " in.png -o out.png"));
    EXPECT_EQ(r.status, 2) << arguments << ": " << r.err;
    EXPECT_NE(r.err.find(" in " + range), std::string::npos) << arguments << ": " << r.err;
    EXPECT_NE(r.err.find(", got '"), std::string::npos) << arguments << ": " << r.err;
  }
  EXPECT_EQ(names(), (std::set<std::string>{"in.png", "in.raw", "stderr.txt"})) << "no bad run wrote anything";
  // Leading zeros are decimal: 010 is whiten + sharpen, not octal 8.
  ASSERT_EQ(run("in.png --engine cpu --mask 010 -o ten.png").status, 0);
  ASSERT_EQ(run("in.png --engine cpu --mask whiten,sharpen -o named.png").status, 0);
  ASSERT_EQ(run("in.png --engine cpu --mask 8 -o eight.png").status, 0);
  EXPECT_EQ(readFile(dir_ / "ten.png"), readFile(dir_ / "named.png"));
  EXPECT_NE(readFile(dir_ / "ten.png"), readFile(dir_ / "eight.png"));
  ASSERT_EQ(run("in.png --engine cpu --whiten 2.5e-1 --preset 07 -o exp.png").status, 0);
  ASSERT_EQ(run("in.png --engine cpu --whiten 0.25 --preset 7 -o plain.png").status, 0);
  EXPECT_EQ(readFile(dir_ / "exp.png"), readFile(dir_ / "plain.png"));
}

}  // namespace
