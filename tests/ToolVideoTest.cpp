// lumo-beautify on video files made by FFmpeg in each test: frames, rates, audio packets, rotation, failures,
// missing plugins and Ctrl-C, all checked with ffprobe and FFmpeg on the files the tool wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "ToolHarness.h"

namespace {

namespace fs = std::filesystem;
using lumo::testing::Outcome;

class ToolVideo : public lumo::testing::ToolRun {
 protected:
  // A clip of `seconds` from FFmpeg's test sources; `extra` gives the codecs and options.
  void makeClip(const std::string& name, const std::string& size, int fps, double seconds, bool audio,
                const std::string& extra) {
    const std::string inputs = "-f lavfi -i testsrc2=s=" + size + ":r=" + std::to_string(fps) +
                               (audio ? " -f lavfi -i sine=f=440:r=48000" : "");
    ASSERT_EQ(shell("ffmpeg -v error -y " + inputs + " -t " + std::to_string(seconds) + " " + extra + " " + name), 0);
  }
  std::string capture(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(("cd '" + dir_.string() + "' && " + command).c_str(), "r");
    if (pipe == nullptr) return out;
    char chunk[4096];
    size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) out.append(chunk, got);
    ::pclose(pipe);
    while (!out.empty() && (out.back() == '\n' || out.back() == ',')) out.pop_back();
    return out;
  }
  // A field of the first stream of a kind ("v" or "a"); empty when there is no such stream.
  std::string field(const std::string& file, const std::string& stream, const std::string& name) {
    return capture("ffprobe -v error -select_streams " + stream + ":0 -show_entries stream=" + name +
                   " -of csv=p=0 '" + file + "'");
  }
  int packets(const std::string& file, const std::string& stream) {
    const std::string count = capture("ffprobe -v error -select_streams " + stream +
                                      ":0 -count_packets -show_entries stream=nb_read_packets -of csv=p=0 '" + file +
                                      "'");
    return count.empty() ? 0 : std::stoi(count);
  }
  // One checksum per packet (copy) or per decoded frame.
  std::vector<std::string> hashes(const std::string& file, const std::string& stream, bool decoded) {
    const std::string text = capture("ffmpeg -v error -i '" + file + "' -map 0:" + stream + ":0 " +
                                     (decoded ? "" : "-c copy ") + "-f framemd5 - | grep -v '^#' | awk -F, '{print $NF}'");
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  // Only the named files are in the test's folder: no output, no temporary beside them.
  void expectOnly(std::set<std::string> expected) {
    expected.insert("stderr.txt");
    EXPECT_EQ(names(), expected);
  }
};

// Whether `part` appears in `whole` as one contiguous run.
bool contiguousIn(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
  return !part.empty() && std::search(whole.begin(), whole.end(), part.begin(), part.end()) != whole.end();
}

TEST_F(ToolVideo, H264WithAacKeepsFramesRateAndAudioPacketsAndBeautifiesEveryFrame) {
  makeClip("in.mp4", "160x120", 30, 2, true, "-c:v libx264 -pix_fmt yuv420p -c:a aac");
  Outcome r = run("in.mp4 -o out.mp4 --engine cpu");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("wrote out.mp4: 60 frames"), std::string::npos) << r.err;
  EXPECT_EQ(packets("out.mp4", "v"), 60);
  EXPECT_EQ(field("out.mp4", "v", "codec_name,width,height,r_frame_rate,sample_aspect_ratio"), "h264,160,120,1:1,30/1");
  // The AAC packets are the input's, byte for byte. GStreamer's MP4 demuxer drops the priming packet before
  // FFmpeg's edit list and the one past its end: at most two packets of 21 ms.
  const std::vector<std::string> in = hashes("in.mp4", "a", false), out = hashes("out.mp4", "a", false);
  EXPECT_TRUE(contiguousIn(out, in));
  EXPECT_GE(out.size() + 2, in.size());
  // The same file through the same encoder with no pass: every beautified frame differs from it.
  ASSERT_EQ(run("in.mp4 -o plain.mp4 --engine cpu --mask 0").status, 0);
  const std::vector<std::string> plain = hashes("plain.mp4", "v", true), drawn = hashes("out.mp4", "v", true);
  ASSERT_EQ(plain.size(), 60u);
  ASSERT_EQ(drawn.size(), 60u);
  for (size_t i = 0; i < drawn.size(); ++i) EXPECT_NE(drawn[i], plain[i]) << "frame " << i;
  // The default name, in the input's container, and the quality options.
  ASSERT_EQ(run("in.mp4 --engine cpu --crf 40").status, 0);
  ASSERT_EQ(run("in.mp4 -o small.mkv --engine cpu --bitrate 50").status, 0);
  EXPECT_EQ(packets("in-beautified.mp4", "v"), 60);
  EXPECT_LT(fs::file_size(dir_ / "in-beautified.mp4"), fs::file_size(dir_ / "out.mp4")) << "crf 40 is below 23";
  EXPECT_EQ(field("small.mkv", "a", "codec_name"), "aac") << "Matroska takes AAC as it is";
  expectOnly({"in.mp4", "out.mp4", "plain.mp4", "in-beautified.mp4", "small.mkv"});
}

