# Compares INSTALLED (a list of headers, relative to ROOT) with what rastkit/rastkit.h includes.

set(main "rastkit/rastkit.h")
execute_process(
    COMMAND "${COMPILER}" -std=c++17 -MM -I. ${main}
    WORKING_DIRECTORY "${ROOT}"
    OUTPUT_VARIABLE rule
    COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[a-z_0-9/]+\\.h" included "${rule}")

set(left_out ${INSTALLED})
list(REMOVE_ITEM left_out ${included})
if(left_out)
    message(SEND_ERROR "Installed, but not included by ${main}: ${left_out}")
endif()

list(REMOVE_ITEM included ${INSTALLED})
if(included)
    message(SEND_ERROR "Included by ${main}, but not installed: ${included}")
endif()
