# Debian packages of the install components, made with `cpack` in a build tree:
#
#   libavpool0            the shared library
#   libavpool-dev         headers, the static library, the CMake package and avpool.pc
#   avpool-tools          the avpool command-line tool
#   gstreamer1.0-avpool   the GStreamer plugin (where it was built)
#
# The layout follows the install prefix given at configure time: for packages,
# configure with -DCMAKE_INSTALL_PREFIX=/usr, so that the library directory is
# Debian's multiarch one and gst-inspect-1.0 finds the plugin where it looks.
# A cross build (cmake/toolchains/armhf.cmake) makes packages for its target.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME avpool)
set(CPACK_PACKAGE_VENDOR avpool)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Media pools in System V shared memory")
set(CPACK_PACKAGE_CONTACT "avpool developers <avpool@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

# The packages' architecture is the target's, also when cross-building.
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

set(CPACK_COMPONENTS_ALL library development tools)
if(TARGET gstavpool)
  list(APPEND CPACK_COMPONENTS_ALL gstreamer)
endif()

# The dependencies are named here rather than found with dpkg-shlibdeps, which
# cannot look into a cross build's target libraries.
set(avpool_runtime_depends "libc6, libgcc-s1, libstdc++6")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libavpool0)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "Media pools in System V shared memory: the shared library
 Ring buffers of JPEG pictures, GOP-organised video, audio fragments and
 analysis records in System V shared memory, written by one encoder process
 and read in place by any number of others.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "${avpool_runtime_depends}")
# shlibs and the ldconfig trigger
set(CPACK_DEBIAN_LIBRARY_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libavpool-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Media pools in System V shared memory: development files
 Headers, the static library, the CMake package (find_package(avpool)) and
 the pkg-config file.")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME avpool-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Media pools in System V shared memory: the avpool tool
 Lists, inspects, feeds and reads the pools and the information area; a demo
 of a producer and its consumers.")
set(CPACK_COMPONENT_TOOLS_DEPENDS library)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${avpool_runtime_depends}")
if(AVPOOL_SERVE_BUILT)
  # avpool serve links gst-rtsp-server and reads the pools through the plugin;
  # its pipelines payload with elements of plugins-good and parse H.264 with
  # plugins-bad.
  string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    ", libglib2.0-0, libgstreamer1.0-0 (>= 1.18), libgstrtspserver-1.0-0, libgstreamer-plugins-base1.0-0")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "gstreamer1.0-avpool, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad")
endif()

set(CPACK_DEBIAN_GSTREAMER_PACKAGE_NAME gstreamer1.0-avpool)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SECTION video)
set(CPACK_COMPONENT_GSTREAMER_DESCRIPTION "Media pools in System V shared memory: GStreamer elements
 avpoolsrc reads a pool as a live source, avpoolsink writes one.")
set(CPACK_COMPONENT_GSTREAMER_DEPENDS library)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_DEPENDS "${avpool_runtime_depends}, libglib2.0-0, libgstreamer1.0-0 (>= 1.18)")

include(CPack)