// VP9 at a bit rate that presses its rate control once lost the last frames of the stream; its quality level
// was overridden by a low bit-rate ceiling.
TEST_F(ToolVideo, Vp9KeepsEveryFrameAtABitRateAndFollowsItsQualityLevel) {
  makeClip("busy.mp4", "320x240", 25, 10, false, "-c:v libx264 -pix_fmt yuv420p -g 25");
  ASSERT_EQ(run("busy.mp4 -o rate.webm --engine cpu --bitrate 4000").status, 0) << err();
  EXPECT_EQ(packets("rate.webm", "v"), 250);
  ASSERT_EQ(run("busy.mp4 -o fine.webm --engine cpu --crf 10").status, 0) << err();
  ASSERT_EQ(run("busy.mp4 -o coarse.webm --engine cpu --crf 50").status, 0) << err();
  EXPECT_EQ(packets("fine.webm", "v"), 250);
  EXPECT_GT(fs::file_size(dir_ / "fine.webm"), fs::file_size(dir_ / "coarse.webm") * 5 / 4);
  expectOnly({"busy.mp4", "rate.webm", "fine.webm", "coarse.webm"});
}

TEST_F(ToolVideo, Vp9WithOpusStaysVp9AndOpusAndAudioIsReencodedWhereTheContainerRefusesIt) {
  makeClip("in.webm", "160x120", 25, 2, true, "-c:v libvpx-vp9 -deadline realtime -c:a libopus");
  ASSERT_EQ(run("in.webm -o out.webm --engine cpu").status, 0) << err();
  EXPECT_EQ(field("out.webm", "v", "codec_name,r_frame_rate"), "vp9,25/1");
  EXPECT_EQ(packets("out.webm", "v"), 50);
  EXPECT_EQ(hashes("out.webm", "a", false), hashes("in.webm", "a", false)) << "Opus packets untouched";
  // AAC cannot go into WebM: Opus, as long as the input's audio.
  makeClip("aac.mp4", "160x120", 30, 2, true, "-c:v libx264 -pix_fmt yuv420p -c:a aac");
  ASSERT_EQ(run("aac.mp4 -o aac.webm --engine cpu").status, 0) << err();
  EXPECT_EQ(field("aac.webm", "v", "codec_name"), "vp9");
  EXPECT_EQ(field("aac.webm", "a", "codec_name"), "opus");
  const double audio = std::stod(capture("ffprobe -v error -show_entries format=duration -of csv=p=0 aac.webm"));
  EXPECT_NEAR(audio, 2.0, 0.1);
  // No audio in, none out; H.265 on request.
  makeClip("silent.mkv", "160x120", 30, 1, false, "-c:v libx264 -pix_fmt yuv420p");
  ASSERT_EQ(run("silent.mkv -o silent.mov --engine cpu --video-codec h265").status, 0) << err();
  EXPECT_EQ(field("silent.mov", "v", "codec_name"), "hevc");
  EXPECT_EQ(packets("silent.mov", "v"), 30);
  EXPECT_EQ(field("silent.mov", "a", "codec_name"), "");
}

