# Whether the parts built on GStreamer can be built here: the plugin
# (plugins/gstreamer) and the tool's RTSP server (avpool serve). Sets
# AVPOOL_GST_SKIP_REASON (empty when they can) and, where GStreamer's
# development files are found, the imported target PkgConfig::GST; where
# gst-rtsp-server's are found too, PkgConfig::GST_RTSP_SERVER.
# The library itself never depends on GStreamer.

set(AVPOOL_GST_MODULES gstreamer-1.0>=1.18 gstreamer-base-1.0)
set(AVPOOL_GST_SKIP_REASON "")
if(NOT AVPOOL_BUILD_GSTREAMER)
  set(AVPOOL_GST_SKIP_REASON "AVPOOL_BUILD_GSTREAMER is OFF")
elseif(AVPOOL_SANITIZE)
  # GLib's type system, the plugin registry and the plugin scanner keep
  # allocations for the life of the process that LeakSanitizer reports as
  # leaks, and the scanner runs as an uninstrumented helper; the plugin's own
  # code is the pool readers and writers, which the library's suites cover.
  set(AVPOOL_GST_SKIP_REASON "not built with the sanitizers")
elseif(CMAKE_CROSSCOMPILING AND NOT DEFINED ENV{PKG_CONFIG_LIBDIR})
  # pkg-config would answer with the build machine's GStreamer.
  set(AVPOOL_GST_SKIP_REASON "a cross build needs PKG_CONFIG_LIBDIR set to the target's pkg-config directory")
else()
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_check_modules(GST IMPORTED_TARGET ${AVPOOL_GST_MODULES})
  endif()
  if(NOT GST_FOUND)
    set(AVPOOL_GST_SKIP_REASON "GStreamer development files (${AVPOOL_GST_MODULES}) not found")
  else()
    pkg_check_modules(GST_RTSP_SERVER QUIET IMPORTED_TARGET gstreamer-rtsp-server-1.0 gstreamer-rtsp-1.0 gio-2.0)
  endif()
endif()

# Where the plugin is installed, relative to the prefix: where gst-inspect-1.0
# looks by default when the prefix is the system's
# (/usr/lib/<multiarch>/gstreamer-1.0); elsewhere name it in GST_PLUGIN_PATH.
set(AVPOOL_GST_PLUGIN_DIR ${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0 CACHE STRING
  "Where the GStreamer plugin is installed, relative to the prefix")
