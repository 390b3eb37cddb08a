# Installation and the Debian package.
#
# `cmake --install` lays out a runnable folder under the prefix (default /opt/glimra): the
# program, glimra.ini and fonts/, because the program keeps its configuration and log beside
# itself and writes to both. Outside the prefix go the /usr/bin/glimra link, the manual page, the
# systemd units and the package's documents, at their absolute places (below DESTDIR when set).
# CPack builds the Debian package from the same rules (scripts/package.sh); there glimra.ini
# becomes the conffile /etc/glimra/glimra.ini with a link to it in the folder.

if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /opt/glimra CACHE PATH "Folder of the installed program" FORCE)
endif()

# `make install` and CPack install what is built; they do not build every test and benchmark
# first (scripts/package.sh builds what the package needs).
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(PKG_SRC ${CMAKE_SOURCE_DIR}/packaging)
set(PKG_OUT ${CMAKE_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${PKG_OUT})

# Debian wants the manual page and the changelog compressed, without a time stamp inside.
configure_file(${PKG_SRC}/changelog.in ${PKG_OUT}/changelog @ONLY)
foreach(doc glimra.1 changelog)
  if(doc STREQUAL "glimra.1")
    set(from ${PKG_SRC}/glimra.1)
  else()
    set(from ${PKG_OUT}/changelog)
  endif()
  add_custom_command(OUTPUT ${PKG_OUT}/${doc}.gz
    COMMAND gzip -9 -n -c ${from} > ${PKG_OUT}/${doc}.gz
    DEPENDS ${from} VERBATIM)
  list(APPEND PKG_DOCS ${PKG_OUT}/${doc}.gz)
endforeach()
add_custom_target(package_docs ALL DEPENDS ${PKG_DOCS})

# ---- the runnable folder ---------------------------------------------------------------------
install(TARGETS glimra RUNTIME DESTINATION .)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/data/ DESTINATION . PATTERN glimra.ini EXCLUDE)

# glimra.ini is the user's once installed: a later install keeps an existing one and puts the
# shipped file beside it. Into an empty DESTDIR (the package) it simply goes in; the package
# moves it to /etc/glimra (packaging/etc-config.cmake), where dpkg keeps an edited copy.
install(CODE "set(GLIMRA_SHIPPED_INI \"${CMAKE_SOURCE_DIR}/data/glimra.ini\")")
install(CODE [[
  # file(INSTALL) adds DESTDIR itself.
  if(EXISTS "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/glimra.ini")
    file(INSTALL "${GLIMRA_SHIPPED_INI}" DESTINATION "${CMAKE_INSTALL_PREFIX}"
         RENAME glimra.ini.dist)
    message(STATUS "Kept: ${CMAKE_INSTALL_PREFIX}/glimra.ini (the shipped one is glimra.ini.dist)")
  else()
    file(INSTALL "${GLIMRA_SHIPPED_INI}" DESTINATION "${CMAKE_INSTALL_PREFIX}")
  endif()
]])

# ---- outside the folder ----------------------------------------------------------------------
install(CODE [[
  file(MAKE_DIRECTORY "$ENV{DESTDIR}/usr/bin")
  file(CREATE_LINK "${CMAKE_INSTALL_PREFIX}/glimra" "$ENV{DESTDIR}/usr/bin/glimra" SYMBOLIC)
  message(STATUS "Installing: $ENV{DESTDIR}/usr/bin/glimra -> ${CMAKE_INSTALL_PREFIX}/glimra")
]])
install(FILES ${PKG_OUT}/glimra.1.gz DESTINATION /usr/share/man/man1)
install(FILES ${PKG_SRC}/glimra.service DESTINATION /lib/systemd/system)
install(FILES ${PKG_SRC}/glimra-desktop.service DESTINATION /usr/lib/systemd/user)
install(FILES ${PKG_SRC}/copyright DESTINATION /usr/share/doc/glimra)
install(FILES ${PKG_OUT}/changelog.gz DESTINATION /usr/share/doc/glimra)
install(FILES ${PKG_SRC}/lintian-overrides DESTINATION /usr/share/lintian/overrides
        RENAME glimra)

# A direct install by root hands the configuration and the folder to the group glimra, when the
# group is there: the program writes its configuration (replacing the file as a whole) and its
# log in its folder, so the folder is group-writable, and set-group-id so that new logs belong to
# the group. The package instead keeps the configuration in /etc/glimra (packaging/postinst).
install(CODE [[
  if("$ENV{DESTDIR}" STREQUAL "")
    execute_process(COMMAND id -u OUTPUT_VARIABLE uid OUTPUT_STRIP_TRAILING_WHITESPACE)
    execute_process(COMMAND getent group glimra RESULT_VARIABLE nogroup OUTPUT_QUIET)
    if(uid STREQUAL "0" AND nogroup EQUAL 0)
      execute_process(COMMAND chgrp glimra "${CMAKE_INSTALL_PREFIX}"
                              "${CMAKE_INSTALL_PREFIX}/glimra.ini")
      execute_process(COMMAND chmod 2775 "${CMAKE_INSTALL_PREFIX}")
      execute_process(COMMAND chmod 664 "${CMAKE_INSTALL_PREFIX}/glimra.ini")
      message(STATUS "Group glimra may write ${CMAKE_INSTALL_PREFIX}/glimra.ini and the log")
    else()
      message(STATUS "Only root can write ${CMAKE_INSTALL_PREFIX}/glimra.ini and the log; as "
                     "root: addgroup --system glimra, then install again")
    endif()
  endif()
]])

# ---- the Debian package ----------------------------------------------------------------------
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME glimra)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "glimra maintainers <maintainers@users.noreply.c-seed-49190f8f.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "full-screen picture slideshow for unattended displays")
set(CPACK_PACKAGE_DESCRIPTION
  "glimra shows the JPEG, PNG and Targa pictures of a folder one at a time, full\n\
screen, fitted to the screen's height and turned upright by their EXIF\n\
orientation, optionally in black and white and with an information line. It\n\
is made for display PCs that run unattended: a kiosk without a desktop\n\
(KMS/DRM), a shop window or a wall screen. Other programs make it show a\n\
picture by sending it a UDP datagram; a second start hands its picture to the\n\
running copy.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# adduser for the maintainer scripts; the rest comes from the program's shared libraries.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
# The face the information line draws characters beyond its sheet from (boxes without it).
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fonts-dejavu-core")
set(CPACK_STRIP_FILES ON)
# Installed with DESTDIR, so that the rules above place the absolute paths inside the package.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /opt/glimra)
set(CPACK_PACKAGING_INSTALL_PREFIX /opt/glimra)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PKG_SRC}/conffiles ${PKG_SRC}/postinst ${PKG_SRC}/prerm ${PKG_SRC}/postrm)
set(CPACK_PRE_BUILD_SCRIPTS ${PKG_SRC}/etc-config.cmake)
include(CPack)
