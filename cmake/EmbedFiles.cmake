# Writes a C++ source that holds files as byte arrays: the web console's page, served from the binary.
#   cmake -DOUTPUT=file.cpp -DNAMESPACE=ns -DFILES="a|b" -P EmbedFiles.cmake
# Defines, in NAMESPACE, `const EmbeddedFile kEmbeddedFiles[]` and `kEmbeddedFileCount`, each with the
# file's base name, its bytes and its size.
set(body "// Made by cmake/EmbedFiles.cmake from the files named below; do not edit.\n#include <cstddef>\n\n")
string(APPEND body "namespace ${NAMESPACE} {\n\nstruct EmbeddedFile {\n  const char* name;\n  const unsigned char* data;\n  size_t size;\n};\n\n")
string(REPLACE "|" ";" FILES "${FILES}")
set(table "")
set(index 0)
foreach(file ${FILES})
  get_filename_component(name ${file} NAME)
  file(READ ${file} hex HEX)
  string(LENGTH "${hex}" hex_length)
  math(EXPR size "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
  string(APPEND body "// ${name}\nstatic const unsigned char kFile${index}[] = {\n${bytes}0};\n\n")
  string(APPEND table "    {\"${name}\", kFile${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()
string(APPEND body "extern const EmbeddedFile kEmbeddedFiles[] = {\n${table}};\nextern const size_t kEmbeddedFileCount = ${index};\n\n}  // namespace ${NAMESPACE}\n")
file(WRITE ${OUTPUT}.tmp "${body}")
file(COPY_FILE ${OUTPUT}.tmp ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.tmp)
