// Fuzz target: lumo-beautify's image decoding (PNG and JPEG through libpng and libjpeg-turbo).
#include <cstddef>
#include <cstdint>
#include <string>

#include "ImageIO.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lumo::tools::Image image;
  std::string error;
  if (lumo::tools::decodeImage(data, size, &image, &error)) {
    // A decoded image is whole: its pixels are all there.
    if (image.width <= 0 || image.height <= 0 ||
        image.bgra.size() != static_cast<size_t>(image.width) * static_cast<size_t>(image.height) * 4) {
      __builtin_trap();
    }
  } else if (error.empty()) {
    __builtin_trap();  // every failure says why
  }
  return 0;
}
