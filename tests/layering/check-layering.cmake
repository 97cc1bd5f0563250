# cmake -DLAYER_INFO=<build>/layers/toolkit.cmake -DWORK_DIR=<scratch>
#       -DGENERATOR=<generator> -DCOMPILER=<c++> -P check-layering.cmake
#
# Adds a file to the toolkit layer of an existing build, in a scratch project,
# three ways: the control must build; an include of a publish header must fail
# to compile; a call into publish must fail to link.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK_DIR}
        -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${COMPILER} -DZD_LAYER_INFO=${LAYER_INFO}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(rc)
    message(FATAL_ERROR "the scratch project does not configure:\n${out}")
endif()

function(build case)
    execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR} --target ${case}
        RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    set(rc ${rc} PARENT_SCOPE)
    set(out ${out} PARENT_SCOPE)
endfunction()

build(allowed)
if(rc)
    message(FATAL_ERROR "a toolkit file using only core and resources does not build:\n${out}")
endif()

# expect_failure(<case> <what it does> <regex the failure must match>)
function(expect_failure case what pattern)
    build(${case})
    if(NOT rc)
        message(FATAL_ERROR "a toolkit file ${what} built")
    endif()
    if(NOT out MATCHES "${pattern}")
        message(FATAL_ERROR "a toolkit file ${what} failed otherwise:\n${out}")
    endif()
endfunction()

expect_failure(forbidden_include "including a publish header"
    "publish/ZDCategory.h: No such file")
expect_failure(forbidden_call "calling into publish"
    "undefined reference to [^\n]*ZDCategory::categoryWithDisplayNameValue")
message(STATUS "toolkit: the control builds; a publish include and a publish call fail")
