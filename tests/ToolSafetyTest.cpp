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

TEST_F(ToolSafety, TemporariesNeverFollowAPlantedLink) {
  makeInputs();
  const fs::path victim = dir_ / "victim.txt";
  writeFile(victim, "precious");
  fs::create_directories(dir_ / "out");
  const std::vector<std::pair<std::vector<std::string>, std::string>> runs = {
      {{"in.png", "--engine", "cpu", "-o", "out/out.png"}, "out/out.png"},
      {{"--raw", "16x8", "--engine", "cpu", "in.raw", "-o", "out/out.raw"}, "out/out.raw"}};
  for (const auto& [args, output] : runs) {
    std::vector<fs::path> planted;
    // Links to the victim at the names a predictable scheme would pick, planted once the pid is known.
    const pid_t child = spawn(args, -1, [&](pid_t pid) {
      for (const std::string& name : {output + ".tmp-" + std::to_string(pid), output + ".tmp", output + "~"}) {
        fs::create_symlink(victim, dir_ / name);
        planted.push_back(dir_ / name);
      }
    });
    int status = 0;
    ASSERT_TRUE(waitFor(child, &status));
    ASSERT_TRUE(exitedWith(status, 0)) << err();
    EXPECT_EQ(readFile(victim), "precious") << output << " wrote through a planted link";
    for (const fs::path& link : planted) {
      EXPECT_TRUE(fs::is_symlink(link));
      EXPECT_EQ(fs::read_symlink(link), victim);
    }
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dir_ / output)));
  }
  EXPECT_EQ(decoded(dir_ / "out/out.png").width, 512);
  EXPECT_EQ(fs::file_size(dir_ / "out/out.raw"), kFrame * 3);
  EXPECT_EQ(names(dir_ / "out").size(), 8u) << "two outputs and six planted links, no temporary";
}

TEST_F(ToolSafety, AnOutputLinkIsKeptAndTheFileItLeadsToReplaced) {
  makeInputs();
  fs::create_directories(dir_ / "real");
  writeFile(dir_ / "real/photo.png", "the old picture");
  fs::permissions(dir_ / "real/photo.png", fs::perms(0640));
  fs::create_symlink("real/photo.png", dir_ / "link.png");
  fs::create_symlink("link.png", dir_ / "chain.png");
  fs::create_symlink(dir_ / "real/new.png", dir_ / "dangling.png");
  fs::create_symlink("real/out.raw", dir_ / "link.raw");

  Outcome r = run("in.png --engine cpu -o chain.png");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(fs::read_symlink(dir_ / "chain.png"), "link.png");
  EXPECT_EQ(fs::read_symlink(dir_ / "link.png"), "real/photo.png");
  EXPECT_EQ(decoded(dir_ / "real/photo.png").width, 512) << "the file the links lead to holds the result";
  EXPECT_EQ(modeOf(dir_ / "real/photo.png"), 0640u);

  r = run("in.png --engine cpu --mask 0 -o dangling.png");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(fs::is_symlink(dir_ / "dangling.png"));
  EXPECT_EQ(decoded(dir_ / "real/new.png").bgra, decoded(dir_ / "in.png").bgra);

  r = run("--raw 16x8 --engine cpu in.raw -o link.raw");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(fs::is_symlink(dir_ / "link.raw"));
  EXPECT_EQ(fs::file_size(dir_ / "real/out.raw"), kFrame * 3);
  EXPECT_EQ(names(dir_ / "real"), (std::set<std::string>{"photo.png", "new.png", "out.raw"}));
}

TEST_F(ToolSafety, NoOutputMayOverwriteAnInput) {
  makeInputs();
  fs::copy_file(LUMO_SAMPLE_IMAGE, dir_ / "pic-compare.png");
  fs::create_hard_link(dir_ / "in.png", dir_ / "hard.png");
  fs::create_symlink("in.png", dir_ / "alias.png");
  fs::create_symlink("a.png", dir_ / "a-compare.png");  // the comparison's name leads to the result's
  const std::map<std::string, std::string> before = snapshot();
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"pic-compare.png -o pic.png --compare", ""},
      {"in.png -o a.png --compare", ""},
      {"in.png -o hard.png", ""},
      {"in.png -o alias.png", ""},
      {"/dev/stdin -o in.png < in.png", ""},
      {"--raw 16x8 in.raw -o in.raw", ""},
      {"--raw 16x8 - -o in.raw < in.raw", ""},
      {"--raw 16x8 /dev/stdin -o in.raw < in.raw", ""},
      {"--raw 16x8 in.raw -o - >> in.raw", "timeout 20"},  // appending to its own input would never end
  };
  for (const auto& [arguments, prefix] : cases) {
    const Outcome r = run("--engine cpu " + arguments, prefix);
    EXPECT_EQ(r.status, 2) << arguments << ": " << r.err;
    EXPECT_TRUE(r.err.find("refusing to overwrite the input") != std::string::npos ||
                r.err.find("are the same file") != std::string::npos)
        << r.err;
    EXPECT_EQ(snapshot(), before) << arguments << " changed a file";
  }
}

