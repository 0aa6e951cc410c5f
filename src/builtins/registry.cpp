// Registration of the predefined streams and the built-in functions, in the library's
// fixed order: the streams, the constructors, the file group, the general functions,
// the mathematics group, the system group and the dictionary group.
#include <cstdio>
#include <initializer_list>

#include "qel/builtins.h"

namespace {

struct BuiltinEntry {
  const QelChar* name;
  QelNativeFunction fn;
};

// Overwrites an existing entry in place: registration never fails.
void registerAll(QelVirtualMachine* vm, std::initializer_list<BuiltinEntry> table) {
  for (const BuiltinEntry& b : table) {
    QelDictionaryEntry& e = vm->symbols()[QelString(b.name)];
    e.setValue(QelValue(b.fn));
    e.setSymbolType(QST_STATIC_FUNCTION);
  }
}

void registerStream(QelVirtualMachine* vm, const QelChar* name, FILE* stream) {
  QelDictionaryEntry& e = vm->symbols()[QelString(name)];
  e.setValue(QelValue(static_cast<void*>(stream)));
  e.setSymbolType(QST_STATIC_DATA);
}

}  // namespace

using F = QelDefaultFunctions;

void QelDefaultFunctions::registerFiles(QelVirtualMachine* vm) {
  registerStream(vm, u"stdin", stdin);
  registerStream(vm, u"stdout", stdout);
  registerStream(vm, u"stderr", stderr);
}

void QelDefaultFunctions::registerIOFunctions(QelVirtualMachine* vm) {
  registerAll(vm, {
      {u"fopen", F::Qel_fopen},
      {u"fclose", F::Qel_fclose},
      {u"feof", F::Qel_feof},
      {u"getc", F::Qel_getc},
      {u"putc", F::Qel_putc},
      {u"gets", F::Qel_gets},
      {u"fgets", F::Qel_fgets},
      {u"fputs", F::Qel_fputs},
      {u"print", F::Qel_print},
      {u"freadval", F::Qel_freadval},
      {u"fwriteval", F::Qel_fwriteval},
      {u"fread", F::Qel_fread},
      {u"fwrite", F::Qel_fwrite},
      {u"getwc", F::Qel_getwc},
      {u"putwc", F::Qel_putwc},
      {u"fgetws", F::Qel_fgetws},
      {u"fputws", F::Qel_fputws},
  });
}

void QelDefaultFunctions::registerMathFunctions(QelVirtualMachine* vm) {
  registerAll(vm, {
      {u"sin", F::Qel_sin},
      {u"cos", F::Qel_cos},
      {u"tan", F::Qel_tan},
      {u"atan", F::Qel_atan},
      {u"sqrt", F::Qel_sqrt},
      {u"log", F::Qel_log},
      {u"exp", F::Qel_exp},
      {u"abs", F::Qel_abs},
      {u"pow", F::Qel_pow},
  });
}

void QelDefaultFunctions::registerDictFunctions(QelVirtualMachine* vm) {
  registerAll(vm, {
      {u"newdict", F::Qel_newdict},
      {u"dictcontains", F::Qel_dictcontains},
      {u"dicterase", F::Qel_dicterase},
      {u"dictclear", F::Qel_dictclear},
      {u"dictgetkeys", F::Qel_dictgetkeys},
      {u"dictgetvalues", F::Qel_dictgetvalues},
  });
}

void QelDefaultFunctions::registerFunctions(QelVirtualMachine* vm) {
  registerFiles(vm);
  registerAll(vm, {
      {u"newvector", F::Qel_newvector},
      {u"newstring", F::Qel_newstring},
      {u"newbuffer", F::Qel_newbuffer},
      {u"newcbuffer", F::Qel_newcbuffer},
  });
  registerIOFunctions(vm);
  registerAll(vm, {
      {u"strlen", F::Qel_strlen},
      {u"strcmp", F::Qel_strcmp},
      {u"stricmp", F::Qel_stricmp},
      {u"strsplit", F::Qel_strsplit},
      {u"strfind", F::Qel_strfind},
      {u"strerase", F::Qel_strerase},
      {u"strinsert", F::Qel_strinsert},
      {u"strreplace", F::Qel_strreplace},
      {u"substr", F::Qel_substr},
      {u"vecsize", F::Qel_vecsize},
      {u"size", F::Qel_size},
      {u"Vec", F::Qel_Vec},
      {u"T", F::Qel_T},
      {u"CBuf", F::Qel_CBuf},
      {u"compile", F::Qel_compile},
      {u"loadmodule", F::Qel_loadmodule},
      {u"int", F::Qel_int},
      {u"float", F::Qel_float},
      {u"double", F::Qel_double},
      {u"string", F::Qel_string},
      {u"buffer", F::Qel_buffer},
      {u"gettypename", F::Qel_gettypename},
      {u"gettype", F::Qel_gettype},
      {u"getclassname", F::Qel_getclassname},
      {u"dynamic_cast", F::Qel_dynamic_cast},
      {u"time", F::Qel_time},
      {u"timer", F::Qel_timer},
  });
  registerMathFunctions(vm);
  registerAll(vm, {
      {u"rand", F::Qel_rand},
      {u"srand", F::Qel_srand},
      {u"ctime", F::Qel_ctime},
      {u"localtime", F::Qel_localtime},
      {u"getargs", F::Qel_getargs},
      {u"getusrargs", F::Qel_getusrargs},
      {u"argcnt", F::Qel_argcnt},
      {u"arg", F::Qel_arg},
      {u"addr", F::Qel_addr},
      {u"getenv", F::Qel_getenv},
      {u"setenv", F::Qel_setenv},
      {u"LoadLibrary", F::Qel_LoadLibrary},
      {u"FreeLibrary", F::Qel_FreeLibrary},
      {u"GetProcAddress", F::Qel_GetProcAddress},
      {u"CallLibFunc", F::Qel_CallLibFunc},
  });
  registerDictFunctions(vm);
}
