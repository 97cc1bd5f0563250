# The layers of the library and the rule between them, kept by the build.
#
# zd_layer(<layer> [USES <layer>...]) sets up the object library zd_<layer>,
# built from src/<layer>/, for the layers it may use:
#
# - Includes: the layer compiles against an include root of its own in the
#   build tree, <build>/layers/<layer>/, that holds links to src/<layer> and to
#   the folders of the layers it USES, and nothing else. Sources keep writing
#   #include "net/JSONHTTPRequest.h"; from a layer that may not use net, that
#   names a file that is not there.
# - Links: zd_layercheck_<layer> links the layer's objects with those of the
#   layers it USES, and nothing else, into a shared object with
#   --no-undefined: a call into a layer it may not use is an undefined symbol
#   and fails the build. (Skipped under sanitizers, whose runtimes come with the
#   executable.)
#
# USES lists every layer the layer may reach, not only the nearest: the build
# neither adds the layers those use nor checks that the list is closed.
set(ZD_LAYER_ROOTS ${PROJECT_BINARY_DIR}/layers)

function(zd_layer layer)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "USES")
    set(target zd_${layer})
    set(root ${ZD_LAYER_ROOTS}/${layer})
    set(allowed ${layer} ${arg_USES})

    file(MAKE_DIRECTORY ${root})
    # An edge dropped since the last configure leaves its link behind.
    file(GLOB present RELATIVE ${root} LIST_DIRECTORIES true ${root}/*)
    foreach(entry IN LISTS present)
        if(NOT entry IN_LIST allowed)
            file(REMOVE ${root}/${entry})
        endif()
    endforeach()
    foreach(used IN LISTS allowed)
        if(NOT EXISTS ${root}/${used})
            file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${used} ${root}/${used} SYMBOLIC)
        endif()
    endforeach()

    target_include_directories(${target} PRIVATE ${root})
    # The objects go into the shared library, whose exports they define.
    target_compile_definitions(${target} PRIVATE zdpublish_EXPORTS)
    set(objects ${target})
    foreach(used IN LISTS arg_USES)
        target_link_libraries(${target} PUBLIC zd_${used})
        list(APPEND objects zd_${used})
    endforeach()
    zd_strict(${target})
    set_property(GLOBAL APPEND PROPERTY ZD_LAYERS ${target})

    # What the layering test needs to add a source to this layer's check.
    set(object_files "")
    foreach(object IN LISTS objects)
        list(APPEND object_files "$<TARGET_OBJECTS:${object}>")
    endforeach()
    file(GENERATE OUTPUT ${root}.cmake CONTENT
"set(ZD_LAYER_ROOT \"${root}\")
set(ZD_GENERATED_INCLUDE_DIR \"${ZD_GENERATED_INCLUDE_DIR}\")
set(ZD_LAYER_OBJECTS \"${object_files}\")
")

    if(NOT ZD_SANITIZE)
        add_library(zd_layercheck_${layer} SHARED)
        target_link_libraries(zd_layercheck_${layer} PRIVATE ${objects})
        target_link_options(zd_layercheck_${layer} PRIVATE -Wl,--no-undefined)
        set_target_properties(zd_layercheck_${layer} PROPERTIES
            LIBRARY_OUTPUT_DIRECTORY ${ZD_LAYER_ROOTS}/check)
    endif()
endfunction()
