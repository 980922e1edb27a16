# Installation rules and the two Debian packages. Installed, the executable sits in a folder its
# user cannot write, so every way of starting it names a program folder: the desktop entry the
# user's data folder, the unit /var/lib/postiq.
#
# postiq is the relay; postiq-mta adds the system's sendmail and mailq, which are postiq called
# by those names, queueing into the system relay's folder. Every rule below without a component
# belongs to postiq.
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME postiq)

set(packaging ${CMAKE_SOURCE_DIR}/packaging)
set(POSTIQ_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
    "Where the systemd unit is installed, relative to the installation prefix")

install(TARGETS postiq RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The desktop plugin, where the program looks for it: bin/../lib/postiq.
install(TARGETS postiq_ui postiq_keyring LIBRARY DESTINATION lib/postiq)
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
set(docs ${CMAKE_BINARY_DIR}/docs)
file(MAKE_DIRECTORY ${docs})
postiq_gzip(${packaging}/postiq.1 ${docs}/postiq.1.gz)
postiq_gzip(${packaging}/sendmail.8 ${docs}/sendmail.8.gz)
postiq_gzip(${packaging}/mailq.1 ${docs}/mailq.1.gz)
postiq_gzip(${packaging}/changelog ${docs}/changelog.Debian.gz)
add_custom_target(postiq_docs ALL DEPENDS ${docs}/postiq.1.gz ${docs}/sendmail.8.gz ${docs}/mailq.1.gz
                                          ${docs}/changelog.Debian.gz)
install(FILES ${docs}/postiq.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${docs}/changelog.Debian.gz ${packaging}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/postiq)
# Packages built here are not uploaded to Debian, so their first changelog entry closes no
# intent-to-package bug.
install(FILES ${packaging}/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME postiq)

# postiq-mta: the links by which postiq is the system's sendmail and mailq (relative, as they stay
# within /usr), their manual pages, the folder they queue into, and the drop-in that lets every
# local user reach that folder's OutBox.
set(links ${CMAKE_BINARY_DIR}/mta-links)
file(MAKE_DIRECTORY ${links}/sbin ${links}/bin ${links}/lib)
file(CREATE_LINK ../bin/postiq ${links}/sbin/sendmail SYMBOLIC)
file(CREATE_LINK postiq ${links}/bin/mailq SYMBOLIC)
file(CREATE_LINK ../sbin/sendmail ${links}/lib/sendmail SYMBOLIC)
install(FILES ${links}/sbin/sendmail DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT mta)
install(FILES ${links}/bin/mailq DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT mta)
install(FILES ${links}/lib/sendmail DESTINATION lib COMPONENT mta)
install(FILES ${docs}/sendmail.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT mta)
install(FILES ${docs}/mailq.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT mta)
install(FILES ${docs}/changelog.Debian.gz ${packaging}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/postiq-mta
        COMPONENT mta)
install(FILES ${packaging}/sendmail.conf DESTINATION /etc/postiq COMPONENT mta)
install(FILES ${packaging}/mta-lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
        RENAME postiq-mta COMPONENT mta)
install(FILES ${packaging}/drop-box.conf DESTINATION ${POSTIQ_SYSTEMD_UNIT_DIR}/postiq.service.d COMPONENT mta)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME postiq)
set(CPACK_PACKAGE_VENDOR "The Postiq developers")
set(CPACK_PACKAGE_CONTACT "The Postiq developers <postiq@postiq.example>")
# Each package's description begins with its own summary line.
set(CPACK_COMPONENT_POSTIQ_DESCRIPTION
    "mail relay for the desktop\n"
    "Mail programs on this computer, and on the local network when relaying\n"
    "is on, send their mail to Postiq over SMTP. It queues each message and\n"
    "delivers it itself, by MX lookup or through a fixed outgoing server,\n"
    "with retries, delay notices and bounces, and keeps text logs of\n"
    "everything it does. It runs as a tray program on the desktop, or\n"
    "headless as the systemd service postiq.service.")
set(CPACK_COMPONENT_MTA_DESCRIPTION
    "Postiq as the system's sendmail and mailq\n"
    "Programs that send mail by running sendmail (cron, git send-email,\n"
    "PHP's mail(), mdadm, unattended-upgrades) queue it in the OutBox of the\n"
    "system relay, postiq.service, which delivers it. mailq lists that\n"
    "queue. Every local user may queue mail there, and nobody but the\n"
    "relay may read or remove it.")
foreach(component POSTIQ MTA)
  string(REPLACE ";" "" CPACK_COMPONENT_${component}_DESCRIPTION "${CPACK_COMPONENT_${component}_DESCRIPTION}")
endforeach()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# libldns is loaded when the first DNS question is asked, so the shared-library scan cannot see it.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, libldns3")
# Qt's own words (the buttons of message boxes) in the language the user chose.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "qt6-translations-l10n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${packaging}/postinst ${packaging}/prerm ${packaging}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL postiq mta)
set(CPACK_DEBIAN_POSTIQ_PACKAGE_NAME postiq)
set(CPACK_DEBIAN_MTA_PACKAGE_NAME postiq-mta)
set(CPACK_DEBIAN_MTA_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_MTA_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_MTA_PACKAGE_DEPENDS "postiq (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
# One mail transport agent at a time, as every package that provides one declares.
set(CPACK_DEBIAN_MTA_PACKAGE_PROVIDES mail-transport-agent)
set(CPACK_DEBIAN_MTA_PACKAGE_CONFLICTS mail-transport-agent)
set(CPACK_DEBIAN_MTA_PACKAGE_REPLACES mail-transport-agent)
configure_file(${packaging}/mta-postinst ${CMAKE_BINARY_DIR}/mta-control/postinst COPYONLY)
configure_file(${packaging}/mta-postrm ${CMAKE_BINARY_DIR}/mta-control/postrm COPYONLY)
configure_file(${packaging}/mta-conffiles ${CMAKE_BINARY_DIR}/mta-control/conffiles COPYONLY)
set(CPACK_DEBIAN_MTA_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/mta-control/postinst
    ${CMAKE_BINARY_DIR}/mta-control/postrm ${CMAKE_BINARY_DIR}/mta-control/conffiles)
include(CPack)

# The package as a user would get it: built from this tree, unpacked into a scratch root, its
# unit's and desktop entry's commands run there against a relay that must accept mail.
if(POSTIQ_TESTS)
  add_test(NAME package_installs_and_relays
           COMMAND bash ${packaging}/check_package.sh ${CMAKE_BINARY_DIR})
  set_tests_properties(package_installs_and_relays PROPERTIES TIMEOUT 300)
endif()
