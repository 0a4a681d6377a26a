# What a machine gets: programs, library, plug-ins, headers, and what other projects find the library by.
include(CMakePackageConfigHelpers)

set(taviLibraries Tavi Kbase Kdevice Ksystem KMedia)
install(TARGETS ${taviLibraries} EXPORT TaviTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
set(taviPrograms tavi-recorder tavi-ctl tavi-report tavi-export tavi-verify)
if(TAVI_BUILD_FLEET)
  list(APPEND taviPrograms tavi-mqtt tavi-upload tavi-web)
endif()
install(TARGETS ${taviPrograms} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# GStreamer looks there by itself.
install(TARGETS SoftImx LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0)
# The simulated car looks for it there, as seen from the program.
install(TARGETS AlsaTick LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/alsa-lib)
# What is beside the libraries is found without the system's help, wherever the tree is put.
set_target_properties(${taviLibraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
file(RELATIVE_PATH taviBinToLib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(${taviPrograms} PROPERTIES INSTALL_RPATH "$ORIGIN/${taviBinToLib}")

set(taviHeaders ${CMAKE_INSTALL_INCLUDEDIR}/tavi)
install(DIRECTORY Tavi Platform/Kbase Platform/Kdevice Platform/Ksystem Platform/KMedia
  DESTINATION ${taviHeaders} FILES_MATCHING PATTERN "*.h")

install(EXPORT TaviTargets NAMESPACE Tavi:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tavi)
configure_package_config_file(cmake/TaviConfig.cmake.in ${CMAKE_BINARY_DIR}/TaviConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tavi)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/TaviConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/TaviConfig.cmake ${CMAKE_BINARY_DIR}/TaviConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tavi)
file(RELATIVE_PATH taviPcToPrefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
# The headers' times and offsets are as wide as the library's; find_package has it from the targets.
list(TRANSFORM TAVI_WIDE_TYPES PREPEND " -D" OUTPUT_VARIABLE taviWideFlags)
string(JOIN "" taviWideFlags ${taviWideFlags})
configure_file(packaging/tavi.pc.in ${CMAKE_BINARY_DIR}/tavi.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tavi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
