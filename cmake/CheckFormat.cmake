# SPDX-License-Identifier: GPL-3.0-or-later
# Runs clang-format over the project's C++ files: checks by default, rewrites with -DFIX=ON.
file(GLOB_RECURSE files
    ${SOURCE_DIR}/src/*.cpp ${SOURCE_DIR}/src/*.h
    ${SOURCE_DIR}/tools/*.cpp ${SOURCE_DIR}/tools/*.h
    ${SOURCE_DIR}/tests/*.cpp ${SOURCE_DIR}/tests/*.h
    ${SOURCE_DIR}/bench/*.cpp ${SOURCE_DIR}/bench/*.h)
if(FIX)
    execute_process(COMMAND ${CLANG_FORMAT} -i ${files} RESULT_VARIABLE rc)
else()
    execute_process(COMMAND ${CLANG_FORMAT} --dry-run --Werror ${files} RESULT_VARIABLE rc)
endif()
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "clang-format: files are not formatted (run: cmake --build build --target format)")
endif()
