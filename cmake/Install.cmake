# Installs the two libraries, their headers, a CMake package (find_package(vekr) with the
# targets vekr::vekr and vekr::vekcore) and pkg-config files (vekr.pc, vekcore.pc).
include(CMakePackageConfigHelpers)

set(VEKR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vekr)

install(TARGETS vekr vekcore EXPORT vekrTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
                NAMELINK_COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/vekr.h ${PROJECT_SOURCE_DIR}/include/vekcore.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development)

# OpenMP stays a private, shared dependency of both libraries: consumers link nothing of it,
# so the package needs no find_dependency.
install(EXPORT vekrTargets NAMESPACE vekr:: DESTINATION ${VEKR_CMAKE_DIR}
        COMPONENT Development)
configure_package_config_file(cmake/vekrConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/vekrConfig.cmake
                              INSTALL_DESTINATION ${VEKR_CMAKE_DIR})
# Before 1.0 a minor release may change the interface: 0.1 accepts 0.1.x only.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vekrConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vekrConfig.cmake ${PROJECT_BINARY_DIR}/vekrConfigVersion.cmake
        DESTINATION ${VEKR_CMAKE_DIR} COMPONENT Development)

# The pkg-config files locate the prefix from their own directory, so an install moved
# elsewhere, or made with `cmake --install --prefix`, still points at itself. Absolute
# install directories are written as they are.
function(vekr_pc_dir out dir)
    if(IS_ABSOLUTE "${dir}")
        set(${out} "${dir}" PARENT_SCOPE)
    else()
        set(${out} "\${prefix}/${dir}" PARENT_SCOPE)
    endif()
endfunction()
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(VEKR_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
    file(RELATIVE_PATH pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
    string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
    set(VEKR_PC_PREFIX "\${pcfiledir}/${pc_to_prefix}")
endif()
vekr_pc_dir(VEKR_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
vekr_pc_dir(VEKR_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
# A static link would need the OpenMP runtime the libraries were built with.
list(TRANSFORM OpenMP_CXX_LIB_NAMES PREPEND -l OUTPUT_VARIABLE openmp_libs)
list(JOIN openmp_libs " " VEKR_PC_OPENMP_LIBS)
foreach(pc vekr vekcore)
    configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
            COMPONENT Development)
endforeach()
