# Every page is clean to both readers of man pages, and has a section for each of its tool's commands.
foreach(page ${PAGES})
  execute_process(COMMAND mandoc -Tlint -W warning ${page} RESULT_VARIABLE result OUTPUT_VARIABLE said
                  ERROR_VARIABLE said)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${said}")
  endif()
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C.UTF-8 MANROFFSEQ= MANWIDTH=80
                          man --warnings -E UTF-8 -l -Tutf8 -Z ${page}
                  RESULT_VARIABLE result OUTPUT_QUIET ERROR_VARIABLE said)
  if(said OR NOT result EQUAL 0)
    message(FATAL_ERROR "man: ${page}: ${said}")
  endif()
endforeach()
list(FILTER PAGES INCLUDE REGEX "/memtrack.1$")
file(READ ${PAGES} text)
foreach(part "SS \"memtrack export\"" "-fail" "SH NAME\nmemtrack" "SH \"EXIT STATUS\"\n0 when done")
  string(REPLACE "-" "\\-" part "${part}")
  string(FIND "${text}" "${part}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "memtrack(1) has no '${part}'")
  endif()
endforeach()