TEST_F(ToolSafety, ALinkToStdoutIsWrittenThroughTheDescriptor) {
  makeInputs();
  fs::create_symlink("/proc/self/fd/1", dir_ / "so.raw");
  fs::create_symlink("/dev/stdout", dir_ / "dev.raw");
  fs::create_symlink("/dev/stdout", dir_ / "shown.png");
  Outcome r = run("--raw 16x8 --engine cpu in.raw -o so.raw > captured.raw");
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string frames = readFile(dir_ / "captured.raw");
  EXPECT_EQ(frames.size(), kFrame * 3);
  writeFile(dir_ / "appended.raw", "HEAD");
  r = run("--raw 16x8 --engine cpu in.raw -o dev.raw >> appended.raw");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readFile(dir_ / "appended.raw"), "HEAD" + frames) << "written at the descriptor's own offset";
  r = run("--raw 16x8 --engine cpu in.raw -o so.raw | cat > piped.raw");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readFile(dir_ / "piped.raw"), frames);
  r = run("in.png --engine cpu -o shown.png > captured.png");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(decoded(dir_ / "captured.png").width, 512);
  for (const char* link : {"so.raw", "dev.raw", "shown.png"}) EXPECT_TRUE(fs::is_symlink(dir_ / link)) << link;
}

TEST_F(ToolSafety, InputsAreCheckedBeforeTheyAreRead) {
  makeInputs();
  fs::create_directories(dir_ / "folder.png");
  Outcome r = run("folder.png -o out.png");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("folder.png: is a directory"), std::string::npos) << r.err;
  r = run("--raw 16x8 folder.png -o out.raw");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("is a directory"), std::string::npos) << r.err;
  r = run("/dev/zero -o out.png", "timeout 20");
  EXPECT_EQ(r.status, 1) << "124: /dev/zero was read";
  EXPECT_NE(r.err.find("/dev/zero: is a device"), std::string::npos) << r.err;
  {
    std::ofstream(dir_ / "big.png");
    fs::resize_file(dir_ / "big.png", size_t{300} << 20);  // sparse
  }
  r = run("big.png -o out.png", "timeout 20");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("is 300 MiB; image files above 256 MiB are refused"), std::string::npos) << r.err;
  writeFile(dir_ / "empty.png", "");
  r = run("empty.png -o out.png");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("empty file"), std::string::npos) << r.err;
  fs::remove(dir_ / "big.png");
  EXPECT_EQ(names(), (std::set<std::string>{"in.png", "in.raw", "folder.png", "empty.png", "stderr.txt"}));

  // A pipe is still read, to its end.
  ASSERT_EQ(::mkfifo((dir_ / "pipe.png").c_str(), 0600), 0);
  std::thread writer([this] {
    int fd = -1;
    for (int i = 0; i < 2000 && fd < 0; ++i) {
      fd = ::open((dir_ / "pipe.png").c_str(), O_WRONLY | O_NONBLOCK);  // ENXIO until the tool opens it
      if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (fd < 0) return;
    ::fcntl(fd, F_SETFL, 0);
    const std::string bytes = readFile(LUMO_SAMPLE_IMAGE);
    if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) ADD_FAILURE();
    ::close(fd);
  });
  r = run("pipe.png --engine cpu --mask 0 -o fromfifo.png", "timeout 30");
  writer.join();
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(decoded(dir_ / "fromfifo.png").bgra, decoded(dir_ / "in.png").bgra);
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
                message.find("a 16384 x 16384 frame is above the limit (16384 a side, 128 Mi pixels)") != std::string::npos)
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

