// The two forms of an explanation: aligned text for the support desk and one
// JSON object for scripts, both from what the run sequence's look met.
#pragma once
#include <string>

#include "delivery/run.h"

struct Explained {
    std::string sender, recipient, mailnames, messageFile;
    RunLook look;
    ExitLine ending{0, ""};
};

void printText(const Explained &e);
void printJson(const Explained &e);
