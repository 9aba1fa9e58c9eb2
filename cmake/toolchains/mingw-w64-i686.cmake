# Cross build of the Windows DLL with Debian's mingw-w64 compilers (i686).
#
# i686 unwinds with DWARF tables, and an unwinder knows only the modules registered with it:
# with the runtime linked statically into the DLL and into the host, an exception thrown in
# the DLL finds no handler in the host and ends the program. So the DLL, the host and the test
# programs all use the one runtime in these DLLs.
set(ZU_MINGW_ARCH i686)
set(ZU_MINGW_RUNTIME_DLLS libgcc_s_dw2-1.dll libstdc++-6.dll libwinpthread-1.dll)
# The programs built here (tests, examples) may use the whole 4 GiB a 32-bit process gets on a
# 64-bit Windows; the DLL itself makes no assumption about where memory lies.
set(ZU_MINGW_EXE_LINKER_FLAGS -Wl,--large-address-aware)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
