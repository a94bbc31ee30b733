#!/usr/bin/env bash
# The element on a webcam's YUY2 at 1280 x 720: straight in and out, against the videoconvert detour through
# BGRA and back that a filter without YUY2 would need, in the same run. Prints frames per second of each.
# Usage: bench/element_formats.sh PLUGIN_DIR [FRAMES] [ENGINE]
set -euo pipefail
plugin_dir=$1 frames=${2:-300} engine=${3:-cpu}
export GST_PLUGIN_PATH=$plugin_dir
caps="video/x-raw,format=YUY2,width=1280,height=720,framerate=30/1"
# The source's pattern is made once and pushed again, so the source costs next to nothing.
source="videotestsrc num-buffers=$frames pattern=smpte ! $caps ! identity"
run() {
  local start end
  start=$(date +%s.%N)
  gst-launch-1.0 -q $source ! "$@" ! fakesink sync=false
  end=$(date +%s.%N)
  awk -v f="$frames" -v a="$start" -v b="$end" 'BEGIN { print f / (b - a) }'
}
nothing=$(run identity)
direct=$(run lumobeautify engine=$engine ! "$caps")
detour=$(run videoconvert ! video/x-raw,format=BGRA ! lumobeautify engine=$engine ! videoconvert ! "$caps")
printf "source alone          %7.1f fps\n" "$nothing"
printf "YUY2 in and out       %7.1f fps\n" "$direct"
printf "videoconvert detour   %7.1f fps\n" "$detour"
