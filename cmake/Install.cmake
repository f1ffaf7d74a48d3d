# cmake --install: the shared and static libraries, the public headers, a
# CMake package (find_package(QXLog) gives QXLog::qxlog and
# QXLog::qxlog_static) and a pkg-config file (qxlog), all in the component
# "library". The collector's tools install in the component "tools".
include(CMakePackageConfigHelpers)

set(QXLOG_PUBLIC_HEADERS
  QXLog/QXLog.h QXLog/QXLogCenter.h QXLog/QXLogMessageFormat.h QXLog/QXLogHelper.h
  QXLog/QXLogValue.h QXLog/QXLogExecutor.h QXLog/QXLogPlayEvents.h QXLog/QXLogPlay.h)
set(QXLOG_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QXLog)

install(TARGETS qxlog qxlog_static EXPORT QXLogTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library)
install(FILES ${QXLOG_PUBLIC_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QXLog COMPONENT library)
install(EXPORT QXLogTargets NAMESPACE QXLog:: DESTINATION ${QXLOG_CMAKE_DIR}
  COMPONENT library)

configure_package_config_file(cmake/QXLogConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QXLogConfig.cmake INSTALL_DESTINATION ${QXLOG_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QXLogConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QXLogConfig.cmake
  ${PROJECT_BINARY_DIR}/QXLogConfigVersion.cmake
  DESTINATION ${QXLOG_CMAKE_DIR} COMPONENT library)

# The .pc file finds its prefix from its own place, so that
# cmake --install --prefix elsewhere still gives a working file.
file(RELATIVE_PATH QXLOG_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" QXLOG_PC_TO_PREFIX "${QXLOG_PC_TO_PREFIX}")
configure_file(cmake/qxlog.pc.in ${PROJECT_BINARY_DIR}/qxlog.pc @ONLY)
# The static library has a file of its own: `pkg-config --libs
# qxlog-static` gives everything a C program needs to link it.
configure_file(cmake/qxlog-static.pc.in ${PROJECT_BINARY_DIR}/qxlog-static.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxlog.pc ${PROJECT_BINARY_DIR}/qxlog-static.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)

# The Python module (component "python"): pure ctypes over libqxlog.so. The
# install step writes where the library went beside the module.
set(QXLOG_PYTHON_DIR lib/python3/dist-packages)
install(DIRECTORY python/qxlog DESTINATION ${QXLOG_PYTHON_DIR} COMPONENT python
  PATTERN __pycache__ EXCLUDE)
install(CODE "
  set(qxlog_prefix \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
  file(WRITE \"\${qxlog_prefix}/${QXLOG_PYTHON_DIR}/qxlog/_location.py\"
    \"LIBRARY = '\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libqxlog.so.1'\\n\")
  " COMPONENT python)
