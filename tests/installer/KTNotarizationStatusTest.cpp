// The notary tools' answers, read through the property-list guard.
#include <gtest/gtest.h>

#include "installer/KTNotarizationStatus.h"

namespace {

std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + body +
           "</dict></plist>\n";
}

KTPlistPtr read(const std::string& text, std::string* error) {
    return KTNotarizationStatus::propertyListFromAnswer(text, error);
}

}  // namespace

TEST(KTNotarizationStatus, ProductErrorsAreJoinedAndTextIsTheError) {
    std::string error;
    // Entries with only a message, with a localised description (which wins),
    // and with neither (skipped), in order, each followed by a space.
    EXPECT_FALSE(read(plist("<key>product-errors</key><array>"
                            "<dict><key>code</key><integer>1</integer>"
                            "<key>message</key><string>Bad password.</string></dict>"
                            "<dict><key>code</key><integer>2</integer></dict>"
                            "<dict><key>message</key><string>ignored</string><key>userInfo</key>"
                            "<dict><key>NSLocalizedDescription</key><string>No such team.</string>"
                            "</dict></dict></array>"),
                      &error));
    EXPECT_EQ(error, "Bad password. No such team. ");

    // Nothing gathered: the dictionary is the answer.
    EXPECT_TRUE(read(plist("<key>product-errors</key><array><dict/></array>"
                           "<key>notarization-upload</key><dict/>"),
                     &error));

    // Anything but an XML dictionary is handed on as it is.
    for (const std::string text :
         {std::string("altool: error: Unable to find utility \"altool\"\n"), std::string(),
          std::string("<plist version=\"1.0\"><array/></plist>"), std::string("<plist><dict>")}) {
        error = "unset";
        EXPECT_FALSE(read(text, &error)) << text;
        EXPECT_EQ(error, text);
    }
}

TEST(KTNotarizationStatus, AltoolUploadAndInfoKeys) {
    std::string error;
    KTPlistPtr upload = read(plist("<key>notarization-upload</key><dict><key>RequestUUID</key>"
                                   "<string>2efe2717-52ef</string></dict>"),
                             &error);
    ASSERT_TRUE(upload);
    EXPECT_EQ(KTNotarizationStatus::requestUUID(upload.get(), &error), "2efe2717-52ef");

    KTPlistPtr noUUID = read(plist("<key>notarization-upload</key><dict/>"), &error);
    EXPECT_FALSE(KTNotarizationStatus::requestUUID(noUUID.get(), &error));
    EXPECT_EQ(error, "Unable to get UUID from notarization process.");
    KTPlistPtr other = read(plist("<key>os-version</key><string>14</string>"), &error);
    EXPECT_FALSE(KTNotarizationStatus::requestUUID(other.get(), &error));
    EXPECT_EQ(error, "Unknown data format returned by notarization process.");

    auto info = [&](const std::string& body) {
        KTPlistPtr answer =
            read(plist("<key>notarization-info</key><dict>" + body + "</dict>"), &error);
        return KTNotarizationStatus::altoolStatus(answer.get());
    };
    auto invalid = info(
        "<key>Status</key><string>invalid</string><key>Status Message</key>"
        "<string>Package Invalid</string><key>LogFileURL</key><string>https://log/1</string>");
    EXPECT_EQ(invalid.status, "invalid");
    EXPECT_EQ(invalid.error, "Package Invalid");
    EXPECT_EQ(invalid.logURL, "https://log/1");
    auto progress = info(
        "<key>Status</key><string>in progress</string><key>LogFileURL</key>"
        "<string>https://log/2</string>");
    EXPECT_EQ(progress.status, "in progress");
    EXPECT_FALSE(progress.logURL);
    auto missing = info("<key>Date</key><string>now</string>");
    EXPECT_FALSE(missing.status);
    EXPECT_EQ(missing.error, "Unable to get status check from notarization process.");
    EXPECT_EQ(KTNotarizationStatus::altoolStatus(other.get()).error,
              "Unknown data format returned by notarization process.");
}

TEST(KTNotarizationStatus, NotarytoolStatusesReadAsAltoolsAndMessagesAreErrors) {
    std::string error;
    auto status = [&](const std::string& value) {
        KTPlistPtr answer = read(plist("<key>id</key><string>abc</string><key>message</key>"
                                       "<string>Successfully received submission info</string>"
                                       "<key>name</key><string>Acme.zip</string>"
                                       "<key>status</key><string>" +
                                       value + "</string>"),
                                 &error);
        return KTNotarizationStatus::notarytoolStatus(answer.get());
    };
    EXPECT_EQ(status("In Progress").status, "in progress");
    EXPECT_EQ(status("Accepted").status, "success");
    for (const char* failed : {"Invalid", "Rejected"}) {
        auto s = status(failed);
        EXPECT_EQ(s.status, failed);
        EXPECT_NE(s.error.find(failed), std::string::npos) << s.error;
        EXPECT_NE(s.error.find("Acme.zip"), std::string::npos) << s.error;
    }

    KTPlistPtr submitted = read(plist("<key>id</key><string>2efe</string><key>message</key>"
                                      "<string>Successfully uploaded file</string>"),
                                &error);
    EXPECT_EQ(KTNotarizationStatus::submissionID(submitted.get(), &error), "2efe");
    KTPlistPtr refused = read(
        plist("<key>message</key><string>HTTP status code: 401. Invalid credentials.</string>"),
        &error);
    EXPECT_FALSE(KTNotarizationStatus::submissionID(refused.get(), &error));
    EXPECT_EQ(error, "HTTP status code: 401. Invalid credentials.");
    EXPECT_FALSE(KTNotarizationStatus::notarytoolStatus(refused.get()).status);
}
