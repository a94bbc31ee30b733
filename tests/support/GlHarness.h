#pragma once

#include <lumo/lumo.h>

#include "GlHandle.h"
#include "GlObjects.h"
#include "PixelRows.h"

#include <memory>
#include <string>

#include "reference/Reference.h"

namespace lumo::test {

// Loads the bundled portrait (512 x 512, opaque).
reference::Frame loadSample();

// A frame filled by a function of (x, y).
template <typename Fill>
reference::Frame pattern(int width, int height, Fill fill) {
  reference::Frame frame(width, height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) frame.set(x, y, fill(x, y));
  return frame;
}

// A copy of the frame's pixels in a new pixel buffer (tight stride).
PixelBufferRef toBuffer(const reference::Frame& frame, bool gpuShareable = false);
reference::Frame fromBuffer(const PixelBufferRef& buffer);

// Largest per-channel difference and the share of channel values more than `step` apart.
struct Difference {
  int maxColour = 0;
  int maxAlpha = 0;
  double shareAbove = 0.0;  // colour channels differing by more than `step`
};
Difference compare(const reference::Frame& a, const reference::Frame& b, int step = 1);

// Draws filter passes the way the facade does, in its own context: the test's texture units, sampling
// parameters and framebuffer match the facade's draw sequence.
class GlHarness {
 public:
  GlHarness();
  ~GlHarness();
  bool ok() const { return context_ != nullptr; }
  // One pass: first input on unit 0, optional second on unit 2, into a new target of the first's size.
  reference::Frame draw(VideoProcessFilter& filter, const reference::Frame& first,
                        const reference::Frame* second = nullptr, int pass = 1);
  GLContext& context() { return *context_; }
  // Runs `work` with the harness's context current.
  template <typename Work>
  void with(Work work) {
    ContextGuard guard(context_.get());
    work();
  }

 private:
  std::shared_ptr<GLContext> context_;
  std::shared_ptr<TextureCache> cache_;
  GlFramebuffer framebuffer_;
};

// Asserts glGetError() is clean in the current context.
void expectNoGlError();

}  // namespace lumo::test
