// A file-backed key store with the shape of the registry's classes root:
// keys are backslash-separated paths, compared ignoring ASCII case; each key
// has named string values, the default value under the name "".
//
// The file is a plain text listing, one "[key]" line per key followed by
// its values as `name=value` lines ("@" for the default value). Saving
// writes a temporary file and renames it over the old one.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kv::platform {

class KeyStore {
public:
    // Loads path; a missing file is an empty store. False for a file that
    // cannot be read.
    bool Load(const std::string& path);
    bool Save(const std::string& path) const;

    void CreateKey(const std::string& key);
    bool KeyExists(const std::string& key) const;
    // Creates the key and its parents as needed.
    void SetValue(const std::string& key, const std::string& name, const std::string& value);
    bool GetValue(const std::string& key, const std::string& name, std::string& value) const;
    // Removes the key and everything under it.
    void DeleteTree(const std::string& key);
    // Names of the direct children of key, in stored order.
    std::vector<std::string> SubKeys(const std::string& key) const;

private:
    struct Key {
        std::string path;  // as first written
        std::map<std::string, std::string> values;
    };
    static std::string Fold(const std::string& key);
    std::map<std::string, Key> keys_;  // by folded path
};

// Where the library's registration lives by default: a file under the
// current user's home directory (~/.config/korvane/registry.ini).
std::string DefaultKeyStorePath();

}  // namespace kv::platform
