# Helpers that turn a folder into a target. A folder is a layer: its headers are included as
# "<folder>/name.h" and are reachable only for the targets that link to it, because every layer has an
# include directory of its own (a link in the build tree), never the whole of src.

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
find_program(LLD ld.lld)
if(LLD)
  add_link_options(-fuse-ld=lld)
endif()

add_library(tarmik_flags INTERFACE)
target_compile_options(tarmik_flags INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
if(TARMIK_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# tarmik_layer(<folder> <layers it may use>...)
# Makes the library tk_<folder> of all sources below <folder>, main.cpp excepted, and, when a main.cpp
# stands in the folder, the executable <folder> as well.
function(tarmik_layer folder)
  string(REPLACE "/" "_" target "tk_${folder}")
  get_filename_component(top ${folder} DIRECTORY)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/${folder}/main\\.cpp$")
  if(folder STREQUAL "dbcache")
    list(FILTER sources EXCLUDE REGEX "/dbcache/schema/")
  endif()
  set(uses)
  foreach(layer ${ARGN})
    string(REPLACE "/" "_" used "tk_${layer}")
    list(APPEND uses ${used})
  endforeach()

  set(include_root ${CMAKE_BINARY_DIR}/include/${target})
  file(MAKE_DIRECTORY ${include_root}/${top})
  if(NOT EXISTS ${include_root}/${folder})
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${folder} ${include_root}/${folder} SYMBOLIC)
  endif()

  if(sources)
    add_library(${target} STATIC ${sources})
    target_include_directories(${target} PUBLIC ${include_root})
    target_link_libraries(${target} PUBLIC ${uses} PRIVATE tarmik_flags)
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE ${include_root})
    target_link_libraries(${target} INTERFACE ${uses})
  endif()

  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/main.cpp)
    get_filename_component(program ${folder} NAME)
    add_executable(${program} ${folder}/main.cpp)
    target_link_libraries(${program} PRIVATE ${target} tarmik_flags)
  endif()
endfunction()

# Links outside libraries into a layer, whether it has sources yet or only headers.
function(tarmik_layer_libraries folder)
  string(REPLACE "/" "_" target "tk_${folder}")
  get_target_property(kind ${target} TYPE)
  if(kind STREQUAL "INTERFACE_LIBRARY")
    target_link_libraries(${target} INTERFACE ${ARGN})
  else()
    target_link_libraries(${target} PUBLIC ${ARGN})
  endif()
endfunction()

# tarmik_tests(<folder> <targets>...)
# All of tests/<folder>/*.cpp as one GoogleTest program test_<folder>.
function(tarmik_tests folder)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT sources)
    return()
  endif()
  string(REPLACE "/" "_" name ${folder})
  add_executable(test_${name} ${sources})
  target_link_libraries(test_${name} PRIVATE ${ARGN} tk_support tarmik_flags GTest::gmock GTest::gtest_main)
  add_test(NAME ${name} COMMAND test_${name} --gtest_brief=0)
  set_tests_properties(${name} PROPERTIES
    TIMEOUT 900
    ENVIRONMENT "TARMIK_BIN=${CMAKE_RUNTIME_OUTPUT_DIRECTORY};TARMIK_SOURCE=${CMAKE_SOURCE_DIR}")
endfunction()
