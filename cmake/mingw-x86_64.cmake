# 64-bit Windows with mingw-w64; the test programs run under wine64.
set(COLL_MINGW_ARCH x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh CACHE FILEPATH "Runs the Windows programs")
