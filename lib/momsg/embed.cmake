# Writes the bytes of IN as a C++ array into OUT.
file(READ ${IN} hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
file(WRITE ${OUT}
  "// Generated from messages/quor.msg; do not edit.\n"
  "#include <cstddef>\n"
  "extern const unsigned char quor_msg_builtin[] = {${bytes} 0x00};\n"
  "extern const std::size_t quor_msg_builtin_size = sizeof(quor_msg_builtin) - 1;\n")
