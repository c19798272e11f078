// Registration of the library's classes in a key store, as the runtime's
// registry holds them, and creation through that store.
#pragma once

#include <string>

#include "automation/hresult.h"

namespace kv::shell {

// Writes (or removes) the keys of every class of the catalogue and of the
// type library into the store at path, creating the file as needed. The
// top-level CLSID key is never removed.
HRESULT RegisterServer(const std::string& store_path);
HRESULT UnregisterServer(const std::string& store_path);

// The full path of the loaded library (or of the program that contains it).
std::string LibraryPath();

// Lets the catalogue resolve ProgIDs through a key store (ProgID, CLSID
// value, InprocServer32), as a host of the runtime would. Done at load.
void InstallStoreResolver();

}  // namespace kv::shell
