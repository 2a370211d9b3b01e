# Turns files into a C++ source: cmake -DFILES=a;b -DINTO=page_files.cpp -P embed_page.cmake
# Indentation, comments and ends of lines that need none stay behind: they are for readers of the sources.
set(most 61440)  # bytes of all files together: a page that needs no build step stays small
set(type_html "text/html; charset=utf-8")
set(type_css "text/css; charset=utf-8")
set(type_js "text/javascript; charset=utf-8")
set(type_svg "image/svg+xml")

set(total 0)
set(arrays "")
set(rows "")
list(SORT FILES)
foreach(path IN LISTS FILES)
  get_filename_component(name ${path} NAME)
  get_filename_component(ending ${path} LAST_EXT)
  string(SUBSTRING ${ending} 1 -1 ending)
  if(NOT type_${ending})
    message(FATAL_ERROR "${name}: embed_page.cmake knows no media type of .${ending}")
  endif()
  file(READ ${path} text)
  string(REGEX REPLACE "\n[ \n]+" "\n" text "${text}")
  if(ending STREQUAL js)
    string(REGEX REPLACE "  //[^\n]*" "" text "${text}")
    string(REGEX REPLACE "\n//[^\n]*" "" text "\n${text}")
    string(REGEX REPLACE "([{(,;])\n" "\\1" text "${text}")
    string(REGEX REPLACE "\n([})])" "\\1" text "${text}")
  elseif(ending STREQUAL css)
    string(REGEX REPLACE "([:;,{]) +" "\\1" text "${text}")
    string(REGEX REPLACE " +([{}])" "\\1" text "${text}")
    string(REGEX REPLACE "([;{}])\n" "\\1" text "${text}")
    string(REPLACE ";}" "}" text "${text}")
  endif()
  string(HEX "${text}" bytes)
  string(LENGTH "${bytes}" size)
  math(EXPR size "${size} / 2")
  math(EXPR total "${total} + ${size}")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(MAKE_C_IDENTIFIER "file_${name}" array)
  string(APPEND arrays "constexpr unsigned char ${array}[] = {${bytes}};\n")
  string(APPEND rows "    {\"/${name}\", \"${type_${ending}}\", ${array}},\n")
endforeach()
if(total GREATER most)
  message(FATAL_ERROR "the page has ${total} bytes, more than ${most}")
endif()
file(WRITE ${INTO} "// Made by embed_page.cmake.\n#include \"view/page_files.h\"\n
namespace kinetrel::view {\nnamespace {\n
${arrays}
constexpr PageFile kFiles[] = {\n${rows}};\n
}  // namespace\n
std::span<const PageFile> PageFiles() { return kFiles; }\n
}  // namespace kinetrel::view\n")
