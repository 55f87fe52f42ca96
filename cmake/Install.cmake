# What `cmake --install` puts in place, and the Debian package made from it with `cpack -G DEB`:
#   bin/tvl                            the tool
#   libexec/tarvolin/tvl-pdftext       its PDF worker, where tvl looks for it when not beside it
#   lib/libtarvolin_*.a                the engine, one static archive per module
#   include/tarvolin/...               the engine's headers
#   lib/cmake/Tarvolin/                find_package(Tarvolin) gives Tarvolin::tarvolin
#   lib/pkgconfig/tarvolin.pc          the same for pkg-config
#   share/man/man1/tvl.1               the manual page, generated from docs/man/tvl.1.scd
#   share/bash-completion, zsh, fish   shell completions
#   lib/systemd/user/tarvolin.service  the user service running `tvl serve`
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TARVOLIN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tarvolin)

# The modules in link order, most dependent first (pkg-config needs that order).
set(tarvolin_installed_modules)
foreach(module service catalog content query watch scan index platform)
  if(TARGET tarvolin_${module})
    list(APPEND tarvolin_installed_modules tarvolin_${module})
  endif()
endforeach()

install(TARGETS tvl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS tvl-pdftext RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/tarvolin)
install(TARGETS tarvolin ${tarvolin_installed_modules}
        EXPORT TarvolinTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/tarvolin
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h"
        PATTERN "poppler" EXCLUDE)
install(EXPORT TarvolinTargets NAMESPACE Tarvolin:: DESTINATION ${TARVOLIN_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TarvolinConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/TarvolinConfig.cmake
                              INSTALL_DESTINATION ${TARVOLIN_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarvolinConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarvolinConfig.cmake
              ${PROJECT_BINARY_DIR}/TarvolinConfigVersion.cmake
        DESTINATION ${TARVOLIN_CMAKE_DIR})

# pkg-config: the archives in link order, and the libraries they need.
set(TARVOLIN_PC_LIBS "")
foreach(module IN LISTS tarvolin_installed_modules)
  get_target_property(kind ${module} TYPE)
  if(NOT kind STREQUAL "STATIC_LIBRARY")
    continue()  # a module without sources yet has no archive
  endif()
  string(REPLACE "tarvolin_" "-ltarvolin_" flag ${module})
  string(APPEND TARVOLIN_PC_LIBS " ${flag}")
endforeach()
# The prefix is found from the .pc file's own place, so the file holds wherever the tree lands.
file(RELATIVE_PATH TARVOLIN_PC_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(${PROJECT_SOURCE_DIR}/cmake/tarvolin.pc.in ${PROJECT_BINARY_DIR}/tarvolin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarvolin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The manual page, written in scdoc and rendered at build time.
find_program(SCDOC scdoc)
if(SCDOC)
  set(man_source ${PROJECT_SOURCE_DIR}/docs/man/tvl.1.scd)
  set(man_page ${PROJECT_BINARY_DIR}/tvl.1)
  add_custom_command(OUTPUT ${man_page}
                     COMMAND ${SCDOC} < ${man_source} > ${man_page}
                     DEPENDS ${man_source}
                     COMMENT "Rendering the manual page tvl.1")
  add_custom_target(tvl_man ALL DEPENDS ${man_page})
  install(FILES ${man_page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
  message(WARNING "scdoc not found: the manual page is not built (scripts/install-deps installs it)")
endif()

install(FILES ${PROJECT_SOURCE_DIR}/completions/tvl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tvl)
install(FILES ${PROJECT_SOURCE_DIR}/completions/_tvl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES ${PROJECT_SOURCE_DIR}/completions/tvl.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/systemd/tarvolin.service.in)
  # The unit starts the installed tool by its full path (systemd does not search PATH for
  # ExecStart), so it names the bin folder of the prefix configured here.
  configure_file(${PROJECT_SOURCE_DIR}/packaging/systemd/tarvolin.service.in
                 ${PROJECT_BINARY_DIR}/tarvolin.service @ONLY)
  # systemd looks for user units in lib/systemd/user under the prefix, never in a multiarch dir.
  install(FILES ${PROJECT_BINARY_DIR}/tarvolin.service DESTINATION lib/systemd/user)
endif()

# cpack -G DEB: the runtime dependencies are read from the binaries by dpkg-shlibdeps, apart
# from the archive library, which tvl loads only when it handles a catalog archive.
set(CPACK_PACKAGE_NAME tarvolin)
set(CPACK_PACKAGE_VENDOR "Tarvolin developers")
set(CPACK_PACKAGE_CONTACT "Tarvolin developers <tarvolin@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "fast file-name and document-content search for Linux")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libarchive13 (>= 3.2)")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)

# Ctrl-T key bindings that insert a path picked with `tvl pick`; users source the one for their
# shell from their shell's start-up file (see docs/cli.md).
install(FILES ${PROJECT_SOURCE_DIR}/completions/key-bindings.bash
              ${PROJECT_SOURCE_DIR}/completions/key-bindings.zsh
              ${PROJECT_SOURCE_DIR}/completions/key-bindings.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/tarvolin)
