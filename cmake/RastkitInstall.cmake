# What `cmake --install` copies: the libraries, their public headers, the programs, and the files by which
# CMake and pkg-config find them. The installed tree may be moved: no file in it holds its own place.

include(CMakePackageConfigHelpers)

set(rastkit_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/rastkit")
set(rastkit_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(TARGETS qutils rastkit EXPORT rastkitTargets FILE_SET HEADERS)
install(EXPORT rastkitTargets NAMESPACE rastkit:: DESTINATION "${rastkit_package_dir}")

get_property(rastkit_programs GLOBAL PROPERTY RASTKIT_PROGRAMS)
if(rastkit_programs)
    install(TARGETS ${rastkit_programs})
endif()

# The CMake package.

get_property(rastkit_packages GLOBAL PROPERTY RASTKIT_PACKAGES)
list(REMOVE_DUPLICATES rastkit_packages)
list(TRANSFORM rastkit_packages REPLACE "(.+)" "find_dependency(\\1)")
list(JOIN rastkit_packages "\n" RASTKIT_FIND_DEPENDENCIES)
configure_package_config_file(
    "${CMAKE_CURRENT_LIST_DIR}/rastkitConfig.cmake.in" "${PROJECT_BINARY_DIR}/rastkitConfig.cmake"
    INSTALL_DESTINATION "${rastkit_package_dir}"
    NO_SET_AND_CHECK_MACRO)
# Before 1.0 each minor version may break its users.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/rastkitConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/rastkitConfig.cmake"
    "${PROJECT_BINARY_DIR}/rastkitConfigVersion.cmake"
    DESTINATION "${rastkit_package_dir}")

# The pkg-config files.

# A folder below the prefix, or an absolute one where the builder chose that.
function(rastkit_pc_path result dir)
    set(path "\${prefix}")
    cmake_path(APPEND path "${dir}")
    set(${result} "${path}" PARENT_SCOPE)
endfunction()

# A property of a target, as a list with `separator`.
function(rastkit_pc_list result target property separator)
    get_target_property(items ${target} ${property})
    if(NOT items)
        set(items "")
    endif()
    list(REMOVE_DUPLICATES items)
    list(JOIN items "${separator}" joined)
    set(${result} "${joined}" PARENT_SCOPE)
endfunction()

# Writes <target>.pc. The arguments after `description` are modules that every user needs.
function(rastkit_install_pc target description)
    set(PC_NAME ${target})
    set(PC_DESCRIPTION "${description}")
    list(JOIN ARGN ", " PC_REQUIRES)
    rastkit_pc_list(PC_REQUIRES_PRIVATE ${target} RASTKIT_PC_REQUIRES ", ")
    rastkit_pc_list(PC_LIBS_PRIVATE ${target} RASTKIT_PC_LIBS " ")
    rastkit_pc_list(PC_CFLAGS ${target} RASTKIT_PC_CFLAGS " ")
    rastkit_pc_path(PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
    rastkit_pc_path(PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
    file(RELATIVE_PATH PC_PREFIX
        "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
    string(REGEX REPLACE "/$" "" PC_PREFIX "${PC_PREFIX}")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/library.pc.in" "${PROJECT_BINARY_DIR}/${target}.pc" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/${target}.pc" DESTINATION "${rastkit_pc_dir}")
endfunction()

rastkit_install_pc(qutils "Utility library of rastkit")
rastkit_install_pc(rastkit "${PROJECT_DESCRIPTION}" "qutils = ${PROJECT_VERSION}")
