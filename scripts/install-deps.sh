#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tools and the tests need, when they are missing.
set -euo pipefail
packages=(
  build-essential cmake pkg-config
  libegl-dev libgles-dev libegl-mesa0 libgl1-mesa-dri   # EGL + GLES headers, Mesa's llvmpipe
  libhwy-dev                                            # SIMD for the CPU engine
  libpng-dev libjpeg62-turbo-dev                        # lumo-beautify's codecs
  googletest libgtest-dev                               # tests
  ffmpeg gstreamer1.0-tools                             # the pipe tests
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev  # the lumobeautify element
  # lumo-beautify's video files: decoders (avdec_*: H.264, H.265, AAC...; openh264dec), parsers (h264parse,
  # h265parse), x265enc and voaacenc in -bad, x264enc in -ugly, avenc_aac in -libav; vp9enc and the MP4,
  # MOV, Matroska and WebM muxers in -good, opusenc, parsebin and decodebin in -base.
  gstreamer1.0-libav gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly
  libbenchmark-dev libopencv-core-dev libopencv-imgproc-dev  # lumo-bench and its CPU baseline
  libopencv-objdetect-dev opencv-data                   # lumo_faces: the faces-only option
  pybind11-dev python3-dev python3-numpy                # the Python package lumo
  python3-opencv python3-distributed python3-pytest     # lumo.batch and the Python tests
  clang libclang-rt-14-dev                              # libFuzzer for scripts/fuzz.sh
  libobs-dev libx11-dev xvfb xauth                      # the OBS module, and libobs headless in its tests
  dpkg-dev file                                         # CPack's .deb: dpkg-shlibdeps
)
missing=()
for package in "${packages[@]}"; do
  [[ $(dpkg-query -W -f='${Status}' "$package" 2>/dev/null) == *"install ok installed"* ]] || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
