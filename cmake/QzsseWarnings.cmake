# Results must be bit-for-bit the same across machines: no fused multiply-add and no
# value-changing optimisations, whatever the caller's default flags are.
function(qzsse_set_compile_options target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4 /fp:precise)
  else()
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -ffp-contract=off -fno-fast-math)
  endif()
endfunction()
