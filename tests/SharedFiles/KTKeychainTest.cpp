#include "SharedFiles/KTKeychain.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

const std::string kItem = KTKeychain::kAppleIDItemName;

/// Keychain tests need the private keyring of tests/support/with-keyring;
/// ctest runs them inside it. Anywhere else they would touch the person's
/// own secrets.
bool privateKeyring() {
    return std::getenv("AMBREL_PRIVATE_KEYRING") != nullptr;
}

ChildProcess sh(const std::string& script) {
    return ChildProcess::run({"/bin/sh", "-c", script});
}

/// Plants an item as another program would, with `secret-tool store`.
void plant(const std::string& account, const std::string& password) {
    auto r = sh("printf %s '" + password + "' | secret-tool store --label='" + kItem + "' labl '" +
                kItem + "' acct '" + account + "'");
    ASSERT_EQ(r.exitCode, 0) << r.err;
}

int itemsVisibleToSecretTool() {
    auto r = sh("secret-tool search --all labl '" + kItem + "' 2>&1");
    int count = 0;
    for (std::size_t at = 0; (at = r.out.find("attribute.labl = ", at)) != std::string::npos; ++at)
        ++count;
    return count;
}

class KTKeychainTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!privateKeyring())
            GTEST_SKIP() << "needs the private keyring of tests/support/with-keyring";
        KTKeychain::deleteAllKeychainItems(kItem, std::nullopt);
    }
    void TearDown() override {
        if (privateKeyring()) KTKeychain::deleteAllKeychainItems(kItem, std::nullopt);
    }
};

}  // namespace

TEST_F(KTKeychainTest, AppleIDIsStoredReadReplacedAndRemoved) {
    std::string id, password;
    EXPECT_FALSE(KTKeychain::appleIDInfo(&id, &password));
    EXPECT_TRUE(id.empty());
    EXPECT_TRUE(password.empty());

    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", "abcd-efgh-ijkl-mnop"));
    EXPECT_EQ(itemsVisibleToSecretTool(), 1);
    auto r = sh("secret-tool lookup labl '" + kItem + "'");
    EXPECT_EQ(r.out, "abcd-efgh-ijkl-mnop");
    ASSERT_TRUE(KTKeychain::appleIDInfo(&id, &password));
    EXPECT_EQ(id, "dev@example.com");
    EXPECT_EQ(password, "abcd-efgh-ijkl-mnop");

    // Writing again replaces: still one item, with the new values.
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("other@example.com", "new-pass"));
    EXPECT_EQ(itemsVisibleToSecretTool(), 1);
    ASSERT_TRUE(KTKeychain::appleIDInfo(&id, &password));
    EXPECT_EQ(id, "other@example.com");
    EXPECT_EQ(password, "new-pass");

    // An empty password only removes.
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("other@example.com", ""));
    EXPECT_EQ(itemsVisibleToSecretTool(), 0);
    EXPECT_FALSE(KTKeychain::checkForExistenceOfKeychainItem(kItem, std::nullopt, std::nullopt,
                                                             std::nullopt));
}

TEST_F(KTKeychainTest, TwoItemsWithOneLabelReadTheFirstAndAreBothReplaced) {
    plant("first@example.com", "one");
    plant("second@example.com", "two");
    ASSERT_EQ(itemsVisibleToSecretTool(), 2);

    std::string id, password;
    ASSERT_TRUE(KTKeychain::appleIDInfo(&id, &password));
    EXPECT_EQ(id, "first@example.com");
    EXPECT_EQ(password, "one");

    // The account narrows the search to the second one.
    EXPECT_EQ(KTKeychain::getPasswordFromKeychainItem(
                  kItem, std::nullopt, std::string("second@example.com"), std::nullopt),
              "two");
    ASSERT_TRUE(
        KTKeychain::modifyKeychainItem(kItem, std::nullopt, std::nullopt, std::nullopt, "changed"));
    EXPECT_EQ(
        KTKeychain::getPasswordFromKeychainItem(kItem, std::nullopt, std::nullopt, std::nullopt),
        "changed");

    ASSERT_TRUE(KTKeychain::setAppleIDInfo("third@example.com", "three"));
    EXPECT_EQ(itemsVisibleToSecretTool(), 1);
    ASSERT_TRUE(KTKeychain::appleIDInfo(&id, &password));
    EXPECT_EQ(id, "third@example.com");
}

TEST_F(KTKeychainTest, LongPasswordComesBackCutTo1023Bytes) {
    std::string longPassword;
    for (int i = 0; i < 2000; ++i) longPassword += static_cast<char>('a' + i % 26);
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", longPassword));
    // Stored whole; only the read is cut.
    EXPECT_EQ(sh("secret-tool lookup labl '" + kItem + "'").out.size(), 2000u);
    std::string password;
    ASSERT_TRUE(KTKeychain::appleIDInfo(nullptr, &password));
    EXPECT_EQ(password, longPassword.substr(0, 1023));
}

