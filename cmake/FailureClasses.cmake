# relaytool-endpoint's failure classes come from one table,
# endpoint/classes.def, which the program includes. From the same lines come
#   RELAYTOOL_FINAL_STATUSES  the exit statuses of the final classes, for the
#                             user unit's RestartPreventExitStatus=
#   RELAYTOOL_CLASS_ROWS      the rows of the manual page's table
set(_classes "${PROJECT_SOURCE_DIR}/endpoint/classes.def")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_classes}")
file(STRINGS "${_classes}" _lines REGEX "^CLASS\\(")
set(RELAYTOOL_FINAL_STATUSES "")
set(RELAYTOOL_CLASS_ROWS "")
foreach(_line IN LISTS _lines)
  if(NOT _line MATCHES "^CLASS\\([A-Za-z]+, \"([a-z-]+)\", (true|false), (Normal|Long), ([0-9]+), \"([^\"]+)\"\\)$")
    message(FATAL_ERROR "endpoint/classes.def: not understood: ${_line}")
  endif()
  if(CMAKE_MATCH_2)
    set(_decision "stop")
    string(APPEND RELAYTOOL_FINAL_STATUSES " ${CMAKE_MATCH_4}")
  elseif(CMAKE_MATCH_3 STREQUAL "Long")
    set(_decision "retry (longer)")
  else()
    set(_decision "retry")
  endif()
  string(APPEND RELAYTOOL_CLASS_ROWS
         ".It ${CMAKE_MATCH_1} Ta ${_decision} Ta ${CMAKE_MATCH_4} Ta ${CMAKE_MATCH_5}\n")
endforeach()
string(STRIP "${RELAYTOOL_FINAL_STATUSES}" RELAYTOOL_FINAL_STATUSES)
string(STRIP "${RELAYTOOL_CLASS_ROWS}" RELAYTOOL_CLASS_ROWS)
