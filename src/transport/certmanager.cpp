#include "transport/certmanager.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/trace.h"
#include "platform/timezone.h"

namespace kv {

namespace {

// A PFX or a store file larger than this is not a certificate store.
constexpr off_t kMaxStoreFile = 16 << 20;
// Files read from a store directory.
constexpr int kMaxDirectoryEntries = 4096;

std::mutex g_root_mutex;
std::string g_root_for_testing;

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
struct KeyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

// One certificate of a store, with its private key when the store has it.
struct Entry {
    X509Ptr cert;
    KeyPtr key;
};

// A store opened in memory: what the file or directory held when opened.
struct CertStore {
    std::vector<Entry> entries;
    std::vector<X509Ptr> extra_chain;  // the CA certificates of a PFX
    bool system = false;               // ROOT / CA: OpenSSL's default paths
    bool read_only = true;
    int32_t type = 0;
    std::string path;  // the file, or the directory of a named store

    bool Contains(const X509* cert) const {
        for (const Entry& e : entries)
            if (X509_cmp(e.cert.get(), cert) == 0) return true;
        return false;
    }
};

std::string ToString(const bstring& s) { return std::string(s.pData ? s.pData : "", size_t(s.nSize)); }

bool IsSystemTrustName(const bstring& name) { return name.equals("ROOT") || name.equals("CA"); }

// A store name names one directory: no separators, no dot names.
bool ValidStoreName(const std::string& name) {
    if (name.empty() || name == "." || name == "..") return false;
    return name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

void AddKeysToEntries(std::vector<Entry>& entries, std::vector<KeyPtr>& keys) {
    for (Entry& e : entries) {
        if (e.key) continue;
        for (KeyPtr& k : keys) {
            if (k && X509_check_private_key(e.cert.get(), k.get()) == 1) {
                e.key = std::move(k);
                break;
            }
        }
    }
}

// Certificates and unencrypted keys of PEM text; keys are matched to the
// certificates they belong to.
void ReadPem(BIO* in, CertStore& store) {
    STACK_OF(X509_INFO)* infos = PEM_X509_INFO_read_bio(in, nullptr, nullptr, nullptr);
    ERR_clear_error();
    if (!infos) return;
    std::vector<KeyPtr> keys;
    for (int i = 0; i < sk_X509_INFO_num(infos); ++i) {
        X509_INFO* info = sk_X509_INFO_value(infos, i);
        if (info->x509) {
            X509_up_ref(info->x509);
            store.entries.push_back({X509Ptr(info->x509), nullptr});
        }
        if (info->x_pkey && info->x_pkey->dec_pkey) {
            EVP_PKEY_up_ref(info->x_pkey->dec_pkey);
            keys.emplace_back(info->x_pkey->dec_pkey);
        }
    }
    sk_X509_INFO_pop_free(infos, X509_INFO_free);
    AddKeysToEntries(store.entries, keys);
}

// 0, or 25 when the blob is a PFX that does not import with the password.
int32_t ReadPkcs12(const std::vector<unsigned char>& blob, const std::string& password, CertStore& store,
                   bool* is_pfx) {
    const unsigned char* p = blob.data();
    PKCS12* p12 = d2i_PKCS12(nullptr, &p, long(blob.size()));
    *is_pfx = p12 != nullptr;
    if (!p12) {
        ERR_clear_error();
        return 0;
    }
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
    STACK_OF(X509)* ca = nullptr;
    int ok = PKCS12_parse(p12, password.c_str(), &key, &cert, &ca);
    PKCS12_free(p12);
    if (!ok) {
        ERR_clear_error();
        return 25;
    }
    if (cert) store.entries.push_back({X509Ptr(cert), KeyPtr(key)});
    else EVP_PKEY_free(key);
    for (int i = 0; ca && i < sk_X509_num(ca); ++i) {
        X509* c = sk_X509_value(ca, i);
        X509_up_ref(c);
        store.extra_chain.emplace_back(c);
        X509_up_ref(c);
        store.entries.push_back({X509Ptr(c), nullptr});
    }
    sk_X509_pop_free(ca, X509_free);
    return 0;
}

// The whole of a regular file, bounded; false when it cannot be read.
bool ReadWholeFile(int fd, std::vector<unsigned char>& out) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxStoreFile) return false;
    out.resize(size_t(st.st_size));
    size_t at = 0;
    while (at < out.size()) {
        ssize_t n = ::read(fd, out.data() + at, out.size() - at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        at += size_t(n);
    }
    out.resize(at);
    return true;
}

bool ReadFilePath(const std::string& path, std::vector<unsigned char>& out) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = ReadWholeFile(fd, out);
    ::close(fd);
    return ok;
}

void ReadPemBytes(const std::vector<unsigned char>& bytes, CertStore& store) {
    BIO* in = BIO_new_mem_buf(bytes.data(), int(bytes.size()));
    if (!in) return;
    ReadPem(in, store);
    BIO_free(in);
}

// A named store: the directory's PEM files and PKCS #12 files without a
// password. A directory that does not exist yet is an empty store.
bool OpenNamedStore(const bstring& name, CertStore& store) {
    std::string dir = CCertManager::StoreDirectory(name);
    if (dir.empty()) return false;
    store.path = dir;
    store.read_only = false;
    std::error_code ec;
    std::filesystem::directory_iterator it(dir, ec), end;
    if (ec) return true;
    int seen = 0;
    for (; it != end && seen < kMaxDirectoryEntries; it.increment(ec), ++seen) {
        if (ec) break;
        if (!it->is_regular_file(ec)) continue;
        std::vector<unsigned char> bytes;
        if (!ReadFilePath(it->path().string(), bytes)) continue;
        bool is_pfx = false;
        ReadPkcs12(bytes, std::string(), store, &is_pfx);
        if (!is_pfx) ReadPemBytes(bytes, store);
    }
    return true;
}

bool OpenSystemTrust(CertStore& store) {
    store.system = true;
    std::vector<unsigned char> bytes;
    if (ReadFilePath(X509_get_default_cert_file(), bytes)) ReadPemBytes(bytes, store);
    return true;
}

// Opens a store as the credential step does: 0, 21 (cannot open, unknown
// type), 25 (a PFX that does not import).
int32_t OpenStore(const bstring& name, int32_t type, const bstring& password, CertStore& store) {
    store.type = type;
    if (type == 0) {
        if (IsSystemTrustName(name)) return OpenSystemTrust(store) ? 0 : 21;
        return OpenNamedStore(name, store) ? 0 : 21;
    }
    if (type != 1 && type != 2) return 21;
    store.path = ToString(name);
    store.read_only = type == 2;
    int fd = ::open(store.path.c_str(), (type == 1 ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    if (fd < 0) return 21;
    std::vector<unsigned char> bytes;
    bool read = ReadWholeFile(fd, bytes);
    ::close(fd);
    if (!read) return 21;
    if (type == 1) {
        ReadPemBytes(bytes, store);
        return 0;
    }
    bool is_pfx = false;
    int32_t status = ReadPkcs12(bytes, ToString(password), store, &is_pfx);
    if (!is_pfx) return 21;
    return status;
}

// The text of the first entry of nid in name, as UTF-8.
bool NameEntry(const X509_NAME* name, int nid, bstring& out) {
    int at = X509_NAME_get_index_by_NID(name, nid, -1);
    if (at < 0) return false;
    const X509_NAME_ENTRY* e = X509_NAME_get_entry(name, at);
    unsigned char* utf8 = nullptr;
    int n = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(e));
    if (n < 0) return false;
    out.assign(reinterpret_cast<const char*>(utf8), n);
    OPENSSL_free(utf8);
    return true;
}

// The simple display name: common name, else unit, else organisation, else
// e-mail address, else the first entry of the name.
bstring SimpleDisplayName(const X509_NAME* name) {
    bstring out;
    if (!name) return out;
    for (int nid : {NID_commonName, NID_organizationalUnitName, NID_organizationName, NID_pkcs9_emailAddress})
        if (NameEntry(name, nid, out)) return out;
    if (X509_NAME_entry_count(name) > 0) {
        unsigned char* utf8 = nullptr;
        int n = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, 0)));
        if (n >= 0) {
            out.assign(reinterpret_cast<const char*>(utf8), n);
            OPENSSL_free(utf8);
        }
    }
    return out;
}

