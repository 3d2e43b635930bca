// ferndrop's own settings: /etc/ferndrop/ferndrop.conf (compiled-in path
// FERNDROP_SETTINGS_FILE), in the panel file's syntax ("name value", "#"
// comments), lower-case names. The panel's own file stays the panel's.
//
// Promises: every setting has a compiled-in default, so no setting can stop a
// delivery. The file is read at most once per process, on the first lookup.
// A missing file is not an error and logs nothing; an unreadable one logs one
// warning and leaves every default in force. A value its setting does not
// accept logs one warning naming the setting, and the default is used; so
// does a name no setting has. A lookup of a name the table does not list is
// a programming error and aborts.
#pragma once
#include <string>
#include <vector>

// The value in effect, as validated text (the default when unset or invalid).
const std::string &settingText(const char *name);
// A setting of seconds or another count.
long long settingNumber(const char *name);
// A yes/no setting.
bool settingYes(const char *name);
// A list setting ("a,b,c"), split at commas; empty for "none".
std::vector<std::string> settingList(const char *name);

struct SettingInEffect {
    std::string name, value;
    const char *source;  // "default", "file" or "invalid" (the file's value was refused)
};
// Every setting in table order, for ferndrop-explain.
std::vector<SettingInEffect> settingsInEffect();

// Forgets what was read, so that the next lookup reads the file again (tests).
void settingsReset();
