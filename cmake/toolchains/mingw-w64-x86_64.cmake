# Cross build of the Windows DLL with Debian's mingw-w64 compilers (x86_64).
#
# x86_64 unwinds through the system's table-based exception handling, which crosses modules
# whatever runtime each one carries: the runtime stays linked statically, so the DLL needs only
# system DLLs.
set(ZU_MINGW_ARCH x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
