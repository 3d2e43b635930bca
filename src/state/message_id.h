// The deliveryKey of a spooled message: its first Message-ID value (lower-cased,
// trimmed), a space, the sender, a space, the recipient.
#pragma once
#include <string>

// True and the key when a usable Message-ID line was found in the header.
bool readMessageId(const std::string &messagePath, const std::string &sender,
                   const std::string &recipient, std::string &key);

// The first Message-ID value of the header as written (trimmed, case kept),
// by the same rules; empty when there is none.
std::string messageIdOf(const std::string &messagePath);
