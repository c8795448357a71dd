# Warnings are errors with both GCC and Clang. GCC's -Wnull-dereference works only after inlining
# and then reports impossible paths through inlined third-party headers (nlohmann::json::value), so
# only Clang checks null dereferences.
function(egw_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align -Wcast-qual
    -Wmissing-declarations -Wformat=2 -Werror
    $<$<CXX_COMPILER_ID:Clang>:-Wnull-dereference>)
endfunction()
