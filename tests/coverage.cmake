# Included by the project of tests/coverage.sh: instruments the plug-in, and nothing else.
# The counters can be moved, so that they can be kept in a file that is mapped into memory.

cmake_language(DEFER CALL target_compile_options corvane_objects PRIVATE
  -O1 -fprofile-instr-generate -fcoverage-mapping "SHELL:-mllvm -runtime-counter-relocation")
cmake_language(DEFER CALL target_link_options corvane_objects INTERFACE -fprofile-instr-generate)
