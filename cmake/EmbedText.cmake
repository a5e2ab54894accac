# Writes a C++ source that defines `NAME` (a std::string_view in namespace
# NAMESPACE) holding the bytes of INPUT, so that a file edited as what it is
# (a web page) is built into the binary. Run as
#   cmake -DINPUT=... -DOUTPUT=... -DNAME=... -DNAMESPACE=... -DHEADER=... -P EmbedText.cmake
file(READ "${INPUT}" content HEX)
string(LENGTH "${content}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${content}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n"
       bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
     "// Made from ${INPUT} at build time.\n#include \"${HEADER}\"\n\nnamespace ${NAMESPACE} {\nnamespace {\n"
     "const unsigned char kBytes[] = {\n${bytes}};\n}  // namespace\n\nconst std::string_view ${NAME}(reinterpret_cast<const char*>(kBytes), ${size});\n\n"
     "}  // namespace ${NAMESPACE}\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
