/* Export and compile-time check macros shared by the public headers (C99 and C++). */
#ifndef QMTNM_API_H
#define QMTNM_API_H

#ifndef QMTNM_API
#define QMTNM_API __attribute__((visibility("default")))
#endif

#if defined(__cplusplus)
#define QMTNM_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define QMTNM_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#else /* C99: a negative array size stops the build */
#define QMTNM_STATIC_ASSERT_2(cond, line) typedef char qmtnm_static_assert_##line[(cond) ? 1 : -1]
#define QMTNM_STATIC_ASSERT_1(cond, line) QMTNM_STATIC_ASSERT_2(cond, line)
#define QMTNM_STATIC_ASSERT(cond, msg) QMTNM_STATIC_ASSERT_1(cond, __LINE__)
#endif

#endif /* QMTNM_API_H */
