# What `make install` and the Debian package put where, and the package itself
# (CPack's DEB generator; `make package` builds it from a Release build).
#
# Programs in /usr/bin, the console and model files in /usr/share/vorcore, the
# engine's working folder /var/lib/vorcore, the site's cipher file in
# /etc/vorcore. The package paths assume the prefix /usr (`make package` sets it).
include(GNUInstallDirs)

set(VORCORE_BIN_DIR ${CMAKE_INSTALL_FULL_BINDIR})
set(VORCORE_DATA_DIR ${CMAKE_INSTALL_FULL_DATADIR}/vorcore)
set(VORCORE_WORK_DIR ${CMAKE_INSTALL_FULL_LOCALSTATEDIR}/lib/vorcore)
set(VORCORE_SITE_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/vorcore)
set(VORCORE_PACKAGE_DIR ${CMAKE_SOURCE_DIR}/package)
set(VORCORE_STAGE_DIR ${CMAKE_BINARY_DIR}/package)

# The changelog's newest entry names the version the package is built as.
file(STRINGS ${VORCORE_PACKAGE_DIR}/changelog VORCORE_CHANGELOG_TOP LIMIT_COUNT 1)
if(NOT VORCORE_CHANGELOG_TOP MATCHES "^vorcore \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "package/changelog: the newest entry is not version ${PROJECT_VERSION}")
endif()
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The launcher and the maintainer scripts, with this build's paths.
configure_file(${VORCORE_PACKAGE_DIR}/vorcore-console.in ${VORCORE_STAGE_DIR}/vorcore-console @ONLY)
configure_file(${VORCORE_PACKAGE_DIR}/postinst.in ${VORCORE_STAGE_DIR}/postinst @ONLY)
configure_file(${VORCORE_PACKAGE_DIR}/postrm.in ${VORCORE_STAGE_DIR}/postrm @ONLY)

# Every program installed for users has its manual page man/<program>.1.
set(VORCORE_USER_PROGRAMS vorcore vorpanel-sim pk7dump)
set(VORCORE_MANUAL_PAGES ${VORCORE_USER_PROGRAMS} vorcore-console)

# Manual pages and the Debian changelog are installed compressed, without a
# time stamp in the gzip header, as Debian policy asks.
set(VORCORE_COMPRESSED_OUTPUTS "")
function(vorcore_compressed source output)
  add_custom_command(OUTPUT ${output}
                     COMMAND sh -c "gzip -9n <\"$0\" >\"$1\"" ${source} ${output}
                     DEPENDS ${source} VERBATIM)
  set(VORCORE_COMPRESSED_OUTPUTS ${VORCORE_COMPRESSED_OUTPUTS} ${output} PARENT_SCOPE)
endfunction()
file(MAKE_DIRECTORY ${VORCORE_STAGE_DIR}/man)
set(VORCORE_MANUAL_FILES "")
foreach(page ${VORCORE_MANUAL_PAGES})
  if(NOT EXISTS ${CMAKE_SOURCE_DIR}/man/${page}.1)
    message(FATAL_ERROR "man/${page}.1 is missing: every installed program has a manual page")
  endif()
  vorcore_compressed(${CMAKE_SOURCE_DIR}/man/${page}.1 ${VORCORE_STAGE_DIR}/man/${page}.1.gz)
  list(APPEND VORCORE_MANUAL_FILES ${VORCORE_STAGE_DIR}/man/${page}.1.gz)
endforeach()
vorcore_compressed(${VORCORE_PACKAGE_DIR}/changelog ${VORCORE_STAGE_DIR}/changelog.Debian.gz)
add_custom_target(compressed_docs ALL DEPENDS ${VORCORE_COMPRESSED_OUTPUTS})

# The working folder's links: the shipped console, and the site's cipher file
# (the engine reads cipher.txt beside it; the site puts the file in /etc).
file(MAKE_DIRECTORY ${VORCORE_STAGE_DIR}/work)
file(CREATE_LINK ${VORCORE_DATA_DIR}/js ${VORCORE_STAGE_DIR}/work/js SYMBOLIC)
file(CREATE_LINK ${VORCORE_SITE_DIR}/cipher.txt ${VORCORE_STAGE_DIR}/work/cipher.txt SYMBOLIC)

install(TARGETS ${VORCORE_USER_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS ${VORCORE_STAGE_DIR}/vorcore-console DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/js/ DESTINATION ${VORCORE_DATA_DIR}/js)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/devs/ DESTINATION ${VORCORE_DATA_DIR}/devs)
# The public test parameter set: for the simulator and the demo only, never a real panel.
install(FILES ${CMAKE_SOURCE_DIR}/data/cipher-test.txt DESTINATION ${VORCORE_DATA_DIR})
install(FILES ${VORCORE_MANUAL_FILES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${VORCORE_PACKAGE_DIR}/copyright
              ${VORCORE_STAGE_DIR}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(FILES ${VORCORE_PACKAGE_DIR}/vorcore.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
# The working folder belongs to root and no one else may write in it: the engine
# runs as root and writes its own files (error.log) there. Its devs/ is filled by
# the package's postinst, so that a site's own model files in it are kept.
install(DIRECTORY DESTINATION ${VORCORE_WORK_DIR})
install(FILES ${VORCORE_STAGE_DIR}/work/js ${VORCORE_STAGE_DIR}/work/cipher.txt
        DESTINATION ${VORCORE_WORK_DIR})
install(DIRECTORY DESTINATION ${VORCORE_SITE_DIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vorcore)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "configure Vorlane alarm panels from a web browser")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(VORCORE_MAINTAINER "Vorcore maintainers <maintainers@users.noreply.c-seed-d336e37f.example>"
    CACHE STRING "The package's Maintainer field")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${VORCORE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# CPack puts the summary first and indents these lines; an empty line parts paragraphs.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "vorcore is the engine that lets an installer configure a Vorlane security and
fire alarm panel from a web browser. It talks to the panel over the panel's
USB serial port, keeps an image of its configuration, logs, events and live
telemetry, and serves all of it to the browser on http://localhost:8080.

vorcore-console starts the engine with sudo for the panel plugged in, or
tries the console on a simulated panel (vorpanel-sim) with --demo.")
# Library dependencies come from the binaries; sudo runs the engine and
# xdg-utils opens the demo's console. The commands the engine runs (stty, ls,
# lsblk, su) come from Essential packages, which a package does not list.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "sudo, xdg-utils")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${VORCORE_STAGE_DIR}/postinst ${VORCORE_STAGE_DIR}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