bool SameText(const bstring& a, const bstring& b) {
    return a.nSize == b.nSize && (a.nSize == 0 || std::memcmp(a.pData, b.pData, size_t(a.nSize)) == 0);
}

void TraceStatus(const char* step, int32_t status) {
    TraceBegin();
    TraceAppend(step);
    TraceAppendInt(status);
    Trace();
}

void TraceProviderStatus(int32_t status) {
    const char* name = nullptr;
    switch (uint32_t(status)) {
        case 0x80090300u: name = "SEC_E_INSUFFICIENT_MEMORY"; break;
        case 0x80090304u: name = "SEC_E_INTERNAL_ERROR"; break;
        case 0x80090305u: name = "SEC_E_SECPKG_NOT_FOUND"; break;
        case 0x80090306u: name = "SEC_E_NOT_OWNER"; break;
        case 0x8009030Du: name = "SEC_E_UNKNOWN_CREDENTIALS"; break;
        case 0x8009030Eu: name = "SEC_E_NO_CREDENTIALS"; break;
        default: break;
    }
    if (name) Trace(name);
    else TraceStatus("**** Error returned by AcquireCredentialsHandle ", status);
}

struct Version {
    int32_t mask;
    int version;
};
constexpr Version kVersions[] = {
    {kProtocolSsl3, SSL3_VERSION},     {kProtocolTls1, TLS1_VERSION},
    {kProtocolTls11, TLS1_1_VERSION},  {kProtocolTls12, TLS1_2_VERSION},
    {kProtocolTls13, TLS1_3_VERSION},
};

