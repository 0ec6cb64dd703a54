# Makes of the page's parts and of the libraries from npm one source file that holds the bytes of the page: what
# comes before the data of a run, and what comes behind.
#   cmake -DSOURCE=... -DPACKAGES=... -DRESULT=... -P assemble.cmake
file(READ ${SOURCE}/page.html page)
file(READ ${SOURCE}/page.css style)
file(READ ${PACKAGES}/uplot/dist/uPlot.min.css library_style)
file(READ ${PACKAGES}/uplot/dist/uPlot.iife.min.js libraries)
file(READ ${PACKAGES}/uplot/LICENSE licences)
foreach(part format data table icicle chart page)
  file(READ ${SOURCE}/${part}.js script)
  string(APPEND scripts "${script}\n")
endforeach()
string(REPLACE "&" "&amp;" licences "${licences}")
string(REPLACE "<" "&lt;" licences "${licences}")

string(REPLACE "@STYLE@" "${library_style}\n${style}" page "${page}")
string(REPLACE "@LICENCES@" "uPlot\n\n${licences}" page "${page}")
string(REPLACE "@LIBRARIES@" "${libraries}" page "${page}")
string(REPLACE "@SCRIPTS@" "${scripts}" page "${page}")
string(FIND "${page}" "@DATA@" at)
string(LENGTH "@DATA@" length)
string(SUBSTRING "${page}" 0 ${at} head)
math(EXPR at "${at} + ${length}")
string(SUBSTRING "${page}" ${at} -1 tail)

# The bytes of a text as an array, sixteen on a line.
function(append_bytes name text)
  string(HEX "${text}" bytes)
  string(REGEX REPLACE "(................................)" "\\1\n" bytes "${bytes}")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND code "constexpr char ${name}[] = {\n${bytes}};\n")
  set(code "${code}" PARENT_SCOPE)
endfunction()

set(code "// Made by assemble.cmake.\n#include \"page_template.h\"\n\nnamespace {\n")
append_bytes(head "${head}")
append_bytes(tail "${tail}")
string(APPEND code "} // namespace\n\nnamespace memtrack {\n"
  "const PageTemplate page_template = {{head, sizeof head}, {tail, sizeof tail}};\n"
  "} // namespace memtrack\n")
file(WRITE ${RESULT} "${code}")
