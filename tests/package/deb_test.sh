#!/usr/bin/env bash
# The .deb as a user gets it: cpack builds it from the build tree, dpkg -x unpacks it into a scratch root,
# and the tool, the element, the Python package and the OBS module run from there.
#   deb_test.sh BUILD_DIR WORK_DIR OBS_TEST_PROGRAM SAMPLE
set -euo pipefail
build=$1 work=$2 obs_tests=$3 sample=$4
rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work/root" "$work/user" "$work/out/_CPack_Packages"' EXIT

cpack --config "$build/CPackConfig.cmake" -B "$work/out" > "$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; exit 1; }
deb=$(ls "$work"/out/lumoimagefilter_*.deb)
echo "package: $(basename "$deb") ($(du -k "$deb" | cut -f1) KiB)"

fail() { echo "FAIL: $*" >&2; exit 1; }
depends=$(dpkg-deb --field "$deb" Depends)
echo "Depends: $depends"
# dpkg-shlibdeps named the libraries the binaries link.
for library in libobs0 libgstreamer1.0-0 libhwy1 libegl1 libopencv-objdetect; do
  [[ $depends == *"$library"* ]] || fail "Depends lacks $library"
done

dpkg -x "$deb" "$work/root"
root=$work/root
multiarch=$(gcc -print-multiarch)
libdir=$root/usr/lib/$multiarch
for path in "$libdir/liblumoimagefilter.so.1" "$root/usr/bin/lumo-beautify" "$libdir/gstreamer-1.0/libgstlumo.so" \
            "$libdir/obs-plugins/lumo-beautify.so" "$root/usr/share/obs/obs-plugins/lumo-beautify/locale/en-US.ini" \
            "$root/usr/lib/python3/dist-packages/lumo/__init__.py" "$root/usr/include/lumo/lumo.h" \
            "$libdir/pkgconfig/lumoimagefilter.pc" "$root/usr/share/lumoimagefilter/astronaut.png"; do
  [ -e "$path" ] || fail "the package lacks ${path#"$root"}"
done
# The per-user OBS layout is for `cmake --install --component obs-user` only.
[ ! -e "$root/usr/bin/64bit" ] || fail "the per-user OBS folders are in the package"
# Every binary finds the unpacked library, not the build tree's.
for binary in "$root/usr/bin/lumo-beautify" "$libdir/obs-plugins/lumo-beautify.so" "$libdir/gstreamer-1.0/libgstlumo.so" \
              "$root"/usr/lib/python3/dist-packages/lumo/_lumo*.so; do
  found=$(ldd "$binary" | sed -n 's/.*liblumoimagefilter.so.1 => \(.*\) (0x.*/\1/p')
  [ -n "$found" ] && [ "$(realpath "$found")" = "$(realpath "$libdir/liblumoimagefilter.so.1")" ] ||
    fail "${binary#"$root"} finds ${found:-no library}, not the unpacked one"
done

# The tool, on the sample portrait.
"$root/usr/bin/lumo-beautify" "$sample" -o "$work/beautified.png" --engine cpu
[ -s "$work/beautified.png" ] || fail "lumo-beautify wrote nothing"

# The element, found in the unpacked plugin folder and run in a pipeline.
export GST_REGISTRY_1_0=$work/registry.bin GST_PLUGIN_PATH_1_0=$libdir/gstreamer-1.0
# Read whole first: grep -q leaving early would kill gst-inspect with SIGPIPE, which pipefail counts as failure.
inspected=$(gst-inspect-1.0 lumobeautify) || fail "gst-inspect does not find the element"
[[ $inspected == *"$libdir/gstreamer-1.0/libgstlumo.so"* ]] || fail "gst-inspect finds the element elsewhere"
gst-launch-1.0 -q videotestsrc num-buffers=3 ! video/x-raw,format=NV12,width=320,height=240 ! lumobeautify engine=cpu \
  ! fakesink

# The Python package.
PYTHONPATH=$root/usr/lib/python3/dist-packages /usr/bin/python3 - "$root" <<'PY'
import sys
import numpy as np
import lumo
assert lumo.__file__.startswith(sys.argv[1]), lumo.__file__
frame = np.full((64, 64, 4), 128, np.uint8)
out = lumo.Beautifier(engine="cpu").process(frame)
assert out.shape == frame.shape
PY

# The OBS module and its locale, loaded by libobs from the unpacked folders.
LUMO_OBS_MODULE=$libdir/obs-plugins/lumo-beautify.so \
LUMO_OBS_MODULE_DATA=$root/usr/share/obs/obs-plugins/lumo-beautify \
  xvfb-run -a "$obs_tests" --gtest_filter='ObsModule.*:ObsFilter.DrawsEveryFormatAsTheHostLayerDoes'

# One user's OBS plugin folder, from the build tree without root.
user=$work/user/lumo-beautify
cmake --install "$build" --component obs-user --prefix "$user" > /dev/null
found=$(ldd "$user/bin/64bit/lumo-beautify.so" | sed -n 's/.*liblumoimagefilter.so.1 => \(.*\) (0x.*/\1/p')
[ "$(realpath "$found")" = "$(realpath "$user/bin/64bit/liblumoimagefilter.so.1")" ] ||
  fail "the per-user module finds ${found:-no library}, not its own copy"
LUMO_OBS_MODULE=$user/bin/64bit/lumo-beautify.so LUMO_OBS_MODULE_DATA=$user/data \
  xvfb-run -a "$obs_tests" --gtest_filter='ObsModule.RegistersTheFilterWithItsNameAndTheLibrarysDefaults'
echo "the package installs and loads, and so does the per-user plugin folder"
