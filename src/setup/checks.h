// ferndrop-setup's two read-only modes: the recipient table for Postfix and
// the installation check. Both change nothing.
#pragma once
#include <string>

// Prints "address OK" for every mailbox directory of every domain directory
// under mailnames (links to directories count, as a delivery follows them),
// each address in the delivery's canonical form, sorted: a Postfix map for
// virtual_mailbox_maps. 0, or 1 when the tree cannot be read (nothing is
// printed then, so a cron job's postmap never installs half a table).
int printRecipientMap(const std::string &mailnames);

// One line per item, "ok: ..." or "FAIL: ...": the layout under root, what
// the delivery user can reach, the store agent, the Postfix transport (when
// postconf is installed) and the settings file. 0 when nothing would make a
// delivery fail, else 1.
int checkInstallation(const std::string &root, const std::string &user);
