/* Capability groups: what a machine lets its scripts reach beyond computing and printing.
 * Every group is granted by default; a host that runs scripts it did not write withholds
 * the groups those scripts must not have (QelVirtualMachine::withhold, or the flat
 * Qel_WithholdCapabilities). A withheld built-in stays registered and fails at the call
 * with "NAME: not permitted"; a withheld preprocessor line is a compile error saying
 * "not permitted". What the host itself compiles or reads is never withheld.
 * Usable from C and C++.
 */
#ifndef QEL_CAPABILITIES_H
#define QEL_CAPABILITIES_H

/* Opening files: "fopen", and so every stream it would open. */
#define QEL_CAP_FILES 0x01u
/* Reading the console: "gets", and the reading built-ins on stdin. */
#define QEL_CAP_INPUT 0x02u
/* The process environment: "getenv", "setenv". */
#define QEL_CAP_ENV 0x04u
/* Native code: "LoadLibrary", "FreeLibrary", "GetProcAddress", "CallLibFunc", "addr",
 * "#import", and the native libraries a module file read by a script names. */
#define QEL_CAP_NATIVE 0x08u
/* Source and module files from disk: "#include", "#use", "loadmodule"; directories the
 * host allows stay readable when the group is withheld. */
#define QEL_CAP_MODULES 0x10u
/* Compiling at run time: "compile". */
#define QEL_CAP_COMPILE 0x20u
/* Every group. */
#define QEL_CAP_ALL 0x3Fu

#endif /* QEL_CAPABILITIES_H */
