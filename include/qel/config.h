// Qel configuration: the basic types every engine header shares.
//
// Engine text is UTF-16 code units (QelChar). The engine's "long" is a 32-bit
// signed integer on every platform: script integers wrap at 32 bits. QEL_API marks
// the classes and functions the shared library exports; everything else is hidden.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(QEL_BUILDING_LIBRARY)
#define QEL_API __attribute__((visibility("default")))
#else
#define QEL_API __attribute__((visibility("default")))
#endif

typedef char16_t QelChar;

class QelVirtualMachine;
class ValPtr;

// A function written in C++ and callable from scripts. `args` stands on the last
// argument; the result replaces the call slot below the first argument.
typedef bool (*QelNativeFunction)(QelVirtualMachine* vm, int nargs, ValPtr& args);

// Literal helper for engine text: QTEXT("abc") is a const QelChar*.
#define QTEXT(s) u##s
