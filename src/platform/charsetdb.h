// The MIME charset database: for a charset name, the key a registry lookup
// would find. A key holds a code page ("InternetEncoding"), or the name of
// another key ("AliasForCharset"), or neither; or there is no key at all.
// Names are matched ignoring ASCII case, as registry key names are.
//
// The built-in table carries the names, aliases and code-page numbers of the
// Windows database, less the few names the charset codec answers from its own
// fallback table (ISO-8859-13, ISO-8859-15, TIS-620, iso-8859-11, koi8-u,
// koi8-ru, GB18030): for those the database has no key, so the fallback and
// its trace line are what a caller sees.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace kv::platform {

// The error a failed key open reports: the key does not exist.
constexpr uint32_t kErrorFileNotFound = 2;

// One key of a table. codepage > 0: the key has that InternetEncoding.
// Otherwise alias non-null: the key has that AliasForCharset. Otherwise the
// key exists with neither value.
struct CharsetRecord {
    const char* name;
    int32_t codepage;
    const char* alias;
};

enum class CharsetKeyKind { kNoKey, kEmpty, kCodepage, kAlias };

struct CharsetKey {
    CharsetKeyKind kind = CharsetKeyKind::kNoKey;
    int32_t codepage = -1;                // kCodepage
    std::string_view alias;               // kAlias; points into the table
    uint32_t error = kErrorFileNotFound;  // kNoKey: the open's error code, else 0
};

class CharsetDatabase {
public:
    // A database over records, which must outlive it. Later duplicates of a
    // name are ignored.
    CharsetDatabase(const CharsetRecord* records, size_t count);

    // The key of name (the whole view; a NUL ends the name, as it would end a
    // key path). Never fails; an empty name finds no key.
    CharsetKey Open(std::string_view name) const;

    size_t size() const { return index_.size(); }
    const CharsetRecord& record(size_t i) const { return *index_[i]; }

    // The built-in database; built on first use, read-only afterwards.
    static const CharsetDatabase& Builtin();

private:
    std::vector<const CharsetRecord*> index_;  // sorted by name, ignoring case
};

}  // namespace kv::platform
