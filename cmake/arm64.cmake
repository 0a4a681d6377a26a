# Units with a 64-bit processor.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(taviTriple aarch64-linux-gnu)
set(taviDebianArchitecture arm64)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