TEST_F(ToolVideo, RotatedPhoneClipIsTurnedUpright) {
  makeClip("flat.mp4", "160x120", 30, 1, false, "-c:v libx264 -pix_fmt yuv420p");
  ASSERT_EQ(shell("ffmpeg -v error -i flat.mp4 -c copy -metadata:s:v:0 rotate=90 phone.mp4"), 0);
  ASSERT_EQ(capture("ffprobe -v error -show_streams phone.mp4 | grep -c rotation=90"), "1");
  for (const char* out : {"up.mp4", "up.webm"}) {
    ASSERT_EQ(run(std::string("phone.mp4 -o ") + out + " --engine cpu").status, 0) << err();
    EXPECT_EQ(field(out, "v", "width,height"), "120,160") << out;
    EXPECT_EQ(capture(std::string("ffprobe -v error -show_streams ") + out + " | grep -c rotation="), "0") << out;
    EXPECT_EQ(packets(out, "v"), 30) << out;
  }
}

TEST_F(ToolVideo, BadInputsAndOptionsFailWithTheirNameAndLeaveNothing) {
  makeClip("in.mp4", "160x120", 30, 2, true, "-c:v libx264 -pix_fmt yuv420p -c:a aac");
  ASSERT_EQ(shell("head -c 20000 in.mp4 > cut.mp4"), 0);
  ASSERT_EQ(shell("ffmpeg -v error -f lavfi -i sine=r=48000 -t 1 -c:a aac song.m4a"), 0);
  lumo::testing::writeFile(dir_ / "notes.mkv", "not a video at all\n");
  // Cut before its index (the moov box after the data), the file has no frame to give: said at once.
  Outcome r = run("cut.mp4 -o a.mp4");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cut.mp4: is cut short before its index: the file has 20000 of the "), std::string::npos)
      << r.err;
  r = run("song.m4a -o b.mp4");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("song.m4a: has no video stream"), std::string::npos) << r.err;
  EXPECT_EQ(run("notes.mkv -o c.mp4").status, 1);
  // An AVIF still has MP4's boxes but no movie in them.
  ASSERT_EQ(shell("ffmpeg -v error -f lavfi -i testsrc2=s=64x64 -frames:v 1 -c:v libaom-av1 -still-picture 1 "
                  "-f avif still.mp4"),
            0);
  r = run("still.mp4 -o e.mp4");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("still.mp4: is a HEIF or AVIF photo, not a video"), std::string::npos) << r.err;
  // Usage errors, before anything is read.
  EXPECT_EQ(run("in.mp4 -o d.mp4 --crf 51").status, 2) << "x264's quality scale ends at 50";
  EXPECT_EQ(run("in.mp4 -o d.mp4 --video-codec vp9").status, 2);
  EXPECT_EQ(run("in.mp4 -o d.webm --video-codec h264").status, 2);
  EXPECT_EQ(run("in.mp4 -o d.mp4 --crf 20 --bitrate 900").status, 2);
  EXPECT_EQ(run("in.mp4 -o d.png").status, 2);
  EXPECT_EQ(run("in.mp4 -o d.mp4 --compare").status, 2);
  EXPECT_EQ(run("'" LUMO_SAMPLE_IMAGE "' -o d.png --crf 20").status, 2);
  r = run("in.mp4 -o in.mp4");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("refusing to overwrite the input"), std::string::npos);
  // A video named as something else is found by its content.
  fs::copy_file(dir_ / "in.mp4", dir_ / "clip.bin");
  ASSERT_EQ(run("clip.bin --engine cpu").status, 0) << err();
  EXPECT_EQ(packets("clip-beautified.mp4", "v"), 60);
  // Named as a photo, its default output would be one: the tool asks for the video's name instead.
  fs::copy_file(dir_ / "in.mp4", dir_ / "clip.jpg");
  r = run("clip.jpg");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("clip.jpg: is a video, not a photo: give -o NAME.mp4"), std::string::npos) << r.err;
  expectOnly({"in.mp4", "cut.mp4", "song.m4a", "notes.mkv", "still.mp4", "clip.bin", "clip-beautified.mp4",
              "clip.jpg"});
}

