# SPDX-License-Identifier: GPL-3.0-or-later
# Common compile settings for every Quillvox target.

set(QUILLVOX_WARNINGS -Wall -Wextra -Wpedantic -Wold-style-cast -Wnon-virtual-dtor -Wsuggest-override)

if(QUILLVOX_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
endif()

if(QUILLVOX_TSAN)
    if(QUILLVOX_SANITIZE OR QUILLVOX_FUZZ)
        message(FATAL_ERROR "QUILLVOX_TSAN cannot be combined with QUILLVOX_SANITIZE or QUILLVOX_FUZZ")
    endif()
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
endif()

if(QUILLVOX_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "QUILLVOX_FUZZ needs clang (-DCMAKE_CXX_COMPILER=clang++) and libFuzzer")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                        -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
endif()

# quillvox_defaults(<target>): warnings (errors under CI) for our own code.
function(quillvox_defaults target)
    target_compile_options(${target} PRIVATE ${QUILLVOX_WARNINGS})
    if(QUILLVOX_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    target_compile_definitions(${target} PRIVATE QT_NO_KEYWORDS
                                                 QT_USE_QSTRINGBUILDER)
endfunction()

# quillvox_library(<name> SOURCES ... DEPS ...): one static library per subsystem folder.
function(quillvox_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
    quillvox_defaults(${name})
endfunction()