TEST_F(ToolSafety, MessagesNeverReachAnOutput) {
  makeInputs();
  ASSERT_EQ(run("--raw 16x8 --engine cpu - -o ref.raw < in.raw").status, 0);
  ASSERT_EQ(run("in.png --engine cpu -o ref.png").status, 0);
  // stderr closed: the first file the tool opens would otherwise become descriptor 2.
  EXPECT_EQ(shell("'" LUMO_TOOL "' --raw 16x8 --engine cpu - -o out.raw < in.raw 2>&-"), 0);
  EXPECT_EQ(readFile(dir_ / "out.raw"), readFile(dir_ / "ref.raw"));
  EXPECT_EQ(shell("'" LUMO_TOOL "' in.png --engine cpu -o out.png 2>&-"), 0);
  EXPECT_EQ(readFile(dir_ / "out.png"), readFile(dir_ / "ref.png"));
  // stdin closed is an error, not an empty stream.
  const Outcome r = run("--raw 16x8 --engine cpu - -o none.raw <&-");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Bad file descriptor"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "none.raw"));
}

TEST_F(ToolSafety, AReplacedFileKeepsItsPermissions) {
  makeInputs();
  for (const auto& [name, mode] : std::vector<std::pair<std::string, mode_t>>{
           {"private.png", 0600}, {"shared.png", 0664}, {"readonly.png", 0444}, {"private.raw", 0600}}) {
    writeFile(dir_ / name, "old");
    ASSERT_EQ(::chmod((dir_ / name).c_str(), mode), 0);
    const bool raw = name.find(".raw") != std::string::npos;
    const Outcome r = run((raw ? "--raw 16x8 --engine cpu in.raw -o " : "in.png --engine cpu -o ") + name);
    ASSERT_EQ(r.status, 0) << name << ": " << r.err;
    EXPECT_NE(readFile(dir_ / name), "old");
    EXPECT_EQ(modeOf(dir_ / name), mode) << name;
  }
  EXPECT_EQ(shell("umask 027 && '" LUMO_TOOL "' in.png --engine cpu -o new.png 2>/dev/null"), 0);
  EXPECT_EQ(modeOf(dir_ / "new.png"), 0640u) << "a new file: 0666 less the umask";
}

TEST_F(ToolSafety, NumbersAreParsedStrictly) {
  makeInputs();
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"--raw 4294967306x10 in.raw -o out.raw", "1..16384"},
      {"--raw 10x4294967306 in.raw -o out.raw", "1..16384"},
      {"--raw 0x8 in.raw -o out.raw", "1..16384"},
      {"--raw 16x8x in.raw -o out.raw", "1..16384"},
      {"--raw ' 16x8' in.raw -o out.raw", "1..16384"},
      {"--raw 16x+8 in.raw -o out.raw", "1..16384"},
      {"--raw 16385x8 in.raw -o out.raw", "1..16384"},
  };
  for (const auto& [arguments, range] : bad) {
    const bool raw = arguments.find("--raw") == 0;
    const Outcome r = run(arguments + (raw ? "" : " in.png -o out.png"));
    EXPECT_EQ(r.status, 2) << arguments << ": " << r.err;
    EXPECT_NE(r.err.find(" in " + range), std::string::npos) << arguments << ": " << r.err;
    EXPECT_NE(r.err.find(", got '"), std::string::npos) << arguments << ": " << r.err;
  }
  EXPECT_EQ(names(), (std::set<std::string>{"in.png", "in.raw", "stderr.txt"})) << "no bad run wrote anything";
  // Leading zeros are decimal: 010 is whiten + sharpen, not octal 8 (the library's parsers read it).
  ASSERT_EQ(run("in.png --engine cpu --mask 010 -o ten.png").status, 0);
  ASSERT_EQ(run("in.png --engine cpu --mask whiten,sharpen -o named.png").status, 0);
  EXPECT_EQ(readFile(dir_ / "ten.png"), readFile(dir_ / "named.png"));
}

