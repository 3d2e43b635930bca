// The deliveryKey read from a spooled message: which line decides, how the
// value is cleaned, and which messages have no usable Message-ID.
#include <gtest/gtest.h>

#include <string>

#include "state/message_id.h"
#include "test_support.h"

namespace {

const std::string kParties = " Sender@Example.COM Box@Example.COM";

class MessageIdTest : public ::testing::Test {
  protected:
    // The key for the message, or "-" when it has none.
    std::string keyOf(const std::string &message, const std::string &sender = "Sender@Example.COM",
                      const std::string &recipient = "Box@Example.COM") {
        writeFile(dir / "message", message, 0600);
        std::string key = "untouched";
        bool found = readMessageId(dir / "message", sender, recipient, key);
        EXPECT_EQ(found, key != "untouched") << "the key is set exactly when one is found";
        return found ? key : "-";
    }
    ScratchDir dir;
};

TEST_F(MessageIdTest, WhichLineDecidesAndHowItsValueIsCleaned) {
    struct Case {
        std::string message, key;
    };
    const Case cases[] = {
        // The name in any case; only the value is lowered.
        {"From: a@b\nMessage-ID: <AbC.12@Host.EXAMPLE>\n\nbody\n", "<abc.12@host.example>"},
        {"MESSAGE-ID: <x@y>\n\n", "<x@y>"},
        {"mEsSaGe-iD: <x@y>\n\n", "<x@y>"},
        {"message-id: <x@y>\n\n", "<x@y>"},
        // Lines that only resemble the header are passed over.
        {"Message-ID : <decoy@x>\nMessage-ID: <real@x>\n\n", "<real@x>"},
        {" Message-ID: <decoy@x>\nMessage-ID: <real@x>\n\n", "<real@x>"},
        {"\tmessage-id:<decoy@x>\nMessage-ID: <real@x>\n\n", "<real@x>"},
        {"Resent-Message-ID: <decoy@x>\nMessage-ID: <real@x>\n\n", "<real@x>"},
        {"Message-ID\nMessage-I\nMessage-ID: <real@x>\n\n", "<real@x>"},
        // The first Message-ID line decides, even with a blank or folded value.
        {"Message-ID: <first@x>\nMessage-ID: <second@x>\n\n", "<first@x>"},
        {"Message-ID:\n <folded@x>\nMessage-ID: <later@x>\n\n", "-"},
        {"Message-ID: \t \r\nMessage-ID: <later@x>\n\n", "-"},
        // The first empty line ends the header; a "\r" line does not, so a
        // CRLF message is scanned into its body.
        {"\nMessage-ID: <body@x>\n", "-"},
        {"Subject: s\n\nMessage-ID: <body@x>\n", "-"},
        {"Subject: s\nFrom: a@b\n", "-"},
        {"", "-"},
        {"Subject: s\r\n\r\nmessage-ID: <Body@X>\r\nmore\r\n", "<body@x>"},
        {"Message-Id: <Head@X>\r\n\r\n", "<head@x>"},
        {"Subject: s\nMessage-ID: <tail@x>", "<tail@x>"},
        // Only the six C space bytes are trimmed (not 0xA0 or 0x85), the
        // inside is kept, and high bytes are never case-mapped.
        {"Message-ID:\v\f <A@B> (Comment \xC4\xA0)  <C@D>\xA0\x85\t \r\n\n", "<a@b> (comment \xC4\xA0)  <c@d>\xA0\x85"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(keyOf(c.message), c.key == "-" ? c.key : c.key + kParties) << c.message;
}

// Found by the message_id fuzz target: the key would be cut at the NUL byte
// when stored, and recipients of the same message would share one record.
TEST_F(MessageIdTest, ValueHoldingANulByteIsNotUsable) {
    for (const std::string &value : {std::string("<a\0b@x>", 7), std::string("\0", 1), std::string("<a@x> \0", 7)})
        EXPECT_EQ(keyOf("Message-ID: " + value + "\nMessage-ID: <later@x>\n\n"), "-");
    // Elsewhere in the header a NUL byte is just another byte.
    EXPECT_EQ(keyOf(std::string("X-Junk: a\0b\nMessage-ID: <ok@x>\n\n", 32)), "<ok@x>" + kParties);
}

TEST_F(MessageIdTest, SenderAndRecipientAreTakenAsGivenAndLongValuesWhole) {
    EXPECT_EQ(keyOf("Message-ID: <m@x>\n\n", "", "Box@Example.COM"), "<m@x>  Box@Example.COM");
    EXPECT_EQ(keyOf("Message-ID: <m@x>\n\n", " S ", "R "), "<m@x>  S  R ");

    std::string value = "<";
    for (int i = 0; i < 5000; ++i)
        value += (i % 97 == 0) ? " " : std::string(1, static_cast<char>('a' + i % 26));
    value += "@long.example>";
    std::string upper = value;
    for (char &c : upper)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    EXPECT_EQ(keyOf("X-Pad: " + std::string(70000, 'p') + "\nMessage-ID: " + upper + "\n\n"), value + kParties);
}

TEST_F(MessageIdTest, MissingOrUnreadableFileIsNotFound) {
    std::string key = "untouched";
    EXPECT_FALSE(readMessageId(dir / "absent", "s", "r", key));
    EXPECT_FALSE(readMessageId(dir.path(), "s", "r", key));
    EXPECT_EQ(key, "untouched");
}

}  // namespace
