# What every target of this project is compiled with.

if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64|AMD64)$")
    message(FATAL_ERROR "rastkit is written for x86-64 processors, and this is ${CMAKE_SYSTEM_PROCESSOR}")
endif()

set(RASTKIT_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion)
if(RASTKIT_WERROR)
    list(APPEND RASTKIT_WARNINGS -Werror)
endif()

set(RASTKIT_SANITIZERS "${RASTKIT_SANITIZE}")
if(RASTKIT_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "RASTKIT_BUILD_FUZZERS needs Clang for its libFuzzer, but the compiler is "
            "${CMAKE_CXX_COMPILER_ID} (${CMAKE_CXX_COMPILER}). Use `cmake --preset fuzz`, or configure a new "
            "build folder with -DCMAKE_CXX_COMPILER=clang++.")
    endif()
    # Without the other two a fuzzer runs past most of what it finds.
    set(RASTKIT_SANITIZERS "fuzzer-no-link,address,undefined")
endif()

# C++20, the warning set, hidden visibility, and the sanitizers that the build asks for.
function(rastkit_target_defaults target)
    target_compile_features(${target} PRIVATE cxx_std_20)
    target_compile_options(${target} PRIVATE ${RASTKIT_WARNINGS})
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
    if(RASTKIT_SANITIZERS)
        target_compile_options(${target} PRIVATE
            -fsanitize=${RASTKIT_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE -fsanitize=${RASTKIT_SANITIZERS})
    endif()
endfunction()

# A library of this project: its alias, its version, and its headers as seen from the source tree. The
# arguments after the name are the headers that are installed; all others stay private.
function(rastkit_library_defaults target)
    rastkit_target_defaults(${target})
    add_library(rastkit::${target} ALIAS ${target})
    target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${ARGN})
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
        # An installed library finds its neighbours wherever the installed tree is moved.
        INSTALL_RPATH "$ORIGIN")
    # Users may be built as C++17; only this project's own sources need C++20.
    target_compile_features(${target} INTERFACE cxx_std_17)
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    if(NOT BUILD_SHARED_LIBS)
        string(TOUPPER ${target} upper)
        target_compile_definitions(${target} PUBLIC ${upper}_STATIC)
        set_property(TARGET ${target} APPEND PROPERTY RASTKIT_PC_CFLAGS -D${upper}_STATIC)
    endif()
endfunction()

# Links a library of this project to one from outside, and notes what users of the installed library need
# of it:
#
#   rastkit_link_package(target PUBLIC|PRIVATE package imported-target
#       [PC_REQUIRES module...]   pkg-config modules
#       [PC_LIBS flag...])        linker flags, for what has no module
#
# A static library hands on all that it is linked to, a shared one only what its headers use.
function(rastkit_link_package target scope package imported)
    cmake_parse_arguments(PARSE_ARGV 4 arg "" "" "PC_REQUIRES;PC_LIBS")
    # Global, so that a project which includes this one can link to our targets from any of its folders.
    find_package(${package} REQUIRED GLOBAL)
    target_link_libraries(${target} ${scope} ${imported})
    if(scope STREQUAL "PUBLIC" OR NOT BUILD_SHARED_LIBS)
        set_property(GLOBAL APPEND PROPERTY RASTKIT_PACKAGES ${package})
        set_property(TARGET ${target} APPEND PROPERTY RASTKIT_PC_REQUIRES ${arg_PC_REQUIRES})
        set_property(TARGET ${target} APPEND PROPERTY RASTKIT_PC_LIBS ${arg_PC_LIBS})
    endif()
endfunction()

# A program of this project that is installed under the name `program`.
function(rastkit_program_defaults target program)
    rastkit_target_defaults(${target})
    file(RELATIVE_PATH lib_from_bin "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${program}
        INSTALL_RPATH "$ORIGIN/${lib_from_bin}")
    set_property(GLOBAL APPEND PROPERTY RASTKIT_PROGRAMS ${target})
endfunction()

# A libFuzzer target of fuzz/. As a test it runs the files of `corpus` once each, without searching further.
function(rastkit_add_fuzzer name corpus)
    add_executable(${name} ${ARGN})
    rastkit_target_defaults(${name})
    target_link_libraries(${name} PRIVATE rastkit::rastkit)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    add_test(NAME ${name} COMMAND ${name} -runs=0 "${corpus}")
endfunction()
