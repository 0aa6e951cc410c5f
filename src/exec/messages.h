// Runtime error texts shared by the interpreter and the built-ins, each defined once.
#pragma once

#include "qel/config.h"

namespace qel {

inline constexpr QelChar kMsgStackCorrupted[] = u"stack corrupted";
inline constexpr QelChar kMsgTooFewArguments[] = u"too few arguments";
inline constexpr QelChar kMsgTooManyArguments[] = u"too many arguments";
inline constexpr QelChar kMsgSubscript[] = u"subscript out of range";
inline constexpr QelChar kMsgDivideByZero[] = u"divide 0 error";
inline constexpr QelChar kMsgStackOverflow[] = u"stack overflow";
inline constexpr QelChar kMsgOperandOutside[] = u"operand outside the code";
inline constexpr QelChar kMsgRanOffCode[] = u"end of code reached without return";
inline constexpr QelChar kMsgBadLiteral[] = u"literal index out of range";
inline constexpr QelChar kMsgObjectExpected[] = u"object expected";
inline constexpr QelChar kMsgMemberDataExpected[] = u"member data expected";
inline constexpr QelChar kMsgInstructionLimit[] = u"instruction limit exceeded";
inline constexpr QelChar kMsgInterrupted[] = u"interrupted";
inline constexpr QelChar kMsgOutOfMemory[] = u"out of memory";

// The built-ins' argument messages.
inline constexpr QelChar kMsgInvalidArgumentType[] = u"invalid argument type";
inline constexpr QelChar kMsgInvalidValueType[] = u"invalid value type";
inline constexpr QelChar kMsgInvalidArgument[] = u"invalid argument";
inline constexpr QelChar kMsgStringExpected[] = u"invalid argument type - string expected";
inline constexpr QelChar kMsgStringOrCharExpected[] = u"invalid argument - string or character expected";
inline constexpr QelChar kMsgInvalidIndex[] = u"invalid index";
inline constexpr QelChar kMsgInvalidInsertion[] = u"invalid insertion position";
inline constexpr QelChar kMsgInvalidStart[] = u"invalid start index";
inline constexpr QelChar kMsgInvalidFormat[] = u"invalid argument format: ";
inline constexpr QelChar kMsgNotAClass[] = u"first argument is not a class";
inline constexpr QelChar kMsgArgumentNull[] = u"argument is NULL";

}  // namespace qel
