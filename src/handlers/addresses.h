// The address vector the driver hands the handler pass:
// [ "", "", sender, recipient..., nullptr ].
#pragma once
#include <cstddef>

const int kFirstRecipient = 3;
// The null sender of bounces and notifications, as every part of a run writes it.
inline constexpr char kNullSender[] = "<>";
// Recipients are read from kFirstRecipient up to this position (exclusive).
const int kAddressBound = 16384;
// The driver accepts an address of at most 501 characters, and the registry
// compares addresses in that size.
const size_t kAddressBufferSize = 502;

// The sender, or null when there is no vector or it ends before the sender.
inline char *senderOf(char **addresses) {
    if (addresses == nullptr || addresses[0] == nullptr || addresses[1] == nullptr)
        return nullptr;
    return addresses[2];
}

// The address at position i, a recipient, or null at the bound or without a
// sender. Callers walk i upwards from kFirstRecipient and stop at the first
// null, the vector's end.
inline char *recipientAt(char **addresses, int i) {
    if (i >= kAddressBound || senderOf(addresses) == nullptr)
        return nullptr;
    return addresses[i];
}
