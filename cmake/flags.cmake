# Compiler and linker flags for every target: warnings, hardening, reproducible paths.

add_compile_options(
  -Wall -Wextra -Wpedantic
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
  $<$<COMPILE_LANGUAGE:CXX>:-Wshadow>
  -fstack-protector-strong
  -fstack-clash-protection
  # Paths in the output start at the checkout's root, and at the build tree's, wherever
  # they lie: two builds give the same bytes.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=.
)
add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)

if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64")
  add_compile_options(-mbranch-protection=standard)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64")
  add_compile_options(-fcf-protection=full)
endif()

if(CORVANE_SANITIZE)
  add_compile_options(-fsanitize=${CORVANE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${CORVANE_SANITIZE})
else()
  # Fortified calls need the optimiser, and the sanitizers want the plain ones.
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()
