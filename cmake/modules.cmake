# The rooms of the house. Each folder of sources is a module: a library that names what it uses.
#
#   add_module(main/quota LOG_SOURCE ../main/quota USES main/user main/sql ... OFFERS quota.h LINKS libraries)
#
# A module may use the modules that it names and all that these use. Its sources include headers by
# their path from the root of the tree, "main/quota/record.h", and public ones as <spoolcap/quota.h>.
# OFFERS names the public headers whose functions the module defines.
# lint/check-includes holds the sources to that, with the list that is written here.
# LOG_SOURCE is the name under which the module logs. APART keeps a module out of libspoolcap.so: only
# the programs that link it have it.
function(add_module folder)
  cmake_parse_arguments(PARSE_ARGV 1 module "APART" "LOG_SOURCE" "USES;OFFERS;LINKS;EXCLUDE")
  string(REPLACE "/" "_" name ${folder})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  foreach(file ${module_EXCLUDE})
    list(REMOVE_ITEM sources ${PROJECT_SOURCE_DIR}/${folder}/${file})
  endforeach()
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  if(module_LOG_SOURCE)
    target_compile_definitions(${name} PRIVATE QX_LOG_SOURCE="${module_LOG_SOURCE}")
  endif()
  target_link_libraries(${name} PUBLIC ${module_LINKS} PRIVATE warnings)
  use_modules(${name} ${folder} USES ${module_USES} OFFERS ${module_OFFERS})
  if(NOT module_APART)
    set_property(GLOBAL APPEND PROPERTY spoolcap_modules ${name})
  endif()
endfunction()

# Links a target to the modules that its folder uses, and writes the folder's line of the list:
# "folder: modules | public headers". A module must stand after all that it uses, so that no arrow
# leads up and none in a circle.
function(use_modules target folder)
  cmake_parse_arguments(PARSE_ARGV 2 module "" "" "USES;OFFERS")
  foreach(used ${module_USES})
    string(REPLACE "/" "_" library ${used})
    if(NOT TARGET ${library})
      message(FATAL_ERROR "${folder} uses ${used}, which must stand before it")
    endif()
    target_link_libraries(${target} PUBLIC ${library})
  endforeach()
  list(JOIN module_USES " " uses)
  list(JOIN module_OFFERS " " offers)
  file(APPEND ${PROJECT_BINARY_DIR}/modules.txt "${folder}: ${uses} | ${offers}\n")
endfunction()

file(WRITE ${PROJECT_BINARY_DIR}/modules.txt "")
