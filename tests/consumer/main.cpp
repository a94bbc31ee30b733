// A downstream program: includes the umbrella header, links the installed library, beautifies a frame.
#include <lumo/lumo.h>

#include <cstdio>
#include <cstring>
#include <vector>

int main() {
  std::vector<unsigned char> pixels(64 * 48 * 4);
  for (size_t i = 0; i < pixels.size(); i += 4) {
    pixels[i] = 90;       // B
    pixels[i + 1] = 120;  // G
    pixels[i + 2] = 200;  // R
    pixels[i + 3] = 255;
  }
  lumo::PixelBufferRef frame;
  if (lumo::PixelBuffer::createWithBytes(64, 48, lumo::kPixelFormat32BGRA, pixels.data(), 64 * 4, nullptr, {},
                                         &frame) != lumo::kPixelBufferSuccess) {
    return 1;
  }
  lumo::LumoImageFilter filter;
  filter.enableBeautifying(lumo::BeautifyPolish | lumo::BeautifyWhiten | lumo::BeautifySkinWhiten);
  filter.create();
  lumo::PixelBufferRef result = filter.render(frame);
  if (!result || result == frame) return 2;
  result->lockBaseAddress(lumo::kPixelBufferLockReadOnly);
  const bool changed = std::memcmp(result->baseAddress(), pixels.data(), 4) != 0;
  result->unlockBaseAddress(lumo::kPixelBufferLockReadOnly);
  filter.destroy();
  std::printf("consumer: %s, version %.1f\n", changed ? "beautified" : "unchanged", LumoImageFilterVersionNumber);
  return changed ? 0 : 3;
}
