// The check of a fuzz target's invariants: a broken one prints what broke
// and aborts, which libFuzzer reports as a crash and keeps the input of.
#ifndef SMTPFM_FUZZ_FUZZ_CHECK_H_
#define SMTPFM_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition, ...)                                          \
  do {                                                                      \
    if (!(condition)) {                                                     \
      std::fprintf(stderr, "%s:%d: invariant broken: ", __FILE__, __LINE__); \
      std::fprintf(stderr, __VA_ARGS__);                                    \
      std::fputc('\n', stderr);                                             \
      std::abort();                                                         \
    }                                                                       \
  } while (false)

#endif  // SMTPFM_FUZZ_FUZZ_CHECK_H_