// The versions of the mask as bounds and holes; false when the mask holds
// nothing OpenSSL can speak (PCT, SSL 2.0 alone).
bool ApplyProtocol(SSL_CTX* ctx, int32_t protocol) {
    if (protocol == 0) return true;
    int low = 0, high = 0;
    for (const Version& v : kVersions) {
        if (!(protocol & v.mask)) continue;
        if (!low) low = v.version;
        high = v.version;
    }
    if (!low) return false;
    if (!SSL_CTX_set_min_proto_version(ctx, low) || !SSL_CTX_set_max_proto_version(ctx, high)) return false;
    uint64_t holes = 0;
    if (low < TLS1_1_VERSION && high > TLS1_1_VERSION && !(protocol & kProtocolTls11)) holes |= SSL_OP_NO_TLSv1_1;
    if (low < TLS1_2_VERSION && high > TLS1_2_VERSION && !(protocol & kProtocolTls12)) holes |= SSL_OP_NO_TLSv1_2;
    if (low < TLS1_VERSION && high > TLS1_VERSION && !(protocol & kProtocolTls1)) holes |= SSL_OP_NO_TLSv1;
    if (holes) SSL_CTX_set_options(ctx, holes);
    // Versions before 1.2 were asked for by name: the default security
    // level would refuse every cipher they have.
    if (low < TLS1_2_VERSION) SSL_CTX_set_security_level(ctx, 0);
    return true;
}

// An ALG_ID as the cipher lists of TLS 1.2 and 1.3 ("" disables 1.3).
bool ApplyAlgorithm(SSL_CTX* ctx, int32_t algorithm) {
    if (algorithm == 0) return true;
    const char* list = nullptr;
    const char* suites = "";
    switch (algorithm) {
        case 0x6801: list = "RC4"; break;                   // CALG_RC4
        case 0x6601: list = "DES"; break;                   // CALG_DES
        case 0x6603: list = "3DES"; break;                  // CALG_3DES
        case 0x660E: list = "AES128"; suites = "TLS_AES_128_GCM_SHA256"; break;  // CALG_AES_128
        case 0x6610: list = "AES256"; suites = "TLS_AES_256_GCM_SHA384"; break;  // CALG_AES_256
        case 0x6611: list = "AES"; suites = "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384"; break;
        default: return false;
    }
    bool any = SSL_CTX_set_cipher_list(ctx, list) == 1;
    if (SSL_CTX_set_ciphersuites(ctx, suites) != 1) return false;
    any = any || *suites;
    ERR_clear_error();
    return any;
}

