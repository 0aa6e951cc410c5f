// Qel: an embeddable scripting-language engine. This umbrella header brings in every
// public class and function.
#pragma once

#include "qel/config.h"
#include "qel/value.h"
#include "qel/vector.h"
#include "qel/string.h"
#include "qel/buffer.h"
#include "qel/lines.h"
#include "qel/dictionary.h"
#include "qel/class.h"
#include "qel/printer.h"
#include "qel/platform.h"
#include "qel/vm.h"
#include "qel/opcodes.h"
#include "qel/scanner.h"
#include "qel/compiler.h"
#include "qel/interpreter.h"
#include "qel/debugger.h"
#include "qel/native.h"
#include "qel/flat.h"
#include "qel/builtins.h"
#include "qel/dictionary_io.h"
