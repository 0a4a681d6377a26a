# What a system needs around the programs: service, user, device rules, default settings, manual pages. The Debian packages
# (debian/) take the settings into /etc themselves.
install(FILES packaging/recorder.json DESTINATION ${CMAKE_INSTALL_DATADIR}/tavi)
install(FILES packaging/tavi-recorder.service DESTINATION lib/systemd/system)
install(FILES packaging/sysusers.conf DESTINATION lib/sysusers.d RENAME tavi.conf)
install(FILES packaging/udev.rules DESTINATION lib/udev/rules.d RENAME 60-tavi.rules)
if(TAVI_UNIT)
  install(FILES packaging/unit/10-unit.conf DESTINATION lib/systemd/system/tavi-recorder.service.d)
  install(FILES packaging/unit/tavi-restart-unit.service packaging/unit/tavi-clear-cache.path
    packaging/unit/tavi-clear-cache.service DESTINATION lib/systemd/system)
endif()
install(FILES packaging/man/tavi-recorder.1 packaging/man/tavi-ctl.1 packaging/man/tavi-report.1 packaging/man/tavi-export.1
  packaging/man/tavi-verify.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# Programs beside the recorder, each a package of its own.
if(TAVI_BUILD_FLEET)
  foreach(program mqtt upload web)
    install(FILES packaging/tavi-${program}.service DESTINATION lib/systemd/system)
    install(FILES packaging/tavi-${program}.sysusers DESTINATION lib/sysusers.d RENAME tavi-${program}.conf)
    install(FILES packaging/man/tavi-${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endforeach()
endif()
