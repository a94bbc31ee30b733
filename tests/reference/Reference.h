#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// A plain C++ model of every pass: float arithmetic in the order the shader texts write it, sampling at
// texel centres with bilinear filtering and clamp to edge, and 8-bit rounding of each target.
namespace lumo::reference {

struct Rgba {
  float r = 0, g = 0, b = 0, a = 0;
};

struct Frame {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> bgra;  // packed, width * 4 bytes a row

  Frame() = default;
  Frame(int w, int h) : width(w), height(h), bgra(static_cast<size_t>(w) * h * 4, 0) {}
  Rgba texel(int x, int y) const;  // clamped to the edge
  void set(int x, int y, const Rgba& colour);
  // Linear sampling at a normalised coordinate, as GL_LINEAR with GL_CLAMP_TO_EDGE.
  Rgba sample(float s, float t) const;
  uint8_t* at(int x, int y) { return &bgra[(static_cast<size_t>(y) * width + x) * 4]; }
  const uint8_t* at(int x, int y) const { return &bgra[(static_cast<size_t>(y) * width + x) * 4]; }
};

uint8_t quantize(float value);

Frame passThrough(const Frame& in);
Frame skinDetect(const Frame& in);
Frame alphaBlend(const Frame& first, const Frame& second, float alpha);
Frame overlay(const Frame& first, const Frame& second, float srcDirection, float multifyVal, float overlayVal);
Frame bilateral(const Frame& first, const Frame& second, float step, float factor, int pass);
Frame gaussian(const Frame& in, unsigned radius, double sigma, float stepOffset, int pass);
Frame sharpen(const Frame& in, float sharpness);
Frame whiten(const Frame& in, float factor);
Frame pinkWhiten(const Frame& in, float factor);
Frame colorMatrix(const Frame& in, int preset);  // preset 1..13

// Weights and pair offsets of the optimized blur, as the generator computes them.
std::vector<float> gaussianWeights(unsigned radius, double sigma);
float whitenCurve(float gray);  // the luma curve on the 0..255 scale, before the clamp
int pinkCurveLevel(int level);  // 0..255 -> 0..255

struct Settings {
  int mask = 0;
  int preset = 0;
  float polishStep = 3.0f;
  float polishFactor = 4.0f;
  float whiten = 0.5f;
  float sharpen = 0.0f;
  float skinWhiten = 0.5f;
};

// The whole frame: the pass graph for a mask and preset. Returns the input when no pass runs.
Frame passGraph(const Frame& input, const Settings& settings);

}  // namespace lumo::reference
