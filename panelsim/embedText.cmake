# Writes OUTPUT, a C++ source that holds the bytes of INPUT as the character array
# panelsim::detail::NAME and its size as NAMESize. Run as: cmake -DINPUT=.. -DOUTPUT=.. -DNAME=.. -P
# (an array rather than a string literal: the sample is longer than compilers must accept).
# -DNAMESPACE=.. puts the array in another namespace.
if(NOT NAMESPACE)
  set(NAMESPACE panelsim::detail)
endif()
file(READ "${INPUT}" content HEX)
string(LENGTH "${content}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${content}")
string(REGEX REPLACE "(([^,]*,){16})" "\\1\n    " bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp" "// Generated from ${INPUT}; do not edit.
#include <cstddef>

namespace ${NAMESPACE}
{

extern const char ${NAME}[];
extern const std::size_t ${NAME}Size;

const char ${NAME}[] = {
    ${bytes}'\\0'};
const std::size_t ${NAME}Size = ${size};

} // namespace ${NAMESPACE}
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
