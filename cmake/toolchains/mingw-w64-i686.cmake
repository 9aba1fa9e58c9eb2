# Cross build of the Windows DLL with Debian's mingw-w64 compilers (i686).
set(ZU_MINGW_ARCH i686)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
