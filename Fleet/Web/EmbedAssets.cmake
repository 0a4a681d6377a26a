# Writes OUTPUT, a source file with the texts of FILES of DIRECTORY: cmake -DDIRECTORY= -DFILES= -DOUTPUT= -P.
set(texts "")
foreach(file IN LISTS FILES)
  file(READ ${DIRECTORY}/${file} text)
  string(FIND "${text}" ")tavi\"" end)
  if(NOT end EQUAL -1)
    message(FATAL_ERROR "${file} holds what ends a string literal")
  endif()
  string(APPEND texts "    {\"${file}\", R\"tavi(${text})tavi\"},\n")
endforeach()
file(WRITE ${OUTPUT} "// Made by EmbedAssets.cmake.
#include \"Fleet/Web/Assets.h\"

namespace Tavi::Web {
namespace {
constexpr Asset All[] = {
${texts}};
}  // namespace
const std::span<const Asset> Assets = All;
}  // namespace Tavi::Web
")
