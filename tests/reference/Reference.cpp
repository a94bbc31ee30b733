#include "Reference.h"

#include <algorithm>
#include <cmath>

namespace lumo::reference {
namespace {

Rgba toRgba(const uint8_t* p) { return {p[2] / 255.0f, p[1] / 255.0f, p[0] / 255.0f, p[3] / 255.0f}; }

Rgba lerp(const Rgba& a, const Rgba& b, float t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t, a.a + (b.a - a.a) * t};
}

// Texture coordinate of the centre of pixel x in a row of n.
float centre(int x, int n) { return (static_cast<float>(x) + 0.5f) / static_cast<float>(n); }

template <typename Shader>
Frame perPixel(int width, int height, Shader shader) {
  Frame out(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) out.set(x, y, shader(centre(x, width), centre(y, height), x, y));
  }
  return out;
}

float overlayBlend(float c, float w) { return c < 0.5f ? 2.0f * c * w : 1.0f - 2.0f * (1.0f - c) * (1.0f - w); }

float mixf(float a, float b, float t) { return a * (1.0f - t) + b * t; }

}  // namespace

Rgba Frame::texel(int x, int y) const {
  x = std::clamp(x, 0, width - 1);
  y = std::clamp(y, 0, height - 1);
  return toRgba(at(x, y));
}

void Frame::set(int x, int y, const Rgba& c) {
  uint8_t* p = at(x, y);
  p[0] = quantize(c.b);
  p[1] = quantize(c.g);
  p[2] = quantize(c.r);
  p[3] = quantize(c.a);
}

Rgba Frame::sample(float s, float t) const {
  const float u = s * static_cast<float>(width) - 0.5f;
  const float v = t * static_cast<float>(height) - 0.5f;
  const float x0 = std::floor(u);
  const float y0 = std::floor(v);
  const float fx = u - x0;
  const float fy = v - y0;
  const int ix = static_cast<int>(x0);
  const int iy = static_cast<int>(y0);
  const Rgba top = lerp(texel(ix, iy), texel(ix + 1, iy), fx);
  const Rgba bottom = lerp(texel(ix, iy + 1), texel(ix + 1, iy + 1), fx);
  return lerp(top, bottom, fy);
}

uint8_t quantize(float value) {
  if (!(value > 0.0f)) return 0;
  if (value >= 1.0f) return 255;
  return static_cast<uint8_t>(std::lround(value * 255.0f));
}

Frame passThrough(const Frame& in) {
  return perPixel(in.width, in.height, [&](float s, float t, int, int) { return in.sample(s, t); });
}

Frame skinDetect(const Frame& in) {
  return perPixel(in.width, in.height, [&](float s, float t, int, int) {
    Rgba c = in.sample(s, t);
    if (!(c.r > 0.19608f && c.g > 0.15686f && c.b > 0.07843f)) c.a = 0.0f;
    return c;
  });
}

Frame alphaBlend(const Frame& first, const Frame& second, float alpha) {
  return perPixel(first.width, first.height, [&](float s, float t, int, int) {
    const Rgba a = first.sample(s, t);
    const Rgba b = second.sample(s, t);
    const float k = b.a * alpha;
    return Rgba{mixf(a.r, b.r, k), mixf(a.g, b.g, k), mixf(a.b, b.b, k), a.a};
  });
}

Frame overlay(const Frame& first, const Frame& second, float srcDirection, float multifyVal, float overlayVal) {
  return perPixel(first.width, first.height, [&](float s, float t, int, int) {
    const Rgba base = first.sample(s, t);
    const Rgba over = second.sample(s, t);
    return Rgba{base.r * srcDirection + over.r * multifyVal + overlayVal,
                base.g * srcDirection + over.g * multifyVal + overlayVal,
                base.b * srcDirection + over.b * multifyVal + overlayVal, over.a};
  });
}

Frame bilateral(const Frame& first, const Frame& second, float step, float factor, int pass) {
  static const float kWeights[9] = {0.05f, 0.09f, 0.12f, 0.15f, 0.18f, 0.15f, 0.12f, 0.09f, 0.05f};
  const float dx = pass == 2 ? 0.0f : step / static_cast<float>(first.width);
  const float dy = pass == 2 ? step / static_cast<float>(first.height) : 0.0f;
  return perPixel(first.width, first.height, [&](float s, float t, int, int) {
    const Rgba centreColour = first.sample(s, t);
    float total = 0.18f;
    Rgba sum{centreColour.r * 0.18f, centreColour.g * 0.18f, centreColour.b * 0.18f, centreColour.a * 0.18f};
    for (int i : {0, 1, 2, 3, 5, 6, 7, 8}) {
      const float m = static_cast<float>(i - 4);
      const Rgba c = second.sample(s + m * dx, t + m * dy);
      const float dr = centreColour.r - c.r, dg = centreColour.g - c.g, db = centreColour.b - c.b,
                  da = centreColour.a - c.a;
      const float d = std::min(std::sqrt(dr * dr + dg * dg + db * db + da * da) * factor, 1.0f);
      const float w = kWeights[i] * (1.0f - d);
      total += w;
      sum = {sum.r + c.r * w, sum.g + c.g * w, sum.b + c.b * w, sum.a + c.a * w};
    }
    return Rgba{sum.r / total, sum.g / total, sum.b / total, sum.a / total};
  });
}