// The beautify settings' text, from the table every front end's suite reads: a text the library takes is
// no usage error, and a text it refuses gets its message, under the option's name.
TEST_F(ToolSafety, SettingsAreReadAsTheLibraryReadsThem) {
  std::ifstream table(LUMO_SETTINGS_CASES);
  std::string line;
  int cases = 0;
  while (std::getline(table, line)) {
    if (line.empty() || line[0] == '#') continue;
    const size_t a = line.find('\t');
    const size_t b = line.find('\t', a + 1);
    const std::string option = "--" + line.substr(0, a);
    const std::string text = line.substr(a + 1, b - a - 1);
    const std::string expected = line.substr(b + 1);
    int status = 0;
    // No such input: a taken setting fails on the input (1), a refused one before it (2).
    ASSERT_TRUE(waitFor(spawn({option, text, "missing.png", "-o", "out.png"}), &status));
    if (expected[0] == '!') {
      EXPECT_TRUE(exitedWith(status, 2)) << option << " '" << text << "'";
      EXPECT_NE(err().find("option " + option + " " + expected.substr(2)), std::string::npos)
          << option << " '" << text << "': " << err();
    } else {
      EXPECT_TRUE(exitedWith(status, 1)) << option << " '" << text << "': " << err();
    }
    ++cases;
  }
  EXPECT_GT(cases, 20);
}

TEST_F(ToolSafety, StopSignalsMidStreamKeepTheCompleteFramesAndNoTemporary) {
  const size_t frame = 32 * 16 * 4;
  for (const int sig : {SIGINT, SIGHUP, SIGTERM}) {
    int input[2];
    ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
    const pid_t child = spawn({"--raw", "32x16", "--engine", "cpu", "-", "-o", "out.raw"}, input[0]);
    ::close(input[0]);
    ASSERT_GT(child, 0);
    // Five frames and a half, then the producer stalls.
    const std::string data(frame * 5 + frame / 2, '\x70');
    ASSERT_EQ(::write(input[1], data.data(), data.size()), static_cast<ssize_t>(data.size()));
    auto written = [&] { return bytesWrittenBy(child); };
    for (int i = 0; i < 600 && written() < frame * 5; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_EQ(written(), frame * 5);
    ::kill(child, sig);
    int status = 0;
    ASSERT_TRUE(waitFor(child, &status));
    ::close(input[1]);
    EXPECT_TRUE(exitedWith(status, 128 + sig)) << "signal " << sig << ", wait status " << status;
    EXPECT_EQ(fs::file_size(dir_ / "out.raw"), frame * 5);
    EXPECT_NE(err().find("interrupted after 5 complete frames"), std::string::npos) << err();
    EXPECT_EQ(names(), (std::set<std::string>{"out.raw", "stderr.txt"})) << "signal " << sig;
    fs::remove(dir_ / "out.raw");
  }
}

TEST_F(ToolSafety, AnEarlySignalLeavesNothingBehind) {
  // SIGTERM at staggered moments of start-up (engine choice, GL context, output creation) with a producer
  // that never writes: the run ends with no frame, so nothing may be left, not even an empty output.
  for (const int delay : {0, 1, 2, 5, 10, 20, 40, 80, 160, 320}) {
    int input[2];
    ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
    const pid_t child = spawn({"--raw", "32x16", "-", "-o", "out.raw"}, input[0]);
    ::close(input[0]);
    ASSERT_GT(child, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    ::kill(child, SIGTERM);
    int status = 0;
    const bool ended = waitFor(child, &status);
    ::close(input[1]);
    ASSERT_TRUE(ended) << "a SIGTERM after " << delay << " ms did not end the run";
    EXPECT_TRUE((WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) || exitedWith(status, 128 + SIGTERM))
        << delay << " ms: wait status " << status;
    std::set<std::string> left = names();
    left.erase("stderr.txt");
    EXPECT_TRUE(left.empty()) << delay << " ms: " << *left.begin() << " left behind";
    for (const std::string& name : left) fs::remove(dir_ / name);
  }
}

TEST_F(ToolSafety, ASignalWhileAnOutputIsBeingWrittenLeavesNothingHalf) {
  makeInputs();
  const std::set<std::string> known = {"in.png", "in.raw", "stderr.txt", "out.png", "out-compare.png"};
  int caught = 0;
  // SIGKILL cannot be handled: only an output with no name until it is complete leaves nothing then.
  const int signals[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGKILL, SIGKILL, SIGKILL};
  for (const int sig : signals) {
    const pid_t child = spawn({"in.png", "--engine", "cpu", "--compare", "-o", "out.png"});
    ASSERT_GT(child, 0);
    // The moment the tool holds an output open in the folder, send the signal.
    int status = 0;
    bool sent = false;
    while (!sent && ::waitpid(child, &status, WNOHANG) == 0) {
      if (writesUnknownFile(child, known)) {
        ::kill(child, sig);
        sent = true;
      }
    }
    if (sent) {
      ASSERT_TRUE(waitFor(child, &status));
    }
    caught += sent && WIFSIGNALED(status) ? 1 : 0;
    for (const std::string& name : names()) {
      EXPECT_EQ(known.count(name), 1u) << name << " left behind by signal " << sig;
      if (known.count(name) == 0) fs::remove(dir_ / name);
    }
    for (const char* output : {"out.png", "out-compare.png"}) {
      if (fs::exists(dir_ / output)) {
        EXPECT_GT(decoded(dir_ / output).width, 0) << output << " is not whole";
      }
      fs::remove(dir_ / output);
    }
  }
  EXPECT_GT(caught, 1) << "no signal arrived while an output was being written: the test proved nothing";
}

TEST_F(ToolSafety, OutOfMemoryIsAnErrorAndLeavesNothing) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "AddressSanitizer reserves more address space than the limit this test sets";
#else
  writeFile(dir_ / "in.raw", std::string(64, '\x50'));
  // A 16384 x 8192 frame (the largest the library takes) needs 512 MiB: more than the 400 MB of address
  // space allowed.
  const Outcome r = run("--raw 16384x8192 --engine cpu in.raw -o out.raw", "ulimit -v 400000 &&");
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("lumo-beautify: out of memory"), std::string::npos) << r.err;
  EXPECT_EQ(names(), (std::set<std::string>{"in.raw", "stderr.txt"}));
#endif
}

