# Cross-build for Windows x86-64 with mingw-w64; tests run under Wine.
#   cmake -S . -B build-win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
# The posix thread model: the win32 one lacks std::thread and std::mutex.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(PAXLTRACE_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${PAXLTRACE_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${PAXLTRACE_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${PAXLTRACE_MINGW_TRIPLE}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${PAXLTRACE_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test executables (and test discovery) run through Wine, in a prefix of their own so that the
# user's Wine setup is neither needed nor touched.
if(NOT DEFINED PAXLTRACE_WINEPREFIX)
  if(DEFINED ENV{PAXLTRACE_WINEPREFIX})
    set(PAXLTRACE_WINEPREFIX "$ENV{PAXLTRACE_WINEPREFIX}")
  else()
    set(PAXLTRACE_WINEPREFIX "${CMAKE_BINARY_DIR}/wineprefix")
  endif()
endif()
set(PAXLTRACE_WINEPREFIX "${PAXLTRACE_WINEPREFIX}" CACHE PATH "Wine prefix the tests run in")
find_program(PAXLTRACE_WINE NAMES wine64 PATHS /usr/lib/wine NO_DEFAULT_PATH)
if(NOT PAXLTRACE_WINE)
  find_program(PAXLTRACE_WINE NAMES wine64 wine)
endif()
if(PAXLTRACE_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      env WINEPREFIX=${PAXLTRACE_WINEPREFIX} WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
          ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh ${PAXLTRACE_WINE})
endif()
