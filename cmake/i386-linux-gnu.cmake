# The library's own target, 32-bit x86, built on an x86-64 Debian host with
# g++-multilib:  cmake --toolchain cmake/i386-linux-gnu.cmake ...
# (tools/test-i386.sh does it all). CMakeLists.txt adds the SSE arithmetic
# and the stack realignment that a 32-bit build needs.
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_ASM_FLAGS_INIT "-m32")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
