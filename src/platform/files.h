// Files and streams by engine text: paths are converted to UTF-8 and the 't' of a text
// mode is dropped (streams are byte streams on this platform).
//
// Streams handed to scripts are watched: one closed through closeStream is dead, and the
// built-ins refuse it instead of reaching freed memory. A stream a script opens is a
// stream of the engine's own over the file; closing it closes the file but keeps the
// stream, which the next open with the same mode takes again. So the streams a
// long-running host's scripts ever closed take no more room than the most they had open
// at once, and a closed stream's address is never some other object's. The process's
// standard streams are closed only for the machine whose script closed them: the
// printers and every other machine go on using them.
//
// Wide-character reads and writes go through UTF-8, whatever the C locale: a character
// beyond the basic plane is read as two UTF-16 units, and a surrogate pair written unit
// by unit becomes one character.
#pragma once

#include <cstdio>
#include <string>

#include "qel/config.h"


namespace qel {

FILE* openFile(const QelChar* path, const QelChar* mode);
// UTF-8 copy of engine text (null reads as ""), or of its first `length` units.
std::string toUtf8(const QelChar* text);
std::string toUtf8(const QelChar* text, size_t length);
// UTF-8 text as engine text.
std::u16string fromUtf8(const char* text);

// openFile for a script: the stream is live until closeStream.
FILE* openStream(const QelChar* path, const QelChar* mode);
// Closes a live stream for `vm`'s scripts and answers fclose's result; EOF for a dead
// or null one.
int closeStream(const QelVirtualMachine* vm, FILE* fp);
// A non-null stream that has not been closed (for `vm`'s scripts).
bool isLiveStream(const QelVirtualMachine* vm, FILE* fp);
// The live stream `fp` as a stream of its own that the caller closes: its unread bytes
// for a stream of a script's or a standard stream, which is then closed as closeStream
// closes it; any other stream itself, recorded as closed. Null when it cannot be read.
FILE* takeStream(const QelVirtualMachine* vm, FILE* fp);
// The descriptor of the file under a stream, or -1.
int streamDescriptor(FILE* fp);
// Forgets which standard streams `vm`'s scripts closed (the machine starts afresh).
void forgetClosedStandardStreams(const QelVirtualMachine* vm);

// One UTF-8 character as a code point: -1 at the end, U+FFFD for a malformed sequence.
int32_t readCodePoint(FILE* fp);
// One UTF-16 unit: -1 at the end.
int32_t readWideChar(FILE* fp);
// Writes one UTF-16 unit; answers it, or -1 when the write fails.
int32_t writeWideChar(QelChar c, FILE* fp);
// Writes a text as UTF-8; answers fputs's result.
int writeWideText(const QelChar* text, FILE* fp);

}  // namespace qel
