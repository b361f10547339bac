# The rooms of the house. Each folder of sources is a module: a library that names what it uses.
#
#   add_module(main/quota LOG_SOURCE ../main/quota USES main/user main/sql ... LINKS libraries)
#
# A module may use the modules that it names and all that these use. Its sources include headers by
# their path from the root of the tree, "main/quota/record.h", and public ones as <spoolcap/quota.h>.
# lint/check-includes holds the sources to that, with the list that is written here.
# LOG_SOURCE is the name under which the module logs. APART keeps a module out of libspoolcap.so: only
# the programs that link it have it.
function(add_module folder)
  cmake_parse_arguments(PARSE_ARGV 1 module "APART" "LOG_SOURCE" "USES;LINKS;EXCLUDE")
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
  list(TRANSFORM module_USES REPLACE "/" "_" OUTPUT_VARIABLE used)
  target_link_libraries(${name} PUBLIC ${used} ${module_LINKS} PRIVATE warnings)
  if(NOT module_APART)
    set_property(GLOBAL APPEND PROPERTY spoolcap_modules ${name})
  endif()
  string(REPLACE ";" " " uses "${module_USES}")
  file(APPEND ${PROJECT_BINARY_DIR}/modules.txt "${folder}: ${uses}\n")
endfunction()

file(WRITE ${PROJECT_BINARY_DIR}/modules.txt "")
