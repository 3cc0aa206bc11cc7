# What `cmake --install` puts under the prefix:
#   lib/libharl.a (and libharl.so with BUILD_SHARED_LIBS)
#   include/harl/<layer>/..., include/harl/Version.h: headers by the paths they include each other
#   lib/cmake/harl/: the package for find_package(harl CONFIG), with the imported target harl::harl
#   lib/pkgconfig/harl.pc
#   bin/harl-img, when the build has the tool
include(CMakePackageConfigHelpers)

set(HARL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/harl)

set(harl_installed harl)
if(TARGET harl_static)
    list(APPEND harl_installed harl_static)
endif()
install(TARGETS ${harl_installed} EXPORT harlTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(layer foundation format descriptor grain extent disk)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/${layer}/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/harl/${layer} FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES ${HARL_BUILD_INCLUDE_DIR}/harl/Version.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/harl)

install(EXPORT harlTargets NAMESPACE harl:: DESTINATION ${HARL_PACKAGE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/harlConfig.cmake.in
    ${PROJECT_BINARY_DIR}/harlConfig.cmake INSTALL_DESTINATION ${HARL_PACKAGE_DIR})
# Before 1.0 a new minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/harlConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/harlConfig.cmake ${PROJECT_BINARY_DIR}/harlConfigVersion.cmake
    ${PROJECT_SOURCE_DIR}/cmake/harlWx.cmake DESTINATION ${HARL_PACKAGE_DIR})

# harl.pc finds its prefix from where it lies, so that an installed tree can move. wxWidgets
# base has no pkg-config file: its flags go in as this build found them.
file(RELATIVE_PATH HARL_PC_PREFIX_FROM_PCFILEDIR /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" HARL_PC_PREFIX_FROM_PCFILEDIR ${HARL_PC_PREFIX_FROM_PCFILEDIR})
list(TRANSFORM wxWidgets_INCLUDE_DIRS PREPEND "-I" OUTPUT_VARIABLE wxCflags)
list(TRANSFORM wxWidgets_DEFINITIONS PREPEND "-D" OUTPUT_VARIABLE wxDefinitions)
list(APPEND wxCflags ${wxDefinitions} -DwxUSE_GUI=0)
list(JOIN wxCflags " " HARL_PC_WX_CFLAGS)
set(wxLibs ${wxWidgets_LIBRARIES})
list(REMOVE_ITEM wxLibs "")
list(JOIN wxLibs " " HARL_PC_WX_LIBS)
configure_file(${PROJECT_SOURCE_DIR}/cmake/harl.pc.in ${PROJECT_BINARY_DIR}/harl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/harl.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The host tool comes from a folder that may be added after this file: look for it once the
# whole top-level file has run.
function(harl_install_tools)
    if(TARGET harl-img)
        install(TARGETS harl-img RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
endfunction()
cmake_language(DEFER CALL harl_install_tools)
