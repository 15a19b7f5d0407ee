# The sandbox has the kernel keep names within the directory that it serves, with openat2, which
# came with Linux 5.6: said here as far as it is known here, and by kxsandbox when it starts.
include(CheckIncludeFileCXX)
check_include_file_cxx(linux/openat2.h KX_HAVE_OPENAT2)
if(NOT KX_HAVE_OPENAT2)
  message(FATAL_ERROR "kxsandbox needs openat2 of Linux 5.6, and this system has no header "
                      "linux/openat2.h. The client builds without it: -DKX_SANDBOX=OFF")
endif()
if(NOT CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_NAME STREQUAL "Linux"
   AND CMAKE_SYSTEM_VERSION VERSION_LESS 5.6)
  message(WARNING "kxsandbox needs openat2 of Linux 5.6, and this is Linux ${CMAKE_SYSTEM_VERSION}: "
                  "it is built, but neither it nor the tests will run here.")
endif()
