// The delivery state: which instruction lines of one delivery were already
// served, kept across the transfer agent's retries in a Tokyo Cabinet hash
// database under the delivery's key (Message-ID, sender, recipient, digest).
// A record's value is the time it was first saved (decimal seconds), then
// the lines, each piece ended by the next line feed.
#pragma once
#include <memory>
#include <set>
#include <ctime>
#include <string>

#include "paths.h"

// Splits a stored value into its lines; returns the time it was first saved
// (0 when the value carries none).
time_t splitDeliveryRecord(const std::string &value, std::set<std::string> &lines);

// What loading found, for ferndrop-explain.
enum StateFound { STATE_OFF, STATE_NO_DATABASE, STATE_NO_RECORD, STATE_RECORD, STATE_UNREADABLE };

// The record of one delivery and its database operations. Each operation
// opens the database, makes one call and closes it again.
class DeliveryState {
  public:
    // Loads the stored record of key, creating the database file when
    // missing. look: only reads (a reader's open, the same deadline), and
    // save and erase do nothing.
    DeliveryState(const std::string &databasePath, const std::string &key, bool look = false);

    bool contains(const std::string &line) const;
    void add(const std::string &line);
    // 0 on success or nothing to do, 1 on failure (logged).
    int save();
    int erase();
    StateFound found() const { return foundAs; }
    size_t size() const { return lines.size(); }

  private:
    void init();
    void forgetIfOutlived();

    std::set<std::string> lines;
    bool loaded;
    bool look;
    StateFound foundAs = STATE_NO_RECORD;
    time_t savedAt = 0;  // when the loaded record was first saved
    std::string key;
    std::string databasePath;
};

// What the instruction-file processing talks to: disabled (answering "not
// served" and storing nothing) when the message has no usable Message-ID.
// Saves the record on destruction when lines were marked since the last
// complete(). look: the same answers from a read-only look, never written
// (a null messageFile: no message to key by, so nothing counts as served).
class deliveryManager {
  public:
    deliveryManager(const std::string &messageFile, const std::string &sender,
                    const std::string &recipient,
                    const std::string &databasePath = FERNDROP_STATE_DB, bool look = false);
    ~deliveryManager();
    deliveryManager(const deliveryManager &) = delete;
    deliveryManager &operator=(const deliveryManager &) = delete;

    bool isDelivered(const std::string &line) const;
    void markDelivered(const std::string &line);
    void complete();
    StateFound found() const { return state ? state->found() : STATE_OFF; }
    size_t servedCount() const { return state ? state->size() : 0; }
    const std::string &deliveryKey() const { return key; }

  private:
    std::unique_ptr<DeliveryState> state;
    std::string messageFile;
    std::string key;
    bool enabled;
    bool clean;
    std::string sender;
    std::string recipient;
};
