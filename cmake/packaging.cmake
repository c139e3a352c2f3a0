# Debian packages (cpack -G DEB), one per component, for the architecture the build targets:
#   libzqgfx-avs1      the shared library (the SONAME's major version in the name)
#   libzqgfx-avs-dev   the header, the linker name, pkg-config and CMake files
#   zqavs              the command-line tool
#   gstreamer1.0-zqavs the GStreamer element, in the multiarch gstreamer-1.0 plugin directory
# Configure with -DCMAKE_INSTALL_PREFIX=/usr so that libraries land in /usr/lib/<multiarch>.
set(ZQAVS_RUNTIME_PACKAGE libzqgfx-avs${PROJECT_VERSION_MAJOR})
set(CPACK_PACKAGE_NAME zqgfx-avs)
set(CPACK_PACKAGE_VENDOR "libzqgfx_avs")
set(CPACK_PACKAGE_CONTACT "libzqgfx_avs maintainers <maintainers@users.noreply.c-seed-a8596558.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "GPU panorama stitching of 1 to 10 NV12 cameras on EGL and OpenGL ES")
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET zqavs)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(TARGET gstzqavs)
  list(APPEND CPACK_COMPONENTS_ALL gst)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

# Dependencies on other packages come from the binaries (dpkg-shlibdeps; for a cross build, run
# cpack with DEB_HOST_ARCH set so that it reads the target's libraries). The library itself is not
# installed while packaging: it is found in the build tree, and named below with its exact version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(ZQAVS_RUNTIME_DEPENDS "${ZQAVS_RUNTIME_PACKAGE} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ZQAVS_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "GPU panorama stitching library\n The shared library: NV12 camera images remapped through calibration meshes and blended into one panorama on the GPU (EGL and OpenGL ES 3.1).")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzqgfx-avs-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The header includes none of them, but static linking through pkg-config (Requires.private) does.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${ZQAVS_RUNTIME_DEPENDS}, libegl-dev, libgles-dev, libdrm-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "GPU panorama stitching library - development files\n The header, pkg-config file and CMake package of libzqgfx_avs.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zqavs)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${ZQAVS_RUNTIME_DEPENDS}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "GPU panorama stitching library - command-line tool\n zqavs: generates test calibrations, calibrates rigs, stitches, checks calibration directories and benchmarks.")

set(CPACK_DEBIAN_GST_PACKAGE_NAME gstreamer1.0-zqavs)
set(CPACK_DEBIAN_GST_PACKAGE_SECTION video)
set(CPACK_DEBIAN_GST_PACKAGE_DEPENDS "${ZQAVS_RUNTIME_DEPENDS}")
set(CPACK_COMPONENT_GST_DESCRIPTION "GPU panorama stitching library - GStreamer element\n zqavsstitch: stitches the frames of its camera pads into one panorama.")

include(CPack)
