#!/usr/bin/env bash
# lumo-beautify inside real FFmpeg and GStreamer pipes, as docs/tool.md shows them.
# Usage: pipe_test.sh ffmpeg|gstreamer[-FORMAT] TOOL SAMPLE WORKDIR   (FORMAT: bgra, the default, nv12 or i420)
set -euo pipefail
leg=$1 tool=$2 sample=$3 work=$4
width=640 height=360 frames=60
format=bgra
case $leg in *-*) format=${leg#*-} leg=${leg%%-*} ;; esac
case $format in
  bgra) frame_bytes=$((width * height * 4)) ffmpeg_format=bgra gst_format=BGRA ;;
  nv12) frame_bytes=$((width * height * 3 / 2)) ffmpeg_format=nv12 gst_format=NV12 ;;
  i420) frame_bytes=$((width * height * 3 / 2)) ffmpeg_format=yuv420p gst_format=I420 ;;
  *) echo "pipe_test: unknown format $format" >&2; exit 1 ;;
esac
rm -rf "$work" && mkdir -p "$work" && cd "$work"

fail() { echo "pipe_test($leg): $*" >&2; exit 1; }

# Number of frames of raw BGRA file $2 whose checksum differs from the same frame of $1.
changed_frames() {
  local md5=()
  for file in "$1" "$2"; do
    ffmpeg -v error -f rawvideo -pix_fmt $ffmpeg_format -s ${width}x${height} -i "$file" -f framemd5 - \
      | grep -v '^#' | awk -F, '{ print $NF }' > "$file.md5"
  done
  paste -d' ' "$1.md5" "$2.md5" | awk '$1 != $2' | wc -l
}

check_raw() {  # input.bgra output.bgra
  local size
  size=$(stat -c %s "$2")
  [ "$size" -eq $((frames * frame_bytes)) ] || fail "$2 holds $size bytes, not $frames frames"
  local changed
  changed=$(changed_frames "$1" "$2")
  [ "$changed" -eq "$frames" ] || fail "only $changed of $frames frames changed"
}

case $leg in
  ffmpeg)
    # A moving portrait over a test pattern, so that skin, edges and motion are all in the clip.
    ffmpeg -v error -y -f lavfi -i "testsrc2=s=${width}x${height}:r=30" -i "$sample" \
      -filter_complex "[1:v]scale=300:300[p];[0:v][p]overlay=x='mod(n*5,340)':y=30" \
      -frames:v $frames -c:v libx264 -pix_fmt yuv420p in.mp4
    # The docs/tool.md recipe, with tees to see what went in and came out of the tool.
    ffmpeg -v error -i in.mp4 -f rawvideo -pix_fmt $ffmpeg_format - | tee in.raw \
      | "$tool" --raw ${width}x${height} --format $format - -o - | tee out.raw \
      | ffmpeg -v error -y -f rawvideo -pix_fmt $ffmpeg_format -s ${width}x${height} -r 30 -i - out.mp4
    count=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames \
      -of csv=p=0 out.mp4)
    [ "$count" -eq $frames ] || fail "out.mp4 has $count frames, not $frames"
    check_raw in.raw out.raw
    ;;
  gstreamer)
    caps="video/x-raw,format=$gst_format,width=${width},height=${height},framerate=30/1"
    gst-launch-1.0 -q videotestsrc num-buffers=$frames pattern=smpte ! "$caps" ! fdsink fd=1 | tee in.raw \
      | "$tool" --raw ${width}x${height} --format $format - -o - \
      | gst-launch-1.0 -q fdsrc fd=0 ! rawvideoparse format=$format width=$width height=$height framerate=30/1 \
        ! filesink location=out.raw
    check_raw in.raw out.raw
    ;;
  *) fail "unknown leg" ;;
esac
echo "pipe_test($leg): $frames $format frames of ${width}x${height} through the pipe, all changed"
