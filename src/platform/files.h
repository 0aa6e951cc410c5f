// Opening files by engine text: the path is converted to UTF-8 and the 't' of a
// text mode is dropped (streams are byte streams on this platform).
#pragma once

#include <cstdio>
#include <string>

#include "qel/config.h"

namespace qel {

FILE* openFile(const QelChar* path, const QelChar* mode);
// UTF-8 copy of engine text (null reads as "").
std::string toUtf8(const QelChar* text);

}  // namespace qel
