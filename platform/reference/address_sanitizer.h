// Whether the address sanitizer watches: compilers say so in two ways.
#ifndef PLATFORM_REFERENCE_ADDRESS_SANITIZER_H
#define PLATFORM_REFERENCE_ADDRESS_SANITIZER_H

#if defined(__has_feature)
#define WATCHED_BY_ADDRESS_SANITIZER __has_feature(address_sanitizer)
#elif defined(__SANITIZE_ADDRESS__)
#define WATCHED_BY_ADDRESS_SANITIZER 1
#else
#define WATCHED_BY_ADDRESS_SANITIZER 0
#endif

#endif  // PLATFORM_REFERENCE_ADDRESS_SANITIZER_H
