// A look at one delivery's stored record without touching the database: for
// tools that explain a delivery, never for the delivery itself.
#pragma once
#include <set>
#include <string>

enum RecordLook { RECORD_UNREADABLE = -1, RECORD_ABSENT = 0, RECORD_FOUND = 1 };

// Opens the database as a reader only (no file is created, nothing written)
// and fills lines with the record of key as a delivery would load it.
// RECORD_UNREADABLE leaves the library's message in problem.
RecordLook lookAtDeliveryRecord(const std::string &databasePath, const std::string &key,
                                std::set<std::string> &lines, std::string &problem);