// Adds cert to a store that can take it and saves it: 0 or 23.
int32_t AddToStore(CertStore& store, X509* cert) {
    if (store.system || store.read_only || store.Contains(cert)) return 23;
    if (store.type == 0) {
        std::error_code ec;
        std::filesystem::create_directories(store.path, ec);
        if (ec) return 23;
        chmod(store.path.c_str(), 0700);
        unsigned char md[EVP_MAX_MD_SIZE];
        unsigned int len = 0;
        if (!X509_digest(cert, EVP_sha1(), md, &len)) return 23;
        std::string name;
        static const char kHex[] = "0123456789abcdef";
        for (unsigned i = 0; i < len; ++i) {
            name.push_back(kHex[md[i] >> 4]);
            name.push_back(kHex[md[i] & 15]);
        }
        std::string file = store.path + "/" + name + ".pem";
        int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) return 23;
        BIO* out = BIO_new_fd(fd, BIO_CLOSE);
        bool ok = out && PEM_write_bio_X509(out, cert) == 1;
        if (out) BIO_free(out);
        else ::close(fd);
        return ok ? 0 : 23;
    }
    // A file store is written whole: a temporary file renamed over it.
    BIO* mem = BIO_new(BIO_s_mem());
    if (!mem) return 23;
    bool ok = true;
    for (const Entry& e : store.entries) {
        ok = ok && PEM_write_bio_X509(mem, e.cert.get()) == 1;
        if (e.key) ok = ok && PEM_write_bio_PrivateKey(mem, e.key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
    }
    ok = ok && PEM_write_bio_X509(mem, cert) == 1;
    char* data = nullptr;
    long n = BIO_get_mem_data(mem, &data);
    std::string temp = store.path + ".korvane-new";
    int fd = ok ? ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600) : -1;
    if (fd >= 0) {
        long at = 0;
        while (at < n) {
            ssize_t w = ::write(fd, data + at, size_t(n - at));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) break;
            at += w;
        }
        ok = at == n && ::fsync(fd) == 0;
        ::close(fd);
        ok = ok && ::rename(temp.c_str(), store.path.c_str()) == 0;
        if (!ok) ::unlink(temp.c_str());
    } else {
        ok = false;
    }
    BIO_free(mem);
    return ok ? 0 : 23;
}

}  // namespace

void CCertManager::SetStoreRootForTesting(const char* directory) {
    std::lock_guard<std::mutex> lock(g_root_mutex);
    g_root_for_testing = directory ? directory : "";
}

std::string CCertManager::StoreDirectory(const bstring& name) {
    std::string n = ToString(name);
    if (!ValidStoreName(n)) return std::string();
    std::string root;
    {
        std::lock_guard<std::mutex> lock(g_root_mutex);
        root = g_root_for_testing;
    }
    if (root.empty()) {
        struct passwd pw, *found = nullptr;
        char buf[4096];
        if (getpwuid_r(getuid(), &pw, buf, sizeof buf, &found) != 0 || !found || !pw.pw_dir) return std::string();
        root = std::string(pw.pw_dir) + "/.korvane/certstores";
    }
    return root + "/" + n;
}

bstring CCertManager::SubjectName(const x509_st* cert) {
    return cert ? SimpleDisplayName(X509_get_subject_name(cert)) : bstring();
}

bstring CCertManager::IssuerName(const x509_st* cert) {
    return cert ? SimpleDisplayName(X509_get_issuer_name(cert)) : bstring();
}

bstring CCertManager::FriendlyDisplayName(x509_st* cert) {
    if (!cert) return bstring();
    int len = 0;
    const unsigned char* alias = X509_alias_get0(cert, &len);
    if (alias && len > 0) return bstring(reinterpret_cast<const char*>(alias), len);
    return SubjectName(cert);
}

double CCertManager::ExpirationDate(const x509_st* cert) {
    if (!cert) return 0;
    struct tm t {};
    if (!ASN1_TIME_to_tm(X509_get0_notAfter(cert), &t)) return 0;
    int64_t seconds = int64_t(timegm(&t));
    int64_t ticks = seconds * platform::kTicksPerSecond + platform::kUnixEpochTicks;
    platform::SystemTime local;
    int32_t bias = 0;
    double date = 0;
    if (ticks < 0 || !platform::FileTimeToLocalTime(ticks, local, bias)) return 0;
    if (!platform::SystemTimeToVariantTime(local, date)) return 0;
    return date;
}