TEST_F(KTKeychainTest, AttributesNarrowTheSearchAndNoneSearchesNothing) {
    ASSERT_TRUE(KTKeychain::addKeychainItem(kItem, std::string("kind"), std::string("a@b.c"), "pw",
                                            std::string("host")));
    EXPECT_EQ(KTKeychain::keychainItem(std::nullopt, std::nullopt, std::nullopt, std::nullopt),
              nullptr);
    auto item =
        KTKeychain::keychainItem(std::nullopt, std::nullopt, std::nullopt, std::string("host"));
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(KTKeychain::attributeFromKeychainItemRef(item, "acct"), "a@b.c");
    EXPECT_EQ(KTKeychain::attributeFromKeychainItemRef(item, "desc"), "kind");
    EXPECT_EQ(item->label, kItem);
    EXPECT_FALSE(KTKeychain::checkForExistenceOfKeychainItem(kItem, std::string("other kind"),
                                                             std::nullopt, std::nullopt));
    // Deleting by name and kind leaves an item of another kind alone.
    ASSERT_TRUE(KTKeychain::addKeychainItem(kItem, std::nullopt, std::string("x@y.z"), "pw2",
                                            std::nullopt));
    ASSERT_TRUE(KTKeychain::deleteAllKeychainItems(kItem, std::string("kind")));
    EXPECT_EQ(itemsVisibleToSecretTool(), 1);
    EXPECT_EQ(
        KTKeychain::getPasswordFromKeychainItem(kItem, std::nullopt, std::nullopt, std::nullopt),
        "pw2");
}

// ---- Certificates: files made by openssl at test time ----------------------

namespace {

bool haveOpenSSL() {
    return sh("command -v openssl >/dev/null").exitCode == 0;
}

/// A self-signed certificate with `cn` as PEM at `pem` (and its key beside it).
void makeCertificate(const std::string& cn, const std::string& pem) {
    auto r = sh("openssl req -x509 -newkey rsa:1024 -nodes -days 2 -subj '/O=Acme/CN=" + cn +
                "' -keyout '" + pem + ".key' -out '" + pem + "' 2>&1");
    ASSERT_EQ(r.exitCode, 0) << r.out;
}

}  // namespace

TEST(KTKeychainCertificates, NamesComeFromPemDerAndPkcs12InFolderOrder) {
    if (!haveOpenSSL()) GTEST_SKIP() << "openssl is not installed";
    ScratchRoot scratch;
    const std::string user = scratch.homePath("/Library/Keychains/Certificates");
    const std::string machine = scratch.rootPath("/Library/Keychains/Certificates");
    ScratchRoot::makeDirs(user);
    ScratchRoot::makeDirs(machine);
    const std::string work = scratch.base() + "/work";
    ScratchRoot::makeDirs(work);

    makeCertificate("Developer ID Application: Acme Labs (AB12CD34EF)", work + "/a.pem");
    makeCertificate("Apple Development: Dev One", work + "/b.pem");
    makeCertificate("Machine Wide CA", work + "/c.pem");
    // DER, PKCS#12 without a password, and PEM, named so that name order differs from making order.
    ASSERT_EQ(sh("openssl x509 -in " + work + "/b.pem -outform DER -out '" + user + "/1-dev.cer'")
                  .exitCode,
              0);
    ASSERT_EQ(sh("openssl pkcs12 -export -passout pass: -in " + work + "/a.pem -inkey " + work +
                 "/a.pem.key -out '" + user + "/2-id.p12' 2>&1")
                  .exitCode,
              0);
    fs::copy_file(work + "/c.pem", machine + "/ca.pem");
    ScratchRoot::writeFile(user + "/3-notes.txt", "not a certificate");

    testing::internal::CaptureStderr();
    auto names = KTKeychain::certificateNames();
    const std::string err = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(names.has_value());
    EXPECT_EQ(*names, (std::vector<std::string>{"Apple Development: Dev One",
                                                "Developer ID Application: Acme Labs (AB12CD34EF)",
                                                "Machine Wide CA"}));
    EXPECT_NE(err.find("Unable to create keychain certificate from data: "), std::string::npos);
}

TEST(KTKeychainCertificates, UnlistableFolderGivesNothingAndNoFolderGivesAnEmptyList) {
    ScratchRoot scratch;
    auto names = KTKeychain::certificateNames();
    ASSERT_TRUE(names.has_value());
    EXPECT_TRUE(names->empty());

    // A file where the folder should be is not a folder to list: still empty.
    ScratchRoot::writeFile(scratch.homePath("/Library/Keychains/Certificates"), "x");
    EXPECT_TRUE(KTKeychain::certificateNames().value_or(std::vector<std::string>{"?"}).empty());

    if (::geteuid() == 0) return;  // root lists any folder
    const std::string locked = scratch.rootPath("/Library/Keychains/Certificates");
    ScratchRoot::makeDirs(locked);
    fs::permissions(locked, fs::perms::none);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(KTKeychain::certificateNames().has_value());
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Unable to create keychain search: "),
              std::string::npos);
    fs::permissions(locked, fs::perms::owner_all);
}
