# Renders a small picture, lets the README's program copy it, and compares the two.

file(REMOVE_RECURSE "${DIR}")
file(MAKE_DIRECTORY "${DIR}")
execute_process(COMMAND "${RENDER}" . --width 16 --height 9 --frame 1
    WORKING_DIRECTORY "${DIR}" OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
file(RENAME "${DIR}/frame.0001.tga" "${DIR}/in.tga")
execute_process(COMMAND "${PROGRAM}" WORKING_DIRECTORY "${DIR}" COMMAND_ERROR_IS_FATAL ANY)

file(SIZE "${DIR}/out.tga" size)
math(EXPR expected "18 + 16 * 9 * 3") # The header, then 24-bit pixels: the copy has no alpha channel.
if(NOT size EQUAL expected)
    message(FATAL_ERROR "The copy has ${size} bytes instead of ${expected}")
endif()
