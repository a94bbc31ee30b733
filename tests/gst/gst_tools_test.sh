#!/usr/bin/env bash
# The uninstalled plugin through GST_PLUGIN_PATH, as docs/gstreamer.md shows it: gst-inspect lists the
# element and its properties, and gst-launch runs a test pattern through it into a file, in each format a
# camera or decoder gives, as a virtual camera's pipeline would (a file in place of the v4l2loopback device).
# Usage: gst_tools_test.sh PLUGIN_DIR WORKDIR TOOL
set -euo pipefail
plugin_dir=$1 work=$2 tool=$3
rm -rf "$work" && mkdir -p "$work"
export GST_PLUGIN_PATH=$plugin_dir
export GST_REGISTRY_1_0=$work/registry.bin
fail() { echo "gst_tools_test: $*" >&2; exit 1; }
# A crash ends the run (no fault handler waiting for a debugger), and a hang ends it within a minute.
launch() { timeout -k 5 60 gst-launch-1.0 --no-fault -q "$@" || fail "gst-launch-1.0 $* exited with $?"; }

inspect=$(timeout -k 5 60 gst-inspect-1.0 lumobeautify)
for property in mask preset polish-step polish-factor whiten sharpen skin-whiten; do
  grep -q "^  $property  *:" <<<"$inspect" || fail "gst-inspect does not list the property $property"
done
for nick in polish whiten skin-whiten sharpen; do
  grep -q "): $nick " <<<"$inspect" || fail "gst-inspect does not list the mask flag $nick"
done

frames=60 width=640 height=480
# Each format straight from the source into the element and out, with no conversion element.
for format in BGRA NV12 I420 RGBx YUY2 UYVY Y42B BGR RGB; do
  case $format in
    NV12 | I420) bytes=$((width * height * 3 / 2)) ;;
    YUY2 | UYVY | Y42B) bytes=$((width * height * 2)) ;;
    BGR | RGB) bytes=$((width * height * 3)) ;;
    *) bytes=$((width * height * 4)) ;;
  esac
  launch videotestsrc num-buffers=$frames \
    ! video/x-raw,format=$format,width=$width,height=$height ! lumobeautify mask=polish+whiten \
    ! video/x-raw,format=$format ! filesink location="$work/out.$format"
  launch videotestsrc num-buffers=$frames \
    ! video/x-raw,format=$format,width=$width,height=$height ! filesink location="$work/in.$format"
  size=$(stat -c %s "$work/out.$format")
  [ "$size" -eq $((frames * bytes)) ] || fail "out.$format holds $size bytes, not $frames frames"
  cmp -s "$work/in.$format" "$work/out.$format" && fail "lumobeautify passed the $format frames through unchanged"
done

# A webcam's YUY2 through the element is the library's picture: the tool draws the same raw frames the same
# way (both on the CPU engine; videotestsrc's caps say BT.601 limited, as the tool assumes at 480 rows).
launch videotestsrc num-buffers=10 ! video/x-raw,format=YUY2,width=$width,height=$height \
  ! lumobeautify engine=cpu mask=polish+whiten ! video/x-raw,format=YUY2 ! filesink location="$work/element.yuy2"
head -c $((10 * width * height * 2)) "$work/in.YUY2" >"$work/in10.yuy2"
timeout -k 5 60 "$tool" --raw ${width}x$height --format yuy2 --engine cpu --mask polish,whiten \
  - -o - <"$work/in10.yuy2" >"$work/tool.yuy2" || fail "lumo-beautify --raw --format yuy2 exited with $?"
cmp -s "$work/element.yuy2" "$work/tool.yuy2" || fail "the element's YUY2 frames differ from the library's"

# An MJPEG camera's frames: FFmpeg's decoder keeps their 4:2:2 planes (Y42B), beautified as they are.
# (GStreamer 1.22's jpegdec gives I420 instead, which the element takes as well.)
launch videotestsrc num-buffers=10 ! video/x-raw,format=Y42B,width=$width,height=$height ! jpegenc \
  ! jpegparse ! avdec_mjpeg ! video/x-raw,format=Y42B ! lumobeautify ! video/x-raw,format=Y42B \
  ! filesink location="$work/mjpeg.y42b"
size=$(stat -c %s "$work/mjpeg.y42b")
[ "$size" -eq $((10 * width * height * 2)) ] || fail "mjpeg.y42b holds $size bytes, not 10 frames"
echo "gst_tools_test: gst-inspect lists the properties; $frames frames of ${width}x${height} in BGRA, NV12, I420, RGBx," \
  "YUY2, UYVY, Y42B, BGR and RGB through gst-launch; YUY2 equal to the tool's; MJPEG decoded to Y42B"
rm -f "$work"/in.* "$work"/out.* "$work"/*.yuy2 "$work"/*.y42b  # a gigabyte of frames, once they are checked
