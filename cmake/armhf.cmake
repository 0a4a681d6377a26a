# The unit's processor: ARMv7 with hard float, a Cortex-A9 with NEON.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(taviTriple arm-linux-gnueabihf)
set(taviDebianArchitecture armhf)
# GCC would note for each template of the C++ library that GCC 6 passed it otherwise; of that there is no code here.
set(CMAKE_CXX_FLAGS_INIT "-mcpu=cortex-a9 -mfpu=neon -Wno-psabi")
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
