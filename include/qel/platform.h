// Platform services of the engine: fatal exit, allocation that never fails, the
// lengths of formatted text, environment variables, directory search, calendar time,
// and the table of 32-bit handles through which native addresses reach scripts.
//
// The names are the engine's own service names. Pointers returned by the search,
// environment and time functions point into buffers of the calling thread that the
// next call of the same function on that thread overwrites. The environment is the
// process's: _tgetenv and _tputenv read and change it under the engine's lock, which
// the C library's getenv and setenv do not take.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "qel/config.h"

// Ends the process with `code` through the normal exit path.
[[noreturn]] QEL_API void errorExit(int code);

// malloc that never answers null: exhaustion ends the process with code 1.
QEL_API void* allocmem(unsigned int size);

// Length in characters of the text `format` would produce (narrow: UTF-8 bytes).
QEL_API int _vscprintf(const char* format, va_list args);
QEL_API int _vscwprintf(const QelChar* format, va_list args);

// The first directory of "Path", then "PATH", that holds `file`, joined as dir/file.
QEL_API const QelChar* searchPath(const QelChar* file);
// The first directory of the list held in environment variable `variable` holding `file`.
QEL_API const QelChar* searchEnv(const QelChar* variable, const QelChar* file);
// The first directory of `dirList` (split at ':' and ';', empty parts skipped) that
// holds a readable file (not a directory) called `file`, joined as dir/file; or null.
QEL_API const QelChar* searchDirList(const QelChar* dirList, const QelChar* file);

// One character from the console (UTF-8 on stdin), low 16 bits; 0xFFFF at the end of
// input, U+FFFD for a malformed sequence.
QEL_API int _gettche();
// The value of an environment variable, cut to 4095 characters; the empty text when
// unset (never null).
QEL_API const QelChar* _tgetenv(const QelChar* name);
// "name=value" sets a variable, "name=" removes it; -1 without '='; 0 on success,
// else the system's error number.
QEL_API int _tputenv(const QelChar* assignment);

// Seconds since 1970-01-01 00:00:00 UTC, cut to 32 bits; also stored through t.
QEL_API uint32_t time(uint32_t* t);
// "Www Mmm dd hh:mm:ss yyyy\n" in local time, or null.
QEL_API QelChar* _tctime(uint32_t* t);
// Broken-down local time of *t with the engine's conventions (month 1-12, full year,
// day of year and daylight flag -1; the seconds product is cut to 32 bits).
QEL_API struct tm* localtime(const uint32_t* t);
// Milliseconds of the monotonic clock, cut to 32 bits.
QEL_API uint32_t qelTickCount();

// Native addresses as 32-bit script integers. 0 is never a handle; null maps to 0.
// The same address always gets the same positive handle until it is released; handles
// are large and sparse (0x40000000 upwards, far apart), never small integers. An
// unknown or released handle maps to null. Released numbers may be reused. One
// table serves every thread of the process.
QEL_API int32_t qelHandleFor(void* address);
QEL_API void* qelAddressOf(int32_t handle);
QEL_API void qelReleaseHandle(int32_t handle);
