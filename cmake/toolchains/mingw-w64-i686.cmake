# Cross build of the Windows DLL with Debian's mingw-w64 compilers (i686).
#
# i686 unwinds with DWARF tables, and an unwinder knows only the modules registered with it:
# with the runtime linked statically into the DLL and into the host, an exception thrown in
# the DLL finds no handler in the host and ends the program. So the DLL, the host and the test
# programs all use the one runtime in these DLLs.
set(ZU_MINGW_ARCH i686)
set(ZU_MINGW_RUNTIME_DLLS libgcc_s_dw2-1.dll libstdc++-6.dll libwinpthread-1.dll)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
