// deliveryManager: the delivery state as the instruction-file processing sees
// it for one run.
//
// Promises: never fails outward. Without a usable Message-ID (or without
// memory for the record) it logs one warning, answers "not served" to every
// line and never touches the database. Otherwise the record is loaded once at
// construction, lookups and marks stay in memory, and the database is written
// at most once more: removed by complete(), or saved by the destructor when
// lines were marked since the last complete().
#include <new>

#include "driver/log.h"
#include "state/delivery_state.h"
#include "state/message_id.h"

deliveryManager::deliveryManager(const std::string &messageFile, const std::string &sender,
                                 const std::string &recipient, const std::string &databasePath, bool look)
    : state(nullptr), messageFile(messageFile), key(), enabled(false), clean(true),
      sender(sender), recipient(recipient) {
    if (look && messageFile.empty())
        return;
    if (!readMessageId(this->messageFile, this->sender, this->recipient, key)) {
        LogFunction(4, "deliveryManager: Get empty message id, delivery state will be disabled "
                       "for this mail");
        return;
    }
    state.reset(new (std::nothrow) DeliveryState(databasePath, key, look));
    enabled = state != nullptr;
}

deliveryManager::~deliveryManager() {
    if (enabled && !clean)
        state->save();
}

bool deliveryManager::isDelivered(const std::string &line) const {
    return enabled && state->contains(line);
}

void deliveryManager::markDelivered(const std::string &line) {
    if (!enabled)
        return;
    state->add(line);
    clean = false;
}

void deliveryManager::complete() {
    if (!enabled)
        return;
    state->erase();
    clean = true;
}
