// The two Windows calls that a library's entry point makes, played on
// Linux. The module handle is the handle that the loader got from dlopen.
#ifndef SMTPFM_PLATFORM_VEK_WIN32_H_
#define SMTPFM_PLATFORM_VEK_WIN32_H_

#include <cstdint>

// Copies the full path of the module into `buffer` (at most size - 1 units
// and a terminating zero) and returns the number of units copied; a path
// that does not fit is cut, and the result is then `size`. A null module
// means the program itself. 0 on failure.
uint32_t GetModuleFileNameW(void* module, char16_t* buffer, uint32_t size);

// Nothing on Linux: there are no thread notifications to switch off.
bool DisableThreadLibraryCalls(void* module);

#endif  // SMTPFM_PLATFORM_VEK_WIN32_H_
