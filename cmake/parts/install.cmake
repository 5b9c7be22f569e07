# Installation layout, the CMake and pkg-config packages that host projects
# use, the tools' manual pages, the log viewer, and the checks of the
# installed tree, the Debian packages and the documentation.
include(CMakePackageConfigHelpers)

# Where things go, relative to the installation prefix.
set(QM_INSTALL_DRIVERDIR ${CMAKE_INSTALL_LIBDIR}/qm/drivers)
set(QM_INSTALL_HOST_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/qm/host)
set(QM_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/QmOap)
set(QM_INSTALL_SHAREDIR ${CMAKE_INSTALL_DATADIR}/qm)

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

# Installing takes the build as it is: build first, then cmake --install.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)

# ---- Targets a host project uses -------------------------------------------
# QmOap::runtime (the static runtime), QmOap::host_headers (the host-side
# headers; a host that only loads the plug-in needs them and, for its queue's
# lock, the runtime) and QmOap::oapdriver (the plug-in, a module to dlopen).
add_library(qm_host_headers INTERFACE)
target_include_directories(qm_host_headers INTERFACE
  $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/messenger_host/include>
  $<INSTALL_INTERFACE:${QM_INSTALL_HOST_INCLUDEDIR}>)
target_link_libraries(qm_host_headers INTERFACE qmruntime)
set_target_properties(qm_host_headers PROPERTIES EXPORT_NAME host_headers)
set_target_properties(qmruntime PROPERTIES EXPORT_NAME runtime)
install(TARGETS qmruntime qm_host_headers EXPORT QmOapTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(TARGET qmoapdriver)
  set_target_properties(qmoapdriver PROPERTIES EXPORT_NAME oapdriver)
  install(TARGETS qmoapdriver EXPORT QmOapTargets LIBRARY DESTINATION ${QM_INSTALL_DRIVERDIR})
endif()
install(EXPORT QmOapTargets NAMESPACE QmOap:: DESTINATION ${QM_INSTALL_CMAKEDIR})
install(DIRECTORY runtime/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qm/runtime
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY messenger_host/include/ DESTINATION ${QM_INSTALL_HOST_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

configure_package_config_file(
  cmake/QmOapConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/QmOapConfig.cmake
  INSTALL_DESTINATION ${QM_INSTALL_CMAKEDIR}
  PATH_VARS QM_INSTALL_SHAREDIR)
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/QmOapConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QmOapConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/QmOapConfigVersion.cmake
        DESTINATION ${QM_INSTALL_CMAKEDIR})

# pkg-config: paths relative to the file, so an installed tree can move.
file(RELATIVE_PATH QM_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" QM_PC_PREFIX "${QM_PC_PREFIX}")
configure_file(cmake/qmoap.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qmoap.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qmoap.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# ---- Tools, samples and documents -------------------------------------------
foreach(tool qmhost oapsim qmlogview)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/config/qmlogs.ini.sample)
  install(FILES config/qmlogs.ini.sample DESTINATION ${QM_INSTALL_SHAREDIR})
endif()
install(FILES README.md docs/OPERATIONS.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples/oap_host DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES tools/oapsim/oapsim.service DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# Manual pages of the tools, made by help2man from their --help and
# --version when it is installed (and the tools can run where they are built).
find_program(QM_HELP2MAN help2man)
if(QM_HELP2MAN AND NOT CMAKE_CROSSCOMPILING)
  set(QM_MAN_PAGES)
  foreach(entry "qmhost|reference host for the OAP driver plug-in"
                "oapsim|OAP server simulator with simulated handsets"
                "qmlogview|list and follow the SQLite log database")
    string(REPLACE "|" ";" entry "${entry}")
    list(GET entry 0 tool)
    list(GET entry 1 summary)
    if(NOT TARGET ${tool})
      continue()
    endif()
    set(page ${CMAKE_CURRENT_BINARY_DIR}/man/${tool}.1)
    add_custom_command(OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
      COMMAND ${QM_HELP2MAN} --no-info --name=${summary} --output=${page} $<TARGET_FILE:${tool}>
      DEPENDS ${tool}
      COMMENT "Manual page of ${tool}"
      VERBATIM)
    list(APPEND QM_MAN_PAGES ${page})
  endforeach()
  add_custom_target(qm_man_pages ALL DEPENDS ${QM_MAN_PAGES})
  install(FILES ${QM_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

# ---- Checks -----------------------------------------------------------------
if(QM_BUILD_TESTS)
  set(QM_PACKAGING_TARGETS qmruntime)
  foreach(target qmoapdriver qmhost oapsim qmlogview qm_man_pages)
    if(TARGET ${target})
      list(APPEND QM_PACKAGING_TARGETS ${target})
    endif()
  endforeach()
  string(REPLACE ";" "," QM_PACKAGING_TARGET_LIST "${QM_PACKAGING_TARGETS}")
  # The build installed into a scratch prefix, the example host built and run
  # against it.
  add_test(NAME packaging_install
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/tests/packaging/check_install.sh
                   build=${CMAKE_BINARY_DIR} cmake=${CMAKE_COMMAND} cxx=${CMAKE_CXX_COMPILER}
                   "sanitize=${QM_SANITIZE}" version=${PROJECT_VERSION}
                   targets=${QM_PACKAGING_TARGET_LIST})
  set_tests_properties(packaging_install PROPERTIES
                       SKIP_RETURN_CODE 77 TIMEOUT 300 RESOURCE_LOCK qm_packaging)
  # The Debian packages built, checked by lintian, installed into a scratch
  # root, used and removed. Slow (it builds twice): label "debian", run by
  # .ci/run and left out of scripts/test.sh.
  add_test(NAME packaging_debian
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/tests/packaging/check_debian.sh
                   ${CMAKE_CURRENT_SOURCE_DIR})
  set_tests_properties(packaging_debian PROPERTIES
                       LABELS debian SKIP_RETURN_CODE 77 TIMEOUT 1800)
  # The shell blocks of README and OPERATIONS marked as runnable.
  add_test(NAME docs_check
           COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/tests/docs/check_docs.py
                   --source ${CMAKE_CURRENT_SOURCE_DIR} --build ${CMAKE_BINARY_DIR}
                   "--sanitize=${QM_SANITIZE}"
                   ${CMAKE_CURRENT_SOURCE_DIR}/README.md
                   ${CMAKE_CURRENT_SOURCE_DIR}/docs/OPERATIONS.md)
  set_tests_properties(docs_check PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 600)
endif()