int32_t CCertManager::CreateCredential(const bstring& store, int32_t storeType, int32_t algorithm,
                                       int32_t protocol, bstring& issuedTo, bstring& issuedBy,
                                       bstring& friendlyName, const bstring& password,
                                       ssl_ctx_st** credential, double* expiry) {
    *credential = nullptr;
    if (expiry) *expiry = 0;
    Trace("CreateCredentials started");
    CertStore opened;
    bool have_store = store.nSize > 0;
    if (have_store) {
        int32_t status = OpenStore(store, storeType, password, opened);
        if (status) {
            TraceStatus("**** Error opening certificate store ", status);
            return status;
        }
    }
    const Entry* chosen = nullptr;
    if (issuedTo.nSize || issuedBy.nSize || friendlyName.nSize) {
        for (const Entry& e : opened.entries) {
            if (issuedBy.nSize && !SameText(issuedBy, IssuerName(e.cert.get()))) continue;
            if (friendlyName.nSize && !SameText(friendlyName, FriendlyDisplayName(e.cert.get()))) continue;
            if (issuedTo.nSize && !SameText(issuedTo, SubjectName(e.cert.get()))) continue;
            chosen = &e;
            break;
        }
        if (!chosen) {
            Trace("**** Error: no certificate matches the criteria");
            return 22;
        }
    } else if (!opened.entries.empty()) {
        chosen = &opened.entries.front();
    }
    X509* cert = chosen ? chosen->cert.get() : nullptr;
    issuedTo = SubjectName(cert);
    issuedBy = IssuerName(cert);
    friendlyName = FriendlyDisplayName(cert);
    if (expiry) *expiry = ExpirationDate(cert);

    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    if (!ctx) {
        TraceProviderStatus(kSecEInsufficientMemory);
        return kSecEInsufficientMemory;
    }
    // No check of the peer inside the handshake: VerifyServerCertificate
    // does all of it, when asked.
    SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
    int32_t status = 0;
    if (!ApplyProtocol(ctx, protocol) || !ApplyAlgorithm(ctx, algorithm)) status = kSecEAlgorithmMismatch;
    if (!status && cert) {
        if (!chosen->key) status = kSecENoCredentials;
        else if (SSL_CTX_use_certificate(ctx, cert) != 1 || SSL_CTX_use_PrivateKey(ctx, chosen->key.get()) != 1 ||
                 SSL_CTX_check_private_key(ctx) != 1)
            status = kSecEUnknownCredentials;
        for (const X509Ptr& c : opened.extra_chain)
            if (!status) SSL_CTX_add1_chain_cert(ctx, c.get());
    }
    ERR_clear_error();
    if (status) {
        TraceProviderStatus(status);
        SSL_CTX_free(ctx);
        return status;
    }
    *credential = ctx;
    Trace("CreateCredentials succeeded");
    return 0;
}

bool CCertManager::CanOpenServerStore(const bstring& store, int32_t storeType) {
    if (storeType == 0) return IsSystemTrustName(store) || !StoreDirectory(store).empty();
    if (storeType != 1 && storeType != 2) return false;
    std::string path = ToString(store);
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

int32_t CCertManager::VerifyServerCertificate(x509_st* cert, stack_st_X509* chain, int32_t storeType,
                                              const bstring& store) {
    Trace("VerifyServerCertificate started");
    if (!cert) return 24;
    if (storeType != 0 && storeType != 1) return 21;
    CertStore opened;
    if (OpenStore(store, storeType, bstring(), opened) != 0) return 21;
    if (storeType == 1) opened.read_only = false;

    int32_t result = 22;
    X509_STORE* trust = X509_STORE_new();
    X509_STORE_CTX* ctx = X509_STORE_CTX_new();
    if (trust && ctx) {
        X509_STORE_set_default_paths(trust);
        for (const Entry& e : opened.entries) X509_STORE_add_cert(trust, e.cert.get());
        // A certificate placed in the store is trusted as it stands, as the
        // first-use choice of option 0x80 intends.
        X509_STORE_set_flags(trust, X509_V_FLAG_PARTIAL_CHAIN);
        if (X509_STORE_CTX_init(ctx, trust, cert, chain) == 1) {
            if (X509_verify_cert(ctx) == 1) {
                result = 0;
            } else {
                TraceBegin();
                TraceAppend("**** Certificate chain not trusted: ");
                TraceAppend(X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx)));
                Trace();
            }
        }
    }
    X509_STORE_CTX_free(ctx);
    X509_STORE_free(trust);
    ERR_clear_error();
    if (Options & kOptionAddServerCert) {
        result = AddToStore(opened, cert);
        TraceStatus("Adding the server certificate to the store: ", result);
    }
    return result;
}

}  // namespace kv
