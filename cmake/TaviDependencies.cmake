# What the system stands on. docs/dependencies.md gives the reason for each.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(GStreamer REQUIRED IMPORTED_TARGET gstreamer-1.0>=1.22 gstreamer-base-1.0 gstreamer-app-1.0 gstreamer-audio-1.0 gstreamer-video-1.0)
pkg_check_modules(Crypto REQUIRED IMPORTED_TARGET libcrypto>=3.0)
pkg_check_modules(Systemd REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(FFmpeg REQUIRED IMPORTED_TARGET libavformat libavcodec libavutil)
pkg_check_modules(TurboJpeg REQUIRED IMPORTED_TARGET libturbojpeg)
pkg_check_modules(Uuid REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(Alsa REQUIRED IMPORTED_TARGET alsa)
find_package(spdlog REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)

# Of the programs beside the recorder.
if(TAVI_BUILD_FLEET)
  pkg_check_modules(RtspServer REQUIRED IMPORTED_TARGET gstreamer-rtsp-server-1.0>=1.22 gstreamer-rtsp-1.0 gstreamer-app-1.0 gio-2.0)
  pkg_check_modules(Http REQUIRED IMPORTED_TARGET libmicrohttpd>=0.9.75)
  pkg_check_modules(Archive REQUIRED IMPORTED_TARGET libarchive)
  pkg_check_modules(Mosquitto REQUIRED IMPORTED_TARGET libmosquitto)
endif()

# libyuv ships no pkg-config file in Debian 12.
find_path(LIBYUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(LIBYUV_LIBRARY yuv REQUIRED)
add_library(Libyuv INTERFACE)
target_include_directories(Libyuv SYSTEM INTERFACE ${LIBYUV_INCLUDE_DIR})
target_link_libraries(Libyuv INTERFACE ${LIBYUV_LIBRARY})
