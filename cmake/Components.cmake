# The library's components, each an object library that sees only its own headers and
# those of the components it names below it. The headers it may include are gathered,
# as links, in a folder of its own (layers/<name>), and that folder is its only way to
# the source tree: an include that climbs to a component above it, or reaches one
# beside it, names a file the compiler cannot find, and the build stops there.
#
#   as_component(NAME FILES <entry>... [EXCEPT <file>...] [DEPENDS <component>...]
#                [LINKS <library>...] [SOURCES <generated source>...])
#
# An entry below src/ is a glob ("core/common/*.h") or, ending in "/", a whole folder.
# Components are declared bottom up; every file of src/ must belong to exactly one.

function(as_component name)
  cmake_parse_arguments(C "" "" "FILES;EXCEPT;DEPENDS;LINKS;SOURCES" ${ARGN})
  set(_root "${PROJECT_SOURCE_DIR}/src")
  set(_files)
  foreach(_entry IN LISTS C_FILES)
    if(_entry MATCHES "/$")
      file(GLOB_RECURSE _found CONFIGURE_DEPENDS RELATIVE "${_root}" "${_root}/${_entry}*.h" "${_root}/${_entry}*.cpp")
    else()
      file(GLOB _found CONFIGURE_DEPENDS RELATIVE "${_root}" "${_root}/${_entry}")
    endif()
    list(APPEND _files ${_found})
  endforeach()
  if(C_EXCEPT)
    list(REMOVE_ITEM _files ${C_EXCEPT})
  endif()

  set(_headers ${_files})
  list(FILTER _headers INCLUDE REGEX "\\.h$")
  set(_sources ${_files})
  list(FILTER _sources INCLUDE REGEX "\\.cpp$")
  list(TRANSFORM _sources PREPEND "${_root}/")

  # What it may include: its own headers and, through them, all below.
  set(_visible ${_headers})
  foreach(_dep IN LISTS C_DEPENDS)
    get_property(_below GLOBAL PROPERTY AS_COMPONENT_${_dep}_VISIBLE SET)
    if(NOT _below)
      message(FATAL_ERROR "component ${name}: ${_dep} must be declared before it")
    endif()
    get_property(_below GLOBAL PROPERTY AS_COMPONENT_${_dep}_VISIBLE)
    list(APPEND _visible ${_below})
  endforeach()
  list(REMOVE_DUPLICATES _visible)
  set_property(GLOBAL PROPERTY AS_COMPONENT_${name}_VISIBLE ${_visible})
  set_property(GLOBAL APPEND PROPERTY AS_COMPONENT_FILES ${_files})
  set_property(GLOBAL APPEND PROPERTY AS_COMPONENTS ${name})

  set(_layer "${PROJECT_BINARY_DIR}/layers/${name}")
  file(REMOVE_RECURSE "${_layer}")
  foreach(_h IN LISTS _visible)
    get_filename_component(_dir "${_layer}/${_h}" DIRECTORY)
    file(MAKE_DIRECTORY "${_dir}")
    file(CREATE_LINK "${_root}/${_h}" "${_layer}/${_h}" SYMBOLIC)
  endforeach()

  set(_target appliance_storage_${name})
  add_library(${_target} OBJECT ${_sources} ${C_SOURCES})
  as_set_source_names("${_root}" ${_sources})
  target_include_directories(${_target} PRIVATE "${_layer}" "${AS_GEN_DIR}")
  target_compile_definitions(${_target} PRIVATE AS_BUILDING_LIBRARY)
  set_target_properties(${_target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  list(TRANSFORM C_DEPENDS PREPEND "appliance_storage_" OUTPUT_VARIABLE _deps)
  target_link_libraries(${_target} PRIVATE as_warnings ${_deps} ${C_LINKS})
  set_property(GLOBAL APPEND PROPERTY AS_COMPONENT_LINKS ${C_LINKS})
endfunction()

# Fails the configuration when a file of src/ belongs to no component or to two.
function(as_check_components)
  file(GLOB_RECURSE _all CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}/src"
       "${PROJECT_SOURCE_DIR}/src/*.h" "${PROJECT_SOURCE_DIR}/src/*.cpp")
  get_property(_owned GLOBAL PROPERTY AS_COMPONENT_FILES)
  set(_once ${_owned})
  list(REMOVE_DUPLICATES _once)
  list(LENGTH _owned _n)
  list(LENGTH _once _m)
  if(NOT _n EQUAL _m)
    message(FATAL_ERROR "a file of src/ belongs to two components")
  endif()
  list(REMOVE_ITEM _all ${_owned})
  if(_all)
    message(FATAL_ERROR "files of src/ in no component: ${_all}")
  endif()
endfunction()
