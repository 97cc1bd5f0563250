# Installs the built library into a scratch prefix, then configures, builds and
# runs a small consumer twice: through find_package(ZDPublish) and through
# pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
    RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
    message(FATAL_ERROR "install failed")
endif()
foreach(header net/JSONHTTPRequest.h net/ZDDigest.h core/ZDError.h)
    if(NOT EXISTS ${prefix}/include/zdpublish/${header})
        message(FATAL_ERROR "missing installed header ${header}")
    endif()
endforeach()
file(GLOB private_headers ${prefix}/include/zdpublish/*/*_p.h)
if(private_headers)
    message(FATAL_ERROR "private headers installed: ${private_headers}")
endif()

foreach(mode cmake pkgconfig)
    set(build ${WORK_DIR}/consumer-${mode})
    execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${build}
            -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix} -DMODE=${mode}
        RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(rc)
        message(FATAL_ERROR "consumer (${mode}) does not configure:\n${out}")
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} --build ${build}
        RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(rc)
        message(FATAL_ERROR "consumer (${mode}) does not build:\n${out}")
    endif()
    execute_process(COMMAND ${build}/consumer RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(rc OR NOT out MATCHES "900150983cd24fb0d6963f7d28e17f72")
        message(FATAL_ERROR "consumer (${mode}) failed:\n${out}")
    endif()
    execute_process(COMMAND readelf -d ${build}/consumer OUTPUT_VARIABLE dynamic)
    if(NOT dynamic MATCHES "libzdpublish.so.0")
        message(FATAL_ERROR "consumer (${mode}) does not link the versioned library:\n${dynamic}")
    endif()
endforeach()
