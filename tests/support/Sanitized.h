#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TREL_TEST_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TREL_TEST_SANITIZED
#endif
#endif

#if defined(TREL_TEST_SANITIZED)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif
