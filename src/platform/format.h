// The engine's printf-style formatter.
//
// Formats engine text (QelChar) and narrow text (char, UTF-8) by the wide-printf
// conventions of the engine's original platform:
//   %[flags][width][.precision][size]conversion
//   flags "-+ #0"; width and precision as digits or '*';
//   size prefixes h, hh, l, ll, L, I, I32, I64, w, z, j, t;
//   conversions d i o u x X e E f F g G a A p c C s S n %.
// In the wide formatter %s and %ls/%ws take const QelChar*, %S and %hs take const
// char* (UTF-8); %c and %lc/%wc take a QelChar (passed as int), %C and %hc a char.
// The narrow formatter mirrors this: %s/%hs char*, %S/%ls/%ws QelChar*, %c char,
// %C/%lc wide char. A null string argument prints "(null)".
// Integer conversions read a 32-bit argument, %ld included (the engine's long is 32
// bits); only ll, I64 (and I, j, z, t: pointer width) read 64 bits. %p reads a pointer
// and prints it as 16 upper-case hexadecimal digits. %n consumes its pointer and
// writes nothing. An unknown conversion letter is copied out as written.
//
// Formatting allocates nothing beyond the result.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "qel/config.h"

namespace qel {

// Number of QelChars the text would have.
QEL_API int formatLength(const QelChar* fmt, va_list ap);
// Number of UTF-8 bytes the narrow text would have.
QEL_API int formatLengthA(const char* fmt, va_list ap);
// snprintf semantics: writes at most cap-1 characters and a terminator (when cap > 0)
// and answers the full length.
QEL_API int formatInto(QelChar* dst, size_t cap, const QelChar* fmt, va_list ap);
QEL_API int formatIntoA(char* dst, size_t cap, const char* fmt, va_list ap);
// The formatted text in a block from allocmem of exactly length+1 characters.
QEL_API QelChar* formatAlloc(const QelChar* fmt, va_list ap, unsigned int* length);
// Writes the text to a stream as UTF-8; answers the number of QelChars produced,
// or -1 when the stream fails.
QEL_API int formatToFile(FILE* fp, const QelChar* fmt, va_list ap);

}  // namespace qel