// A demuxer that fails while GStreamer is still plugging it in can have its error dropped; the tool must end
// with the cause all the same, every time. Sixteen runs at once make that race likely.
TEST_F(ToolVideo, FilesCutNearTheirStartAlwaysEndWithTheirCause) {
  makeClip("in.avi", "160x120", 30, 2, false, "-c:v mjpeg");
  makeClip("in.mkv", "160x120", 30, 2, true, "-c:v libx264 -pix_fmt yuv420p -c:a aac");
  ASSERT_EQ(shell("head -c 3000 in.avi > head.avi && head -c 400 in.mkv > head.mkv"), 0);
  // The whole data and no index: a recording stopped before it was finished.
  makeClip("data.mp4", "160x120", 30, 1, false, "-c:v libx264 -pix_fmt yuv420p");
  ASSERT_EQ(shell("head -c $(( $(grep -obUa moov data.mp4 | head -1 | cut -d: -f1) - 4 )) data.mp4 > noindex.mp4"), 0);
  Outcome r = run("noindex.mp4 -o out.mp4");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("noindex.mp4: has no index (no moov box"), std::string::npos) << r.err;
  constexpr int kRuns = 16;
  for (const char* name : {"head.avi", "head.mkv"}) {
    ASSERT_EQ(shell(std::string("for i in $(seq ") + std::to_string(kRuns) + "); do (timeout -k 5 60 '" LUMO_TOOL
                    "' " + name + " -o out$i.mp4 --engine cpu 2>err$i.txt; echo $? > rc$i.txt) & done; "
                    "wait"),
              0);
    for (int i = 1; i <= kRuns; ++i) {
      const std::string n = std::to_string(i);
      EXPECT_EQ(lumo::testing::readFile(dir_ / ("rc" + n + ".txt")), "1\n") << name << " run " << n;
      const std::string err = lumo::testing::readFile(dir_ / ("err" + n + ".txt"));
      EXPECT_NE(err.find(std::string(name) + ": is cut short: the file has "), std::string::npos) << err;
      EXPECT_FALSE(fs::exists(dir_ / ("out" + n + ".mp4"))) << name << " run " << n;
    }
  }
}

