// The deliveryKey of a spooled message: its first Message-ID value (lower-cased,
// trimmed, continuation lines joined; "-" without one), a space, the sender, a
// space, the recipient, a space and the message's digest (32 hex digits, last
// and fixed in length), so that a record applies to the identical message only.
#pragma once
#include <string>

// The digest of the message as received (from the spooling pass); without one
// readMessageId digests the file it is given.
void setMessageDigest(const std::string &digest);

// True and the key; false only when the file cannot be read for its digest.
bool readMessageId(const std::string &messagePath, const std::string &sender,
                   const std::string &recipient, std::string &key);

// The first Message-ID value of the header as written (trimmed, case kept),
// by the same rules; empty when there is none.
std::string messageIdOf(const std::string &messagePath);

// The same, taken from readMessageId's scan when that was of this file: a run
// keys its state and names its summary line by one message, scanned once.
std::string keyedMessageIdOf(const std::string &messagePath);
