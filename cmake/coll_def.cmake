# Writes the module-definition file of coll.dll: every function declared in
# the public headers and defined in the library (LIB, read with NM), under
# its plain name. Five functions that 32-bit callers have always linked under
# their decorated __stdcall names are exported under those names instead on
# 32-bit, and under both on 64-bit.
#   cmake -DNM=... -DLIB=... -DHEADERS=<include dir> -DBITS=32|64 -DOUT=... -P coll_def.cmake
set(decorated collAlloc collFree collGetTableHandles collTaskAbort tableLoad)

execute_process(COMMAND ${NM} -g --defined-only ${LIB} OUTPUT_VARIABLE syms RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIB}")
endif()
file(READ ${HEADERS}/coll.h api)
file(READ ${HEADERS}/coll_host.h host)
string(APPEND api "${host}")
string(REGEX MATCHALL "COLLAPI[ \t]+[A-Za-z0-9_]+[ \t]*\\(" decls "${api}")

set(def "; The exports of coll.dll (written by the build from the public headers).\nLIBRARY coll.dll\nEXPORTS\n")
foreach(decl IN LISTS decls)
  string(REGEX REPLACE "COLLAPI[ \t]+([A-Za-z0-9_]+).*" "\\1" name "${decl}")
  # The symbol as compiled: _name@N for __stdcall on 32-bit, name on 64-bit.
  if(NOT syms MATCHES " T _?${name}(@[0-9]+)?\n")
    continue()  # not in this build
  endif()
  set(suffix "${CMAKE_MATCH_1}")
  list(FIND decorated ${name} idx)
  if(BITS EQUAL 32)
    if(idx GREATER_EQUAL 0)
      string(APPEND def "  _${name}${suffix} = ${name}${suffix}\n")
    else()
      string(APPEND def "  ${name} = ${name}${suffix}\n")
    endif()
  else()
    string(APPEND def "  ${name}\n")
    if(idx GREATER_EQUAL 0)
      # 64-bit has no decoration of its own: the 32-bit name, by argument bytes.
      string(REGEX MATCH "COLLAPI[ \t]+${name}[ \t]*\\(([^)]*)\\)" m "${api}")
      string(REGEX MATCHALL "," commas "${CMAKE_MATCH_1}")
      list(LENGTH commas n)
      math(EXPR bytes "(${n} + 1) * 4")
      string(APPEND def "  _${name}@${bytes} = ${name}\n")
    endif()
  endif()
endforeach()

if(EXISTS ${OUT})
  file(READ ${OUT} old)
endif()
if(NOT "${old}" STREQUAL "${def}")
  file(WRITE ${OUT} "${def}")
endif()
