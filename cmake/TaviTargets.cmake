# What every target of the tree is built with.
add_library(TaviBuild INTERFACE)
target_compile_definitions(TaviBuild INTERFACE TAVI_VERSION="${PROJECT_VERSION}")
# Programs, too, get the libraries' code model: precompiled headers are one model's only.
target_compile_options(TaviBuild INTERFACE -fPIC -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor)
# A library's calls of its own functions go there straight: nobody else has functions to put in their place.
target_link_options(TaviBuild INTERFACE LINKER:-Bsymbolic-functions)
# GCC warns wrongly about code that a sanitizer has been woven into (GCC manual, -fsanitize); the debug build judges.
if(TAVI_WERROR AND NOT TAVI_SANITIZE)
  target_compile_options(TaviBuild INTERFACE -Werror)
endif()
# On 32-bit machines a fix of 2038 and a file of 2 GB need the wide types, on both sides of every interface.
set(TAVI_WIDE_TYPES)
# What takes the place of functions of the C library in programs of others has their types.
set(TAVI_NARROW_TYPES)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(TAVI_WIDE_TYPES _TIME_BITS=64 _FILE_OFFSET_BITS=64)
  set(TAVI_NARROW_TYPES -U_TIME_BITS -U_FILE_OFFSET_BITS)
endif()
target_compile_definitions(TaviBuild INTERFACE ${TAVI_WIDE_TYPES})
if(TAVI_UNIT)
  target_compile_definitions(TaviBuild INTERFACE TAVI_UNIT=1)
endif()
if(TAVI_SANITIZE)
  list(JOIN TAVI_SANITIZE "," taviSanitizeList)
  target_compile_options(TaviBuild INTERFACE -fsanitize=${taviSanitizeList} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_link_options(TaviBuild INTERFACE -fsanitize=${taviSanitizeList})
endif()

# A platform library: tavi_platform_library(<target> <output name> <sources...>). Headers are included as "<folder>/...".
function(tavi_platform_library target output)
  add_library(${target} ${ARGN})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${output} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Platform> $<INSTALL_INTERFACE:include/tavi>)
  target_compile_definitions(${target} PUBLIC ${TAVI_WIDE_TYPES})
  target_link_libraries(${target} PRIVATE TaviBuild)
  tavi_use_precompiled(CommonHeaders ${target})
endfunction()