std::vector<float> gaussianWeights(unsigned radius, double sigma) {
  std::vector<float> w(radius + 2, 0.0f);
  const double norm = 1.0 / std::sqrt(2.0 * M_PI * sigma * sigma);
  float sum = 0.0f;
  for (unsigned i = 0; i <= radius; ++i) {
    w[i] = static_cast<float>(std::exp(-static_cast<double>(i * i) / (2.0 * sigma * sigma)) * norm);
    sum = static_cast<float>(sum + (i == 0 ? static_cast<double>(w[i]) : 2.0 * static_cast<double>(w[i])));
  }
  for (unsigned i = 0; i <= radius; ++i) w[i] /= sum;
  return w;
}

Frame gaussian(const Frame& in, unsigned radius, double sigma, float stepOffset, int pass) {
  const std::vector<float> w = gaussianWeights(radius, sigma);
  // Taps as the optimized texts place them: the centre, then each pair at its weighted centre.
  std::vector<std::pair<float, float>> taps{{0.0f, w[0]}};
  for (unsigned k = 0; k < (radius + 1) / 2; ++k) {
    const unsigned a = 2 * k + 1, b = 2 * k + 2;
    const float offset = (a * w[a] + b * w[b]) / (w[a] + w[b]);
    taps.push_back({offset, w[a] + w[b]});
    taps.push_back({-offset, w[a] + w[b]});
  }
  const float dx = pass == 2 ? 0.0f : stepOffset / static_cast<float>(in.width);
  const float dy = pass == 2 ? stepOffset / static_cast<float>(in.height) : 0.0f;
  return perPixel(in.width, in.height, [&](float s, float t, int, int) {
    Rgba sum;
    for (const auto& [offset, weight] : taps) {
      const Rgba c = in.sample(s + offset * dx, t + offset * dy);
      sum = {sum.r + c.r * weight, sum.g + c.g * weight, sum.b + c.b * weight, sum.a + c.a * weight};
    }
    return sum;
  });
}

Frame sharpen(const Frame& in, float sharpness) {
  const float wf = static_cast<float>(1.0 / in.width);
  const float hf = static_cast<float>(1.0 / in.height);
  return perPixel(in.width, in.height, [&](float s, float t, int, int) {
    const Rgba c = in.sample(s, t), l = in.sample(s - wf, t), r = in.sample(s + wf, t), top = in.sample(s, t + hf),
               bottom = in.sample(s, t - hf);
    const float centreK = 1.0f + 4.0f * sharpness;
    auto channel = [&](float Rgba::*m) {
      return c.*m * centreK - (l.*m * sharpness + r.*m * sharpness + top.*m * sharpness + bottom.*m * sharpness);
    };
    return Rgba{channel(&Rgba::r), channel(&Rgba::g), channel(&Rgba::b), bottom.a};
  });
}

float whitenCurve(float gray) {
  return gray / (0.896865160897715f + 0.0032021590610318f * gray - 0.0442923728433528f * std::sqrt(gray));
}

Frame whiten(const Frame& in, float factor) {
  return perPixel(in.width, in.height, [&](float s, float t, int, int) {
    const Rgba src = in.sample(s, t);
    float y = src.r * 0.299f + src.g * 0.587f + src.b * 0.114f;
    const float cr = (src.r - y) * 0.713f + 0.5f;
    const float cb = (src.b - y) * 0.564f + 0.5f;
    float gray = whitenCurve(y * 255.0f);
    gray = gray < 256.0f ? gray : 255.0f;
    y = gray / 255.0f;
    const float rgb[3] = {y + 1.403f * (cr - 0.5f), y - 0.344f * (cb - 0.5f) - 0.714f * (cr - 0.5f),
                          y + 1.773f * (cb - 0.5f)};
    const float warm[3] = {0.0f, 0.78f, 0.92f};
    float out[3];
    for (int i = 0; i < 3; ++i) {
      const float balance = mixf(rgb[i], overlayBlend(rgb[i], factor), -0.4756f);
      out[i] = mixf(balance, overlayBlend(balance, warm[i]), 0.0f);
    }
    return Rgba{out[0], out[1], out[2], src.a};
  });
}

int pinkCurveLevel(int level) {
  const int b = level + static_cast<int>(static_cast<float>(level) * 0.18604648f + 0.5f);
  return std::min(b, 255);
}

Frame pinkWhiten(const Frame& in, float factor) {
  return perPixel(in.width, in.height, [&](float s, float t, int, int) {
    const Rgba c = in.sample(s, t);
    auto curve = [](float v) { return pinkCurveLevel(static_cast<int>(v * 255.0f)) / 255.0f; };
    const float gCurve = curve(c.g);
    return Rgba{mixf(c.r, curve(c.r), factor), mixf(c.g, gCurve, factor), mixf(c.b, gCurve, factor), c.a};
  });
}

