# cmake -DGLOBS=/usr/share/mime/globs2 -DOUTPUT=table.inc -P content_types_table.cmake
#
# Writes one row {"extension", "media type"}, per extension that a simple glob (*.extension) of shared-mime-info names.
# The heaviest glob wins, and the first among equals: the file has them in that order. Globs that tell capitals from
# small letters (*.C) have no place in a table that does not.
file(STRINGS ${GLOBS} LINES REGEX "^[0-9]+:[^:]+:\\*\\.[^[A-Z.*?:]+$")
set(ROWS)
foreach(LINE IN LISTS LINES)
  string(REGEX MATCH "^[0-9]+:([^:]+):\\*\\.(.+)$" MATCHED "${LINE}")
  set(TYPE "${CMAKE_MATCH_1}")
  set(EXTENSION "${CMAKE_MATCH_2}")
  if(NOT DEFINED "TYPE_OF_${EXTENSION}")
    set("TYPE_OF_${EXTENSION}" "${TYPE}")
    list(APPEND ROWS "{\"${EXTENSION}\", \"${TYPE}\"},")
  endif()
endforeach()
list(SORT ROWS)
list(JOIN ROWS "\n" TEXT)
file(WRITE ${OUTPUT} "${TEXT}\n")