TEST_F(ToolSafety, AFrameTheEngineLeavesUndrawnIsDrawnByTheCpuEngine) {
  // The GL engine hands a 1 x 1 frame back undrawn.
  const Image one{1, 1, {100, 120, 160, 255}};
  std::vector<uint8_t> png;
  std::string error;
  ASSERT_TRUE(lumo::tools::encodeImage(lumo::tools::ImageFormat::Png, one, &png, &error)) << error;
  writeFile(dir_ / "one.png", std::string(png.begin(), png.end()));
  const std::string pixel(one.bgra.begin(), one.bgra.end());
  writeFile(dir_ / "one.raw", pixel + pixel + pixel);

  Outcome r = run("one.png --engine gl -o gl.png");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("the CPU engine draws such frames"), std::string::npos) << r.err;
  ASSERT_EQ(run("one.png --engine cpu -o cpu.png").status, 0);
  EXPECT_NE(decoded(dir_ / "cpu.png").bgra, one.bgra) << "the default passes change this pixel";
  EXPECT_EQ(decoded(dir_ / "gl.png").bgra, decoded(dir_ / "cpu.png").bgra);

  r = run("--raw 1x1 --engine gl one.raw -o gl.raw");
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(run("--raw 1x1 --engine cpu one.raw -o cpu.raw").status, 0);
  EXPECT_EQ(readFile(dir_ / "gl.raw"), readFile(dir_ / "cpu.raw"));
  EXPECT_NE(readFile(dir_ / "gl.raw"), readFile(dir_ / "one.raw"));

  // With no pass enabled the input back is the right answer.
  r = run("one.png --engine gl --mask 0 -o same.png");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.find("CPU engine draws"), std::string::npos) << r.err;
  EXPECT_EQ(decoded(dir_ / "same.png").bgra, one.bgra);
}

TEST_F(ToolSafety, AnExplicitGlEngineWithoutGlIsAnErrorAndWritesNothing) {
  // EGL finds no driver at all: the GL engine cannot be had, the automatic choice falls back to the CPU.
  const std::string noGl = "__EGL_VENDOR_LIBRARY_FILENAMES=/nonexistent/egl_vendor.json";
  fs::copy_file(LUMO_SAMPLE_IMAGE, dir_ / "in.png");
  writeFile(dir_ / "in.raw", std::string(8 * 8 * 4 * 2, '\x60'));
  writeFile(dir_ / "kept.png", "old");

  Outcome r = run("in.png --engine gl -o gl.png", noGl);
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("no gl engine: no GL context could be made"), std::string::npos) << r.err;
  r = run("--raw 8x8 --engine gl in.raw -o gl.raw", noGl);
  EXPECT_EQ(r.status, 1) << r.err;
  r = run("in.png --engine gl -o kept.png", noGl);
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_EQ(readFile(dir_ / "kept.png"), "old");
  EXPECT_EQ(names(), (std::set<std::string>{"in.png", "in.raw", "kept.png", "stderr.txt"}));

  r = run("in.png -o auto.png", noGl);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("engine cpu ("), std::string::npos) << r.err;
}

