#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TREL_IS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TREL_IS_SANITIZED 1
#endif
#endif
#if !defined(TREL_IS_SANITIZED)
#define TREL_IS_SANITIZED 0
#endif

constexpr bool kIsSanitized = TREL_IS_SANITIZED != 0;