TEST_F(ToolVideo, InputsCutShortOrWithoutVideoFailWithTheirCause) {
  // Cut in half, or just short of its end, each container still decodes in part; only its framing (a box,
  // chunk or segment of a declared size, MPEG-TS's packet size) tells that the rest is missing.
  const struct {
    const char* name;
    const char* codecs;
  } clips[] = {{"in.mp4", "-c:v libx264 -pix_fmt yuv420p -c:a aac -movflags +faststart"},
               {"in.mkv", "-c:v libx264 -pix_fmt yuv420p -c:a aac"},
               {"in.webm", "-c:v libvpx-vp9 -deadline realtime -c:a libopus"},
               {"in.avi", "-c:v libx264 -pix_fmt yuv420p -c:a mp3"}};
  std::set<std::string> inputs;
  for (const auto& clip : clips) {
    makeClip(clip.name, "64x48", 10, 4, true, clip.codecs);
    for (const char* part : {"50", "97"}) {
      const std::string cut = std::string("cut") + part + "-" + clip.name;
      ASSERT_EQ(shell("head -c $(( $(stat -c %s " + std::string(clip.name) + ") * " + part + " / 100 )) " + clip.name +
                      " > " + cut),
                0);
      const Outcome r = run(cut + " -o out.mkv --engine cpu");
      EXPECT_EQ(r.status, 1) << cut;
      EXPECT_NE(r.err.find(cut + ": is cut short: the file has "), std::string::npos) << r.err;
      inputs.insert(cut);
    }
    ASSERT_EQ(run(std::string(clip.name) + " -o whole.mkv --engine cpu").status, 0) << err() << clip.name;
    inputs.insert(clip.name);
  }
  makeClip("in.ts", "64x48", 10, 4, false, "-c:v libx264 -pix_fmt yuv420p");
  ASSERT_EQ(shell("head -c 20000 in.ts > half.ts"), 0);  // not a whole number of 188-byte packets
  Outcome r = run("half.ts -o out.mkv --engine cpu");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("half.ts: is cut short: it ends inside an MPEG-TS packet"), std::string::npos) << r.err;
  ASSERT_EQ(run("in.ts -o whole.mkv --engine cpu").status, 0) << err() << "a whole MPEG-TS file is not cut short";
  // Stored smaller than the muxers take: named before the converters fail on it without a reason.
  makeClip("short.webm", "40x8", 10, 1, false, "-c:v libvpx-vp9 -deadline realtime");
  r = run("short.webm -o out.webm");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("short.webm: is only 40 x 8: the smallest video"), std::string::npos) << r.err;

  // A second video stream is left out, and the tool says so.
  ASSERT_EQ(shell("ffmpeg -v error -f lavfi -i testsrc2=s=64x48:r=10 -f lavfi -i testsrc=s=32x32:r=10 -t 1 -map 0 "
                  "-map 1 -c:v libx264 -pix_fmt yuv420p two.mkv"),
            0);
  r = run("two.mkv -o two-out.mkv --engine cpu");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("two.mkv: has 2 video streams: the first is beautified, the others are left out"),
            std::string::npos)
      << r.err;
  inputs.insert({"two.mkv", "two-out.mkv"});

  // Subtitles only: Matroska ends such a stream without an error, which once left the tool waiting.
  lumo::testing::writeFile(dir_ / "words.srt", "1\n00:00:00,000 --> 00:00:02,000\nHello\n\n");
  ASSERT_EQ(shell("ffmpeg -v error -i words.srt -c:s ass subtitles.mkv"), 0);
  r = run("subtitles.mkv -o out.mp4");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("subtitles.mkv: has no video stream"), std::string::npos) << r.err;
  fs::copy_file(LUMO_SAMPLE_IMAGE, dir_ / "photo.mp4");
  r = run("photo.mp4 -o out.mp4");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("photo.mp4: is a PNG photo, not a video"), std::string::npos) << r.err;
  makeClip("tiny.mkv", "8x8", 10, 1, false, "-c:v ffv1");
  r = run("tiny.mkv -o out.mp4");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("tiny.mkv: is only 8 x 8: the smallest video the tool writes is 16 x 16"), std::string::npos)
      << r.err;
  // A FIFO whose writer has gone would block the open for ever; it is refused at once.
  ASSERT_EQ(::mkfifo((dir_ / "fifo.mp4").c_str(), 0600), 0);
  r = run("fifo.mp4 -o out.mkv");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("fifo.mp4: is not a regular file"), std::string::npos) << r.err;
  EXPECT_EQ(run("- -o out.mp4 < in.mp4").status, 2);
  EXPECT_NE(err().find("a video is read from a file, not from standard input"), std::string::npos) << err();
  EXPECT_EQ(run("in.mp4 -o ''").status, 2);
  EXPECT_NE(err().find("option -o wants a file name, got ''"), std::string::npos) << err();
  inputs.insert({"in.ts", "half.ts", "whole.mkv", "short.webm", "words.srt", "subtitles.mkv", "photo.mp4", "tiny.mkv",
                 "fifo.mp4"});
  expectOnly(inputs);
}

TEST_F(ToolVideo, FourTwoTwoIsWrittenAsFourTwoZeroUnlessAskedAndLimitsComeBeforeDecoding) {
  makeClip("in.mkv", "64x48", 10, 1, false, "-c:v libx264 -pix_fmt yuv422p");
  ASSERT_EQ(run("in.mkv -o out.mp4 --engine cpu").status, 0) << err();
  EXPECT_EQ(field("out.mp4", "v", "pix_fmt,profile"), "High,yuv420p");
  ASSERT_EQ(run("in.mkv -o kept.mp4 --engine cpu --chroma 422").status, 0) << err();
  EXPECT_EQ(field("kept.mp4", "v", "pix_fmt"), "yuv422p");
  ASSERT_EQ(shell("gst-launch-1.0 -q videotestsrc num-buffers=5 ! video/x-raw,format=Y444,width=17,height=17 ! "
                  "x264enc ! matroskamux ! filesink location=odd.mkv"), 0);
  Outcome r = run("odd.mkv -o odd.mp4 --engine cpu");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("odd.mkv: is 17 x 17: h264 in 4:2:0 needs both sides even; give --chroma 444"),
            std::string::npos) << r.err;
  ASSERT_EQ(run("odd.mkv -o odd.mp4 --engine cpu --chroma 444").status, 0) << err();
  EXPECT_EQ(field("odd.mp4", "v", "width,height,pix_fmt"), "17,17,yuv444p");
  // Raw frames whose header claims 16384 x 16384: refused from the header, before a frame is allocated.
  ASSERT_EQ(shell("ffmpeg -v error -f lavfi -i testsrc2=s=256x256:r=10 -t 0.2 -c:v rawvideo -pix_fmt yuv420p "
                  "raw.mkv"), 0);
  std::string bytes = lumo::testing::readFile(dir_ / "raw.mkv");
  for (const std::string& field : {std::string("\xB0\x82\x01\x00", 4), std::string("\xBA\x82\x01\x00", 4)}) {
    const size_t at = bytes.find(field);  // PixelWidth, PixelHeight: 256 becomes 16384
    ASSERT_NE(at, std::string::npos);
    bytes[at + 2] = '\x40';
    bytes[at + 3] = '\x00';
  }
  lumo::testing::writeFile(dir_ / "huge.mkv", bytes);
  r = run("huge.mkv -o huge.mp4");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("huge.mkv: a 16384 x 16384 frame is above the limit (16384 a side, 128 Mi pixels)"),
            std::string::npos) << r.err;
  expectOnly({"in.mkv", "out.mp4", "kept.mp4", "odd.mkv", "odd.mp4", "raw.mkv", "huge.mkv"});
}

TEST_F(ToolVideo, MissingPluginsNameTheirPackage) {
  makeClip("in.mp4", "64x48", 30, 1, false, "-c:v libx264 -pix_fmt yuv420p");
  // GStreamer's own plugins less one library each time, as on a system without that package.
  const std::string system = capture("pkg-config --variable=pluginsdir gstreamer-1.0");
  ASSERT_FALSE(system.empty());
  struct Case {
    std::set<std::string> without;
    const char* package;
  } cases[] = {{{"libgstlibav.so", "libgstopenh264.so"}, "gstreamer1.0-libav"},  // no H.264 decoder
               {{"libgstx264.so"}, "gstreamer1.0-plugins-ugly"}};
  for (const Case& c : cases) {
    const fs::path plugins = dir_ / ("without-" + std::string(c.package));
    fs::create_directories(plugins);
    for (const auto& entry : fs::directory_iterator(system)) {
      if (c.without.count(entry.path().filename().string()) == 0) {
        fs::create_symlink(entry.path(), plugins / entry.path().filename());
      }
    }
    const std::string environment = "GST_PLUGIN_SYSTEM_PATH_1_0='" + plugins.string() + "' GST_REGISTRY_1_0='" +
                                    plugins.string() + ".bin'";
    const Outcome r = run("in.mp4 -o out.mp4 --engine cpu", environment);
    EXPECT_EQ(r.status, 1) << c.package;
    EXPECT_NE(r.err.find(std::string("install ") + c.package), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(dir_ / "out.mp4"));
    fs::remove_all(plugins);
    fs::remove(plugins.string() + ".bin");
  }
  expectOnly({"in.mp4"});
}

TEST_F(ToolVideo, InterruptFinishesAPlayableFileWithTheFramesSoFar) {
  makeClip("long.mp4", "320x240", 30, 20, true, "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac");
  const pid_t child = spawn({"long.mp4", "-o", "out.mp4", "--engine", "cpu", "--progress"});
  ASSERT_GT(child, 0);
  // Once the progress line counts a frame done (it starts at 0), Ctrl-C.
  const std::regex done("[1-9][0-9]* frames ");
  for (int i = 0; i < 3000 && !std::regex_search(err(), done); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(child, SIGINT);
  int status = 0;
  ASSERT_TRUE(waitFor(child, &status));
  ASSERT_TRUE(WIFEXITED(status)) << err();
  EXPECT_EQ(WEXITSTATUS(status), 130) << err();
  std::smatch match;
  const std::string text = err();
  ASSERT_TRUE(std::regex_search(text, match, std::regex("interrupted \\(SIGINT\\): wrote out.mp4 with the first "
                                                        "([0-9]+) frames")))
      << text;
  const int frames = std::stoi(match[1]);
  EXPECT_GT(frames, 0);
  EXPECT_LT(frames, 600);
  EXPECT_EQ(packets("out.mp4", "v"), frames);
  // Decodes to the end; FFmpeg may leave out a last frame cut from its B-frames by the stop.
  EXPECT_GE(hashes("out.mp4", "v", true).size() + 1, static_cast<size_t>(frames));
  EXPECT_GT(packets("out.mp4", "a"), 0);
  expectOnly({"long.mp4", "out.mp4"});
}

}  // namespace
