#pragma once
// Libraries loaded when first needed instead of linked into every program. Each shared library
// linked into `tvl` is mapped and relocated at every start, and its constructors run: together a
// millisecond of every short search, for libraries that only a few commands use (the mount table
// parser and block device prober, the archive library).
//
// A library is looked for under its names in order (the name with the ABI version first, then
// the development link), and stays loaded for the life of the process.

#include <initializer_list>
#include <string>

namespace tarvolin::platform {

/// The handle of the first of `names` that loads, or nullptr with `failure` set to the loader's
/// reason for the first name.
void* openSharedLibrary(std::initializer_list<const char*> names, std::string& failure);

/// The address of the symbol `name` in `library`, or nullptr when the library lacks it.
void* symbolAddress(void* library, const char* name);

/// Sets `slot` to the function `name` of `library`; false when the library lacks it.
template <typename Function>
bool resolveSymbol(void* library, const char* name, Function& slot) {
  void* address = symbolAddress(library, name);
  slot = reinterpret_cast<Function>(address);
  return address != nullptr;
}

}  // namespace tarvolin::platform
