# Installation layout, the CMake package that host projects find with
# find_package(QmOap), the Debian package, the log viewer and the tests of
# all of these.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Where things go, relative to the installation prefix.
set(QM_INSTALL_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(QM_INSTALL_DRIVERDIR ${CMAKE_INSTALL_LIBDIR}/qm/drivers)
set(QM_INSTALL_RUNTIME_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/qm/runtime)
set(QM_INSTALL_HOST_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/qm/host)
set(QM_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/QmOap)
set(QM_INSTALL_SHAREDIR ${CMAKE_INSTALL_DATADIR}/qm)
set(QM_DRIVER_FILE_NAME
    ${CMAKE_SHARED_LIBRARY_PREFIX}qmoapdriver${CMAKE_SHARED_LIBRARY_SUFFIX})
set(QM_RUNTIME_FILE_NAME
    ${CMAKE_STATIC_LIBRARY_PREFIX}qmruntime${CMAKE_STATIC_LIBRARY_SUFFIX})

# ---- The log viewer ---------------------------------------------------------
if(TARGET qm_core AND TARGET qm_ini_codec AND TARGET qm_log)
  add_library(qm_logview OBJECT
    tools/qmlogview/LogViewOptions.cpp
    tools/qmlogview/LogViewFormatter.cpp
    tools/qmlogview/LogDatabaseLocator.cpp
    tools/qmlogview/LogViewer.cpp
  )
  target_include_directories(qm_logview PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/tools/qmlogview)
  target_compile_options(qm_logview PRIVATE ${QM_WARNINGS})
  target_link_libraries(qm_logview PUBLIC qm_toolcommon qm_core qm_ini_codec qm_log SQLite::SQLite3)

  add_executable(qmlogview tools/qmlogview/main.cpp)
  target_compile_options(qmlogview PRIVATE ${QM_WARNINGS})
  target_link_libraries(qmlogview PRIVATE qm_logview qm_core qm_ini_codec qm_log)

  qm_add_test(qmlogview_tests
    SOURCES tools/qmlogview/tests/qmlogview_test.cpp
    LIBS qm_logview qm_core qm_ini_codec qm_log)
  if(TARGET qmlogview_tests)
    add_dependencies(qmlogview_tests qmlogview)
    target_compile_definitions(qmlogview_tests PRIVATE QMLOGVIEW_PATH="$<TARGET_FILE:qmlogview>")
  endif()
endif()

# Installing and packaging take the build as it is: build first, then run
# cmake --install or cpack. Without this, the package target would first
# build every target of the project, tests included.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)

# ---- What is installed ------------------------------------------------------
if(TARGET qmoapdriver)
  install(TARGETS qmoapdriver
          LIBRARY DESTINATION ${QM_INSTALL_DRIVERDIR}
          RUNTIME DESTINATION ${QM_INSTALL_DRIVERDIR})
endif()
install(TARGETS qmruntime ARCHIVE DESTINATION ${QM_INSTALL_LIBDIR})
install(DIRECTORY runtime/include/ DESTINATION ${QM_INSTALL_RUNTIME_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY messenger_host/include/ DESTINATION ${QM_INSTALL_HOST_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
foreach(tool qmhost oapsim qmlogview)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/config/qmlogs.ini.sample)
  install(FILES config/qmlogs.ini.sample DESTINATION ${QM_INSTALL_SHAREDIR})
endif()
if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/docs/OPERATIONS.md)
  install(FILES docs/OPERATIONS.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

# ---- CMake package for host projects ----------------------------------------
configure_package_config_file(
  cmake/QmOapConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/QmOapConfig.cmake
  INSTALL_DESTINATION ${QM_INSTALL_CMAKEDIR}
  PATH_VARS QM_INSTALL_LIBDIR QM_INSTALL_DRIVERDIR QM_INSTALL_RUNTIME_INCLUDEDIR
            QM_INSTALL_HOST_INCLUDEDIR QM_INSTALL_SHAREDIR)
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/QmOapConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QmOapConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/QmOapConfigVersion.cmake
        DESTINATION ${QM_INSTALL_CMAKEDIR})

# ---- Debian package ---------------------------------------------------------
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qm-oap-gateway)
set(CPACK_PACKAGE_VENDOR "QM OAP gateway project")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "OAP protocol driver plug-in for the paging gateway, its runtime and tools")
set(CPACK_PACKAGE_DESCRIPTION
    "The driver plug-in (lib/qm/drivers/libqmoapdriver.so) that delivers gateway jobs as plain or interactive text messages to wireless handsets over the Open Access Protocol, the static runtime library with its headers and CMake package, the host-side headers, the reference host qmhost, the OAP server simulator oapsim and the log viewer qmlogview.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "QM OAP gateway maintainers <qm-oap-gateway@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
find_program(QM_DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(QM_FILE_PROGRAM file)
if(QM_DPKG_SHLIBDEPS AND QM_FILE_PROGRAM)
  # Depends taken from the shared libraries the binaries actually load.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS
      "libc6, libstdc++6, libgcc-s1, libexpat1, libpcre2-8-0, libsqlite3-0")
endif()
include(CPack)

# ---- Tests of the installed tree and of the package ------------------------
if(QM_BUILD_TESTS)
  set(QM_PACKAGING_TARGETS qmruntime)
  foreach(target qmoapdriver qmhost oapsim qmlogview)
    if(TARGET ${target})
      list(APPEND QM_PACKAGING_TARGETS ${target})
    endif()
  endforeach()
  string(REPLACE ";" "," QM_PACKAGING_TARGET_LIST "${QM_PACKAGING_TARGETS}")
  if(TARGET qmoapdriver)
    set(QM_PACKAGING_HAVE_DRIVER 1)
  else()
    set(QM_PACKAGING_HAVE_DRIVER 0)
  endif()
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/config/qmlogs.ini.sample)
    set(QM_PACKAGING_HAVE_SAMPLE 1)
  else()
    set(QM_PACKAGING_HAVE_SAMPLE 0)
  endif()
  foreach(mode install deb)
    add_test(NAME packaging_${mode}
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/tests/packaging/check_install.sh
                     mode=${mode} build=${CMAKE_BINARY_DIR}
                     source=${CMAKE_CURRENT_SOURCE_DIR}/tests/packaging/outoftree
                     cmake=${CMAKE_COMMAND} cpack=${CMAKE_CPACK_COMMAND}
                     cxx=${CMAKE_CXX_COMPILER} "sanitize=${QM_SANITIZE}"
                     driver=${QM_PACKAGING_HAVE_DRIVER} sample=${QM_PACKAGING_HAVE_SAMPLE}
                     version=${PROJECT_VERSION} targets=${QM_PACKAGING_TARGET_LIST})
    set_tests_properties(packaging_${mode} PROPERTIES
                         SKIP_RETURN_CODE 77 TIMEOUT 240 RESOURCE_LOCK qm_packaging)
  endforeach()
endif()
