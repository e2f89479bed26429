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
