# `cpack` in a build tree makes lumoimagefilter_<version>_<arch>.deb: the library with its headers and
# CMake/pkg-config files, lumo-beautify, the GStreamer element, the Python package and the OBS module, in
# Debian's own paths. Those paths are the install rules' with the prefix /usr (the release preset's); the
# shared-library dependencies come from dpkg-shlibdeps.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(STATUS "cpack: the .deb wants -DCMAKE_INSTALL_PREFIX=/usr (Debian's paths); this tree installs to ${CMAKE_INSTALL_PREFIX}")
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lumoimagefilter)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Real-time beautify filters for live video: library, tool, GStreamer element, Python and OBS")
set(CPACK_PACKAGE_DESCRIPTION "Skin smoothing, whitening, sharpening and colour presets for live camera video, on OpenGL ES 2.0 or a CPU engine. Includes lumo-beautify, the lumobeautify GStreamer element, the Python package lumo and the \"Beautify (Lumo)\" filter for OBS Studio.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "LumoImageFilter developers <lumo-dev@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# What the libraries do not name: the Python package's interpreter and NumPy, and GStreamer's plugins that
# lumo-beautify's video files go through.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3, python3-numpy, gstreamer1.0-plugins-base, gstreamer1.0-plugins-good")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "opencv-data, gstreamer1.0-libav, gstreamer1.0-plugins-bad, gstreamer1.0-plugins-ugly")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "obs-studio, python3-distributed, v4l2loopback-dkms")
include(CPack)
