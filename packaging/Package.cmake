# The Debian package: scripts/package.sh.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavi)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The developers of Tavi <tavi@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Event recorder for vehicles: recorder, tools, library and headers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
# The libraries that the programs link to are found by dpkg-shlibdeps; GStreamer's plug-ins are loaded by name.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, gstreamer1.0-plugins-ugly, gstreamer1.0-alsa")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pkg-config, libgstreamer1.0-dev, libgstreamer-plugins-base1.0-dev, nlohmann-json3-dev")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/postinst;${CMAKE_CURRENT_LIST_DIR}/prerm;${CMAKE_CURRENT_LIST_DIR}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)

# postinst puts it into /etc, where there is none yet.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/recorder.json DESTINATION ${CMAKE_INSTALL_DATADIR}/tavi)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/tavi-recorder.service DESTINATION lib/systemd/system)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/man/tavi-recorder.1 ${CMAKE_CURRENT_LIST_DIR}/man/tavi-ctl.1
  ${CMAKE_CURRENT_LIST_DIR}/man/tavi-report.1 ${CMAKE_CURRENT_LIST_DIR}/man/tavi-export.1
  ${CMAKE_CURRENT_LIST_DIR}/man/tavi-verify.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
include(CPack)
