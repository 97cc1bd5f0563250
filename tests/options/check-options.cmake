# cmake -DSOURCE_DIR=<src> -DWORK_DIR=<scratch> -DGENERATOR=<generator>
#       [-DLAUNCHER=<compiler launcher>] -P check-options.cmake
#
# Configures the project with each build option alone and in combinations, and
# as a sub-project of a host's build, each into a scratch folder. With Ninja,
# each build graph is also walked (ninja -n): every file and target a
# combination needs has a rule, without compiling anything. Compiling adds
# nothing here: the options add folders of targets and change no flags of the
# library, which the normal build compiles.
file(REMOVE_RECURSE ${WORK_DIR})
find_program(CLANGXX clang++)
if(NOT CLANGXX)
    message(FATAL_ERROR "clang++ is missing (the fuzzers need it): run tools/install-deps")
endif()

set(off -DZD_BUILD_TESTS=OFF -DZD_BUILD_BENCH=OFF -DZD_BUILD_EXAMPLES=OFF -DZD_BUILD_FUZZERS=OFF)
set(all_on -DZD_BUILD_TESTS=ON -DZD_BUILD_BENCH=ON -DZD_BUILD_EXAMPLES=ON)
set(clang -DCMAKE_CXX_COMPILER=${CLANGXX})
set(launcher "")
if(LAUNCHER)
    set(launcher -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
endif()

function(check_build name dir)
    if(GENERATOR STREQUAL "Ninja")
        execute_process(COMMAND ${CMAKE_COMMAND} --build ${dir} -- -n
            RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
        if(rc)
            message(FATAL_ERROR "${name}: the build graph is incomplete:\n${out}")
        endif()
    endif()
endfunction()

# check_configuration(<name> <cache arguments>...)
function(check_configuration name)
    set(dir ${WORK_DIR}/${name})
    execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${dir} -G ${GENERATOR}
            ${launcher} ${ARGN}
        RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(rc)
        message(FATAL_ERROR "${name} (${ARGN}) does not configure:\n${out}")
    endif()
    check_build(${name} ${dir})
    message(STATUS "${name}: configures")
endfunction()

check_configuration(library-only ${off})
check_configuration(tests ${off} -DZD_BUILD_TESTS=ON)
check_configuration(bench ${off} -DZD_BUILD_BENCH=ON)
check_configuration(examples ${off} -DZD_BUILD_EXAMPLES=ON)
check_configuration(sanitizers ${off} -DZD_SANITIZE=address,undefined)
check_configuration(fuzzers ${off} ${clang} -DZD_BUILD_FUZZERS=ON)
check_configuration(tests-bench-no-examples ${all_on} -DZD_BUILD_EXAMPLES=OFF)
check_configuration(examples-bench-no-tests ${all_on} -DZD_BUILD_TESTS=OFF)
check_configuration(everything-with-sanitizers ${all_on} -DZD_SANITIZE=address,undefined)
check_configuration(everything-with-fuzzers ${all_on} ${clang} -DZD_BUILD_FUZZERS=ON
    -DZD_SANITIZE=address,undefined)

# Pulled into a host's build, the library builds only itself unless asked.
set(dir ${WORK_DIR}/subproject)
execute_process(COMMAND ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/subproject -B ${dir}
        -G ${GENERATOR} ${launcher} -DZD_SOURCE_DIR=${SOURCE_DIR}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(rc)
    message(FATAL_ERROR "the library does not configure as a sub-project:\n${out}")
endif()
check_build(subproject ${dir})
file(STRINGS ${dir}/CMakeCache.txt options REGEX "^ZD_BUILD_[A-Z]+:BOOL=")
foreach(option IN LISTS options)
    if(NOT option MATCHES "=OFF$")
        message(FATAL_ERROR "as a sub-project, ${option}: only the library should be built")
    endif()
endforeach()
list(LENGTH options count)
if(NOT count EQUAL 4)
    message(FATAL_ERROR "as a sub-project, expected four ZD_BUILD_ options, found: ${options}")
endif()
message(STATUS "subproject: configures, with tests, benchmarks, examples and fuzzers off")
