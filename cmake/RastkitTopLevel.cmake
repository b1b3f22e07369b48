# Settings that are the builder's to choose: made here only when no other project includes this one.

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()

# For clang-tidy and editors.
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# A compiler cache makes rebuilding after a switch of branches a matter of seconds.
if(NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
    find_program(RASTKIT_CCACHE ccache)
    mark_as_advanced(RASTKIT_CCACHE)
    if(RASTKIT_CCACHE)
        set(CMAKE_CXX_COMPILER_LAUNCHER "${RASTKIT_CCACHE}")
    endif()
endif()
