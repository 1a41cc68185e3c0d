# Installation under the GNU install directories, as a Debian packager expects:
#   include/vsk/*.h                          the public C headers
#   LIBDIR/libvsk.so.0.1, .so.0, .so          the shared library (SONAME libvsk.so.0)
#   LIBDIR/libvsk.a                           the static library, linked whole (see libvsk.pc)
#   LIBDIR/pkgconfig/libvsk.pc                pkg-config: `pkg-config --cflags --libs libvsk`
#   LIBDIR/cmake/vsk/                         find_package(vsk) giving vsk::vsk (and vsk::vsk_static)
#   SBINDIR/orvd (and the other daemons)      daemons
#   BINDIR/vskctl (and the other tools)       operator tools
#   lib/systemd/system/*.service, vsk.target  units: orvd first, the other daemons after it
# Components: Runtime (library, programs, units) and Development (headers, archive, pc,
# CMake package).
include(CMakePackageConfigHelpers)

set(VSK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vsk)
set(VSK_INSTALL_SYSTEMDUNITDIR "lib/systemd/system" CACHE STRING
    "where the systemd units go (relative to the install prefix, or absolute)")
# Programs that only make sense in the build tree (the demo runs orvd from there).
set(VSK_BUILD_TREE_PROGRAMS vsk-demo)

install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/vsk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT Development FILES_MATCHING PATTERN "*.h")

install(TARGETS vsk EXPORT vskTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
                NAMELINK_COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS vsk_archive ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
install(EXPORT vskTargets NAMESPACE vsk:: DESTINATION ${VSK_INSTALL_CMAKEDIR}
        COMPONENT Development)

configure_package_config_file(${CMAKE_SOURCE_DIR}/packaging/cmake/vskConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/packaging/vskConfig.cmake
                              INSTALL_DESTINATION ${VSK_INSTALL_CMAKEDIR}
                              PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/vskConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/packaging/vskConfig.cmake
              ${CMAKE_BINARY_DIR}/packaging/vskConfigVersion.cmake
        DESTINATION ${VSK_INSTALL_CMAKEDIR} COMPONENT Development)

# pkg-config paths relative to ${prefix} where the GNU directories are relative.
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(VSK_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(VSK_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(${CMAKE_SOURCE_DIR}/packaging/pkgconfig/libvsk.pc.in
               ${CMAKE_BINARY_DIR}/packaging/libvsk.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/libvsk.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# Every program the build makes: daemons to sbin, tools to bin.
foreach(parent daemons tools)
  file(GLOB dirs LIST_DIRECTORIES true CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${parent}/*)
  foreach(dir ${dirs})
    get_filename_component(prog ${dir} NAME)
    if(TARGET ${prog} AND NOT prog IN_LIST VSK_BUILD_TREE_PROGRAMS)
      if(parent STREQUAL "daemons")
        set(dest ${CMAKE_INSTALL_SBINDIR})
      else()
        set(dest ${CMAKE_INSTALL_BINDIR})
      endif()
      install(TARGETS ${prog} RUNTIME DESTINATION ${dest} COMPONENT Runtime)
    endif()
  endforeach()
endforeach()

# systemd units, each only with its program. vsk.target groups orvd and the daemons.
set(VSK_UNIT_SBINDIR ${CMAKE_INSTALL_FULL_SBINDIR})
set(VSK_UNIT_BINDIR ${CMAKE_INSTALL_FULL_BINDIR})
set(units vsk.target)
foreach(pair orvd:orvd.service lodexd:lodexd.service vskctl:vsk-exporter.service)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 prog)
  list(GET pair 1 unit)
  if(TARGET ${prog})
    list(APPEND units ${unit})
  endif()
endforeach()
foreach(unit ${units})
  configure_file(${CMAKE_SOURCE_DIR}/packaging/systemd/${unit}.in
                 ${CMAKE_BINARY_DIR}/packaging/systemd/${unit} @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/systemd/${unit}
          DESTINATION ${VSK_INSTALL_SYSTEMDUNITDIR} COMPONENT Runtime)
endforeach()
