#pragma once

#include <lumo/lumo.h>

#include <GLES2/gl2.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lumo::bench {

// The facade's pass graph drawn by the shortest loop GL allows: the library's programs (the same shader
// texts), each pass with its own program instance so that every uniform is set once at set-up, fixed
// framebuffers per target, sampling state set once, and per frame only binds and draws. No facade, no
// texture cache, no context guard: what the facade adds is measured against this.
class BareChain {
 public:
  BareChain(int width, int height, int mask, int preset);
  ~BareChain();
  BareChain(const BareChain&) = delete;
  BareChain& operator=(const BareChain&) = delete;

  bool ok() const { return context_ != nullptr; }
  void makeCurrent() const { context_->makeCurrent(); }
  void upload(const uint8_t* bgra);  // the host's frame into the input texture
  void draw();                       // every pass, then glFinish
  void read(uint8_t* bgra);          // the last target back into host memory
  size_t passCount() const { return passes_.size(); }
  const std::string& passName(size_t index) const { return passes_[index].name; }
  void drawPass(size_t index);  // one pass alone, then glFinish: the per-pass profile

 private:
  struct Pass {
    std::string name;
    std::unique_ptr<VideoProcessFilter> filter;
    int which;
    int first;
    int second;  // -1: none
    int target;
  };
  void add(std::string name, std::unique_ptr<VideoProcessFilter> filter, int which, int first, int second, int target);
  void bindAndDraw(const Pass& pass);

  int width_;
  int height_;
  std::shared_ptr<GLContext> context_;
  GlTexture textures_[3];          // input, then the two ping-pong targets
  GlFramebuffer framebuffers_[3];  // one per target, attached once
  std::vector<Pass> passes_;
  int last_ = 0;
};

}  // namespace lumo::bench
