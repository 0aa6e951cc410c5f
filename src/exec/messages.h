// Runtime error texts shared by the interpreter's parts, each defined once.
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

}  // namespace qel
