// The deliveryKey read from a spooled message: which line decides, how the
// value is cleaned, and which messages have no usable Message-ID.
#include <gtest/gtest.h>

#include <string>

#include "state/message_id.h"
#include "test_support.h"

namespace {

struct KeyResult {
    bool found;
    std::string key;
};

class MessageIdTest : public ::testing::Test {
  protected:
    KeyResult keyOf(const std::string &message, const std::string &sender = "Sender@Example.COM",
                    const std::string &recipient = "Box@Example.COM") {
        writeFile(dir / "message", message, 0600);
        KeyResult r{false, "untouched"};
        r.found = readMessageId(dir / "message", sender, recipient, r.key);
        return r;
    }
    ScratchDir dir;
};

TEST_F(MessageIdTest, HeaderNameMatchesInAnyCaseAndOnlyTheValueIsLowered) {
    for (const char *name : {"Message-ID", "Message-Id", "MESSAGE-ID", "mEsSaGe-iD", "message-id"}) {
        KeyResult r = keyOf(std::string("From: a@b\n") + name + ": <AbC.12@Host.EXAMPLE>\n\nbody\n");
        EXPECT_TRUE(r.found) << name;
        EXPECT_EQ(r.key, "<abc.12@host.example> Sender@Example.COM Box@Example.COM") << name;
    }
}

TEST_F(MessageIdTest, LinesThatOnlyResembleTheHeaderAreSkipped) {
    // Each decoy is passed over and the scan reaches the real line after it.
    const char *decoys[] = {
        "Message-ID : <decoy@x>\n",           // blank before the colon
        " Message-ID: <decoy@x>\n",           // continuation line
        "\tmessage-id:<decoy@x>\n",           // continuation line
        "Resent-Message-ID: <decoy@x>\n",     // name does not start the line
        "Message-ID\n",                        // no colon
        "Message-I\n",                         // shorter than the name
    };
    for (const char *decoy : decoys) {
        KeyResult r = keyOf(std::string("Subject: s\n") + decoy + "Message-ID: <real@x>\n\n");
        EXPECT_TRUE(r.found) << decoy;
        EXPECT_EQ(r.key, "<real@x> Sender@Example.COM Box@Example.COM") << decoy;
    }
}

TEST_F(MessageIdTest, FirstMessageIdLineDecidesEvenWhenItsValueIsBlank) {
    KeyResult two = keyOf("Message-ID: <first@x>\nMessage-ID: <second@x>\n\n");
    EXPECT_TRUE(two.found);
    EXPECT_EQ(two.key, "<first@x> Sender@Example.COM Box@Example.COM");

    // A value folded onto the next line is not joined, and the later
    // Message-ID line is not consulted.
    KeyResult folded = keyOf("Message-ID:\n <folded@x>\nMessage-ID: <later@x>\n\n");
    EXPECT_FALSE(folded.found);
    EXPECT_EQ(folded.key, "untouched");

    KeyResult blank = keyOf("Message-ID: \t \r\nMessage-ID: <later@x>\n\n");
    EXPECT_FALSE(blank.found);
}

// Found by the message_id fuzz target: the key would be cut at the NUL byte
// when stored, and recipients of the same message would share one record.
TEST_F(MessageIdTest, ValueHoldingANulByteIsNotUsable) {
    for (const std::string &value : {std::string("<a\0b@x>", 7), std::string("\0", 1), std::string("<a@x> \0", 7)}) {
        KeyResult r = keyOf("Message-ID: " + value + "\nMessage-ID: <later@x>\n\n");
        EXPECT_FALSE(r.found) << r.key.size();
        EXPECT_EQ(r.key, "untouched");
    }
    // Elsewhere in the header a NUL byte is just another byte.
    KeyResult other = keyOf(std::string("X-Junk: a\0b\nMessage-ID: <ok@x>\n\n", 32));
    EXPECT_TRUE(other.found);
    EXPECT_EQ(other.key, "<ok@x> Sender@Example.COM Box@Example.COM");
}

TEST_F(MessageIdTest, EmptyLineEndsTheHeaderButACarriageReturnLineDoesNot) {
    EXPECT_FALSE(keyOf("\nMessage-ID: <body@x>\n").found);
    EXPECT_FALSE(keyOf("Subject: s\n\nMessage-ID: <body@x>\n").found);
    EXPECT_FALSE(keyOf("Subject: s\nFrom: a@b\n").found);
    EXPECT_FALSE(keyOf("").found);

    // CRLF message: the separator is "\r", so the body is scanned too, and
    // the trailing carriage return of the value goes with the trimming.
    KeyResult crlf = keyOf("Subject: s\r\n\r\nmessage-ID: <Body@X>\r\nmore\r\n");
    EXPECT_TRUE(crlf.found);
    EXPECT_EQ(crlf.key, "<body@x> Sender@Example.COM Box@Example.COM");

    KeyResult header = keyOf("Message-Id: <Head@X>\r\n\r\n");
    EXPECT_EQ(header.key, "<head@x> Sender@Example.COM Box@Example.COM");
}

TEST_F(MessageIdTest, LastLineWithoutNewlineIsStillRead) {
    KeyResult r = keyOf("Subject: s\nMessage-ID: <tail@x>");
    EXPECT_TRUE(r.found);
    EXPECT_EQ(r.key, "<tail@x> Sender@Example.COM Box@Example.COM");
}

TEST_F(MessageIdTest, TrimmingUsesOnlyTheSixCSpaceBytesAndKeepsTheInside) {
    // Vertical tab and form feed are trimmed; 0xA0 and 0x85 (spaces in some
    // single-byte locales) are not, and high bytes are never case-mapped.
    KeyResult r = keyOf("Message-ID:\v\f <A@B> (Comment \xC4\xA0)  <C@D>\xA0\x85\t \r\n\n");
    EXPECT_TRUE(r.found);
    EXPECT_EQ(r.key, "<a@b> (comment \xC4\xA0)  <c@d>\xA0\x85 Sender@Example.COM Box@Example.COM");
}

TEST_F(MessageIdTest, SenderAndRecipientAreTakenAsGiven) {
    KeyResult empty = keyOf("Message-ID: <m@x>\n\n", "", "Box@Example.COM");
    EXPECT_EQ(empty.key, "<m@x>  Box@Example.COM");

    KeyResult padded = keyOf("Message-ID: <m@x>\n\n", " S ", "R ");
    EXPECT_EQ(padded.key, "<m@x>  S  R ");
}

TEST_F(MessageIdTest, LongValueIsTakenWhole) {
    std::string value = "<";
    for (int i = 0; i < 5000; ++i)
        value += (i % 97 == 0) ? " " : std::string(1, static_cast<char>('a' + i % 26));
    value += "@long.example>";
    std::string upper = value;
    for (char &c : upper)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    KeyResult r = keyOf("X-Pad: " + std::string(70000, 'p') + "\nMessage-ID: " + upper + "\n\n");
    EXPECT_TRUE(r.found);
    EXPECT_EQ(r.key, value + " Sender@Example.COM Box@Example.COM");
}

TEST_F(MessageIdTest, MissingOrUnreadableFileIsNotFound) {
    std::string key = "untouched";
    EXPECT_FALSE(readMessageId(dir / "absent", "s", "r", key));
    EXPECT_FALSE(readMessageId(dir.path(), "s", "r", key));
    EXPECT_EQ(key, "untouched");
}

}  // namespace
