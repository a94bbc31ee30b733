#!/usr/bin/env bash
# The uninstalled plugin through GST_PLUGIN_PATH, as docs/gstreamer.md shows it: gst-inspect lists the
# element and its properties, and gst-launch runs a test pattern through it into a file.
# Usage: gst_tools_test.sh PLUGIN_DIR WORKDIR
set -euo pipefail
plugin_dir=$1 work=$2
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
for format in BGRA NV12 I420 RGBx; do
  case $format in NV12 | I420) bytes=$((width * height * 3 / 2)) ;; *) bytes=$((width * height * 4)) ;; esac
  launch videotestsrc num-buffers=$frames \
    ! video/x-raw,format=$format,width=$width,height=$height ! lumobeautify mask=polish+whiten \
    ! video/x-raw,format=$format ! filesink location="$work/out.$format"
  launch videotestsrc num-buffers=$frames \
    ! video/x-raw,format=$format,width=$width,height=$height ! filesink location="$work/in.$format"
  size=$(stat -c %s "$work/out.$format")
  [ "$size" -eq $((frames * bytes)) ] || fail "out.$format holds $size bytes, not $frames frames"
  cmp -s "$work/in.$format" "$work/out.$format" && fail "lumobeautify passed the $format frames through unchanged"
done
echo "gst_tools_test: gst-inspect lists the properties; $frames frames of ${width}x${height} in BGRA, NV12, I420 and RGBx through gst-launch"