Frame colorMatrix(const Frame& in, int preset) {
  static const float kRows[13][4][4] = {
      {{1.7f, 0.1f, 0.1f, 0}, {0, 1.7f, 0.1f, 0}, {0, 0.1f, 1.6f, 0}, {0, 0, 0, 1}},
      {{0.8f, 1.6f, 0.2f, 0}, {0.8f, 1.6f, 0.2f, 0}, {0.8f, 1.6f, 0.2f, 0}, {0, 0, 0, 1}},
      {{0.2f, 0.5f, 0.1f, 0}, {0.2f, 0.5f, 0.1f, 0}, {0.2f, 0.5f, 0.1f, 0}, {0, 0, 0, 1}},
      {{1.9f, -0.3f, -0.2f, 0}, {-0.2f, 1.7f, -0.1f, 0}, {-0.1f, -0.6f, 2.0f, 0}, {0, 0, 0, 1}},
      {{4.8f, -1.0f, -0.1f, 0}, {-0.5f, 4.4f, -0.1f, 0}, {-0.5f, -1.0f, 5.2f, 0}, {0, 0, 0, 1}},
      {{0.6f, 0.3f, 0.1f, 0}, {0.2f, 0.7f, 0.1f, 0}, {0.2f, 0.3f, 0.4f, 0}, {0, 0, 0, 1}},
      {{1.2f, 0, 0, 0}, {0, 0.9f, 0, 0}, {0, 0, 0.8f, 0}, {0, 0, 0, 1}},
      {{0.9f, 0, 0, 0}, {0, 1.1f, 0, 0}, {0, 0, 0.9f, 0}, {0, 0, 0, 1}},
      {{0.9f, 0, 0, 0}, {0, 0.9f, 0, 0}, {0, 0, 0.9f, 0}, {0, 0, 0, 1}},
      {{0.9f, 0, 0, 0}, {0, 0.9f, 0, 0}, {0, 0, 0.9f, 0}, {0, 0, 0, 1}},
      {{2.1f, -1.4f, 0.6f, 0}, {-0.3f, 2.0f, -0.3f, 0}, {-1.1f, -0.2f, 2.6f, 0}, {0, 0, 0, 1}},
      {{0.8f, 0.3f, 0.1f, 0}, {0.1f, 0.9f, 0, 0}, {0.1f, 0.3f, 0.7f, 0}, {0, 0, 0, 1}},
      {{1.0f, 0, 0, 0}, {0, 1.1f, 0, 0}, {0, 0, 1.0f, 0}, {0, 0, 0, 1}},
  };
  static const float kOffsets[13] = {-73.1f, -163.9f, 40.8f, -87.0f, -388.4f, 73.3f, 0.0f,
                                     0.0f,   63.0f,   64.9f, -31.0f, 46.5f,   -66.6f};
  const auto& m = kRows[preset - 1];
  const float offset = kOffsets[preset - 1];
  return perPixel(in.width, in.height, [&](float s, float t, int, int) {
    const Rgba c = in.sample(s, t);
    const float v[4] = {c.r * 255.0f, c.g * 255.0f, c.b * 255.0f, c.a * 255.0f};
    float out[4];
    for (int k = 0; k < 4; ++k) {
      out[k] = v[0] * m[k][0] + v[1] * m[k][1] + v[2] * m[k][2] + v[3] * m[k][3] + (k < 3 ? offset : 0.0f);
      out[k] = std::clamp(out[k], 0.0f, 255.0f) / 255.0f;
    }
    return Rgba{out[0], out[1], out[2], out[3]};
  });
}

Frame passGraph(const Frame& input, const Settings& settings) {
  const int mask = settings.mask;
  Frame current = input;
  if (mask > 0) {
    if ((mask & 5) != 0) {
      Frame skin = skinDetect(input);
      if ((mask & 1) != 0) {
        skin = bilateral(skin, skin, settings.polishStep, settings.polishFactor, 1);
        skin = bilateral(skin, skin, settings.polishStep, settings.polishFactor, 2);
      }
      if ((mask & 8) == 0) {
        Frame layer = overlay(input, skin, -1.0f, 1.0f, 128.0f / 255.0f);
        layer = gaussian(layer, 1, 2.0, 1.0f, 1);
        layer = gaussian(layer, 1, 2.0, 1.0f, 2);
        skin = overlay(input, layer, 1.0f, 2.0f, -256.0f / 255.0f);
      }
      if ((mask & 4) != 0) skin = pinkWhiten(skin, settings.skinWhiten);
      current = alphaBlend(input, skin, (mask & 8) != 0 ? 0.5f : 0.35f);
    }
    if ((mask & 2) != 0) current = whiten(current, settings.whiten);
    if ((mask & 8) != 0) current = sharpen(current, settings.sharpen);
  }
  if (settings.preset >= 1 && settings.preset <= 13) current = colorMatrix(current, settings.preset);
  return current;
}

}  // namespace lumo::reference
