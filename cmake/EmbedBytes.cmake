# cmake -DINPUT=file -DOUTPUT=file.cpp -DNAMESPACE=ns -DSYMBOL=name -P EmbedBytes.cmake
# Writes a C++ source defining `const std::uint8_t SYMBOL[]` and `const std::size_t SYMBOLSize`
# in NAMESPACE with the bytes of INPUT, so a build can link a file into an executable.
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
# Break the single line every 32 bytes (160 characters) so compilers and editors stay happy.
string(REPEAT "0x[0-9a-f][0-9a-f]," 32 row)
string(REGEX REPLACE "(${row})" "\\1\n" bytes "${bytes}")
if(size EQUAL 0)
  set(bytes "0x00")
endif()
file(WRITE "${OUTPUT}.tmp"
"// Generated from ${INPUT} by cmake/EmbedBytes.cmake: do not edit.
#include <cstddef>
#include <cstdint>
namespace ${NAMESPACE} {
extern const std::uint8_t ${SYMBOL}[];
extern const std::size_t ${SYMBOL}Size;
const std::uint8_t ${SYMBOL}[] = {
${bytes}
};
const std::size_t ${SYMBOL}Size = ${size};
}
")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
