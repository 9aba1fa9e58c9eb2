# Cross build of the Windows DLL with Debian's mingw-w64 compilers (x86_64).
set(ZU_MINGW_ARCH x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
