# cmake -DINPUT=file -DOUTPUT=file.cpp -P embed_file.cmake
# Writes a C++ source that holds INPUT's bytes as imgtool::kSamplePhoto.
file(READ ${INPUT} hex HEX)
string(LENGTH "${hex}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){24})" "\\1\n" bytes "${bytes}")
get_filename_component(name ${INPUT} NAME)
file(WRITE ${OUTPUT}.tmp
  "// Generated from ${name} at build time; do not edit.\n"
  "#include <cstddef>\n#include <cstdint>\n\n"
  "namespace imgtool {\n"
  "extern const uint8_t kSamplePhoto[];\n"
  "extern const std::size_t kSamplePhotoSize;\n"
  "const uint8_t kSamplePhoto[] = {\n${bytes}\n};\n"
  "const std::size_t kSamplePhotoSize = ${size};\n"
  "}  // namespace imgtool\n")
file(RENAME ${OUTPUT}.tmp ${OUTPUT})
