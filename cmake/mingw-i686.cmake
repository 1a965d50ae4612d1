# 32-bit Windows with mingw-w64 (the DLL only: there is no 32-bit wine here).
set(COLL_MINGW_ARCH i686)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
