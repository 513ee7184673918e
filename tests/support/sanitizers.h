#pragma once

// Defines TESTS_UNDER_ADDRESS_SANITIZER when this file is compiled with AddressSanitizer. GCC
// says so with __SANITIZE_ADDRESS__; clang (before 15) only through __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define TESTS_UNDER_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TESTS_UNDER_ADDRESS_SANITIZER 1
#endif
#endif
