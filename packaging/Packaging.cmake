# Installation rules and the Debian package. Installed, the executable sits in a folder its user
# cannot write, so every way of starting it names a program folder: the desktop entry the user's
# data folder, the unit /var/lib/postiq.
include(GNUInstallDirs)

set(packaging ${CMAKE_SOURCE_DIR}/packaging)
set(POSTIQ_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
    "Where the systemd unit is installed, relative to the installation prefix")

install(TARGETS postiq RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The desktop plugin, where the program looks for it: bin/../lib/postiq.
install(TARGETS postiq_ui LIBRARY DESTINATION lib/postiq)
install(FILES ${packaging}/postiq.service DESTINATION ${POSTIQ_SYSTEMD_UNIT_DIR})
install(FILES ${packaging}/postiq.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)

# The interface's own icon wins over the packaging's stand-in once it exists.
set(app_icon ${packaging}/postiq.svg)
if(EXISTS ${CMAKE_SOURCE_DIR}/resources/icons/postiq.svg)
  set(app_icon ${CMAKE_SOURCE_DIR}/resources/icons/postiq.svg)
endif()
install(FILES ${app_icon} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps RENAME postiq.svg)

# Language files and icons are picked up as they are added; neither folder has to exist.
file(GLOB language_files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/language/*.ini)
if(language_files)
  install(FILES ${language_files} DESTINATION ${CMAKE_INSTALL_DATADIR}/postiq/language)
endif()
file(GLOB icon_files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/resources/icons/*.svg)
if(icon_files)
  install(FILES ${icon_files} DESTINATION ${CMAKE_INSTALL_DATADIR}/postiq/icons)
endif()

# Debian wants the manual page and the changelog compressed, without a time stamp (-n) so that
# two builds give the same bytes.
function(postiq_gzip source output)
  add_custom_command(OUTPUT ${output}
                     COMMAND gzip -9nc ${source} > ${output}
                     DEPENDS ${source} VERBATIM)
endfunction()
postiq_gzip(${packaging}/postiq.1 ${CMAKE_BINARY_DIR}/postiq.1.gz)
postiq_gzip(${packaging}/changelog ${CMAKE_BINARY_DIR}/changelog.Debian.gz)
add_custom_target(postiq_docs ALL DEPENDS ${CMAKE_BINARY_DIR}/postiq.1.gz ${CMAKE_BINARY_DIR}/changelog.Debian.gz)
install(FILES ${CMAKE_BINARY_DIR}/postiq.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_BINARY_DIR}/changelog.Debian.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/postiq)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME postiq)
set(CPACK_PACKAGE_VENDOR "The Postiq developers")
set(CPACK_PACKAGE_CONTACT "The Postiq developers <postiq@postiq.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "mail relay for the desktop")
set(CPACK_PACKAGE_DESCRIPTION
    "Mail programs on this computer, and on the local network when relaying\n"
    "is on, send their mail to Postiq over SMTP. It queues each message and\n"
    "delivers it itself, by MX lookup or through a fixed outgoing server,\n"
    "with retries, delay notices and bounces, and keeps text logs of\n"
    "everything it does. It runs as a tray program on the desktop, or\n"
    "headless as the systemd service postiq.service.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${packaging}/postinst ${packaging}/prerm ${packaging}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)

# The package as a user would get it: built from this tree, unpacked into a scratch root, its
# unit's and desktop entry's commands run there against a relay that must accept mail.
if(POSTIQ_TESTS)
  add_test(NAME package_installs_and_relays
           COMMAND bash ${packaging}/check_package.sh ${CMAKE_BINARY_DIR})
  set_tests_properties(package_installs_and_relays PROPERTIES TIMEOUT 300)
endif()
