# Puts the page together: its style and scripts are part of it, and its policy allows just these, by
# their hashes. What comes before and behind the data becomes two texts of the program.

# The policy wants hashes in base64.
function(base64_hash text result)
  string(SHA256 hex "${text}")
  set(alphabet ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
  set(coded "")
  foreach(place RANGE 0 60 6)
    string(SUBSTRING "${hex}00" ${place} 6 group)
    foreach(shift 18 12 6 0)
      math(EXPR index "(0x${group} >> ${shift}) & 63")
      string(SUBSTRING ${alphabet} ${index} 1 letter)
      string(APPEND coded ${letter})
    endforeach()
  endforeach()
  # The hash is a byte short of whole groups.
  string(REGEX REPLACE "A$" "=" coded ${coded})
  set(${result} "'sha256-${coded}'" PARENT_SCOPE)
endfunction()

function(read_part file result)
  file(READ ${CMAKE_CURRENT_SOURCE_DIR}/${file} text)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${file})
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

function(embed_page output)
  read_part(page/page.html page)
  read_part(page/page.css style)
  read_part(third_party/d3-hierarchy/LICENSE licence)
  read_part(third_party/d3-hierarchy/d3-hierarchy.min.js layout)
  # dist/d3-hierarchy.min.js of version 3.1.3, as its package on npm has it.
  string(SHA256 layout_sum "${layout}")
  if(NOT layout_sum STREQUAL 971f374ce9fdbec711eb2358003e2bb755bff22ec6852dc5ebd59f987270db64)
    message(FATAL_ERROR "report/third_party/d3-hierarchy is not what its package holds")
  endif()
  set(script "(() => {\n'use strict';\n")
  foreach(name model elements layout treemap table lists page)
    read_part(page/${name}.js part)
    string(APPEND script "${part}")
  endforeach()
  string(APPEND script "})();\n")

  base64_hash("${style}" style_hash)
  base64_hash("${layout}" layout_hash)
  base64_hash("${script}" script_hash)
  string(CONCAT policy "default-src 'none'; script-src ${layout_hash} ${script_hash}; "
    "style-src ${style_hash}; base-uri 'none'; form-action 'none'")
  foreach(part policy style licence layout script)
    string(TOUPPER @PAGE_${part}@ mark)
    string(REPLACE ${mark} "${${part}}" page "${page}")
  endforeach()
  string(FIND "${page}" @PAGE_DATA@ place)
  math(EXPR behind "${place} + 11")
  string(SUBSTRING "${page}" 0 ${place} page_before_data)
  string(SUBSTRING "${page}" ${behind} -1 page_after_data)
  file(CONFIGURE OUTPUT ${output} @ONLY CONTENT [[
#include "report/page_text.h"
const std::string_view page_before_data = R"page~(@page_before_data@)page~";
const std::string_view page_after_data = R"page~(@page_after_data@)page~";
]])
endfunction()
