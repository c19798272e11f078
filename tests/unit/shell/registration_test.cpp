#include "shell/registration.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "automation/catalogue.h"
#include "automation/guid.h"
#include "automation/object.h"
#include "platform/keystore.h"
#include "shell/classes.h"
#include "shell/identifiers.h"

extern "C" HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv);
extern "C" HRESULT DllCanUnloadNow();

namespace kv::shell {
namespace {

using automation::Catalogue;
using automation::GuidToString;

class StoreFile {
public:
    StoreFile() {
        char pattern[] = "/tmp/kvregXXXXXX";
        dir_ = mkdtemp(pattern);
        path_ = dir_ + "/sub/registry.ini";
    }
    ~StoreFile() { std::filesystem::remove_all(dir_); }
    const std::string& path() const { return path_; }
    platform::KeyStore Load() const {
        platform::KeyStore store;
        EXPECT_TRUE(store.Load(path_));
        return store;
    }

private:
    std::string dir_, path_;
};

TEST(Catalogue, HoldsTheClassesInOrderWithTheirTexts) {
    RegisterCatalogue();
    std::vector<std::string> progids;
    for (const auto* cls : Catalogue::Instance().Classes())
        if (std::string(cls->progid).rfind("Korvane.Test", 0) != 0) progids.push_back(cls->progid);
    ASSERT_EQ(progids.size(), 26u);
    EXPECT_EQ(progids.front(), "Korvane.Message");
    EXPECT_EQ(progids[6], "Korvane.POP3");
    EXPECT_EQ(progids[21], "Korvane.FromFile");
    EXPECT_EQ(progids.back(), "Korvane.MailboxStatus");
    const automation::ClassInfo* form_file = Catalogue::Instance().FindProgID("korvane.fromfile.1");
    ASSERT_NE(form_file, nullptr);
    EXPECT_STREQ(form_file->description, "FromFile Class");
    EXPECT_EQ(Catalogue::Instance().FindProgID("Korvane.FormFile"), nullptr);
    EXPECT_EQ(Catalogue::Instance().FindProgID("Korvane.Message.1"),
              Catalogue::Instance().FindProgID("Korvane.Message"));
}

TEST(Catalogue, ClassesOfLaterSubsystemsAreNotAvailableYet) {
    RegisterCatalogue();
    IDispatch* object = nullptr;
    EXPECT_EQ(Catalogue::Instance().CreateObject("Korvane.IMAP4", &object), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(Catalogue::Instance().CreateObject("Korvane.FormFile", &object), CO_E_CLASSSTRING);
    ASSERT_EQ(Catalogue::Instance().CreateObject("Korvane.Message", &object), S_OK);
    object->Release();
}

TEST(Registration, WritesTheKeysOfEveryClassAndRemovesThem) {
    StoreFile file;
    // Something of another library lives under CLSID and must survive.
    {
        platform::KeyStore store;
        store.SetValue("CLSID\\{00000000-0000-0000-0000-000000000001}", "", "Other");
        ASSERT_TRUE(store.Save(file.path()));
    }
    ASSERT_EQ(RegisterServer(file.path()), S_OK);
    platform::KeyStore store = file.Load();
    std::string library = LibraryPath();
    ASSERT_FALSE(library.empty());
    int classes = 0;
    for (const auto* cls : Catalogue::Instance().Classes()) {
        std::string progid = cls->progid;
        if (progid.rfind("Korvane.Test", 0) == 0) continue;
        ++classes;
        std::string clsid = GuidToString(cls->clsid);
        std::string value;
        struct Expect {
            std::string key, name, value;
        } expected[] = {
            {progid + ".1", "", cls->description},
            {progid + ".1\\CLSID", "", clsid},
            {progid, "", cls->description},
            {progid + "\\CLSID", "", clsid},
            {progid + "\\CurVer", "", progid + ".1"},
            {"CLSID\\" + clsid, "", cls->description},
            {"CLSID\\" + clsid + "\\ProgID", "", progid + ".1"},
            {"CLSID\\" + clsid + "\\VersionIndependentProgID", "", progid},
            {"CLSID\\" + clsid + "\\InprocServer32", "", library},
            {"CLSID\\" + clsid + "\\InprocServer32", "ThreadingModel", "Apartment"},
            {"CLSID\\" + clsid + "\\TypeLib", "", GuidToString(LIBID_Korvane)},
        };
        for (const auto& e : expected) {
            ASSERT_TRUE(store.GetValue(e.key, e.name, value)) << e.key << " " << e.name;
            EXPECT_EQ(value, e.value) << e.key;
        }
        EXPECT_TRUE(store.KeyExists("CLSID\\" + clsid + "\\Programmable"));
    }
    EXPECT_EQ(classes, 26);
    std::string help;
    ASSERT_TRUE(store.GetValue("TypeLib\\" + GuidToString(LIBID_Korvane) + "\\1.0", "", help));
    EXPECT_EQ(help, "Korvane Objects 9.4 Type Library");

    ASSERT_EQ(UnregisterServer(file.path()), S_OK);
    store = file.Load();
    EXPECT_TRUE(store.KeyExists("CLSID"));
    EXPECT_EQ(store.SubKeys("CLSID"),
              std::vector<std::string>{"{00000000-0000-0000-0000-000000000001}"});
    EXPECT_FALSE(store.KeyExists("Korvane.Message"));
    EXPECT_FALSE(store.KeyExists("Korvane.FromFile.1"));
    EXPECT_FALSE(store.KeyExists("TypeLib\\" + GuidToString(LIBID_Korvane)));
}

TEST(Registration, CreationThroughTheStore) {
    StoreFile file;
    ASSERT_EQ(RegisterServer(file.path()), S_OK);
    InstallStoreResolver();
    IDispatch* object = nullptr;
    ASSERT_EQ(automation::CreateRegistered(file.path().c_str(), "Korvane.Message.1", &object), S_OK);
    ASSERT_NE(object, nullptr);
    object->Release();
    object = nullptr;
    EXPECT_EQ(automation::CreateRegistered(file.path().c_str(), "Korvane.SMIME", &object),
              CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(automation::CreateRegistered(file.path().c_str(), "Korvane.FormFile", &object),
              REGDB_E_CLASSNOTREG);
    EXPECT_EQ(object, nullptr);
}

TEST(EntryPoints, ClassObjectAndUnloadTellTheTruth) {
    RegisterCatalogue();
    if (automation::LiveObjects() != 0 || automation::ServerLocks() != 0)
        GTEST_SKIP() << "objects of an earlier test in this process are still alive";
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    IClassFactory* factory = nullptr;
    ASSERT_EQ(DllGetClassObject(CLSID_Message, IID_IClassFactory, reinterpret_cast<void**>(&factory)),
              S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);  // the factory is alive
    IDispatch* msg = nullptr;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(&msg)), S_OK);
    factory->LockServer(1);
    factory->Release();
    msg->Release();
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);  // a lock is held
    // Unlocking needs the factory again.
    ASSERT_EQ(DllGetClassObject(CLSID_Message, IID_IClassFactory, reinterpret_cast<void**>(&factory)),
              S_OK);
    factory->LockServer(0);
    factory->Release();
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    EXPECT_EQ(DllGetClassObject(LIBID_Korvane, IID_IClassFactory, reinterpret_cast<void**>(&factory)),
              CLASS_E_CLASSNOTAVAILABLE);
}

TEST(KeyStore, RoundTripsAndIgnoresCase) {
    StoreFile file;
    platform::KeyStore store;
    store.SetValue("A\\B\\C", "", "default");
    store.SetValue("a\\b", "Name", "v=1");
    ASSERT_TRUE(store.Save(file.path()));
    platform::KeyStore loaded = file.Load();
    std::string v;
    EXPECT_TRUE(loaded.GetValue("a\\B\\c", "", v));
    EXPECT_EQ(v, "default");
    EXPECT_TRUE(loaded.GetValue("A\\B", "Name", v));
    EXPECT_EQ(v, "v=1");
    EXPECT_TRUE(loaded.KeyExists("A"));
    EXPECT_EQ(loaded.SubKeys("A\\B"), std::vector<std::string>{"C"});
    loaded.DeleteTree("a\\b");
    EXPECT_FALSE(loaded.KeyExists("A\\B\\C"));
    EXPECT_TRUE(loaded.KeyExists("A"));
    platform::KeyStore missing;
    EXPECT_TRUE(missing.Load(file.path() + ".absent"));
}

}  // namespace
}  // namespace kv::shell
