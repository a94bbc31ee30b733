#include "YuvCoefficients.h"

namespace lumo {

YuvCoefficients yuvCoefficients(const YuvColorimetry& colorimetry) {
  YuvCoefficients c{};
  if (colorimetry.matrix == YuvMatrix::Bt709) {
    c.kr = 0.2126f;
    c.kb = 0.0722f;
  } else {
    c.kr = 0.299f;
    c.kb = 0.114f;
  }
  c.kg = 1.0f - c.kr - c.kb;
  const bool limited = colorimetry.range != YuvRange::Full;
  c.yOffset = limited ? 16.0f : 0.0f;
  c.yScale = limited ? 219.0f / 255.0f : 1.0f;
  c.cScale = limited ? 224.0f / 255.0f : 1.0f;
  return c;
}

YuvCoefficients::Rows YuvCoefficients::rgbFromYuv() const {
  // luma = (Y - yOffset) / yScale, Pb = (Cb - 128) / cScale, R = luma + 2 (1 - kr) Pr, B = luma + 2 (1 - kb) Pb,
  // G = (luma - kr R - kb B) / kg.
  const float fromY = 1.0f / yScale;
  const float fromC = 1.0f / cScale;
  const float yOff = yOffset / 255.0f;
  const float cOff = 128.0f / 255.0f;
  const float rPr = 2.0f * (1.0f - kr) * fromC;
  const float bPb = 2.0f * (1.0f - kb) * fromC;
  const float gPb = -kb * bPb / kg;
  const float gPr = -kr * rPr / kg;
  return Rows{{
      {fromY, 0.0f, rPr, -fromY * yOff - rPr * cOff},
      {fromY, gPb, gPr, -fromY * yOff - (gPb + gPr) * cOff},
      {fromY, bPb, 0.0f, -fromY * yOff - bPb * cOff},
  }};
}

YuvCoefficients::Rows YuvCoefficients::yuvFromRgb() const {
  const float yOff = yOffset / 255.0f;
  const float cOff = 128.0f / 255.0f;
  const float toU = cScale / (2.0f * (1.0f - kb));
  const float toV = cScale / (2.0f * (1.0f - kr));
  return Rows{{
      {yScale * kr, yScale * kg, yScale * kb, yOff},
      {-toU * kr, -toU * kg, toU * (1.0f - kb), cOff},
      {toV * (1.0f - kr), -toV * kg, -toV * kb, cOff},
  }};
}

}  // namespace lumo
