// Exports: binds a shared library at run time and looks functions up in it.
//
// The library is loaded on the first GetFunction. A failed load is reported
// through ReportAssertion ("Can't find \"NAME\" called by \"MODULE\"", at
// codelib/brisk/include/Exports line 85) and not remembered: every later call
// tries, and reports, again. A missing function is reported at line 100
// ("Can't find \"FUNCTION\" in \"NAME\""). Either way the caller gets null and
// goes on. A loaded library is never unloaded.
//
// A name of the form "X.dll" stands for "libx.so" (lower case), looked for
// first in the folder of the module that holds this code, then on the
// system's search path. Any other name is handed to the loader as it is.
#pragma once

struct Exports {
  void* module = nullptr;
  char fileName[260] = {};

  // Copies `name` (cut to 259 characters); nothing is loaded yet.
  explicit Exports(const char* name);

  void* GetFunction(const char* name);
};

// The loader's name for `fileName` ("AVSDEC.dll" gives "libavsdec.so"); `out`
// holds 260 bytes.
void LibraryFileNameFor(const char* fileName, char* out);
