# Cross-building the Win32 DLL and the tests with mingw-w64 for
# COLL_MINGW_ARCH (set by mingw-x86_64.cmake and mingw-i686.cmake). The
# -posix compilers: std::thread in the tests needs their thread model.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ${COLL_MINGW_ARCH})
set(CMAKE_C_COMPILER ${COLL_MINGW_ARCH}-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER ${COLL_MINGW_ARCH}-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER ${COLL_MINGW_ARCH}-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${COLL_MINGW_ARCH}-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
