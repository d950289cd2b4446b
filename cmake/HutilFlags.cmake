# Flags shared by every target: hutil_warnings for what is only checked, hutil_hardening for what ships.
include(CheckCXXCompilerFlag)

add_library(hutil_warnings INTERFACE)
target_compile_options(hutil_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${HUTIL_WERROR}>:-Werror>)

# A process may interpose syslog, system, recv and the like; fortified variants would go round it.
add_library(hutil_hardening INTERFACE)
target_compile_options(hutil_hardening INTERFACE -U_FORTIFY_SOURCE -fstack-protector-strong)
target_link_options(hutil_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

# Clang has no stack-clash protection for 32-bit ARM.
check_cxx_compiler_flag("-Werror -fstack-clash-protection" HUTIL_HAS_STACK_CLASH)
if(HUTIL_HAS_STACK_CLASH)
  target_compile_options(hutil_hardening INTERFACE -fstack-clash-protection)
endif()

if(HUTIL_SANITIZE)
  add_compile_options(-fsanitize=${HUTIL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${HUTIL_SANITIZE})
else()
  # The sanitizers' run time is found in the executable, so only plain builds can ask for this.
  target_link_options(hutil_hardening INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:-Wl,--no-undefined>)
endif()