TEST_F(ToolSafety, TheDefaultOutputNameFollowsTheFileNameOnly) {
  fs::create_directories(dir_ / "dir.v2");
  fs::copy_file(LUMO_SAMPLE_IMAGE, dir_ / "dir.v2/photo");
  fs::copy_file(LUMO_SAMPLE_IMAGE, dir_ / "dir.v2/photo.jpg");  // named JPEG, read by content
  fs::copy_file(LUMO_SAMPLE_IMAGE, dir_ / "dir.v2/scan.webp");
  Outcome r = run("dir.v2/photo --engine cpu --compare");
  ASSERT_EQ(r.status, 0) << r.err;
  r = run("dir.v2/photo.jpg --engine cpu");
  ASSERT_EQ(r.status, 0) << r.err;
  r = run("dir.v2/scan.webp --engine cpu");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(names(dir_ / "dir.v2"),
            (std::set<std::string>{"photo", "photo.jpg", "scan.webp", "photo-beautified.png",
                                   "photo-beautified-compare.png", "photo-beautified.jpg", "scan-beautified.png"}));
  EXPECT_EQ(names(), (std::set<std::string>{"dir.v2", "stderr.txt"}));
}

TEST_F(ToolSafety, OddOutputsFailBeforeAnyWorkAndLeaveNothing) {
  makeInputs();
  fs::create_directories(dir_ / "folder.png");
  const std::string longName(300, 'n');  // above NAME_MAX
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"in.png -o folder.png", "folder.png: Is a directory"},
      {"--raw 16x8 in.raw -o folder.png", "folder.png: Is a directory"},
      {"in.png -o missing/out.png", "missing/out.png: No such file or directory"},
      {"in.png -o " + longName + ".png", "File name too long"},
      {"--raw 16x8 in.raw -o /proc/version", "/proc/version: is inside /proc or /sys"},
      {"--raw 16x8 in.raw -o /proc/self/new.raw", "is inside /proc or /sys"},
  };
  const std::map<std::string, std::string> before = snapshot();
  for (const auto& [arguments, message] : cases) {
    const Outcome r = run("--engine cpu " + arguments);
    EXPECT_EQ(r.status, 1) << arguments << ": " << r.err;
    EXPECT_NE(r.err.find(message), std::string::npos) << arguments << ": " << r.err;
    EXPECT_EQ(r.err.find("engine cpu ("), std::string::npos) << arguments << ": refused only after the work";
    EXPECT_EQ(snapshot(), before) << arguments;
  }
  EXPECT_TRUE(fs::is_empty(dir_ / "folder.png"));
}

TEST_F(ToolSafety, TwoRunsWritingOneOutputLeaveOneWholeFile) {
  makeInputs();
  const pid_t first = spawn({"in.png", "--engine", "cpu", "-o", "out.png"});
  const pid_t second = spawn({"in.png", "--engine", "cpu", "--mask", "0", "-o", "out.png"});
  int firstStatus = 0, secondStatus = 0;
  ASSERT_TRUE(waitFor(first, &firstStatus));
  ASSERT_TRUE(waitFor(second, &secondStatus));
  EXPECT_TRUE(exitedWith(firstStatus, 0));
  EXPECT_TRUE(exitedWith(secondStatus, 0));
  EXPECT_EQ(decoded(dir_ / "out.png").width, 512);
  EXPECT_EQ(names(), (std::set<std::string>{"in.png", "in.raw", "out.png", "stderr.txt"}));
}

TEST_F(ToolSafety, TheInstalledToolStartsFromItsPrefix) {
  const fs::path prefix = dir_ / "prefix";
  ASSERT_EQ(shell("'" LUMO_CMAKE "' --install '" LUMO_BUILD_DIR "' --prefix '" + prefix.string() + "' >/dev/null"), 0);
  // No LD_LIBRARY_PATH: the tool finds the library beside it through its run path.
  EXPECT_EQ(
      shell("env -u LD_LIBRARY_PATH '" + (prefix / "bin/lumo-beautify").string() + "' --version >version.txt 2>&1"), 0);
  EXPECT_EQ(readFile(dir_ / "version.txt").rfind("lumo-beautify ", 0), 0u) << readFile(dir_ / "version.txt");
}

}  // namespace
