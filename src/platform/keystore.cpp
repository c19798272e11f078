#include "platform/keystore.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace kv::platform {

std::string KeyStore::Fold(const std::string& key) {
    std::string folded = key;
    for (char& c : folded)
        if (c >= 'A' && c <= 'Z') c = char(c + 32);
    while (!folded.empty() && folded.back() == '\\') folded.pop_back();
    return folded;
}

bool KeyStore::Load(const std::string& path) {
    keys_.clear();
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        struct stat st;
        return stat(path.c_str(), &st) != 0;  // absent: empty store
    }
    std::string line, current;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == ';') continue;
        if (line.front() == '[' && line.back() == ']') {
            current = line.substr(1, line.size() - 2);
            CreateKey(current);
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string::npos || current.empty()) continue;
        std::string name = line.substr(0, eq);
        SetValue(current, name == "@" ? "" : name, line.substr(eq + 1));
    }
    return true;
}

bool KeyStore::Save(const std::string& path) const {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        // Create the parent folders, private to this user.
        for (size_t pos = 1; pos <= slash; ++pos)
            if (path[pos] == '/' || pos == slash) mkdir(path.substr(0, pos).c_str(), 0700);
    }
    std::string temp = path + ".tmp";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        for (const auto& [folded, key] : keys_) {
            out << '[' << key.path << "]\n";
            for (const auto& [name, value] : key.values)
                out << (name.empty() ? "@" : name) << '=' << value << '\n';
        }
        if (!out.flush()) return false;
    }
    return std::rename(temp.c_str(), path.c_str()) == 0;
}

void KeyStore::CreateKey(const std::string& key) {
    std::string path = key;
    while (!path.empty() && path.back() == '\\') path.pop_back();
    if (path.empty()) return;
    // Parents exist whenever a child does, as in the registry.
    size_t cut = path.rfind('\\');
    if (cut != std::string::npos) CreateKey(path.substr(0, cut));
    std::string folded = Fold(path);
    if (!keys_.count(folded)) keys_[folded] = Key{path, {}};
}

bool KeyStore::KeyExists(const std::string& key) const { return keys_.count(Fold(key)) != 0; }

void KeyStore::SetValue(const std::string& key, const std::string& name, const std::string& value) {
    CreateKey(key);
    auto it = keys_.find(Fold(key));
    if (it != keys_.end()) it->second.values[name] = value;
}

bool KeyStore::GetValue(const std::string& key, const std::string& name, std::string& value) const {
    auto it = keys_.find(Fold(key));
    if (it == keys_.end()) return false;
    auto v = it->second.values.find(name);
    if (v == it->second.values.end()) return false;
    value = v->second;
    return true;
}

void KeyStore::DeleteTree(const std::string& key) {
    std::string folded = Fold(key);
    std::string prefix = folded + "\\";
    for (auto it = keys_.begin(); it != keys_.end();) {
        if (it->first == folded || it->first.compare(0, prefix.size(), prefix) == 0)
            it = keys_.erase(it);
        else
            ++it;
    }
}

std::vector<std::string> KeyStore::SubKeys(const std::string& key) const {
    std::string prefix = Fold(key) + "\\";
    std::vector<std::string> out;
    for (const auto& [folded, k] : keys_) {
        if (folded.compare(0, prefix.size(), prefix) != 0) continue;
        if (folded.find('\\', prefix.size()) != std::string::npos) continue;
        out.push_back(k.path.substr(prefix.size()));
    }
    return out;
}

std::string DefaultKeyStorePath() {
    std::string home;
    struct passwd pw, *found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &pw, buffer, sizeof buffer, &found) == 0 && found && found->pw_dir)
        home = found->pw_dir;
    if (home.empty()) home = "/tmp";
    return home + "/.config/korvane/registry.ini";
}

}  // namespace kv::platform
