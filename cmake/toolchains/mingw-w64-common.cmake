# Shared part of the mingw-w64 cross builds; the including file sets ZU_MINGW_ARCH and, where
# the compiler runtime must be shared, ZU_MINGW_RUNTIME_DLLS (and may add
# ZU_MINGW_EXE_LINKER_FLAGS for the programs).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ${ZU_MINGW_ARCH})
set(ZU_MINGW_TRIPLE ${ZU_MINGW_ARCH}-w64-mingw32)
# The posix thread model carries a complete <mutex>.
set(CMAKE_C_COMPILER ${ZU_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZU_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZU_MINGW_TRIPLE}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${ZU_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(ZU_MINGW_RUNTIME_DLLS)
  # The DLL and every program beside it use the compiler runtime's DLLs; the build copies them
  # next to the programs and the install puts them beside zu_data_manager.dll.
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-shared-libgcc")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "-shared-libgcc")
else()
  # Everything linked statically: the DLL and the test programs need only system DLLs.
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
endif()
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " ${ZU_MINGW_EXE_LINKER_FLAGS}")
