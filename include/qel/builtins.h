// The built-in library registered into every virtual machine.
//
// Each built-in is a native function (QelNativeFunction): `args` stands on the last
// argument, argument k of n is args[k-n], and the result replaces the call slot
// args[-n]. Count errors come before type errors; failures append their message to
// the interpreter's error text and leave the stack as it was.
#pragma once

#include "qel/vm.h"

#define QEL_BUILTIN(name) static bool Qel_##name(QelVirtualMachine* vm, int nargs, ValPtr& args)

class QEL_API QelDefaultFunctions {
 public:
  // Enters the predefined streams and every built-in into the machine's symbols.
  static void registerFunctions(QelVirtualMachine* vm);

  // Constructors.
  QEL_BUILTIN(newvector);
  QEL_BUILTIN(newstring);
  QEL_BUILTIN(newbuffer);
  QEL_BUILTIN(newcbuffer);
  QEL_BUILTIN(T);
  QEL_BUILTIN(Vec);
  QEL_BUILTIN(CBuf);
  QEL_BUILTIN(newdict);

  // Files and console.
  QEL_BUILTIN(fopen);
  QEL_BUILTIN(fclose);
  QEL_BUILTIN(feof);
  QEL_BUILTIN(getc);
  QEL_BUILTIN(putc);
  QEL_BUILTIN(gets);
  QEL_BUILTIN(fgets);
  QEL_BUILTIN(fputs);
  QEL_BUILTIN(print);
  QEL_BUILTIN(freadval);
  QEL_BUILTIN(fwriteval);
  QEL_BUILTIN(fread);
  QEL_BUILTIN(fwrite);
  QEL_BUILTIN(getwc);
  QEL_BUILTIN(putwc);
  QEL_BUILTIN(fgetws);
  QEL_BUILTIN(fputws);

  // Strings, sizes and dictionaries.
  QEL_BUILTIN(strlen);
  QEL_BUILTIN(strcmp);
  QEL_BUILTIN(stricmp);
  QEL_BUILTIN(strsplit);
  QEL_BUILTIN(strfind);
  QEL_BUILTIN(strerase);
  QEL_BUILTIN(strinsert);
  QEL_BUILTIN(strreplace);
  QEL_BUILTIN(substr);
  QEL_BUILTIN(vecsize);
  QEL_BUILTIN(size);
  QEL_BUILTIN(dictcontains);
  QEL_BUILTIN(dicterase);
  QEL_BUILTIN(dictclear);
  QEL_BUILTIN(dictgetkeys);
  QEL_BUILTIN(dictgetvalues);

  // Compiling and loading at run time.
  QEL_BUILTIN(compile);
  QEL_BUILTIN(loadmodule);

  // Conversions and type inspection.
  QEL_BUILTIN(int);
  QEL_BUILTIN(float);
  QEL_BUILTIN(double);
  QEL_BUILTIN(string);
  QEL_BUILTIN(buffer);
  QEL_BUILTIN(gettypename);
  QEL_BUILTIN(gettype);
  QEL_BUILTIN(getclassname);
  QEL_BUILTIN(dynamic_cast);

  // Time.
  QEL_BUILTIN(time);
  QEL_BUILTIN(timer);
  QEL_BUILTIN(ctime);
  QEL_BUILTIN(localtime);

  // Mathematics.
  QEL_BUILTIN(sin);
  QEL_BUILTIN(cos);
  QEL_BUILTIN(tan);
  QEL_BUILTIN(atan);
  QEL_BUILTIN(sqrt);
  QEL_BUILTIN(log);
  QEL_BUILTIN(exp);
  QEL_BUILTIN(abs);
  QEL_BUILTIN(pow);
  QEL_BUILTIN(rand);
  QEL_BUILTIN(srand);

  // The script's arguments, addresses, the environment and native libraries.
  QEL_BUILTIN(getargs);
  QEL_BUILTIN(getusrargs);
  QEL_BUILTIN(argcnt);
  QEL_BUILTIN(arg);
  QEL_BUILTIN(addr);
  QEL_BUILTIN(getenv);
  QEL_BUILTIN(setenv);
  QEL_BUILTIN(LoadLibrary);
  QEL_BUILTIN(FreeLibrary);
  QEL_BUILTIN(GetProcAddress);
  QEL_BUILTIN(CallLibFunc);

 private:
  static void registerFiles(QelVirtualMachine* vm);
  static void registerIOFunctions(QelVirtualMachine* vm);
  static void registerMathFunctions(QelVirtualMachine* vm);
  static void registerDictFunctions(QelVirtualMachine* vm);
};

#undef QEL_BUILTIN
